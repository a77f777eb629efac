// SPDX-License-Identifier: MIT
#include "orv/ErrorCode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::StrEq;

static_assert(std::is_same_v<TErrCode, int32_t>);

TEST(ErrorCode, AnErrnoNumberKeepsItsNumber) {
  EXPECT_EQ(errnoToErrCode(1), 1);
  EXPECT_EQ(errnoToErrCode(22), 22);
  EXPECT_EQ(errnoToErrCode(133), 133);
  EXPECT_EQ(errnoToErrCode(INT_MAX), 2147483647);
}

TEST(ErrorCode, ZeroAndNegativeNumbersBecomeAnInputOutputError) {
  EXPECT_EQ(errnoToErrCode(0), 5);
  EXPECT_EQ(errnoToErrCode(-1), 5);
  EXPECT_EQ(errnoToErrCode(INT_MIN), 5);
}

TEST(ErrorCode, SystemErrorsHaveTheSystemsText) {
  EXPECT_THAT(ErrorToString(-1), StrEq("Operation not permitted"));
  EXPECT_THAT(ErrorToString(-9), StrEq("Bad file descriptor"));
  EXPECT_THAT(ErrorToString(-22), StrEq("Invalid argument"));
  EXPECT_THAT(ErrorToString(-28), StrEq("No space left on device"));
}

TEST(ErrorCode, OwnCodesHaveOwnTexts) {
  EXPECT_THAT(ErrorToString(0), StrEq("Success"));
  EXPECT_THAT(ErrorToString(-36), HasSubstr("Time-out"));
  EXPECT_THAT(ErrorToString(-36), HasSubstr("file name too long"));
  EXPECT_THAT(ErrorToString(-201), StrEq("Register read-back mismatch"));
  EXPECT_THAT(ErrorToString(-513), StrEq("Memory address out of range"));
}

TEST(ErrorCode, CodesWithoutMeaningHaveAGenericText) {
  EXPECT_THAT(ErrorToString(1), StrEq("Unknown error code"));
  EXPECT_THAT(ErrorToString(22), StrEq("Unknown error code"));
  EXPECT_THAT(ErrorToString(INT_MAX), StrEq("Unknown error code"));
  EXPECT_THAT(ErrorToString(-5000), StrEq("Unknown error code"));
  EXPECT_THAT(ErrorToString(INT_MIN + 1), StrEq("Unknown error code"));
  EXPECT_THAT(ErrorToString(INT_MIN), StrEq("Unknown error code"));
}

TEST(ErrorCode, EveryCodeHasAPrintableText) {
  for (TErrCode code = -1000; code <= 1000; ++code) {
    const char* const text = ErrorToString(code);
    ASSERT_NE(text, nullptr) << code;
    const std::string copy = text;
    EXPECT_FALSE(copy.empty()) << code;
    EXPECT_LT(copy.size(), 200u) << code;
    for (const char c : copy) {
      EXPECT_TRUE(c >= ' ' && c <= '~') << code;
    }
  }
}

TEST(ErrorCode, TheTextStaysTheSameObject) {
  const char* const text = ErrorToString(-5);
  EXPECT_THAT(text, StrEq("Input/output error"));
  ErrorToString(-6);
  ErrorToString(-5000);
  EXPECT_EQ(ErrorToString(-5), text);
  EXPECT_THAT(text, StrEq("Input/output error"));
}

TEST(ErrorCode, AskingLeavesErrnoAlone) {
  errno = 42;
  ErrorToString(-22);
  ErrorToString(-9999);
  EXPECT_EQ(errno, 42);
}

TEST(ErrorCode, ThreadsAskAtTheSameTime) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 1000; ++round) {
        // An unknown and a known code each: a shared buffer would mix them.
        EXPECT_THAT(ErrorToString(-1000 - i), StrEq("Unknown error code"));
        EXPECT_THAT(ErrorToString(-22), StrEq("Invalid argument"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
