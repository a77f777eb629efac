// SPDX-License-Identifier: MIT
// What a stepper controller does: motions, the switch, alarms. StepperChip.cpp has the interface
// that the commands come in by.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "vboard/board/Board.h"
#include "vboard/chips/StepperChip.h"
#include "vboard/chips/StepperCodes.h"
#include "vboard/chips/StepperMotor.h"

namespace vboard {

namespace {

using std::chrono::nanoseconds;

constexpr uint32_t kNoRamps = 0xFFF;                // in ACC
constexpr uint32_t kLowSpeedOptimisation = 0x1000;  // in MIN_SPEED
constexpr double kSlowestRelease = 5;               // steps/s

constexpr uint32_t kSwitchIsUsers = 0x10;   // SW_MODE in CONFIG
constexpr uint32_t kOverCurrentOff = 0x80;  // OC_SD in CONFIG

// Of STATUS, common to both chips.
constexpr uint16_t kStatusHighZ = 0x0001;
constexpr uint16_t kStatusNotBusy = 0x0002;
constexpr uint16_t kStatusSwitchClosed = 0x0004;
constexpr uint16_t kStatusSwitchEvent = 0x0008;
constexpr uint16_t kStatusForward = 0x0010;
constexpr unsigned kStatusMotion = 5;

std::string steps(double stepsPerSecond) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f steps/s", stepsPerSecond);
  return text;
}

const char* nameOf(int direction) {
  return direction > 0 ? "forward" : "reverse";
}

}  // namespace

unsigned StepperChip::stepSelect() const {
  return values_[stepper::kStepMode] & 7U;
}

double StepperChip::microstepsPerStep() const {
  return 1U << stepSelect();
}

StepperMotion::Profile StepperChip::profile() const {
  const double scale = microstepsPerStep();
  StepperMotion::Profile profile;
  // A rate of 0 would never get anywhere; the least one that the register can hold stands in.
  profile.acceleration = std::max(1U, values_[stepper::kAcc]) * stepper::kAccUnit * scale;
  profile.deceleration = std::max(1U, values_[stepper::kDec]) * stepper::kAccUnit * scale;
  if (values_[stepper::kAcc] == kNoRamps) {
    profile.acceleration = std::numeric_limits<double>::infinity();
    profile.deceleration = std::numeric_limits<double>::infinity();
  }
  profile.maxSpeed = values_[stepper::kMaxSpeed] * stepper::kMaxSpeedUnit * scale;
  if ((values_[stepper::kMinSpeed] & kLowSpeedOptimisation) == 0) {
    profile.minSpeed = std::min(
        (values_[stepper::kMinSpeed] & 0xFFFU) * stepper::kMinSpeedUnit * scale, profile.maxSpeed);
  }
  return profile;
}

StepperMotion::State StepperChip::state() const {
  return motion_.at(now());
}

int64_t StepperChip::count() const {
  return std::llround(state().position);
}

int32_t StepperChip::absolutePosition() const {
  const int64_t wrapped = (count() + absoluteOffset_) & stepper::kPositionMask;
  return static_cast<int32_t>(wrapped >= stepper::kPositions / 2 ? wrapped - stepper::kPositions
                                                                 : wrapped);
}

void StepperChip::setAbsolutePosition(uint32_t value) {
  absoluteOffset_ = static_cast<int64_t>(value & stepper::kPositionMask) - count();
}

double StepperChip::electrical() const {
  return electricalOffset_ +
         static_cast<double>(count()) * stepper::kElectricalPerStep / microstepsPerStep();
}

void StepperChip::setElectrical(double position) {
  electricalOffset_ += position - electrical();
}

std::optional<Time> StepperChip::whenElectrical(double position) const {
  // The count changes half-way between two microsteps, and a hair later for sure.
  constexpr nanoseconds kHair(1);
  const double place =
      (position - electricalOffset_) / stepper::kElectricalPerStep * microstepsPerStep();
  const auto below = motion_.whenAt(now(), std::floor(place) + 0.5);
  const auto above = motion_.whenAt(now(), std::ceil(place) - 0.5);
  if (!below || !above) {
    return below ? *below + kHair : above ? std::optional(*above + kHair) : std::nullopt;
  }
  return std::min(*below, *above) + kHair;
}

bool StepperChip::mayMove(const char* name) {
  if (!bridgesBlocked()) {
    return true;
  }
  refuse("command-refused", std::string(name) + ": an alarm keeps the bridges off");
  return false;
}

void StepperChip::begin(Motion motion) {
  motionKind_ = motion;
  highZ_ = false;
  highZAfterStop_ = false;
  stepClock_ = false;
  stck_.setAttentive(false);
  plan();
  motionChanged();
  causesChanged();
}

// The motion at hand from here on, as it began or with what has changed since.
void StepperChip::plan() {
  const StepperMotion::Profile ramps = profile();
  double speed = std::min(runSpeed_ * microstepsPerStep(), ramps.maxSpeed);
  switch (motionKind_) {
    case Motion::Run:
    case Motion::GoUntil:
      motion_.run(now(), ramps, runDirection_, std::max(speed, ramps.minSpeed));
      break;
    case Motion::ReleaseSwitch:
      motion_.run(now(), ramps, runDirection_,
                  std::max(ramps.minSpeed, kSlowestRelease * microstepsPerStep()));
      break;
    case Motion::Position: motion_.moveTo(now(), ramps, target_); break;
    case Motion::Stopping: motion_.softStop(now(), ramps); break;
    case Motion::None: break;
  }
}

void StepperChip::run(int direction, uint32_t speedCode) {
  if (!mayMove("Run")) {
    return;
  }
  runSpeed_ = speedCode * stepper::kSpeedUnit;
  runDirection_ = direction;
  begin(Motion::Run);
  if (observed()) {
    note(std::string("runs ") + nameOf(direction) + " at " + steps(runSpeed_));
  }
}

void StepperChip::goUntil(int direction, bool mark, uint32_t speedCode) {
  if (!mayMove("GoUntil")) {
    return;
  }
  runSpeed_ = speedCode * stepper::kSpeedUnit;
  runDirection_ = direction;
  markOnSwitch_ = mark;
  begin(Motion::GoUntil);
}

void StepperChip::releaseSwitch(int direction, bool mark) {
  if (!mayMove("ReleaseSW") || sw_.high()) {
    return;  // an open switch is released already
  }
  runDirection_ = direction;
  markOnSwitch_ = mark;
  begin(Motion::ReleaseSwitch);
}

void StepperChip::moveBy(int direction, uint32_t microsteps) {
  if (moving()) {
    refuse("command-refused", "Move: the motor is turning");
    return;
  }
  if (!mayMove("Move")) {
    return;
  }
  target_ = static_cast<double>(count() + direction * static_cast<int64_t>(microsteps));
  begin(Motion::Position);
  if (observed()) {
    note(std::string("moves ") + nameOf(direction) + " by " + std::to_string(microsteps) +
         " microsteps");
  }
}

// A direction of 0 is the shorter way; half the circle goes reverse.
void StepperChip::goTo(uint32_t target, int direction, const char* name) {
  if (busyNow()) {
    refuse("command-refused", std::string(name) + ": the command before is still being performed");
    return;
  }
  if (!mayMove(name)) {
    return;
  }
  const int64_t ahead =
      (static_cast<int64_t>(target & stepper::kPositionMask) - absolutePosition()) &
      stepper::kPositionMask;
  const int64_t back = ahead == 0 ? 0 : ahead - stepper::kPositions;
  const bool forward = direction == 0 ? ahead < -back : direction > 0;
  target_ = static_cast<double>(count() + (forward ? ahead : back));
  begin(Motion::Position);
  if (observed()) {
    note(std::string(name) + " from " + std::to_string(absolutePosition()) + " by " +
         std::to_string(forward ? ahead : back) + " microsteps");
  }
}

void StepperChip::stepClock(int direction) {
  if (moving()) {
    refuse("command-refused", "StepClock: the motor is turning");
    return;
  }
  if (!mayMove("StepClock")) {
    return;
  }
  begin(Motion::None);
  stepClock_ = true;
  stepDirection_ = direction;
  runDirection_ = direction;
  stck_.setAttentive(true);
}

void StepperChip::resetDevice() {
  if (resetNeedsHighZ_ && !highZ_) {
    refuse("command-refused", "ResetDevice: the bridges are on");
    return;
  }
  reset();
}

void StepperChip::getStatus() {
  answer(statusWord(), 2);
  latched_ = presentCauses();
  refreshPins();
}

void StepperChip::stop(bool ramp, bool thenHighZ) {
  stepClock_ = false;
  stck_.setAttentive(false);
  if (ramp && moving()) {
    motionKind_ = Motion::Stopping;
    highZAfterStop_ = thenHighZ;
    plan();
  } else {
    motion_.hardStop(now());
    motionKind_ = Motion::None;
    highZ_ = thenHighZ || bridgesBlocked();
  }
  motionChanged();
  causesChanged();
}

bool StepperChip::busyNow() const {
  return motionKind_ == Motion::GoUntil || motionKind_ == Motion::ReleaseSwitch || state().busy;
}

void StepperChip::motionChanged() {
  if (event_) {
    clock().cancel(*event_);
    event_.reset();
  }
  if (motionKind_ != Motion::None && motionKind_ != Motion::Run && !moving()) {
    motionKind_ = Motion::None;
    highZ_ = highZ_ || highZAfterStop_;
  }
  if (moving()) {
    runDirection_ = motionKind_ == Motion::Position ? state().direction : runDirection_;
    if (const auto next = motion_.nextChange(now())) {
      event_ = at(*next, [this] { motionEvent(); });
    }
  }
  if (StepperMotor* driven = motor()) {
    driven->driveChanged();
  }
  refreshPins();
}

void StepperChip::motionEvent() {
  event_.reset();
  motionChanged();
  if (observed()) {
    static constexpr const char* kPhases[] = {"stands still", "accelerates", "slows down",
                                              "turns steadily"};
    note(std::string(kPhases[static_cast<int>(state().phase)]) + " at position " +
         std::to_string(absolutePosition()));
  }
}

void StepperChip::switchChanged(Level level) {
  if (level == Level::High) {
    if (motionKind_ == Motion::ReleaseSwitch) {
      takeSwitchedPosition();
      stop(false, false);
    }
    refreshPins();
    return;
  }
  raise(kSwitch);
  const bool users = (values_[traits_.configAddress] & kSwitchIsUsers) != 0;
  if (motionKind_ == Motion::GoUntil) {
    takeSwitchedPosition();
    stop(users, false);
  } else if (!users && motionKind_ != Motion::ReleaseSwitch) {
    stop(false, false);
  }
}

void StepperChip::takeSwitchedPosition() {
  if (markOnSwitch_) {
    values_[stepper::kMark] = static_cast<uint32_t>(absolutePosition()) & stepper::kPositionMask;
  } else {
    setAbsolutePosition(0);
  }
}

uint16_t StepperChip::presentCauses() const {
  unsigned causes = 0;
  causes |= overCurrent_ && !highZ_ ? kOverCurrent : 0U;
  causes |= thermal_ >= Thermal::Warning ? kThermalWarning : 0U;
  causes |= thermal_ >= Thermal::BridgeShutdown ? kThermalShutdown : 0U;
  causes |= thermal_ >= Thermal::DeviceShutdown ? kDeviceShutdown : 0U;
  causes |= supply_ < traits_.supplyMin ? kUndervoltage : 0U;
  causes |= adc_ < traits_.adcMin ? kAdcUndervoltage : 0U;
  const StepperMotor* driven = motor();
  if (noticesStalls() && driven != nullptr && driven->stalled() && moving()) {
    causes |= kStallA | kStallB;
  }
  return static_cast<uint16_t>(causes);
}

void StepperChip::raise(uint16_t alarms) {
  latched_ = static_cast<uint16_t>(latched_ | alarms);
  refreshPins();
}

bool StepperChip::bridgesBlocked() const {
  const bool shorted =
      latched(kOverCurrent) && (values_[traits_.configAddress] & kOverCurrentOff) != 0;
  return shorted || thermal_ >= Thermal::BridgeShutdown || supply_ < traits_.supplyMin;
}

void StepperChip::causesChanged() {
  raise(presentCauses());
  if (bridgesBlocked() && !highZ_) {
    motion_.hardStop(now());
    motionKind_ = Motion::None;
    stepClock_ = false;
    highZ_ = true;
    motionChanged();
  }
}

uint16_t StepperChip::commonStatusBits() const {
  const StepperMotion::State now = state();
  unsigned bits = static_cast<unsigned>(now.phase) << kStatusMotion;
  bits |= highZ_ ? kStatusHighZ : 0U;
  bits |= busyNow() ? 0U : kStatusNotBusy;
  bits |= sw_.high() ? 0U : kStatusSwitchClosed;
  bits |= latched(kSwitch) ? kStatusSwitchEvent : 0U;
  const int direction = now.phase == StepperMotion::Phase::Stopped ? runDirection_ : now.direction;
  bits |= direction > 0 ? kStatusForward : 0U;
  return static_cast<uint16_t>(bits);
}

uint16_t StepperChip::alarmsOf(std::span<const uint16_t, 8> ofBit, uint32_t bits) {
  unsigned alarms = 0;
  for (size_t bit = 0; bit < ofBit.size(); ++bit) {
    alarms |= ((bits >> bit) & 1U) != 0 ? ofBit[bit] : 0U;
  }
  return static_cast<uint16_t>(alarms);
}

void StepperChip::refreshPins() {
  const bool alarm = (latched_ & enabledAlarms()) != 0;
  flag_.drive(alarm && !asleep_ ? Drive::Low : Drive::Floating);
  busy_.drive(busyNow() && !asleep_ ? Drive::Low : Drive::Floating);
}

StepperMotor* StepperChip::motor() const {
  if (out_.net() == nullptr) {
    return nullptr;
  }
  for (const Pin* other : out_.net()->pins()) {
    if (auto* found = dynamic_cast<StepperMotor*>(&other->part())) {
      return found;
    }
  }
  return nullptr;
}

}  // namespace vboard
