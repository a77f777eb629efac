// SPDX-License-Identifier: MIT
#ifndef TOOL_EXPANDERSPEC_H
#define TOOL_EXPANDERSPEC_H

#include <cstdint>
#include <string_view>

#include "tool/PinSpec.h"

namespace tool {

/// The highest address on an expander's outputs: its driver takes 255 for "never written".
constexpr uint8_t kHighestExpanderAddress = 254;

/// A chip behind a 74HC595 whose outputs select chips.
struct ExpanderSpec {
  PinSpec latch;
  uint8_t address = 0;
  bool implicitly = false;  ///< the address goes out with another transfer, not on its own
};

/// Reads LATCH_PIN:ADDRESS or LATCH_PIN:ADDRESS:implicit, with the pin in any form of `parsePin`.
///
/// Throws std::invalid_argument whose text says what is wrong.
ExpanderSpec parseExpander(std::string_view text);

}  // namespace tool

#endif
