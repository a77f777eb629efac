// SPDX-License-Identifier: MIT
#include "tool/PinSpec.h"

#include <gmock/gmock.h>

#include <stdexcept>

using tool::parsePin;
using tool::PinChipLine;
using tool::PinLineName;
using tool::PinNumber;

namespace {

std::string refusal(std::string_view text) {
  try {
    parsePin(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "accepted";
}

TEST(PinSpec, DigitsAreANumber) {
  EXPECT_EQ(std::get<PinNumber>(parsePin("0").pin), PinNumber{0});
  EXPECT_EQ(std::get<PinNumber>(parsePin("25").pin), PinNumber{25});
  EXPECT_EQ(std::get<PinNumber>(parsePin("1073741823").pin), PinNumber{1073741823});
}

TEST(PinSpec, AWordIsALineName) {
  EXPECT_EQ(std::get<PinLineName>(parsePin("GPIO25").pin), PinLineName{"GPIO25"});
  EXPECT_EQ(std::get<PinLineName>(parsePin("P9_15").pin), PinLineName{"P9_15"});
  EXPECT_EQ(std::get<PinLineName>(parsePin("25A").pin), PinLineName{"25A"});
  EXPECT_EQ(std::get<PinLineName>(parsePin("PWM out").pin), PinLineName{"PWM out"});
}

TEST(PinSpec, AColonBeforeANumberSeparatesChipAndLine) {
  EXPECT_EQ(std::get<PinChipLine>(parsePin("gpiochip1:15").pin), (PinChipLine{"gpiochip1", 15}));
  EXPECT_EQ(std::get<PinChipLine>(parsePin("/dev/gpiochip0:7").pin),
            (PinChipLine{"/dev/gpiochip0", 7}));
  EXPECT_EQ(std::get<PinChipLine>(parsePin("pinctrl-bcm2835:25").pin),
            (PinChipLine{"pinctrl-bcm2835", 25}));
  EXPECT_EQ(std::get<PinChipLine>(parsePin("a:b:3").pin), (PinChipLine{"a:b", 3}));
}

TEST(PinSpec, AColonBeforeAWordBelongsToALineName) {
  EXPECT_EQ(std::get<PinLineName>(parsePin("led:green").pin), PinLineName{"led:green"});
}

TEST(PinSpec, TheTextIsKeptForMessages) {
  EXPECT_EQ(parsePin("gpiochip1:15").text, "gpiochip1:15");
  EXPECT_EQ(parsePin("007").text, "007");
}

TEST(PinSpec, WhatIsNoPinIsRefusedWithItsReason) {
  EXPECT_EQ(refusal(""), "a pin is a number, a line name, or CHIP:LINE such as gpiochip1:15");
  EXPECT_EQ(refusal("-1"), "'-1': a pin number isn't negative");
  EXPECT_EQ(refusal(":15"), "':15': the chip before the colon is missing");
  EXPECT_EQ(refusal("gpiochip1:"), "'gpiochip1:': a line number must follow the colon");
  EXPECT_EQ(refusal("gpiochip1:x"), "'gpiochip1:x': a line number must follow the colon");
  EXPECT_EQ(refusal("gpiochip1:-1"), "'gpiochip1:-1': a line number must follow the colon");
  EXPECT_EQ(refusal("gpiochip1"),
            "'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15");
  EXPECT_EQ(refusal("/dev/gpiochip1"),
            "'/dev/gpiochip1' is a chip: name one of its lines, e.g. /dev/gpiochip1:15");
  EXPECT_EQ(refusal("1073741824"), "'1073741824': the number is above 1073741823");
  EXPECT_EQ(refusal("99999999999999999999"),
            "'99999999999999999999': the number is above 1073741823");
  EXPECT_EQ(refusal("gpiochip0:4294967296"),
            "'gpiochip0:4294967296': the number is above 1073741823");
}

}  // namespace
