// SPDX-License-Identifier: MIT
#include "vboard/chips/Ads1256.h"

#include <gmock/gmock.h>

#include <cmath>

#include "tests/vboard/chips/ConverterRig.h"
#include "tests/vboard/chips/Properties.h"

namespace {

using boardtest::Hand;
using boardtest::propertyOf;
using boardtest::rulesOf;
using convertertest::Bytes;
using convertertest::ConverterRig;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vboard::Ads1256;
using vboard::Drive;
using vboard::PropertyValue;
using vboard::Signal;
using vboard::Time;

constexpr uint32_t kSync = 0xFC;
constexpr uint32_t kStandby = 0xFD;
constexpr uint32_t kReset = 0xFE;

/// Clocks at 7.68 MHz, in the nanoseconds the board counts.
Time crystalClocks(double count) {
  return Time(std::llround(count * 1e9 / 7.68e6));
}

Time millisecondsOf(double value) {
  return Time(std::llround(value * 1e6));
}

/// The converter with SYNC/PDWN in hand. Frames keep the gaps that commands need.
struct Ads1256Rig : ConverterRig<Ads1256> {
  Hand& sync = board.add<Hand>("sync");

  void SetUp() override {
    format.speedHz = 500000;  // half a bit is the short gap already
    wire();
    board.connect(adc.pin("SYNC"), sync.p());
    board.powerUp();
    sync.high();
    reset.high();
  }
  void gap() { board.advance(microseconds(7)); }
  void write(uint32_t address, uint32_t value) { frame({0x50 | address, 0, value}); }
  Bytes readAfterGap(const Bytes& command, size_t bytes) {
    select();
    send(command);
    gap();
    Bytes received = send(Bytes(bytes, 0));
    deselect();
    return received;
  }
  uint32_t read(uint32_t address) { return readAfterGap({0x10 | address, 0}, 1)[0]; }
  Bytes readResult() { return readAfterGap({0x01}, 3); }
  void restart() {
    frame({kSync});
    gap();
    frame({0x00});
  }
  void calibrate() {
    frame({0xF0});
    untilReady();
  }
  /// A settled result of the present input.
  int32_t measure() {
    restart();
    untilReady();
    return adc.lastCode();
  }
};

using Ads1256Registers = Ads1256Rig;

TEST_F(Ads1256Registers, AtPowerUpTheyHoldTheirResetValues) {
  const Bytes received = readAfterGap({0x10, 0x0A}, 11);
  EXPECT_THAT(received, ElementsAre(0x31, 0x01, 0x20, 0xF0, 0xEF, 0, 0, 0, 0x08, 0xAC, 0x44));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Registers, OnlyWritableBitsTakeAValue) {
  adc.setId(0x7);
  write(0, 0xFB);  // all but automatic calibration
  EXPECT_EQ(adc.registers()[0] & 0xFE, 0x7A);
  write(1, 0xFF);
  write(2, 0xFF);
  EXPECT_EQ(adc.registers()[1], 0xFF);
  EXPECT_EQ(adc.registers()[2], 0x7F);
  for (uint32_t address = 5; address < 11; ++address) {
    write(address, 0xF0 | address);
    EXPECT_EQ(adc.registers()[address], 0xF0 | address);
  }
}

TEST_F(Ads1256Registers, ReadoutsAndWritesWrapAround) {
  frame({0x5A, 0x01, 0x77, 0x08});
  EXPECT_EQ(adc.registers()[10], 0x77);
  EXPECT_EQ(adc.registers()[0] & 0x0E, 0x08);
  frame({0x50, 0x00, 0x00});
  EXPECT_THAT(readAfterGap({0x1A, 0x02}, 3), ElementsAre(0x77, testing::_, 0x01));
}

TEST_F(Ads1256Registers, TheStatusShowsTheReadyPin) {
  write(3, 0xA1);
  untilReady();
  EXPECT_EQ(read(0), 0x30U);
  restart();
  EXPECT_EQ(read(0), 0x31U);
}

TEST_F(Ads1256Registers, TheOrderBitMirrorsTheBytesThatComeOut) {
  adc.setInput(0, 1.25);
  write(0, 0x08);
  EXPECT_EQ(read(1), 0x80U);
  measure();
  EXPECT_THAT(readResult(), ElementsAre(0x04, 0x00, 0x00));
}

TEST_F(Ads1256Registers, StuckBitsKeepTheirValue) {
  adc.stickRegisterBits(0x01, 0xF0, 0x20);
  write(1, 0x58);
  EXPECT_EQ(read(1), 0x28U);
  adc.stickRegisterBits(0x00, 0x0E, 0x02);
  EXPECT_EQ(read(0) & 0x0EU, 0x02U);
}

TEST_F(Ads1256Registers, IoPinsAreDrivenAndRead) {
  auto& hand = board.add<Hand>("hand");
  board.connect(adc.pin("D1"), hand.p());
  hand.low();
  EXPECT_EQ(read(4), 0xEDU);
  EXPECT_EQ(adc.pin("D0").driven(), Drive::Floating);
  write(4, 0x2F);  // D1 stays an input: its level can't be written
  EXPECT_EQ(adc.pin("D3").driven(), Drive::High);
  EXPECT_EQ(adc.pin("D2").driven(), Drive::High);
  EXPECT_EQ(adc.pin("D1").driven(), Drive::Floating);
  EXPECT_EQ(adc.pin("D0").driven(), Drive::Floating);  // the clock output
  EXPECT_EQ(read(4), 0x2DU);
  write(2, 0x00);  // no clock output any more; what was written for D0 meanwhile is lost
  EXPECT_EQ(adc.pin("D0").driven(), Drive::Low);
  write(4, 0x29);
  EXPECT_EQ(adc.pin("D0").driven(), Drive::High);
  EXPECT_EQ(adc.pin("D2").driven(), Drive::Low);
}

TEST_F(Ads1256Registers, ADeselectionInACommandCutsIt) {
  untilReady();
  frame({0x51, 0x00});
  frame({0x28});
  EXPECT_EQ(adc.registers()[1], 0x01);
  frame({0x10});
  frame({0x10, 0x00});
  frame({0x01});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc cut-command", "adc unknown-command",
                                          "adc cut-command", "adc cut-command", "adc cut-command"));
  EXPECT_EQ(board.violations().at(4).details, "CS rose in the middle of RDATA");
}

using Ads1256Commands = Ads1256Rig;

TEST_F(Ads1256Commands, UnknownOnesAreViolations) {
  frame({0x20});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc unknown-command"));
  frame({0x00, 0xFF, 0x0F});
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ads1256Commands, TheWrongModeAndTooFastAClockAreViolations) {
  format.mode = 0;
  frame({0x00});
  format.mode = 1;
  format.speedHz = 1920000;
  frame({0x00});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc spi-mode"));
  format.speedHz = 1920001;
  frame({0x00});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc spi-mode", "adc clock-too-fast"));
  adc.setClock(3.84e6);
  EXPECT_EQ(adc.limits().maxHz, 960000U);
}

TEST_F(Ads1256Commands, InTheWrongModeDataAreShifted) {
  write(1, 0x96);
  format.mode = 0;
  EXPECT_NE(read(1), 0x96U);
}

TEST_F(Ads1256Commands, DataMustNotBeClockedTooSoon) {
  write(1, 0xFF);
  adc.stickRegisterBits(2, 0x7F, 0x7F);
  Bytes seen;
  // 6510 ns are needed; the first edge of the data comes half a bit after the command.
  for (const int wait : {5509, 5511}) {
    select();
    send({0x11, 0x00});
    board.advance(Time(wait));
    seen = send({0});
    deselect();
    EXPECT_EQ(board.violationCount(), 1U);
  }
  EXPECT_THAT(seen, ElementsAre(0xFF));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc data-too-soon"));
  EXPECT_EQ(board.violations().at(0).details,
            "data clocked 6509 ns after the command, at least 6510 ns: noise");
}

TEST_F(Ads1256Commands, DataClockedAtOnceStartWithNoise) {
  write(1, 0x00);
  write(8, 0xFF);
  gap();
  format.speedHz = 1920000;
  // Four bytes: all bits of the first and about the first half of the second are noise.
  int firstRight = 0;
  for (int i = 0; i < 100; ++i) {
    select();
    const Bytes received = send({0x18, 0x02, 0, 0, 0});
    deselect();
    gap();
    firstRight += received[2] == 0xFFU ? 1 : 0;
    EXPECT_EQ(received[4], 0x44U);
  }
  EXPECT_LT(firstRight, 10);
  EXPECT_THAT(rulesOf(board), Each("adc data-too-soon"));
  EXPECT_EQ(board.violationCount(), 100U);
}

TEST_F(Ads1256Commands, WakeUpTooSoonAfterSyncIsLost) {
  untilReady();
  select();
  send({kSync});
  board.advance(Time(2124));  // and half a bit
  send({0x00});
  board.advance(microseconds(2));
  deselect();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc command-gap"));
  EXPECT_EQ(board.violations().at(0).details, "command 0x00 1 ns too soon after SYNC: lost");
  board.advance(milliseconds(100));
  EXPECT_FALSE(isReady());
  frame({0x00});
  untilReady();
  select();
  send({kSync});
  board.advance(Time(2125));
  send({0xFF});
  board.advance(microseconds(2));
  deselect();
  EXPECT_EQ(board.violationCount(), 1U);
  untilReady();
}

TEST_F(Ads1256Commands, EarlyCommandsCanBeTakenAllTheSame) {
  adc.setEarlyCommandsLost(false);
  frame({kSync, 0x00});
  EXPECT_EQ(untilReady(), crystalClocks(1612.8) - microseconds(15));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc command-gap"));
}

TEST_F(Ads1256Commands, ACommandTooSoonAfterAWriteIsLost) {
  format.speedHz = 1920000;  // half a bit is 260 ns, 521 ns are needed
  frame({0x51, 0x00, 0x28, 0x52, 0x00, 0x21});
  EXPECT_EQ(adc.registers()[1], 0x28);
  EXPECT_EQ(adc.registers()[2], 0x20);
  EXPECT_EQ(rulesOf(board).at(0), "adc command-gap");
  board.clearViolations();
  gap();
  format.speedHz = 900000;
  frame({0x51, 0x00, 0x08, 0x52, 0x00, 0x21});
  EXPECT_EQ(adc.registers()[2], 0x21);
  gap();
  format.speedHz = 1920000;
  frame({0x51, 0x00, 0x28, 0x00, 0xFF});  // dummies need no gap
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Commands, TheSelectIsHeldAfterTheLastClock) {
  select();
  send({0x00});
  board.advance(Time(1041));
  deselect();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-hold-too-short"));
  select();
  send({0x00});
  board.advance(Time(1042));
  deselect();
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ads1256Commands, ThreeVeryLongHighsOfTheClockResetTheChip) {
  vboard::Board bare({.callCost = Time{0}});
  auto& chip = bare.add<Ads1256>("adc");
  auto& select = bare.add<Hand>("select");
  auto& line = bare.add<Hand>("line");
  bare.connect(chip.pin("CS"), select.p());
  bare.connect(chip.pin("SCLK"), line.p());
  bare.powerUp();
  bare.advance(milliseconds(1));
  const auto pattern = [&](double third) {
    select.low();
    for (const double high : {400.0, 650.0, third}) {
      line.high();
      bare.advance(crystalClocks(high));
      line.low();
      bare.advance(crystalClocks(10));
    }
    select.high();
  };
  bare.advance(milliseconds(1));
  const uint64_t before = chip.conversions();
  pattern(900);
  EXPECT_GT(chip.conversions(), before + 2);
  EXPECT_FALSE(chip.pin("DRDY").high());
  pattern(1100);
  EXPECT_TRUE(chip.pin("DRDY").high());
}

using Ads1256Timing = Ads1256Rig;

struct DataRateRow {
  uint32_t code;
  double samples;
  double settledMs;
  double offsetMs;
  double selfMs;
  uint32_t fullScale;
};
constexpr DataRateRow kDataRates[] = {
    {0xF0, 30000, 0.21, 0.387, 0.596, 0x44AC08}, {0xE0, 15000, 0.25, 0.453, 0.696, 0x44AC08},
    {0xD0, 7500, 0.31, 0.587, 0.896, 0x44AC08},  {0xC0, 3750, 0.44, 0.853, 1.3, 0x44AC08},
    {0xB0, 2000, 0.68, 1.3, 2.0, 0x494008},      {0xA1, 1000, 1.18, 2.3, 3.6, 0x494008},
    {0x92, 500, 2.18, 4.3, 6.6, 0x494008},       {0x82, 100, 10.18, 20.3, 31.2, 0x3A99A0},
    {0x72, 60, 16.84, 33.7, 50.9, 0x4651F3},     {0x63, 50, 20.18, 40.3, 61.8, 0x3A99A0},
    {0x53, 30, 33.51, 67.0, 101.3, 0x4651F3},    {0x43, 25, 40.18, 80.3, 123.2, 0x3A99A0},
    {0x33, 15, 66.84, 133.7, 202.1, 0x4651F3},   {0x23, 10, 100.18, 200.3, 307.2, 0x2EE14C},
    {0x13, 5, 200.18, 400.3, 613.8, 0x2EE14C},   {0x03, 2.5, 400.18, 800.3, 1227.2, 0x2EE14C},
};

TEST_F(Ads1256Timing, EveryRateHasItsSettlingPeriodAndCalibrationTimes) {
  write(3, 0xA1);
  for (const DataRateRow& row : kDataRates) {
    write(3, row.code);
    EXPECT_FALSE(isReady());
    EXPECT_EQ(untilReady(), millisecondsOf(row.settledMs)) << row.samples;
    EXPECT_EQ(untilReady(), crystalClocks(7.68e6 / row.samples)) << row.samples;
    restart();
    // From the first edge of WAKEUP on.
    EXPECT_EQ(untilReady(), millisecondsOf(row.settledMs) - microseconds(15)) << row.samples;
    frame({0xF1});
    EXPECT_EQ(untilReady(), millisecondsOf(row.offsetMs)) << row.samples;
    frame({0xF0});
    EXPECT_EQ(untilReady(), millisecondsOf(row.selfMs)) << row.samples;
    const auto registers = adc.registers();
    EXPECT_EQ(registers[8] | unsigned{registers[9]} << 8U | unsigned{registers[10]} << 16U,
              row.fullScale);
    EXPECT_EQ(untilReady(), crystalClocks(7.68e6 / row.samples)) << row.samples;
  }
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Timing, GainCalibrationsTakeSlightlyLonger) {
  frame({0xF2});
  EXPECT_NEAR(double(untilReady().count()), 417e3, 200);
  frame({0xF4});
  EXPECT_NEAR(double(untilReady().count()), 417e3, 200);
  write(3, 0x03);
  untilReady();
  frame({0xF2});
  EXPECT_NEAR(double(untilReady().count()), 827e6, 100e3);
  write(3, 0xF0);
  write(2, 0x24);
  untilReady();
  frame({0xF0});
  EXPECT_EQ(untilReady(), microseconds(892));
  frame({0xF3});
  EXPECT_EQ(untilReady(), microseconds(387));
}

TEST_F(Ads1256Timing, TheClockScalesEverything) {
  adc.setClock(3.84e6);
  write(3, 0xA1);
  EXPECT_EQ(untilReady(), millisecondsOf(2 * 1.18));
  EXPECT_EQ(untilReady(), milliseconds(2));
}

TEST_F(Ads1256Timing, AnUnreadChipPulsesReadyAtEveryResult) {
  write(3, 0xA1);
  untilReady();
  ready.heard.clear();
  ready.times.clear();
  const Time last = board.now();
  board.advance(milliseconds(2));
  EXPECT_EQ(ready.heard, "1010");
  EXPECT_EQ(ready.times.at(0), last + milliseconds(1) - crystalClocks(16));
  EXPECT_EQ(ready.times.at(1), last + milliseconds(1));
}

TEST_F(Ads1256Timing, PollingTheReadyLineSeesVirtualTimePass) {
  write(3, 0xA1);
  int polls = 0;
  while (!isReady() && polls < 1000) {
    board.advance(microseconds(20));
    ++polls;
  }
  EXPECT_EQ(polls, 59);
}

TEST_F(Ads1256Timing, AMultiplexerWriteAloneDoesNotRestart) {
  write(3, 0xA1);
  untilReady();
  board.advance(microseconds(500));
  const Time before = board.now();
  write(1, 0x23);
  untilReady();
  EXPECT_EQ(board.now() - before, microseconds(500));
}

TEST_F(Ads1256Timing, ARateChangeRestartsUnlessToldOtherwise) {
  write(3, 0x92);
  untilReady();
  board.advance(milliseconds(1));
  write(3, 0xA1);
  EXPECT_EQ(untilReady(), millisecondsOf(1.18));
  board.advance(microseconds(500));
  write(3, 0xA1);  // no change
  EXPECT_EQ(untilReady(), microseconds(500 - 48));
  adc.setRateRestarts(false);
  board.advance(microseconds(500));
  write(3, 0xB0);
  EXPECT_EQ(untilReady(), microseconds(500 - 48));
  EXPECT_EQ(untilReady(), microseconds(500));
}

TEST_F(Ads1256Timing, RatesThatDoNotExistAreViolations) {
  write(3, 0xA1);
  write(3, 0x20);
  EXPECT_EQ(adc.registers()[3], 0x20);
  untilReady();
  EXPECT_EQ(untilReady(), milliseconds(1));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc invalid-rate"));
  EXPECT_THAT(board.violations().at(0).details, HasSubstr("DRATE 0x20"));
}

using Ads1256Data = Ads1256Rig;

TEST_F(Ads1256Data, AResultIsReadOnCommandAndTakesReadyAwayWithItsLastBit) {
  write(3, 0xA1);
  calibrate();
  adc.setInput(0, 2.5);
  measure();
  select();
  send({0x01});
  gap();
  EXPECT_THAT(send({0, 0}), ElementsAre(0x40, 0x00));
  EXPECT_TRUE(isReady());
  EXPECT_THAT(send({0}), ElementsAre(0x00));
  EXPECT_FALSE(isReady());
  deselect();
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Data, APartOfAResultLeavesItReady) {
  write(3, 0xA1);
  untilReady();
  readAfterGap({0x01}, 2);
  EXPECT_TRUE(isReady());
  EXPECT_EQ(readResult().size(), 3U);
  EXPECT_FALSE(isReady());
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Data, ReadingAgainIsTooEarlyAndGivesTheSameResult) {
  write(3, 0xA1);
  calibrate();
  adc.setInput(0, 2.5);
  measure();
  EXPECT_THAT(readResult(), ElementsAre(0x40, 0, 0));
  adc.setInput(0, 0);
  EXPECT_THAT(readResult(), ElementsAre(0x40, 0, 0));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
  EXPECT_THAT(board.violations().at(0).details,
              HasSubstr("RDATA gives the last result again, the next one in "));
}

TEST_F(Ads1256Data, DuringTheNextSettlingTheResultOfBeforeCanBeRead) {
  // As in cycling through the multiplexer: one result behind.
  write(3, 0xA1);
  calibrate();
  adc.setInput(0, 2.5);
  adc.setInput(2, 1.25);
  write(1, 0x01);
  measure();
  write(1, 0x28);
  restart();
  EXPECT_FALSE(isReady());
  EXPECT_THAT(readResult(), ElementsAre(0x40, 0, 0));
  untilReady();
  EXPECT_THAT(readResult(), ElementsAre(0x20, 0, 0));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Data, AResultThatComesDuringAReadoutDoesNotDisturbItAndStaysReady) {
  write(3, 0xA1);
  calibrate();
  adc.setInput(0, 2.5);
  measure();
  board.advance(milliseconds(1) - microseconds(50));
  adc.setInput(0, 0);
  EXPECT_THAT(readResult(), ElementsAre(0x40, 0, 0));
  EXPECT_TRUE(isReady());
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Data, DataOutIsDrivenOnlyWhileDataComeOut) {
  untilReady();
  select();
  EXPECT_FALSE(bus.miso().net()->driven());
  send({0x11, 0x00});
  EXPECT_FALSE(bus.miso().net()->driven());
  gap();
  format.bitsPerWord = 7;
  send({0});
  EXPECT_TRUE(bus.miso().net()->driven());
  format.bitsPerWord = 1;
  send({0});
  EXPECT_TRUE(bus.miso().net()->driven());
  board.advance(crystalClocks(8));
  EXPECT_FALSE(bus.miso().net()->driven());
  format.bitsPerWord = 8;
  EXPECT_THAT(send({0}), ElementsAre(0xFF));  // the level of an open wire here
  deselect();
}

struct Ads1256Continuous : Ads1256Rig {
  void SetUp() override {
    Ads1256Rig::SetUp();
    write(3, 0xA1);
    calibrate();
    adc.setInput(0, 2.5);
    measure();
    EXPECT_THAT(readAfterGap({0x03}, 3), ElementsAre(0x40, 0, 0));
  }
};

TEST_F(Ads1256Continuous, ResultsComeWithoutACommandOncePerReady) {
  EXPECT_FALSE(isReady());
  untilReady();
  EXPECT_THAT(frame({0, 0, 0}), ElementsAre(0x40, 0, 0));
  EXPECT_FALSE(isReady());
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_THAT(frame({0, 0, 0}), ElementsAre(0xFF, 0xFF, 0xFF));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
  select();
  untilReady();
  EXPECT_THAT(send({0, 0, 0}), ElementsAre(0x40, 0, 0));
  untilReady();
  EXPECT_THAT(send({0, 0, 0}), ElementsAre(0x40, 0, 0));
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ads1256Continuous, OtherCommandsAreNotTaken) {
  untilReady();
  frame({0x51, 0x00, 0x28});
  EXPECT_EQ(adc.registers()[1], 0x01);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc command-in-read-mode"));
}

TEST_F(Ads1256Continuous, StopWorksOnlyWhileReady) {
  frame({0x0F});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc stop-while-not-ready"));
  untilReady();
  EXPECT_THAT(frame({0, 0, 0x0F}), ElementsAre(0x40, 0, 0));  // with the last byte
  EXPECT_EQ(board.violationCount(), 1U);
  untilReady();
  EXPECT_THAT(frame({0, 0, 0}), ElementsAre(0xFF, 0xFF, 0xFF));
  write(1, 0x28);
  EXPECT_EQ(adc.registers()[1], 0x28);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ads1256Continuous, ResetEndsIt) {
  frame({kReset});
  untilReady();
  write(1, 0x28);
  EXPECT_EQ(adc.registers()[1], 0x28);
  EXPECT_THAT(board.violations(), IsEmpty());
}

using Ads1256Control = Ads1256Rig;

TEST_F(Ads1256Control, SyncHaltsUntilWakeUp) {
  untilReady();
  frame({kSync});
  EXPECT_FALSE(isReady());
  const uint64_t before = adc.conversions();
  board.advance(milliseconds(100));
  EXPECT_EQ(adc.conversions(), before);
  EXPECT_EQ(read(1), 0x01U);
  frame({0xFF});
  EXPECT_EQ(untilReady(), microseconds(210 - 15));
}

TEST_F(Ads1256Control, TheSyncPinHaltsAndRestarts) {
  write(3, 0xA1);
  untilReady();
  sync.low();
  EXPECT_FALSE(isReady());
  const uint64_t before = adc.conversions();
  board.advance(milliseconds(19));
  EXPECT_EQ(adc.conversions(), before);
  write(1, 0x28);
  EXPECT_EQ(adc.registers()[1], 0x28);
  sync.high();
  EXPECT_EQ(untilReady(), millisecondsOf(1.18));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Control, TwentyPeriodsOfTheSyncPinArePowerDown) {
  write(3, 0xA1);
  untilReady();
  sync.low();
  board.advance(microseconds(20001));
  write(1, 0x28);
  EXPECT_EQ(adc.registers()[1], 0x01);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc in-power-down"));
  sync.high();
  board.advance(milliseconds(29));
  write(1, 0x28);
  EXPECT_EQ(adc.registers()[1], 0x01);
  EXPECT_EQ(board.violations().at(1).details, "byte 0x51 984.0 us before the clock runs: lost");
  EXPECT_EQ(untilReady(), microseconds(1000 - 48 + 3600));
  EXPECT_EQ(adc.registers()[3], 0xA1);
}

TEST_F(Ads1256Control, StandbyIsASingleShot) {
  write(3, 0xA1);
  untilReady();
  frame({kStandby});
  EXPECT_FALSE(isReady());
  const uint64_t before = adc.conversions();
  board.advance(milliseconds(100));
  EXPECT_EQ(adc.conversions(), before);
  write(1, 0x28);
  EXPECT_THAT(read(1), 0xFFU);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc command-in-standby", "adc command-in-standby"));
  EXPECT_EQ(adc.registers()[1], 0x01);
  frame({0x00});
  EXPECT_EQ(untilReady(), crystalClocks(1.18 * 7680 + 256) - microseconds(15));
}

TEST_F(Ads1256Control, TheResetPinSetsEverythingBackAndCalibrates) {
  write(1, 0x28);
  write(2, 0x03);
  reset.low();
  board.advance(microseconds(1));
  EXPECT_FALSE(isReady());
  EXPECT_EQ(adc.registers()[1], 0x01);
  EXPECT_EQ(adc.registers()[2], 0x20);
  write(1, 0x28);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc in-reset"));
  EXPECT_EQ(adc.registers()[1], 0x01);
  reset.high();
  EXPECT_EQ(untilReady(), microseconds(596));
  reset.low();
  board.advance(Time(520));
  reset.high();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc in-reset", "adc reset-too-short"));
}

TEST_F(Ads1256Control, TheResetCommandKeepsTheClockOutput) {
  write(1, 0x28);
  write(2, 0x43);
  frame({kReset});
  EXPECT_EQ(adc.registers()[1], 0x01);
  EXPECT_EQ(adc.registers()[2], 0x40);
  EXPECT_EQ(untilReady(), microseconds(596));
}

TEST_F(Ads1256Control, WhileItCalibratesRegistersCanBeReachedAndTheStatusIsNotReady) {
  reset.low();
  board.advance(microseconds(1));
  reset.high();
  write(1, 0x28);
  EXPECT_EQ(adc.registers()[1], 0x28);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc command-while-calibrating"));
  EXPECT_THAT(board.violations().at(0).details, HasSubstr("before the calibration ends"));
  EXPECT_EQ(read(0), 0x31U);
  frame({kSync});
  EXPECT_THAT(board.violations().at(2).details, HasSubstr("not taken"));
  untilReady();
  EXPECT_EQ(adc.registers()[0], 0x30);
  EXPECT_EQ(board.violationCount(), 3U);
}

TEST_F(Ads1256Control, AfterPowerCameBackItNeedsItsTime) {
  board.advance(milliseconds(1));
  adc.losePower();
  adc.restorePower();
  EXPECT_TRUE(adc.pin("DRDY").high());
  board.advance(milliseconds(29));
  frame({0x00});
  EXPECT_THAT(rulesOf(board), ElementsAre("adc power-up"));
  EXPECT_EQ(untilReady(), milliseconds(1) - microseconds(16) + microseconds(596));
}

TEST_F(Ads1256Control, BeforeTheFirstResultThereIsNothingToRead) {
  readResult();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc read-too-early"));
  EXPECT_THAT(board.violations().at(0).details, HasSubstr("no result since the reset"));
}

struct Ads1256Analog : Ads1256Rig {
  void SetUp() override {
    Ads1256Rig::SetUp();
    write(3, 0xA1);
    calibrate();
  }
};

TEST_F(Ads1256Analog, TheTransferFunctionIsThatOfTheDataSheet) {
  const auto codeAt = [&](double volts) {
    adc.setInput(0, volts);
    return adc.codeNow();
  };
  EXPECT_EQ(codeAt(5.0), 0x7FFFFF);
  EXPECT_EQ(codeAt(2.5), 0x400000);
  EXPECT_EQ(codeAt(0), 0);
  EXPECT_EQ(codeAt(-2.5), -0x400000);
  EXPECT_EQ(codeAt(-5.0), -0x7FFFFF);
  EXPECT_EQ(codeAt(6), 0x7FFFFF);
  EXPECT_EQ(codeAt(-6), -0x800000);
  adc.setReference(1.25);
  EXPECT_EQ(codeAt(1.25), 0x400000);
}

TEST_F(Ads1256Analog, EveryGainAmplifies) {
  adc.setInput(0, 0.05);
  const int gains[] = {1, 2, 4, 8, 16, 32, 64, 64};
  for (uint32_t code = 0; code < 8; ++code) {
    write(2, 0x20 | code);
    EXPECT_EQ(measure(), std::lround(0.05 * gains[code] / 5 * 8388607)) << code;
  }
  adc.setInput(0, 0.078125);
  EXPECT_EQ(measure(), 0x7FFFFF);
}

TEST_F(Ads1256Analog, AnyPairOfInputsCanBeSelected) {
  for (int channel = 0; channel <= Ads1256::kCommon; ++channel) {
    adc.setInput(channel, 0.25 * channel);
  }
  for (uint32_t plus = 0; plus < 16; ++plus) {
    for (uint32_t minus = 0; minus < 16; ++minus) {
      write(1, plus << 4U | minus);
      measure();
      const int difference = int(std::min(plus, 8U)) - int(std::min(minus, 8U));
      EXPECT_NEAR(adc.lastVoltage(), 0.25 * difference, 1e-12);
    }
  }
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ads1256Analog, SelfCalibrationTakesTheChipsOwnErrorsAway) {
  adc.setInput(0, 2.5);
  adc.setOffsetError(0.01);
  adc.setGainError(0.01);
  EXPECT_NEAR(measure(), 2.51 / 5 * 1.01 * 8388607, 2);
  frame({0xF1});
  untilReady();
  EXPECT_NEAR(measure(), 2.5 / 5 * 1.01 * 8388607, 2);
  frame({0xF2});
  untilReady();
  EXPECT_NEAR(measure(), 0x400000, 2);
}

TEST_F(Ads1256Analog, SystemCalibrationsTakeThePresentInputAsZeroAndFullScale) {
  adc.setInput(0, 0.5);
  frame({0xF3});
  untilReady();
  EXPECT_EQ(measure(), 0);
  adc.setInput(0, 4.5);
  frame({0xF4});
  untilReady();
  EXPECT_NEAR(measure(), 0x7FFFFF, 2);
}

TEST_F(Ads1256Analog, AnOldCalibrationIsWrongAtAnotherRate) {
  adc.setInput(0, 2.5);
  write(3, 0xF0);
  EXPECT_NEAR(measure(), 0x400000 * (double(0x494008) / 0x44AC08), 2);
  calibrate();
  EXPECT_NEAR(measure(), 0x400000, 1);
}

TEST_F(Ads1256Analog, WithAutomaticCalibrationAChangeOfRateGainOrBufferCalibrates) {
  write(0, 0x04);
  EXPECT_TRUE(isReady());
  board.advance(milliseconds(2));
  for (const auto& [address, value] :
       std::vector<std::pair<uint32_t, uint32_t>>{{0, 0x06}, {2, 0x23}, {3, 0xB0}}) {
    write(address, value);
    EXPECT_FALSE(isReady());
    EXPECT_EQ(untilReady(), address == 3 ? microseconds(2000) : microseconds(3600));
    write(address, value);  // no change
    EXPECT_LT(untilReady(), milliseconds(1));
  }
}

TEST_F(Ads1256Analog, WithoutARestartAnInputStepNeedsItsPeriods) {
  const struct {
    uint32_t rate;
    int periods;
  } rows[] = {{0xF0, 5}, {0xE0, 3}, {0xD0, 2}, {0xC0, 1}, {0xA1, 1}};
  adc.setInput(2, 1.0);
  for (const auto& row : rows) {
    write(1, 0x01);
    write(3, row.rate);
    measure();
    EXPECT_DOUBLE_EQ(adc.lastVoltage(), 0);
    untilReady();
    board.advance(microseconds(10));
    adc.setInput(0, 1.0);
    for (int period = 0; period < row.periods; ++period) {
      untilReady();
      EXPECT_GT(adc.lastVoltage(), 0.01) << row.rate;
      EXPECT_LT(adc.lastVoltage(), 0.999) << row.rate;
    }
    untilReady();
    EXPECT_DOUBLE_EQ(adc.lastVoltage(), 1) << row.rate;
    // With a restart the next result is clean.
    adc.setInput(0, 0);
    measure();
    EXPECT_DOUBLE_EQ(adc.lastVoltage(), 0) << row.rate;
  }
}

TEST_F(Ads1256Analog, AMultiplexerWriteWithoutRestartMixesTheChannels) {
  adc.setInput(2, 1.0);
  measure();
  untilReady();
  board.advance(microseconds(500 - 48));
  write(1, 0x28);
  untilReady();
  EXPECT_NEAR(adc.lastVoltage(), 0.5, 1e-3);
  untilReady();
  EXPECT_DOUBLE_EQ(adc.lastVoltage(), 1.0);
}

TEST_F(Ads1256Analog, TheBufferLimitsTheInputs) {
  adc.setInput(0, 4.0);
  untilReady();
  EXPECT_THAT(board.violations(), IsEmpty());
  write(0, 0x02);
  measure();
  EXPECT_DOUBLE_EQ(adc.lastVoltage(), 3.0);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc input-range"));
  EXPECT_EQ(board.violations().at(0).details,
            "inputs at 4.000 V and 0.000 V with buffer on: from 0.000 V to 3.000 V");
  write(0, 0x00);
  adc.setInput(0, 5.2);
  untilReady();
  adc.setInput(0, 5.0);
  untilReady();
  adc.setInput(0, -0.2);
  untilReady();
  EXPECT_EQ(board.violationCount(), 2U);
}

TEST_F(Ads1256Analog, ReferencesOutsideTheirRangeAreViolations) {
  adc.setReference(2.6);
  untilReady();
  EXPECT_THAT(board.violations(), IsEmpty());
  adc.setReference(2.7);
  untilReady();
  adc.setReference(0.5);
  untilReady();
  adc.setReference(0.0);
  untilReady();
  EXPECT_EQ(adc.lastCode(), 0x7FFFFF);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc reference-range", "adc reference-range"));
}

TEST_F(Ads1256Analog, NeverReadyStaysSoUntilTheFaultIsGone) {
  adc.setNeverReady(true);
  const uint64_t before = adc.conversions();
  EXPECT_FALSE(isReady());
  board.advance(milliseconds(10));
  EXPECT_EQ(adc.conversions(), before);
  EXPECT_EQ(read(0), 0x31U);
  frame({kReset});
  board.advance(milliseconds(10));
  EXPECT_FALSE(isReady());
  adc.setNeverReady(false);
  EXPECT_LE(untilReady(), microseconds(596));
}

TEST_F(Ads1256Analog, PropertiesTurnTheSameKnobs) {
  const auto set = [&](const char* name, PropertyValue value) {
    EXPECT_EQ(propertyOf(adc, name).set(value), std::nullopt) << name;
    EXPECT_EQ(propertyOf(adc, name).get(), value) << name;
  };
  set("in0", 1.0);
  set("in7", 0.5);
  set("aincom", 0.5);
  set("vref", 1.0);
  EXPECT_EQ(adc.codeNow(), 0x400000);
  propertyOf(adc, "vref").setSignal(Signal::Ramp{.from = 2, .to = 1});
  EXPECT_EQ(propertyOf(adc, "vref").get(), PropertyValue(1.0));
  set("avdd", 3.3);
  set("clock", 4e6);
  set("id", 1.0);
  set("start_up_time", 0.001);
  set("early_commands_lost", false);
  set("rate_restarts", false);
  set("never_ready", true);
  set("stuck_bits", std::string("0x01:0xff=0x28"));
  EXPECT_EQ(std::get<std::string>(propertyOf(adc, "registers").get()).substr(0, 19),
            "0x11 0x28 0x20 0xa1");
  EXPECT_EQ(propertyOf(adc, "stuck_bits").set(PropertyValue(std::string("0x0b:1=1"))).has_value(),
            true);
}

}  // namespace
