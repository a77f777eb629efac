// SPDX-License-Identifier: MIT
#include "vboard/chips/StepperMotor.h"

#include <cmath>

#include "vboard/board/Board.h"
#include "vboard/chips/Knobs.h"
#include "vboard/chips/StepperChip.h"
#include "vboard/chips/StepperCodes.h"

namespace vboard {

namespace {

constexpr double kCycle = 4;     // full steps after which field and shaft fit again
constexpr double kStallLag = 2;  // full steps the field may run ahead
constexpr double kMost = 1e9;
constexpr double kHair = 1e-6;  // rounding does not count

}  // namespace

StepperMotor::StepperMotor(std::string name)
    : Part(std::string(kType), std::move(name)),
      phases_(addQuietInput("PHASES", Level::Low)),
      limit_(addOutput("LIMIT")) {
  addProperties();
}

void StepperMotor::setBlocked(bool blocked) {
  const auto guard = lock();
  if (blocked == blocked_) {
    return;
  }
  if (blocked) {
    heldAt_ = shaft();
  } else {
    lost_ = std::round((field() - heldAt_) / kCycle) * kCycle;
  }
  blocked_ = blocked;
  stalled_ = false;
  driveChanged();
}

void StepperMotor::setStepsPerTurn(double steps) {
  const auto guard = lock();
  stepsPerTurn_ = steps;
}

void StepperMotor::setLimitBelow(double steps) {
  const auto guard = lock();
  limitBelow_ = steps;
  driveChanged();
}

void StepperMotor::setLimitAbove(double steps) {
  const auto guard = lock();
  limitAbove_ = steps;
  driveChanged();
}

double StepperMotor::position() const {
  const auto guard = lock();
  return shaft();
}

double StepperMotor::angle() const {
  const auto guard = lock();
  const double turns = shaft() / stepsPerTurn_;
  return 360 * (turns - std::floor(turns));
}

double StepperMotor::lostSteps() const {
  const auto guard = lock();
  return field() - shaft();
}

bool StepperMotor::limitClosed() const {
  const auto guard = lock();
  return closedAt(shaft());
}

bool StepperMotor::stalled() const {
  const auto guard = lock();
  return stalled_;
}

void StepperMotor::powerUp() {
  event_.reset();
  driveChanged();
}

StepperChip* StepperMotor::controller() const {
  if (phases_.net() == nullptr) {
    return nullptr;
  }
  for (const Pin* other : phases_.net()->pins()) {
    if (auto* found = dynamic_cast<StepperChip*>(&other->part())) {
      return found;
    }
  }
  return nullptr;
}

double StepperMotor::field() const {
  const StepperChip* driver = controller();
  return driver == nullptr ? 0 : driver->electrical() / stepper::kElectricalPerStep;
}

double StepperMotor::shaft() const {
  return blocked_ ? heldAt_ : field() - lost_;
}

bool StepperMotor::closedAt(double position) const {
  return (limitBelow_ && position <= *limitBelow_ + kHair) ||
         (limitAbove_ && position >= *limitAbove_ - kHair);
}

void StepperMotor::showLimit() {
  limit_.drive(closedAt(shaft()) ? Drive::Low : Drive::Floating);
}

void StepperMotor::driveChanged() {
  checkStall();
  showLimit();
  watch();
}

void StepperMotor::checkStall() {
  StepperChip* driver = controller();
  if (!blocked_ || stalled_ || driver == nullptr ||
      std::abs(field() - lost_ - heldAt_) < kStallLag - kHair) {
    return;
  }
  stalled_ = true;
  if (observed()) {
    note("stalled");
  }
  driver->causesChanged();
}

// Waits for the next moment at which the switch or the stall may change.
void StepperMotor::watch() {
  if (event_) {
    clock().cancel(*event_);
    event_.reset();
  }
  const StepperChip* driver = controller();
  if (driver == nullptr || !driver->powered()) {
    return;
  }
  std::optional<Time> next;
  const auto consider = [&](double fieldPosition) {
    const auto moment = driver->whenElectrical(fieldPosition * stepper::kElectricalPerStep);
    if (moment && (!next || *moment < *next)) {
      next = moment;
    }
  };
  if (blocked_) {
    if (!stalled_) {
      consider(heldAt_ + lost_ + kStallLag);
      consider(heldAt_ + lost_ - kStallLag);
    }
  } else {
    for (const auto& bound : {limitBelow_, limitAbove_}) {
      if (bound) {
        consider(*bound + lost_);
      }
    }
  }
  if (next) {
    event_ = at(*next, [this] {
      event_.reset();
      driveChanged();
    });
  }
}

void StepperMotor::addProperties() {
  const auto limit = [this](const char* name, const char* help, const std::optional<double>& bound,
                            auto set) {
    addProperty({name, "steps", help,
                 [this, &bound]() -> PropertyValue {
                   const auto guard = lock();
                   return bound ? PropertyValue(*bound) : PropertyValue(std::string("never"));
                 },
                 numberSetter(-kMost, kMost, set), false});
  };
  addProperty(boolProperty(
      "blocked", "whether something holds the shaft, false unless set", [this] { return blocked_; },
      [this](bool value) { setBlocked(value); }));
  addProperty({"steps_per_turn", "steps", "full steps of one turn, 200 unless set",
               [this]() -> PropertyValue { return stepsPerTurn_; },
               numberSetter(1, kMost, [this](double value) { setStepsPerTurn(value); }), false});
  limit("limit_below", "the switch is closed at and below this position; never unless set",
        limitBelow_, [this](double value) { setLimitBelow(value); });
  limit("limit_above", "the switch is closed at and above this position; never unless set",
        limitAbove_, [this](double value) { setLimitAbove(value); });
  const auto meter = [this](const char* name, const char* unit, const char* help, auto get) {
    addProperty({name, unit, help, [get]() -> PropertyValue { return get(); }, {}, true});
  };
  meter("position", "steps", "where the shaft is", [this] { return position(); });
  meter("angle", "deg", "where the shaft is in its turn", [this] { return angle(); });
}

}  // namespace vboard
