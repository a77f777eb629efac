// SPDX-License-Identifier: MIT
#include "vboard/chips/Hc595.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "vboard/vboard.h"

namespace {

using boardtest::Hand;
using boardtest::rulesOf;
using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Board;
using vboard::Hc595;
using vboard::PropertyValue;

/// One chip on a bus, with its latch in a hand.
struct Hc595Rig {
  Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  Hc595& chip = board.add<Hc595>("u1");
  Hand& latchHand = board.add<Hand>("latch");
  Hand& clear = board.add<Hand>("clear");
  Hand& disable = board.add<Hand>("disable");
  vboard::SpiFormat format{.mode = 0, .bitsPerWord = 8, .speedHz = 1000000};

  Hc595Rig() {
    board.attach(chip, spi);
    board.connect(latchHand.p(), chip.pin("RCLK"));
    board.connect(clear.p(), chip.pin("SRCLR"));
    board.connect(disable.p(), chip.pin("OE"));
    clear.high();
    disable.low();
    latchHand.low();
    board.powerUp();
    clear.high();
    disable.low();
    latchHand.low();
  }

  void send(std::vector<uint32_t> words) {
    const std::lock_guard guard(board.mutex());
    spi.transfer(0, format, words, {});
  }
  void latch() {
    const std::lock_guard guard(board.mutex());
    board.clock().advance(nanoseconds(1000));
    latchHand.high();
    latchHand.low();
  }
  std::string pins() const {
    std::string levels;
    for (const char* name : {"QH", "QG", "QF", "QE", "QD", "QC", "QB", "QA"}) {
      levels += chip.pin(name).high() ? '1' : '0';
    }
    return levels;
  }
};

TEST(Hc595Model, TheLastBitShiftedInStandsAtQA) {
  Hc595Rig rig;
  rig.send({0b11000001});
  rig.latch();
  EXPECT_EQ(rig.pins(), "11000001");
  EXPECT_EQ(rig.chip.outputs(), 0b11000001);
  EXPECT_THAT(rulesOf(rig.board), IsEmpty());
}

TEST(Hc595Model, OnlyARisingLatchMovesTheOutputs) {
  Hc595Rig rig;
  rig.send({0xFF});
  rig.latch();
  rig.send({0x12});
  EXPECT_EQ(rig.chip.outputs(), 0xFF);
  EXPECT_EQ(rig.chip.shiftRegister(), 0x12);
  rig.latchHand.high();
  EXPECT_EQ(rig.chip.outputs(), 0x12);
  rig.send({0x34});
  rig.latchHand.low();
  EXPECT_EQ(rig.chip.outputs(), 0x12);
}

TEST(Hc595Model, TakesBitsOnRisingEdgesInModesZeroAndThree) {
  for (const uint8_t mode : {uint8_t{0}, uint8_t{3}}) {
    Hc595Rig rig;
    rig.format.mode = mode;
    rig.send({0xA5, 0xA5});
    rig.latch();
    EXPECT_EQ(rig.chip.outputs(), 0xA5) << int{mode};
    EXPECT_THAT(rulesOf(rig.board), IsEmpty());
  }
}

TEST(Hc595Model, InModesOneAndTwoTheDataRacesTheClockAndModeOneComesABitTooLate) {
  for (const uint8_t mode : {uint8_t{1}, uint8_t{2}}) {
    Hc595Rig rig;
    rig.format.mode = mode;
    rig.send({0x00});
    rig.send({0xA5});
    rig.latch();
    EXPECT_EQ(rig.chip.outputs(), mode == 1 ? 0x52 : 0xA5) << int{mode};
    EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 data-hold"));
  }
}

TEST(Hc595Model, ClearingEmptiesTheShiftRegisterOnly) {
  Hc595Rig rig;
  rig.send({0x81});
  rig.latch();
  rig.clear.low();
  EXPECT_EQ(rig.chip.shiftRegister(), 0);
  EXPECT_EQ(rig.chip.outputs(), 0x81);
  rig.send({0xFF});
  EXPECT_EQ(rig.chip.shiftRegister(), 0) << "held while SRCLR is low";
  rig.latch();
  EXPECT_EQ(rig.chip.outputs(), 0);
  rig.clear.high();
  rig.send({0x0F});
  rig.latch();
  EXPECT_EQ(rig.chip.outputs(), 0x0F);
}

TEST(Hc595Model, DisablingLetsGoOfTheOutputsAndOfNothingElse) {
  Hc595Rig rig;
  rig.send({0xFF});
  rig.latch();
  rig.disable.high();
  EXPECT_EQ(rig.chip.pin("QA").driven(), vboard::Drive::Floating);
  EXPECT_EQ(rig.chip.pin("QH'").driven(), vboard::Drive::High);
  rig.send({0x00});
  rig.latch();
  EXPECT_EQ(rig.chip.pin("QA").driven(), vboard::Drive::Floating);
  rig.disable.low();
  EXPECT_EQ(rig.pins(), "00000000");
}

TEST(Hc595Model, TheCascadeGivesTheOldContentsMsbFirst) {
  Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  Hc595& chip = board.add<Hc595>("u1");
  board.attach(chip, spi);
  board.connect(chip.pin("QH'"), spi.miso());
  board.powerUp();
  const vboard::SpiFormat format{.mode = 0, .bitsPerWord = 8, .speedHz = 1000000};
  const std::vector<uint32_t> out = {0xC5, 0x00};
  std::vector<uint32_t> in(2);
  const std::lock_guard guard(board.mutex());
  spi.transfer(0, format, out, in);
  EXPECT_EQ(in[1], 0xC5U);
}

TEST(Hc595Model, ThreeInARowKeepTheLastTwentyFourBits) {
  Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  Hand& latch = board.add<Hand>("latch");
  std::vector<Hc595*> chips;
  for (size_t i = 0; i < 3; ++i) {
    chips.push_back(&board.add<Hc595>("u" + std::to_string(i)));
    board.connect(chips.back()->clockPin(), spi.sclk());
    board.connect(chips.back()->pin("SER"), i == 0 ? spi.mosi() : chips[i - 1]->pin("QH'"));
    board.connect(chips.back()->pin("RCLK"), latch.p());
  }
  board.powerUp();
  latch.low();
  const vboard::SpiFormat format{.mode = 0, .bitsPerWord = 8, .speedHz = 1000000};
  const std::vector<uint32_t> words = {0x99, 0x33, 0x22, 0x11};
  const std::lock_guard guard(board.mutex());
  spi.transfer(0, format, words, {});
  board.clock().advance(nanoseconds(1000));
  latch.high();
  EXPECT_EQ(chips[0]->outputs(), 0x11);
  EXPECT_EQ(chips[1]->outputs(), 0x22);
  EXPECT_EQ(chips[2]->outputs(), 0x33);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST(Hc595Model, ComesUpWithNoiseAndComplainsWhenItIsLatched) {
  Hc595Rig rig;
  rig.format.bitsPerWord = 7;
  rig.send({0});
  rig.latch();
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 latched-poison"));
  rig.format.bitsPerWord = 1;
  rig.send({0});
  rig.latch();
  EXPECT_EQ(rig.board.violationCount(), 1U) << "the eighth bit makes it whole";
}

TEST(Hc595Model, NoiseDiffersFromChipToChipUnlessZerosAreAskedFor) {
  Board board;
  std::vector<Hc595*> chips;
  for (int i = 0; i < 8; ++i) {
    chips.push_back(&board.add<Hc595>("u" + std::to_string(i)));
  }
  board.powerUp();
  int others = 0;
  for (const Hc595* chip : chips) {
    others += chip->outputs() != chips[0]->outputs() ? 1 : 0;
  }
  EXPECT_GT(others, 0);
  for (Hc595* chip : chips) {
    chip->setPoison(false);
  }
  board.powerUp();
  for (const Hc595* chip : chips) {
    EXPECT_EQ(chip->outputs(), 0);
  }
}

TEST(Hc595Model, LosingPowerForgetsEverything) {
  Hc595Rig rig;
  rig.send({0xFF});
  rig.latch();
  rig.chip.losePower();
  EXPECT_EQ(rig.chip.pin("QA").driven(), vboard::Drive::Floating);
  rig.chip.setPoison(false);
  rig.chip.restorePower();
  EXPECT_EQ(rig.chip.outputs(), 0);
  EXPECT_EQ(rig.chip.shiftRegister(), 0);
}

TEST(Hc595Model, AClockAboveItsLimitIsReportedWhenItsBitsAreLatched) {
  Hc595Rig rig;
  rig.format.speedHz = 20000000;
  rig.send({0x55});
  EXPECT_THAT(rulesOf(rig.board), IsEmpty()) << "somebody else's traffic, for all it knows";
  rig.latch();
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 clock-too-fast"));
  rig.board.clearViolations();
  rig.chip.setSupply(4.5);
  rig.send({0x55});
  rig.latch();
  EXPECT_THAT(rulesOf(rig.board), IsEmpty());
}

TEST(Hc595Model, ALatchTooSoonAfterTheClockIsReported) {
  Hc595Rig rig;
  rig.send({0x00});
  const std::lock_guard guard(rig.board.mutex());
  rig.spi.sclk().drive(vboard::Drive::High);
  rig.board.clock().advance(nanoseconds(5));
  rig.latchHand.high();
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 latch-setup"));
}

TEST(Hc595Model, WithBothClocksTiedTogetherTheOutputsLagByOne) {
  Board board;
  Hc595& chip = board.add<Hc595>("u1");
  Hand& clock = board.add<Hand>("clock");
  Hand& data = board.add<Hand>("data");
  chip.setPoison(false);
  board.connect(chip.pin("SRCLK"), clock.p());
  board.connect(chip.pin("RCLK"), clock.p());
  board.connect(chip.pin("SER"), data.p());
  board.powerUp();
  const std::lock_guard guard(board.mutex());
  std::vector<int> seen;
  for (const bool bit : {true, true, false}) {
    bit ? data.high() : data.low();
    board.clock().advance(nanoseconds(1000));
    clock.high();
    seen.push_back(chip.outputs());
    board.clock().advance(nanoseconds(1000));
    clock.low();
  }
  EXPECT_THAT(seen, ElementsAre(0, 1, 3));
}

TEST(Hc595Model, HasItsKnobsAndMetersAsProperties) {
  Hc595Rig rig;
  rig.send({0x5A});
  rig.latch();
  const auto property = [&rig](const std::string& name) -> vboard::Property& {
    for (vboard::Property& each : rig.chip.properties()) {
      if (each.name == name) {
        return each;
      }
    }
    throw std::logic_error(name);
  };
  EXPECT_EQ(property("outputs").get(), PropertyValue(std::string("0x5a")));
  EXPECT_EQ(property("latches").get(), PropertyValue(int64_t{1}));
  EXPECT_FALSE(property("outputs").set);
  EXPECT_EQ(property("vcc").set(PropertyValue(5.0)), std::nullopt);
  EXPECT_EQ(property("vcc").get(), PropertyValue(5.0));
  EXPECT_EQ(property("vcc").set(PropertyValue(7.0)), "must be a number from 2 to 6");
  EXPECT_EQ(property("poison").get(), PropertyValue(true));
  EXPECT_EQ(property("poison").set(PropertyValue(false)), std::nullopt);
  EXPECT_EQ(property("poison").get(), PropertyValue(false));
  EXPECT_EQ(property("poison").set(PropertyValue(1.0)), "must be true or false");
}

}  // namespace
