// SPDX-License-Identifier: MIT
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Leds = Varnel::CSpiLedDriver12Bit_TLC5947;
using Varnel::CLinuxSpiDevice;
using wire::Lines;
using wire::lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr char kTransferData[] =
    "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.cpp transferData";
constexpr char kChained[] = "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer";

struct OpenLeds : Leds {
  using Leds::d;
  using Leds::Leds;
  using Leds::m_Bus;
  using Leds::m_ChipSelect;
  using Leds::m_LatchPin;
  using Leds::m_TransferSettings;
};

/// Outputs with XLAT on pin 22 and BLANK on 23, on an open bus of 500 kHz.
struct LedRig : BusRig {
  OpenLeds leds;
  Orv::CLinuxIoPin latch{22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};

  explicit LedRig(uint16_t channels = 4) : leds(channels) {
    leds.setBus(&bus);
    leds.setChipSelector(&selector);
    leds.setLatchPin(&latch);
    latch.connect();
    wire.discard();
  }
};

/// The message with the whole table, low bytes first as it stands in memory.
std::string table(const std::string& bytes, const std::string& length) {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[" + bytes + "] rx=null len=" + length +
         " speed_hz=500000 bits_per_word=12}) = " + length;
}

/// What sending the table looks like.
Lines sending(const std::string& bytes, const std::string& length = "8") {
  return lines("select(chip, true) = 0", "pin 22: write LOW = 0", table(bytes, length),
               "pin 22: write HIGH = 0", "pin 22: write LOW = 0", "select(chip, false) = 0");
}

TEST(Tlc5947, StartsUnboundWithItsRecord) {
  const OpenLeds leds(24);
  EXPECT_EQ(leds.m_Bus, nullptr);
  EXPECT_EQ(leds.m_ChipSelect, nullptr);
  EXPECT_EQ(leds.m_LatchPin, nullptr);
  const spi_ioc_transfer& transfer = leds.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.rx_buf, 0U);
  EXPECT_EQ(transfer.speed_hz, 0U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 12);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(leds.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(leds.m_TransferSettings.bus_settings.LSBFirst, 0);
  EXPECT_EQ(Leds::MAX_PWM, 4095);
}

TEST(Tlc5947, AddsOnlyAPointerToTheDevice) {
  const OpenLeds leds(24);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&leds.d) - reinterpret_cast<uintptr_t>(&leds),
            48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(Leds), sizeof(void*) == 8 ? 96U : 72U);
}

TEST(Tlc5947, CountsItsChannels) {
  Leds leds(24);
  EXPECT_EQ(leds.channelCount(), 24);
  EXPECT_EQ(leds.pwmChannelCount(), 24);
  EXPECT_EQ(leds.channelsPerLed(), 1);
  EXPECT_EQ(leds.setChannelCount(8, 3), 0);
  EXPECT_EQ(leds.channelCount(), 8);
  EXPECT_EQ(leds.pwmChannelCount(), 24);
  EXPECT_EQ(leds.channelsPerLed(), 3);
}

TEST(Tlc5947, SendsTwentyFourZerosFirstAndThenNothing) {
  LedRig rig(24);
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("00*48", "48"));
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Tlc5947, SendsEveryValueInAscendingOrder) {
  LedRig rig;
  EXPECT_EQ(rig.leds.setPWM(0, 0x123, kNo), 0);
  EXPECT_EQ(rig.leds.setPWM(1, 0x456, kNo), 0);
  EXPECT_EQ(rig.leds.setPWM(2, 0x789, kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.leds.setPWM(3, 0xABC, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("23 01 56 04 89 07 bc 0a"));
}

TEST(Tlc5947, LimitsAPulseWidthTo4095) {
  struct Case {
    uint16_t pwm;
    std::string bytes;
  };
  for (const Case& limited :
       {Case{4094, "00 00 fe 0f 00 00 00 00"}, Case{4095, "00 00 ff 0f 00 00 00 00"},
        Case{4096, "00 00 ff 0f 00 00 00 00"}, Case{5000, "00 00 ff 0f 00 00 00 00"},
        Case{65535, "00 00 ff 0f 00 00 00 00"}}) {
    LedRig rig;
    EXPECT_EQ(rig.leds.setPWM(1, limited.pwm, kDo), 0);
    EXPECT_EQ(rig.wire.journal(), sending(limited.bytes)) << limited.pwm;
  }
  LedRig rig;
  EXPECT_EQ(rig.leds.setPWMs(1, 2, 5000, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("00 00 ff 0f ff 0f 00 00"));
}

TEST(Tlc5947, SetsAllOutputsOfALogicalChannel) {
  LedRig rig(24);
  rig.leds.setChannelCount(8, 3);
  EXPECT_EQ(rig.leds.setPWM(2, 0x1FA, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("00*12 fa 01 fa 01 fa 01 00*30", "48"));
  EXPECT_EQ(rig.leds.setPWMs(6, 7, 0x201, kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            sending("00*12 fa 01 fa 01 fa 01 00*18 01 02 01 02 01 02 01 02 01 02 01 02", "48"));
}

TEST(Tlc5947, RefusesAChannelThatIsNotThere) {
  LedRig rig;
  for (const uint16_t channel : std::vector<uint16_t>{4, 5, 65535}) {
    EXPECT_EQ(rig.leds.setPWM(channel, 1, kDo), -22) << channel;
  }
  rig.leds.setChannelCount(8, 3);
  EXPECT_EQ(rig.leds.setPWM(8, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWM(22000, 1, kDo), -22) << "times 3 is more than 16 bits";
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Tlc5947, RefusesARangeThatIsNotThereAsAWhole) {
  LedRig rig;
  rig.leds.transferData(kDo);
  rig.wire.discard();
  EXPECT_EQ(rig.leds.setPWMs(3, 2, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWMs(2, 4, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWMs(4, 4, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWMs(0, 65535, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWMs(65535, 65535, 1, kDo), -22);
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{}) << "nothing was set";
}

TEST(Tlc5947, SetsTheWholeTableWithOneTransfer) {
  LedRig rig;
  EXPECT_EQ(rig.leds.setPWMs(0, 3, 0x801, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("01 08 01 08 01 08 01 08"));
  EXPECT_EQ(rig.leds.setPWMs(2, 2, 0x002, kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("01 08 01 08 02 00 01 08"));
}

TEST(Tlc5947, SendsTheSameValueAgain) {
  LedRig rig;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(rig.leds.setPWM(0, 1, kDo), 0);
    EXPECT_EQ(rig.wire.journal(), sending("01 00 00 00 00 00 00 00"));
  }
}

TEST(Tlc5947, WithoutOutputsPerLedHasNoChannels) {
  LedRig rig;
  EXPECT_EQ(rig.leds.setChannelCount(8, 0), 0);
  EXPECT_EQ(rig.leds.channelCount(), 0);
  EXPECT_EQ(rig.leds.pwmChannelCount(), 0);
  EXPECT_EQ(rig.leds.channelsPerLed(), 0);
  EXPECT_EQ(rig.leds.setPWM(0, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWMs(0, 0, 1, kDo), -22);
  EXPECT_EQ(rig.leds.setPWMs(0, 7, 1, kDo), -22);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Tlc5947, WithoutChannelsRefusesTheFirst) {
  Leds leds(0);
  EXPECT_EQ(leds.channelCount(), 0);
  EXPECT_EQ(leds.pwmChannelCount(), 0);
  EXPECT_EQ(leds.setPWM(0, 1, kDo), -22);
  EXPECT_EQ(leds.setPWMs(0, 0, 1, kDo), -22);
}

TEST(Tlc5947, ResizingKeepsValuesAndSaysNothingOfAChange) {
  LedRig rig;
  rig.leds.setPWMs(0, 3, 0x111, kDo);
  rig.wire.discard();
  EXPECT_EQ(rig.leds.setChannelCount(2, 1), 0);
  EXPECT_EQ(rig.leds.setChannelCount(4, 1), 0);
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  rig.leds.setDataChanged(true);
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("11 01 11 01 00 00 00 00"));
}

TEST(Tlc5947, TakesTheCallersWordForAChange) {
  LedRig rig;
  rig.leds.setPWM(0, 1, kNo);
  rig.leds.setDataChanged(false);
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  rig.leds.setDataChanged(true);
  EXPECT_EQ(rig.leds.transferData(kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("01 00 00 00 00 00 00 00"));
}

TEST(Tlc5947, NeedsNoSelector) {
  LedRig rig(1);
  rig.leds.setChipSelector(nullptr);
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 22: write LOW = 0", table("00 00", "2"),
                                      "pin 22: write HIGH = 0", "pin 22: write LOW = 0"));
}

TEST(Tlc5947, SwitchesTheBusToModeZeroAndMostSignificantBitFirst) {
  LedRig rig(1);
  rig.bus.setMode(1);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(
      rig.wire.journal(),
      lines("select(chip, true) = 0", "pin 22: write LOW = 0", "ioctl(7, SPI_IOC_WR_MODE, 0) = 0",
            "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", table("00 00", "2"), "pin 22: write HIGH = 0",
            "pin 22: write LOW = 0", "select(chip, false) = 0"));
}

TEST(Tlc5947, TransfersTheTableAloneWhetherItChangedOrNot) {
  LedRig rig(2);
  rig.leds.setDataChanged(false);
  EXPECT_EQ(rig.leds.executeTransfer(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(table("00 00 00 00", "4")));
}

TEST(Tlc5947, KeepsTheDevicesTransferOfSeveralRecords) {
  LedRig rig(2);
  spi_ioc_transfer transfer{};
  Varnel::stSpiMultipleTransferSettings settings;
  settings.ioc_transfer = &transfer;
  settings.transfer_count = 1;
  EXPECT_EQ(rig.leds.executeTransfer(settings), 0);
  EXPECT_EQ(rig.wire.journal(), lines(emptyMessage()));
}

TEST(Tlc5947, SendsAChainFromItsFarEnd) {
  LedRig rig(1);
  OpenLeds far(2);
  far.setBus(&rig.bus);
  far.setPWM(0, 0x222, kNo);
  const auto chain = std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&rig.leds, &far});
  rig.leds.setDeviceChain(chain);
  EXPECT_EQ(rig.leds.setPWM(0, 0x111, kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", "pin 22: write LOW = 0", table("22 02 00 00", "4"),
                  table("11 01", "2"), "pin 22: write HIGH = 0", "pin 22: write LOW = 0",
                  "select(chip, false) = 0"));
}

TEST(Tlc5947, SwitchesTheOutputEnablePinAsItIsAsked) {
  LedRig rig;
  EXPECT_EQ(rig.leds.outputEnablePin().connect(), 0);
  EXPECT_EQ(rig.leds.setOutputEnable(true), 0);
  EXPECT_EQ(rig.leds.setOutputEnable(false), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 47: connect OUTPUT_PIN PIN_MODE_HW = 0",
                                      "pin 47: write HIGH = 0", "pin 47: write LOW = 0"));
  rig.leds.outputEnablePin().configure(23, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  rig.leds.outputEnablePin().connect();
  EXPECT_EQ(rig.leds.setOutputEnable(true), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 23: configure OUTPUT_PIN PIN_MODE_INVERT",
                  "pin 23: connect OUTPUT_PIN PIN_MODE_INVERT = 0", "pin 23: write HIGH = 0"));
}

TEST(Tlc5947, DoesNotConnectTheOutputEnablePinItself) {
  LedRig rig;
  EXPECT_EQ(rig.leds.setOutputEnable(true), -9);
  EXPECT_EQ(rig.wire.journal(), lines("pin 47: write HIGH = -9"));
}

TEST(Tlc5947, HoldsTheBusForItsWholeExchange) {
  LedRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.leds.setPWM(0, 1, kDo), 0);
  EXPECT_EQ(rig.leds.setPWMs(0, 1, 1, kDo), 0);
  EXPECT_EQ(calls, 18);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Tlc5947, LocksToSetValuesButNotToRefuseThem) {
  LedRig rig;
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.setPWM(4, 1, kDo); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.setPWMs(3, 2, 1, kDo); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.setPWMs(2, 4, 1, kDo); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.transferData(kNo); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] {
    rig.leds.setChannelCount(4, 1);
    rig.leds.setDataChanged(true);
    rig.leds.channelCount();
  }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.setPWM(3, 1, kNo); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.setPWMs(2, 3, 1, kNo); }));
  rig.leds.setDataChanged(false);
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.leds.transferData(kDo); }));
}

struct Recording : OpenLeds {
  using OpenLeds::OpenLeds;
  std::recursive_mutex* mutex = nullptr;
  std::vector<bool> flags;
  int chained = 0;

  TErrCode transferData(bool doWrite) override {
    EXPECT_FALSE(wire::isFree(*mutex));
    flags.push_back(doWrite);
    return 7;
  }
  TErrCode executeChainedDataTransfer() override {
    ++chained;
    return 3;
  }
};

TEST(Tlc5947, SettingCallsTheVirtualTransferWithTheBusLocked) {
  LedRig rig;
  Recording leds(4);
  leds.setBus(&rig.bus);
  leds.mutex = &rig.mutex();
  EXPECT_EQ(leds.setPWM(0, 1, kDo), 7);
  EXPECT_EQ(leds.setPWMs(0, 1, 1, kNo), 7);
  EXPECT_EQ(leds.flags, (std::vector<bool>{true, false}));
  rig.wire.discard();
}

TEST(Tlc5947, TransfersThroughTheVirtualChainedTransfer) {
  LedRig rig;
  Recording leds(4);
  leds.setBus(&rig.bus);
  leds.setLatchPin(&rig.latch);
  EXPECT_EQ(leds.OpenLeds::transferData(kDo), 0);
  EXPECT_EQ(leds.chained, 1);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", "pin 22: write HIGH = 0", "pin 22: write LOW = 0"));
}

std::vector<wire::Step> sendingSteps() {
  return {{"select(chip, true) = 0", "", {kTransferData}},
          {"pin 22: write LOW = 0", "", {kTransferData}},
          {table("00 00 34 02 34 02 00 00", "8"),
           "can't transfer data via CLinuxSpiBus",
           {kChained, kTransferData}},
          {"pin 22: write HIGH = 0", "", {kTransferData}},
          {"pin 22: write LOW = 0", "", {kTransferData}},
          {"select(chip, false) = 0", "", {kTransferData}}};
}

/// What has failed stays pending, and a failed step leaves select and latch alone.
void expectLeft(LedRig& rig, const std::string& failed) {
  EXPECT_EQ(rig.selector.selected(), failed != "select(chip, true) = 0");
  EXPECT_EQ(rig.leds.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(), sending("00 00 34 02 34 02 00 00"));
}

TEST(Tlc5947Faults, SetPWMs) {
  wire::FaultSweep<LedRig>([](LedRig& rig) { return rig.leds.setPWMs(1, 2, 0x234, kDo); })
      .leaves(expectLeft)
      .run(sendingSteps());
}

TEST(Tlc5947Faults, SetPWM) {
  wire::FaultSweep<LedRig>([](LedRig& rig) {
    rig.leds.setPWM(1, 0x234, kNo);
    return rig.leds.setPWM(2, 0x234, kDo);
  })
      .leaves(expectLeft)
      .run(sendingSteps());
}

TEST(Tlc5947Faults, TransferData) {
  wire::FaultSweep<LedRig>([](LedRig& rig) {
    rig.leds.setPWMs(1, 2, 0x234, kNo);
    return rig.leds.transferData(kDo);
  })
      .leaves(expectLeft)
      .run(sendingSteps());
}

TEST(Tlc5947Faults, ExecuteTransferAloneLogsNothing) {
  wire::FaultSweep<LedRig>([](LedRig& rig) {
    return rig.leds.executeTransfer();
  }).run({{table("00*8", "8"), "can't transfer data via CLinuxSpiBus"}});
}

TEST(Tlc5947Faults, SetOutputEnable) {
  struct EnableRig : LedRig {
    EnableRig() {
      leds.outputEnablePin().connect();
      wire.discard();
    }
  };
  wire::FaultSweep<EnableRig>([](EnableRig& rig) {
    return rig.leds.setOutputEnable(true);
  }).run({{"pin 47: write HIGH = 0"}});
}

TEST(Tlc5947Faults, TheLatchStaysAsTheFailedStepLeftIt) {
  struct Case {
    const char* call;
    unsigned nth;
    int level;
  };
  for (const Case& failing : {Case{"write LOW", 1, -1}, Case{"MESSAGE", 1, 0},
                              Case{"write HIGH", 1, 0}, Case{"write LOW", 2, 1}}) {
    LedRig rig;
    rig.wire.fails(failing.call, EIO, failing.nth);
    EXPECT_EQ(rig.leds.transferData(kDo), -5);
    EXPECT_EQ(rig.wire.pinLevel(22), failing.level) << failing.call << failing.nth;
    rig.wire.discard();
  }
}

}  // namespace
