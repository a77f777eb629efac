// SPDX-License-Identifier: MIT
// What the commands of converter, LED driver and potentiometer make of their arguments and answers.
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/tool/StandardInput.h"
#include "tool/Confirm.h"
#include "tool/chips/Mcp4822.h"
#include "tool/chips/Tlc5947.h"

using tool::mcp4822Code;
using tool::mcp4822Volts;
using tool::parseTlc5947Outputs;

namespace {

TEST(Mcp4822, VoltsAreCodeTimesReferenceOver4096) {
  EXPECT_DOUBLE_EQ(mcp4822Volts(0), 0.0);
  EXPECT_DOUBLE_EQ(mcp4822Volts(2048), 1.024);
  EXPECT_DOUBLE_EQ(mcp4822Volts(4095), 2.0475);
}

TEST(Mcp4822, ACodeIsTakenInThreeNotations) {
  EXPECT_EQ(mcp4822Code("0"), 0);
  EXPECT_EQ(mcp4822Code("4095"), 4095);
  EXPECT_EQ(mcp4822Code("0x800"), 2048);
  EXPECT_EQ(mcp4822Code("0b101"), 5);
}

TEST(Mcp4822, VoltsBecomeTheNearestCode) {
  EXPECT_EQ(mcp4822Code("0V"), 0);
  EXPECT_EQ(mcp4822Code("1.024V"), 2048);
  EXPECT_EQ(mcp4822Code("1.5v"), 3000);
  EXPECT_EQ(mcp4822Code("0.0003V"), 1);
  EXPECT_EQ(mcp4822Code("0.0002V"), 0);
  EXPECT_EQ(mcp4822Code("2.0475V"), 4095);
  EXPECT_EQ(mcp4822Code("2.0477V"), 4095);
}

TEST(Mcp4822, EverythingElseIsNoCode) {
  for (const char* text : {"", "V", "4096", "-1", "-0.1V", "2.0478V", "2.1V", "1.0", "1,5V", "nanV",
                           "infV", "1e0V", "1.5 V", "1.5VV", "x"}) {
    EXPECT_EQ(mcp4822Code(text), std::nullopt) << text;
  }
}

TEST(Tlc5947, OneOutputOrARangeGetsAValue) {
  const auto one = parseTlc5947Outputs("5=2048");
  EXPECT_EQ(one.first, 5U);
  EXPECT_EQ(one.last, 5U);
  EXPECT_EQ(one.value, 2048);
  const auto range = parseTlc5947Outputs("0-23=0xfff");
  EXPECT_EQ(range.first, 0U);
  EXPECT_EQ(range.last, 23U);
  EXPECT_EQ(range.value, 4095);
}

TEST(Tlc5947, EverythingElseIsSaidToBeWrong) {
  const auto mistake = [](const char* text) -> std::string {
    try {
      parseTlc5947Outputs(text);
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "accepted";
  };
  for (const char* text : {"", "5", "=", "5=", "=5", "-5=1", "5-=1", "1-2-3=1", "5=x", "5=1=2"}) {
    EXPECT_EQ(mistake(text),
              std::string("'") + text + "' is not OUTPUT=VALUE, such as 5=2048 or 0-2=4095");
  }
  EXPECT_EQ(mistake("3-2=1"), "'3-2=1': 3 comes after 2");
  EXPECT_EQ(mistake("0=4096"), "'0=4096': the value is above 4095, the largest pulse width");
  EXPECT_EQ(mistake("0=18446744073709551615"),
            "'0=18446744073709551615': the value is above 4095, the largest pulse width");
}

/// Asks, and types `typed`.
bool confirmed(const std::string& typed, std::ostream& asked) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(write(ends[1], typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
  close(ends[1]);
  const StandardInput input(ends[0]);
  const tool::Interrupt interrupt;
  return tool::confirm(asked, "for good?", interrupt);
}

TEST(Confirmation, OnlyYesIsYes) {
  for (const char* typed : {"y\n", "yes\n", "Y\n", "YES\nno\n"}) {
    std::ostringstream asked;
    EXPECT_TRUE(confirmed(typed, asked)) << typed;
    EXPECT_EQ(asked.str(), "varnel: for good? [y/N] ");
  }
  for (const char* typed : {"n\n", "\n", "yess\n", " y\n", "no\ny\n"}) {
    std::ostringstream asked;
    EXPECT_FALSE(confirmed(typed, asked)) << typed;
  }
}

TEST(Confirmation, TheEndOfTheInputIsNoYes) {
  for (const char* typed : {"", "y", "yes"}) {
    std::ostringstream asked;
    EXPECT_FALSE(confirmed(typed, asked)) << typed;
    EXPECT_EQ(asked.str(), "varnel: for good? [y/N] \n");
  }
}

TEST(Confirmation, ASignalIsANo) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  // Nobody answers: without the signal this would not end.
  const StandardInput input(ends[0]);
  const tool::Interrupt interrupt;
  std::raise(SIGINT);
  std::ostringstream asked;
  EXPECT_FALSE(tool::confirm(asked, "for good?", interrupt));
  close(ends[1]);
}

TEST(Confirmation, AFileOrPipeCantBeAsked) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const StandardInput input(ends[0]);
  EXPECT_FALSE(tool::canAsk());
  close(ends[1]);
}

}  // namespace
