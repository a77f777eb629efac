// SPDX-License-Identifier: MIT
#include "vboard/chips/Encoder.h"

#include <gmock/gmock.h>

#include "tests/vboard/board/Parts.h"
#include "tests/vboard/chips/Properties.h"

namespace {

using namespace std::chrono_literals;
using boardtest::Ear;
using boardtest::propertyOf;
using boardtest::setValue;
using boardtest::valueOf;
using testing::ElementsAre;
using vboard::Board;
using vboard::Encoder;
using vboard::PropertyValue;
using vboard::Time;

struct EncoderTest : testing::Test {
  Board board;
  Encoder& encoder = board.add<Encoder>("encoder");
  void SetUp() override { board.powerUp(); }
  std::string levels() {
    std::string text;
    for (const char* pin : {"A", "B", "Z", "A_N", "B_N", "Z_N"}) {
      text += encoder.pin(pin).high() ? '1' : '0';
    }
    return text;
  }
};

TEST_F(EncoderTest, ForwardsALeadsBAndTheIndexCoversTheFirstLine) {
  std::vector<std::string> seen = {levels()};
  for (int i = 0; i < 5; ++i) {
    encoder.turn(1);
    seen.push_back(levels());
  }
  EXPECT_THAT(seen, ElementsAre("001110", "101010", "111000", "011100", "000111", "100011"));
}

TEST_F(EncoderTest, BackwardsBLeadsA) {
  std::vector<std::string> seen;
  for (int i = 0; i < 4; ++i) {
    encoder.turn(-1);
    seen.push_back(levels().substr(0, 3));
  }
  EXPECT_THAT(seen, ElementsAre("010", "110", "100", "000"));
  EXPECT_EQ(encoder.position(), -4);
}

TEST_F(EncoderTest, TheIndexComesOncePerTurn) {
  auto& ear = board.add<Ear>("ear");
  board.connect(encoder.pin("Z"), ear.p());
  board.powerUp();
  encoder.setLines(10);
  encoder.setIndexWidth(1);
  ear.heard.clear();
  encoder.turn(90);
  EXPECT_EQ(ear.heard, "01010") << "high only at 0, 40 and 80";
  EXPECT_DOUBLE_EQ(encoder.angle(), 90.0);
  encoder.turn(-100);
  EXPECT_DOUBLE_EQ(encoder.angle(), 270.0);
}

TEST_F(EncoderTest, TurningByHandTakesTheTimeThatIsAsked) {
  encoder.turn(100, 10us);
  EXPECT_EQ(board.now(), Time(1ms));
  EXPECT_EQ(encoder.position(), 100);
}

TEST_F(EncoderTest, TurnsAtASpeedOnTheBoardsClock) {
  auto& ear = board.add<Ear>("ear");
  board.connect(encoder.pin("A"), ear.p());
  board.powerUp();
  encoder.setSpeed(3000);
  board.advance(1ms);
  EXPECT_EQ(encoder.position(), 3);
  EXPECT_THAT(ear.times, ElementsAre(Time(333333), Time(1000000)));
  board.advance(1s);
  EXPECT_EQ(encoder.position(), 3003) << "roundings don't add up";
  encoder.setSpeed(-1000);
  board.advance(5ms);
  EXPECT_EQ(encoder.position(), 2998);
  encoder.setSpeed(0);
  board.advance(1s);
  EXPECT_EQ(encoder.position(), 2998);
}

TEST_F(EncoderTest, ASpeedSlowerThanTheClockCanTellStandsStill) {
  encoder.setSpeed(1e-10);
  board.advance(1h);
  EXPECT_EQ(encoder.position(), 0);
}

TEST_F(EncoderTest, TurningByHandStopsIt) {
  encoder.setSpeed(1000);
  encoder.turn(2);
  board.advance(10ms);
  EXPECT_EQ(encoder.position(), 2);
  EXPECT_EQ(encoder.speed(), 0.0);
}

TEST_F(EncoderTest, AJumpChangesAllOutputsAtOnce) {
  /// Hears one output and looks at another.
  struct Witness : vboard::Part {
    explicit Witness(std::string name)
        : Part("witness", std::move(name)),
          a(addInput("A", vboard::Level::Low)),
          b(addQuietInput("B", vboard::Level::Low)) {}
    void pinChanged(vboard::Pin& /*pin*/, vboard::Level /*level*/) override { seen = b.high(); }
    vboard::Pin& a;
    vboard::Pin& b;
    bool seen = false;
  };
  auto& witness = board.add<Witness>("witness");
  board.connect(encoder.pin("A"), witness.a);
  board.connect(encoder.pin("B"), witness.b);
  board.powerUp();
  encoder.jump(2);
  EXPECT_TRUE(witness.seen);
  EXPECT_EQ(board.now(), Time(0));
}

TEST_F(EncoderTest, TheShaftKeepsItsPlaceAndTurnsWithoutPower) {
  encoder.setSpeed(1000);
  board.advance(1500us);
  encoder.losePower();
  EXPECT_FALSE(encoder.pin("A").high());
  board.advance(1s);
  encoder.restorePower();
  EXPECT_EQ(encoder.position(), 1001);
  EXPECT_TRUE(encoder.pin("A").high());
}

TEST_F(EncoderTest, HasItsKnobsAndMetersAsProperties) {
  EXPECT_EQ(valueOf(encoder, "lines"), PropertyValue(1000.0));
  EXPECT_EQ(valueOf(encoder, "index_width"), PropertyValue(4.0));
  EXPECT_EQ(setValue(encoder, "lines", int64_t{100}), std::nullopt);
  EXPECT_EQ(setValue(encoder, "index_width", int64_t{1}), std::nullopt);
  EXPECT_EQ(setValue(encoder, "speed", -1000.0), std::nullopt);
  EXPECT_EQ(setValue(encoder, "lines", 0.0), "must be a number from 1 to 1e+06");
  board.advance(100ms);
  EXPECT_EQ(valueOf(encoder, "speed"), PropertyValue(-1000.0));
  EXPECT_EQ(valueOf(encoder, "position"), PropertyValue(int64_t{-100}));
  EXPECT_EQ(valueOf(encoder, "angle"), PropertyValue(270.0));
  EXPECT_FALSE(encoder.pin("Z").high());
  encoder.turn(-300);
  EXPECT_TRUE(encoder.pin("Z").high());
  EXPECT_TRUE(propertyOf(encoder, "position").reported);
  EXPECT_FALSE(propertyOf(encoder, "position").set);
}

}  // namespace
