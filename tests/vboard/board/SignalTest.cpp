// SPDX-License-Identifier: MIT
#include "vboard/board/Signal.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using vboard::Signal;
using vboard::Time;

TEST(Signal, ANumberIsTheSameAlways) {
  const Signal signal = 2.137;
  EXPECT_EQ(signal.evaluate(Time(0)), 2.137);
  EXPECT_EQ(signal.evaluate(milliseconds(5000)), 2.137);
}

TEST(Signal, ARampHoldsBeforeAndAfter) {
  const Signal signal(
      Signal::Ramp{.from = 1, .to = 3, .over = milliseconds(100), .start = milliseconds(50)});
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(0)), 1);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(50)), 1);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(75)), 1.5);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(150)), 3);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(900)), 3);
}

TEST(Signal, ARepeatingRampIsASawtooth) {
  const Signal signal(Signal::Ramp{.from = 0, .to = 10, .over = milliseconds(100), .repeat = true});
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(90)), 9);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(100)), 0);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(130)), 3);
}

TEST(Signal, ARampOverNoTimeIsAStep) {
  const Signal signal(Signal::Ramp{.from = 1, .to = 2, .start = milliseconds(10)});
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(9)), 1);
  EXPECT_DOUBLE_EQ(signal.evaluate(milliseconds(10)), 2);
}

TEST(Signal, ASineHasOffsetAmplitudeFrequencyAndPhase) {
  const Signal signal(Signal::Sine{.offset = 2.5, .amplitude = 2, .frequencyHz = 50});
  EXPECT_NEAR(signal.evaluate(milliseconds(0)), 2.5, 1e-9);
  EXPECT_NEAR(signal.evaluate(milliseconds(5)), 4.5, 1e-9);
  EXPECT_NEAR(signal.evaluate(milliseconds(15)), 0.5, 1e-9);
  const Signal shifted(Signal::Sine{.amplitude = 1, .frequencyHz = 50, .phase = 0.25});
  EXPECT_NEAR(shifted.evaluate(milliseconds(0)), 1, 1e-9);
}

TEST(Signal, StepsHoldEachValueUntilTheNext) {
  const Signal signal(Signal::Steps{
      .points = {{milliseconds(10), 1.0}, {milliseconds(20), 2.0}, {milliseconds(30), 3.0}}});
  EXPECT_EQ(signal.evaluate(milliseconds(0)), 1);
  EXPECT_EQ(signal.evaluate(milliseconds(19)), 1);
  EXPECT_EQ(signal.evaluate(milliseconds(20)), 2);
  EXPECT_EQ(signal.evaluate(milliseconds(1000)), 3);
}

TEST(Signal, StepsCanRepeat) {
  const Signal signal(Signal::Steps{.points = {{milliseconds(0), 1.0}, {milliseconds(10), 2.0}},
                                    .repeatEvery = milliseconds(20)});
  EXPECT_EQ(signal.evaluate(milliseconds(15)), 2);
  EXPECT_EQ(signal.evaluate(milliseconds(20)), 1);
  EXPECT_EQ(signal.evaluate(milliseconds(35)), 2);
}

TEST(Signal, StepsWithoutPointsAreZero) {
  EXPECT_EQ(Signal(Signal::Steps{}).evaluate(milliseconds(1)), 0);
}

}  // namespace
