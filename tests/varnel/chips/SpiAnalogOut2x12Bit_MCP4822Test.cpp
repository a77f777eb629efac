// SPDX-License-Identifier: MIT
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Dac = Varnel::CSpiAnalogOut2x12Bit_MCP4822;
using wire::Lines;
using wire::lines;

constexpr bool kWrite = Dac::DO_WRITE;
constexpr bool kNoWrite = Dac::NO_WRITE;
constexpr char kOpen[] = "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.cpp open";
constexpr char kBus[] = "varnel/common/LinuxSpiBus.cpp executeManagedTransfer";
constexpr char kDevice[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";

struct OpenDac : Dac {
  using Dac::d_ptr;
  using Dac::m_Bus;
  using Dac::m_ChipSelect;
  using Dac::m_LatchPin;
  using Dac::m_TransferSettings;
};

/// A converter with LDAC on pin 17, on an open bus that is in mode 3 already.
struct DacRig : BusRig {
  OpenDac dac;

  DacRig() {
    bus.close();
    bus.setMode(3);
    bus.open();
    dac.setBus(&bus);
    dac.setChipSelector(&selector);
    dac.configurePins(17);
    dac.open();
    wire.discard();
  }
};

/// The message of one word, low byte first as it stands in memory.
std::string message(const std::string& bytes) {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[" + bytes +
         "] rx=null len=2 speed_hz=500000 bits_per_word=16}) = 2";
}

Lines word(const std::string& bytes) {
  return lines("select(chip, true) = 0", message(bytes), "select(chip, false) = 0");
}

const Lines kPulse = {"pin 17: write LOW = 0", "pin 17: write HIGH = 0"};

/// What writing both channels looks like.
Lines writing(const std::string& a, const std::string& b) {
  return lines(word(a), word(b), kPulse);
}

TEST(Mcp4822, StartsUnboundWithItsRecord) {
  const OpenDac dac;
  EXPECT_EQ(dac.m_Bus, nullptr);
  EXPECT_EQ(dac.m_ChipSelect, nullptr);
  EXPECT_EQ(dac.m_LatchPin, nullptr);
  const spi_ioc_transfer& transfer = dac.m_TransferSettings.ioc_transfer;
  EXPECT_NE(transfer.tx_buf, 0U);
  EXPECT_EQ(transfer.rx_buf, 0U);
  EXPECT_EQ(transfer.len, 2U);
  EXPECT_EQ(transfer.speed_hz, 0U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 16);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(dac.m_TransferSettings.bus_settings.Mode, 3U);
  EXPECT_EQ(dac.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(Mcp4822, AddsOnlyAPointerToTheDevice) {
  const OpenDac dac;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&dac.d_ptr) - reinterpret_cast<uintptr_t>(&dac),
            48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(Dac), sizeof(void*) == 8 ? 96U : 72U);
}

TEST(Mcp4822, NamesItsConstants) {
  EXPECT_EQ(Dac::GAIN_1, 1);
  EXPECT_EQ(Dac::GAIN_2, 0);
  EXPECT_EQ(Dac::MODE_ACTIVE, 1);
  EXPECT_EQ(Dac::MODE_SHUTDOWN, 0);
  EXPECT_TRUE(std::is_enum_v<Dac::eOutputGain>);
  EXPECT_TRUE(std::is_enum_v<Dac::eOperationMode>);
  EXPECT_EQ(Dac::MAX_VALUE, 4095);
  EXPECT_TRUE(Dac::DO_WRITE);
  EXPECT_FALSE(Dac::NO_WRITE);
  const Dac dac;
  EXPECT_EQ(dac.channelCount(), 2);
  EXPECT_TRUE((std::is_same_v<decltype(dac.channelCount()), uint8_t>));
}

TEST(Mcp4822, ConfiguresTheLatchPulsePinAsAnOutput) {
  BusRig rig;
  Dac dac;
  dac.configurePins(17);
  EXPECT_EQ(rig.wire.journal(), lines("pin 17: configure OUTPUT_PIN PIN_MODE_HW"));
}

TEST(Mcp4822, OpensDeselectedWithLdacHigh) {
  DacRig rig;
  EXPECT_EQ(rig.dac.open(), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 17: connect OUTPUT_PIN PIN_MODE_HW = 0",
                                      "select(chip, false) = 0", "pin 17: write HIGH = 0"));
}

TEST(Mcp4822, OpensWithoutASelectorOrABus) {
  wire::Wire wire;
  Dac dac;
  dac.configurePins(17);
  EXPECT_EQ(dac.open(), 0);
  EXPECT_EQ(wire.journal(),
            lines("pin 17: configure OUTPUT_PIN PIN_MODE_HW",
                  "pin 17: connect OUTPUT_PIN PIN_MODE_HW = 0", "pin 17: write HIGH = 0"));
}

TEST(Mcp4822, WithoutAConfiguredPinOpenEndsAtAnInput) {
  wire::Wire wire;
  Dac dac;
  EXPECT_EQ(dac.open(), -1);
  EXPECT_EQ(wire.journal(),
            lines("pin 0: connect INPUT_PIN PIN_MODE_HW = 0", "pin 0: write HIGH = -1"));
}

TEST(Mcp4822, OpensWithoutWaitingForTheBus) {
  DacRig rig;
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.dac.open(); }));
  rig.wire.discard();
}

TEST(Mcp4822, WritesBothChannelsEachInItsOwnSelectAndPulsesLdac) {
  DacRig rig;
  EXPECT_EQ(rig.dac.setValue(0, 0x123, kNoWrite), 0);
  EXPECT_EQ(rig.dac.setValue(1, 0x456, kWrite), 0);
  EXPECT_EQ(rig.wire.journal(), writing("23 31", "56 b4"));
}

TEST(Mcp4822, WritesZerosBeforeAnyValueIsSet) {
  DacRig rig;
  EXPECT_EQ(rig.dac.write(), 0);
  EXPECT_EQ(rig.wire.journal(), writing("00 30", "00 b0"));
}

TEST(Mcp4822, KeepsAValueThatIsNotWrittenForTheNextWrite) {
  DacRig rig;
  EXPECT_EQ(rig.dac.setValue(0, 7, kWrite), 0);
  rig.wire.discard();
  EXPECT_EQ(rig.dac.setValue(1, 1000, kNoWrite), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.dac.write(), 0);
  EXPECT_EQ(rig.wire.journal(), writing("07 30", "e8 b3"));
}

TEST(Mcp4822, LimitsAValueTo4095) {
  struct Case {
    uint16_t value;
    std::string bytes;
  };
  for (const Case& limited : {Case{4094, "fe 3f"}, Case{4095, "ff 3f"}, Case{4096, "ff 3f"},
                              Case{5000, "ff 3f"}, Case{65535, "ff 3f"}}) {
    DacRig rig;
    EXPECT_EQ(rig.dac.setValue(0, limited.value, kWrite), 0);
    EXPECT_EQ(rig.wire.journal(), writing(limited.bytes, "00 b0")) << limited.value;
  }
}

TEST(Mcp4822, RefusesAChannelThatIsNotThere) {
  DacRig rig;
  for (const uint16_t channel : std::vector<uint16_t>{2, 3, 256, 65535}) {
    EXPECT_EQ(rig.dac.setValue(channel, 100, kWrite), -22);
    EXPECT_EQ(rig.wire.journal(), Lines{});
  }
  EXPECT_EQ(rig.dac.write(), 0);
  EXPECT_EQ(rig.wire.journal(), writing("00 30", "00 b0"));
}

TEST(Mcp4822, SwitchesTheBusToModeThreeBeforeItSelects) {
  BusRig rig;
  Dac dac;
  dac.setBus(&rig.bus);
  dac.setChipSelector(&rig.selector);
  dac.configurePins(17);
  dac.open();
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(dac.write(), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                  "close(7) = 0", opening("3"), message("ff ff"), writing("00 30", "00 b0")));
}

TEST(Mcp4822, DoesNotChangeTheDevicesOwnTransfer) {
  DacRig rig;
  EXPECT_EQ(rig.dac.transferData(true), 0);
  EXPECT_EQ(rig.wire.journal(), lines(message("00 00")));
}

TEST(Mcp4822, HoldsTheBusForItsWholeExchange) {
  DacRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.dac.setValue(0, 1, kWrite), 0);
  EXPECT_EQ(calls, 8);
  EXPECT_EQ(rig.dac.write(), 0);
  EXPECT_EQ(calls, 16);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Mcp4822, WaitsForTheBusWhateverItIsAskedToSet) {
  DacRig rig;
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.dac.setValue(0, 1, kNoWrite); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.dac.setValue(2, 1, kNoWrite); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.dac.write(); }));
  rig.wire.discard();
}

struct Recording : OpenDac {
  std::vector<Varnel::eCS_Handling> handlings;
  TErrCode answer = 0;

  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    handlings.push_back(handling);
    return answer;
  }
};

TEST(Mcp4822, TransfersThroughTheVirtualManagedTransfer) {
  DacRig rig;
  Recording dac;
  dac.setBus(&rig.bus);
  dac.configurePins(17);
  dac.open();
  rig.wire.discard();
  EXPECT_EQ(dac.write(), 0);
  EXPECT_EQ(dac.handlings, (std::vector<Varnel::eCS_Handling>{Varnel::CS_SELECT_DESELECT,
                                                              Varnel::CS_SELECT_DESELECT}));
  EXPECT_EQ(rig.wire.journal(), kPulse);
  dac.answer = -7;
  EXPECT_EQ(dac.write(), -7);
  EXPECT_EQ(dac.handlings.size(), 3U) << "the second word isn't tried";
  EXPECT_EQ(rig.wire.journal(), Lines{}) << "no pulse";
}

TEST(Mcp4822Faults, Open) {
  wire::FaultSweep<DacRig>([](DacRig& rig) { return rig.dac.open(); })
      .run({{"pin 17: connect OUTPUT_PIN PIN_MODE_HW = 0", "", {kOpen}},
            {"select(chip, false) = 0", "", {kOpen}},
            {"pin 17: write HIGH = 0"}});
}

std::vector<wire::Step> writingSteps() {
  const std::string failed = "can't transfer data via CLinuxSpiBus";
  return {{"select(chip, true) = 0", "", {kBus, kDevice}},
          {message("34 32"), failed, {kDevice}},
          {"select(chip, false) = 0", "", {kBus, kDevice}},
          {"select(chip, true) = 0", "", {kBus, kDevice}},
          {message("78 b6"), failed, {kDevice}},
          {"select(chip, false) = 0", "", {kBus, kDevice}},
          {"pin 17: write LOW = 0"},
          {"pin 17: write HIGH = 0"}};
}

void expectLeft(DacRig& rig, const std::string& failed) {
  EXPECT_EQ(rig.wire.pinLevel(17), failed == "pin 17: write HIGH = 0" ? 0 : 1);
  const bool inAWord = failed == message("34 32") || failed == message("78 b6") ||
                       failed == "select(chip, false) = 0";
  EXPECT_EQ(rig.selector.selected(), inAWord);
}

TEST(Mcp4822Faults, Write) {
  wire::FaultSweep<DacRig>([](DacRig& rig) {
    rig.dac.setValue(0, 0x234, kNoWrite);
    rig.dac.setValue(1, 0x678, kNoWrite);
    return rig.dac.write();
  })
      .leaves(expectLeft)
      .run(writingSteps());
}

TEST(Mcp4822Faults, SetValue) {
  wire::FaultSweep<DacRig>([](DacRig& rig) {
    rig.dac.setValue(0, 0x234, kNoWrite);
    return rig.dac.setValue(1, 0x678, kWrite);
  })
      .leaves(expectLeft)
      .recoversBy([](DacRig& rig) {
        // The value that could not be written is kept.
        rig.dac.open();
        rig.wire.discard();
        EXPECT_EQ(rig.dac.write(), 0);
        EXPECT_EQ(rig.wire.journal(), writing("34 32", "78 b6"));
      })
      .run(writingSteps());
}

}  // namespace
