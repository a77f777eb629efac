// SPDX-License-Identifier: MIT
#include "tool/PinSpec.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace tool {
namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kForms = "a number, a line name, or CHIP:LINE such as gpiochip1:15";

bool isDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of(kDigits) == std::string_view::npos;
}

/// Whether the text says by itself that it is a GPIO chip, not a line.
bool isChip(std::string_view text) {
  constexpr std::string_view kPrefix = "gpiochip";
  return text.find('/') != std::string_view::npos ||
         (text.starts_with(kPrefix) && isDigits(text.substr(kPrefix.size())));
}

unsigned int parseNumber(std::string_view digits, std::string_view whole) {
  unsigned int number = 0;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (result.ec != std::errc() || number >= kFirstMappedPin) {
    throw std::invalid_argument(
        fmt::format("'{}': the number is above {}", whole, kFirstMappedPin - 1));
  }
  return number;
}

PinSpec parseChipLine(std::string_view chip, std::string_view line, std::string_view whole) {
  if (chip.empty()) {
    throw std::invalid_argument(fmt::format("'{}': the chip before the colon is missing", whole));
  }
  return {PinChipLine{std::string(chip), parseNumber(line, whole)}, std::string(whole)};
}

}  // namespace

PinSpec parsePin(std::string_view text) {
  if (text.empty()) {
    throw std::invalid_argument(fmt::format("a pin is {}", kForms));
  }
  if (isDigits(text)) {
    return {PinNumber{parseNumber(text, text)}, std::string(text)};
  }
  if (text.front() == '-' && isDigits(text.substr(1))) {
    throw std::invalid_argument(fmt::format("'{}': a pin number isn't negative", text));
  }
  const size_t colon = text.rfind(':');
  if (colon != std::string_view::npos) {
    const std::string_view chip = text.substr(0, colon);
    const std::string_view line = text.substr(colon + 1);
    if (isDigits(line)) {
      return parseChipLine(chip, line, text);
    }
    if (line.empty() || isChip(chip)) {
      throw std::invalid_argument(fmt::format("'{}': a line number must follow the colon", text));
    }
  } else if (isChip(text)) {
    throw std::invalid_argument(
        fmt::format("'{0}' is a chip: name one of its lines, e.g. {0}:15", text));
  }
  return {PinLineName{std::string(text)}, std::string(text)};
}

}  // namespace tool
