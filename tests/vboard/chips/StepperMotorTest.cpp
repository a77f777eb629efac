// SPDX-License-Identifier: MIT
#include "vboard/chips/StepperMotor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/vboard/chips/StepperRig.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vboard::L6470;

class StepperMotorModel : public testing::Test {
 protected:
  boardtest::StepperRig<L6470> rig;
  vboard::StepperMotor& motor = rig.motor;

  void SetUp() override {
    rig.board.connect(motor.pin("LIMIT"), rig.chip.pin("SW"));
    rig.clearStatus();
    rig.send({0x16, 0x00});  // full steps
  }
  void move(uint32_t steps, bool forward) {
    rig.send({forward ? 0x41U : 0x40U, 0, steps >> 8U, steps & 0xFFU});
  }
};

TEST_F(StepperMotorModel, FollowsTheField) {
  move(50, true);
  rig.wait(seconds(2));
  EXPECT_DOUBLE_EQ(motor.position(), 50);
  EXPECT_DOUBLE_EQ(motor.angle(), 90);
  move(100, false);
  rig.wait(seconds(2));
  EXPECT_DOUBLE_EQ(motor.angle(), 270);
  EXPECT_DOUBLE_EQ(motor.lostSteps(), 0);
}

TEST_F(StepperMotorModel, StepsPerTurnScaleTheAngle) {
  motor.setStepsPerTurn(400);
  move(100, true);
  rig.wait(seconds(2));
  EXPECT_DOUBLE_EQ(motor.angle(), 90);
}

TEST_F(StepperMotorModel, TheLimitSwitchStopsTheMotorOnItsStep) {
  motor.setLimitBelow(-20);
  move(100, false);
  rig.wait(seconds(2));
  EXPECT_EQ(rig.chip.position(), -20);
  EXPECT_TRUE(motor.limitClosed());
  EXPECT_EQ(rig.chip.status(), 0x7E0EU);
}

TEST_F(StepperMotorModel, TheSwitchOpensOneStepBeyond) {
  motor.setLimitAbove(20);
  move(100, true);
  rig.wait(seconds(2));
  EXPECT_EQ(rig.chip.position(), 20);
  rig.send({0x92});  // ReleaseSW in reverse
  rig.wait(seconds(2));
  EXPECT_FALSE(motor.limitClosed());
  EXPECT_EQ(motor.position(), 19);
  EXPECT_EQ(rig.chip.position(), 0) << "the chip's new home";
  EXPECT_FALSE(rig.chip.busy());
}

TEST_F(StepperMotorModel, HomingFindsTheSwitchEveryTime) {
  motor.setLimitBelow(-33);
  for (int round = 0; round < 3; ++round) {
    rig.send({0x82, 0x00, 0x68, 0xDC});  // GoUntil in reverse at 400 steps/s
    rig.wait(seconds(2));
    EXPECT_FALSE(rig.chip.busy());
    EXPECT_EQ(rig.chip.position(), 0);
    EXPECT_EQ(motor.position(), -33);
    move(40, true);
    rig.wait(seconds(2));
    EXPECT_FALSE(motor.limitClosed());
  }
}

TEST_F(StepperMotorModel, ABlockedShaftStaysAndLosesWholeCycles) {
  move(5, true);
  rig.wait(seconds(1));
  motor.setBlocked(true);
  move(11, true);
  rig.wait(seconds(1));
  EXPECT_DOUBLE_EQ(motor.position(), 5);
  EXPECT_DOUBLE_EQ(motor.lostSteps(), 11);
  motor.setBlocked(false);
  EXPECT_DOUBLE_EQ(motor.position(), 4) << "16 is three cycles of four from there";
  EXPECT_DOUBLE_EQ(motor.lostSteps(), 12);
  EXPECT_EQ(rig.chip.position(), 16) << "which the controller can't know";
}

TEST_F(StepperMotorModel, AStallEndsWithTheBlock) {
  motor.setBlocked(true);
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  EXPECT_TRUE(motor.stalled());
  EXPECT_EQ(rig.clearStatus() & 0x6000U, 0U);
  motor.setBlocked(false);
  EXPECT_FALSE(motor.stalled());
  rig.clearStatus();
  EXPECT_EQ(rig.chip.status() & 0x6000U, 0x6000U);
}

TEST_F(StepperMotorModel, StepsOfTheStepClockStallToo) {
  motor.setBlocked(true);
  rig.send({0x59});
  for (int pulse = 0; pulse < 3; ++pulse) {
    rig.high(rig.stepClock);
    rig.low(rig.stepClock);
  }
  EXPECT_TRUE(motor.stalled());
}

TEST_F(StepperMotorModel, WithoutAControllerItStands) {
  vboard::Board board;
  auto& loose = board.add<vboard::StepperMotor>("loose");
  board.powerUp();
  board.advance(seconds(1));
  EXPECT_EQ(loose.position(), 0);
  EXPECT_FALSE(loose.limitClosed());
}

}  // namespace
