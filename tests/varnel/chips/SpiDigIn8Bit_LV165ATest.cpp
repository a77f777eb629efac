// SPDX-License-Identifier: MIT
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
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
using Varnel::CSpiDigIn8Bit_LV165A;
using wire::Lines;
using wire::lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr char kTransferData[] = "varnel/chips/digin/SpiDigIn8Bit_LV165A.cpp transferData";
constexpr char kReadInputs[] = "varnel/chips/digin/SpiDigIn8Bit_LV165A.cpp readInputs";

struct OpenInputs : CSpiDigIn8Bit_LV165A {
  using CSpiDigIn8Bit_LV165A::m_Bus;
  using CSpiDigIn8Bit_LV165A::m_ChipSelect;
  using CSpiDigIn8Bit_LV165A::m_LatchPin;
  using CSpiDigIn8Bit_LV165A::m_Register;
  using CSpiDigIn8Bit_LV165A::m_TransferSettings;
};

/// An input register with a selector and its load pin on 23, on an open bus of 500 kHz.
struct InputsRig : BusRig {
  OpenInputs chip;
  Orv::CLinuxIoPin load{23, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};

  InputsRig() {
    chip.setBus(&bus);
    chip.setChipSelector(&selector);
    chip.setLatchPin(&load);
    load.connect();
    wire.name(&chip.m_Register, 1, "register");
    wire.discard();
  }
};

const std::string kFrame =
    "ioctl(7, SPI_IOC_MESSAGE(1), "
    "{tx=null rx=register len=1 speed_hz=500000 bits_per_word=8}) = 1";

/// What one read looks like.
Lines reading() {
  return lines("select(chip, true) = 0", "pin 23: write LOW = 0", "pin 23: write HIGH = 0",
               "pin 23: write LOW = 0", kFrame);
}

TEST(Lv165a, StartsUnboundWithItsRecord) {
  const OpenInputs chip;
  EXPECT_EQ(chip.m_Bus, nullptr);
  EXPECT_EQ(chip.m_ChipSelect, nullptr);
  EXPECT_EQ(chip.m_LatchPin, nullptr);
  EXPECT_EQ(chip.m_Register, 0);
  const spi_ioc_transfer& transfer = chip.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, 0U);
  EXPECT_EQ(transfer.rx_buf, reinterpret_cast<uintptr_t>(&chip.m_Register));
  EXPECT_EQ(transfer.len, 1U);
  EXPECT_EQ(transfer.speed_hz, 0U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 8);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(chip.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(chip.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(Lv165a, KeepsItsRegisterBehindTheDevicesFields) {
  const OpenInputs chip;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&chip.m_Register) - reinterpret_cast<uintptr_t>(&chip),
            48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(CSpiDigIn8Bit_LV165A), sizeof(void*) == 8 ? 96U : 72U);
  EXPECT_TRUE((std::is_same_v<decltype(chip.m_Register), uint8_t>));
}

TEST(Lv165a, LoadsAndShiftsInAndStaysSelected) {
  InputsRig rig;
  rig.wire.receives({0xA5});
  EXPECT_EQ(rig.chip.readInputs(kDo), 0xA5);
  EXPECT_EQ(rig.wire.journal(), reading());
  EXPECT_TRUE(rig.selector.selected());
}

TEST(Lv165a, GivesEveryByteAsAPositiveNumber) {
  for (const int byte : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
    InputsRig rig;
    rig.wire.receives({static_cast<uint8_t>(byte)});
    EXPECT_EQ(rig.chip.readInputs(kDo), byte);
    rig.wire.discard();
  }
}

TEST(Lv165a, NeedsNoSelector) {
  InputsRig rig;
  rig.chip.setChipSelector(nullptr);
  rig.wire.receives({0x12});
  EXPECT_EQ(rig.chip.readInputs(kDo), 0x12);
  EXPECT_EQ(rig.wire.journal(), lines("pin 23: write LOW = 0", "pin 23: write HIGH = 0",
                                      "pin 23: write LOW = 0", kFrame));
}

TEST(Lv165a, SwitchesTheBusToModeZeroAndMostSignificantBitFirst) {
  InputsRig rig;
  rig.bus.setMode(1);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.chip.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", "pin 23: write LOW = 0", "pin 23: write HIGH = 0",
                  "pin 23: write LOW = 0", "ioctl(7, SPI_IOC_WR_MODE, 0) = 0",
                  "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", kFrame));
}

TEST(Lv165a, WithNoTransferGivesTheLastByte) {
  InputsRig rig;
  EXPECT_EQ(rig.chip.readInputs(kNo), 0);
  EXPECT_EQ(rig.chip.transferData(kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  rig.wire.receives({0x5A});
  rig.chip.readInputs(kDo);
  rig.wire.discard();
  EXPECT_EQ(rig.chip.readInputs(kNo), 0x5A);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Lv165a, IgnoresTheResultOfTheThirdLatchWrite) {
  InputsRig rig;
  rig.wire.receives({0x77}).fails("write LOW", EIO, 2);
  EXPECT_EQ(rig.chip.readInputs(kDo), 0x77);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", "pin 23: write LOW = 0",
                                      "pin 23: write HIGH = 0", "pin 23: write LOW = -5", kFrame));
}

TEST(Lv165a, AFailingTransferKeepsWhatItLeftInTheRegister) {
  InputsRig rig;
  rig.wire.receives({0x77});
  rig.chip.readInputs(kDo);
  rig.wire.discard();
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.chip.readInputs(kDo), -5);
  rig.wire.discard();
  EXPECT_EQ(rig.chip.readInputs(kNo), 0x77);
}

TEST(Lv165a, ReadsAChainFromItsFarEnd) {
  InputsRig rig;
  OpenInputs far;
  far.setBus(&rig.bus);
  rig.wire.name(&far.m_Register, 1, "far");
  rig.chip.setDeviceChain(std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&rig.chip, &far}));
  rig.wire.receives({0x22}).receives({0x11});
  EXPECT_EQ(rig.chip.readInputs(kDo), 0x11);
  EXPECT_EQ(far.m_Register, 0x22);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", "pin 23: write LOW = 0",
                                      "pin 23: write HIGH = 0", "pin 23: write LOW = 0",
                                      "ioctl(7, SPI_IOC_MESSAGE(1), "
                                      "{tx=null rx=far len=1 speed_hz=500000 bits_per_word=8}) = 1",
                                      kFrame));
}

TEST(Lv165a, HoldsTheBusForItsWholeExchange) {
  InputsRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_GE(rig.chip.readInputs(kDo), 0);
  EXPECT_EQ(calls, 5);
  EXPECT_EQ(rig.chip.transferData(kDo), 0);
  EXPECT_EQ(calls, 10);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Lv165a, WaitsForTheBusToReadButNotToTransferNothing) {
  InputsRig rig;
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.chip.transferData(kNo); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.chip.readInputs(kNo); }));
}

struct Recording : OpenInputs {
  std::recursive_mutex* mutex = nullptr;
  bool flag = false;
  int chained = 0;

  TErrCode transferData(bool doWrite) override {
    EXPECT_FALSE(wire::isFree(*mutex));
    flag = doWrite;
    return -7;
  }
  TErrCode executeChainedDataTransfer() override {
    ++chained;
    return 3;
  }
};

TEST(Lv165a, ReadInputsCallsTheVirtualTransferWithTheBusLocked) {
  InputsRig rig;
  Recording chip;
  chip.setBus(&rig.bus);
  chip.mutex = &rig.mutex();
  EXPECT_EQ(chip.readInputs(kDo), -7);
  EXPECT_TRUE(chip.flag);
  EXPECT_EQ(chip.readInputs(kNo), -7);
  EXPECT_FALSE(chip.flag);
  rig.wire.discard();
}

TEST(Lv165a, TransfersThroughTheVirtualChainedTransferAndGivesItsResult) {
  InputsRig rig;
  Recording chip;
  chip.setBus(&rig.bus);
  chip.setLatchPin(&rig.load);
  EXPECT_EQ(chip.OpenInputs::transferData(kDo), 3);
  EXPECT_EQ(chip.chained, 1);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 23: write LOW = 0", "pin 23: write HIGH = 0", "pin 23: write LOW = 0"));
}

/// The steps of a read up to the pulse's end, which can't fail it; `outer` logs each failure after
/// everybody else.
std::vector<wire::Step> loadingSteps(const Lines& outer) {
  return {{"select(chip, true) = 0", "", lines(kTransferData, outer)},
          {"pin 23: write LOW = 0", "", lines(kTransferData, outer)},
          {"pin 23: write HIGH = 0", "", lines(kTransferData, outer)}};
}

/// A failing step of the load: what the journal shows and what comes back.
void expectLoadingFaults(bool wholeRead) {
  const std::vector<wire::Step> steps = loadingSteps(wholeRead ? Lines{kReadInputs} : Lines{});
  for (unsigned failing = 0; failing < steps.size(); ++failing) {
    for (const int error : {EIO, EINVAL, ENODEV}) {
      InputsRig rig;
      rig.wire.failsCall(failing + 1, error);
      EXPECT_EQ(wholeRead ? rig.chip.readInputs(kDo) : rig.chip.transferData(kDo), -error);
      Lines expected;
      for (unsigned i = 0; i <= failing; ++i) {
        expected.push_back(steps[i].line);
      }
      expected.back().replace(expected.back().size() - 1, 1, std::to_string(-error));
      for (const std::string& place : steps[failing].places) {
        expected.push_back(wire::logged(error, place));
      }
      EXPECT_EQ(rig.wire.journal(), expected);
      EXPECT_TRUE(wire::isFree(rig.mutex()));
      EXPECT_EQ(rig.selector.selected(), failing > 0);
      EXPECT_GE(rig.chip.readInputs(kDo), 0) << "works again without more ado";
      rig.wire.discard();
    }
  }
}

TEST(Lv165aFaults, SweepOfTheLoadInReadInputs) {
  expectLoadingFaults(true);
}

TEST(Lv165aFaults, SweepOfTheLoadInTransferData) {
  expectLoadingFaults(false);
}

TEST(Lv165aFaults, AFailingTransferIsLoggedByTheDeviceAndByReadInputsOnly) {
  for (const int error : {EIO, EINVAL, ENODEV}) {
    const std::string name = error == EIO ? "EIO" : error == EINVAL ? "EINVAL" : "ENODEV";
    const std::string failed = kFrame.substr(0, kFrame.rfind(" = ")) + " = -1 " + name;
    const Lines device = lines(
        "select(chip, true) = 0", "pin 23: write LOW = 0", "pin 23: write HIGH = 0",
        "pin 23: write LOW = 0", failed, "perror(\"can't transfer data via CLinuxSpiBus\") " + name,
        wire::logged(error, "varnel/common/LinuxSpiDevice.cpp executeTransfer"),
        wire::logged(error, "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer"));
    InputsRig rig;
    rig.wire.fails("MESSAGE", error);
    EXPECT_EQ(rig.chip.transferData(kDo), -error);
    EXPECT_EQ(rig.wire.journal(), device);
    rig.wire.fails("MESSAGE", error);
    EXPECT_EQ(rig.chip.readInputs(kDo), -error);
    EXPECT_EQ(rig.wire.journal(), lines(device, wire::logged(error, kReadInputs)));
    EXPECT_TRUE(rig.selector.selected());
    EXPECT_TRUE(wire::isFree(rig.mutex()));
  }
}

}  // namespace
