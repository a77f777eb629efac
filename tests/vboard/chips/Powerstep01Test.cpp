// SPDX-License-Identifier: MIT
// Where the powerSTEP01 differs from its sister chip; the rest is in L6470Test.cpp.
#include "vboard/chips/Powerstep01.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/vboard/chips/StepperRig.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Powerstep01;
using vboard::StepperChip;

class Powerstep01Model : public testing::Test {
 protected:
  boardtest::StepperRig<Powerstep01> rig;
  Powerstep01& chip = rig.chip;

  uint32_t status() const { return chip.status(); }
};

TEST_F(Powerstep01Model, PowerUpShowsUndervoltageUntilTheStatusIsFetched) {
  EXPECT_THAT(rig.send({0xD0, 0, 0}), ElementsAre(0x00, 0xE4, 0x03));
  EXPECT_THAT(rig.send({0xD0, 0, 0}), ElementsAre(0x00, 0xE6, 0x03));
  EXPECT_THAT(rig.send({0x3B, 0, 0}), ElementsAre(0x00, 0xE6, 0x03));
}

TEST_F(Powerstep01Model, TheAdcAlarmTooCanBeLatchedAtPowerUp) {
  chip.setAdcAlarmAtPowerUp(true);
  rig.board.powerUp();
  EXPECT_EQ(rig.clearStatus(), 0xE003U);
  EXPECT_EQ(rig.clearStatus(), 0xE603U);
}

TEST_F(Powerstep01Model, ALowAnalogInputComesBackAsAnAlarm) {
  chip.setAdcInput(1.15);
  EXPECT_EQ(rig.clearStatus(), 0xE003U);
  EXPECT_EQ(rig.clearStatus(), 0xE203U);
  EXPECT_TRUE(rig.flagPin());
  rig.send({0x17, 0xEF});
  EXPECT_FALSE(rig.flagPin()) << "masked";
  chip.setAdcInput(1.17);
  EXPECT_EQ(rig.clearStatus(), 0xE203U);
  EXPECT_EQ(rig.clearStatus(), 0xE603U);
}

TEST_F(Powerstep01Model, RegistersReadAsAfterAReset) {
  EXPECT_THAT(rig.send({0x3A, 0, 0}), ElementsAre(0x00, 0x2C, 0x88));
  EXPECT_THAT(rig.send({0x38, 0, 0}), ElementsAre(0x00, 0x00, 0x00));
  EXPECT_THAT(rig.send({0x39, 0}), ElementsAre(0x00, 0x00));
  const uint32_t expected[] = {0,    0,    0,    0,     0x8A, 0x8A, 0x41, 0,     0x29,
                               0x29, 0x29, 0x29, 0x408, 0x19, 0x29, 0x29, 0,     0x1F,
                               8,    0x10, 0x27, 7,     0xFF, 0,    0,    0x2C88};
  for (uint8_t address = 1; address <= 0x1A; ++address) {
    EXPECT_EQ(chip.registerValue(address), expected[address - 1]) << int{address};
  }
}

TEST_F(Powerstep01Model, LengthsDifferFromItsSister) {
  rig.send({0x18, 0xFF, 0xFF});
  EXPECT_EQ(rig.get(0x18, 2), 0x0FFFU);
  rig.send({0x19, 0xA5});
  EXPECT_EQ(rig.get(0x19, 1), 0xA5U);
  rig.send({0x13, 0xFF});
  EXPECT_EQ(rig.get(0x13, 1), 0x1FU);
  rig.send({0x15, 0xFF, 0xFF});
  EXPECT_EQ(rig.get(0x15, 2), 0x7FFU);
}

TEST_F(Powerstep01Model, ResetDeviceIsRefusedWhileTheBridgesAreOn) {
  rig.clearStatus();
  rig.send({0x09, 0x55});
  rig.send({0xB8, 0xC0});
  EXPECT_EQ(status(), 0xE682U);
  EXPECT_EQ(chip.registerValue(0x09), 0x55U);
  EXPECT_THAT(rig.rules(), ElementsAre("command-refused"));
  rig.send({0xA8, 0xC0});
  EXPECT_EQ(status(), 0xE403U);
  EXPECT_EQ(chip.registerValue(0x09), 0x29U);
}

TEST_F(Powerstep01Model, OneFlagTellsOfWrongAndRefusedCommands) {
  rig.clearStatus();
  rig.send({0xFF});
  EXPECT_EQ(rig.clearStatus(), 0xE683U);
  rig.send({0xB8, 0x16, 0x00});
  EXPECT_EQ(rig.clearStatus(), 0xE682U);
}

TEST_F(Powerstep01Model, HeatIsAFieldOfTwoBits) {
  rig.clearStatus();
  chip.setThermal(StepperChip::Thermal::Warning);
  EXPECT_EQ(status(), 0xEE03U);
  chip.setThermal(StepperChip::Thermal::BridgeShutdown);
  EXPECT_EQ(status(), 0xF603U);
  chip.setThermal(StepperChip::Thermal::DeviceShutdown);
  EXPECT_EQ(status(), 0xFE03U);
  chip.setThermal(StepperChip::Thermal::Normal);
  EXPECT_EQ(rig.clearStatus(), 0xFE03U);
  EXPECT_EQ(status(), 0xE603U);
}

TEST_F(Powerstep01Model, StallAndOverCurrentHaveTheirOwnBits) {
  rig.clearStatus();
  rig.motor.setBlocked(true);
  rig.send({0x41, 0x00, 0x64, 0x00});
  rig.wait(milliseconds(300));
  EXPECT_EQ(status() & 0xE000U, 0x2000U);
  chip.setOverCurrent(true);
  EXPECT_EQ(status() & 0xE001U, 0x0001U);
}

TEST_F(Powerstep01Model, StepClockModeHasItsOwnBit) {
  rig.clearStatus();
  rig.send({0x59});
  EXPECT_EQ(status(), 0xE712U);
}

TEST_F(Powerstep01Model, InCurrentModeStallsGoUnnoticed) {
  rig.clearStatus();
  rig.send({0x16, 0x0C});
  rig.motor.setBlocked(true);
  rig.send({0x41, 0x00, 0x10, 0x00});
  rig.wait(milliseconds(300));
  EXPECT_EQ(status() & 0xE000U, 0xE000U);
}

TEST_F(Powerstep01Model, InCurrentModeTheFinestStepIsASixteenth) {
  rig.send({0x16, 0x0F});
  rig.send({0x41, 0x00, 0x00, 0x20});
  rig.wait(seconds(1));
  EXPECT_DOUBLE_EQ(rig.motor.position(), 2);
}

TEST_F(Powerstep01Model, TheElectricalPositionIsWritableAtStandstill) {
  rig.send({0xB8, 0x02, 0x00, 0x80});
  EXPECT_THAT(rig.rules(), IsEmpty());
  EXPECT_EQ(rig.get(0x02, 2), 0x80U);
  EXPECT_DOUBLE_EQ(rig.motor.position(), 1) << "the shaft goes along";
}

TEST_F(Powerstep01Model, TheElectricalPositionCanNeedTheBridgesOff) {
  chip.setElPosNeedsHighZ(true);
  rig.send({0xB8, 0x02, 0x00, 0x80});
  EXPECT_THAT(rig.rules(), ElementsAre("write-refused"));
  EXPECT_EQ(rig.get(0x02, 2), 0U);
}

}  // namespace
