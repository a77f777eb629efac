// SPDX-License-Identifier: MIT
#include "vboard/launcher/Words.h"

#include <gtest/gtest.h>

#include <clocale>
#include <limits>

namespace vboard::launcher {
namespace {

TEST(Words, SuggestsSlipsButNotOtherWords) {
  const std::vector<std::string> words{"vref", "vdd", "in", "spi"};
  EXPECT_EQ(nearest("vreff", words), "vref");
  EXPECT_EQ(nearest("vrfe", words), "vref");
  EXPECT_EQ(nearest("VREF", words), "vref");
  EXPECT_EQ(nearest("supply", words), std::nullopt);
  EXPECT_EQ(nearest("x", words), std::nullopt);
  EXPECT_EQ(didYouMean("sip", words), " (did you mean \"spi\"?)");
  EXPECT_EQ(didYouMean("supply", words), "");
}

TEST(Words, DurationsNeedAUnit) {
  EXPECT_EQ(parseDuration("20us"), Time(20000));
  EXPECT_EQ(parseDuration("20 us"), Time(20000));
  EXPECT_EQ(parseDuration("20\u00b5s"), Time(20000));
  EXPECT_EQ(parseDuration("20\u03bcs"), Time(20000));
  EXPECT_EQ(parseDuration("7ns"), Time(7));
  EXPECT_EQ(parseDuration("1.5ms"), Time(1500000));
  EXPECT_EQ(parseDuration("2s"), Time(2000000000));
  EXPECT_EQ(parseDuration("1 min"), Time(60000000000));
  for (const char* wrong : {"", "20", "us", "-1us", "1h", "1 us later", "inf s", "1e30s"}) {
    EXPECT_EQ(parseDuration(wrong), std::nullopt) << wrong;
  }
}

TEST(Words, NumbersAreShortAndKeepTheirPoint) {
  EXPECT_EQ(shortNumber(2.137), "2.137");
  EXPECT_EQ(shortNumber(0.1 + 0.2), "0.3");
  EXPECT_EQ(shortNumber(1000000), "1000000");
}

TEST(Words, JsonStringsEscapeWhatJsonWants) {
  EXPECT_EQ(jsonString("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\u000a\\u0001\"");
  EXPECT_EQ(jsonString("\u00b5s"), "\"\u00b5s\"");
  EXPECT_EQ(jsonString("a\xff"
                       "b\xc3"),
            "\"a\\ufffdb\\ufffd\"");
}

TEST(Words, PlacesReadAsCompilersWriteThem) {
  EXPECT_EQ(placed("a.toml", 3, 7, "wrong"), "a.toml:3:7: wrong");
  EXPECT_EQ(placed("--set a.b=1", 0, 0, "wrong"), "--set a.b=1: wrong");
}

}  // namespace
}  // namespace vboard::launcher
