// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_STEPPERMOTION_H
#define VBOARD_CHIPS_STEPPERMOTION_H

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "vboard/board/Clock.h"

namespace vboard {

/// The motion engine of a stepper controller: speed ramps over time, computed when asked.
///
/// Positions are in microsteps, speeds in microsteps/s, accelerations in microsteps/s². A motion is
/// a row of segments of constant acceleration, planned from wherever the motor just is.
class StepperMotion {
 public:
  enum class Phase : uint8_t { Stopped, Accelerating, Decelerating, Constant };

  /// What shapes the ramps.
  struct Profile {
    double acceleration = 0;  ///< infinite: no ramps at all
    double deceleration = 0;
    double minSpeed = 0;  ///< where ramps begin and end
    double maxSpeed = 0;
  };

  struct State {
    double position = 0;
    double speed = 0;   ///< never negative
    int direction = 1;  ///< 1 or -1
    Phase phase = Phase::Stopped;
    bool busy = false;  ///< a command is being carried out
  };

  /// Where the motor is and what it does.
  State at(Time moment) const;

  /// Turns at a speed, busy until that is reached.
  void run(Time now, const Profile& profile, int direction, double speed);
  /// Moves to a position, starting in a direction when at standstill. A motor that can't stop in
  /// time comes back.
  void moveTo(Time now, const Profile& profile, double target);
  /// Ramps down to standstill on a whole microstep.
  void softStop(Time now, const Profile& profile);
  /// Stands still at once.
  void hardStop(Time now);
  /// One microstep at standstill.
  void step(Time now, int direction);

  /// When the motor next begins or ends a ramp; nothing at standstill and in an endless run.
  std::optional<Time> nextChange(Time now) const;
  /// When the motor first gets to a position, or nothing.
  std::optional<Time> whenAt(Time now, double position) const;

 private:
  struct Segment {
    double position = 0;      // at the beginning
    double speed = 0;         // at the beginning
    double acceleration = 0;  // negative when slowing down
    int direction = 1;
    double seconds = kEndless;
    Phase phase = Phase::Constant;
    bool busy = true;
    Time begin{0};
  };
  static constexpr double kEndless = std::numeric_limits<double>::infinity();

  static State stateIn(const Segment& segment, double seconds);
  static Time endOf(const Segment& segment);
  void restart(Time now);
  void add(Segment segment);
  void rampTo(const Profile& profile, double speed);
  void cruise(double distance);
  void finish();
  const Segment* current(Time moment) const;

  std::vector<Segment> segments_;  // in time order
  State last_;                     // where the planned segments lead; the state without any
};

}  // namespace vboard

#endif
