// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_PROPERTY_H
#define VBOARD_BOARD_PROPERTY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "vboard/board/Signal.h"

namespace vboard {

using PropertyValue = std::variant<bool, int64_t, double, std::string>;

/// One knob or meter of a part's bench face, as board files, `--set` and reports see it.
struct Property {
  std::string name;  ///< as in a board file, e.g. "vref"
  std::string unit;  ///< "V", "Hz", or empty
  std::string help;  ///< one line: meaning, range, default
  std::function<PropertyValue()> get;
  /// Empty for a meter. Returns what is wrong with the value and what is allowed, or nothing.
  std::function<std::optional<std::string>(const PropertyValue&)> set;
  /// Whether the end-of-run report shows it.
  bool reported = false;
  /// Where a value that changes over time makes sense; empty elsewhere. Every value it reaches was
  /// taken by `set` before.
  std::function<void(const Signal&)> setSignal = {};
};

}  // namespace vboard

#endif
