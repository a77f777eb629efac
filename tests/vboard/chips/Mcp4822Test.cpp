// SPDX-License-Identifier: MIT
#include "vboard/chips/Mcp4822.h"

#include <gmock/gmock.h>

#include "tests/vboard/board/Parts.h"
#include "tests/vboard/chips/Properties.h"
#include "vboard/board/WireLog.h"

namespace {

using boardtest::Hand;
using boardtest::propertyOf;
using boardtest::rulesOf;
using boardtest::setValue;
using boardtest::valueOf;
using std::chrono::microseconds;
using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Board;
using vboard::Drive;
using vboard::Level;
using vboard::Mcp4822;
using vboard::PropertyValue;
using vboard::SpiFormat;
using vboard::Time;

constexpr auto kA = Mcp4822::Channel::A;
constexpr auto kB = Mcp4822::Channel::B;

/// One converter on native select 0, its LDAC in a hand that holds it low.
struct Mcp4822Rig : testing::Test {
  Board board;
  vboard::SpiBus& bus = board.addSpiBus();
  Mcp4822& dac = board.add<Mcp4822>("dac");
  Hand& ldac = board.add<Hand>("ldac");
  SpiFormat format{.bitsPerWord = 16, .speedHz = 20000000};

  void SetUp() override {
    board.attach(dac, bus);
    board.connect(bus.select(0), dac.pin("CS"));
    board.connect(ldac.p(), dac.pin("LDAC"));
    board.powerUp();
    ldac.low();
    board.advance(microseconds(100));
  }
  void select() {
    bus.setIdle(format.mode);
    bus.driveSelect(0, Level::Low);
  }
  void deselect() { bus.driveSelect(0, Level::High); }
  void send(const std::vector<uint32_t>& words) {
    board.advance(microseconds(20));
    select();
    bus.transfer(0, format, words, {});
    deselect();
  }
  void pulse() {
    board.advance(microseconds(20));
    ldac.low();
    board.advance(microseconds(20));
    ldac.high();
  }
};

using Mcp4822Test = Mcp4822Rig;

TEST_F(Mcp4822Test, AWordSetsTheVoltageOfItsChannelAtTheSelectsRise) {
  // Words and voltages as in the tables of examples.
  send({0x3800});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  EXPECT_EQ(dac.gain(kA), 1);
  EXPECT_FALSE(dac.active(kB));
  send({0x1800});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 2.048);
  EXPECT_EQ(dac.gain(kA), 2);
  EXPECT_EQ(dac.code(kA), 0x800);
  EXPECT_DOUBLE_EQ(dac.voltage(kB), 0);
  send({0xBFFF});
  EXPECT_DOUBLE_EQ(dac.voltage(kB), 2.0475);
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 2.048);
  send({0x9FFF});
  EXPECT_DOUBLE_EQ(dac.voltage(kB), 4.095);
  EXPECT_EQ(dac.writes(), 4U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp4822Test, ShutdownLetsGoOfOneOutput) {
  send({0x3800});
  send({0xBFFF});
  send({0x8000});
  EXPECT_FALSE(dac.active(kB));
  EXPECT_DOUBLE_EQ(dac.voltage(kB), 0);
  EXPECT_TRUE(dac.active(kA));
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
}

TEST_F(Mcp4822Test, TheDontCareBitChangesNothing) {
  send({0x7800});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp4822Test, NothingMovesBeforeTheSelectRises) {
  select();
  const std::vector<uint32_t> word = {0x3800};
  bus.transfer(0, format, word, {});
  EXPECT_FALSE(dac.active(kA));
  deselect();
  EXPECT_TRUE(dac.active(kA));
}

TEST_F(Mcp4822Test, ModeThreeIsRightToo) {
  format.mode = 3;
  send({0x3ABC});
  EXPECT_EQ(dac.code(kA), 0xABC);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp4822Test, TwoBytesAreAWordHighByteFirst) {
  format.bitsPerWord = 8;
  send({0x38, 0x00});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp4822Test, InModeOneEveryBitComesOneLate) {
  format.mode = 1;
  send({0x0000});
  send({0x7800});
  EXPECT_EQ(dac.inputRegister(kA), 0x3C00);
  EXPECT_THAT(rulesOf(board), ElementsAre("dac spi-mode", "dac spi-mode"));
}

TEST_F(Mcp4822Test, AClockAboveTwentyMegahertzAndLsbFirstAreReported) {
  format.speedHz = 20000001;
  send({0x3800});
  format.speedHz = 20000000;
  format.lsbFirst = true;
  send({0x3800});
  EXPECT_THAT(rulesOf(board), ElementsAre("dac clock-too-fast", "dac bit-order"));
  EXPECT_EQ(dac.inputRegister(kA), 0x001C);
}

TEST_F(Mcp4822Test, FewerThanSixteenClocksWriteNothing) {
  send({0x3800});
  format.bitsPerWord = 15;
  send({0x7FFF});
  EXPECT_EQ(dac.code(kA), 0x800);
  EXPECT_EQ(dac.writes(), 1U);
  ASSERT_THAT(rulesOf(board), ElementsAre("dac frame-length"));
  EXPECT_EQ(board.violations().at(0).details,
            "15 clocks in one select, 16 expected: nothing is written");
  format.bitsPerWord = 16;
  send({0x3123});
  EXPECT_EQ(dac.code(kA), 0x123) << "every select counts anew";
}

TEST_F(Mcp4822Test, OfThirtyTwoClocksTheFirstWordCounts) {
  send({0x3123, 0xBFFF});
  EXPECT_EQ(dac.code(kA), 0x123);
  EXPECT_FALSE(dac.active(kB));
  EXPECT_EQ(dac.writes(), 1U);
  ASSERT_THAT(rulesOf(board), ElementsAre("dac frame-length"));
  EXPECT_EQ(board.violations().at(0).details,
            "32 clocks in one select, 16 expected: only the first word, 0x3123, counts");
}

TEST_F(Mcp4822Test, ASelectWithoutAClockIsReported) {
  select();
  deselect();
  EXPECT_THAT(rulesOf(board), ElementsAre("dac empty-frame"));
  EXPECT_EQ(dac.writes(), 0U);
}

TEST_F(Mcp4822Test, TrafficForOthersIsNotHeard) {
  const std::vector<uint32_t> word = {0x3800};
  bus.transfer(0, format, word, {});
  format.mode = 1;
  bus.transfer(0, format, word, {});
  format.mode = 0;
  format.bitsPerWord = 8;
  send({0x38});
  EXPECT_EQ(dac.writes(), 0U);
  EXPECT_THAT(rulesOf(board), ElementsAre("dac frame-length"));
}

TEST_F(Mcp4822Test, WordsMustBeFifteenNanosecondsApart) {
  send({0x3800});
  board.advance(nanoseconds(14));
  select();
  const std::vector<uint32_t> word = {0x3801};
  bus.transfer(0, format, word, {});
  deselect();
  ASSERT_THAT(rulesOf(board), ElementsAre("dac select-high-too-short"));
  EXPECT_EQ(board.violations().at(0).details, "CS high for 14 ns between words, at least 15 ns");
  board.advance(nanoseconds(15));
  select();
  bus.transfer(0, format, word, {});
  deselect();
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Mcp4822Test, WithLdacHighTheWordWaits) {
  ldac.high();
  send({0x3800});
  EXPECT_FALSE(dac.active(kA));
  EXPECT_EQ(dac.inputRegister(kA), 0x3800);
  EXPECT_EQ(dac.updates(), 0U);
  pulse();
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  EXPECT_EQ(dac.updates(), 1U);
}

TEST_F(Mcp4822Test, BothChannelsMoveTogetherAtTheFallOfLdac) {
  ldac.high();
  send({0x3800});
  send({0xBFFF});
  EXPECT_FALSE(dac.active(kA) || dac.active(kB));
  board.advance(microseconds(1));
  ldac.low();
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  EXPECT_DOUBLE_EQ(dac.voltage(kB), 2.0475);
  board.advance(microseconds(1));
  ldac.high();
  EXPECT_EQ(dac.updates(), 1U) << "the rise does nothing";
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp4822Test, GainAndShutdownWaitForLdacUnlessTheyAreSetNotTo) {
  send({0x3800});
  ldac.high();
  send({0x1400});
  EXPECT_EQ(dac.gain(kA), 1);
  EXPECT_EQ(dac.code(kA), 0x800);
  pulse();
  EXPECT_EQ(dac.gain(kA), 2);
  dac.setBuffersControl(false);
  send({0x2000});
  EXPECT_EQ(dac.gain(kA), 1);
  EXPECT_FALSE(dac.active(kA));
  EXPECT_EQ(dac.code(kA), 0x400) << "the value waits all the same";
  pulse();
  EXPECT_EQ(dac.code(kA), 0);
}

TEST_F(Mcp4822Test, LdacMustBeLowForAHundredNanoseconds) {
  ldac.high();
  board.advance(microseconds(1));
  ldac.low();
  board.advance(nanoseconds(99));
  ldac.high();
  ASSERT_THAT(rulesOf(board), ElementsAre("dac ldac-pulse-too-short"));
  EXPECT_EQ(board.violations().at(0).details, "LDAC low for 99 ns, at least 100 ns");
  board.advance(microseconds(1));
  ldac.low();
  board.advance(nanoseconds(100));
  ldac.high();
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Mcp4822Test, LdacMustNotFallWithinFortyNanosecondsOfTheSelect) {
  ldac.high();
  send({0x3800});
  board.advance(nanoseconds(39));
  ldac.low();
  ASSERT_THAT(rulesOf(board), ElementsAre("dac ldac-too-early"));
  EXPECT_EQ(board.violations().at(0).details, "LDAC fell 39 ns after CS rose, at least 40 ns");
  board.advance(microseconds(1));
  ldac.high();
  send({0x3800});
  board.advance(nanoseconds(40));
  ldac.low();
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST(Mcp4822Times, ABoardWithoutCallCostsCantJudgeGapsOfNoTime) {
  Board board({.callCost = Time{0}});
  auto& bus = board.addSpiBus();
  auto& dac = board.add<Mcp4822>("dac");
  auto& ldac = board.add<Hand>("ldac");
  board.attach(dac, bus);
  board.connect(bus.select(0), dac.pin("CS"));
  board.connect(ldac.p(), dac.pin("LDAC"));
  board.powerUp();
  const SpiFormat format{.bitsPerWord = 16, .speedHz = 1000000};
  for (const uint32_t word : {0x3800U, 0xBFFFU}) {
    ldac.high();
    bus.driveSelect(0, Level::Low);
    bus.transfer(0, format, {&word, 1}, {});
    bus.driveSelect(0, Level::High);
    ldac.low();
  }
  EXPECT_TRUE(dac.active(kA) && dac.active(kB));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST(Mcp4822Wiring, AnOpenLdacIsReportedOnceAndMovesNothing) {
  Board board;
  auto& bus = board.addSpiBus();
  auto& dac = board.add<Mcp4822>("dac");
  board.attach(dac, bus);
  board.connect(bus.select(0), dac.pin("CS"));
  board.powerUp();
  const SpiFormat format{.bitsPerWord = 16, .speedHz = 1000000};
  for (int i = 0; i < 2; ++i) {
    board.advance(microseconds(1));
    const uint32_t word = 0x3800;
    bus.driveSelect(0, Level::Low);
    bus.transfer(0, format, {&word, 1}, {});
    bus.driveSelect(0, Level::High);
  }
  EXPECT_EQ(dac.inputRegister(kA), 0x3800);
  EXPECT_FALSE(dac.active(kA));
  EXPECT_THAT(rulesOf(board), ElementsAre("dac ldac-open"));
}

TEST_F(Mcp4822Test, OutputsStayWithinTheSupplyAndAClippedCodeIsReported) {
  dac.setSupply(3.3);
  send({0x1000 | 3260});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 3.26);
  EXPECT_THAT(board.violations(), IsEmpty());
  send({0x1000 | 3261});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 3.26);
  ASSERT_THAT(rulesOf(board), ElementsAre("dac output-clips"));
  EXPECT_EQ(board.violations().at(0).details,
            "VOUTA can't reach 3.261 V, at most 3.260 V at a supply of 3.300 V");
  send({0x3000});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 0.010);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Mcp4822Test, AnOutputWakesAndSlews) {
  send({0x3FFF});
  board.advance(microseconds(10));
  EXPECT_DOUBLE_EQ(dac.voltageNow(kA), 0);
  board.advance(microseconds(2));
  EXPECT_NEAR(dac.voltageNow(kA), 1.1, 1e-9);
  board.advance(microseconds(2));
  EXPECT_DOUBLE_EQ(dac.voltageNow(kA), 2.0475);
  board.advance(microseconds(1));
  send({0x3400});
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 0.512);
  EXPECT_DOUBLE_EQ(dac.voltageNow(kA), 2.0475);
  board.advance(microseconds(1));
  EXPECT_NEAR(dac.voltageNow(kA), 1.4975, 1e-9);
}

TEST_F(Mcp4822Test, AnotherValueDoesNotWakeAnOutputEarlier) {
  dac.setWakeTime(microseconds(100));
  send({0x3FFF});
  board.advance(microseconds(50));
  send({0x3800});
  board.advance(microseconds(25));
  EXPECT_DOUBLE_EQ(dac.voltageNow(kA), 0);
  board.advance(microseconds(10));
  EXPECT_DOUBLE_EQ(dac.voltageNow(kA), 1.024);
}

TEST_F(Mcp4822Test, PowerUpTurnsBothOutputsOffAtGainTwo) {
  send({0x3800});
  send({0xBFFF});
  dac.losePower();
  EXPECT_FALSE(dac.active(kA));
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 0);
  dac.restorePower();
  for (const auto channel : {kA, kB}) {
    EXPECT_FALSE(dac.active(channel));
    EXPECT_EQ(dac.gain(channel), 2);
    EXPECT_EQ(dac.code(channel), 0);
  }
  EXPECT_EQ(dac.inputRegister(kB), 0x8000);
  send({0x3800});
  EXPECT_FALSE(dac.active(kB)) << "the other channel's old word is gone";
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp4822Test, ClocksOfASelectThatWasLowAtPowerUpAreIgnoredAndReported) {
  dac.losePower();
  select();
  dac.restorePower();
  const std::vector<uint32_t> word = {0x3800};
  bus.transfer(0, format, word, {});
  deselect();
  EXPECT_EQ(dac.writes(), 0U);
  EXPECT_THAT(rulesOf(board), ElementsAre("dac select-low-at-power-up"));
  send({0x3800});
  EXPECT_EQ(dac.writes(), 1U);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Mcp4822Test, TellsWhatItsOutputsDo) {
  vboard::WireLog log(board);
  send({0x3800});
  send({0x0000});
  EXPECT_THAT(log.lines(), testing::Contains(testing::HasSubstr("VOUTA 1.024 V")));
  EXPECT_THAT(log.lines(), testing::Contains(testing::HasSubstr("VOUTA off")));
}

TEST_F(Mcp4822Test, HasItsKnobsAndMetersAsProperties) {
  send({0x3800});
  send({0x9400});
  EXPECT_EQ(valueOf(dac, "vout_a"), PropertyValue(1.024));
  EXPECT_EQ(valueOf(dac, "vout_b"), PropertyValue(1.024));
  EXPECT_EQ(valueOf(dac, "code_a"), PropertyValue(int64_t{0x800}));
  EXPECT_EQ(valueOf(dac, "code_b"), PropertyValue(int64_t{0x400}));
  EXPECT_EQ(valueOf(dac, "gain_a"), PropertyValue(int64_t{1}));
  EXPECT_EQ(valueOf(dac, "gain_b"), PropertyValue(int64_t{2}));
  EXPECT_EQ(valueOf(dac, "active_a"), PropertyValue(true));
  EXPECT_EQ(valueOf(dac, "active_b"), PropertyValue(true));
  EXPECT_EQ(valueOf(dac, "writes"), PropertyValue(int64_t{2}));
  EXPECT_EQ(valueOf(dac, "updates"), PropertyValue(int64_t{2}));
  EXPECT_TRUE(propertyOf(dac, "vout_a").reported);
  EXPECT_FALSE(propertyOf(dac, "vout_a").set);
  EXPECT_EQ(valueOf(dac, "vdd"), PropertyValue(5.0));
  EXPECT_EQ(setValue(dac, "vdd", 3.0), std::nullopt);
  EXPECT_EQ(valueOf(dac, "vdd"), PropertyValue(3.0));
  EXPECT_EQ(setValue(dac, "vdd", 6.0), "must be a number from 2.7 to 5.5");
  EXPECT_EQ(valueOf(dac, "wake_time"), PropertyValue(10.0));
  EXPECT_EQ(setValue(dac, "wake_time", 12.5), std::nullopt);
  EXPECT_EQ(valueOf(dac, "wake_time"), PropertyValue(12.5));
  EXPECT_EQ(valueOf(dac, "buffers_control"), PropertyValue(true));
  EXPECT_EQ(setValue(dac, "buffers_control", false), std::nullopt);
  EXPECT_EQ(valueOf(dac, "buffers_control"), PropertyValue(false));
}

}  // namespace
