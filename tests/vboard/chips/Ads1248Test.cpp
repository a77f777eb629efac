// SPDX-License-Identifier: MIT
#include "vboard/chips/Ads1248.h"

#include <gmock/gmock.h>

#include <cmath>

#include "tests/vboard/chips/ConverterRig.h"
#include "tests/vboard/chips/Properties.h"
#include "vboard/board/WireLog.h"

namespace {

using boardtest::Hand;
using boardtest::propertyOf;
using boardtest::rulesOf;
using convertertest::Bytes;
using convertertest::ConverterRig;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vboard::Ads1248;
using vboard::Board;
using vboard::Drive;
using vboard::PropertyValue;
using vboard::Signal;
using vboard::Time;

constexpr uint32_t kNop = 0xFF;

/// Clocks of the 4.096 MHz oscillator, in the nanoseconds the board counts.
Time clocks(double count) {
  return Time(std::llround(count * 1e9 / 4.096e6));
}

/// The converter with START in hand: high, so that it converts from the start.
struct Ads1248Rig : ConverterRig<Ads1248> {
  Hand& start = board.add<Hand>("start");

  void SetUp() override {
    wire();
    board.connect(adc.pin("START"), start.p());
    board.powerUp();
    start.high();
    reset.high();
  }
  void write(uint32_t address, uint32_t value) { frame({0x40 | address, 0, value}); }
  uint32_t read(uint32_t address) { return frame({0x20 | address, 0, kNop})[2]; }
  /// No results in the output register any more; the fastest rate.
  void prepare(uint32_t rate = 9) {
    frame({0x16});
    write(3, rate);
    untilReady();
    untilReady();
  }
  /// 2000 SPS with the reference inside.
  void prepareAnalog() {
    prepare();
    write(2, 0x30);
    untilReady();
  }
  Bytes readData() {
    Bytes received = frame({0x12, kNop, kNop, kNop});
    received.erase(received.begin());
    return received;
  }
  int32_t measure() {
    write(0, 0x01);
    untilReady();
    return adc.lastCode();
  }
};

using Ads1248Registers = Ads1248Rig;

TEST_F(Ads1248Registers, AtPowerUpTheyHoldTheirResetValues) {
  prepare(0);
  adc.setId(0x5);
  Bytes command(17, kNop);
  command[0] = 0x20;
  command[1] = 0x0E;
  const Bytes received = frame(command);
  EXPECT_THAT(Bytes(received.begin() + 2, received.end()),
              ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0x50, 0xFF, 0, 0, 0));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Registers, OnlyWritableBitsTakeAValue) {
  prepare();
  Bytes ones(17, 0xFF);
  ones[0] = 0x40;
  ones[1] = 0x0E;
  frame(ones);
  EXPECT_THAT(adc.registers(), ElementsAre(0xFF, 0xFF, 0x7F, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                           0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x00));
  adc.setExternalClock(4e6);
  adc.setId(0xA);
  EXPECT_EQ(read(0x02), 0xFFU);
  EXPECT_EQ(read(0x0A), 0xAFU);
}

TEST_F(Ads1248Registers, WritesTakeEffectByteByByteAndReadoutsWrapAround) {
  prepare();
  select();
  send({0x4E, 0x03, 0x12, 0x34, 0x56});  // address 0x0F is not there, then 0x00 follows
  EXPECT_THAT(adc.registers().front(), 0x56);
  EXPECT_THAT(adc.registers().back(), 0x12);
  send({0x07});
  deselect();
  EXPECT_EQ(adc.registers()[1], 0x07);
  const Bytes received = frame({0x2E, 0x03, kNop, kNop, kNop, kNop});
  EXPECT_THAT(Bytes(received.begin() + 2, received.end()), ElementsAre(0x12, 0, 0x56, 0x07));
}

TEST_F(Ads1248Registers, DuringAReadoutTheInputIsIgnoredAndAfterwardsCommandsCount) {
  prepare();
  const Bytes received = frame({0x2B, 0x00, 0x40, 0x2B, 0x00, kNop});
  EXPECT_EQ(received[2], 0xFFU);
  EXPECT_EQ(received[5], 0xFFU);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Registers, ADeselectionInACommandCutsIt) {
  prepare();
  frame({0x40, 0x00});
  frame({0x13});
  EXPECT_EQ(adc.registers()[0], 0x01);
  frame({0x20});
  frame({0x20, 0x01, kNop});
  frame({0x04});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc cut-command", "adc cut-command", "adc cut-command",
                                          "adc cut-command"));
  EXPECT_EQ(board.violations().at(0).details, "CS rose in the middle of WREG");
  EXPECT_EQ(board.violations().at(3).details, "CS rose in the middle of SYNC");
}

TEST_F(Ads1248Registers, APartOfAByteIsLost) {
  prepare();
  format.bitsPerWord = 4;
  frame({0x4});
  format.bitsPerWord = 8;
  write(0, 0x13);
  EXPECT_EQ(adc.registers()[0], 0x13);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc partial-byte"));
  EXPECT_EQ(board.violations().at(0).details, "CS rose after 4 bits of a byte: they are lost");
}

TEST_F(Ads1248Registers, StuckBitsKeepTheirValue) {
  prepare();
  adc.stickRegisterBits(0x03, 0x70, 0x20);
  write(3, 0x59);
  EXPECT_EQ(read(3), 0x29U);
  adc.stickRegisterBits(0x03, 0, 0);
  EXPECT_EQ(read(3), 0x59U);
}

TEST_F(Ads1248Registers, GpioPinsAreDrivenAndRead) {
  prepare();
  auto& hand = board.add<Hand>("hand");
  board.connect(adc.pin("GPIO3"), hand.p());
  board.powerUp();
  start.high();
  reset.high();
  board.advance(milliseconds(20));
  write(0x0E, 0x05);
  EXPECT_EQ(adc.pin("GPIO0").driven(), Drive::Floating);
  write(0x0C, 0x0D);
  write(0x0D, 0x08);
  EXPECT_EQ(adc.pin("GPIO0").driven(), Drive::High);
  EXPECT_EQ(adc.pin("GPIO1").driven(), Drive::Floating);
  EXPECT_EQ(adc.pin("GPIO2").driven(), Drive::High);
  hand.high();
  EXPECT_EQ(read(0x0E), 0x0DU);
  hand.low();
  EXPECT_EQ(read(0x0E), 0x05U);
  write(0x0E, 0x04);
  EXPECT_EQ(adc.pin("GPIO0").driven(), Drive::Low);
}

using Ads1248Commands = Ads1248Rig;

TEST_F(Ads1248Commands, UnknownAndRestrictedOnesAreViolations) {
  prepare();
  frame({0x70, 0xF1, 0x00, 0x01, 0xFF});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc unknown-command", "adc restricted-command"));
  EXPECT_EQ(board.violations().at(0).details, "command 0x70: ignored");
}

TEST_F(Ads1248Commands, SyncTakesTwoBytesAndRestartsTheFilter) {
  prepare(7);
  board.advance(microseconds(500));
  frame({0x05, 0x04});
  EXPECT_EQ(untilReady(), clocks(6428) + clocks(2));
  frame({0x04, 0xFF});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc bad-sync"));
  EXPECT_EQ(untilReady(), clocks(6368) - microseconds(16));  // went on
}

TEST_F(Ads1248Commands, TheWrongModeIsAViolationAndShiftsTheData) {
  prepare();
  write(0x04, 0x96);
  format.mode = 0;
  const Bytes received = frame({0x24, 0x00, kNop, kNop});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc spi-mode"));
  EXPECT_NE(received[2], 0x96U);
}

TEST_F(Ads1248Commands, AClockAboveItsLimitIsAViolation) {
  EXPECT_EQ(adc.limits().maxHz, 2049180U);
  format.speedHz = 2048000;
  frame({kNop});
  EXPECT_THAT(board.violations(), IsEmpty());
  format.speedHz = 2050000;
  frame({kNop});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc clock-too-fast"));
}

TEST_F(Ads1248Commands, SelectsHaveTheirTimes) {
  prepare();
  select();
  send({kNop});
  board.advance(Time(1708));
  deselect();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-hold-too-short"));
  board.advance(Time(1220));
  select();
  EXPECT_THAT(rulesOf(board),
              ElementsAre("adc select-hold-too-short", "adc select-high-too-short"));
  send({kNop});
  board.advance(Time(1709));
  deselect();
  board.advance(Time(1221));
  select();
  EXPECT_EQ(board.violationCount(), 2U);
}

using Ads1248Timing = Ads1248Rig;

struct RateRow {
  uint32_t code;
  double period;
  double afterSync;
  double afterWake;
};
constexpr RateRow kRates[] = {
    {0, 816128, 816160, 820265}, {1, 408064, 408096, 412201}, {2, 204032, 204064, 208169},
    {3, 102016, 102072, 103106}, {4, 51008, 51064, 52098},    {5, 25504, 25560, 26594},
    {6, 12736, 12796, 13314},    {7, 6368, 6428, 6946},       {8, 4096, 4156, 4674},
    {9, 2048, 2108, 2370},       {15, 2048, 2108, 2370},
};

TEST_F(Ads1248Timing, EveryRateHasItsThreeTimes) {
  frame({0x16});
  for (const RateRow& row : kRates) {
    write(3, row.code);
    EXPECT_EQ(untilReady(), clocks(row.afterWake)) << row.code;
    EXPECT_EQ(untilReady(), clocks(row.period)) << row.code;
    write(0, 0x01);
    EXPECT_FALSE(isReady());
    EXPECT_EQ(untilReady(), clocks(row.afterSync)) << row.code;
    EXPECT_EQ(untilReady(), clocks(row.period)) << row.code;
  }
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Timing, AnExternalClockScalesEverything) {
  frame({0x16});
  adc.setExternalClock(2.048e6);
  write(3, 9);
  EXPECT_EQ(untilReady(), clocks(2 * 2370));
  EXPECT_EQ(untilReady(), clocks(2 * 2048));
}

TEST_F(Ads1248Timing, AnUnreadChipShowsReadyNearlyAllTheTime) {
  prepare();
  ready.heard.clear();
  ready.times.clear();
  const Time last = board.now();
  board.advance(3 * clocks(2048) + Time(10));
  EXPECT_EQ(ready.heard, "101010");
  EXPECT_EQ(ready.times.at(0), last + clocks(2048) - clocks(3));
  EXPECT_EQ(ready.times.at(1), last + clocks(2048));
}

TEST_F(Ads1248Timing, TheFirstClockWithSelectTakesReadyAwayAndOthersDont) {
  prepare();
  send({kNop});
  EXPECT_TRUE(isReady());
  select();
  EXPECT_TRUE(isReady());
  format.bitsPerWord = 1;
  send({1});
  EXPECT_FALSE(isReady());
}

TEST_F(Ads1248Timing, OnlyWritesToTheFirstFourRegistersRestartTheFilter) {
  prepare();
  for (uint32_t address = 0; address < 15; ++address) {
    untilReady();
    board.advance(microseconds(100));
    const Time before = board.now();
    write(address, adc.registers()[address]);
    untilReady();
    const bool restarted = board.now() - before > clocks(2048);
    EXPECT_EQ(restarted, address < 4) << address;
  }
}

TEST_F(Ads1248Timing, InABurstTheLastRestartCounts) {
  prepare(7);
  frame({0x40, 0x03, 0x01, 0x00, 0x00, 0x07});
  EXPECT_EQ(untilReady(), clocks(6946));
}

TEST_F(Ads1248Timing, AnAbortedConversionGivesNoResult) {
  prepare(7);
  const uint64_t before = adc.conversions();
  for (int i = 0; i < 5; ++i) {
    board.advance(microseconds(1500));
    write(0, 0x01);
  }
  EXPECT_EQ(adc.conversions(), before);
  EXPECT_FALSE(isReady());
  untilReady();
  EXPECT_EQ(adc.conversions(), before + 1);
}

TEST_F(Ads1248Timing, PollingTheReadyLineSeesVirtualTimePass) {
  prepare(9);
  write(0, 0x01);
  int polls = 0;
  while (!isReady() && polls < 1000) {
    board.advance(microseconds(20));
    ++polls;
  }
  EXPECT_EQ(polls, 26);  // 514.6 us
}

using Ads1248Data = Ads1248Rig;

TEST_F(Ads1248Data, AtPowerUpResultsComeWithoutACommandOncePerReady) {
  adc.setInput(0, 0.625);
  adc.setInput(1, -0.625);
  EXPECT_EQ(untilReady(), clocks(820265));
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0x40, 0x00, 0x00));
  EXPECT_FALSE(isReady());
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0, 0, 0));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
  EXPECT_EQ(board.violations().at(0).details,
            "24 clocks with no result since the last readout: zeros");
  untilReady();
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0x40, 0x00, 0x00));
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ads1248Data, AResultInTheMiddleOfAReadoutTakesItsPlace) {
  adc.setInput(0, 1.875);
  adc.setInput(1, 0.9375);
  untilReady();
  board.advance(clocks(816128) - microseconds(12));
  // Twelve bits of the old result 0x300000, then the new one from its top.
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0x30, 0x03, 0x00));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-across-ready"));
}

TEST_F(Ads1248Data, AResultInTheMiddleOfARegisterReadoutSpoilsItUnlessStopped) {
  adc.setInput(0, 1.25);
  adc.setInput(1, -1.25);
  untilReady();
  board.advance(clocks(816128) - microseconds(20));
  EXPECT_THAT(frame({0x2B, 0x00, kNop}).at(2), testing::Ne(0xFFU));
  EXPECT_THAT(rulesOf(board), testing::Contains("adc read-across-ready"));
  board.clearViolations();
  prepare(0);
  board.advance(clocks(816128) - microseconds(20));
  EXPECT_EQ(frame({0x2B, 0x00, kNop}).at(2), 0xFFU);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Data, StoppedItGivesResultsOnCommandAgainAndAgain) {
  prepareAnalog();
  adc.setInput(0, 0.512);
  adc.setInput(1, -0.512);
  measure();
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0, 0, 0));
  EXPECT_THAT(readData(), ElementsAre(0x40, 0, 0));
  EXPECT_THAT(readData(), ElementsAre(0x40, 0, 0));
  // The next RDATA may go out with the last byte of the answer.
  EXPECT_THAT(frame({0x12, kNop, kNop, 0x12, kNop, kNop, kNop}),
              ElementsAre(0, 0x40, 0, 0, 0x40, 0, 0));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Data, StopAndContinueTakeEffectWithTheNextResult) {
  adc.setInput(0, 0.625);
  adc.setInput(1, -0.625);
  untilReady();
  frame({0x16});
  untilReady();
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0x40, 0, 0));
  untilReady();
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0, 0, 0));
  frame({0x14});
  untilReady();
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0x40, 0, 0));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Data, AReadoutOnCommandKeepsItsResultAsANewOneComes) {
  prepareAnalog();
  adc.setInput(0, 0.512);
  adc.setInput(1, -0.512);
  measure();
  board.advance(clocks(2048) - microseconds(20));
  adc.setInput(0, 0.0);
  adc.setInput(1, 0.0);
  EXPECT_THAT(readData(), ElementsAre(0x40, 0, 0));
  EXPECT_NE(adc.lastCode(), 0x400000);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Data, RereadingAfterARestartIsTooEarlyAndGivesTheOldResult) {
  prepareAnalog();
  adc.setInput(0, 0.512);
  adc.setInput(1, -0.512);
  measure();
  write(0, 0x0A);
  EXPECT_THAT(readData(), ElementsAre(0x40, 0, 0));  // not read before
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_THAT(readData(), ElementsAre(0x40, 0, 0));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
  EXPECT_THAT(board.violations().at(0).details, HasSubstr("the next one in 474.6 us"));
}

TEST_F(Ads1248Data, BeforeTheFirstResultThereIsNothingToRead) {
  EXPECT_THAT(readData(), ElementsAre(0, 0, 0));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
}

TEST_F(Ads1248Data, DataOutFloatsWithoutSelect) {
  EXPECT_FALSE(bus.miso().net()->driven());
  select();
  EXPECT_TRUE(bus.miso().net()->driven());
  deselect();
  EXPECT_FALSE(bus.miso().net()->driven());
}

TEST_F(Ads1248Data, DataOutCanShowReady) {
  prepare();
  write(0x0A, 0x08);
  write(0, 0x01);
  select();
  EXPECT_TRUE(bus.miso().high());
  untilReady();
  EXPECT_FALSE(bus.miso().high());
  send({0x12, kNop, kNop, kNop});
  EXPECT_FALSE(bus.miso().high());  // the last bit
  send({kNop});
  EXPECT_TRUE(bus.miso().high());
  untilReady();
  board.advance(clocks(2048) - clocks(3));
  EXPECT_TRUE(bus.miso().high());
  board.advance(clocks(3) + Time(1));
  EXPECT_FALSE(bus.miso().high());
}

using Ads1248Control = Ads1248Rig;

TEST_F(Ads1248Control, WithStartLowTheConversionEndsThenItSleeps) {
  prepare(7);
  const uint64_t before = adc.conversions();
  board.advance(microseconds(100));
  start.low();
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before + 1);
  EXPECT_TRUE(isReady());
  readData();
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_FALSE(isReady());
}

TEST_F(Ads1248Control, WithStartLowOnlyReadingCommandsWork) {
  prepare(7);
  start.low();
  board.advance(milliseconds(10));
  write(0, 0x13);
  EXPECT_EQ(adc.registers()[0], 0x01);
  EXPECT_EQ(read(0x0B), 0U);
  frame({0x06});
  frame({0x62});
  frame({0x04, 0x04});
  EXPECT_EQ(board.violationCount(), 5U);
  EXPECT_THAT(board.violations().at(0).details, "command 0x40 while START is low: no effect");
  EXPECT_THAT(rulesOf(board), testing::Each("adc command-in-standby"));
  board.clearViolations();
  frame({0x00});
  frame({0x14});
  frame({0x16});
  frame({kNop});
  readData();
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_EQ(adc.registers()[3], 7);
}

TEST_F(Ads1248Control, APulseOnStartIsOneConversion) {
  prepare(7);
  start.low();
  board.advance(milliseconds(10));
  const uint64_t before = adc.conversions();
  readData();
  start.high();
  board.advance(microseconds(1));
  start.low();
  EXPECT_EQ(untilReady(), clocks(6946) - microseconds(1));
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before + 1);
  start.high();
  board.advance(Time(731));
  start.low();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc start-too-short"));
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before + 1);
}

TEST_F(Ads1248Control, AnotherRiseOfStartRestarts) {
  prepare(7);
  board.advance(microseconds(500));
  start.low();
  start.high();
  EXPECT_EQ(untilReady(), clocks(6946));
}

TEST_F(Ads1248Control, SleepAndWakeUpAreASingleShot) {
  prepare(7);
  frame({0x02});
  board.advance(milliseconds(10));
  const uint64_t before = adc.conversions();
  EXPECT_TRUE(isReady());
  start.low();
  start.high();
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before);  // only WAKEUP leaves
  write(0, 0x13);
  EXPECT_EQ(board.violations().at(0).details, "command 0x40 in sleep: no effect");
  frame({0x00, 0x02});
  // From the eighth rising edge of WAKEUP, half a clock before its end.
  EXPECT_EQ(untilReady(), clocks(6946) - Time(8500));
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before + 1);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ads1248Control, TheResetPinSetsEverythingBackAndNeedsTime) {
  prepare();
  write(0, 0x13);
  reset.low();
  board.advance(microseconds(10));
  EXPECT_FALSE(isReady());
  EXPECT_EQ(adc.registers()[0], 0x01);
  write(0, 0x13);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc in-reset"));
  reset.high();
  board.advance(microseconds(560));
  write(0, 0x13);  // its last byte ends at 584 us
  EXPECT_EQ(adc.registers()[0], 0x01);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc in-reset", "adc reset-recovery"));
  EXPECT_EQ(board.violations().at(1).details,
            "byte 0x40 32.0 us before the chip hears again: lost");
  board.advance(microseconds(8));
  write(0, 0x13);
  EXPECT_EQ(adc.registers()[0], 0x13);
  EXPECT_EQ(board.violationCount(), 2U);
}

TEST_F(Ads1248Control, AfterAResetTheFirstConversionTakesLonger) {
  prepare();
  reset.low();
  board.advance(microseconds(1));
  reset.high();
  EXPECT_EQ(untilReady(), clocks(820265));
  EXPECT_THAT(board.violations(), IsEmpty());
  reset.low();
  board.advance(Time(976));
  reset.high();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc reset-too-short"));
}

TEST_F(Ads1248Control, TheResetCommandNeedsTheSameTime) {
  prepare();
  write(0, 0x13);
  frame({0x06});
  EXPECT_EQ(adc.registers()[0], 0x01);
  EXPECT_EQ(adc.registers()[3], 0x00);
  board.advance(microseconds(500));
  frame({kNop, kNop});  // padding is no command
  EXPECT_THAT(board.violations(), IsEmpty());
  frame({kNop, kNop, kNop});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
  frame({0x16});
  EXPECT_EQ(board.violations().at(1).rule, "reset-recovery");
  EXPECT_EQ(untilReady(), clocks(820265) - microseconds(548));
  EXPECT_THAT(frame({kNop, kNop, kNop}), ElementsAre(0, 0, 0));
  untilReady();
  EXPECT_THAT(board.violationCount(), 2U);
}

TEST_F(Ads1248Control, AfterPowerCameBackItNeedsItsTime) {
  board.advance(milliseconds(1));
  adc.losePower();
  EXPECT_EQ(adc.pin("DRDY").driven(), Drive::Floating);
  EXPECT_EQ(board.clock().nextEvent(), Time::max());
  adc.restorePower();
  board.advance(microseconds(15900));
  frame({0x16});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc power-up"));
  EXPECT_EQ(untilReady(), clocks(820265) + microseconds(92));
}

TEST_F(Ads1248Control, WithoutAConnectionStartIsLow) {
  Board other({.callCost = Time{0}});
  auto& chip = other.add<Ads1248>("adc");
  other.powerUp();
  other.advance(std::chrono::seconds(1));
  EXPECT_EQ(chip.conversions(), 0U);
  EXPECT_TRUE(chip.pin("DRDY").high());
}

using Ads1248Calibration = Ads1248Rig;

TEST_F(Ads1248Calibration, EveryRateHasItsTime) {
  const double times[] = {3201, 1601, 801, 400.3, 200.3, 100.1, 50.1, 25.1, 16.1, 8.07};
  for (uint32_t rate = 0; rate < 10; ++rate) {
    prepare(rate);
    frame({0x62});
    EXPECT_FALSE(isReady());
    EXPECT_EQ(untilReady(), Time(std::llround(times[rate] * 1e6))) << rate;
    EXPECT_EQ(untilReady(), clocks(kRates[rate].period));
  }
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Calibration, SelfOffsetTakesTheChipsOwnErrorAway) {
  prepareAnalog();
  adc.setInput(0, 0.5);
  adc.setInput(1, -0.5);
  adc.setOffsetError(0.001);
  EXPECT_EQ(measure(), 4100096);  // 1.001 V
  frame({0x62});
  untilReady();
  EXPECT_THAT(Bytes({adc.registers()[4], adc.registers()[5], adc.registers()[6]}),
              ElementsAre(0x00, 0x10, 0x00));
  EXPECT_EQ(measure(), 4096000);
}

TEST_F(Ads1248Calibration, SystemCalibrationsTakeThePresentInputAsZeroAndFullScale) {
  prepareAnalog();
  adc.setInput(0, 0.25);
  frame({0x60});
  untilReady();
  EXPECT_EQ(measure(), 0);
  adc.setInput(0, 1.25);
  frame({0x61});
  untilReady();
  EXPECT_NEAR(measure(), 0x7FFFFF, 2);
  adc.setInput(0, 0.75);
  EXPECT_NEAR(measure(), 0x400000, 2);
}

TEST_F(Ads1248Calibration, CommandsMeanwhileAreViolationsAndNotTaken) {
  prepare();
  frame({0x62});
  frame({kNop, kNop});
  EXPECT_THAT(board.violations(), IsEmpty());
  write(0, 0x13);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc command-while-calibrating"));
  EXPECT_THAT(board.violations().at(0).details, HasSubstr("before the calibration ends"));
  EXPECT_EQ(adc.registers()[0], 0x01);
}

struct Ads1248Analog : Ads1248Rig {
  void SetUp() override {
    Ads1248Rig::SetUp();
    prepareAnalog();
    board.clearViolations();
  }
};

TEST_F(Ads1248Analog, TheTransferFunctionIsThatOfTheDataSheet) {
  const auto codeAt = [&](double volts) {
    adc.setInput(0, volts / 2);
    adc.setInput(1, -volts / 2);
    return adc.codeNow();
  };
  EXPECT_EQ(codeAt(1.024), 0x400000);
  EXPECT_EQ(codeAt(-1.024), -0x400000);
  EXPECT_EQ(codeAt(2.048), 0x7FFFFF);
  EXPECT_EQ(codeAt(3), 0x7FFFFF);
  EXPECT_EQ(codeAt(-2.048), -0x7FFFFF);
  EXPECT_EQ(codeAt(-3), -0x800000);
  EXPECT_EQ(codeAt(0), 0);
  EXPECT_EQ(codeAt(2.048 / 8388607), 1);
}

TEST_F(Ads1248Analog, EveryGainAmplifies) {
  adc.setInput(0, 0.008);
  for (unsigned gain = 0; gain < 8; ++gain) {
    write(3, gain << 4U | 9);
    EXPECT_EQ(measure(), std::lround(0.008 * (1 << gain) / 2.048 * 8388607)) << gain;
    EXPECT_DOUBLE_EQ(adc.lastVoltage(), 0.008);
  }
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1248Analog, AnyPairOfInputsCanBeSelected) {
  for (int channel = 0; channel < 8; ++channel) {
    adc.setInput(channel, 0.125 * channel);
  }
  for (unsigned plus = 0; plus < 8; ++plus) {
    for (unsigned minus = 0; minus < 8; ++minus) {
      write(0, plus << 3U | minus);
      untilReady();
      EXPECT_NEAR(adc.lastVoltage(), 0.125 * (int(plus) - int(minus)), 1e-12);
    }
  }
}

TEST_F(Ads1248Analog, ReferencesAreSelected) {
  adc.setInput(0, 0.5);
  adc.setReference(0, 1.0);
  adc.setReference(1, 2.0);
  write(2, 0x00);
  untilReady();
  EXPECT_EQ(adc.lastCode(), 0x400000);
  write(2, 0x08);
  untilReady();
  EXPECT_EQ(adc.lastCode(), 0x200000);
  write(2, 0x38);
  untilReady();
  EXPECT_EQ(adc.lastCode(), std::lround(0.5 / 2.048 * 8388607));
  write(2, 0x50);
  untilReady();
  EXPECT_EQ(adc.lastCode(), std::lround(0.5 / 2.048 * 8388607));
}

TEST_F(Ads1248Analog, WithoutReferenceTheResultSaturatesBySign) {
  adc.setInput(0, 0.5);
  write(2, 0x10);  // the one inside, switched off
  untilReady();
  EXPECT_EQ(adc.lastCode(), 0x7FFFFF);
  adc.setInput(0, -0.5);
  untilReady();
  EXPECT_EQ(adc.lastCode(), -0x800000);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc no-reference"));
  EXPECT_THAT(board.violations().at(0).details, HasSubstr("MUX1 0x10"));
}

TEST_F(Ads1248Analog, TheSystemMonitorMeasuresTheChipItself) {
  adc.setInput(0, 0.5);
  adc.setReference(0, 1.0);
  adc.setReference(1, 1.5);
  adc.setDigitalSupply(3.0);
  write(3, 0x79);  // gain 128, which most monitors don't use
  untilReady();
  const auto monitor = [&](uint32_t select) {
    write(2, 0x30 | select);
    untilReady();
    return adc.lastCode();
  };
  const auto inside = [](double volts) { return std::lround(volts / 2.048 * 8388607); };
  EXPECT_EQ(monitor(1), 0);
  EXPECT_EQ(monitor(2), 0x7FFFFF);
  EXPECT_EQ(monitor(3), 0x076000);
  EXPECT_EQ(monitor(4), inside(1.5 / 4));
  EXPECT_EQ(monitor(5), inside(1.0 / 4));
  EXPECT_EQ(monitor(6), inside(5.0 / 4));
  EXPECT_EQ(monitor(7), inside(3.0 / 4));
  adc.setTemperature(125);
  EXPECT_EQ(monitor(3), inside(0.118 + 0.0405));
  EXPECT_EQ(adc.registers()[3], 0x79);
}

TEST_F(Ads1248Analog, OffsetAndFullScaleRegistersAreApplied) {
  adc.setInput(0, 0.512);
  frame({0x44, 0x05, 0x00, 0x00, 0x10, 0x00, 0x00, 0x20});
  EXPECT_EQ(measure(), (0x200000 - 0x100000) / 2);
  frame({0x44, 0x02, 0x00, 0x00, 0xF0});
  EXPECT_EQ(measure(), (0x200000 + 0x100000) / 2);
}

TEST_F(Ads1248Analog, AConversionAveragesItsInput) {
  write(0, 0x01);
  // The step comes in the middle of a conversion: this result is a mixture, the next one is clean.
  untilReady();
  board.advance(clocks(1024));
  adc.setInput(0, 1.0);
  untilReady();
  EXPECT_NEAR(adc.lastVoltage(), 0.5, 1e-3);
  untilReady();
  EXPECT_DOUBLE_EQ(adc.lastVoltage(), 1.0);
  adc.setInput(0, Signal::Ramp{.from = 0, .to = 1, .over = milliseconds(10), .start = board.now()});
  untilReady();
  EXPECT_NEAR(adc.lastVoltage(), 0.025, 1e-4);
  // Five whole turns of a tone are nothing.
  adc.setInput(0, Signal::Sine{.offset = 0.5, .amplitude = 0.5, .frequencyHz = 10000});
  untilReady();
  EXPECT_NEAR(adc.lastVoltage(), 0.5, 1e-4);
}

TEST_F(Ads1248Analog, NoiseRepeatsWithItsSeedAndHasTheWidthAskedFor) {
  const auto series = [&](uint64_t seed) {
    adc.setNoise(100e-6, seed);
    std::vector<int32_t> codes;
    for (int i = 0; i < 200; ++i) {
      untilReady();
      codes.push_back(adc.lastCode());
    }
    return codes;
  };
  const auto first = series(1);
  EXPECT_EQ(series(1), first);
  EXPECT_NE(series(2), first);
  double squares = 0;
  for (const int32_t code : first) {
    squares += double(code) * code;
  }
  EXPECT_NEAR(std::sqrt(squares / 200), 100e-6 / 2.048 * 8388607, 60);
}

TEST_F(Ads1248Analog, InputsTooNearToTheSuppliesAreAViolationOncePerState) {
  adc.setSupply(5, 0);
  adc.setInput(0, 1.0);  // the middle is 0.5 V, at least 0.6 V
  untilReady();
  untilReady();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc input-range"));
  EXPECT_EQ(board.violations().at(0).details,
            "inputs at 1.000 V and 0.000 V with gain 1: their middle must be from 0.600 V to "
            "4.400 V");
  adc.setInput(1, 0.25);
  untilReady();
  EXPECT_EQ(board.violationCount(), 1U);
  adc.setInput(1, 0);
  adc.setCommonModeCheck(false);
  untilReady();
  EXPECT_EQ(board.violationCount(), 1U);
  adc.setCommonModeCheck(true);
  adc.setInput(0, 4.95);
  adc.setInput(1, 4.75);
  untilReady();
  EXPECT_EQ(board.violationCount(), 2U);
}

TEST_F(Ads1248Analog, NeverReadyStaysSoUntilTheFaultIsGone) {
  untilReady();
  const uint64_t before = adc.conversions();
  adc.setNeverReady(true);
  EXPECT_FALSE(isReady());
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before);
  EXPECT_FALSE(isReady());
  frame({0x62});
  board.advance(milliseconds(30));
  EXPECT_FALSE(isReady());
  adc.setNeverReady(false);
  EXPECT_LE(untilReady(), microseconds(8070));
  EXPECT_EQ(adc.conversions(), before + 1);
}

TEST_F(Ads1248Analog, AnObserverReadsWhatWasConverted) {
  vboard::WireLog log(board);
  adc.setInput(0, 1.024);
  measure();
  EXPECT_THAT(log.lines(), testing::Contains("adc: converted 1.024000 V: code 4194304"));
}

TEST_F(Ads1248Analog, PropertiesTurnTheSameKnobs) {
  const auto set = [&](const char* name, PropertyValue value) {
    EXPECT_EQ(propertyOf(adc, name).set(value), std::nullopt) << name;
    EXPECT_EQ(propertyOf(adc, name).get(), value) << name;
  };
  set("in0", 1.0);
  set("in7", 0.5);
  set("ref0", 2.0);
  set("ref1", 1.0);
  set("avdd", 5.0);
  set("avss", 0.0);
  set("dvdd", 1.8);
  set("temperature", 30.0);
  set("external_clock", 2e6);
  set("id", 3.0);
  set("factory_full_scale", 4194624.0);
  set("power_up_time", 0.02);
  set("check_common_mode", false);
  set("noise", 1e-6);
  set("offset", 1e-3);
  set("gain", 0.01);
  set("never_ready", true);
  set("stuck_bits", std::string("0x03:0x70=0x20 0x0b:0xff=0x12"));
  EXPECT_EQ(adc.registers()[3], 0x29);
  set("stuck_bits", std::string());
  EXPECT_EQ(adc.registers()[3], 0x09);
  for (const char* wrong : {"0x0f:1=1", "3", "3:256=1", "3:1", "3:1=1x", "x"}) {
    EXPECT_THAT(propertyOf(adc, "stuck_bits").set(PropertyValue(std::string(wrong))).value_or(""),
                HasSubstr("0x03:0x70=0x20"))
        << wrong;
  }
  EXPECT_EQ(propertyOf(adc, "never_ready").set(PropertyValue(1.0)), "must be true or false");
  EXPECT_EQ(std::get<std::string>(propertyOf(adc, "registers").get()).substr(0, 19),
            "0x01 0x00 0xb0 0x09");
  EXPECT_EQ(propertyOf(adc, "last_code").get(), PropertyValue(int64_t{adc.lastCode()}));
  EXPECT_EQ(propertyOf(adc, "last_voltage").get(), PropertyValue(adc.lastVoltage()));
  EXPECT_EQ(propertyOf(adc, "conversions").get(),
            PropertyValue(static_cast<int64_t>(adc.conversions())));
  EXPECT_TRUE(propertyOf(adc, "registers").reported);
}

}  // namespace
