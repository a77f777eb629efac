// SPDX-License-Identifier: MIT
#include "vboard/chips/Tlc5947.h"

#include <gmock/gmock.h>

#include <array>

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
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vboard::Board;
using vboard::Drive;
using vboard::PropertyValue;
using vboard::SpiFormat;
using vboard::Time;
using vboard::Tlc5947;

using Values = std::array<int, 24>;

/// The 24 words of 12 bits of a frame: OUT23 first.
std::vector<uint32_t> wordsOf(const Values& values) {
  return {values.rbegin(), values.rend()};
}

std::vector<int> shownBy(const Tlc5947& chip) {
  std::vector<int> values;
  for (int output = 0; output < 24; ++output) {
    values.push_back(chip.value(output));
  }
  return values;
}

/// OUT0 = first, OUT1 = first + 1 …
Values rising(int first) {
  Values values{};
  for (int& value : values) {
    value = first++;
  }
  return values;
}

/// A cascade on a bus, with XLAT and BLANK in hands; BLANK is high.
struct Rig {
  Board board;
  vboard::SpiBus& bus = board.addSpiBus();
  std::vector<Tlc5947*> chips;
  Hand& xlat = board.add<Hand>("xlat");
  Hand& blank = board.add<Hand>("blank");
  SpiFormat format{.bitsPerWord = 12, .speedHz = 1000000};

  explicit Rig(size_t count = 1) {
    for (size_t i = 0; i < count; ++i) {
      Tlc5947& chip = board.add<Tlc5947>("u" + std::to_string(i));
      board.connect(chip.pin("SCLK"), bus.sclk());
      board.connect(chip.pin("SIN"), i == 0 ? bus.mosi() : chips[i - 1]->pin("SOUT"));
      board.connect(chip.pin("XLAT"), xlat.p());
      board.connect(chip.pin("BLANK"), blank.p());
      chips.push_back(&chip);
    }
    board.powerUp();
    xlat.low();
    blank.high();
  }
  Tlc5947& chip() { return *chips.front(); }
  std::vector<uint32_t> exchange(const std::vector<uint32_t>& words) {
    const std::lock_guard guard(board.mutex());
    std::vector<uint32_t> received(words.size());
    board.clock().advance(microseconds(1));
    bus.transfer(0, format, words, received);
    return received;
  }
  void latch() {
    const std::lock_guard guard(board.mutex());
    board.clock().advance(microseconds(1));
    xlat.high();
    xlat.low();
  }
  void show(const Values& values) {
    exchange(wordsOf(values));
    latch();
  }
  std::string firstDetails() const { return board.violations().at(0).details; }
};

TEST(Tlc5947Model, TheFirstTwelveBitsAreOut23AndTheLastOut0MsbFirst) {
  Rig rig;
  rig.format.bitsPerWord = 8;
  // Channels 23 and 22 in three bytes, then zeros, then channels 1 and 0.
  std::vector<uint32_t> bytes(36);
  bytes[0] = 0xABC >> 4;
  bytes[1] = ((0xABC & 0xF) << 4) | (0xDEF >> 8);
  bytes[2] = 0xDEF & 0xFF;
  bytes[33] = 0x12;
  bytes[34] = 0x34;
  bytes[35] = 0x56;
  rig.exchange(bytes);
  rig.latch();
  EXPECT_EQ(rig.chip().value(23), 0xABC);
  EXPECT_EQ(rig.chip().value(22), 0xDEF);
  EXPECT_EQ(rig.chip().value(1), 0x123);
  EXPECT_EQ(rig.chip().value(0), 0x456);
  for (int output = 2; output < 22; ++output) {
    EXPECT_EQ(rig.chip().value(output), 0) << output;
  }
  EXPECT_EQ(rig.chip().value(24), 0);
  EXPECT_EQ(rig.chip().value(-1), 0);
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST(Tlc5947Model, OnlyARisingLatchMovesTheValues) {
  Rig rig;
  rig.show(rising(100));
  rig.exchange(wordsOf(rising(200)));
  EXPECT_EQ(rig.chip().value(5), 105);
  EXPECT_EQ(rig.chip().shifted(5), 205);
  rig.xlat.high();
  EXPECT_EQ(rig.chip().value(5), 205);
  rig.exchange(wordsOf(rising(300)));
  rig.xlat.low();
  EXPECT_EQ(rig.chip().value(5), 205);
  EXPECT_EQ(rig.chip().latches(), 2U);
  EXPECT_EQ(rig.chip().bitsSinceLatch(), 288U);
}

TEST(Tlc5947Model, TakesBitsOnRisingEdgesInModesZeroAndThree) {
  for (const uint8_t mode : {uint8_t{0}, uint8_t{3}}) {
    Rig rig;
    rig.format.mode = mode;
    rig.show(rising(0xA50));
    EXPECT_THAT(shownBy(rig.chip()), testing::ElementsAreArray(rising(0xA50))) << int{mode};
    rig.show(rising(0x5A0));
    EXPECT_THAT(shownBy(rig.chip()), testing::ElementsAreArray(rising(0x5A0))) << int{mode};
    EXPECT_THAT(rig.board.violations(), IsEmpty()) << int{mode};
  }
}

TEST(Tlc5947Model, InModesOneAndTwoTheDataRacesTheClockAndModeOneComesABitTooLate) {
  for (const uint8_t mode : {uint8_t{1}, uint8_t{2}}) {
    Rig rig;
    Values values{};
    rig.exchange(wordsOf(values));
    rig.format.mode = mode;
    values[3] = 0xA5A;
    rig.show(values);
    EXPECT_EQ(rig.chip().value(3), mode == 1 ? 0x52D : 0xA5A) << int{mode};
    EXPECT_THAT(rulesOf(rig.board), Contains("u0 data-hold")) << int{mode};
  }
}

TEST(Tlc5947Model, ARaceLongAgoDoesNotMatter) {
  Rig rig;
  rig.format.mode = 1;
  rig.exchange({0xA5A});
  rig.format.mode = 0;
  rig.show(rising(1));
  const auto rules = rulesOf(rig.board);
  EXPECT_THAT(rules, ElementsAre("u0 frame-length"));
}

TEST(Tlc5947Model, SoutGivesTheFrameBeforeMsbFirst) {
  for (const uint8_t mode : {uint8_t{0}, uint8_t{3}}) {
    Rig rig;
    rig.format.mode = mode;
    rig.board.connect(rig.chip().pin("SOUT"), rig.bus.miso());
    rig.exchange(wordsOf(rising(0x7F0)));
    EXPECT_EQ(rig.exchange(wordsOf(rising(0x123))), wordsOf(rising(0x7F0))) << int{mode};
    EXPECT_EQ(rig.exchange(wordsOf({})), wordsOf(rising(0x123))) << int{mode};
  }
}

TEST(Tlc5947Model, SoutMovesWithTheFallingClock) {
  Rig rig;
  const std::lock_guard guard(rig.board.mutex());
  Values values{};
  values[23] = 0x400;  // bit 287 is 0, bit 286 is 1
  rig.exchange(wordsOf(values));
  rig.bus.sclk().drive(Drive::High);
  EXPECT_EQ(rig.chip().pin("SOUT").driven(), Drive::Low);
  rig.bus.sclk().drive(Drive::Low);
  EXPECT_EQ(rig.chip().pin("SOUT").driven(), Drive::High);
}

TEST(Tlc5947Model, InACascadeTheFirstFrameSentGoesToTheLastChip) {
  Rig rig(3);
  rig.exchange(wordsOf(rising(300)));
  rig.exchange(wordsOf(rising(200)));
  rig.exchange(wordsOf(rising(100)));
  rig.latch();
  EXPECT_THAT(shownBy(*rig.chips[0]), testing::ElementsAreArray(rising(100)));
  EXPECT_THAT(shownBy(*rig.chips[1]), testing::ElementsAreArray(rising(200)));
  EXPECT_THAT(shownBy(*rig.chips[2]), testing::ElementsAreArray(rising(300)));
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST(Tlc5947Model, ACascadeWantsAllItsBits) {
  Rig rig(3);
  for (int chip = 0; chip < 3; ++chip) {
    rig.exchange(wordsOf({}));
  }
  rig.latch();
  rig.exchange(wordsOf(rising(1)));
  rig.latch();
  EXPECT_THAT(rulesOf(rig.board),
              ElementsAre("u0 frame-length", "u1 frame-length", "u2 frame-length"));
  EXPECT_EQ(rig.firstDetails(), "288 clocks since the last latch, 864 expected: old bits moved up");
}

TEST(Tlc5947Model, AShortFrameMovesTheOldBitsUp) {
  Rig rig;
  rig.show(rising(0x100));
  rig.format.bitsPerWord = 12;
  rig.exchange({0xFFF, 0xEEE});
  rig.latch();
  EXPECT_EQ(rig.chip().value(0), 0xEEE);
  EXPECT_EQ(rig.chip().value(1), 0xFFF);
  EXPECT_EQ(rig.chip().value(2), 0x100);
  EXPECT_EQ(rig.chip().value(23), 0x115);
  ASSERT_THAT(rulesOf(rig.board), ElementsAre("u0 frame-length"));
  EXPECT_EQ(rig.firstDetails(), "24 clocks since the last latch, 288 expected: old bits moved up");
}

TEST(Tlc5947Model, ALatchWithoutClocksShowsTheSameAgain) {
  Rig rig;
  rig.show(rising(7));
  rig.latch();
  EXPECT_EQ(rig.chip().latches(), 2U);
  EXPECT_THAT(shownBy(rig.chip()), testing::ElementsAreArray(rising(7)));
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST(Tlc5947Model, OfALongFrameTheLastBitsRemainAndItIsReported) {
  Rig rig;
  rig.exchange({0xFFF, 0xFFF});
  rig.show(rising(0x100));
  EXPECT_THAT(shownBy(rig.chip()), testing::ElementsAreArray(rising(0x100)));
  ASSERT_THAT(rulesOf(rig.board), ElementsAre("u0 frame-length"));
  EXPECT_EQ(rig.firstDetails(),
            "312 clocks since the last latch, 288 expected: only the last ones count");
}

TEST(Tlc5947Model, AFewStrayClocksAreForgiven) {
  Rig rig;
  rig.format.bitsPerWord = 7;
  rig.exchange({0x7F});
  rig.format.bitsPerWord = 12;
  rig.show(rising(1));
  EXPECT_THAT(rig.board.violations(), IsEmpty());
  rig.format.bitsPerWord = 8;
  rig.exchange({0xFF});
  rig.format.bitsPerWord = 12;
  rig.show(rising(1));
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u0 frame-length"));
}

TEST(Tlc5947Model, OtherChipsTrafficBeforeTheFrameDoesNoHarm) {
  Rig rig;
  auto& other = rig.board.add<boardtest::ShiftRegister>("other");
  rig.board.connect(other.clockPin(), rig.bus.sclk());
  rig.exchange({0xFFF, 0xFFF});
  rig.show(rising(0x100));
  EXPECT_THAT(shownBy(rig.chip()), testing::ElementsAreArray(rising(0x100)));
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST(Tlc5947Model, TheBussSelectMayBeTheLatch) {
  Board board;
  auto& bus = board.addSpiBus();
  auto& chip = board.add<Tlc5947>("u0");
  board.attach(chip, bus);
  board.connect(chip.pin("XLAT"), bus.select(0));
  board.powerUp();
  const SpiFormat format{.bitsPerWord = 12, .speedHz = 1000000};
  bus.driveSelect(0, vboard::Level::Low);
  bus.transfer(0, format, wordsOf(rising(50)), {});
  EXPECT_EQ(chip.latches(), 0U);
  bus.driveSelect(0, vboard::Level::High);
  EXPECT_EQ(chip.latches(), 1U);
  EXPECT_EQ(chip.value(23), 73);
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_EQ(bus.miso().net()->pins().size(), 1U) << "SOUT never lets go: not for a shared MISO";
}

TEST(Tlc5947Model, ComesUpWithNoiseAndComplainsWhenItIsLatched) {
  Rig rig;
  rig.format.bitsPerWord = 7;
  rig.exchange(std::vector<uint32_t>(41));
  rig.latch();
  ASSERT_THAT(rulesOf(rig.board), ElementsAre("u0 latched-poison"));
  EXPECT_EQ(rig.firstDetails(),
            "XLAT rose after 287 clocks since power-up, 288 needed: the other bits are noise");
  Rig whole;
  whole.show({});
  EXPECT_THAT(whole.board.violations(), IsEmpty());
}

TEST(Tlc5947Model, NoiseFillsBothRegistersUnlessZerosAreAskedFor) {
  Rig rig;
  EXPECT_THAT(shownBy(rig.chip()), testing::Not(Each(0)));
  int shifted = 0;
  for (int output = 0; output < 24; ++output) {
    shifted |= rig.chip().shifted(output);
  }
  EXPECT_NE(shifted, 0);
  rig.chip().setPoison(false);
  rig.board.powerUp();
  EXPECT_THAT(shownBy(rig.chip()), Each(0));
  for (int output = 0; output < 24; ++output) {
    EXPECT_EQ(rig.chip().shifted(output), 0);
  }
}

TEST(Tlc5947Model, UnblankingBeforeTheFirstLatchShowsNoiseAndIsReported) {
  Rig rig;
  rig.blank.low();
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u0 unblanked-poison"));
  rig.show({});
  rig.board.clearViolations();
  rig.blank.high();
  rig.blank.low();
  EXPECT_THAT(rig.board.violations(), IsEmpty());
  rig.chip().losePower();
  rig.chip().restorePower();
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u0 unblanked-poison")) << "BLANK is still low";
  rig.board.clearViolations();
  rig.chip().setPoison(false);
  rig.chip().losePower();
  rig.chip().restorePower();
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST(Tlc5947Model, BlankTurnsAllOutputsOffAndKeepsTheirValues) {
  Rig rig;
  rig.show(rising(1024));
  EXPECT_TRUE(rig.chip().blanked());
  EXPECT_DOUBLE_EQ(rig.chip().brightness(0), 0);
  rig.blank.low();
  EXPECT_FALSE(rig.chip().blanked());
  EXPECT_DOUBLE_EQ(rig.chip().brightness(0), 0.25);
  EXPECT_DOUBLE_EQ(rig.chip().brightness(16), 1040 / 4096.0);
  rig.blank.high();
  EXPECT_DOUBLE_EQ(rig.chip().brightness(0), 0);
  EXPECT_EQ(rig.chip().value(0), 1024);
}

TEST(Tlc5947Model, AnOpenBlankKeepsEverythingDark) {
  Board board;
  auto& bus = board.addSpiBus();
  auto& chip = board.add<Tlc5947>("u0");
  board.attach(chip, bus);
  board.powerUp();
  EXPECT_TRUE(chip.blanked());
  EXPECT_DOUBLE_EQ(chip.brightness(0), 0);
}

TEST(Tlc5947Model, FullScaleIsNeverQuiteOn) {
  Rig rig;
  Values values{};
  values[1] = 4095;
  rig.show(values);
  rig.blank.low();
  EXPECT_DOUBLE_EQ(rig.chip().brightness(1), 4095 / 4096.0);
}

TEST(Tlc5947Model, OutputsTurnOnWithTheFifthClockInFourGroups) {
  Rig rig;
  Values values{};
  values.fill(2);
  values[8] = 0;
  rig.show(values);
  rig.blank.low();
  // 4 MHz: a clock takes 250 ns. Five clocks from BLANK on, the first group is lit.
  const auto lit = [&rig] {
    std::string text;
    for (int output = 0; output < 9; ++output) {
      text += rig.chip().lit(output) ? '1' : '0';
    }
    return text;
  };
  std::vector<std::string> seen;
  rig.board.advance(nanoseconds(800));
  for (int clock = 0; clock < 7; ++clock) {
    seen.push_back(lit());
    rig.board.advance(nanoseconds(250));
  }
  EXPECT_THAT(seen, ElementsAre("000000000", "100010000", "110011000", "011001100", "001100110",
                                "000100010", "000000000"));
  rig.board.advance(nanoseconds(4096 * 250 - 6 * 250));
  EXPECT_EQ(lit(), "100010000") << "again after a display period";
}

TEST(Tlc5947Model, TheEyeSeesTheShareOfTimeThatCurrentFlows) {
  Rig rig;
  Values values{};
  values[0] = 1024;
  values[5] = 4095;
  rig.show(values);
  rig.blank.low();
  rig.board.advance(microseconds(5));
  const Time first = rig.chip().onTime(0);
  const Time fifth = rig.chip().onTime(5);
  rig.board.advance(10 * microseconds(1024));
  EXPECT_EQ(rig.chip().onTime(0) - first, microseconds(2560));
  EXPECT_EQ(rig.chip().onTime(5) - fifth, nanoseconds(10 * 4095 * 250));
  EXPECT_EQ(rig.chip().onTime(1), Time{0});
  rig.blank.high();
  const Time dark = rig.chip().onTime(0);
  EXPECT_GT(dark, microseconds(2560));
  rig.board.advance(microseconds(10000));
  EXPECT_EQ(rig.chip().onTime(0), dark);
}

TEST(Tlc5947Model, ALatchKeepsTheOutputsDarkUntilTheNextPeriodUnlessSetNotTo) {
  for (const bool darkens : {true, false}) {
    Rig rig;
    rig.chip().setLatchDarkens(darkens);
    Values values{};
    values[0] = 2048;
    rig.show(values);
    rig.blank.low();
    rig.board.advance(nanoseconds(1000) + microseconds(3 * 1024));
    // One period: 512 us of light. A latch after 256 us ends them.
    const Time before = rig.chip().onTime(0);
    rig.board.advance(microseconds(255));
    rig.latch();
    EXPECT_EQ(rig.chip().lit(0), !darkens);
    rig.board.advance(microseconds(768));
    EXPECT_EQ(rig.chip().onTime(0) - before, microseconds(darkens ? 256 : 512));
    EXPECT_TRUE(rig.chip().lit(0));
    rig.board.advance(microseconds(1024));
    EXPECT_EQ(rig.chip().onTime(0) - before, microseconds(darkens ? 768 : 1024));
  }
}

TEST(Tlc5947Model, ManyLatchesInAPeriodKeepABrightOutputNearlyDark) {
  Rig rig;
  Values values{};
  values[0] = 4095;
  rig.show(values);
  rig.blank.low();
  rig.board.advance(microseconds(900));
  const Time before = rig.chip().onTime(0);
  for (int i = 0; i < 100; ++i) {
    rig.latch();
    rig.board.advance(microseconds(99));
  }
  EXPECT_LT(rig.chip().onTime(0) - before, microseconds(1000)) << "a tenth at most";
  EXPECT_GT(rig.chip().onTime(0) - before, microseconds(100));
  EXPECT_GT(rig.chip().brightness(0), 0.99);
}

TEST(Tlc5947Model, TheOscillatorSetsThePeriod) {
  Rig rig;
  rig.chip().setOscillator(1e6);
  Values values{};
  values[0] = 100;
  rig.show(values);
  rig.blank.low();
  rig.board.advance(microseconds(103));
  EXPECT_TRUE(rig.chip().lit(0));
  rig.board.advance(microseconds(2));
  EXPECT_FALSE(rig.chip().lit(0));
  EXPECT_EQ(rig.chip().onTime(0), microseconds(100));
}

TEST(Tlc5947Model, TheReferenceResistorSetsTheCurrent) {
  Rig rig;
  Values values{};
  values[0] = 2048;
  rig.show(values);
  rig.blank.low();
  EXPECT_NEAR(rig.chip().current(0), 0.015, 1e-9);
  rig.chip().setReferenceResistor(3280);
  EXPECT_NEAR(rig.chip().current(0), 0.0075, 1e-9);
  EXPECT_DOUBLE_EQ(rig.chip().current(1), 0);
}

TEST(Tlc5947Model, TooHotIsDarkAndRecovers) {
  Rig rig;
  Values values{};
  values[0] = 4095;
  rig.show(values);
  rig.blank.low();
  rig.chip().setOverheated(true);
  EXPECT_DOUBLE_EQ(rig.chip().brightness(0), 0);
  const Time before = rig.chip().onTime(0);
  rig.board.advance(microseconds(5000));
  EXPECT_EQ(rig.chip().onTime(0), before);
  rig.chip().setOverheated(false);
  EXPECT_GT(rig.chip().brightness(0), 0.99);
}

TEST(Tlc5947Model, LosingPowerIsDarkAndForgetsTheValues) {
  Rig rig;
  rig.show(rising(1000));
  rig.blank.low();
  rig.board.advance(microseconds(1024));
  rig.chip().losePower();
  EXPECT_DOUBLE_EQ(rig.chip().brightness(0), 0);
  const Time before = rig.chip().onTime(0);
  EXPECT_GT(before, microseconds(200));
  rig.board.advance(microseconds(5000));
  EXPECT_EQ(rig.chip().onTime(0), before);
  EXPECT_EQ(rig.chip().pin("SOUT").driven(), Drive::Floating);
  rig.chip().setPoison(false);
  rig.chip().restorePower();
  EXPECT_EQ(rig.chip().value(0), 0);
  EXPECT_EQ(rig.chip().pin("SOUT").driven(), Drive::Low);
}

TEST(Tlc5947Model, ATooFastClockIsReportedWhenItsBitsAreLatched) {
  Rig rig;
  rig.format.speedHz = 30000000;
  rig.show(rising(1));
  EXPECT_THAT(rig.board.violations(), IsEmpty());
  rig.format.speedHz = 34000000;
  rig.exchange(wordsOf(rising(2)));
  EXPECT_THAT(rig.board.violations(), IsEmpty()) << "somebody else's traffic, for all it knows";
  rig.latch();
  ASSERT_THAT(rulesOf(rig.board), ElementsAre("u0 clock-too-fast"));
  EXPECT_EQ(rig.firstDetails(), "SCLK faster than 30.0 MHz of a single chip");
  rig.format.speedHz = 1000000;
  rig.show(rising(3));
  EXPECT_EQ(rig.board.violationCount(), 1U) << "its bits are gone";
  rig.chip().setClockLimits(40e6, 15e6);
  rig.format.speedHz = 34000000;
  rig.show(rising(2));
  EXPECT_EQ(rig.board.violationCount(), 1U);
}

TEST(Tlc5947Model, ACascadeIsSlower) {
  Rig rig(2);
  rig.format.speedHz = 15000000;
  rig.exchange(wordsOf({}));
  rig.show({});
  EXPECT_THAT(rig.board.violations(), IsEmpty());
  rig.format.speedHz = 17000000;
  rig.exchange(wordsOf({}));
  rig.show({});
  ASSERT_THAT(rulesOf(rig.board), ElementsAre("u0 clock-too-fast", "u1 clock-too-fast"));
  EXPECT_EQ(rig.firstDetails(), "SCLK faster than 15.0 MHz in a cascade");
}

TEST(Tlc5947Model, TellsWhatItLatched) {
  Rig rig;
  vboard::WireLog log(rig.board);
  Values values{};
  values[3] = 1;
  values[4] = 2;
  rig.show(values);
  EXPECT_THAT(log.lines(), Contains(HasSubstr("latched, 2 of 24 outputs not zero")));
}

TEST(Tlc5947Model, HasItsKnobsAndMetersAsProperties) {
  Rig rig;
  Tlc5947& chip = rig.chip();
  Values values{};
  values[0] = 1024;
  values[23] = 7;
  rig.show(values);
  EXPECT_EQ(valueOf(chip, "blanked"), PropertyValue(true));
  rig.blank.low();
  EXPECT_EQ(valueOf(chip, "blanked"), PropertyValue(false));
  EXPECT_EQ(valueOf(chip, "values"),
            PropertyValue(std::string("1024 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 7")));
  EXPECT_TRUE(propertyOf(chip, "values").reported);
  EXPECT_EQ(valueOf(chip, "latches"), PropertyValue(int64_t{1}));
  EXPECT_EQ(valueOf(chip, "bits_since_latch"), PropertyValue(int64_t{0}));
  EXPECT_EQ(valueOf(chip, "out0"), PropertyValue(0.25));
  EXPECT_EQ(valueOf(chip, "out23"), PropertyValue(7 / 4096.0));
  EXPECT_FALSE(propertyOf(chip, "out0").set);
  EXPECT_EQ(setValue(chip, "oscillator", 2e6), std::nullopt);
  EXPECT_EQ(valueOf(chip, "oscillator"), PropertyValue(2e6));
  EXPECT_EQ(setValue(chip, "iref", 100.0), "must be a number from 1640 to 1e+06");
  EXPECT_EQ(setValue(chip, "iref", 3280.0), std::nullopt);
  EXPECT_EQ(valueOf(chip, "iref"), PropertyValue(3280.0));
  EXPECT_EQ(setValue(chip, "max_clock", 25e6), std::nullopt);
  EXPECT_EQ(setValue(chip, "max_clock_cascade", 10e6), std::nullopt);
  EXPECT_EQ(valueOf(chip, "max_clock"), PropertyValue(25e6));
  EXPECT_EQ(valueOf(chip, "max_clock_cascade"), PropertyValue(10e6));
  for (const char* name : {"poison", "latch_darkens"}) {
    EXPECT_EQ(valueOf(chip, name), PropertyValue(true)) << name;
    EXPECT_EQ(setValue(chip, name, false), std::nullopt) << name;
    EXPECT_EQ(valueOf(chip, name), PropertyValue(false)) << name;
  }
  EXPECT_EQ(setValue(chip, "overheated", true), std::nullopt);
  EXPECT_EQ(valueOf(chip, "overheated"), PropertyValue(true));
  EXPECT_DOUBLE_EQ(chip.brightness(0), 0);
}

}  // namespace
