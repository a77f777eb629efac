// SPDX-License-Identifier: MIT
#include "vboard/chips/StepperMotion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using vboard::StepperMotion;
using vboard::Time;
using Phase = vboard::StepperMotion::Phase;

// 1000/s up, 500/s down, from 10/s to at most 210/s.
constexpr StepperMotion::Profile kProfile{1000, 500, 10, 210};

Time endOf(const StepperMotion& motion, Time from = Time{0}) {
  Time end = from;
  while (const auto next = motion.nextChange(end)) {
    end = *next;
  }
  return end;
}

TEST(StepperMotion, RunStartsAtTheMinimumSpeedAndRampsUp) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 110);
  EXPECT_DOUBLE_EQ(motion.at(Time{0}).speed, 10);
  EXPECT_EQ(motion.at(Time{0}).phase, Phase::Accelerating);
  EXPECT_TRUE(motion.at(Time{0}).busy);
  EXPECT_DOUBLE_EQ(motion.at(milliseconds(50)).speed, 60);
  EXPECT_DOUBLE_EQ(motion.at(milliseconds(50)).position, 10 * 0.05 + 1000 * 0.05 * 0.05 / 2);
  EXPECT_EQ(motion.nextChange(Time{0}), milliseconds(100));
  EXPECT_EQ(motion.at(milliseconds(100)).phase, Phase::Constant);
  EXPECT_FALSE(motion.at(milliseconds(100)).busy);
  EXPECT_DOUBLE_EQ(motion.at(milliseconds(1100)).position, 6 + 110);
  EXPECT_FALSE(motion.nextChange(milliseconds(100)));
}

TEST(StepperMotion, RunTheOtherWayStopsInBetween) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 110);
  motion.run(seconds(1), kProfile, -1, 60);
  const double turningPoint = motion.at(milliseconds(1200)).position;
  EXPECT_EQ(motion.at(milliseconds(1100)).direction, 1);
  EXPECT_EQ(motion.at(milliseconds(1100)).phase, Phase::Decelerating);
  EXPECT_DOUBLE_EQ(motion.at(milliseconds(1100)).speed, 60);
  EXPECT_EQ(motion.at(milliseconds(1201)).direction, -1);
  EXPECT_EQ(motion.at(milliseconds(1201)).phase, Phase::Accelerating);
  EXPECT_LT(motion.at(milliseconds(1230)).position, turningPoint);
  EXPECT_DOUBLE_EQ(motion.at(seconds(3)).speed, 60);
}

TEST(StepperMotion, RunSlowerSlowsDown) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 110);
  motion.run(seconds(1), kProfile, 1, 60);
  EXPECT_EQ(motion.at(seconds(1)).phase, Phase::Decelerating);
  EXPECT_EQ(motion.nextChange(seconds(1)), milliseconds(1100));
  EXPECT_DOUBLE_EQ(motion.at(seconds(2)).speed, 60);
}

// 22 up and 44 down at the ramps of 200 either way: (210² - 10²) / 2000 = 22, / 1000 = 44.
TEST(StepperMotion, LongMovesHaveAStretchAtFullSpeed) {
  StepperMotion motion;
  motion.moveTo(Time{0}, kProfile, 276);
  EXPECT_NEAR(motion.at(milliseconds(200)).position, 22, 1e-6);
  EXPECT_EQ(motion.at(milliseconds(201)).phase, Phase::Constant);
  EXPECT_NEAR(motion.at(milliseconds(1200)).position, 232, 1e-6);
  EXPECT_EQ(motion.at(milliseconds(1201)).phase, Phase::Decelerating);
  EXPECT_EQ(endOf(motion), milliseconds(1600));
  EXPECT_EQ(motion.at(milliseconds(1600)).position, 276);
  EXPECT_EQ(motion.at(milliseconds(1600)).phase, Phase::Stopped);
  EXPECT_FALSE(motion.at(milliseconds(1600)).busy);
}

TEST(StepperMotion, ShortMovesNeverGetToFullSpeed) {
  StepperMotion motion;
  motion.moveTo(Time{0}, kProfile, -9);
  double fastest = 0;
  const Time end = endOf(motion);
  for (Time t{0}; t < end; t += milliseconds(1)) {
    fastest = std::max(fastest, motion.at(t).speed);
  }
  // (v² - 100) / 2000 + (v² - 100) / 1000 = 9
  EXPECT_NEAR(fastest, std::sqrt(6100), 1);
  EXPECT_LT(fastest, 80);
  EXPECT_EQ(motion.at(end).position, -9);
  EXPECT_EQ(motion.at(end - nanoseconds(1)).direction, -1);
}

TEST(StepperMotion, EveryDistanceIsReachedToTheStep) {
  for (int distance = -40; distance <= 40; ++distance) {
    StepperMotion motion;
    motion.moveTo(Time{0}, kProfile, distance);
    const Time end = endOf(motion);
    EXPECT_EQ(motion.at(end).position, distance);
    EXPECT_NEAR(motion.at(end - nanoseconds(1)).position, distance, 1e-3) << distance;
  }
}

TEST(StepperMotion, MovesFromARunGoOnInItsDirection) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 110);
  motion.moveTo(seconds(1), kProfile, 300);
  EXPECT_DOUBLE_EQ(motion.at(seconds(1)).speed, 110);
  EXPECT_EQ(motion.at(seconds(1)).phase, Phase::Accelerating);
  EXPECT_EQ(motion.at(endOf(motion, seconds(1))).position, 300);
}

TEST(StepperMotion, AMotorThatCantStopInTimeComesBack) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 110);
  const double here = motion.at(seconds(1)).position;
  motion.moveTo(seconds(1), kProfile, std::round(here) + 5);
  EXPECT_EQ(motion.at(seconds(1)).phase, Phase::Decelerating);
  EXPECT_GT(motion.at(milliseconds(1200)).position, here + 5);
  const Time end = endOf(motion, seconds(1));
  EXPECT_EQ(motion.at(end - milliseconds(1)).direction, -1);
  EXPECT_EQ(motion.at(end).position, std::round(here) + 5);
}

TEST(StepperMotion, WithoutRampsSpeedsChangeAtOnce) {
  constexpr double kAtOnce = std::numeric_limits<double>::infinity();
  StepperMotion motion;
  motion.moveTo(Time{0}, {kAtOnce, kAtOnce, 10, 200}, 100);
  EXPECT_DOUBLE_EQ(motion.at(Time{0}).speed, 200);
  EXPECT_EQ(motion.at(milliseconds(1)).phase, Phase::Constant);
  EXPECT_EQ(endOf(motion), milliseconds(500));
  EXPECT_EQ(motion.at(milliseconds(500)).position, 100);
}

TEST(StepperMotion, SoftStopEndsOnAWholeMicrostep) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 110);
  motion.softStop(milliseconds(777), kProfile);
  EXPECT_TRUE(motion.at(milliseconds(777)).busy);
  const Time end = endOf(motion, milliseconds(777));
  EXPECT_EQ(end, milliseconds(977));
  const double position = motion.at(end).position;
  EXPECT_EQ(position, std::round(position));
  EXPECT_EQ(motion.at(end).speed, 0);
  EXPECT_FALSE(motion.at(end).busy);
}

TEST(StepperMotion, HardStopEndsAtOnce) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, -1, 110);
  motion.hardStop(milliseconds(777));
  const StepperMotion::State state = motion.at(milliseconds(777));
  EXPECT_EQ(state.phase, Phase::Stopped);
  EXPECT_EQ(state.position, std::round(state.position));
  EXPECT_LT(state.position, -70);
  EXPECT_FALSE(motion.nextChange(milliseconds(777)));
}

TEST(StepperMotion, TellsWhenAPositionIsReached) {
  StepperMotion motion;
  motion.moveTo(Time{0}, kProfile, 276);
  for (const double place : {0.5, 21.0, 100.0, 240.0, 275.5}) {
    const auto moment = motion.whenAt(Time{0}, place);
    ASSERT_TRUE(moment) << place;
    EXPECT_NEAR(motion.at(*moment).position, place, 1e-6);
  }
  EXPECT_FALSE(motion.whenAt(Time{0}, -1));
  EXPECT_FALSE(motion.whenAt(Time{0}, 277));
  EXPECT_FALSE(motion.whenAt(milliseconds(300), 20)) << "it was there before";
}

TEST(StepperMotion, AFasterMotorThanAllowedSlowsDownFirst) {
  StepperMotion motion;
  motion.run(Time{0}, kProfile, 1, 210);
  StepperMotion::Profile slower = kProfile;
  slower.maxSpeed = 110;
  motion.moveTo(seconds(1), slower, 1000);
  EXPECT_EQ(motion.at(seconds(1)).phase, Phase::Decelerating);
  EXPECT_DOUBLE_EQ(motion.at(milliseconds(1300)).speed, 110);
  EXPECT_EQ(motion.at(endOf(motion, seconds(1))).position, 1000);
}

}  // namespace
