// SPDX-License-Identifier: MIT
#include "vboard/chips/Mcp3201.h"

#include <gmock/gmock.h>

#include "tests/vboard/board/Parts.h"
#include "tests/vboard/chips/Properties.h"
#include "vboard/board/WireLog.h"

namespace {

using boardtest::Hand;
using boardtest::propertyOf;
using boardtest::rulesOf;
using std::chrono::microseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Board;
using vboard::FloatingMiso;
using vboard::Level;
using vboard::Mcp3201;
using vboard::PropertyValue;
using vboard::Pull;
using vboard::Signal;
using vboard::SpiFormat;
using vboard::Time;

/// One converter on native select 0, whose high impedance reads 0 unless the test asks otherwise.
struct Mcp3201Rig : testing::Test {
  Board board{{.callCost = Time{0}}};
  vboard::SpiBus& bus = board.addSpiBus({.floatingMiso = FloatingMiso::Low});
  Mcp3201& adc = board.add<Mcp3201>("adc");
  SpiFormat format{.speedHz = 1600000};

  void SetUp() override {
    board.attach(adc, bus);
    board.connect(bus.select(0), adc.pin("CS"));
    board.powerUp();
  }
  void select() {
    bus.setIdle(format.mode);
    bus.driveSelect(0, Level::Low);
  }
  void deselect() { bus.driveSelect(0, Level::High); }
  std::vector<uint32_t> clockOut(size_t words) {
    const std::vector<uint32_t> zeros(words);
    std::vector<uint32_t> received(words);
    bus.transfer(0, format, zeros, received);
    return received;
  }
  std::vector<uint32_t> frame(size_t words) {
    select();
    auto received = clockOut(words);
    deselect();
    return received;
  }
  /// Volts in the middle of a code, with the 5 V reference.
  static double voltsOf(int code) { return (code + 0.5) * 5.0 / 4096; }
};

using Mcp3201Test = Mcp3201Rig;

TEST_F(Mcp3201Test, SixteenClocksGiveNullBitTwelveBitsAndB1Again) {
  adc.setInput(voltsOf(0xA5C));
  EXPECT_THAT(frame(2), ElementsAre(0x14U, 0xB8U));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, FifteenClocksGiveTheCodeRightAligned) {
  format.bitsPerWord = 15;
  for (const uint32_t code : {0x000U, 0x001U, 0x800U, 0xA5CU, 0xFFEU, 0xFFFU}) {
    adc.setInput(voltsOf(static_cast<int>(code)));
    EXPECT_THAT(frame(1), ElementsAre(code));
    EXPECT_EQ(adc.lastCode(), static_cast<int>(code));
  }
  EXPECT_EQ(adc.conversions(), 6U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, AThirdByteRepeatsTheBitsLsbFirst) {
  adc.setInput(voltsOf(0xA5C));
  EXPECT_THAT(frame(3), ElementsAre(0x14U, 0xB8U, 0xE9U));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, AfterTheLsbFirstCopyOnlyZerosFollow) {
  // B10 and B11 of 0xA5C are 0 and 1.
  adc.setInput(voltsOf(0xA5C));
  EXPECT_THAT(frame(6), ElementsAre(0x14U, 0xB8U, 0xE9U, 0x40U, 0x00U, 0x00U));
  EXPECT_EQ(adc.conversions(), 1U);
}

TEST_F(Mcp3201Test, Mode3GivesTheSameBitPositions) {
  format.mode = 3;
  adc.setInput(voltsOf(0xA5C));
  EXPECT_THAT(frame(3), ElementsAre(0x14U, 0xB8U, 0xE9U));
  format.bitsPerWord = 15;
  EXPECT_THAT(frame(1), ElementsAre(0xA5CU));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, Mode1LooksRightWithoutHoldMarginAndIsAViolation) {
  format.mode = 1;
  adc.setInput(voltsOf(0xA5C));
  EXPECT_THAT(frame(2), ElementsAre(0x14U, 0xB8U));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc spi-mode"));
}

TEST_F(Mcp3201Test, Mode2IsOneBitLateAndAViolation) {
  format.mode = 2;
  adc.setInput(voltsOf(0xA5C));
  EXPECT_THAT(frame(2), ElementsAre(0x0AU, 0x5CU));
  EXPECT_THAT(rulesOf(board), ElementsAre("adc spi-mode"));
}

TEST_F(Mcp3201Test, TheOutputFloatsWhileSamplingAndWhileDeselected) {
  bus.miso().net()->setPull(Pull::Up);
  adc.setInput(0);
  EXPECT_THAT(frame(2), ElementsAre(0xC0U, 0x00U));
  format.bitsPerWord = 16;
  EXPECT_THAT(clockOut(1), ElementsAre(0xFFFFU));
  EXPECT_EQ(adc.conversions(), 1U);
}

TEST_F(Mcp3201Test, OnAFloatingWireTheFirstTwoBitsAreNoise) {
  Board noisy({.callCost = Time{0}});
  auto& noisyBus = noisy.addSpiBus();
  auto& chip = noisy.add<Mcp3201>("adc");
  noisy.attach(chip, noisyBus);
  noisy.connect(noisyBus.select(0), chip.pin("CS"));
  noisy.powerUp();
  uint32_t seen[4] = {};
  for (int i = 0; i < 200; ++i) {
    const std::vector<uint32_t> zero = {0};
    uint32_t received = 0;
    noisyBus.driveSelect(0, Level::Low);
    noisyBus.transfer(0, {.bitsPerWord = 15, .speedHz = 1600000}, zero, {&received, 1});
    noisyBus.driveSelect(0, Level::High);
    ++seen[received >> 13U];
    EXPECT_EQ(received & 0x1FFFU, 0U);
  }
  EXPECT_THAT(seen, testing::Each(testing::Gt(20U)));
}

TEST_F(Mcp3201Test, TheSampleIsTakenAtTheSecondFallingEdge) {
  // At 1 MHz in mode 0 that edge stands at 2000 ns.
  format.speedHz = 1000000;
  format.bitsPerWord = 15;
  adc.setInput(Signal::Steps{.points = {{Time(0), 1.0}, {Time(1999), 2.0}, {Time(2001), 3.0}}});
  EXPECT_THAT(frame(1), ElementsAre(1638U));
  EXPECT_DOUBLE_EQ(adc.lastVoltage(), 2.0);
}

TEST_F(Mcp3201Test, TransferFunctionRoundsDownAndClamps) {
  adc.setReference(4.096);
  const auto codeAt = [&](double volts) {
    adc.setInput(volts);
    return adc.codeNow();
  };
  EXPECT_EQ(codeAt(0.0009), 0);
  EXPECT_EQ(codeAt(0.0011), 1);
  EXPECT_EQ(codeAt(2.0475), 2047);
  EXPECT_EQ(codeAt(2.0485), 2048);
  EXPECT_EQ(codeAt(4.0955), 4095);
  EXPECT_EQ(codeAt(5.0), 4095);
  EXPECT_EQ(codeAt(-1.0), 0);
}

TEST_F(Mcp3201Test, InMinusIsSubtracted) {
  format.bitsPerWord = 15;
  adc.setReference(4.096);
  adc.setInputMinus(0.1);
  adc.setInput(1.1005);
  EXPECT_THAT(frame(1), ElementsAre(1000U));
  EXPECT_NEAR(adc.lastVoltage(), 1.0005, 1e-9);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, OffsetAndGainErrorsMoveTheCode) {
  adc.setInput(voltsOf(2048));
  adc.setOffsetError(3);
  EXPECT_EQ(adc.codeNow(), 2051);
  adc.setOffsetError(0);
  adc.setGainError(-4);
  EXPECT_EQ(adc.codeNow(), 2046);
}

TEST_F(Mcp3201Test, TheHighestClockFollowsTheSupply) {
  adc.setReference(2.5);
  EXPECT_EQ(adc.limits().maxHz, 1600000U);
  adc.setSupply(5.5);
  EXPECT_EQ(adc.limits().maxHz, 1600000U);
  adc.setSupply(3.3);
  EXPECT_EQ(adc.limits().maxHz, 1008696U);
  adc.setSupply(2.7);
  EXPECT_EQ(adc.limits().maxHz, 800000U);
  format.speedHz = 800000;
  frame(2);
  EXPECT_THAT(board.violations(), IsEmpty());
  format.speedHz = 800001;
  frame(2);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc clock-too-fast"));
  EXPECT_EQ(board.violations().at(0).details, "800001 Hz, at most 800000 Hz (on spi1)");
}

TEST_F(Mcp3201Test, AClockBelowTenKilohertzIsTooSlowAndDroops) {
  format.speedHz = 10000;
  frame(2);
  EXPECT_THAT(board.violations(), IsEmpty());
  format.speedHz = 9000;
  frame(2);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc clock-too-slow", "adc droop"));
}

TEST_F(Mcp3201Test, APauseInTheMiddleOfAConversionDroops) {
  select();
  clockOut(1);
  board.advance(microseconds(1300));
  clockOut(1);
  deselect();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc droop"));
}

TEST_F(Mcp3201Test, AFrameCutBeforeTheLastBitIsAViolationAndLosesTheConversion) {
  format.bitsPerWord = 8;
  adc.setInput(voltsOf(0xFFF));
  frame(1);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc short-frame"));
  EXPECT_EQ(board.violations().at(0).details,
            "CS rose after 8 clocks: 15 are needed to read 12 bits");
  EXPECT_THAT(frame(2), ElementsAre(0x1FU, 0xFFU));  // starts afresh
}

TEST_F(Mcp3201Test, EveryFrameFromTwoToFourteenClocksIsTooShort) {
  for (const uint8_t mode : {uint8_t{0}, uint8_t{3}}) {
    format.mode = mode;
    for (int bits = 1; bits <= 16; ++bits) {
      format.bitsPerWord = static_cast<uint8_t>(bits);
      board.clearViolations();
      frame(1);
      // Mode 3 ends with the rising edge, so two clocks there have one falling edge that counts.
      const bool sampled = mode == 0 ? bits >= 2 : bits >= 3;
      EXPECT_EQ(board.violationCount(), sampled && bits < 15 ? 1U : 0U)
          << "mode " << int(mode) << ", " << bits << " bits";
    }
  }
}

TEST_F(Mcp3201Test, AFrameTooShortToSampleLeavesNoTrace) {
  format.bitsPerWord = 1;
  frame(1);
  EXPECT_EQ(adc.conversions(), 0U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, WithoutDeselectionThereIsNoSecondConversion) {
  format.bitsPerWord = 15;
  adc.setInput(voltsOf(0xFFF));
  select();
  EXPECT_THAT(clockOut(1), ElementsAre(0xFFFU));
  EXPECT_THAT(clockOut(1), ElementsAre(0x7FF0U));  // eleven bits of the copy, then zeros
  EXPECT_THAT(clockOut(1), ElementsAre(0x0000U));
  EXPECT_THAT(rulesOf(board), IsEmpty());
  EXPECT_THAT(clockOut(2), ElementsAre(0x0000U, 0x0000U));
  deselect();
  EXPECT_EQ(adc.conversions(), 1U);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc no-deselect"));
}

struct Mcp3201Timing : Mcp3201Rig {
  Mcp3201Timing() { format.bitsPerWord = 15; }
};

TEST_F(Mcp3201Timing, CsMustStayHighBetweenConversions) {
  frame(1);
  board.advance(Time(624));
  frame(1);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-high-too-short"));
  EXPECT_EQ(board.violations().at(0).details,
            "CS high for 624 ns between conversions, at least 625 ns");
  board.advance(Time(625));
  frame(1);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST(Mcp3201, OnABoardWithCallCostsNoTimeIsTooShortATime) {
  Board board;
  auto& bus = board.addSpiBus();
  auto& adc = board.add<Mcp3201>("adc");
  board.attach(adc, bus);
  board.connect(bus.select(0), adc.pin("CS"));
  board.powerUp();
  for (int i = 0; i < 2; ++i) {
    bus.driveSelect(0, Level::Low);
    bus.driveSelect(0, Level::High);
  }
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-high-too-short"));
}

TEST(Mcp3201, TheFirstClockMustNotFollowTheSelectTooSoon) {
  Board board;
  auto& adc = board.add<Mcp3201>("adc");
  auto& select = board.add<Hand>("select");
  auto& clock = board.add<Hand>("clock");
  board.connect(adc.pin("CS"), select.p());
  board.connect(adc.pin("CLK"), clock.p());
  board.powerUp();
  select.low();
  board.advance(Time(99));
  clock.high();
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-setup-too-short"));
}

/// The converter on a select line that hangs on a hand.
struct Mcp3201Power : testing::Test {
  Board board{{.callCost = Time{0}}};
  vboard::SpiBus& bus = board.addSpiBus({.floatingMiso = FloatingMiso::Low});
  Mcp3201& adc = board.add<Mcp3201>("adc");
  Hand& select = board.add<Hand>("select");
  void SetUp() override {
    board.attach(adc, bus);
    board.connect(adc.pin("CS"), select.p());
    board.powerUp();
    adc.setInput(Mcp3201Rig::voltsOf(0xFFF));
  }
  uint32_t read() {
    const std::vector<uint32_t> zero = {0};
    uint32_t received = 0;
    bus.transfer(0, {.bitsPerWord = 15, .speedHz = 1600000}, zero, {&received, 1});
    return received;
  }
};

TEST_F(Mcp3201Power, WithCsLowWhenPowerArrivesItAnswersOnlyAfterCsWasHigh) {
  select.low();
  adc.losePower();
  adc.restorePower();
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(adc.conversions(), 0U);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-low-at-power-up"));
  select.high();
  select.low();
  EXPECT_EQ(read(), 0xFFFU);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Mcp3201Power, ACsTiedLowNeverConverts) {
  adc.pin("CS").net()->stick(Level::Low);
  board.powerUp();
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(adc.conversions(), 0U);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc select-low-at-power-up"));
}

TEST_F(Mcp3201Power, WithoutPowerItLetsGoOfTheWireInTheMiddleOfAFrame) {
  select.low();
  read();
  EXPECT_TRUE(bus.miso().net()->driven());
  adc.losePower();
  EXPECT_FALSE(bus.miso().net()->driven());
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(adc.conversions(), 1U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Power, BenchSettingsOutliveAPowerCycle) {
  board.powerUp();
  select.high();
  select.low();
  EXPECT_EQ(read(), 0xFFFU);
}

TEST_F(Mcp3201Test, InputsOutsideTheirRangesAreViolationsWithNumbers) {
  adc.setReference(2.5);
  adc.setInput(2.6);
  frame(2);
  adc.setInput(0.3);
  adc.setInputMinus(0.2);
  frame(2);
  adc.setInputMinus(0);
  adc.setInput(0.1);
  adc.setReference(0.2);
  frame(2);
  adc.setReference(5.1);
  frame(2);
  EXPECT_THAT(rulesOf(board), ElementsAre("adc input-range", "adc input-minus-range",
                                          "adc reference-range", "adc reference-range"));
  EXPECT_EQ(board.violations().at(0).details, "IN+ at 2.600 V, from 0.000 V to 2.500 V");
}

TEST_F(Mcp3201Test, InputsAtTheEndsOfTheirRangesAreFine) {
  adc.setInput(5.0);
  adc.setInputMinus(0.0);
  frame(2);
  adc.setInputMinus(-0.1);
  adc.setInput(-0.1);
  frame(2);
  adc.setReference(0.25);
  frame(2);
  adc.setReference(2.5);
  adc.setInputMinus(0.05);
  adc.setInput(2.54);  // the range moves with IN-
  frame(2);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Mcp3201Test, AnObserverReadsWhatWasSampled) {
  vboard::WireLog log(board);
  format.bitsPerWord = 15;
  adc.setReference(3.3);
  adc.setInput(2.137);
  frame(1);
  EXPECT_THAT(log.lines(), ElementsAre("adc: sampled 2.137 V: code 2652",
                                       "spi1 cs0 mode 0 15 bit 1600000 Hz: 0000 -> 0a5c"));
}

TEST_F(Mcp3201Test, TransfersToOthersDoNotReachIt) {
  format.mode = 1;
  format.speedHz = 20000000;
  clockOut(4);
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_EQ(adc.conversions(), 0U);
}

TEST_F(Mcp3201Test, AClockLineThatChangesItsIdleLevelWhileSelectedIsAClock) {
  // The select fell in mode 0; the transfer in mode 3 starts with a rising edge nobody meant.
  adc.setInput(voltsOf(0xA5C));
  select();
  format.mode = 3;
  const auto received = clockOut(2);
  deselect();
  EXPECT_THAT(received, ElementsAre(0x29U, 0x71U));
}

TEST_F(Mcp3201Test, PropertiesTurnTheSameKnobs) {
  EXPECT_EQ(propertyOf(adc, "vref").set(PropertyValue(2.5)), std::nullopt);
  EXPECT_EQ(propertyOf(adc, "vdd").set(PropertyValue(int64_t{3})), std::nullopt);
  EXPECT_EQ(propertyOf(adc, "in").set(PropertyValue(1.25)), std::nullopt);
  EXPECT_EQ(propertyOf(adc, "in_minus").set(PropertyValue(0.0)), std::nullopt);
  EXPECT_EQ(propertyOf(adc, "offset").set(PropertyValue(1.0)), std::nullopt);
  EXPECT_EQ(propertyOf(adc, "gain").set(PropertyValue(0.0)), std::nullopt);
  EXPECT_EQ(adc.codeNow(), 2049);
  EXPECT_EQ(adc.supply(), 3.0);
  EXPECT_EQ(propertyOf(adc, "in").get(), PropertyValue(1.25));
  format.speedHz = 800000;
  frame(2);
  EXPECT_EQ(propertyOf(adc, "last_code").get(), PropertyValue(int64_t{2049}));
  EXPECT_EQ(propertyOf(adc, "last_voltage").get(), PropertyValue(1.25));
  EXPECT_EQ(propertyOf(adc, "conversions").get(), PropertyValue(int64_t{1}));
  EXPECT_TRUE(propertyOf(adc, "conversions").reported);
  EXPECT_FALSE(propertyOf(adc, "last_code").set);
}

TEST_F(Mcp3201Test, PropertiesSayWhatIsAllowed) {
  EXPECT_EQ(propertyOf(adc, "vdd").set(PropertyValue(6.0)), "must be a number from 2.7 to 5.5");
  EXPECT_EQ(propertyOf(adc, "vdd").set(PropertyValue(std::string("much"))),
            "must be a number from 2.7 to 5.5");
  EXPECT_EQ(adc.supply(), 5.0);
}

}  // namespace
