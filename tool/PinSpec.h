// SPDX-License-Identifier: MIT
#ifndef TOOL_PINSPEC_H
#define TOOL_PINSPEC_H

#include <string>
#include <string_view>
#include <variant>

namespace tool {

/// A pin counted through all GPIO chips of the machine.
struct PinNumber {
  unsigned int number;
  bool operator==(const PinNumber&) const = default;
};

/// A line found by its name.
struct PinLineName {
  std::string name;
  bool operator==(const PinLineName&) const = default;
};

/// A line of one chip, which is given by device name, label or path.
struct PinChipLine {
  std::string chip;
  unsigned int line;
  bool operator==(const PinChipLine&) const = default;
};

/// What a pin option names, and the text it came from, for messages.
struct PinSpec {
  std::variant<PinNumber, PinLineName, PinChipLine> pin;
  std::string text;
};

/// Pin numbers from here on are the tool's own, for pins that have no number: no machine counts so
/// many lines.
constexpr unsigned int kFirstMappedPin = 1U << 30;

/// Reads the argument of a pin option: a number ("25"), a line name ("GPIO25"), or a chip and its
/// line ("gpiochip1:15", "pinctrl-bcm2835:25", "/dev/gpiochip1:15"). A colon that isn't followed
/// by a number belongs to a line name, unless a GPIO chip stands before it.
///
/// Throws std::invalid_argument whose text says what is wrong.
PinSpec parsePin(std::string_view text);

}  // namespace tool

#endif
