// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_KNOBS_H
#define VBOARD_CHIPS_KNOBS_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Property.h"

namespace vboard {

/// The setter of a property that takes a number between two limits.
std::function<std::optional<std::string>(const PropertyValue&)> numberSetter(
    double lowest, double highest, std::function<void(double)> set);

/// A knob that takes a number between two limits.
Property numberProperty(std::string name, std::string unit, std::string help, double lowest,
                        double highest, std::function<double()> get,
                        std::function<void(double)> set);

/// A meter of the end-of-run report.
Property meterProperty(std::string name, std::string unit, std::string help,
                       std::function<PropertyValue()> get);

/// A knob that is on or off.
Property boolProperty(std::string name, std::string help, std::function<bool()> get,
                      std::function<void(bool)> set);

/// A knob that is one of several words, counted from 0.
Property choiceProperty(std::string name, std::string help,
                        const std::vector<std::string_view>& words, std::function<size_t()> get,
                        std::function<void(size_t)> set);

}  // namespace vboard

#endif
