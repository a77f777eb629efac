// SPDX-License-Identifier: MIT
#include "tool/ExpanderSpec.h"

#include <gmock/gmock.h>

#include <stdexcept>

using tool::ExpanderSpec;
using tool::parseExpander;
using tool::PinChipLine;
using tool::PinLineName;
using tool::PinNumber;

namespace {

std::string refusal(std::string_view text) {
  try {
    parseExpander(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "accepted";
}

TEST(ExpanderSpec, HasALatchPinAndAnAddress) {
  const ExpanderSpec spec = parseExpander("22:3");
  EXPECT_EQ(std::get<PinNumber>(spec.latch.pin), PinNumber{22});
  EXPECT_EQ(spec.latch.text, "22");
  EXPECT_EQ(spec.address, 3);
  EXPECT_FALSE(spec.implicitly);
  EXPECT_EQ(parseExpander("22:0").address, 0);
  EXPECT_EQ(parseExpander("22:254").address, 254);
}

TEST(ExpanderSpec, IsReadFromTheRightBecausePinsHaveColons) {
  const ExpanderSpec spec = parseExpander("gpiochip1:15:3");
  EXPECT_EQ(std::get<PinChipLine>(spec.latch.pin), (PinChipLine{"gpiochip1", 15}));
  EXPECT_EQ(spec.latch.text, "gpiochip1:15");
  EXPECT_EQ(spec.address, 3);
  EXPECT_EQ(std::get<PinLineName>(parseExpander("P9:latch:3").latch.pin), PinLineName{"P9:latch"});
}

TEST(ExpanderSpec, CanBeImplicit) {
  const ExpanderSpec spec = parseExpander("/dev/gpiochip1:15:4:implicit");
  EXPECT_EQ(std::get<PinChipLine>(spec.latch.pin), (PinChipLine{"/dev/gpiochip1", 15}));
  EXPECT_EQ(spec.address, 4);
  EXPECT_TRUE(spec.implicitly);
}

TEST(ExpanderSpec, SaysWhatIsWrong) {
  EXPECT_EQ(refusal("22"), "'22': an address must follow the latch pin, e.g. 22:3");
  EXPECT_EQ(refusal("22:implicit"),
            "'22:implicit': an address must follow the latch pin, e.g. 22:3");
  EXPECT_EQ(refusal("22:"), "'' is not an address from 0 to 254");
  EXPECT_EQ(refusal("22:255"), "'255' is not an address from 0 to 254");
  EXPECT_EQ(refusal("22:-1"), "'-1' is not an address from 0 to 254");
  EXPECT_EQ(refusal("22:3:explicit"), "'explicit' is not an address from 0 to 254");
  EXPECT_EQ(refusal("gpiochip1:15"),
            "'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15");
  EXPECT_EQ(refusal(":3"), "a pin is a number, a line name, or CHIP:LINE such as gpiochip1:15");
}

}  // namespace
