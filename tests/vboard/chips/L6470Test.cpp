// SPDX-License-Identifier: MIT
// The L6470's own registers and status, and what it shares with its sister chip.
#include "vboard/chips/L6470.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/vboard/chips/StepperRig.h"

namespace {

using boardtest::rulesOf;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::L6470;
using vboard::StepperChip;

class L6470Model : public testing::Test {
 protected:
  boardtest::StepperRig<L6470> rig;
  L6470& chip = rig.chip;

  uint32_t status() const { return chip.status(); }
};

// Interface.

TEST_F(L6470Model, PowerUpShowsUndervoltageUntilTheStatusIsFetched) {
  EXPECT_TRUE(rig.flagPin());
  EXPECT_THAT(rig.send({0xD0, 0, 0}), ElementsAre(0x00, 0x7C, 0x03));
  EXPECT_FALSE(rig.flagPin());
  EXPECT_THAT(rig.send({0xD0, 0, 0}), ElementsAre(0x00, 0x7E, 0x03));
}

TEST_F(L6470Model, ReadingTheStatusRegisterClearsNothing) {
  EXPECT_THAT(rig.send({0x39, 0, 0}), ElementsAre(0x00, 0x7C, 0x03));
  EXPECT_THAT(rig.send({0x39, 0, 0}), ElementsAre(0x00, 0x7C, 0x03));
}

TEST_F(L6470Model, RegistersReadAsAfterAReset) {
  EXPECT_THAT(rig.send({0x38, 0, 0}), ElementsAre(0x00, 0x2E, 0x88));
  EXPECT_THAT(rig.send({0x36, 0}), ElementsAre(0x00, 0x07));
  EXPECT_THAT(rig.send({0x21, 0, 0, 0}), ElementsAre(0x00, 0x00, 0x00, 0x00));
  const uint32_t expected[] = {0,    0,    0,    0,    0x8A,  0x8A, 0x41, 0,
                               0x29, 0x29, 0x29, 0x29, 0x408, 0x19, 0x29, 0x29,
                               0,    0x1F, 8,    0x40, 0x27,  7,    0xFF, 0x2E88};
  for (uint8_t address = 1; address <= 0x18; ++address) {
    EXPECT_EQ(chip.registerValue(address), expected[address - 1]) << int{address};
  }
}

TEST_F(L6470Model, AnswersFollowInTheNextSelects) {
  EXPECT_THAT(rig.send({0x07, 0x01, 0x00}), ElementsAre(0, 0, 0));
  EXPECT_THAT(rig.send({0x27, 0x00, 0x00}), ElementsAre(0x00, 0x01, 0x00));
}

TEST_F(L6470Model, UnusedUpperBitsAreIgnored) {
  rig.send({0x07, 0xFF, 0xFF});
  EXPECT_EQ(rig.get(0x07, 2), 0x03FFU);
  rig.send({0x11, 0xFF});
  EXPECT_EQ(rig.get(0x11, 1), 0x0FU);
}

TEST_F(L6470Model, TheAnswerIsWhatWasTrueAtTheCommand) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(milliseconds(500));
  const uint32_t before = chip.registerValue(0x01);
  rig.send({0x21});
  rig.wait(milliseconds(100));
  const auto answer = rig.send({0, 0, 0});
  EXPECT_NEAR((answer[0] << 16U) | (answer[1] << 8U) | answer[2], before, 2);
}

TEST_F(L6470Model, ACommandWithAnAnswerEndsTheOneBefore) {
  EXPECT_THAT(rig.send({0x38, 0x36, 0x00, 0x00}), ElementsAre(0x00, 0x2E, 0x07, 0x00));
}

TEST_F(L6470Model, ACommandWithoutAnswerLeavesTheOneBefore) {
  EXPECT_THAT(rig.send({0x38, 0xD8, 0x00}), ElementsAre(0x00, 0x2E, 0x88));
}

TEST_F(L6470Model, ABrokenOffCommandTakesTheNextBytesAsArguments) {
  rig.send({0x07});
  rig.wait(seconds(1));
  rig.send({0x01, 0x23});
  EXPECT_EQ(rig.get(0x07, 2), 0x0123U);
}

TEST_F(L6470Model, SeveralBytesInOneSelectLoseAllButTheLast) {
  EXPECT_THAT(rig.frame({0x38, 0x36}), ElementsAre(0x00, 0x38)) << "the register shifts through";
  EXPECT_THAT(rig.rules(), ElementsAre("frame-length"));
  EXPECT_THAT(rig.send({0x00}), ElementsAre(0x07));
}

TEST_F(L6470Model, TooFewClocksAreNoByte) {
  rig.format.bitsPerWord = 7;
  rig.frame({0x40});
  EXPECT_THAT(rig.rules(), ElementsAre("frame-length"));
  EXPECT_EQ(chip.commands(), 0U);
}

TEST_F(L6470Model, TheWrongModeShiftsTheBits) {
  rig.format.mode = 0;
  const auto answer = rig.send({0x38, 0x00, 0x00});
  EXPECT_THAT(rig.rules(), testing::Contains("spi-mode"));
  EXPECT_THAT(answer, testing::Not(ElementsAre(0x00, 0x2E, 0x88)));
}

TEST_F(L6470Model, TooFastAClockIsNoticed) {
  rig.format.speedHz = 5000001;
  rig.send({0x00});
  EXPECT_THAT(rig.rules(), ElementsAre("clock-too-fast"));
}

TEST_F(L6470Model, BytesTooCloseTogetherAreNoticed) {
  const std::lock_guard guard(rig.board.mutex());
  std::vector<uint32_t> answer(1);
  const std::vector<uint32_t> byte{0};
  rig.spi.setIdle(3);
  for (const int gap : {1000, 799, 800}) {
    rig.board.clock().advance(std::chrono::nanoseconds(gap));
    rig.spi.driveSelect(0, vboard::Level::Low);
    rig.board.clock().advance(microseconds(1));
    rig.spi.transfer(0, rig.format, byte, answer);
    rig.spi.driveSelect(0, vboard::Level::High);
  }
  EXPECT_THAT(rig.rules(), ElementsAre("select-high-too-short"));
}

TEST_F(L6470Model, TheFirstClockTooSoonAfterTheSelectIsNoticed) {
  const std::lock_guard guard(rig.board.mutex());
  std::vector<uint32_t> answer(1);
  const std::vector<uint32_t> byte{0};
  rig.spi.setIdle(3);
  rig.board.clock().advance(microseconds(5));
  rig.spi.driveSelect(0, vboard::Level::Low);
  rig.format.speedHz = 5000000;
  rig.spi.transfer(0, rig.format, byte, answer);
  rig.spi.driveSelect(0, vboard::Level::High);
  EXPECT_THAT(rig.rules(), ElementsAre("select-setup-too-short"));
}

TEST_F(L6470Model, UnknownCommandsAreIgnoredAndFlagged) {
  rig.clearStatus();
  for (const uint32_t byte : {0xFFU, 0x52U, 0x3AU, 0x1BU, 0x20U, 0xEBU}) {
    rig.board.clearViolations();
    rig.send({byte});
    EXPECT_EQ(status(), 0x7F03U) << byte;
    EXPECT_TRUE(rig.flagPin());
    EXPECT_THAT(rig.rules(), ElementsAre("unknown-command")) << byte;
    EXPECT_EQ(rig.clearStatus(), 0x7F03U);
    EXPECT_EQ(status(), 0x7E03U);
  }
}

TEST_F(L6470Model, WritesToAReadOnlyRegisterTurnTheirDataIntoCommands) {
  rig.clearStatus();
  rig.send({0x04, 0xB8, 0x00, 0x00});
  EXPECT_EQ(status(), 0x7F02U) << "wrong command, and the data byte B8 was a HardStop";
}

TEST_F(L6470Model, WritesToAReadOnlyRegisterCanBeJustRefused) {
  chip.setReadOnlyWrite(StepperChip::ReadOnlyWrite::NotPerformed);
  rig.clearStatus();
  rig.send({0x04, 0xB8, 0x00, 0x00});
  EXPECT_EQ(status(), 0x7E83U);
  EXPECT_THAT(rig.rules(), ElementsAre("write-refused"));
}

TEST_F(L6470Model, AlarmsPullTheFlagOnlyWhenTheyAreEnabled) {
  rig.clearStatus();
  rig.send({0x17, 0x7F, 0xFF});
  EXPECT_EQ(status(), 0x7F03U);
  EXPECT_FALSE(rig.flagPin());
}

// Chains.

TEST(L6470Chain, EachChipGetsItsByteOfALongerSelect) {
  vboard::Board board;
  auto& spi = board.addSpiBus({.number = 1});
  auto& first = board.add<L6470>("first");
  auto& second = board.add<L6470>("second");
  board.connect(spi.sclk(), first.pin("CK"));
  board.connect(spi.sclk(), second.pin("CK"));
  board.connect(spi.mosi(), first.pin("SDI"));
  board.connect(first.pin("SDO"), second.pin("SDI"));
  board.connect(second.pin("SDO"), spi.miso());
  board.connect(spi.select(0), first.pin("CS"));
  board.connect(spi.select(0), second.pin("CS"));
  board.powerUp();
  const vboard::SpiFormat format{.mode = 3, .bitsPerWord = 8, .speedHz = 1000000};
  const auto frame = [&](std::vector<uint32_t> bytes) {
    const std::lock_guard guard(board.mutex());
    std::vector<uint32_t> answers(bytes.size());
    board.clock().advance(microseconds(10));
    spi.setIdle(3);
    spi.driveSelect(0, vboard::Level::Low);
    board.clock().advance(microseconds(1));
    spi.transfer(0, format, bytes, answers);
    spi.driveSelect(0, vboard::Level::High);
    return answers;
  };
  // The byte sent first ends up in the last chip.
  frame({0x11, 0x09});
  frame({0x05, 0x77});
  EXPECT_EQ(second.registerValue(0x11), 0x05U);
  EXPECT_EQ(first.registerValue(0x09), 0x77U);
  frame({0x31, 0x29});
  EXPECT_THAT(frame({0, 0}), ElementsAre(0x05, 0x77));
  EXPECT_THAT(rulesOf(board), IsEmpty());
  frame({0x00});
  EXPECT_THAT(rulesOf(board), ElementsAre("first frame-length", "second frame-length"));
}

// Motion.

TEST_F(L6470Model, RunIsBusyUntilItsSpeedIsReached) {
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});  // 400.0 steps/s
  EXPECT_TRUE(rig.busyPin());
  EXPECT_EQ(status(), 0x7E30U) << "accelerating forward, busy, bridges on";
  rig.wait(milliseconds(150));
  EXPECT_NEAR(chip.speed(), 0.15 * 2008.16, 2);
  rig.wait(milliseconds(60));
  EXPECT_FALSE(rig.busyPin());
  EXPECT_EQ(status(), 0x7E72U) << "constant speed";
  EXPECT_EQ(rig.get(0x04, 3), 0x0068DCU);
  EXPECT_THAT(rig.rules(), IsEmpty());
}

TEST_F(L6470Model, SpeedsAreLimitedByTheSpeedRegisters) {
  rig.send({0x07, 0x00, 0x10});        // MAX_SPEED 244.1 steps/s
  rig.send({0x08, 0x01, 0xA3});        // MIN_SPEED 99.9 steps/s
  rig.send({0x51, 0x0F, 0xFF, 0xFF});  // 15625 steps/s asked
  EXPECT_NEAR(chip.speed(), 0x1A3 * 0.238419, 1) << "starts there";
  rig.wait(seconds(2));
  EXPECT_NEAR(chip.speed(), 16 * 15.2588, 0.01);
  rig.send({0x51, 0x00, 0x00, 0x01});
  rig.wait(seconds(2));
  EXPECT_NEAR(chip.speed(), 0x1A3 * 0.238419, 0.01);
}

TEST_F(L6470Model, LowSpeedOptimisationStartsFromNothing) {
  rig.send({0x08, 0x11, 0xA3});
  rig.send({0x51, 0x00, 0x68, 0xDC});
  EXPECT_LT(chip.speed(), 1);
}

TEST_F(L6470Model, RunTheOtherWayTurnsRound) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0x50, 0x00, 0x68, 0xDC});
  EXPECT_EQ(status() & 0x0070U, 0x0050U) << "slowing down, still forward";
  rig.wait(milliseconds(300));
  EXPECT_EQ(status() & 0x0070U, 0x0020U) << "accelerating in reverse";
  rig.wait(seconds(1));
  EXPECT_EQ(status() & 0x0072U, 0x0062U);
}

TEST_F(L6470Model, MoveCountsMicrostepsAndTheSpeedFullSteps) {
  rig.send({0x41, 0x00, 0x64, 0x00});  // 25600 microsteps: 200 steps
  rig.wait(milliseconds(100));
  EXPECT_NEAR(chip.speed(), 200.8, 1);
  EXPECT_NEAR(chip.position(), 128 * 2008.16 * 0.1 * 0.1 / 2, 30);
  rig.wait(seconds(2));
  EXPECT_EQ(chip.position(), 25600);
  EXPECT_EQ(rig.get(0x01, 3), 25600U);
  EXPECT_DOUBLE_EQ(rig.motor.position(), 200);
  EXPECT_DOUBLE_EQ(rig.motor.angle(), 0);
  EXPECT_EQ(rig.clearStatus(), 0x7C12U);
  EXPECT_FALSE(rig.busyPin());
}

TEST_F(L6470Model, MoveInReverseCountsDown) {
  rig.send({0x40, 0x00, 0x01, 0x01});
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), -257);
  EXPECT_EQ(rig.get(0x01, 3), 0x3FFEFFU);
  EXPECT_EQ(status() & 0x0010U, 0U);
}

TEST_F(L6470Model, MoveByNothingIsOverAtOnce) {
  rig.send({0x41, 0x00, 0x00, 0x00});
  EXPECT_FALSE(chip.busy());
  EXPECT_FALSE(chip.highZ()) << "but the bridges are on";
}

TEST_F(L6470Model, MoveWhileTurningIsRefused) {
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0x40, 0x00, 0x00, 0x10});
  EXPECT_EQ(status(), 0x7EF2U);
  EXPECT_THAT(rig.rules(), ElementsAre("command-refused"));
  EXPECT_NEAR(chip.speed(), 400, 0.1);
}

TEST_F(L6470Model, GoToTakesTheShorterWay) {
  rig.send({0x60, 0x3F, 0xFF, 0x00});  // -256
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), -256);
  EXPECT_DOUBLE_EQ(rig.motor.position(), -2);
  rig.send({0x60, 0x00, 0x01, 0x00});
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), 256);
  EXPECT_DOUBLE_EQ(rig.motor.position(), 2);
}

TEST_F(L6470Model, PositionsWrapAround) {
  rig.send({0x01, 0x1F, 0xFF, 0xF0});
  EXPECT_EQ(chip.position(), 2097136);
  rig.send({0x60, 0x20, 0x00, 0x10});  // 32 microsteps on
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), -2097136);
  EXPECT_DOUBLE_EQ(rig.motor.position(), 32.0 / 128);
}

TEST_F(L6470Model, GoToInADirectionMayGoTheLongWay) {
  rig.send({0x16, 0x00});        // full steps, or it takes half an hour
  rig.send({0x07, 0x03, 0xFF});  // 15610 steps/s
  rig.send({0x05, 0x0F, 0xFE});
  rig.send({0x06, 0x0F, 0xFE});
  rig.send({0x69, 0x3F, 0xFF, 0xFF});  // forward to -1
  rig.wait(seconds(10));
  EXPECT_GT(chip.position(), 100000);
  rig.wait(seconds(300));
  EXPECT_EQ(chip.position(), -1);
  EXPECT_FALSE(chip.busy());
  rig.send({0x68, 0x3F, 0xFF, 0xFE});  // one more in reverse
  rig.wait(milliseconds(100));
  EXPECT_EQ(chip.position(), -2);
}

TEST_F(L6470Model, GoToWhileBusyIsRefused) {
  rig.clearStatus();
  rig.send({0x41, 0x00, 0x64, 0x00});
  for (const std::vector<uint32_t>& bytes :
       {std::vector<uint32_t>{0x60, 0, 0, 1}, {0x69, 0, 0, 1}, {0x70}, {0x78}}) {
    rig.board.clearViolations();
    rig.send(bytes);
    EXPECT_THAT(rig.rules(), ElementsAre("command-refused")) << bytes[0];
    EXPECT_NE(rig.clearStatus() & 0x0080U, 0U);
  }
  rig.wait(seconds(2));
  EXPECT_EQ(chip.position(), 25600);
}

TEST_F(L6470Model, GoToFromASteadyRunIsFine) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0x60, 0x00, 0x00, 0x00});
  rig.wait(seconds(3));
  EXPECT_EQ(chip.position(), 0);
  EXPECT_THAT(rig.rules(), IsEmpty());
}

TEST_F(L6470Model, HomeAndMarkAreAPositionEach) {
  rig.send({0x03, 0x00, 0x02, 0x00});
  rig.send({0x78});
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), 512);
  rig.send({0x70});
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), 0);
}

TEST_F(L6470Model, ResetPosMakesAnyPlaceZeroEvenWhileTurning) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  EXPECT_GT(chip.position(), 30000);
  rig.send({0xD8});
  EXPECT_NEAR(chip.position(), 0, 2);
}

TEST_F(L6470Model, SoftStopRampsDownAndKeepsTheBridgesOn) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0xB0});
  EXPECT_TRUE(chip.busy());
  EXPECT_EQ(status() & 0x0060U, 0x0040U);
  rig.wait(milliseconds(210));
  EXPECT_FALSE(chip.busy());
  EXPECT_EQ(status() & 0x0063U, 0x0002U);
}

TEST_F(L6470Model, HardStopAndHardHighZActAtOnce) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0xB8});
  EXPECT_EQ(status() & 0x0063U, 0x0002U);
  rig.send({0xA8});
  EXPECT_EQ(status() & 0x0063U, 0x0003U);
}

TEST_F(L6470Model, SoftHighZRampsDownFirst) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0xA0});
  EXPECT_FALSE(chip.highZ());
  rig.wait(milliseconds(210));
  EXPECT_TRUE(chip.highZ());
  rig.send({0xB0});
  EXPECT_FALSE(chip.highZ()) << "a stop switches the bridges on";
  rig.send({0xA0});
  EXPECT_TRUE(chip.highZ()) << "at standstill at once";
}

TEST_F(L6470Model, RegistersOfTheRampsCantBeWrittenWhileTurning) {
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  for (const std::vector<uint32_t>& bytes : {std::vector<uint32_t>{0x01, 0, 0, 1},
                                             {0x05, 0, 1},
                                             {0x06, 0, 1},
                                             {0x08, 0, 1},
                                             {0x17, 1}}) {
    rig.board.clearViolations();
    const uint32_t before = chip.registerValue(static_cast<uint8_t>(bytes[0]));
    rig.send(bytes);
    EXPECT_THAT(rig.rules(), ElementsAre("write-refused")) << bytes[0];
    if (bytes[0] != 1) {
      EXPECT_EQ(chip.registerValue(static_cast<uint8_t>(bytes[0])), before);
    }
    EXPECT_NE(rig.clearStatus() & 0x0080U, 0U);
  }
}

TEST_F(L6470Model, SomeRegistersNeedTheBridgesOff) {
  rig.clearStatus();
  rig.send({0xB8});
  rig.send({0x16, 0x00});
  EXPECT_EQ(chip.registerValue(0x16), 7U);
  EXPECT_EQ(status(), 0x7E82U);
  rig.send({0xA8, 0x16, 0x00});
  EXPECT_EQ(chip.registerValue(0x16), 0U);
}

TEST_F(L6470Model, TheHighestSpeedMayChangeWhileTurning) {
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0x07, 0x00, 0x08});  // 122 steps/s
  rig.wait(seconds(1));
  EXPECT_NEAR(chip.speed(), 8 * 15.2588, 0.01);
}

TEST_F(L6470Model, InfiniteAccelerationHasNoRamps) {
  rig.send({0x05, 0x0F, 0xFF});
  rig.send({0x51, 0x00, 0x68, 0xDC});
  EXPECT_NEAR(chip.speed(), 400, 0.1);
  EXPECT_FALSE(chip.busy());
}

TEST_F(L6470Model, FullStepsCountOnePerStep) {
  rig.send({0x16, 0x00});
  rig.send({0x41, 0x00, 0x00, 0x03});
  rig.wait(seconds(1));
  EXPECT_EQ(chip.position(), 3);
  EXPECT_EQ(rig.get(0x02, 2), 3U * 128) << "EL_POS: step 3, microstep 0";
  EXPECT_DOUBLE_EQ(rig.motor.position(), 3);
}

TEST_F(L6470Model, ChangingTheStepModeGoesBackToTheStepsBeginning) {
  rig.send({0x41, 0x00, 0x00, 0xC0});  // one and a half steps
  rig.wait(seconds(1));
  EXPECT_EQ(rig.get(0x02, 2), 192U);
  rig.send({0xA8, 0x16, 0x00});
  EXPECT_EQ(rig.get(0x02, 2), 128U);
  EXPECT_EQ(chip.position(), 192) << "the number is not rescaled";
}

TEST_F(L6470Model, StepClockStepsWithItsPin) {
  rig.clearStatus();
  rig.send({0x59});
  EXPECT_EQ(status(), 0xFE12U);
  for (int pulse = 0; pulse < 5; ++pulse) {
    rig.high(rig.stepClock);
    rig.low(rig.stepClock);
  }
  EXPECT_EQ(chip.position(), 5);
  rig.send({0x58});
  rig.high(rig.stepClock);
  EXPECT_EQ(chip.position(), 4);
  rig.send({0xB0});
  rig.low(rig.stepClock);
  rig.high(rig.stepClock);
  EXPECT_EQ(chip.position(), 4) << "a stop command leaves the mode";
  EXPECT_EQ(status() & 0x8000U, 0U);
}

TEST_F(L6470Model, StepClockNeedsAStandstill) {
  rig.send({0x51, 0x00, 0x68, 0xDC, 0x59});
  EXPECT_THAT(rig.rules(), ElementsAre("command-refused"));
  EXPECT_EQ(status() & 0x8000U, 0U);
}

// The switch.

TEST_F(L6470Model, AClosingSwitchStopsTheMotorHard) {
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.low(rig.limit);
  EXPECT_EQ(status(), 0x7E1EU);
  EXPECT_TRUE(rig.flagPin());
  rig.turn(rig.limit, vboard::Drive::Floating);
  EXPECT_EQ(status(), 0x7E1AU) << "the event stays until the status is fetched";
  rig.clearStatus();
  EXPECT_EQ(status(), 0x7E12U);
}

TEST_F(L6470Model, AClosingSwitchEndsTheHighImpedanceState) {
  rig.low(rig.limit);
  EXPECT_FALSE(chip.highZ());
}

TEST_F(L6470Model, ASwitchThatIsClosedAtPowerUpDoesSoToo) {
  rig.low(rig.limit);
  rig.send({0xC0});
  EXPECT_FALSE(chip.highZ());
  rig.send({0x16, 0x00});
  EXPECT_THAT(rig.rules(), ElementsAre("write-refused"));
}

TEST_F(L6470Model, InUserModeTheSwitchIsJustNoticed) {
  rig.send({0x18, 0x2E, 0x98});
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.low(rig.limit);
  EXPECT_NEAR(chip.speed(), 400, 0.1);
  EXPECT_EQ(status() & 0x000CU, 0x000CU);
}

TEST_F(L6470Model, GoUntilTakesTheSwitchAsHome) {
  rig.send({0x83, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  EXPECT_TRUE(chip.busy()) << "although the speed is reached";
  rig.low(rig.limit);
  EXPECT_FALSE(chip.busy());
  EXPECT_EQ(chip.position(), 0);
  EXPECT_EQ(status() & 0x0060U, 0U);
}

TEST_F(L6470Model, GoUntilCanMarkThePlaceAndStopSoftly) {
  rig.send({0x18, 0x2E, 0x98});
  rig.send({0x8A, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.low(rig.limit);
  const int32_t place = chip.position();
  EXPECT_LT(place, -30000);
  EXPECT_EQ(rig.get(0x03, 3), static_cast<uint32_t>(place) & 0x3FFFFFU);
  EXPECT_TRUE(chip.busy());
  rig.wait(seconds(1));
  EXPECT_LT(chip.position(), place);
  EXPECT_FALSE(chip.busy());
}

TEST_F(L6470Model, GoUntilWithAClosedSwitchKeepsRunning) {
  rig.send({0x18, 0x2E, 0x98});
  rig.low(rig.limit);
  rig.send({0x83, 0x00, 0x68, 0xDC});
  rig.wait(seconds(5));
  EXPECT_TRUE(chip.busy());
}

TEST_F(L6470Model, ReleaseSwitchLeavesTheSwitchSlowly) {
  rig.low(rig.limit);
  rig.send({0x92});
  EXPECT_TRUE(chip.busy());
  rig.wait(seconds(1));
  EXPECT_NEAR(chip.speed(), 5, 0.01) << "MIN_SPEED is below that";
  rig.turn(rig.limit, vboard::Drive::Floating);
  EXPECT_FALSE(chip.busy());
  EXPECT_EQ(chip.position(), 0);
  rig.board.clearViolations();
  rig.send({0x92});
  EXPECT_FALSE(chip.busy()) << "an open switch is released already";
}

// Alarms.

TEST_F(L6470Model, OverCurrentSwitchesOffUntilTheStatusIsFetched) {
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  chip.setOverCurrent(true);
  EXPECT_EQ(status(), 0x6E13U);
  EXPECT_TRUE(rig.flagPin());
  rig.send({0x51, 0x00, 0x68, 0xDC});
  EXPECT_THAT(rig.rules(), ElementsAre("command-refused"));
  EXPECT_TRUE(chip.highZ());
  EXPECT_EQ(rig.clearStatus(), 0x6E93U);
  EXPECT_EQ(status(), 0x7E13U) << "no current flows any more";
  rig.send({0xB8});
  EXPECT_EQ(status(), 0x6E13U) << "the short circuit is still there";
  chip.setOverCurrent(false);
  rig.clearStatus();
  rig.send({0xB8});
  EXPECT_EQ(status(), 0x7E12U);
}

TEST_F(L6470Model, OverCurrentCanBeJustReported) {
  rig.send({0x18, 0x2E, 0x08});
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});
  chip.setOverCurrent(true);
  EXPECT_EQ(status() & 0x1001U, 0U);
}

TEST_F(L6470Model, HeatWarnsThenSwitchesOff) {
  rig.clearStatus();
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  chip.setThermal(StepperChip::Thermal::Warning);
  EXPECT_EQ(status(), 0x7A72U);
  chip.setThermal(StepperChip::Thermal::BridgeShutdown);
  EXPECT_EQ(status(), 0x7213U);
  rig.clearStatus();
  EXPECT_EQ(status(), 0x7213U) << "still hot";
  chip.setThermal(StepperChip::Thermal::Normal);
  rig.clearStatus();
  EXPECT_EQ(status(), 0x7E13U);
}

TEST_F(L6470Model, ALowSupplySwitchesOff) {
  rig.clearStatus();
  rig.send({0xB8});
  chip.setSupply(7.9);
  EXPECT_EQ(status(), 0x7C03U);
  rig.clearStatus();
  EXPECT_EQ(status(), 0x7C03U);
  chip.setSupply(8);
  rig.clearStatus();
  EXPECT_EQ(status(), 0x7E03U);
}

TEST_F(L6470Model, TheAnalogInputIsMeasured) {
  chip.setAdcInput(1.65);
  EXPECT_EQ(rig.get(0x12, 1), 16U);
}

TEST_F(L6470Model, ABlockedMotorIsNoticedAfterTwoSteps) {
  rig.clearStatus();
  rig.motor.setBlocked(true);
  rig.send({0x41, 0x00, 0x00, 0x80});  // one step
  rig.wait(seconds(1));
  EXPECT_EQ(status(), 0x7E12U);
  rig.send({0x41, 0x00, 0x64, 0x00});
  rig.wait(milliseconds(500));
  EXPECT_EQ(status() & 0x6000U, 0U);
  EXPECT_TRUE(rig.flagPin());
  EXPECT_EQ(rig.clearStatus() & 0x6000U, 0U);
  EXPECT_EQ(status() & 0x6000U, 0U) << "it still turns against the block";
  rig.wait(seconds(2));
  EXPECT_EQ(chip.position(), 25728) << "the controller doesn't stop for it";
  EXPECT_DOUBLE_EQ(rig.motor.position(), 0);
  rig.clearStatus();
  EXPECT_EQ(status(), 0x7E12U);
}

// Reset and clock.

TEST_F(L6470Model, ResetDeviceGoesBackToThePowerUpState) {
  rig.clearStatus();
  rig.send({0x09, 0x55});
  rig.send({0x51, 0x00, 0x68, 0xDC});
  rig.wait(seconds(1));
  rig.send({0xC0});
  EXPECT_EQ(status(), 0x7C03U);
  EXPECT_EQ(chip.registerValue(0x09), 0x29U);
  EXPECT_EQ(chip.position(), 0);
  EXPECT_EQ(rig.get(0x02, 2), 0U);
}

TEST_F(L6470Model, ResetDeviceCanNeedTheBridgesOff) {
  chip.setResetNeedsHighZ(true);
  rig.clearStatus();
  rig.send({0xB8, 0xC0});
  EXPECT_EQ(status(), 0x7E82U);
}

TEST_F(L6470Model, StandbyResetsAndIsDeaf) {
  rig.clearStatus();
  rig.send({0x09, 0x55});
  rig.send({0xB8});
  rig.low(rig.standby);
  EXPECT_TRUE(chip.highZ());
  rig.send({0xB8});
  EXPECT_TRUE(chip.highZ());
  EXPECT_THAT(rig.rules(), ElementsAre("not-awake"));
  rig.high(rig.standby);
  rig.send({0xB8});
  EXPECT_THAT(rig.rules(), ElementsAre("not-awake", "not-awake"));
  rig.wait(microseconds(45));
  rig.send({0xB8});
  EXPECT_FALSE(chip.highZ());
  EXPECT_EQ(chip.registerValue(0x09), 0x29U);
}

TEST_F(L6470Model, AShortResetPulseIsNoticed) {
  rig.low(rig.standby);
  rig.wait(microseconds(9));
  rig.high(rig.standby);
  EXPECT_THAT(rig.rules(), ElementsAre("reset-too-short"));
}

TEST_F(L6470Model, AnExternalClockThatIsNotThereKillsTheChip) {
  rig.send({0x18, 0x2E, 0x84});
  EXPECT_THAT(rig.rules(), ElementsAre("no-oscillator"));
  EXPECT_THAT(rig.send({0x38, 0, 0}), ElementsAre(0, 0, 0));
  rig.low(rig.standby);
  rig.wait(microseconds(20));
  rig.high(rig.standby);
  rig.wait(microseconds(50));
  EXPECT_THAT(rig.send({0x38, 0, 0}), ElementsAre(0, 0x2E, 0x88));
}

TEST_F(L6470Model, AnExternalClockThatIsThereIsFine) {
  chip.setExternalClock(true);
  rig.send({0x18, 0x2E, 0x84});
  EXPECT_THAT(rig.send({0x38, 0, 0}), ElementsAre(0, 0x2E, 0x84));
}

TEST_F(L6470Model, PowerLossForgetsEverythingButTheShaft) {
  rig.send({0x16, 0x00, 0x41, 0x00, 0x00, 0x06});
  rig.wait(seconds(1));
  EXPECT_DOUBLE_EQ(rig.motor.position(), 6);
  chip.losePower();
  rig.wait(seconds(1));
  EXPECT_DOUBLE_EQ(rig.motor.position(), 6);
  chip.restorePower();
  EXPECT_EQ(status(), 0x7C03U);
  EXPECT_EQ(chip.position(), 0);
  EXPECT_DOUBLE_EQ(rig.motor.position(), 8) << "the field begins at the nearest whole cycle";
}

}  // namespace
