// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "tests/wire/Wire.h"
#include "varnel/common/Logging_p.h"

namespace {

std::string errorText = "no text";

}  // namespace

// This program's own: the line must hold whatever text the companion library gives.
__attribute__((visibility("default"))) const char* ErrorToString(TErrCode code) {
  return code == -1 ? "Operation not permitted" : errorText.c_str();
}

namespace {

using Varnel::logReturnCode;
using wire::Lines;
using wire::Wire;

/// The message of one log line.
std::string messageOf(TErrCode code) {
  Wire wire;
  EXPECT_EQ(logReturnCode(code, "file", 1, "function"), code);
  const std::string line = wire.journal().at(0);
  const size_t begin = line.find('"') + 1;
  return line.substr(begin, line.rfind('"') - begin);
}

TEST(Logging, WritesCodeNegatedCodeAndText) {
  errorText = "some text";
  EXPECT_EQ(messageOf(-1), "Return code  -1 0x0001 - Operation not permitted");
  EXPECT_EQ(messageOf(-22), "Return code  -22 0x0016 - some text");
  EXPECT_EQ(messageOf(-201), "Return code  -201 0x00c9 - some text");
}

TEST(Logging, FourDigitsAreAMinimum) {
  errorText = "text";
  EXPECT_EQ(messageOf(-65535), "Return code  -65535 0xffff - text");
  EXPECT_EQ(messageOf(-65536), "Return code  -65536 0x10000 - text");
  EXPECT_EQ(messageOf(std::numeric_limits<TErrCode>::min()),
            "Return code  -2147483648 0x80000000 - text");
}

TEST(Logging, CutsTheMessageAtItsBuffer) {
  errorText = std::string(229, 'x');
  EXPECT_EQ(messageOf(-22), "Return code  -22 0x0016 - " + std::string(229, 'x'));
  errorText = std::string(230, 'x');
  EXPECT_EQ(messageOf(-22), "Return code  -22 0x0016 - " + std::string(229, 'x'));
  errorText = std::string(5000, 'x');
  EXPECT_EQ(messageOf(-22).size(), 255U);
}

TEST(Logging, KeepsPercentSignsOfTheText) {
  errorText = "100 %s %n";
  EXPECT_EQ(messageOf(-5), "Return code  -5 0x0005 - 100 %s %n");
}

TEST(Logging, NamesLevelPathFromTheSourceRootFunctionAndLine) {
  Wire wire;
  logReturnCode(-1, "/home/me/varnel/common/A.cpp", 77, "work");
  EXPECT_EQ(wire.lastLogLine(), 77);
  logReturnCode(-1, "/home/varnel/varnel/chips/B.cpp", 1, "work");
  logReturnCode(-1, "varnel/common/A.cpp", 1, "work");
  logReturnCode(-1, "/elsewhere/C.cpp", 1, "work");
  const std::string start = "log ERROR \"Return code  -1 0x0001 - Operation not permitted\" ";
  EXPECT_EQ(wire.journal(),
            wire::lines(start + "varnel/common/A.cpp work", start + "varnel/chips/B.cpp work",
                        start + "varnel/common/A.cpp work", start + "/elsewhere/C.cpp work"));
}

TErrCode checkHere(int& line) {
  line = __LINE__ + 1;
  return logReturnCode(-1);
}

TEST(Logging, NamesTheCallerByItself) {
  Wire wire;
  int line = 0;
  EXPECT_EQ(checkHere(line), -1);
  EXPECT_EQ(wire.lastLogLine(), line);
  EXPECT_EQ(wire.journal(), Lines{"log ERROR \"Return code  -1 0x0001 - Operation not permitted\" "
                                  "varnel/common/LoggingTest.cpp checkHere"});
}

TEST(Logging, SurvivesALoggerThatThrows) {
  Wire wire;
  wire.logThrows();
  EXPECT_NO_THROW(EXPECT_EQ(logReturnCode(-5), -5));
  EXPECT_EQ(wire.journal().size(), 1U);
  wire.diagLoggerThrows();
  EXPECT_NO_THROW(EXPECT_EQ(logReturnCode(-5), -5));
  EXPECT_EQ(wire.journal(), Lines{});
}

}  // namespace
