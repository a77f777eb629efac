// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_SIGNAL_H
#define VBOARD_BOARD_SIGNAL_H

#include <utility>
#include <variant>
#include <vector>

#include "vboard/board/Clock.h"

namespace vboard {

/// What a bench source puts on an analog input: a value over the board's time, in the unit of the
/// input. A plain number is a signal too: `adc.setInput(2.137)`.
struct Signal {
  struct Constant {
    double value = 0;
  };
  /// From one value to another, then holding it, or over and over again.
  struct Ramp {
    double from = 0;
    double to = 0;
    Time over{0};   ///< 0: a step
    Time start{0};  ///< `from` before
    bool repeat = false;
  };
  /// offset + amplitude * sin(2 pi (frequencyHz * t + phase)).
  struct Sine {
    double offset = 0;
    double amplitude = 0;
    double frequencyHz = 0;
    double phase = 0;  ///< in turns: 0.25 starts at the top
  };
  /// A value from each moment on. Sorted by time; the first value also holds before.
  struct Steps {
    std::vector<std::pair<Time, double>> points;
    Time repeatEvery{0};  ///< 0: the last value stays
  };
  using Shape = std::variant<Constant, Ramp, Sine, Steps>;

  Signal(double value = 0) : shape(Constant{value}) {}
  Signal(Ramp ramp) : shape(ramp) {}
  Signal(Sine sine) : shape(sine) {}
  Signal(Steps steps) : shape(std::move(steps)) {}

  /// The value at a moment of the board's clock.
  double evaluate(Time moment) const;

  Shape shape;
};

}  // namespace vboard

#endif
