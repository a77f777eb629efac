// SPDX-License-Identifier: MIT
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CLinuxSpiDevice;
using Varnel::CSpiDigOut8Bit_HC595;
using wire::Lines;
using wire::lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr char kTransferData[] = "varnel/chips/digout/SpiDigOut8Bit_HC595.cpp transferData";
constexpr char kWriteOutputs[] = "varnel/chips/digout/SpiDigOut8Bit_HC595.cpp writeOutputs";

struct OpenRegister : CSpiDigOut8Bit_HC595 {
  using CSpiDigOut8Bit_HC595::m_Bus;
  using CSpiDigOut8Bit_HC595::m_ChipSelect;
  using CSpiDigOut8Bit_HC595::m_LatchPin;
  using CSpiDigOut8Bit_HC595::m_Register;
  using CSpiDigOut8Bit_HC595::m_RegisterCache;
  using CSpiDigOut8Bit_HC595::m_TransferSettings;
};

/// A register with its latch on pin 22, on an open bus of 500 kHz.
struct RegisterRig : BusRig {
  OpenRegister chip;
  Orv::CLinuxIoPin latch{22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};

  RegisterRig() {
    chip.setBus(&bus);
    chip.setLatchPin(&latch);
    latch.connect();
    wire.name(&chip.m_Register, 1, "register");
    wire.discard();
  }
};

std::string frame(const std::string& byte) {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=register[" + byte +
         "] rx=null len=1 speed_hz=500000 bits_per_word=8}) = 1";
}

/// What one write looks like.
Lines writing(const std::string& byte) {
  return lines("pin 22: write LOW = 0", frame(byte), "pin 22: write HIGH = 0",
               "pin 22: write LOW = 0");
}

TEST(Hc595, StartsUnboundWithItsRecord) {
  const OpenRegister chip;
  EXPECT_EQ(chip.m_Bus, nullptr);
  EXPECT_EQ(chip.m_ChipSelect, nullptr);
  EXPECT_EQ(chip.m_LatchPin, nullptr);
  EXPECT_EQ(chip.m_Register, 0x00);
  EXPECT_EQ(chip.m_RegisterCache, 0xFF);
  const spi_ioc_transfer& transfer = chip.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, reinterpret_cast<uintptr_t>(&chip.m_Register));
  EXPECT_EQ(transfer.rx_buf, 0U);
  EXPECT_EQ(transfer.len, 1U);
  EXPECT_EQ(transfer.speed_hz, 0U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 8);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(chip.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(chip.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(Hc595, KeepsItsFieldsBehindTheDevices) {
  const OpenRegister chip;
  const auto offset = [&chip](const void* field) {
    return reinterpret_cast<uintptr_t>(field) - reinterpret_cast<uintptr_t>(&chip);
  };
  EXPECT_EQ(offset(&chip.m_Register), 48 + 5 * sizeof(void*));
  EXPECT_EQ(offset(&chip.m_RegisterCache), 49 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(CSpiDigOut8Bit_HC595), sizeof(void*) == 8 ? 96U : 72U);
  EXPECT_TRUE((std::is_same_v<decltype(chip.m_Register), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(chip.m_RegisterCache), uint8_t>));
}

TEST(Hc595, ShiftsTheByteWithTheLatchLowAndPulsesIt) {
  RegisterRig rig;
  EXPECT_EQ(rig.chip.writeOutputs(0xA5, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("a5"));
  EXPECT_EQ(rig.chip.m_RegisterCache, 0xA5);
}

TEST(Hc595, UsesNoChipSelect) {
  RegisterRig rig;
  rig.chip.setChipSelector(&rig.selector);
  EXPECT_EQ(rig.chip.writeOutputs(0x01, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("01"));
}

TEST(Hc595, SwitchesTheBusToModeZeroAndMostSignificantBitFirst) {
  RegisterRig rig;
  rig.bus.setMode(3);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.chip.writeOutputs(0x80, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 22: write LOW = 0", "ioctl(7, SPI_IOC_WR_MODE, 0) = 0",
                                      "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", frame("80"),
                                      "pin 22: write HIGH = 0", "pin 22: write LOW = 0"));
}

TEST(Hc595, TheFirstZeroIsSentAndTheFirst0xFFIsNot) {
  RegisterRig rig;
  EXPECT_EQ(rig.chip.writeOutputs(0xFF, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.chip.m_Register, 0x00) << "not even stored";
  EXPECT_EQ(rig.chip.writeOutputs(0x00, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("00"));
  EXPECT_EQ(rig.chip.writeOutputs(0xFF, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("ff"));
}

TEST(Hc595, TheSameValueTwiceIsSentOnce) {
  RegisterRig rig;
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), 0);
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("42"));
}

TEST(Hc595, AStoredValueCountsAsHeld) {
  RegisterRig rig;
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kNo), 0);
  EXPECT_EQ(rig.chip.m_Register, 0x42);
  EXPECT_EQ(rig.chip.m_RegisterCache, 0x42);
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{}) << "swallowed, although it never went out";
  EXPECT_EQ(rig.chip.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("42"));
}

TEST(Hc595, AHeldValueIsNotStoredAgain) {
  RegisterRig rig;
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), 0);
  rig.chip.m_Register = 0x17;
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kNo), 0);
  EXPECT_EQ(rig.chip.m_Register, 0x17);
  rig.wire.discard();
}

TEST(Hc595, TransferDataMarksWhatItSentAsHeld) {
  RegisterRig rig;
  rig.chip.m_Register = 0x99;
  EXPECT_EQ(rig.chip.transferData(kDo), 0);
  EXPECT_EQ(rig.chip.m_RegisterCache, 0x99);
  EXPECT_EQ(rig.wire.journal(), writing("99"));
}

TEST(Hc595, TransferDataWithNoTransferTouchesNothing) {
  RegisterRig rig;
  EXPECT_EQ(rig.chip.transferData(kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.chip.m_RegisterCache, 0xFF);
}

TEST(Hc595, AFailedWriteIsSentAgain) {
  RegisterRig rig;
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), -5);
  EXPECT_EQ(rig.chip.m_Register, 0x42);
  EXPECT_EQ(rig.chip.m_RegisterCache, 0xFF);
  rig.wire.discard();
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), writing("42"));
}

TEST(Hc595, AChainSendsTheFarthestByteFirst) {
  RegisterRig rig;
  OpenRegister middle;
  OpenRegister last;
  const auto chain = std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&rig.chip, &middle, &last});
  for (CLinuxSpiDevice* member : *chain) {
    member->setBus(&rig.bus);
    member->setLatchPin(&rig.latch);
    member->setDeviceChain(chain);
  }
  rig.wire.name(&middle.m_Register, 1, "middle");
  rig.wire.name(&last.m_Register, 1, "last");
  EXPECT_EQ(middle.writeOutputs(0x22, kNo), 0);
  EXPECT_EQ(last.writeOutputs(0x33, kNo), 0);
  EXPECT_EQ(rig.chip.writeOutputs(0x11, kDo), 0);
  const auto named = [](const std::string& bytes) {
    return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=" + bytes +
           " rx=null len=1 speed_hz=500000 bits_per_word=8}) = 1";
  };
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", named("last[33]"), named("middle[22]"),
                  named("register[11]"), "pin 22: write HIGH = 0", "pin 22: write LOW = 0"));
}

TEST(Hc595, AFailingMemberOfAChainEndsIt) {
  RegisterRig rig;
  OpenRegister far;
  const auto chain = std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&rig.chip, &far});
  far.setBus(&rig.bus);
  rig.chip.setDeviceChain(chain);
  rig.wire.fails("MESSAGE", ENODEV);
  EXPECT_EQ(rig.chip.writeOutputs(0x11, kDo), -19);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0",
                  "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[00] rx=null len=1 speed_hz=500000 "
                  "bits_per_word=8}) = -1 ENODEV",
                  "perror(\"can't transfer data via CLinuxSpiBus\") ENODEV",
                  wire::logged(ENODEV, "varnel/common/LinuxSpiDevice.cpp executeTransfer"),
                  wire::logged(ENODEV,
                               "varnel/common/LinuxSpiDevice.cpp "
                               "executeChainedDataTransfer"),
                  wire::logged(ENODEV, kTransferData), wire::logged(ENODEV, kWriteOutputs)));
}

TEST(Hc595, HoldsTheBusForItsWholeExchange) {
  RegisterRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), 0);
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(rig.chip.transferData(kDo), 0);
  EXPECT_EQ(calls, 8);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Hc595, LooksAtTheCacheBeforeItWaitsForTheBus) {
  RegisterRig rig;
  rig.chip.writeOutputs(0x42, kDo);
  rig.wire.discard();
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.chip.writeOutputs(0x42, kDo); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.chip.transferData(kNo); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.chip.writeOutputs(0x43, kNo); }));
}

struct Recording : OpenRegister {
  std::recursive_mutex* mutex = nullptr;
  std::vector<bool> flags;
  int chained = 0;
  TErrCode answer = 0;

  TErrCode transferData(bool doWrite) override {
    EXPECT_FALSE(wire::isFree(*mutex));
    flags.push_back(doWrite);
    return answer;
  }
  TErrCode executeChainedDataTransfer() override {
    ++chained;
    return answer;
  }
};

TEST(Hc595, WriteOutputsCallsTheVirtualTransferWithTheBusLocked) {
  RegisterRig rig;
  Recording chip;
  chip.setBus(&rig.bus);
  chip.mutex = &rig.mutex();
  EXPECT_EQ(chip.writeOutputs(0x01, kDo), 0);
  EXPECT_EQ(chip.writeOutputs(0x02, kNo), 0);
  EXPECT_EQ(chip.flags, (std::vector<bool>{true, false}));
  EXPECT_EQ(chip.m_RegisterCache, 0x02);
  chip.answer = -7;
  EXPECT_EQ(chip.writeOutputs(0x03, kNo), -7);
  EXPECT_EQ(chip.m_RegisterCache, 0x02);
  rig.wire.discard();
}

TEST(Hc595, TransfersThroughTheVirtualChainedTransfer) {
  RegisterRig rig;
  Recording chip;
  chip.setBus(&rig.bus);
  chip.setLatchPin(&rig.latch);
  EXPECT_EQ(chip.OpenRegister::transferData(kDo), 0);
  EXPECT_EQ(chip.chained, 1);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", "pin 22: write HIGH = 0", "pin 22: write LOW = 0"));
}

/// The steps of a write; `outer` logs each failure after everybody else.
std::vector<wire::Step> writingSteps(const Lines& outer) {
  const Lines device =
      lines("varnel/common/LinuxSpiDevice.cpp executeTransfer",
            "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer", kTransferData, outer);
  return {{"pin 22: write LOW = 0", "", lines(kTransferData, outer)},
          {frame("42"), "can't transfer data via CLinuxSpiBus", device},
          {"pin 22: write HIGH = 0", "", lines(kTransferData, outer)},
          {"pin 22: write LOW = 0", "", lines(kTransferData, outer)}};
}

TEST(Hc595Faults, WriteOutputs) {
  wire::FaultSweep<RegisterRig>([](RegisterRig& rig) { return rig.chip.writeOutputs(0x42, kDo); })
      .leaves([](RegisterRig& rig, const std::string&) {
        EXPECT_EQ(rig.chip.m_Register, 0x42);
        EXPECT_EQ(rig.chip.m_RegisterCache, 0xFF);
      })
      .run(writingSteps({kWriteOutputs}));
}

TEST(Hc595Faults, TransferData) {
  wire::FaultSweep<RegisterRig>([](RegisterRig& rig) {
    rig.chip.m_Register = 0x42;
    return rig.chip.transferData(kDo);
  }).leaves([](RegisterRig& rig, const std::string&) {
      EXPECT_EQ(rig.chip.m_RegisterCache, 0xFF);
    }).run(writingSteps({}));
}

TEST(Hc595Faults, TheLatchStaysAsTheFailedStepLeftIt) {
  for (const auto& [line, level] :
       {std::pair<const char*, int>{"MESSAGE", 0}, {"write HIGH", 0}, {"pin 22: write LOW", -1}}) {
    RegisterRig rig;
    rig.wire.fails(line, EIO);
    EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), -5);
    EXPECT_EQ(rig.wire.pinLevel(22), level) << line;
    rig.wire.discard();
  }
  RegisterRig rig;
  rig.wire.fails("write LOW", EIO, 2);
  EXPECT_EQ(rig.chip.writeOutputs(0x42, kDo), -5);
  EXPECT_EQ(rig.wire.pinLevel(22), 1) << "the outputs did change";
  rig.wire.discard();
}

}  // namespace
