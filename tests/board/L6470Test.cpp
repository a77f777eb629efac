// SPDX-License-Identifier: MIT
// The L6470 driver against the model of the chip: what works without register lengths, and what a
// register access does instead.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "tests/board/StepperBoard.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"

namespace {

namespace ST = Varnel::ST;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Varnel::CMotorDriver1ChnL6470;

constexpr uint8_t kForward = ST::DIRECTION_FORWARD;
constexpr uint8_t kReverse = ST::DIRECTION_REVERSE;

class L6470Board : public boardtest::StepperBoard<CMotorDriver1ChnL6470, vboard::L6470> {
 protected:
  uint16_t fetched() {
    EXPECT_EQ(driver.clearStatus(), 0);
    return driver.status().m_Data;
  }
};

TEST_F(L6470Board, TheStatusAfterPowerUpIsClearedByTheFirstFetch) {
  EXPECT_EQ(driver.status().m_Data, 0x7C03) << "undervoltage latched";
  EXPECT_EQ(fetched(), 0x7E03);
  EXPECT_FALSE(driver.status().isBusy());
  EXPECT_FALSE(driver.status().overCurrentDetected());
  EXPECT_FALSE(driver.status().stepLossDetected());
  EXPECT_FALSE(driver.status().commandError());
  EXPECT_EQ(driver.status().thermalStatus(), ST::THERMAL_STATUS_NORMAL);
}

TEST_F(L6470Board, AWholeMoveIsSeenThroughTheStatus) {
  ASSERT_EQ(driver.move(500 * 128, kForward), 0);
  std::vector<uint8_t> phases;
  while (fetched(), driver.status().isBusy()) {
    if (phases.empty() || phases.back() != driver.status().motionStatus()) {
      phases.push_back(driver.status().motionStatus());
    }
    wait(milliseconds(5));
  }
  EXPECT_THAT(phases, ElementsAre(0x20, 0x60, 0x40)) << "the bits in place";
  EXPECT_EQ(driver.status().motionStatus(), 0);
  EXPECT_EQ(chip.position(), 64000);
  EXPECT_DOUBLE_EQ(motor.position(), 500);
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(L6470Board, RunStopAndPositionsWork) {
  ASSERT_EQ(driver.run(400.0F, kReverse), 0);
  wait(milliseconds(500));
  EXPECT_NEAR(chip.speed(), 400, 0.02);
  ASSERT_EQ(driver.softStop(), 0);
  finish();
  ASSERT_EQ(driver.goTo(1280), 0);
  finish();
  EXPECT_EQ(chip.position(), 1280);
  ASSERT_EQ(driver.goToDirection(0, kReverse), 0);
  finish();
  EXPECT_EQ(chip.position(), 0);
  ASSERT_EQ(driver.move(256, kForward), 0);
  finish();
  ASSERT_EQ(driver.goHome(), 0);
  finish();
  EXPECT_EQ(chip.position(), 0);
  ASSERT_EQ(driver.softHiZ(), 0);
  EXPECT_TRUE(chip.highZ());
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(L6470Board, ResetWorksWithTheBridgesOn) {
  ASSERT_EQ(driver.hardStop(), 0);
  ASSERT_EQ(driver.resetDevice(), 0);
  EXPECT_EQ(fetched(), 0x7C03);
}

TEST_F(L6470Board, StallOverCurrentAndHeatShowInTheStatus) {
  motor.setBlocked(true);
  ASSERT_EQ(driver.run(400.0F, kForward), 0);
  wait(milliseconds(500));
  fetched();
  EXPECT_TRUE(driver.status().stepLossDetected());
  chip.setThermal(vboard::StepperChip::Thermal::Warning);
  fetched();
  EXPECT_EQ(driver.status().thermalStatus(), ST::THERMAL_STATUS_WARNING);
  chip.setThermal(vboard::StepperChip::Thermal::BridgeShutdown);
  fetched();
  EXPECT_EQ(driver.status().thermalStatus(), ST::THERMAL_STATUS_SHUTDOWN);
  chip.setThermal(vboard::StepperChip::Thermal::Normal);
  fetched();
  ASSERT_EQ(driver.run(400.0F, kForward), 0);
  chip.setOverCurrent(true);
  fetched();
  EXPECT_TRUE(driver.status().overCurrentDetected());
}

TEST_F(L6470Board, TheLimitSwitchStopsTheMotor) {
  motor.setLimitBelow(-30);
  ASSERT_EQ(driver.run(200.0F, kReverse), 0);
  wait(milliseconds(1000));
  EXPECT_DOUBLE_EQ(motor.position(), -30);
  EXPECT_EQ(fetched() & (ST::L6470::SW_F | ST::L6470::SW_EVN), ST::L6470::SW_F | ST::L6470::SW_EVN);
  EXPECT_EQ(fetched() & (ST::L6470::SW_F | ST::L6470::SW_EVN), ST::L6470::SW_F);
}

TEST_F(L6470Board, ARegisterReadFailsAndItsAnswerComesWithTheNextBytes) {
  uint32_t value = 0;
  EXPECT_EQ(driver.getParameter(ST::L6470::CONFIG, value), -EINVAL);
  EXPECT_EQ(driver.readStatus(), -EINVAL);
  EXPECT_EQ(driver.status().m_Data, 0x7C03) << "as it was";
  EXPECT_THAT(violations(), IsEmpty()) << "no harm: the next command is understood";
  ASSERT_EQ(driver.hardStop(), 0);
  EXPECT_FALSE(chip.highZ());
}

TEST_F(L6470Board, ARegisterWriteFailsAndSwallowsTheNextBytes) {
  EXPECT_EQ(driver.setMaximumVelocity(500.0F), -EINVAL);
  ASSERT_EQ(driver.hardStop(), 0);
  ASSERT_EQ(driver.hardStop(), 0);
  EXPECT_TRUE(chip.highZ()) << "both were taken as the register's bytes";
  EXPECT_EQ(chip.registerValue(ST::MAX_SPEED), 0xB8B8U & 0x3FFU);
  ASSERT_EQ(driver.hardStop(), 0);
  EXPECT_FALSE(chip.highZ());
}

TEST_F(L6470Board, TheFactorysDriverDrivesTheChip) {
  const std::unique_ptr<Varnel::CSTMicroSteppingMotorDriver> made(
      Varnel::CSTMicroSteppingMotorDriver::create("Varnel::CMotorDriver1ChnL6470"));
  made->setBus(&bus);
  made->setChipSelector(&select);
  ASSERT_EQ(made->move(1280, kForward), 0);
  finish();
  EXPECT_DOUBLE_EQ(motor.position(), 10);
}

}  // namespace
