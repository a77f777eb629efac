// SPDX-License-Identifier: MIT
#include "vboard/chips/StepperChip.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"
#include "vboard/chips/StepperCodes.h"
#include "vboard/chips/StepperMotor.h"

namespace vboard {

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

constexpr uint8_t kNop = 0x00;
constexpr uint8_t kSetParam = 0x00;
constexpr uint8_t kGetParam = 0x20;
constexpr uint8_t kAddressMask = 0x1F;
constexpr uint8_t kMove = 0x40;
constexpr uint8_t kRun = 0x50;
constexpr uint8_t kStepClock = 0x58;
constexpr uint8_t kGoTo = 0x60;
constexpr uint8_t kGoToDir = 0x68;
constexpr uint8_t kGoHome = 0x70;
constexpr uint8_t kGoMark = 0x78;
constexpr uint8_t kGoUntil = 0x82;
constexpr uint8_t kReleaseSwitch = 0x92;
constexpr uint8_t kSoftHighZ = 0xA0;
constexpr uint8_t kHardHighZ = 0xA8;
constexpr uint8_t kSoftStop = 0xB0;
constexpr uint8_t kHardStop = 0xB8;
constexpr uint8_t kResetDevice = 0xC0;
constexpr uint8_t kGetStatus = 0xD0;
constexpr uint8_t kResetPos = 0xD8;
constexpr uint8_t kForward = 0x01;  // in the commands with a direction
constexpr uint8_t kToMark = 0x08;   // in GoUntil and ReleaseSW

constexpr uint32_t kExternalClock = 0x04;  // OSC_SEL 4 to 7, with and without EXT_CLK

constexpr nanoseconds kSelectSetup(350);
constexpr microseconds kResetPulse(10);
constexpr microseconds kWakeTime(45);
constexpr double kAdcReference = 3.3;

uint8_t bytesOf(uint8_t bits) {
  return static_cast<uint8_t>((bits + 7) / 8);
}

uint32_t maskOf(uint8_t bits) {
  return (1U << bits) - 1;
}

// A pin of another stepper chip on the same wire.
StepperChip* chipBehind(const Pin& pin, std::string_view pinName) {
  if (pin.net() == nullptr) {
    return nullptr;
  }
  for (const Pin* other : pin.net()->pins()) {
    if (other != &pin && other->name() == pinName) {
      if (auto* chip = dynamic_cast<StepperChip*>(&other->part())) {
        return chip;
      }
    }
  }
  return nullptr;
}

}  // namespace

StepperChip::StepperChip(std::string_view type, std::string name, const Registers& registers,
                         Traits traits)
    : SpiChip(std::string(type), std::move(name)),
      registers_(registers),
      traits_(traits),
      cs_(addInput("CS", Level::High)),
      ck_(addInput("CK", Level::High)),
      sdi_(addQuietInput("SDI", Level::Low)),
      sdo_(addOutput("SDO")),
      stby_(addInput("STBY", Level::High)),
      flag_(addOutput("FLAG")),
      busy_(addOutput("BUSY")),
      sw_(addInput("SW", Level::High)),
      stck_(addInput("STCK", Level::Low)),
      out_(addQuietInput("OUT", Level::Low)),
      resetNeedsHighZ_(traits.resetNeedsHighZ) {
  limits_.modes = 0b1000;
  limits_.maxHz = 5000000;
  ck_.setAttentive(false);
  stck_.setAttentive(false);
  sw_.setBias(Pull::Up);
  addProperties();
}

void StepperChip::setSupply(double volts) {
  const auto guard = lock();
  supply_ = volts;
  causesChanged();
}

void StepperChip::setAdcInput(double volts) {
  const auto guard = lock();
  adc_ = volts;
  causesChanged();
}

void StepperChip::setOverCurrent(bool present) {
  const auto guard = lock();
  overCurrent_ = present;
  causesChanged();
}

void StepperChip::setThermal(Thermal level) {
  const auto guard = lock();
  thermal_ = level;
  causesChanged();
}

void StepperChip::setExternalClock(bool present) {
  const auto guard = lock();
  externalClock_ = present;
}

void StepperChip::setReadOnlyWrite(ReadOnlyWrite reaction) {
  const auto guard = lock();
  readOnlyWrite_ = reaction;
}

void StepperChip::setResetNeedsHighZ(bool needed) {
  const auto guard = lock();
  resetNeedsHighZ_ = needed;
}

void StepperChip::setSelectHighTime(Time time) {
  const auto guard = lock();
  selectHighTime_ = time;
}

int32_t StepperChip::position() const {
  const auto guard = lock();
  return absolutePosition();
}

double StepperChip::speed() const {
  const auto guard = lock();
  return state().speed / microstepsPerStep();
}

bool StepperChip::busy() const {
  const auto guard = lock();
  return busyNow();
}

bool StepperChip::highZ() const {
  const auto guard = lock();
  return highZ_;
}

uint16_t StepperChip::status() const {
  const auto guard = lock();
  return statusWord();
}

uint32_t StepperChip::registerValue(uint8_t address) const {
  const auto guard = lock();
  return address < registers_.size() ? liveValue(address) : 0;
}

uint64_t StepperChip::commands() const {
  const auto guard = lock();
  return commands_;
}

void StepperChip::powerUp() {
  selected_ = false;
  deselectedAt_ = kNever;
  asleep_ = !stby_.high();
  sleptAt_ = now();
  awakeAt_ = now();
  event_.reset();
  reset();
}

void StepperChip::powerLost() {
  motion_.hardStop(now());
  motionKind_ = Motion::None;
  highZ_ = true;
  if (StepperMotor* driven = motor()) {
    driven->driveChanged();
  }
}

void StepperChip::reset() {
  motion_.hardStop(now());
  motionKind_ = Motion::None;
  highZAfterStop_ = false;
  // EL_POS becomes 0: the field jumps to the nearest place that has this number.
  const double field =
      std::round(electrical() / stepper::kElectricalCycle) * stepper::kElectricalCycle;
  for (size_t address = 0; address < registers_.size(); ++address) {
    values_[address] = registers_[address].reset;
  }
  setElectrical(field);
  absoluteOffset_ = -count();
  latched_ = alarmsAtReset();
  highZ_ = true;
  stepClock_ = false;
  stepDirection_ = 1;
  runDirection_ = -1;
  clockLost_ = false;
  argumentsLeft_ = 0;
  replyLeft_ = 0;
  replyByte_ = 0;
  raise(presentCauses());
  // A switch that is closed counts as just closed, which ends the high-impedance state.
  if (!asleep_ && !sw_.high()) {
    switchChanged(Level::Low);
  }
  motionChanged();
}

void StepperChip::pinChanged(Pin& pin, Level level) {
  const bool high = level == Level::High;
  if (&pin == &ck_) {
    if (high) {
      shift_ = shiftedIn(shift_, sdi_.high());
      ++clocks_;
    } else {
      checkSetup();
      sdo_.drive((shift_ & 0x80U) != 0 ? Drive::High : Drive::Low);
    }
  } else if (&pin == &cs_) {
    high ? deselect() : select();
  } else if (&pin == &sw_) {
    if (!asleep_) {
      switchChanged(level);
    }
  } else if (&pin == &stby_) {
    standbyChanged(level);
  } else if (&pin == &stck_ && high && stepClock_) {
    motion_.step(now(), stepDirection_);
    motionChanged();
  }
}

void StepperChip::standbyChanged(Level level) {
  if (level == Level::Low) {
    asleep_ = true;
    sleptAt_ = now();
    reset();
    return;
  }
  const Time low = now() - sleptAt_;
  if (low < kResetPulse && (low > Time{0} || board().options().callCost > Time{0})) {
    violate("reset-too-short", "STBY low for " + std::to_string(low.count()) +
                                   " ns, at least 10000 ns for a sure reset");
  }
  asleep_ = false;
  awakeAt_ = now() + kWakeTime;
  reset();
}

void StepperChip::select() {
  selected_ = true;
  selectedAt_ = now();
  clocks_ = 0;
  shift_ = replyByte_;
  ck_.setAttentive(true);
  if (deselectedAt_ == kNever) {
    return;
  }
  const Time high = selectedAt_ - deselectedAt_;
  // A board without call costs can't tell how long the select stood high.
  const bool known = high > Time{0} || board().options().callCost > Time{0};
  if (known && high < selectHighTime_) {
    violate("select-high-too-short", "CS high for " + std::to_string(high.count()) +
                                         " ns between bytes, at least " +
                                         std::to_string(selectHighTime_.count()) + " ns");
  }
}

void StepperChip::checkSetup() {
  const Time setup = now() - selectedAt_;
  if (clocks_ == 0 && setup < kSelectSetup) {
    violate("select-setup-too-short", "first clock edge " + std::to_string(setup.count()) +
                                          " ns after CS fell, at least " +
                                          std::to_string(kSelectSetup.count()) + " ns");
  }
}

void StepperChip::deselect() {
  const bool clocked = selected_ && clocks_ > 0;
  selected_ = false;
  deselectedAt_ = now();
  ck_.setAttentive(false);
  sdo_.drive(Drive::Floating);
  if (!clocked) {
    return;
  }
  checkFrame();
  if (clocks_ >= 8 && hears()) {
    receive(shift_);
  }
}

void StepperChip::checkFrame() {
  if (chainVersion_ != board().wiringVersion()) {
    chainVersion_ = board().wiringVersion();
    chain_ = chainLength();
  }
  if (clocks_ == 8 * chain_) {
    return;
  }
  std::string text = std::to_string(clocks_) + " clocks in one select, " +
                     std::to_string(8 * chain_) + " expected";
  if (clocks_ > 8) {
    text += ": only the last byte, " + hexText(shift_) + ", counts";
  }
  violate("frame-length", std::move(text));
}

uint32_t StepperChip::chainLength() const {
  constexpr uint32_t kLongest = 64;
  uint32_t chips = 1;
  for (const StepperChip* chip = chipBehind(sdi_, "SDO"); chip != nullptr && chips < kLongest;
       chip = chipBehind(chip->sdi_, "SDO")) {
    ++chips;
  }
  for (const StepperChip* chip = chipBehind(sdo_, "SDI"); chip != nullptr && chips < kLongest;
       chip = chipBehind(chip->sdo_, "SDI")) {
    ++chips;
  }
  return chips;
}

bool StepperChip::hears() {
  if (asleep_ || now() < awakeAt_) {
    violate("not-awake", asleep_ ? "a byte came while STBY is low"
                                 : "a byte came less than 45 us after STBY rose");
    return false;
  }
  return !clockLost_;
}

void StepperChip::receive(uint8_t byte) {
  // The byte that went out during this select is gone; what comes next is decided here.
  if (argumentsLeft_ > 0) {
    argument_ = (argument_ << 8U) | byte;
    if (--argumentsLeft_ == 0) {
      execute();
    }
  } else {
    decode(byte);
  }
  replyByte_ = 0;
  if (replyLeft_ > 0) {
    --replyLeft_;
    replyByte_ = static_cast<uint8_t>(reply_ >> (8U * replyLeft_));
  }
}

void StepperChip::expectArguments(uint8_t command, uint8_t count) {
  command_ = command;
  argumentsLeft_ = count;
  argument_ = 0;
}

void StepperChip::answer(uint32_t value, uint8_t bytes) {
  reply_ = value;
  replyLeft_ = bytes;
}

void StepperChip::decode(uint8_t byte) {
  if (byte == kNop) {
    return;
  }
  ++commands_;
  const int direction = (byte & kForward) != 0 ? 1 : -1;
  switch (byte & ~kForward & 0xFF) {
    case kMove:
    case kRun:
    case kGoToDir:
    case kGoUntil:
    case kGoUntil | kToMark: expectArguments(byte, 3); return;
    case kReleaseSwitch:
    case kReleaseSwitch | kToMark: releaseSwitch(direction, (byte & kToMark) != 0); return;
    case kStepClock: stepClock(direction); return;
    default: break;
  }
  switch (byte) {
    case kGoTo: expectArguments(byte, 3); return;
    case kGoHome: goTo(0, 0, "GoHome"); return;
    case kGoMark: goTo(values_[stepper::kMark], 0, "GoMark"); return;
    case kSoftStop:
    case kSoftHighZ: stop(true, byte == kSoftHighZ); return;
    case kHardStop:
    case kHardHighZ: stop(false, byte == kHardHighZ); return;
    case kResetDevice: resetDevice(); return;
    case kGetStatus: getStatus(); return;
    case kResetPos: setAbsolutePosition(0); return;
    default: decodeParameter(byte);
  }
}

void StepperChip::decodeParameter(uint8_t byte) {
  if (byte >= kMove) {
    wrongCommand(byte, "is no command");
    return;
  }
  const uint8_t address = byte & kAddressMask;
  const Register& entry = registers_[address];
  if (entry.access == Access::Missing) {
    wrongCommand(byte, "names a register that does not exist");
  } else if ((byte & kGetParam) != 0) {
    answer(liveValue(address), bytesOf(entry.bits));
  } else if (entry.access == Access::ReadOnly && readOnlyWrite_ == ReadOnlyWrite::WrongCommand) {
    wrongCommand(byte, "writes a read-only register: its data bytes are taken as commands");
  } else {
    expectArguments(kSetParam | address, bytesOf(entry.bits));
  }
}

void StepperChip::execute() {
  const int direction = (command_ & kForward) != 0 ? 1 : -1;
  switch (command_ & ~kForward & 0xFF) {
    case kMove: moveBy(direction, argument_ & stepper::kPositionMask); return;
    case kRun: run(direction, argument_ & 0xFFFFFU); return;
    case kGoTo: goTo(argument_, 0, "GoTo"); return;
    case kGoToDir: goTo(argument_, direction, "GoTo_DIR"); return;
    case kGoUntil:
    case kGoUntil | kToMark:
      goUntil(direction, (command_ & kToMark) != 0, argument_ & 0xFFFFFU);
      return;
    default: writeRegister(command_, argument_);
  }
}

void StepperChip::wrongCommand(uint8_t byte, const char* why) {
  violate("unknown-command", hexText(byte) + " " + why);
  raise(kWrongCommand);
}

void StepperChip::refuse(std::string_view rule, std::string text) {
  violate(rule, std::move(text));
  raise(kNotPerformed);
}

uint32_t StepperChip::liveValue(uint8_t address) const {
  const uint32_t mask = maskOf(registers_[address].bits);
  if (address == traits_.statusAddress) {
    return statusWord();
  }
  switch (address) {
    case stepper::kAbsPos: return static_cast<uint32_t>(absolutePosition()) & mask;
    case stepper::kElPos: return static_cast<uint32_t>(std::llround(electrical())) & mask;
    case stepper::kSpeed:
      return static_cast<uint32_t>(state().speed / microstepsPerStep() / stepper::kSpeedUnit) &
             mask;
    case stepper::kAdcOut:
      return static_cast<uint32_t>(std::clamp(adc_ / kAdcReference * 32, 0.0, 31.0));
    default: return values_[address];
  }
}

bool StepperChip::mayWrite(uint8_t address) const {
  switch (accessOf(address)) {
    case Access::Always: return true;
    case Access::Stopped: return !moving();
    case Access::HighZ: return highZ_ && !moving();
    default: return false;
  }
}

void StepperChip::writeRegister(uint8_t address, uint32_t value) {
  const Register& entry = registers_[address];
  if (!mayWrite(address)) {
    const char* why = "is read-only";
    if (accessOf(address) == Access::Stopped) {
      why = "can't be written while the motor turns";
    } else if (accessOf(address) == Access::HighZ) {
      why = "can only be written while the bridges are off";
    }
    refuse("write-refused", std::string(entry.name) + " " + why);
    return;
  }
  storeRegister(address, value & maskOf(entry.bits));
  if (observed()) {
    char text[48];
    std::snprintf(text, sizeof text, " = 0x%0*X", 2 * bytesOf(entry.bits),
                  value & maskOf(entry.bits));
    note(std::string(entry.name) + text);
  }
}

void StepperChip::storeRegister(uint8_t address, uint32_t value) {
  switch (address) {
    case stepper::kAbsPos: setAbsolutePosition(value); return;
    case stepper::kElPos: {
      // The field turns the shorter way to the new place.
      setElectrical(electrical() + std::remainder(value - electrical(), stepper::kElectricalCycle));
      motionChanged();
      return;
    }
    case stepper::kStepMode: {
      const double field =
          std::floor(electrical() / stepper::kElectricalPerStep) * stepper::kElectricalPerStep;
      values_[address] = value;
      setElectrical(field);
      motionChanged();
      return;
    }
    case stepper::kMaxSpeed:
      values_[address] = value;
      if (moving()) {
        plan();
        motionChanged();
      }
      return;
    default: values_[address] = value;
  }
  if (address == traits_.configAddress && (value & kExternalClock) != 0 && !externalClock_) {
    violate("no-oscillator",
            "CONFIG selects an external clock and there is none: the chip stands still until STBY "
            "resets it");
    motion_.hardStop(now());
    clockLost_ = true;
    motionChanged();
  }
  refreshPins();
}

void StepperChip::addProperties() {
  const auto knob = [this](const char* name, const char* unit, const char* help, double lowest,
                           double highest, const double& value, auto set) {
    addProperty({name, unit, help,
                 [this, &value]() -> PropertyValue {
                   const auto guard = lock();
                   return value;
                 },
                 numberSetter(lowest, highest, set), false});
  };
  const auto meter = [this](const char* name, const char* unit, const char* help, auto get) {
    addProperty({name, unit, help, [get]() -> PropertyValue { return get(); }, {}, true});
  };
  knob("supply", "V", "motor supply, 24 unless set; too low is an undervoltage", 0,
       traits_.supplyMax, supply_, [this](double value) { setSupply(value); });
  knob("adcin", "V", "voltage at ADCIN, 0 to 3.3, 3.3 unless set", 0, kAdcReference, adc_,
       [this](double value) { setAdcInput(value); });
  addProperty(boolProperty(
      "overcurrent", "a short circuit at the motor, false unless set",
      [this] { return overCurrent_; }, [this](bool value) { setOverCurrent(value); }));
  addProperty(boolProperty(
      "external_clock", "whether a clock stands at OSCIN, false unless set",
      [this] { return externalClock_; }, [this](bool value) { setExternalClock(value); }));
  addProperty(boolProperty(
      "reset_needs_high_z", "whether ResetDevice is refused while the bridges are on",
      [this] { return resetNeedsHighZ_; }, [this](bool value) { setResetNeedsHighZ(value); }));
  addProperty(choiceProperty(
      "thermal", "how hot the chip is", {"normal", "warning", "bridge-shutdown", "device-shutdown"},
      [this] { return static_cast<size_t>(thermal_); },
      [this](size_t choice) { setThermal(static_cast<Thermal>(choice)); }));
  addProperty(choiceProperty(
      "read_only_write", "what a write to a read-only register does",
      {"wrong-command", "not-performed"}, [this] { return static_cast<size_t>(readOnlyWrite_); },
      [this](size_t choice) { setReadOnlyWrite(static_cast<ReadOnlyWrite>(choice)); }));
  addProperty(
      {"select_high", "ns", "how long CS must be high between two bytes, 800 unless set",
       [this]() -> PropertyValue { return static_cast<int64_t>(selectHighTime_.count()); },
       numberSetter(0, 1e9, [this](double value) { setSelectHighTime(Time(std::llround(value))); }),
       false});
  meter("position", "microsteps", "ABS_POS", [this] { return static_cast<int64_t>(position()); });
  meter("speed", "steps/s", "present speed", [this] { return speed(); });
  meter("busy", "", "whether a motion command is being carried out", [this] { return busy(); });
  meter("hiz", "", "whether the bridges are off", [this] { return highZ(); });
  meter("status", "", "the status word", [this] {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", status());
    return std::string(text);
  });
}

}  // namespace vboard
