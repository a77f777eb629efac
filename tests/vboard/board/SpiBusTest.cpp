// SPDX-License-Identifier: MIT
#include "vboard/board/SpiBus.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "Parts.h"
#include "vboard/board/TriStateBuffer.h"
#include "vboard/board/WireLog.h"

namespace {

using boardtest::Ear;
using boardtest::Hand;
using boardtest::rulesOf;
using boardtest::ShiftRegister;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vboard::Board;
using vboard::ControllerProfile;
using vboard::FloatingMiso;
using vboard::Level;
using vboard::Net;
using vboard::Pull;
using vboard::SpiBus;
using vboard::SpiFormat;
using vboard::Time;
using vboard::WireLog;

constexpr uint8_t kModes[] = {0, 1, 2, 3};
constexpr uint8_t kSampledRising[] = {0, 3};

std::vector<uint32_t> shift(SpiBus& bus, const SpiFormat& format,
                            const std::vector<uint32_t>& words) {
  std::vector<uint32_t> received(words.size());
  bus.transfer(0, format, words, received);
  return received;
}

/// A bus that reads low when nobody drives MISO.
struct BusRig {
  explicit BusRig(vboard::SpiBusOptions options = {.floatingMiso = FloatingMiso::Low})
      : bus(board.addSpiBus(std::move(options))) {}
  Board board{{.callCost = Time{0}}};
  SpiBus& bus;
};

TEST(SpiBus, BitsLeaveMsbFirstAndEdgesStandInTheIdleLevelOfTheMode) {
  for (const uint8_t mode : kModes) {
    BusRig rig;
    auto& clock = rig.board.add<Ear>("clock");
    auto& data = rig.board.add<Ear>("data");
    rig.board.connect(rig.bus.sclk(), clock.p());
    rig.board.connect(rig.bus.mosi(), data.p());
    rig.board.powerUp();
    shift(rig.bus, {.mode = mode, .bitsPerWord = 4}, {0b1010});
    EXPECT_EQ(clock.heard, mode < 2 ? "10101010" : "101010101") << "mode " << int(mode);
    EXPECT_EQ(data.heard, "1010");
    EXPECT_EQ(rig.bus.sclk().high(), mode >= 2);
  }
}

TEST(SpiBus, LsbFirstTurnsBothDirectionsRound) {
  BusRig rig;
  auto& chip = rig.board.add<ShiftRegister>("sr");
  chip.accepted.lsbFirst = true;
  rig.board.attach(chip, rig.bus);
  rig.board.powerUp();
  chip.load(0b10000000);
  EXPECT_THAT(shift(rig.bus, {.lsbFirst = true}, {0b00000011}), ElementsAre(0b00000001));
  EXPECT_EQ(chip.value, 0b11000000U);
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST(SpiBus, WordsOfEverySizeTravelWholeAndSpareBitsStayHome) {
  for (unsigned bits = 1; bits <= 32; ++bits) {
    BusRig rig;
    auto& chip = rig.board.add<ShiftRegister>("sr", bits);
    rig.board.attach(chip, rig.bus);
    rig.board.powerUp();
    const uint32_t mask = bits == 32 ? 0xFFFFFFFFU : (1U << bits) - 1U;
    const SpiFormat format{.bitsPerWord = static_cast<uint8_t>(bits)};
    EXPECT_THAT(shift(rig.bus, format, {0xDEADBEEF}), ElementsAre(0U));
    EXPECT_EQ(chip.value, 0xDEADBEEFU & mask);
    EXPECT_THAT(shift(rig.bus, format, {0}), ElementsAre(0xDEADBEEFU & mask)) << bits;
  }
}

TEST(SpiBus, TheHostSamplesBeforeTheChipAnswersTheSameEdge) {
  // Modes 0 and 3 sample at the rising edge at which this chip shifts: they read what it held.
  for (const uint8_t mode : kSampledRising) {
    BusRig rig;
    auto& chip = rig.board.add<ShiftRegister>("sr");
    rig.board.attach(chip, rig.bus);
    rig.board.powerUp();
    rig.bus.setIdle(mode);
    chip.load(0xA5);
    EXPECT_THAT(shift(rig.bus, {.mode = mode}, {0x3C}), ElementsAre(0xA5U)) << int(mode);
    EXPECT_EQ(chip.value, 0x3CU);
  }
}

TEST(SpiBus, TheWrongModesShiftDataTheWaySiliconWould) {
  // Mode 1 shifts the chip before it samples: the first bit is lost, and MOSI of before comes in.
  BusRig rig;
  auto& chip = rig.board.add<ShiftRegister>("sr");
  rig.board.attach(chip, rig.bus);
  rig.board.powerUp();
  chip.load(0xA5);
  EXPECT_THAT(shift(rig.bus, {.mode = 1}, {0xC1}), ElementsAre(0x4AU));
  EXPECT_EQ(chip.value, 0x60U);  // one bit late, after the low MOSI of before
  // Mode 2 samples at the falling edge, half a bit before this chip shifts.
  rig.bus.setIdle(2);
  chip.load(0xA5);
  EXPECT_THAT(shift(rig.bus, {.mode = 2}, {0xC1}), ElementsAre(0xA5U));
}

TEST(SpiBus, AChainShiftsToTheRightOneStageAnEdge) {
  BusRig rig;
  auto& first = rig.board.add<ShiftRegister>("first");
  auto& second = rig.board.add<ShiftRegister>("second");
  rig.board.connect(rig.bus.sclk(), first.clockPin());
  rig.board.connect(rig.bus.sclk(), second.clockPin());
  rig.board.connect(rig.bus.mosi(), *first.dataInPin());
  rig.board.connect(*first.dataOutPin(), *second.dataInPin());
  rig.board.connect(*second.dataOutPin(), rig.bus.miso());
  rig.board.powerUp();
  EXPECT_THAT(shift(rig.bus, {}, {0x12, 0x34}), ElementsAre(0x00U, 0x00U));
  EXPECT_EQ(first.value, 0x34U);
  EXPECT_EQ(second.value, 0x12U);
  EXPECT_THAT(shift(rig.bus, {}, {0x56, 0x78}), ElementsAre(0x12U, 0x34U));
}

TEST(SpiBus, AChainWiredInTheOtherOrderShiftsTheSame) {
  BusRig rig;
  auto& second = rig.board.add<ShiftRegister>("second");
  auto& first = rig.board.add<ShiftRegister>("first");
  rig.board.connect(rig.bus.sclk(), second.clockPin());
  rig.board.connect(rig.bus.sclk(), first.clockPin());
  rig.board.connect(*first.dataOutPin(), *second.dataInPin());
  rig.board.connect(rig.bus.mosi(), *first.dataInPin());
  rig.board.powerUp();
  shift(rig.bus, {}, {0x12, 0x34});
  EXPECT_EQ(first.value, 0x34U);
  EXPECT_EQ(second.value, 0x12U);
}

TEST(SpiBus, ATransferTakesWhatItsBitsTakeToTheNanosecond) {
  BusRig rig;
  rig.board.powerUp();
  shift(rig.bus, {.bitsPerWord = 15, .speedHz = 1600000}, {0});
  EXPECT_EQ(rig.board.now(), Time(9375));
  const Time before = rig.board.now();
  shift(rig.bus, {.bitsPerWord = 24, .speedHz = 3000000}, {1});
  EXPECT_EQ(rig.board.now() - before, Time(8000));
  EXPECT_EQ(rig.bus.statistics().busy, Time(17375));
}

TEST(SpiBus, EdgesStandHalfABitApart) {
  BusRig rig;
  auto& clock = rig.board.add<Ear>("clock");
  rig.board.connect(rig.bus.sclk(), clock.p());
  rig.board.powerUp();
  shift(rig.bus, {.bitsPerWord = 2, .speedHz = 1000000}, {0});
  EXPECT_THAT(clock.times, ElementsAre(Time(500), Time(1000), Time(1500), Time(2000)));
}

TEST(SpiBus, EventsOnTheClockHappenBetweenTheEdges) {
  BusRig rig;
  auto& hand = rig.board.add<Hand>("hand");
  rig.board.connect(hand.p(), rig.bus.miso());
  rig.board.powerUp();
  hand.low();
  rig.board.clock().after(Time(3600), [&] { hand.high(); });
  EXPECT_THAT(shift(rig.bus, {.speedHz = 1000000}, {0}), ElementsAre(0b00001111U));
}

TEST(SpiBus, IdleLevelOfAnotherModeIsAnEdge) {
  BusRig rig;
  auto& clock = rig.board.add<Ear>("clock");
  rig.board.connect(rig.bus.sclk(), clock.p());
  rig.board.powerUp();
  rig.bus.setIdle(3);
  rig.bus.setIdle(2);
  rig.bus.setIdle(0);
  EXPECT_EQ(clock.heard, "10");
}

TEST(SpiBus, FloatingMisoReadsAsConfigured) {
  BusRig low({.floatingMiso = FloatingMiso::Low});
  BusRig high({.floatingMiso = FloatingMiso::High});
  EXPECT_THAT(shift(low.bus, {}, {0}), ElementsAre(0x00U));
  EXPECT_THAT(shift(high.bus, {}, {0}), ElementsAre(0xFFU));
}

TEST(SpiBus, PoisonIsNoiseThatRepeatsWithTheSeed) {
  const auto read = [](uint64_t seed) {
    Board board({.callCost = Time{0}, .seed = seed});
    auto& bus = board.addSpiBus();
    return shift(bus, {.bitsPerWord = 32}, {0, 0, 0, 0});
  };
  const auto first = read(1);
  EXPECT_EQ(first, read(1));
  EXPECT_NE(first, read(2));
  EXPECT_NE(first[0], first[1]);
  int ones = 0;
  for (const uint32_t word : first) {
    ones += __builtin_popcount(word);
  }
  EXPECT_GT(ones, 32);
  EXPECT_LT(ones, 96);
}

TEST(SpiBus, APullOnMisoWinsOverPoison) {
  BusRig rig({.floatingMiso = FloatingMiso::Poison});
  rig.bus.miso().net()->setPull(Pull::Up);
  EXPECT_THAT(shift(rig.bus, {}, {0, 0}), ElementsAre(0xFFU, 0xFFU));
  rig.bus.miso().net()->setPull(Pull::Down);
  EXPECT_THAT(shift(rig.bus, {}, {0, 0}), ElementsAre(0x00U, 0x00U));
}

TEST(SpiBus, AStuckMisoReadsItsLevel) {
  BusRig rig;
  auto& chip = rig.board.add<ShiftRegister>("sr");
  rig.board.attach(chip, rig.bus);
  rig.board.powerUp();
  chip.load(0xA5);
  rig.bus.miso().net()->stick(Level::High);
  EXPECT_THAT(shift(rig.bus, {}, {0x11}), ElementsAre(0xFFU));
  rig.bus.miso().net()->stick(std::nullopt);
  EXPECT_THAT(shift(rig.bus, {}, {0}), ElementsAre(0x11U));
}

TEST(SpiBus, AStuckClockReachesNobody) {
  BusRig rig;
  auto& chip = rig.board.add<ShiftRegister>("sr");
  rig.board.attach(chip, rig.bus);
  rig.board.powerUp();
  rig.bus.sclk().net()->stick(Level::Low);
  shift(rig.bus, {}, {0xFF});
  EXPECT_EQ(chip.value, 0U);
}

TEST(SpiBus, ATransferThatNobodyHearsLooksTheSameAsOneThatIsHeard) {
  // The same sequence with and without an ear on the clock line.
  const auto run = [](bool heard, FloatingMiso floating) {
    std::vector<std::string> seen;
    BusRig rig({.floatingMiso = floating});
    auto& ear = rig.board.add<Ear>("ear");
    if (heard) {
      rig.board.connect(rig.bus.sclk(), ear.p());
    }
    auto& hand = rig.board.add<Hand>("hand");
    rig.board.connect(rig.bus.miso(), hand.p());
    rig.board.powerUp();
    for (int round = 0; round < 6; ++round) {
      if (round == 2) {
        rig.bus.flipMisoBit(5);
      }
      if (round == 4) {
        rig.board.clock().after(Time(3000), [&hand] { hand.high(); });
      }
      for (const uint8_t mode : kModes) {
        const SpiFormat format{.mode = mode,
                               .lsbFirst = round % 2 == 1,
                               .bitsPerWord = static_cast<uint8_t>(7 + round),
                               .speedHz = 3000000};
        for (const uint32_t word : shift(rig.bus, format, {0x155, 0x0AA})) {
          seen.push_back(std::to_string(word));
        }
        seen.push_back(std::to_string(rig.board.now().count()) +
                       (rig.bus.mosi().high() ? " high" : " low") +
                       (rig.bus.sclk().high() ? " high" : " low"));
      }
    }
    EXPECT_EQ(ear.heard.empty(), !heard);
    return seen;
  };
  EXPECT_EQ(run(false, FloatingMiso::Poison), run(true, FloatingMiso::Poison));
  EXPECT_EQ(run(false, FloatingMiso::High), run(true, FloatingMiso::High));
}

TEST(SpiBus, FlippedBitsAreCountedFromNow) {
  BusRig rig;
  shift(rig.bus, {}, {0});
  rig.bus.flipMisoBit(9);
  rig.bus.flipMisoBit(0);
  rig.bus.flipMisoBit(15);
  EXPECT_THAT(shift(rig.bus, {}, {0, 0, 0}), ElementsAre(0x80U, 0x41U, 0x00U));
  rig.bus.flipMisoBit(40);
  EXPECT_THAT(shift(rig.bus, {}, {0, 0}), ElementsAre(0x00U, 0x00U));
  EXPECT_THAT(shift(rig.bus, {}, {0, 0, 0, 0}), ElementsAre(0x00U, 0x00U, 0x00U, 0x80U));
}

TEST(SpiBus, InALoopTheControllerHearsItself) {
  BusRig rig({.floatingMiso = FloatingMiso::Poison});
  for (const uint8_t mode : kModes) {
    EXPECT_THAT(shift(rig.bus, {.mode = mode, .loop = true}, {0xA5, 0x3C}),
                ElementsAre(0xA5U, 0x3CU));
  }
}

TEST(SpiBus, TwoChipsDrivingMisoAreOneViolationATransferNotOneABit) {
  BusRig rig;
  auto& one = rig.board.add<ShiftRegister>("one");
  auto& two = rig.board.add<ShiftRegister>("two");
  rig.board.attach(one, rig.bus);
  rig.board.attach(two, rig.bus);
  rig.board.powerUp();
  one.load(0xF0);
  two.load(0xAA);
  EXPECT_THAT(shift(rig.bus, {}, {0}), ElementsAre(0xA0U));
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("spi1.MISO conflict"));
  EXPECT_THAT(rig.board.violations().at(0).details, HasSubstr("two.SOUT"));
}

TEST(SpiBus, ABufferKeepsAChipThatNeverLetsGoOffASharedMiso) {
  BusRig rig({.floatingMiso = FloatingMiso::High});
  auto& chip = rig.board.add<ShiftRegister>("sr");
  auto& buffer = rig.board.add<vboard::TriStateBuffer>("buffer");
  auto& enable = rig.board.add<Hand>("enable");
  rig.board.connect(rig.bus.sclk(), chip.clockPin());
  rig.board.connect(rig.bus.mosi(), *chip.dataInPin());
  rig.board.connect(*chip.dataOutPin(), buffer.pin("A"));
  rig.board.connect(buffer.pin("Y"), rig.bus.miso());
  rig.board.connect(enable.p(), buffer.pin("OE"));
  rig.board.powerUp();
  chip.load(0xA5);
  EXPECT_THAT(shift(rig.bus, {}, {0x3C}), ElementsAre(0xFFU));
  enable.low();
  EXPECT_THAT(shift(rig.bus, {}, {0x00}), ElementsAre(0x3CU));
}

struct SpiBusChecks : testing::Test {
  BusRig rig;
  ShiftRegister& chip = rig.board.add<ShiftRegister>("sr");
  void SetUp() override {
    chip.accepted = {.modes = 0b1001, .wordSizes = 1U << 7U, .minHz = 10000, .maxHz = 2000000};
    rig.board.attach(chip, rig.bus);
    rig.board.powerUp();
  }
};

TEST_F(SpiBusChecks, ATransferWithinTheLimitsIsFine) {
  shift(rig.bus, {.mode = 3, .speedHz = 2000000}, {1});
  shift(rig.bus, {.mode = 0, .speedHz = 10000}, {1});
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST_F(SpiBusChecks, EachLimitHasItsOwnRuleAndNamesTheNumbers) {
  shift(rig.bus, {.mode = 1}, {0});
  shift(rig.bus, {.lsbFirst = true}, {0});
  shift(rig.bus, {.bitsPerWord = 9}, {0});
  shift(rig.bus, {.speedHz = 2000001}, {0});
  shift(rig.bus, {.speedHz = 9999}, {0});
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("sr spi-mode", "sr bit-order", "sr word-size",
                                              "sr clock-too-fast", "sr clock-too-slow"));
  const auto violations = rig.board.violations();
  EXPECT_EQ(violations[0].details, "mode 1, accepts 0, 3 (on spi1)");
  EXPECT_EQ(violations[1].details, "LSB first, accepts MSB first (on spi1)");
  EXPECT_EQ(violations[2].details, "words of 9 bits, accepts 8 (on spi1)");
  EXPECT_EQ(violations[3].details, "2000001 Hz, at most 2000000 Hz (on spi1)");
  EXPECT_EQ(violations[4].details, "9999 Hz, at least 10000 Hz (on spi1)");
}

TEST_F(SpiBusChecks, OneTransferIsOneViolationHoweverManyWords) {
  shift(rig.bus, {.mode = 2}, {1, 2, 3});
  EXPECT_EQ(rig.board.violationCount(), 1U);
}

TEST_F(SpiBusChecks, AChipWithoutPowerIsNotChecked) {
  chip.losePower();
  shift(rig.bus, {.mode = 1}, {0});
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST_F(SpiBusChecks, AChipOnAnotherBusIsNotChecked) {
  auto& other = rig.board.addSpiBus({.number = 2});
  shift(other, {.mode = 1}, {0});
  EXPECT_THAT(rig.board.violations(), IsEmpty());
}

TEST_F(SpiBusChecks, AChipAddedLaterIsChecked) {
  shift(rig.bus, {}, {0});
  auto& late = rig.board.add<ShiftRegister>("late");
  late.accepted.modes = 0b0010;
  rig.board.connect(rig.bus.sclk(), late.clockPin());
  shift(rig.bus, {}, {0});
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("late spi-mode"));
}

TEST(SpiBus, SelectsIdleHighAndAreDrivenOneByOne) {
  BusRig rig({.selects = 2});
  rig.board.powerUp();
  rig.bus.driveSelect(1, Level::Low);
  EXPECT_TRUE(rig.bus.select(0).high());
  EXPECT_FALSE(rig.bus.select(1).high());
}

TEST(SpiBus, StatisticsCountTransfersWordsAndClocks) {
  BusRig rig;
  shift(rig.bus, {.bitsPerWord = 15}, {1, 2});
  shift(rig.bus, {}, {1});
  EXPECT_EQ(rig.bus.statistics().transfers, 2U);
  EXPECT_EQ(rig.bus.statistics().words, 3U);
  EXPECT_EQ(rig.bus.statistics().clocks, 38U);
}

TEST(SpiBus, AReceiveBufferMayBeShorterThanWhatIsSent) {
  BusRig rig({.floatingMiso = FloatingMiso::High});
  WireLog log(rig.board);
  uint32_t received[2] = {0, 0x55};
  const std::vector<uint32_t> words = {1, 2, 3};
  rig.bus.transfer(0, {}, words, {received, 1});
  EXPECT_EQ(received[0], 0xFFU);
  EXPECT_EQ(received[1], 0x55U);
  EXPECT_THAT(log.transfers().at(0).miso, ElementsAre(0xFFU, 0xFFU, 0xFFU));
}

TEST(SpiBus, AnUnknownControllerProfileIsRefused) {
  Board board;
  EXPECT_THROW(board.addSpiBus({.profile = "none"}), std::invalid_argument);
}

TEST(ControllerProfile, KnowsWhatRealControllersAnswer) {
  const auto* raspberry = ControllerProfile::find("bcm2835");
  ASSERT_NE(raspberry, nullptr);
  EXPECT_EQ(raspberry->wordSizes, 0x80U);
  EXPECT_FALSE(raspberry->lsbFirst);
  EXPECT_TRUE(raspberry->noCs);
  EXPECT_FALSE(raspberry->loop);
  EXPECT_EQ(ControllerProfile::find("bcm2835-aux")->modes, 0b0101);
  EXPECT_FALSE(ControllerProfile::find("spi-gpio")->noCs);
  EXPECT_TRUE(ControllerProfile::find("spi-gpio")->lsbFirst);
  EXPECT_TRUE(ControllerProfile::find("imx-ecspi")->loop);
  EXPECT_FALSE(ControllerProfile::find("imx-ecspi")->lsbFirst);
  EXPECT_TRUE(ControllerProfile::find("sun6i")->lsbFirst);
  EXPECT_FALSE(ControllerProfile::find("sun6i")->noCs);
  EXPECT_EQ(ControllerProfile::find("omap2-mcspi")->wordSizes, 0xFFFFFFF8U);
  EXPECT_EQ(ControllerProfile::find("imaginary"), nullptr);
  EXPECT_EQ(ControllerProfile::all().size(), 7U);
}

TEST(WireLog, WritesTransfersAsLinesAndRecords) {
  BusRig rig({.floatingMiso = FloatingMiso::High});
  WireLog log(rig.board);
  rig.bus.transfer(0, {.bitsPerWord = 15, .speedHz = 1600000}, std::vector<uint32_t>{0x12}, {});
  shift(rig.bus, {.mode = 3, .lsbFirst = true}, {0x0A, 0x0B});
  EXPECT_THAT(log.lines(),
              ElementsAre("spi1 cs0 mode 0 15 bit 1600000 Hz: 0012 -> 7fff",
                          "spi1 cs0 mode 3 lsb first 8 bit 500000 Hz: 0a 0b -> ff ff"));
  const auto transfer = log.transfers().at(0);
  EXPECT_EQ(transfer.bus, "spi1");
  EXPECT_EQ(transfer.format.speedHz, 1600000U);
  EXPECT_EQ(transfer.end - transfer.start, Time(9375));
  EXPECT_THAT(transfer.mosi, ElementsAre(0x12U));
}

TEST(WireLog, WritesWatchedNetsNotesAndViolationsInOrder) {
  BusRig rig;
  auto& hand = rig.board.add<Hand>("hand");
  auto& other = rig.board.add<Hand>("other");
  Net& net = rig.board.connect(hand.p(), other.p());
  WireLog log(rig.board);
  log.watch(net, "latch");
  hand.high();
  shift(rig.bus, {.bitsPerWord = 4}, {0xF});
  other.low();
  EXPECT_EQ(log.text(),
            "latch high\n"
            "spi1 cs0 mode 0 4 bit 500000 Hz: f -> 0\n"
            "latch low\n"
            "violation: hand.P conflict: driven high by hand.P and low by other.P\n");
  log.clear();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(WireLog, StopsWithItsLife) {
  BusRig rig;
  {
    const WireLog log(rig.board);
    EXPECT_TRUE(rig.board.observed());
  }
  EXPECT_FALSE(rig.board.observed());
  shift(rig.bus, {}, {0});
}

}  // namespace
