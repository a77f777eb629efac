// SPDX-License-Identifier: MIT
#include "vboard/chips/Knobs.h"

#include <algorithm>
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

Property numberProperty(std::string name, std::string unit, std::string help, double lowest,
                        double highest, std::function<double()> get,
                        std::function<void(double)> set) {
  return {std::move(name),
          std::move(unit),
          std::move(help),
          [get = std::move(get)]() -> PropertyValue { return get(); },
          numberSetter(lowest, highest, std::move(set)),
          false};
}

Property meterProperty(std::string name, std::string unit, std::string help,
                       std::function<PropertyValue()> get) {
  return {std::move(name), std::move(unit), std::move(help), std::move(get), {}, true};
}

Property boolProperty(std::string name, std::string help, std::function<bool()> get,
                      std::function<void(bool)> set) {
  const auto setter =
      [set = std::move(set)](const PropertyValue& value) -> std::optional<std::string> {
    const bool* wanted = std::get_if<bool>(&value);
    if (wanted == nullptr) {
      return "must be true or false";
    }
    set(*wanted);
    return std::nullopt;
  };
  return {std::move(name), "",   std::move(help), [get = std::move(get)] { return get(); },
          setter,          false};
}

Property choiceProperty(std::string name, std::string help,
                        const std::vector<std::string_view>& words, std::function<size_t()> get,
                        std::function<void(size_t)> set) {
  const auto setter =
      [words, set = std::move(set)](const PropertyValue& value) -> std::optional<std::string> {
    const auto* word = std::get_if<std::string>(&value);
    const auto found = word == nullptr ? words.end() : std::find(words.begin(), words.end(), *word);
    if (found == words.end()) {
      std::string allowed = "must be one of";
      for (const std::string_view choice : words) {
        allowed += " \"" + std::string(choice) + "\"";
      }
      return allowed;
    }
    set(static_cast<size_t>(found - words.begin()));
    return std::nullopt;
  };
  return {std::move(name),
          "",
          std::move(help),
          [words, get = std::move(get)]() -> PropertyValue { return std::string(words[get()]); },
          setter,
          false};
}

}  // namespace vboard
