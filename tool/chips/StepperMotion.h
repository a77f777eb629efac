// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_STEPPERMOTION_H
#define TOOL_CHIPS_STEPPERMOTION_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tool/App.h"
#include "tool/chips/StepperLink.h"

namespace tool {

/// How long the tool stays with a motion.
struct Follow {
  bool wait = false;   ///< until it is over, then one record
  bool watch = false;  ///< until it is over, with a record each time it looks
  unsigned int intervalMs = 50;
};

/// What the chip has to be told before a motion; steps/s and steps/s².
struct Ramps {
  std::optional<double> acceleration;
  std::optional<double> deceleration;
  std::optional<double> maxSpeed;
  std::optional<double> minSpeed;

  bool any() const { return acceleration || deceleration || maxSpeed || minSpeed; }
  /// Whether one is among them that can't be changed while the motor turns.
  bool needsStandstill() const { return acceleration || deceleration || minSpeed; }
};

/// A command that sets the motor in motion or ends a motion.
struct MotionCommand {
  using Operation = int32_t (*)(StepperDriver& driver);

  std::string words;  ///< "move 3200 forward"
  std::function<int32_t(StepperDriver&)> send;
  unsigned int bytes = 1;
  /// How Ctrl-C ends it, and a second one.
  Operation softEnd = [](StepperDriver& driver) -> int32_t { return driver.softStop(); };
  Operation hardEnd = [](StepperDriver& driver) -> int32_t { return driver.hardStop(); };
  bool endless = false;          ///< goes on until something stops it
  bool needsStandstill = false;  ///< refused while the motor turns
  bool needsIdle = false;        ///< refused while the command before is carried out
  bool switchesOff = false;      ///< leaves the bridges off
  bool stops = false;            ///< ends a motion
  /// The position it ends at, if known; asked before it is sent.
  std::function<std::optional<int32_t>(StepperLink& link)> target = nullptr;
  double speed = 0;  ///< asked for, in steps/s
};

/// Sends the command, says so or follows the motion, and finds out whether the chip did it. A
/// signal stops the motion softly before the tool leaves, a second one at once. Throws ChipError
/// where the chip refuses.
void carryOut(const Context& context, StepperLink& link, const Ramps& ramps,
              const MotionCommand& command, const Follow& follow);

/// Sends a command that moves nothing, and finds out whether the chip did it.
void carryOutStill(const Context& context, StepperLink& link, const std::string& words,
                   MotionCommand::Operation operation);

/// A note for a status that shows an undervoltage or a reset.
std::string powerUpAdvice(const StepperLink& link);

}  // namespace tool

#endif
