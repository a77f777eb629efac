// SPDX-License-Identifier: MIT
#include "tool/chips/StepperOptions.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>

#include "tool/chips/StepperRegisters.h"

namespace tool {
namespace {

// Where the registers begin to hold more than 0, and the library stops to fill them.
constexpr Range kAccelerationRange = {14.6, 59590, "an acceleration", " steps/s2"};
constexpr Range kMaxSpeedRange = {15.3, 15610, "a speed", " steps/s"};
constexpr Range kMinSpeedRange = {0, 976, "a speed", " steps/s"};

constexpr const char* kSpeedType = "STEPS/S";
constexpr const char* kAccelerationType = "STEPS/S2";

[[noreturn]] void refuse(const std::string& name, const std::string& text, const Range& range) {
  throw CLI::ValidationError(
      name, fmt::format("'{}' is not {} from {} to {}{}", text, range.quantity, range.lowest,
                        range.highest, range.after));
}

}  // namespace

CLI::Option* addReal(CLI::App& command, const std::string& name, std::optional<double>& target,
                     const Range& range, const std::string& about) {
  const auto parse = [&target, name, range](const std::string& text) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    // NaN is in no range.
    if (result.ec != std::errc() || result.ptr != end ||
        !(number >= range.lowest && number <= range.highest)) {
      refuse(name, text, range);
    }
    target = number;
  };
  return command.add_option_function<std::string>(name, parse, about);
}

CLI::Option* addInteger(CLI::App& command, const std::string& name, std::optional<int32_t>& target,
                        const Range& range, const std::string& about) {
  const auto parse = [&target, name, range](const std::string& text) {
    const std::optional<int64_t> number = parseNumber(text);
    if (!number || static_cast<double>(*number) < range.lowest ||
        static_cast<double>(*number) > range.highest) {
      refuse(name, text, range);
    }
    target = static_cast<int32_t>(*number);
  };
  return command.add_option_function<std::string>(name, parse, about);
}

CLI::Option* addDirection(CLI::App& command, bool& forward, const std::string& about) {
  const auto parse = [&forward](const std::string& text) {
    std::string word = text;
    std::transform(word.begin(), word.end(), word.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (word != "forward" && word != "reverse") {
      throw CLI::ValidationError("--direction",
                                 fmt::format("'{}' is none of forward, reverse", text));
    }
    forward = word == "forward";
  };
  return command.add_option_function<std::string>("--direction", parse, about)
      ->type_name("DIRECTION");
}

void addRamps(CLI::App& command, Ramps& ramps, bool possible) {
  const auto add = [&command, possible](const char* name, std::optional<double>& target,
                                        const Range& range, const std::string& about,
                                        const char* type) {
    addReal(command, name, target, range,
            possible ? about : "not with this driver, which can't set registers")
        ->type_name(type);
  };
  add("--acceleration", ramps.acceleration, kAccelerationRange,
      "set register ACC before, 14.6 to 59590 steps/s2; at standstill only.\n"
      "This and the next three stay set afterwards",
      kAccelerationType);
  add("--deceleration", ramps.deceleration, kAccelerationRange,
      "set register DEC before, 14.6 to 59590 steps/s2; at standstill only", kAccelerationType);
  add("--max-speed", ramps.maxSpeed, kMaxSpeedRange,
      "set register MAX_SPEED before, 15.3 to 15610 steps/s", kSpeedType);
  add("--min-speed", ramps.minSpeed, kMinSpeedRange,
      "set register MIN_SPEED before, where ramps begin and end, 0 to 976\n"
      "steps/s; at standstill only",
      kSpeedType);
}

void addSoftHard(CLI::App& command, bool& soft, bool& hard) {
  CLI::Option* const option =
      command.add_flag("--soft", soft, "ramp down first; so it is without --hard, too");
  command.add_flag("--hard", hard, "at once")->excludes(option);
}

void addFollow(CLI::App& command, Follow& follow) {
  constexpr unsigned int kMinuteMs = 60000;
  command.add_flag("--wait", follow.wait, "wait until it is done, then print one record");
  command.add_flag("--watch", follow.watch,
                   "print a record each time the tool looks, until the motor stands\n"
                   "still; on a terminal one line that changes");
  addWhole(command, "--interval", follow.intervalMs, 0, kMinuteMs, "a time in ms",
           "pause between two looks in ms, 0 to 60000")
      ->type_name("MS");
}

void refuseSpeed(CLI::App& command) {
  const std::string name = command.get_name();
  command
      .add_option_function<std::string>(
          "--speed",
          [name](const std::string&) {
            throw CLI::ValidationError(
                "--speed", fmt::format("the motor's speed here is its register MAX_SPEED, see "
                                       "--max-speed; the bus clock's --speed stands before '{}'",
                                       name));
          })
      ->group("");
}

}  // namespace tool
