// SPDX-License-Identifier: MIT
#include "vboard/chips/Knobs.h"

#include <cmath>
#include <cstdio>

namespace vboard {

namespace {

double numberOf(const PropertyValue& value) {
  if (const auto* whole = std::get_if<int64_t>(&value)) {
    return static_cast<double>(*whole);
  }
  const auto* number = std::get_if<double>(&value);
  return number == nullptr ? std::nan("") : *number;
}

}  // namespace

std::function<std::optional<std::string>(const PropertyValue&)> numberSetter(
    double lowest, double highest, std::function<void(double)> set) {
  return [=, set = std::move(set)](const PropertyValue& value) -> std::optional<std::string> {
    const double number = numberOf(value);
    // Written so that not-a-number is refused too.
    if (!(number >= lowest && number <= highest)) {
      char text[80];
      std::snprintf(text, sizeof text, "must be a number from %g to %g", lowest, highest);
      return text;
    }
    set(number);
    return std::nullopt;
  };
}

}  // namespace vboard
