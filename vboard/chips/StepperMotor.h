// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_STEPPERMOTOR_H
#define VBOARD_CHIPS_STEPPERMOTOR_H

#include <optional>
#include <string>
#include <string_view>

#include "vboard/board/Part.h"

namespace vboard {

class StepperChip;

/// A stepper motor with a limit switch, for the bench side of a stepper controller.
///
/// Pins: "PHASES" (the cable: connect it to the controller's "OUT"), "LIMIT" (the switch, a contact
/// to ground: connect it to the controller's "SW", or to a GPIO line with a pull-up).
///
/// The shaft follows the controller's field step by step. Blocked, it stays where it is while the
/// field goes on, and the controller notices the stall after two full steps; set free, it jumps to
/// the nearest place where it fits the field, whole cycles of four full steps away from where the
/// controller believes it to be. With the bridges off it stays.
class StepperMotor : public Part {
 public:
  static constexpr std::string_view kType = "stepper-motor";

  explicit StepperMotor(std::string name);

  // Bench face. Positions are in full steps since power-up.

  /// Holds the shaft, or lets it go.
  void setBlocked(bool blocked);
  /// Full steps of one turn, 200 unless set.
  void setStepsPerTurn(double steps);
  /// The switch is closed at and below this position; never unless set.
  void setLimitBelow(double steps);
  /// The switch is closed at and above this position; never unless set.
  void setLimitAbove(double steps);

  /// Where the shaft is.
  double position() const;
  /// In degrees, 0 to below 360.
  double angle() const;
  /// Full steps lost since power-up: what the controller's count is ahead of the shaft.
  double lostSteps() const;
  bool limitClosed() const;
  /// Whether it is held and the field ran away from it.
  bool stalled() const;

  void powerUp() override;

  /// The controller began, changed or ended a motion.
  void driveChanged();

 private:
  void addProperties();
  StepperChip* controller() const;
  double field() const;
  double shaft() const;
  bool closedAt(double position) const;
  void showLimit();
  void checkStall();
  void watch();

  Pin& phases_;
  Pin& limit_;
  bool blocked_ = false;
  double stepsPerTurn_ = 200;
  std::optional<double> limitBelow_;
  std::optional<double> limitAbove_;
  double lost_ = 0;    // field minus shaft, while the shaft follows
  double heldAt_ = 0;  // the shaft, while it is held
  bool stalled_ = false;
  std::optional<Clock::EventId> event_;
};

}  // namespace vboard

#endif
