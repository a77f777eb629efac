// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_KNOBS_H
#define VBOARD_CHIPS_KNOBS_H

#include <functional>
#include <optional>
#include <string>

#include "vboard/board/Property.h"

namespace vboard {

/// The setter of a property that takes a number between two limits.
std::function<std::optional<std::string>(const PropertyValue&)> numberSetter(
    double lowest, double highest, std::function<void(double)> set);

}  // namespace vboard

#endif
