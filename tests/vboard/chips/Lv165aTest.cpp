// SPDX-License-Identifier: MIT
#include "vboard/chips/Lv165a.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "vboard/vboard.h"

namespace {

using boardtest::Hand;
using boardtest::rulesOf;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Board;
using vboard::Lv165a;
using vboard::PropertyValue;

/// One chip on a bus; load, inhibit and serial input in hands.
struct Lv165aRig {
  Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  Lv165a& chip = board.add<Lv165a>("u1");
  Hand& load = board.add<Hand>("load");
  Hand& inhibit = board.add<Hand>("inhibit");
  Hand& serial = board.add<Hand>("serial");
  vboard::SpiFormat format{.mode = 0, .bitsPerWord = 8, .speedHz = 1000000};

  Lv165aRig() {
    board.attach(chip, spi);
    board.connect(load.p(), chip.pin("SH/LD"));
    board.connect(inhibit.p(), chip.pin("CLK INH"));
    board.connect(serial.p(), chip.pin("SER"));
    board.powerUp();
    load.high();
    inhibit.low();
    serial.low();
  }

  void pulse() {
    load.low();
    load.high();
  }
  uint32_t read() {
    const std::lock_guard guard(board.mutex());
    const std::vector<uint32_t> out = {0};
    std::vector<uint32_t> in(1);
    spi.transfer(0, format, out, in);
    return in[0];
  }
};

TEST(Lv165aModel, GivesInputHFirst) {
  Lv165aRig rig;
  rig.chip.setInputs(0b11000101);
  rig.pulse();
  EXPECT_EQ(rig.read(), 0b11000101U);
  EXPECT_EQ(rig.chip.loads(), 1U);
  EXPECT_THAT(rulesOf(rig.board), IsEmpty());
}

TEST(Lv165aModel, ModesZeroTwoAndThreeReadAllBitsAndModeOneLosesH) {
  for (const uint8_t mode : {uint8_t{0}, uint8_t{1}, uint8_t{2}, uint8_t{3}}) {
    Lv165aRig rig;
    rig.format.mode = mode;
    rig.spi.setIdle(mode);
    rig.serial.high();
    rig.chip.setInputs(0xA4);
    rig.pulse();
    EXPECT_EQ(rig.read(), mode == 1 ? 0x49U : 0xA4U) << int{mode};
  }
}

TEST(Lv165aModel, FollowsItsInputsWhileLoadIsLowAndFreezesThemWhenItRises) {
  Lv165aRig rig;
  rig.load.low();
  rig.chip.setInputs(0x80);
  EXPECT_TRUE(rig.chip.pin("QH").high());
  EXPECT_FALSE(rig.chip.pin("QH_N").high());
  rig.chip.setInputs(0x7F);
  EXPECT_FALSE(rig.chip.pin("QH").high());
  EXPECT_TRUE(rig.chip.pin("QH_N").high());
  rig.load.high();
  rig.chip.setInputs(0xFF);
  EXPECT_EQ(rig.chip.shiftRegister(), 0x7F);
  EXPECT_EQ(rig.read(), 0x7FU);
}

TEST(Lv165aModel, ClocksWhileLoadingShiftNothingAndAreReportedOnce) {
  Lv165aRig rig;
  rig.load.low();
  rig.chip.setInputs(0xA5);
  EXPECT_EQ(rig.read(), 0xFFU);
  EXPECT_EQ(rig.read(), 0xFFU);
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 clock-while-loading"));
  rig.chip.setInputs(0x5A);
  EXPECT_EQ(rig.read(), 0x00U);
}

TEST(Lv165aModel, AfterEightClocksTheSerialInputFollows) {
  Lv165aRig rig;
  rig.chip.setInputs(0x00);
  rig.pulse();
  rig.serial.high();
  EXPECT_EQ(rig.read(), 0x00U);
  EXPECT_EQ(rig.read(), 0xFFU);
}

TEST(Lv165aModel, AShortFrameGoesOnWhereItStopped) {
  Lv165aRig rig;
  rig.chip.setInputs(0xC5);
  rig.pulse();
  rig.format.bitsPerWord = 4;
  EXPECT_EQ(rig.read(), 0xCU);
  EXPECT_EQ(rig.read(), 0x5U);
}

TEST(Lv165aModel, AnInhibitedClockIsNotSeen) {
  Lv165aRig rig;
  rig.chip.setInputs(0x81);
  rig.spi.setIdle(2);
  rig.inhibit.high();
  rig.pulse();
  rig.format.mode = 3;
  rig.read();
  EXPECT_EQ(rig.chip.shiftRegister(), 0x81);
  EXPECT_THAT(rulesOf(rig.board), IsEmpty());
  rig.inhibit.low();
  EXPECT_EQ(rig.read(), 0x81U);
}

TEST(Lv165aModel, InhibitingWhileTheClockIsLowShiftsAndIsReported) {
  Lv165aRig rig;
  rig.chip.setInputs(0x81);
  rig.pulse();
  rig.inhibit.high();
  EXPECT_EQ(rig.chip.shiftRegister(), 0x02);
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 inhibit-while-clock-low"));
}

TEST(Lv165aModel, NeverLetsGoOfMiso) {
  Lv165aRig rig;
  Hand& other = rig.board.add<Hand>("other");
  rig.board.connect(other.p(), rig.spi.miso());
  rig.chip.setInputs(0xFF);
  rig.pulse();
  other.low();
  EXPECT_EQ(rig.board.violationCount(), 1U) << "two outputs against each other";
}

TEST(Lv165aModel, TwoInARowComeOutTheNearOneFirst) {
  Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  Hand& load = board.add<Hand>("load");
  Lv165a& near = board.add<Lv165a>("near");
  Lv165a& far = board.add<Lv165a>("far");
  board.attach(near, spi);
  board.connect(far.clockPin(), spi.sclk());
  board.connect(far.pin("QH"), near.pin("SER"));
  board.connect(load.p(), near.pin("SH/LD"));
  board.connect(load.p(), far.pin("SH/LD"));
  board.powerUp();
  near.setInputs(0x12);
  far.setInputs(0x34);
  load.low();
  load.high();
  const std::lock_guard guard(board.mutex());
  const std::vector<uint32_t> out = {0, 0};
  std::vector<uint32_t> in(2);
  spi.transfer(0, {.mode = 0, .bitsPerWord = 8, .speedHz = 1000000}, out, in);
  EXPECT_THAT(in, ElementsAre(0x12U, 0x34U));
}

TEST(Lv165aModel, AConnectedInputFollowsItsWire) {
  Lv165aRig rig;
  Hand& input = rig.board.add<Hand>("input");
  rig.board.connect(input.p(), rig.chip.pin("A"));
  rig.chip.setInputs(0x80);
  rig.load.low();
  input.high();
  EXPECT_EQ(rig.chip.shiftRegister(), 0x81);
  input.low();
  EXPECT_EQ(rig.chip.shiftRegister(), 0x80);
  EXPECT_EQ(rig.chip.inputs(), 0x80);
}

TEST(Lv165aModel, WarnsAboveTwentyFiveMegahertz) {
  Lv165aRig rig;
  rig.format.speedHz = 25000000;
  rig.read();
  EXPECT_THAT(rulesOf(rig.board), IsEmpty());
  rig.format.speedHz = 26000000;
  rig.read();
  EXPECT_THAT(rulesOf(rig.board), ElementsAre("u1 clock-too-fast"));
}

TEST(Lv165aModel, ComesUpWithNoise) {
  Board board;
  std::vector<Lv165a*> chips;
  for (int i = 0; i < 8; ++i) {
    chips.push_back(&board.add<Lv165a>("u" + std::to_string(i)));
  }
  board.powerUp();
  int others = 0;
  for (const Lv165a* chip : chips) {
    others += chip->shiftRegister() != chips[0]->shiftRegister() ? 1 : 0;
  }
  EXPECT_GT(others, 0);
}

TEST(Lv165aModel, HasItsKnobsAndMetersAsProperties) {
  Lv165aRig rig;
  for (vboard::Property& property : rig.chip.properties()) {
    if (property.name == "inputs") {
      EXPECT_EQ(property.set(PropertyValue(int64_t{165})), std::nullopt);
      EXPECT_EQ(property.get(), PropertyValue(int64_t{165}));
      EXPECT_EQ(property.set(PropertyValue(int64_t{256})), "must be a number from 0 to 255");
    } else {
      EXPECT_EQ(property.name, "loads");
      rig.pulse();
      EXPECT_EQ(property.get(), PropertyValue(int64_t{1}));
    }
  }
  EXPECT_EQ(rig.chip.properties().size(), 2U);
}

}  // namespace
