// SPDX-License-Identifier: MIT
// What the tool makes of a stepper controller's words, and the line it writes on a terminal.
#include <gmock/gmock.h>

#include "tests/tool/ToolRun.h"
#include "tool/chips/StepperMotion.h"
#include "tool/chips/StepperRegisters.h"
#include "tool/chips/StepperStatus.h"

using testing::HasSubstr;
using testing::IsEmpty;
using tool::alarmWords;
using tool::findRegister;
using tool::l6470Status;
using tool::meaningOf;
using tool::MotorState;
using tool::parseNumber;
using tool::positionOf;
using tool::powerstep01Status;
using tool::statusWords;

namespace {

TEST(StepperStatus, PowerUpOfBothChipsShowsTheUndervoltageOnly) {
  EXPECT_EQ(statusWords(powerstep01Status(0xE403)),
            "bridges off, not busy, standstill, reverse, switch open; "
            "alarms: undervoltage or reset");
  EXPECT_EQ(statusWords(l6470Status(0x7C03)),
            "bridges off, not busy, standstill, reverse, switch open; "
            "alarms: undervoltage or reset");
  EXPECT_EQ(powerstep01Status(0xE603).alarms, 0U);
  EXPECT_EQ(l6470Status(0x7E03).alarms, 0U);
}

TEST(StepperStatus, EveryFlagOfThePowerstep01HasItsWords) {
  // From 0xe602: bridges on, at rest, no alarm.
  constexpr uint16_t kRest = 0xE602;
  const auto alarms = [](uint16_t word) { return alarmWords(powerstep01Status(word).alarms); };
  EXPECT_EQ(alarms(kRest), "none");
  EXPECT_EQ(alarms(kRest ^ 0x8000), "stall at bridge B");
  EXPECT_EQ(alarms(kRest ^ 0x4000), "stall at bridge A");
  EXPECT_EQ(alarms(kRest ^ 0x2000), "over-current");
  EXPECT_EQ(alarms(kRest | 0x0800), "hot");
  EXPECT_EQ(alarms(kRest | 0x1000), "too hot, bridges shut down");
  EXPECT_EQ(alarms(kRest | 0x1800), "too hot, device shut down");
  EXPECT_EQ(alarms(kRest ^ 0x0400), "undervoltage at ADCIN");
  EXPECT_EQ(alarms(kRest ^ 0x0200), "undervoltage or reset");
  EXPECT_EQ(alarms(kRest | 0x0080), "command refused");
  EXPECT_EQ(alarms(kRest | 0x0008), "switch was closed");
  EXPECT_TRUE(powerstep01Status(kRest | 0x0100).stepClock);
  EXPECT_TRUE(powerstep01Status(kRest | 0x0010).forward);
  EXPECT_TRUE(powerstep01Status(kRest | 0x0004).switchClosed);
  EXPECT_TRUE(powerstep01Status(kRest ^ 0x0002).busy);
  EXPECT_TRUE(powerstep01Status(kRest | 0x0001).bridgesOff);
  EXPECT_EQ(powerstep01Status(kRest | 0x0020).state, MotorState::Accelerating);
  EXPECT_EQ(powerstep01Status(kRest | 0x0040).state, MotorState::Decelerating);
  EXPECT_EQ(powerstep01Status(kRest | 0x0060).state, MotorState::Constant);
}

TEST(StepperStatus, EveryFlagOfTheL6470HasItsWords) {
  constexpr uint16_t kRest = 0x7E02;
  const auto alarms = [](uint16_t word) { return alarmWords(l6470Status(word).alarms); };
  EXPECT_EQ(alarms(kRest), "none");
  EXPECT_EQ(alarms(kRest ^ 0x4000), "stall at bridge B");
  EXPECT_EQ(alarms(kRest ^ 0x2000), "stall at bridge A");
  EXPECT_EQ(alarms(kRest ^ 0x1000), "over-current");
  EXPECT_EQ(alarms(kRest ^ 0x0800), "too hot, bridges shut down");
  EXPECT_EQ(alarms(kRest ^ 0x0400), "hot");
  EXPECT_EQ(alarms(kRest ^ 0x0200), "undervoltage or reset");
  EXPECT_EQ(alarms(kRest | 0x0100), "unknown command");
  EXPECT_EQ(alarms(kRest | 0x0080), "command refused");
  EXPECT_EQ(alarms(kRest | 0x0008), "switch was closed");
  EXPECT_TRUE(l6470Status(kRest | 0x8000).stepClock);
  EXPECT_EQ(l6470Status(kRest | 0x0060).state, MotorState::Constant);
  EXPECT_FALSE(l6470Status(kRest | 0x0060).standsStill());
  EXPECT_FALSE(l6470Status(kRest ^ 0x0002).standsStill());
  EXPECT_TRUE(l6470Status(kRest).standsStill());
}

TEST(StepperStatus, OnlyAnAbsentChipHasAllFlagsHighOrLow) {
  EXPECT_FALSE(powerstep01Status(0x0000).answered());
  EXPECT_FALSE(powerstep01Status(0xFFFF).answered());
  EXPECT_TRUE(powerstep01Status(0xE603).answered());
}

TEST(StepperRegisters, AreFoundByNameInAnyCaseByAliasAndByAddress) {
  for (const char* text : {"ACC", "acc", "Acc", "5", "0x05", "0X5", "0b101"}) {
    ASSERT_NE(findRegister(text), nullptr) << text;
    EXPECT_EQ(findRegister(text)->name, "ACC");
  }
  EXPECT_EQ(findRegister("tval_hold"), findRegister("KVAL_HOLD"));
  EXPECT_EQ(findRegister("fs_spd"), findRegister("FS_SPEED"));
  EXPECT_EQ(findRegister("ton_min"), findRegister("T_ON_MIN"));
  EXPECT_EQ(findRegister("27")->name, "STATUS");
  for (const char* text : {"", "0", "28", "-5", "0x1c", "AC", "ACCE", "4294967301"}) {
    EXPECT_EQ(findRegister(text), nullptr) << text;
  }
}

TEST(StepperRegisters, AreInTheOrderOfTheirAddresses) {
  for (uint8_t address = 1; address <= 27; ++address) {
    EXPECT_EQ(tool::registerAt(address).address, address);
  }
}

TEST(StepperRegisters, SayWhatAValueMeans) {
  const auto meaning = [](const char* name, uint32_t value, bool currentMode = false) {
    return meaningOf(*findRegister(name), value, currentMode);
  };
  // The values after a reset, as the data sheet gives them.
  EXPECT_EQ(meaning("ACC", 0x08A), "2008.2 steps/s2");
  EXPECT_EQ(meaning("ACC", 0xFFF), "infinite: no ramps");
  EXPECT_EQ(meaning("DEC", 0xFFF), "59590.1 steps/s2");
  EXPECT_EQ(meaning("MAX_SPEED", 0x041), "991.8 steps/s");
  EXPECT_EQ(meaning("MIN_SPEED", 0x1064), "23.8 steps/s, low speed optimisation");
  EXPECT_EQ(meaning("FS_SPEED", 0x027), "602.7 steps/s");
  EXPECT_EQ(meaning("FS_SPEED", 0x7FF), "never, boost");
  EXPECT_EQ(meaning("INT_SPEED", 0x0408), "61.5 steps/s");
  EXPECT_EQ(meaning("SPEED", 26844), "400.01 steps/s");
  EXPECT_EQ(meaning("ABS_POS", 0x3FFFFF), "-1 microsteps");
  EXPECT_EQ(meaning("KVAL_RUN", 0x29), "16.0 % of the supply");
  EXPECT_EQ(meaning("KVAL_RUN", 0x29, true), "328.1 mV at the sense resistor");
  EXPECT_EQ(meaning("ST_SLP", 0x19), "0.038 % s/step");
  EXPECT_EQ(meaning("ST_SLP", 0x19, true), "fast off time 4 us, fast step 20 us");
  EXPECT_EQ(meaning("T_ON_MIN", 0x29, true), "21.0 us");
  EXPECT_EQ(meaning("OCD_TH", 8), "281.25 mV at a transistor");
  EXPECT_EQ(meaning("STEP_MODE", 0x07), "128 microsteps per step, voltage mode");
  EXPECT_EQ(meaning("STEP_MODE", 0x8F),
            "16 microsteps per step, current mode, BUSY pin shows steps");
  EXPECT_EQ(meaning("ALARM_EN", 0x81), "FLAG shows: over-current, command refused");
  EXPECT_EQ(meaning("ALARM_EN", 0), "FLAG shows: nothing");
  EXPECT_EQ(meaning("GATECFG1", 0x8FF),
            "gate current 96 mA for 3750 ns, boost code 0, "
            "clock watchdog on");
  EXPECT_EQ(meaning("GATECFG2", 0x41), "dead time 250 ns, blanking 375 ns");
  EXPECT_THAT(meaning("CONFIG", 0x2C88), HasSubstr("switch stops hard, over-current switches off"));
  EXPECT_THAT(meaning("CONFIG", 0x2C88, true), HasSubstr("switching period 44 us"));
}

TEST(StepperRegisters, PositionsHaveTwentyTwoBitsAndASign) {
  EXPECT_EQ(positionOf(0x000000), 0);
  EXPECT_EQ(positionOf(0x1FFFFF), 2097151);
  EXPECT_EQ(positionOf(0x200000), -2097152);
  EXPECT_EQ(positionOf(0x3FFFFF), -1);
  EXPECT_EQ(tool::positionBits(-1), 0x3FFFFFU);
  EXPECT_EQ(positionOf(tool::positionBits(2097151 + 1)), -2097152) << "it wraps";
}

TEST(StepperRegisters, NumbersHaveASignOrABase) {
  EXPECT_EQ(parseNumber("-3200"), -3200);
  EXPECT_EQ(parseNumber("0x1f"), 31);
  EXPECT_EQ(parseNumber("0b11"), 3);
  EXPECT_EQ(parseNumber("4294967295"), 4294967295);
  for (const char* text : {"", "-", "0x", "-0x5", "--5", "5x", "1.5", "4294967296"}) {
    EXPECT_EQ(parseNumber(text), std::nullopt) << text;
  }
}

TEST(StepperHelp, TellsWhatTheL6470sDriverCantDo) {
  for (const char* word : {"position", "speed", "get", "set"}) {
    EXPECT_THAT(runLine(std::string("l6470 ") + word + " --help").out,
                HasSubstr("Not with this driver"));
    EXPECT_THAT(runLine(std::string("powerstep01 ") + word + " --help").out,
                testing::Not(HasSubstr("Not with this driver")));
  }
  EXPECT_THAT(runLine("l6470 status --help").out, HasSubstr("clears the latched ones"));
  EXPECT_THAT(runLine("l6470 move --help").out, HasSubstr("not with this driver"));
}

TEST(StepperHelp, ABusClockThatWouldBeAMotorsSpeedIsNotAmongTheOptions) {
  EXPECT_THAT(runLine("powerstep01 move --help").out, testing::Not(HasSubstr("--speed KHZ")));
  EXPECT_THAT(runLine("powerstep01 run --help").out, HasSubstr("--speed STEPS/S"));
  EXPECT_THAT(runLine("powerstep01 run --help").out, testing::Not(HasSubstr("--speed KHZ")));
  EXPECT_THAT(runLine("powerstep01 status --help").out, HasSubstr("--speed KHZ"));
}

/// What a driver without register lengths can't do is refused before anything is opened: there is
/// no node here, and no word about one.
TEST(L6470WithoutRegisters, SaysWhyAndOpensNothing) {
  for (const char* line :
       {"l6470 position", "l6470 speed", "l6470 get", "l6470 get ACC", "l6470 set ACC 5",
        "l6470 run --speed 1 --acceleration 100", "l6470 move 1 --deceleration 100",
        "l6470 goto 1 --max-speed 100", "l6470 home --min-speed 100"}) {
    const ToolRun run = runLine(line);
    EXPECT_EQ(run.status, 2) << line;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.err, HasSubstr("needs a register of the L6470, whose length its driver does "
                                   "not know: after the command byte the chip would take the next "
                                   "bytes for arguments. Nothing was sent; "))
        << line;
    EXPECT_THAT(run.err, testing::Not(HasSubstr("/dev/"))) << line;
    EXPECT_THAT(run.systemLines, IsEmpty());
  }
}

}  // namespace
