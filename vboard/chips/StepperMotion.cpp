// SPDX-License-Identifier: MIT
#include "vboard/chips/StepperMotion.h"

#include <algorithm>
#include <cmath>

namespace vboard {

namespace {

constexpr double kNanosecondsPerSecond = 1e9;

Time toTime(double seconds) {
  return Time(std::llround(seconds * kNanosecondsPerSecond));
}

double toSeconds(Time time) {
  return static_cast<double>(time.count()) / kNanosecondsPerSecond;
}

}  // namespace

StepperMotion::State StepperMotion::stateIn(const Segment& segment, double seconds) {
  const double t = std::clamp(seconds, 0.0, segment.seconds);
  const double travelled = segment.speed * t + segment.acceleration * t * t / 2;
  return {segment.position + segment.direction * travelled,
          std::max(0.0, segment.speed + segment.acceleration * t), segment.direction, segment.phase,
          segment.busy};
}

Time StepperMotion::endOf(const Segment& segment) {
  return std::isinf(segment.seconds) ? Time::max() : segment.begin + toTime(segment.seconds);
}

const StepperMotion::Segment* StepperMotion::current(Time moment) const {
  const auto found =
      std::find_if(segments_.begin(), segments_.end(),
                   [moment](const Segment& segment) { return moment < endOf(segment); });
  return found == segments_.end() ? nullptr : &*found;
}

StepperMotion::State StepperMotion::at(Time moment) const {
  const Segment* segment = current(moment);
  return segment == nullptr ? last_ : stateIn(*segment, toSeconds(moment - segment->begin));
}

std::optional<Time> StepperMotion::nextChange(Time now) const {
  const Segment* segment = current(now);
  if (segment == nullptr || std::isinf(segment->seconds)) {
    return std::nullopt;
  }
  return endOf(*segment);
}

std::optional<Time> StepperMotion::whenAt(Time now, double position) const {
  for (const Segment& segment : segments_) {
    if (endOf(segment) <= now) {
      continue;
    }
    const double distance = (position - segment.position) * segment.direction;
    double seconds = -1;
    if (segment.acceleration == 0) {
      seconds = segment.speed > 0 ? distance / segment.speed : -1;
    } else {
      // The first time that v t + a t²/2 is the distance.
      const double root = segment.speed * segment.speed + 2 * segment.acceleration * distance;
      seconds = root < 0 ? -1 : (std::sqrt(root) - segment.speed) / segment.acceleration;
    }
    if (seconds < 0 || seconds > segment.seconds) {
      continue;
    }
    const Time moment = segment.begin + toTime(seconds);
    if (moment >= now) {
      return moment;
    }
  }
  return std::nullopt;
}

void StepperMotion::restart(Time now) {
  last_ = at(now);
  last_.busy = false;
  segments_.clear();
  Segment origin;  // carries the time the plan begins at
  origin.begin = now;
  origin.seconds = 0;
  origin.position = last_.position;
  origin.direction = last_.direction;
  segments_.push_back(origin);
}

void StepperMotion::add(Segment segment) {
  segment.begin = endOf(segments_.back());
  segment.position = last_.position;
  segment.direction = last_.direction;
  if (segment.seconds > 0) {
    segments_.push_back(segment);
  }
  const bool endless = std::isinf(segment.seconds);
  last_ = stateIn(segment, endless ? 0 : segment.seconds);
}

void StepperMotion::rampTo(const Profile& profile, double speed) {
  const bool up = speed > last_.speed;
  const double rate = up ? profile.acceleration : profile.deceleration;
  Segment segment;
  segment.speed = last_.speed;
  segment.phase = up ? Phase::Accelerating : Phase::Decelerating;
  segment.acceleration = up ? rate : -rate;
  segment.seconds = std::abs(speed - last_.speed) / rate;
  if (std::isinf(rate)) {
    segment.acceleration = 0;
    segment.seconds = 0;
  }
  add(segment);
  last_.speed = speed;
}

void StepperMotion::cruise(double distance) {
  Segment segment;
  segment.speed = last_.speed;
  segment.phase = Phase::Constant;
  segment.seconds = distance / last_.speed;
  add(segment);
}

void StepperMotion::finish() {
  last_.speed = 0;
  last_.phase = Phase::Stopped;
  last_.busy = false;
}

void StepperMotion::run(Time now, const Profile& profile, int direction, double speed) {
  restart(now);
  if (last_.speed > 0 && last_.direction != direction) {
    rampTo(profile, std::min(last_.speed, profile.minSpeed));
    last_.speed = 0;
  }
  last_.direction = direction;
  if (last_.speed == 0) {
    last_.speed = std::min(profile.minSpeed, speed);
  }
  rampTo(profile, speed);
  if (speed > 0) {
    Segment steady;
    steady.speed = speed;
    steady.busy = false;
    add(steady);
  } else {
    finish();
  }
}

void StepperMotion::moveTo(Time now, const Profile& profile, double target) {
  restart(now);
  const auto rampLength = [](double from, double to, double rate) {
    return std::isinf(rate) ? 0 : (to * to - from * from) / (2 * rate);
  };
  const double floor = profile.minSpeed;
  if (last_.speed > 0) {
    const double ahead = (target - last_.position) * last_.direction;
    const double needed =
        rampLength(std::min(floor, last_.speed), last_.speed, profile.deceleration);
    if (ahead < needed) {
      rampTo(profile, std::min(floor, last_.speed));
      last_.speed = 0;
    }
  }
  if (last_.position == target && last_.speed == 0) {
    finish();
    return;
  }
  if (last_.speed == 0) {
    last_.direction = target > last_.position ? 1 : -1;
    last_.speed = floor;
  } else if (last_.speed > profile.maxSpeed) {
    rampTo(profile, profile.maxSpeed);
  }
  // The two ramps meet at the peak, or a stretch at full speed lies between them:
  //   (peak² - v²) / 2a + (peak² - floor²) / 2d = distance
  const double distance = std::abs(target - last_.position);
  const double up = std::isinf(profile.acceleration) ? 0 : 1 / (2 * profile.acceleration);
  const double down = std::isinf(profile.deceleration) ? 0 : 1 / (2 * profile.deceleration);
  double peak = profile.maxSpeed;
  if (up + down > 0) {
    const double energy = distance + last_.speed * last_.speed * up + floor * floor * down;
    peak = std::min(peak, std::sqrt(energy / (up + down)));
  }
  peak = std::max(peak, last_.speed);
  const double end = std::min(floor, peak);
  const double ramps = rampLength(last_.speed, peak, profile.acceleration) +
                       rampLength(end, peak, profile.deceleration);
  rampTo(profile, peak);
  cruise(std::max(0.0, distance - ramps));
  rampTo(profile, end);
  last_.position = target;
  finish();
}

void StepperMotion::softStop(Time now, const Profile& profile) {
  restart(now);
  if (last_.speed > 0) {
    rampTo(profile, std::min(profile.minSpeed, last_.speed));
  }
  last_.position = std::round(last_.position);
  finish();
}

void StepperMotion::hardStop(Time now) {
  restart(now);
  last_.position = std::round(last_.position);
  finish();
}

void StepperMotion::step(Time now, int direction) {
  restart(now);
  last_.direction = direction;
  last_.position += direction;
}

}  // namespace vboard
