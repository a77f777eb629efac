// SPDX-License-Identifier: MIT
// The iC-MD driver against the model of the chip: a turned encoder in, positions out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"
#include "vboard/vboard.h"

namespace {

using boardtest::rulesOf;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Encoder;
using vboard::Icmd;
using vboard::Level;

using namespace Varnel::iC_MD;

constexpr unsigned kSelect = 25;
constexpr uint8_t kStatus = 0x48;
constexpr int kTransitionError = 0x80;
constexpr int kOverflow = 0x40;
constexpr int kPowerDown = 0x10;

/// One chip on /dev/spidev1.0, selected by line 25.
class IcmdBoard : public testing::Test {
 protected:
  explicit IcmdBoard(uint16_t speedKHz = 1000) : speed(speedKHz) {
    board.attach(chip, spi);
    board.connect(chip.pin("NCS"), gpio.line(kSelect));
  }
  void TearDown() override { bus.close(); }

  void wire(Encoder& encoder, const std::vector<const char*>& outputs,
            const std::vector<const char*>& inputs) {
    for (size_t i = 0; i < outputs.size(); ++i) {
      board.connect(encoder.pin(outputs[i]), chip.pin(inputs[i]));
    }
  }

  void start() {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(bus.setSpiSpeedKHz(speed), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(selector.connect(), 0);
    device.setBus(&bus);
    device.setChipSelector(&selector);
  }
  void configure(int counterConfig, bool ttl) {
    device.setRegisterValue(REG_COUNTER_INPUT_CONFIG, BITMASK_REG0_CNTCFG,
                            static_cast<uint8_t>(counterConfig));
    device.setRegisterBitValue(REG1_Z_TOUCH_PROBE_CONFIG, BIT_REG1_TTL, ttl);
    ASSERT_EQ(device.connect(), 0);
    for (uint8_t counter = 0; counter < chip.counters(); ++counter) {
      ASSERT_EQ(device.clearCounter(counter), 0);
    }
  }

  int64_t position64(uint8_t counter = 0) {
    int64_t position = 99;
    EXPECT_EQ(device.readPosition64(counter, position), 0);
    return position;
  }
  int32_t position32(uint8_t counter = 0) {
    int32_t position = 99;
    EXPECT_EQ(device.readPosition32(counter, position), 0);
    return position;
  }
  int16_t position16(uint8_t counter = 0) {
    int16_t position = 99;
    EXPECT_EQ(device.readPosition16(counter, position), 0);
    return position;
  }
  /// A status byte, which the chip clears by it.
  int status(int byte) {
    uint8_t value = 0;
    EXPECT_EQ(device.readRegister(static_cast<uint8_t>(kStatus + byte), value), 0);
    return value;
  }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  Icmd& chip = board.add<Icmd>("counter");
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector selector{kSelect, Orv::PIN_MODE_INVERT};
  CSpiQuadratureCounter48Bit device;
  uint16_t speed;
};

struct Layout {
  eREG0_CNTCFG_VALUE config;
  std::array<int, 3> bits;
};

/// Each configuration with an encoder at each of its counters, single lines, without index.
class IcmdLayouts : public IcmdBoard, public testing::WithParamInterface<Layout> {
 protected:
  void SetUp() override {
    const std::array<const char*, 6> pins = {"AP", "AN", "BP", "BN", "CP", "CN"};
    const size_t distance = GetParam().bits[2] > 0 ? 2 : 3;
    for (size_t counter = 0; counter < 3 && GetParam().bits[counter] > 0; ++counter) {
      auto& encoder = board.add<Encoder>("encoder" + std::to_string(counter));
      wire(encoder, {"A", "B"}, {pins[distance * counter], pins[distance * counter + 1]});
      encoders.push_back(&encoder);
    }
    // As the driver reads configuration 5; the chip's sources differ.
    chip.setConfig5(Icmd::Config5::Counter0Has32);
    start();
    configure(GetParam().config, true);
  }

  int64_t lowest(size_t counter) const { return -(int64_t{1} << (GetParam().bits[counter] - 1)); }
  int64_t highest(size_t counter) const { return -(lowest(counter) + 1); }

  /// What the chip has, as the driver gives it in each width: without sign extension.
  void expectPosition(size_t counter, int64_t count) {
    ASSERT_EQ(chip.count(static_cast<int>(counter)), count);
    const auto raw = static_cast<int64_t>(static_cast<uint64_t>(count) &
                                          ((uint64_t{1} << GetParam().bits[counter]) - 1));
    const auto number = static_cast<uint8_t>(counter);
    EXPECT_EQ(position64(number), raw) << "counter " << counter;
    EXPECT_EQ(position32(number), static_cast<int32_t>(raw)) << "counter " << counter;
    EXPECT_EQ(position16(number), static_cast<int16_t>(raw)) << "counter " << counter;
  }

  std::vector<Encoder*> encoders;
};

TEST_P(IcmdLayouts, EachCounterHasItsWidth) {
  EXPECT_EQ(chip.counters(), static_cast<int>(encoders.size()));
  for (int counter = 0; counter < 3; ++counter) {
    EXPECT_EQ(chip.bits(counter), GetParam().bits[static_cast<size_t>(counter)]);
  }
}

TEST_P(IcmdLayouts, TurnsForwardsBackwardsAndThroughZeroAreCounted) {
  for (size_t counter = 0; counter < encoders.size(); ++counter) {
    encoders[counter]->turn(1000 + static_cast<int64_t>(counter));
  }
  for (size_t counter = 0; counter < encoders.size(); ++counter) {
    expectPosition(counter, 1000 + static_cast<int64_t>(counter));
    encoders[counter]->turn(-400);
    expectPosition(counter, 600 + static_cast<int64_t>(counter));
    encoders[counter]->turn(-600 - static_cast<int64_t>(counter));
    expectPosition(counter, 0);
    encoders[counter]->turn(-3);
    expectPosition(counter, -3);
    encoders[counter]->turn(5);
    expectPosition(counter, 2);
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_P(IcmdLayouts, EveryWidthOverflowsAtBothEndsAndLeavesItsNeighbours) {
  for (size_t counter = 0; counter < encoders.size(); ++counter) {
    chip.setCount(static_cast<int>(counter), 77);
  }
  for (size_t counter = 0; counter < encoders.size(); ++counter) {
    const int number = static_cast<int>(counter);
    status(number);
    chip.setCount(number, highest(counter));
    expectPosition(counter, highest(counter));
    encoders[counter]->turn(1);
    expectPosition(counter, lowest(counter));
    EXPECT_EQ(status(number) & kOverflow, kOverflow);
    EXPECT_EQ(status(number), 0) << "read once";
    encoders[counter]->turn(-1);
    expectPosition(counter, highest(counter));
    EXPECT_EQ(status(number) & kOverflow, kOverflow);
    chip.setCount(number, 77);
    for (size_t other = 0; other < encoders.size(); ++other) {
      expectPosition(other, 77);
    }
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_P(IcmdLayouts, ClearingACounterLeavesTheOthers) {
  for (size_t counter = 0; counter < encoders.size(); ++counter) {
    encoders[counter]->turn(50);
  }
  for (size_t counter = 0; counter < encoders.size(); ++counter) {
    ASSERT_EQ(device.clearCounter(static_cast<uint8_t>(counter)), 0);
    for (size_t other = 0; other < encoders.size(); ++other) {
      expectPosition(other, other <= counter ? 0 : 50);
    }
  }
}

TEST_P(IcmdLayouts, ACounterThatIsNotThereStaysAtZero) {
  encoders[0]->turn(50);
  for (size_t counter = encoders.size(); counter < 3; ++counter) {
    EXPECT_EQ(position64(static_cast<uint8_t>(counter)), 0);
  }
  int64_t position = 99;
  EXPECT_EQ(device.readPosition64(3, position), -22);
  EXPECT_EQ(position, 99);
}

INSTANTIATE_TEST_SUITE_P(
    All, IcmdLayouts,
    testing::Values(Layout{REG0_CNT0_24BIT, {24, 0, 0}},
                    Layout{REG0_CNT0_24BIT_CNT1_24BIT, {24, 24, 0}},
                    Layout{REG0_CNT0_48BIT, {48, 0, 0}}, Layout{REG0_CNT0_16BIT, {16, 0, 0}},
                    Layout{REG0_CNT0_32BIT, {32, 0, 0}},
                    Layout{REG0_CNT0_32BIT_CNT1_16BIT, {32, 16, 0}},
                    Layout{REG0_CNT0_16BIT_CNT1_16BIT, {16, 16, 0}},
                    Layout{REG0_CNT0_16BIT_CNT1_16BIT_CNT2_16BIT, {16, 16, 16}}),
    [](const auto& layout) { return "Configuration" + std::to_string(layout.param.config); });

/// An encoder with differential outputs and index, 10 lines per turn; the chip as it powers up.
class IcmdEncoder : public IcmdBoard {
 protected:
  void SetUp() override {
    wire(encoder, {"A", "A_N", "B", "B_N", "Z", "Z_N"}, {"AP", "AN", "BP", "BN", "CP", "CN"});
    encoder.setLines(10);
    encoder.turn(8);  // past the index
    start();
  }
  Encoder& encoder = board.add<Encoder>("encoder");
};

TEST_F(IcmdEncoder, WorksWithoutAnyConfiguration) {
  encoder.turn(15);
  EXPECT_EQ(position64(), 15);
  encoder.turn(-20);
  EXPECT_EQ(position64(), 0xFFFFFB) << "24 bits without a sign";
  EXPECT_EQ(position32(), 0xFFFFFB);
  EXPECT_EQ(position16(), -5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, OnlyItsOwnWidthGivesANegativePosition) {
  configure(REG0_CNT0_48BIT, false);
  encoder.turn(-1);
  EXPECT_EQ(position64(), 281474976710655);
  EXPECT_EQ(position32(), -1);
  configure(REG0_CNT0_32BIT, false);
  encoder.turn(-1);
  EXPECT_EQ(position64(), 4294967295);
  EXPECT_EQ(position32(), -1);
  EXPECT_EQ(position16(), -1);
  configure(REG0_CNT0_16BIT, false);
  encoder.turn(-1);
  EXPECT_EQ(position64(), 65535);
  EXPECT_EQ(position32(), 65535);
  EXPECT_EQ(position16(), -1);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, ATurningShaftIsFollowed) {
  configure(REG0_CNT0_32BIT, false);
  encoder.setSpeed(10);
  int32_t before = position32();
  for (int i = 0; i < 3; ++i) {
    board.advance(std::chrono::seconds(1));
    const int32_t now = position32();
    EXPECT_NEAR(now - before, 10, 1);
    before = now;
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, AnIllegalTransitionIsAnErrorUntilItsStatusIsRead) {
  status(0);
  encoder.turn(4);
  encoder.jump(2);
  EXPECT_EQ(chip.pin("NERR").level(), Level::Low);
  EXPECT_EQ(position64(), 4) << "two edges are lost";
  EXPECT_EQ(status(0), kTransitionError);
  EXPECT_EQ(chip.pin("NERR").level(), Level::High);
  ASSERT_EQ(device.clearCounter(0), 0);
  EXPECT_EQ(position64(), 0);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, TheFirstTwoIndexPulsesClearAnywayAndLaterOnesWhenAsked) {
  configure(REG0_CNT0_24BIT, false);
  encoder.turn(36);  // 44 edges from the start: past the index of the second turn
  EXPECT_EQ(position64(), 2) << "cleared two edges ago";
  encoder.turn(40);
  EXPECT_EQ(position64(), 2);
  encoder.turn(40);
  EXPECT_EQ(position64(), 42) << "the third index doesn't";
  ASSERT_EQ(device.setClearCounterOnIndex(0, true), 0);
  encoder.turn(40);
  EXPECT_EQ(position64(), 2);
  ASSERT_EQ(device.setClearCounterOnIndex(0, false), 0);
  encoder.turn(40);
  EXPECT_EQ(position64(), 42);
  EXPECT_EQ(device.setClearCounterOnIndex(2, true), -22);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, ClearingACounterDropsTheActuators) {
  ASSERT_EQ(device.writeRegister(REG_INSTRUCTION_BYTE, 0x60), 0);
  EXPECT_TRUE(chip.act(0));
  EXPECT_TRUE(chip.act(1));
  ASSERT_EQ(device.clearCounter(0), 0);
  EXPECT_FALSE(chip.act(0));
  EXPECT_FALSE(chip.act(1));
}

TEST_F(IcmdEncoder, RegistersAreReadAndWritten) {
  uint8_t value = 0;
  ASSERT_EQ(device.readRegister(0x78, value), 0);
  EXPECT_EQ(value, 'M');
  ASSERT_EQ(device.readRegister(0x79, value), 0);
  EXPECT_EQ(value, 'D');
  ASSERT_EQ(device.writeRegister(0x05, 0xA5), 0);
  EXPECT_EQ(chip.registerValue(0x05), 0xA5);
  ASSERT_EQ(device.readRegister(0x85, value), 0) << "bit 7 of the address is dropped";
  EXPECT_EQ(value, 0xA5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, ConnectingWritesAllEightRegisters) {
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    device.setRegisterValue(reg, 0xFF, static_cast<uint8_t>(0x10 * reg + 4));
  }
  ASSERT_EQ(device.connect(), 0);
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    EXPECT_EQ(chip.registerValue(reg), 0x10 * reg + 4);
  }
}

TEST_F(IcmdEncoder, AnotherConfigurationWantsItsCountersCleared) {
  device.setRegisterValue(REG_COUNTER_INPUT_CONFIG, BITMASK_REG0_CNTCFG, REG0_CNT0_32BIT);
  ASSERT_EQ(device.connect(), 0);
  position64();
  EXPECT_THAT(rulesOf(board), ElementsAre("counter not-reset"));
}

TEST_F(IcmdEncoder, SeveralCountersNeedTtlInputs) {
  configure(REG0_CNT0_24BIT_CNT1_24BIT, false);
  position64();
  EXPECT_THAT(rulesOf(board), ElementsAre("counter needs-ttl"));
}

TEST_F(IcmdEncoder, APowerLossForgetsTheConfigurationAndConnectingBringsItBack) {
  configure(REG0_CNT0_48BIT, false);
  EXPECT_EQ(status(0) & kPowerDown, kPowerDown);
  EXPECT_EQ(status(0) & kPowerDown, 0);
  encoder.turn(20);
  chip.losePower();
  chip.restorePower();
  EXPECT_EQ(status(0) & kPowerDown, kPowerDown);
  EXPECT_EQ(chip.bits(0), 24);
  configure(REG0_CNT0_48BIT, false);
  encoder.turn(5);
  EXPECT_EQ(position64(), 5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(IcmdEncoder, AFailedReadGivesTheOldPositionAndLeavesTheChipSelected) {
  encoder.turn(5);
  EXPECT_EQ(position64(), 5);
  encoder.turn(5);
  kernel->failCall(vboard::Call::Message, 3, EIO);
  EXPECT_EQ(position64(), 5) << "result 0 all the same";
  EXPECT_EQ(gpio.level(kSelect), Level::Low);

  // Unreleased, the next command is taken for a read on: its word begins with the third byte.
  EXPECT_EQ(position64(), 0x0AC000);
  EXPECT_EQ(gpio.level(kSelect), Level::High);
  EXPECT_THAT(rulesOf(board), ElementsAre("counter long-read"));
  EXPECT_EQ(position64(), 10);
}

TEST_F(IcmdEncoder, ReleasingTheChipAfterAFailedReadIsEnough) {
  encoder.turn(5);
  kernel->failCall(vboard::Call::Message, 3, EIO);
  EXPECT_EQ(position64(), 0);
  EXPECT_EQ(selector.enable(false), 0);
  EXPECT_EQ(position64(), 5);
  EXPECT_THAT(rulesOf(board), ElementsAre("counter short-read"));
}

TEST_F(IcmdEncoder, AFailedRegisterAccessReleasesTheChip) {
  kernel->failCall(vboard::Call::Message, 2, EIO);
  EXPECT_EQ(device.writeRegister(0x05, 0xA5), -5);
  EXPECT_EQ(gpio.level(kSelect), Level::High);
  EXPECT_EQ(chip.registerValue(0x05), 0);
  EXPECT_THAT(rulesOf(board), ElementsAre("counter short-frame"));
  kernel->failCall(vboard::Call::Message, 1, EIO);
  uint8_t value = 0x77;
  EXPECT_EQ(device.readRegister(0x78, value), -5);
  EXPECT_EQ(value, 0x77);
  EXPECT_EQ(gpio.level(kSelect), Level::High);
  ASSERT_EQ(device.readRegister(0x78, value), 0);
  EXPECT_EQ(value, 'M');
}

/// Two encoders with index on single lines.
class IcmdTwoEncoders : public IcmdBoard {
 protected:
  void SetUp() override {
    wire(first, {"A", "B", "Z"}, {"AP", "AN", "BP"});
    wire(second, {"A", "B", "Z"}, {"BN", "CP", "CN"});
    first.setLines(10);
    second.setLines(10);
    first.turn(8);
    second.turn(8);
    start();
  }
  Encoder& first = board.add<Encoder>("first");
  Encoder& second = board.add<Encoder>("second");
};

TEST_F(IcmdTwoEncoders, EachIndexClearsItsOwnCounter) {
  configure(REG0_CNT0_24BIT_CNT1_24BIT, true);
  first.turn(116);  // past the third index: two of them cleared
  second.turn(116);
  EXPECT_EQ(position32(0), 42);
  EXPECT_EQ(position32(1), 42);
  ASSERT_EQ(device.setClearCounterOnIndex(1, true), 0);
  first.turn(40);
  second.turn(40);
  EXPECT_EQ(position32(0), 82);
  EXPECT_EQ(position32(1), 2);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

// A chip with the 32 bits in counter 1: the driver parts the same six bytes elsewhere.
TEST_F(IcmdTwoEncoders, TheOtherLayoutOfConfiguration5IsReadWrongly) {
  chip.setConfig5(Icmd::Config5::Counter1Has32);
  configure(REG0_CNT0_32BIT_CNT1_16BIT, true);
  chip.setCount(0, 0x1111);
  chip.setCount(1, 0x22334455);
  EXPECT_EQ(position64(0), 0x44551111);
  EXPECT_EQ(position64(1), 0x2233);
  chip.setConfig5(Icmd::Config5::Counter0Has32);
  chip.setCount(0, 0x22334455);
  chip.setCount(1, 0x1111);
  EXPECT_EQ(position64(0), 0x22334455);
  EXPECT_EQ(position64(1), 0x1111);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

/// The driver's clock is 1 MHz: on a faster bus every byte brings a settling byte along.
class FastIcmd : public IcmdBoard {
 protected:
  FastIcmd() : IcmdBoard(1001) {}
  void SetUp() override { start(); }
};

TEST_F(FastIcmd, PositionsHaveEverySecondByteOnly) {
  chip.setCount(0, 0x123456);
  // 12 34 56 C0 00 00 come, C0 being the flags; the driver keeps 34 C0 00.
  EXPECT_EQ(position64(), 0x34C000);
  EXPECT_THAT(rulesOf(board), ElementsAre("counter long-read"));
}

TEST_F(FastIcmd, ARegisterReadGivesTheNextOne) {
  uint8_t value = 0;
  ASSERT_EQ(device.readRegister(0x78, value), 0);
  EXPECT_EQ(value, 'D');
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(FastIcmd, ConnectingFillsTheConfigurationWithSettlingBytes) {
  ASSERT_EQ(device.connect(), 0);
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    EXPECT_EQ(chip.registerValue(reg), 0xFF);
  }
  EXPECT_THAT(rulesOf(board), ElementsAre("counter write-to-read-only"));
}

TEST_F(FastIcmd, ClearingOneCounterRunsEveryInstruction) {
  ASSERT_EQ(device.clearCounter(1), 0);
  EXPECT_TRUE(chip.act(0));
  EXPECT_TRUE(chip.act(1));
  EXPECT_THAT(rulesOf(board), ElementsAre("counter reserved-bit", "counter unknown-address"));
}

TEST_F(FastIcmd, SlowedDownTheBusWorks) {
  ASSERT_EQ(bus.setSpiSpeedKHz(1000), 0);
  configure(REG0_CNT0_32BIT, false);
  chip.setCount(0, 0x12345678);
  EXPECT_EQ(position32(), 0x12345678);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

}  // namespace
