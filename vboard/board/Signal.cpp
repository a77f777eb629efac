// SPDX-License-Identifier: MIT
#include "vboard/board/Signal.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vboard {

namespace {

double seconds(Time time) {
  return static_cast<double>(time.count()) * 1e-9;
}

double valueOf(const Signal::Constant& constant, Time /*moment*/) {
  return constant.value;
}

double valueOf(const Signal::Ramp& ramp, Time moment) {
  if (moment < ramp.start) {
    return ramp.from;
  }
  if (ramp.over <= Time{0}) {
    return ramp.to;
  }
  Time elapsed = moment - ramp.start;
  if (ramp.repeat) {
    elapsed %= ramp.over;
  } else if (elapsed >= ramp.over) {
    return ramp.to;
  }
  return ramp.from + (ramp.to - ramp.from) * (seconds(elapsed) / seconds(ramp.over));
}

double valueOf(const Signal::Sine& sine, Time moment) {
  const double turns = sine.frequencyHz * seconds(moment) + sine.phase;
  return sine.offset + sine.amplitude * std::sin(2 * std::numbers::pi * turns);
}

double valueOf(const Signal::Steps& steps, Time moment) {
  if (steps.points.empty()) {
    return 0;
  }
  if (steps.repeatEvery > Time{0}) {
    moment %= steps.repeatEvery;
  }
  const auto after = std::upper_bound(
      steps.points.begin(), steps.points.end(), moment,
      [](Time time, const std::pair<Time, double>& point) { return time < point.first; });
  return after == steps.points.begin() ? steps.points.front().second : std::prev(after)->second;
}

}  // namespace

double Signal::evaluate(Time moment) const {
  return std::visit([moment](const auto& form) { return valueOf(form, moment); }, shape);
}

}  // namespace vboard
