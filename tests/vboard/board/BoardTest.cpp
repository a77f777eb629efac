// SPDX-License-Identifier: MIT
#include "vboard/board/Board.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

#include "Parts.h"
#include "vboard/board/WireLog.h"
#include "vboard/chips/Catalog.h"
#include "vboard/chips/Mcp3201.h"

namespace {

using boardtest::Ear;
using boardtest::Hand;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vboard::Board;
using vboard::Drive;
using vboard::Level;
using vboard::Pull;
using vboard::Time;

TEST(Board, FindsPartsAndPinsByName) {
  Board board;
  auto& bus = board.addSpiBus({.number = 4});
  auto& gpio = board.addGpioChip();
  auto& second = board.addGpioChip();
  EXPECT_EQ(bus.name(), "spi4");
  EXPECT_EQ(board.findPart("gpiochip0"), &gpio);
  EXPECT_EQ(board.findPart("gpiochip1"), &second);
  EXPECT_EQ(second.number(), 1);
  EXPECT_EQ(board.findPart("gpiochip2"), nullptr);
  EXPECT_EQ(board.findPin("gpiochip0.25"), &gpio.line(25));
  EXPECT_EQ(board.findPin("spi4.MISO"), &bus.miso());
  EXPECT_EQ(board.findPin("spi4.NONE"), nullptr);
  EXPECT_EQ(board.findPin("spi4"), nullptr);
  EXPECT_THAT(board.spiBuses(), ElementsAre(&bus));
  EXPECT_THAT(board.gpioChips(), ElementsAre(&gpio, &second));
}

TEST(Board, AMissingPinIsNamedWithItsPart) {
  Board board;
  auto& hand = board.add<Hand>("left");
  try {
    hand.pin("CS");
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "left (hand) has no pin \"CS\"");
  }
}

TEST(Board, KeepsTheFirstThousandViolationsAndCountsAll) {
  Board board;
  for (int i = 0; i < 1500; ++i) {
    board.violate({Time(i), "part", "rule", std::to_string(i)});
  }
  EXPECT_THAT(board.violations(), SizeIs(1000));
  EXPECT_EQ(board.violations().back().details, "999");
  EXPECT_EQ(board.violationCount(), 1500U);
  board.clearViolations();
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_EQ(board.violationCount(), 0U);
}

/// Counts its powers, drives high while it has any, and blinks after a while.
struct Powered : vboard::Part {
  explicit Powered(std::string name) : Part("powered", std::move(name)) {
    addOutput("OUT");
    addInput("IN", Level::Low);
  }
  void powerUp() override {
    ++ups;
    pin("OUT").drive(Drive::High);
    after(std::chrono::milliseconds(1), [this] { ++alarms; });
  }
  void powerLost() override { ++losses; }
  void pinChanged(vboard::Pin& /*pin*/, Level level) override {
    heard += level == Level::High ? '1' : '0';
  }
  int ups = 0;
  int losses = 0;
  int alarms = 0;
  std::string heard;
};

struct PowerRig : testing::Test {
  Board board;
  Powered& part = board.add<Powered>("part");
  Hand& hand = board.add<Hand>("hand");
  Ear& ear = board.add<Ear>("ear");
  void SetUp() override {
    board.connect(part.pin("OUT"), ear.p());
    board.connect(hand.p(), part.pin("IN"));
    board.powerUp();
  }
};

using PartPower = PowerRig;

TEST_F(PartPower, WithoutPowerAPartDrivesNothingAndHearsNothing) {
  ear.p().net()->setPull(Pull::Down);
  part.losePower();
  EXPECT_FALSE(part.powered());
  EXPECT_EQ(ear.p().level(), Level::Low);
  hand.high();
  part.pin("OUT").drive(Drive::High);
  EXPECT_EQ(ear.p().level(), Level::Low);
  EXPECT_EQ(part.heard, "");
  part.restorePower();
  EXPECT_EQ(ear.p().level(), Level::High);
  hand.low();
  EXPECT_EQ(part.heard, "0");
  EXPECT_EQ(part.ups, 2);
}

TEST_F(PartPower, WhatAPartScheduledDiesWithItsPower) {
  part.losePower();
  part.restorePower();
  board.advance(std::chrono::milliseconds(2));
  EXPECT_EQ(part.alarms, 1);
}

TEST_F(PartPower, LosingItTwiceIsLosingItOnce) {
  const int before = part.losses;
  part.losePower();
  part.losePower();
  part.restorePower();
  part.restorePower();
  EXPECT_EQ(part.losses, before + 1);
  EXPECT_EQ(part.ups, 2);
}

TEST_F(PartPower, APowerCycleOfTheBoardReachesEveryPartAndTheClockGoesOn) {
  board.advance(std::chrono::milliseconds(2));
  EXPECT_EQ(part.alarms, 1);
  hand.high();
  board.powerUp();
  EXPECT_EQ(part.ups, 2);
  EXPECT_EQ(ear.p().level(), Level::High);
  EXPECT_EQ(part.pin("IN").level(), Level::Low);  // nobody drives it any more
  EXPECT_EQ(board.now(), std::chrono::milliseconds(2));
}

TEST(GpioChip, LinesStartAsInputsAndKeepLevelWhenDriven) {
  Board board;
  auto& gpio = board.addGpioChip({.lines = 8});
  board.powerUp();
  EXPECT_EQ(gpio.lineCount(), 8);
  EXPECT_FALSE(gpio.isOutput(3));
  gpio.setOutput(3, Drive::High);
  EXPECT_TRUE(gpio.isOutput(3));
  EXPECT_EQ(gpio.level(3), Level::High);
  gpio.setInput(3);
  EXPECT_FALSE(gpio.isOutput(3));
  EXPECT_THROW(gpio.line(8), std::out_of_range);
}

TEST(GpioChip, ALineThatIsWiredNowhereFollowsItsBias) {
  Board board;
  auto& gpio = board.addGpioChip();
  gpio.setBias(2, Pull::Up);
  EXPECT_EQ(gpio.level(2), Level::High);
  gpio.setBias(2, Pull::Down);
  EXPECT_EQ(gpio.level(2), Level::Low);
}

TEST(GpioChip, AFloatingOutputLetsAnotherOneSpeak) {
  Board board;
  auto& gpio = board.addGpioChip();
  auto& hand = board.add<Hand>("hand");
  board.connect(gpio.line(0), hand.p()).setPull(Pull::Up);
  gpio.setOutput(0, Drive::Floating);
  EXPECT_TRUE(gpio.isOutput(0));
  EXPECT_EQ(gpio.level(0), Level::High);
  hand.low();
  EXPECT_EQ(gpio.level(0), Level::Low);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST(GpioChip, TellsItsEdgeListenerLineLevelAndTime) {
  Board board;
  auto& gpio = board.addGpioChip();
  auto& hand = board.add<Hand>("hand");
  board.connect(gpio.line(17), hand.p());
  std::vector<std::string> edges;
  gpio.setEdgeListener([&](int offset, Level level, Time time) {
    edges.push_back(std::to_string(offset) + (level == Level::High ? " high " : " low ") +
                    std::to_string(time.count()));
  });
  hand.high();
  board.advance(Time(50));
  hand.low();
  EXPECT_THAT(edges, ElementsAre("17 high 0", "17 low 50"));
  gpio.setEdgeListener(nullptr);
  hand.high();
  EXPECT_THAT(edges, SizeIs(2));
}

TEST(Catalog, MakesPartsByTypeAndRefusesOthers) {
  EXPECT_THAT(vboard::partTypes(),
              ElementsAre("AD5291", "AD5292", "ADS1248", "ADS1256", "AT25640B", "74HC138",
                          "encoder", "74HC595", "iC-MD", "L6470", "74LV165A", "MCP3201", "MCP4822",
                          "powerSTEP01", "stepper-motor", "TLC5947", "tri-state-buffer"));
  for (const std::string_view type : vboard::partTypes()) {
    const auto part = vboard::makePart(type, "some");
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->type(), type);
    EXPECT_EQ(part->name(), "some");
  }
  EXPECT_EQ(vboard::makePart("MCP9999", "some"), nullptr);
}

TEST(BoardThreads, TheBenchTurnsKnobsWhileTheBusIsBusy) {
  Board board;
  auto& bus = board.addSpiBus();
  auto& gpio = board.addGpioChip();
  auto& adc = board.add<vboard::Mcp3201>("adc");
  auto& ear = board.add<Ear>("ear");
  board.attach(adc, bus);
  board.connect(adc.pin("CS"), gpio.line(25));
  board.connect(gpio.line(3), ear.p());
  board.powerUp();
  gpio.setOutput(25, Drive::High);
  constexpr int kRounds = 2000;
  std::thread bench([&] {
    for (int i = 0; i < kRounds; ++i) {
      adc.setInput(i % 5);
      adc.setSupply(5.0);
      gpio.setOutput(3, i % 2 == 0 ? Drive::High : Drive::Low);
      board.netOf(ear.p()).setPull(i % 3 == 0 ? Pull::Up : Pull::None);
      EXPECT_LE(adc.lastCode(), 4095);
      EXPECT_GE(adc.conversions(), 0U);
      board.violations();
      board.now();
      if (i % 100 == 0) {
        const vboard::WireLog log(board);
        log.lines();
      }
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    const std::vector<uint32_t> words = {0};
    uint32_t received = 0;
    gpio.setOutput(25, Drive::Low);
    bus.transfer(0, {.bitsPerWord = 15, .speedHz = 1600000}, words, {&received, 1});
    gpio.setOutput(25, Drive::High);
    EXPECT_THAT(received & 0xFFFU, testing::AnyOf(0U, 819U, 1638U, 2457U, 3276U));  // 0 to 4 V
    board.advance(std::chrono::microseconds(10));
  }
  bench.join();
  EXPECT_EQ(adc.conversions(), uint64_t{kRounds});
  EXPECT_THAT(board.violations(), IsEmpty());
}

}  // namespace
