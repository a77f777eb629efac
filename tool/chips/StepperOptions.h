// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_STEPPEROPTIONS_H
#define TOOL_CHIPS_STEPPEROPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "tool/chips/StepperMotion.h"

namespace tool {

/// What an option accepts: "a speed from 0 to 15625 steps/s".
struct Range {
  double lowest;
  double highest;
  const char* quantity;
  const char* after;  ///< the unit, after a blank, and a hint
};

constexpr Range kSpeedRange = {0, 15625, "a speed", " steps/s"};

/// Adds an option, or an argument without dashes, that takes a number of a range.
CLI::Option* addReal(CLI::App& command, const std::string& name, std::optional<double>& target,
                     const Range& range, const std::string& about);
/// The same for whole numbers.
CLI::Option* addInteger(CLI::App& command, const std::string& name, std::optional<int32_t>& target,
                        const Range& range, const std::string& about);
/// Adds --direction.
CLI::Option* addDirection(CLI::App& command, bool& forward, const std::string& about);
/// Adds --acceleration, --deceleration, --max-speed and --min-speed; `possible` is whether the
/// driver can set them.
void addRamps(CLI::App& command, Ramps& ramps, bool possible);
/// Adds --soft and --hard.
void addSoftHard(CLI::App& command, bool& soft, bool& hard);
/// Adds --wait, --watch and --interval.
void addFollow(CLI::App& command, Follow& follow);
/// Refuses --speed behind the name of a command whose speed is none of its options: there it would
/// be taken for the motor's and be the bus clock.
void refuseSpeed(CLI::App& command);

}  // namespace tool

#endif
