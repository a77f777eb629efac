// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_STEPPERSTATUS_H
#define TOOL_CHIPS_STEPPERSTATUS_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

enum class MotorState : uint8_t { Standstill, Accelerating, Decelerating, Constant };

/// What a stepper controller notices and keeps until its flags are cleared, one bit each.
using Alarms = uint32_t;
constexpr Alarms kAlarmCommandError = 1U << 0U;    ///< unknown, or not possible at that moment
constexpr Alarms kAlarmCommandUnknown = 1U << 1U;  ///< chips that tell unknown commands apart
constexpr Alarms kAlarmUndervoltage = 1U << 2U;    ///< also after power-up and reset
constexpr Alarms kAlarmAdcUndervoltage = 1U << 3U;
constexpr Alarms kAlarmThermalWarning = 1U << 4U;
constexpr Alarms kAlarmThermalShutdown = 1U << 5U;
constexpr Alarms kAlarmDeviceShutdown = 1U << 6U;
constexpr Alarms kAlarmOverCurrent = 1U << 7U;
constexpr Alarms kAlarmStallA = 1U << 8U;
constexpr Alarms kAlarmStallB = 1U << 9U;
constexpr Alarms kAlarmSwitch = 1U << 10U;  ///< the switch was closed

/// A status word, the same for every chip.
struct StepperStatus {
  uint16_t word = 0;
  bool bridgesOff = false;
  bool busy = false;
  bool forward = false;
  bool switchClosed = false;
  bool stepClock = false;
  MotorState state = MotorState::Standstill;
  Alarms alarms = 0;

  bool standsStill() const { return !busy && state == MotorState::Standstill; }
  /// A chip that is there never has all flags high or all low.
  bool answered() const { return word != 0 && word != 0xFFFF; }
};

StepperStatus l6470Status(uint16_t word);
StepperStatus powerstep01Status(uint16_t word);

/// "standstill", "accelerating" ...
std::string_view stateWords(const StepperStatus& status);
/// "over-current, stall at bridge A", or "none".
std::string alarmWords(Alarms alarms);
/// Every flag in words.
std::string statusWords(const StepperStatus& status);

}  // namespace tool

#endif
