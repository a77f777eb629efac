// SPDX-License-Identifier: MIT
#ifndef TOOL_OPTIONS_H
#define TOOL_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

#include "tool/ExpanderSpec.h"
#include "tool/PinSpec.h"
#include "tool/Records.h"

namespace tool {

/// What every subcommand takes.
struct GlobalOptions {
  std::string node = "/dev/spidev1.0";
  uint16_t speedKHz = 500;
  bool speedGiven = false;
  /// Without it the node's own chip select is all that selects the chip.
  std::optional<PinSpec> selectPin;
  bool selectActiveLow = false;
  /// Instead of `selectPin`.
  std::optional<ExpanderSpec> expander;
  uint8_t expanderNone = 7;
  std::string logLevel = "off";
  Format format = Format::Text;
};

/// How often a subcommand repeats itself.
struct Repetition {
  uint64_t count = 1;  ///< 0: until a signal ends it
  unsigned int intervalMs = 0;
};

}  // namespace tool

#endif
