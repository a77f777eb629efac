// SPDX-License-Identifier: MIT
#include "vboard/chips/Ads1248.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"

namespace vboard {

namespace {

using std::chrono::microseconds;

constexpr double kOscillator = 4.096e6;
constexpr double kExternalMin = 1e6;
constexpr double kExternalMax = 4.5e6;
constexpr uint32_t kSclkMax = 2049180;  // a period of 488 ns
constexpr microseconds kRecovery(600);  // after a reset
constexpr double kFullScale = 8388607;
constexpr uint32_t kUnityFullScale = 0x400000;
constexpr double kInternalReference = 2.048;
constexpr double kDiodeAt25 = 0.118;
constexpr double kDiodePerDegree = 405e-6;
constexpr double kHeadroom = 0.1;

// In periods of the oscillator.
constexpr double kSelectHold = 7;
constexpr double kSelectHigh = 5;
constexpr double kReadyPulse = 3;
constexpr double kStartPulse = 3;
constexpr double kResetPulse = 4;
constexpr double kSyncDelay = 2;

constexpr uint8_t kNop = 0xFF;
constexpr uint8_t kRestricted = 0xF1;
constexpr uint8_t kSysOffset = 0x60;
constexpr uint8_t kSysGain = 0x61;
constexpr uint8_t kSelfOffset = 0x62;

constexpr uint8_t kMux0 = 0x00;
constexpr uint8_t kMux1 = 0x02;
constexpr uint8_t kSys0 = 0x03;
constexpr uint8_t kOfc = 0x04;
constexpr uint8_t kFsc = 0x07;
constexpr uint8_t kIdac0 = 0x0A;
constexpr uint8_t kIdac1 = 0x0B;
constexpr uint8_t kGpioCfg = 0x0C;
constexpr uint8_t kGpioDir = 0x0D;
constexpr uint8_t kGpioDat = 0x0E;
constexpr uint8_t kRegisters = 0x0F;
constexpr uint8_t kWritable[kRegisters] = {0xFF, 0xFF, 0x7F, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF,
                                           0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0xFF};

struct Rate {
  double period;     // clocks of every later conversion
  double afterSync;  // of the first one after SYNC or a write to MUX0
  double afterWake;  // after anything else that restarts
  double calibrationMs;
};
constexpr Rate kRates[] = {
    {816128, 816160, 820265, 3201},  {408064, 408096, 412201, 1601}, {204032, 204064, 208169, 801},
    {102016, 102072, 103106, 400.3}, {51008, 51064, 52098, 200.3},   {25504, 25560, 26594, 100.1},
    {12736, 12796, 13314, 50.1},     {6368, 6428, 6946, 25.1},       {4096, 4156, 4674, 16.1},
    {2048, 2108, 2370, 8.07},
};

constexpr uint32_t kDeafComplaint = 1;
constexpr uint32_t kStandbyComplaint = 2;
constexpr uint32_t kCalibrationComplaint = 4;
constexpr uint32_t kEarlyComplaint = 8;
constexpr uint32_t kReferenceComplaint = 1;  // standing ones
constexpr uint32_t kRangeComplaint = 2;

}  // namespace

Ads1248::Ads1248(std::string name)
    : DeltaSigma(kType, std::move(name), kChannels, kRegisters),
      start_(addInput("START", Level::Low)),
      gpio_{} {
  for (unsigned i = 0; i < 8; ++i) {
    gpio_[i] = &addQuietInput("GPIO" + std::to_string(i), Level::Low);
  }
  limits_.maxHz = kSclkMax;
  references_[0] = 2.5;
  setExternalClock(0);
  addProperties();
}

void Ads1248::setReference(int pair, Signal volts) {
  if (pair == 0 || pair == 1) {
    changeSignal(references_[static_cast<size_t>(pair)], std::move(volts));
  }
}

void Ads1248::setSupply(double avdd, double avss) {
  const auto guard = lock();
  integrate();
  avdd_ = avdd;
  avss_ = avss;
}

void Ads1248::setDigitalSupply(double volts) {
  const auto guard = lock();
  integrate();
  dvdd_ = volts;
}

void Ads1248::setTemperature(double celsius) {
  const auto guard = lock();
  integrate();
  celsius_ = celsius;
}

void Ads1248::setExternalClock(double hertz) {
  const auto guard = lock();
  externalClock_ = hertz > 0;
  clockHz_ = externalClock_ ? std::clamp(hertz, kExternalMin, kExternalMax) : kOscillator;
  selectHold_ = clocks(kSelectHold);
  selectHigh_ = clocks(kSelectHigh);
  readyPulse_ = clocks(kReadyPulse);
}

void Ads1248::setId(uint8_t id) {
  const auto guard = lock();
  id_ = id & 0x0FU;
}

void Ads1248::setFactoryFullScale(uint32_t value) {
  const auto guard = lock();
  factoryFullScale_ = value & 0xFFFFFFU;
}

void Ads1248::setPowerUpTime(Time time) {
  const auto guard = lock();
  powerUpTime_ = std::max(time, Time{0});
}

void Ads1248::setCommonModeCheck(bool check) {
  const auto guard = lock();
  commonModeCheck_ = check;
}

void Ads1248::powerUp() {
  result_ = 0;
  // Programs start long after a board got its power.
  const bool cold = now() > Time{0};
  resetState(cold ? powerUpTime_ : Time{0}, cold);
  if (!cs_.high()) {
    pinChanged(cs_, Level::Low);
  }
}

// A reset starts a conversion at once, though nobody is heard yet.
void Ads1248::resetState(Time recovery, bool waking) {
  stop();
  for (uint8_t address = 0; address < kRegisters; ++address) {
    storeRegister(address, 0);
  }
  storeRegister(kMux0, 0x01);
  storeRegister(kIdac1, 0xFF);
  storeWord24(kFsc, factoryFullScale_);
  showGpio();
  state_ = State::Command;
  continuous_ = true;
  wantsContinuous_ = true;
  asleep_ = false;
  hasResult_ = false;
  outputLeft_ = 0;
  wakingUp_ = waking;
  hearsFrom_ = now() + recovery;
  setReady(false);
  inReset_ = !reset_.high();
  if (inReset_) {
    resetFell_ = now();
  } else if (start_.high()) {
    restart(waking ? hearsFrom_ : now(), false);
  }
}

void Ads1248::controlChanged(Pin& pin, Level level) {
  const bool rose = level == Level::High;
  if (&pin == &start_) {
    if (rose) {
      startRose();
    } else {
      startFell();
    }
  } else if (!rose) {
    resetState(Time{0}, false);
  } else {
    if (tooShort(now() - resetFell_, clocks(kResetPulse))) {
      violate("reset-too-short", "RESET low for " + timeText(now() - resetFell_) + ", at least " +
                                     timeText(clocks(kResetPulse)));
    }
    resetState(kRecovery, false);
  }
}

void Ads1248::startRose() {
  startRose_ = now();
  if (!inReset_ && !asleep_ && activity() != Activity::Calibration) {
    restart(now(), false);
  }
}

// The conversion in progress still ends.
void Ads1248::startFell() {
  if (!inReset_ && tooShort(now() - startRose_, clocks(kStartPulse))) {
    violate("start-too-short", "START high for " + timeText(now() - startRose_) + ", at least " +
                                   timeText(clocks(kStartPulse)) + ": no conversion");
    stop();
  }
}

void Ads1248::restart(Time moment, bool quick) {
  const Rate& timing = kRates[rate()];
  setReady(false);
  restartFilter();
  restarted_ = true;
  begin(Activity::Conversion, moment + clocks(quick ? timing.afterSync : timing.afterWake));
}

unsigned Ads1248::rate() const {
  return std::min<unsigned>(reg(kSys0) & 0x0FU, std::size(kRates) - 1);
}

void Ads1248::finished(Activity activity) {
  const bool calibrated = activity == Activity::Calibration;
  if (calibrated) {
    integrate();
    calibrate();
  }
  checkAnalog();
  convert(1);
  hasResult_ = true;
  resultRead_ = false;
  restarted_ = false;
  setReady(true);
  if (continuous_ || wantsContinuous_) {
    if (selected_ && (state_ == State::ReadData || (resultInOutput_ && outputLeft_ % 24 != 0))) {
      violate("read-across-ready",
              "a conversion ended in the middle of a readout: the rest comes from the new result");
      corrupted_ = state_ == State::ReadData;
    }
    loadResult();
  }
  continuous_ = wantsContinuous_;
  if (readyOnDout() && selected_ && bits_ == 0) {
    dout_.drive(Drive::Low);
  }
  if (start_.high() && !asleep_) {
    begin(Activity::Conversion, now() + clocks(kRates[rate()].period));
  }
}

void Ads1248::readyPulse() {
  if (readyOnDout() && selected_ && bits_ == 0) {
    dout_.drive(Drive::High);
  }
}

void Ads1248::loadResult() {
  output_ = wordOf(result_) << 8U;
  outputLeft_ = 24;
  resultInOutput_ = true;
}

void Ads1248::selectFell() {
  state_ = State::Command;
  gaveData_ = outputLeft_ != 0;
  onlyDummies_ = true;
  dout_.drive(readyOnDout() && !ready() ? Drive::High : Drive::Low);
}

void Ads1248::selectRose() {
  state_ = State::Command;
  corrupted_ = false;
  if (outputLeft_ != 24 || !resultInOutput_) {
    outputLeft_ = 0;
  }
  const bool readout = bytes_ == 3 || bytes_ == 4;
  if (readout && onlyDummies_ && !gaveData_ && (continuous_ || now() < hearsFrom_)) {
    violate("read-too-early",
            std::to_string(8 * bytes_) + " clocks with no result since the last readout: zeros");
  }
}

const char* Ads1248::cutCommand() const {
  switch (state_) {
    case State::Command: break;
    case State::SecondSync: return "SYNC";
    case State::Count: return writing_ ? "WREG" : "RREG";
    case State::WriteData: return "WREG";
    case State::ReadData: return "RREG";
  }
  return nullptr;
}

void Ads1248::clockRising() {
  bool high = readyOnDout();
  if (outputLeft_ != 0) {
    high = (output_ >> 31U) != 0;
    output_ <<= 1U;
    --outputLeft_;
    gaveData_ = true;
    resultRead_ = resultRead_ || (resultInOutput_ && outputLeft_ == 0);
  }
  dout_.drive(high ? Drive::High : Drive::Low);
}

void Ads1248::clockFalling() {
  if (ready()) {
    setReady(false);
  }
}

bool Ads1248::deaf(uint8_t byte) {
  if (!inReset_ && now() >= hearsFrom_) {
    return false;
  }
  const bool dummy = byte == kNop || byte == 0;
  if ((inReset_ || !dummy) && firstInFrame(kDeafComplaint)) {
    if (inReset_) {
      violate("in-reset", "byte " + hexText(byte) + " while RESET is low: not heard");
    } else {
      violate(wakingUp_ ? "power-up" : "reset-recovery", "byte " + hexText(byte) + " " +
                                                             timeText(hearsFrom_ - now()) +
                                                             " before the chip hears again: lost");
    }
  }
  return true;
}

void Ads1248::byteReceived(uint8_t byte) {
  onlyDummies_ = onlyDummies_ && byte == kNop;
  if (deaf(byte)) {
    return;
  }
  switch (state_) {
    case State::Command: command(byte); break;
    case State::SecondSync:
      state_ = State::Command;
      if ((byte & 0xFEU) != 0x04) {
        violate("bad-sync", "SYNC takes two bytes 0x04, the second was " + hexText(byte));
      } else if (!ignored_) {
        restart(now() + clocks(kSyncDelay), true);
      }
      break;
    case State::Count: countReceived(byte); break;
    case State::WriteData:
    case State::ReadData: dataReceived(byte); break;
  }
}

void Ads1248::command(uint8_t byte) {
  if (activity() == Activity::Calibration) {
    if (byte > 0x01 && byte != kNop && firstInFrame(kCalibrationComplaint)) {
      violate("command-while-calibrating", "command " + hexText(byte) + " " +
                                               timeText(end() - now()) +
                                               " before the calibration ends: not taken");
    }
    return;
  }
  ignored_ = false;
  if (stopped()) {
    stoppedCommand(byte);
  } else {
    knownCommand(byte);
  }
}

void Ads1248::stoppedCommand(uint8_t byte) {
  const bool reads = (byte & 0xFCU) == 0x14 || (byte & 0xFEU) == 0x12 || (byte & 0xFEU) == 0x16;
  const bool works = reads || byte <= 0x01 || byte == kNop;
  if (!works && firstInFrame(kStandbyComplaint)) {
    violate("command-in-standby", "command " + hexText(byte) +
                                      (asleep_ ? " in sleep" : " while START is low") +
                                      ": no effect");
  }
  const uint8_t family = byte & 0xF0U;
  // Their bytes still belong to them.
  ignored_ = !works;
  if (works || family == 0x20 || family == 0x40 || (byte & 0xFEU) == 0x04) {
    knownCommand(byte);
  }
}

void Ads1248::knownCommand(uint8_t byte) {
  const uint8_t family = byte & 0xF0U;
  if (family == 0x20 || family == 0x40) {
    state_ = State::Count;
    writing_ = family == 0x40;
    address_ = byte & 0x0FU;
    return;
  }
  if (byte == kSysOffset || byte == kSysGain || byte == kSelfOffset) {
    startCalibration(byte);
    return;
  }
  switch (byte & 0xFEU) {
    case 0x00: wakeUp(); return;
    case 0x02: asleep_ = true; return;
    case 0x04: state_ = State::SecondSync; return;
    case 0x06: resetState(kRecovery, false); return;
    case 0x12: readData(); return;
    case 0x14: wantsContinuous_ = true; return;
    case 0x16: wantsContinuous_ = false; return;
    default: break;
  }
  if (byte == kRestricted) {
    violate("restricted-command", "command 0xf1 must not be sent");
  } else if (byte != kNop) {
    violate("unknown-command", "command " + hexText(byte) + ": ignored");
  }
}

void Ads1248::wakeUp() {
  if (!asleep_) {
    return;
  }
  asleep_ = false;
  if (stopped() && start_.high()) {
    restart(roseAt_, false);
  }
}

void Ads1248::readData() {
  if ((!hasResult_ || (restarted_ && resultRead_)) && firstInFrame(kEarlyComplaint)) {
    const std::string due =
        stopped() ? "no conversion under way" : "the next one in " + timeText(end() - now());
    violate("read-too-early", hasResult_
                                  ? "RDATA gives the result of before the restart again, " + due
                                  : "RDATA with no result since the reset, " + due);
  }
  if (!hasResult_) {
    output_ = 0;
    outputLeft_ = 24;
    return;
  }
  loadResult();
}

void Ads1248::countReceived(uint8_t byte) {
  left_ = (byte & 0x0FU) + 1U;
  if (writing_) {
    state_ = State::WriteData;
  } else {
    state_ = State::ReadData;
    corrupted_ = false;
    loadRegister();
  }
}

void Ads1248::loadRegister() {
  if (corrupted_) {
    return;
  }
  const uint32_t value = ignored_ || address_ >= kRegisters ? 0U : readRegister(address_);
  output_ = value << 24U;
  outputLeft_ = 8;
  resultInOutput_ = false;
}

void Ads1248::dataReceived(uint8_t byte) {
  if (state_ == State::WriteData && !ignored_) {
    writeRegister(address_, byte);
  }
  address_ = (address_ + 1U) & 0x0FU;
  if (--left_ == 0) {
    state_ = State::Command;
  } else if (state_ == State::ReadData) {
    loadRegister();
  }
}

void Ads1248::writeRegister(uint8_t address, uint8_t value) {
  if (address >= kRegisters) {
    return;
  }
  integrate();
  storeRegister(address, value & kWritable[address]);
  if (address <= kSys0) {
    restart(now(), address == kMux0);
  } else if (address >= kGpioCfg) {
    showGpio();
  }
}

void Ads1248::startCalibration(uint8_t kind) {
  calibration_ = kind;
  setReady(false);
  restartFilter();
  restarted_ = true;
  begin(Activity::Calibration, now() + clocks(kRates[rate()].calibrationMs * kOscillator / 1000));
}

void Ads1248::calibrate() {
  const double raw = rawOf(calibration_ == kSelfOffset ? 0.0 : mean(), now());
  if (calibration_ != kSysGain) {
    storeWord24(kOfc, wordOf(clip(raw)));
    return;
  }
  const double offset = signedWord24(kOfc);
  if (raw > offset) {
    const double scale = kUnityFullScale * kFullScale / (raw - offset);
    storeWord24(kFsc, static_cast<uint32_t>(std::min(std::round(scale), 16777215.0)));
  }
}

double Ads1248::inputAt(Time moment) const {
  const uint8_t mux = reg(kMux0);
  switch (muxcal()) {
    case 1: return 0;
    case 2: return reference(moment);
    case 3: return kDiodeAt25 + (celsius_ - 25) * kDiodePerDegree;
    case 4: return references_[1].evaluate(moment) / 4;
    case 5: return references_[0].evaluate(moment) / 4;
    case 6: return (avdd_ - avss_) / 4;
    case 7: return dvdd_ / 4;
    default: break;
  }
  return inputs_[(mux >> 3U) & 7U].evaluate(moment) - inputs_[mux & 7U].evaluate(moment);
}

double Ads1248::gain() const {
  return muxcal() >= 2 ? 1.0 : static_cast<double>(1U << ((reg(kSys0) >> 4U) & 7U));
}

double Ads1248::internalReference() const {
  return (reg(kMux1) & 0x60U) != 0 ? kInternalReference : 0.0;
}

double Ads1248::reference(Time moment) const {
  const unsigned selected = (reg(kMux1) >> 3U) & 3U;
  // The monitors of the external references are measured with the one inside.
  if (selected >= 2 || muxcal() == 4 || muxcal() == 5) {
    return internalReference();
  }
  return references_[selected].evaluate(moment);
}

double Ads1248::rawOf(double volts, Time moment) const {
  const double full = reference(moment);
  const double real = volts + offsetError_;
  if (!(full > 0)) {
    return real < 0 ? kCodeMin : kCodeMax;
  }
  return real * gain() * kFullScale / full * (1 + gainError_);
}

int32_t Ads1248::codeOf(double volts, Time moment) const {
  const double raw = clip(rawOf(volts, moment));
  const double offset = signedWord24(kOfc);
  return clip((raw - offset) * word24(kFsc) / kUnityFullScale);
}

void Ads1248::checkAnalog() {
  const double full = reference(now());
  if (firstTime(kReferenceComplaint, !(full > 0))) {
    violate("no-reference", "converted with " + voltsText(full) + " at the selected reference " +
                                "(MUX1 " + hexText(reg(kMux1)) + "): the result saturates");
  }
  if (!commonModeCheck_ || muxcal() != 0) {
    return;
  }
  const uint8_t mux = reg(kMux0);
  const double plus = inputs_[(mux >> 3U) & 7U].evaluate(now());
  const double minus = inputs_[mux & 7U].evaluate(now());
  const double room = kHeadroom + std::abs(plus - minus) * gain() / 2;
  const double middle = (plus + minus) / 2;
  if (firstTime(kRangeComplaint, middle < avss_ + room || middle > avdd_ - room)) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "inputs at %.3f V and %.3f V with gain %.0f: their middle must be from %.3f V "
                  "to %.3f V",
                  plus, minus, gain(), avss_ + room, avdd_ - room);
    violate("input-range", text);
  }
}

uint8_t Ads1248::shownRegister(uint8_t address) const {
  uint8_t value = reg(address);
  if (address == kMux1) {
    value = static_cast<uint8_t>((value & 0x7FU) | (externalClock_ ? 0x80U : 0U));
  } else if (address == kIdac0) {
    value = static_cast<uint8_t>((value & 0x0FU) | (unsigned{id_} << 4U));
  } else if (address == kGpioDat) {
    const unsigned inputs = reg(kGpioCfg) & reg(kGpioDir);
    for (unsigned i = 0; i < 8; ++i) {
      if (((inputs >> i) & 1U) != 0) {
        const unsigned level = gpio_[i]->high() ? 1U : 0U;
        value = static_cast<uint8_t>((value & ~(1U << i)) | (level << i));
      }
    }
  }
  return value;
}

void Ads1248::showGpio() {
  const unsigned outputs = reg(kGpioCfg) & ~unsigned{reg(kGpioDir)};
  for (unsigned i = 0; i < 8; ++i) {
    const Drive level = ((reg(kGpioDat) >> i) & 1U) != 0 ? Drive::High : Drive::Low;
    gpio_[i]->drive(((outputs >> i) & 1U) != 0 ? level : Drive::Floating);
  }
}

void Ads1248::addProperties() {
  addSignal("ref0", "reference of pair 0, 2.5 unless set", references_[0],
            [this](Signal volts) { setReference(0, std::move(volts)); });
  addSignal("ref1", "reference of pair 1, 0 (nothing connected) unless set", references_[1],
            [this](Signal volts) { setReference(1, std::move(volts)); });
  addKnob(
      "avdd", "V", "analog supply against ground, 2.5 unless set", -6, 6, [this] { return avdd_; },
      [this](double volts) { setSupply(volts, avss_); });
  addKnob(
      "avss", "V", "lower analog supply against ground, -2.5 unless set", -6, 6,
      [this] { return avss_; }, [this](double volts) { setSupply(avdd_, volts); });
  addKnob(
      "dvdd", "V", "digital supply, 3.3 unless set", 0, 6, [this] { return dvdd_; },
      [this](double volts) { setDigitalSupply(volts); });
  addKnob(
      "temperature", "degrees C", "of the chip, 25 unless set", -55, 150,
      [this] { return celsius_; }, [this](double celsius) { setTemperature(celsius); });
  addKnob(
      "external_clock", "Hz", "1 to 4.5 MHz, 0 (unless set) for the oscillator inside", 0,
      kExternalMax, [this] { return externalClock_ ? clockHz_ : 0.0; },
      [this](double hertz) { setExternalClock(hertz); });
  addKnob(
      "id", "", "read-only bits 7 to 4 of IDAC0, 0 unless set", 0, 15, [this] { return id_; },
      [this](double id) { setId(static_cast<uint8_t>(id)); });
  addKnob(
      "factory_full_scale", "", "what FSC holds after a reset, 4194304 unless set", 0, 0xFFFFFF,
      [this] { return factoryFullScale_; },
      [this](double value) { setFactoryFullScale(static_cast<uint32_t>(value)); });
  addKnob(
      "power_up_time", "s", "from power to the first command heard, 0.016 unless set", 0, 10,
      [this] { return static_cast<double>(powerUpTime_.count()) * 1e-9; },
      [this](double seconds) { setPowerUpTime(Time(std::llround(seconds * 1e9))); });
  addSwitch(
      "check_common_mode", "complain of inputs too near to the supplies, true unless set",
      [this] { return commonModeCheck_; }, [this](bool check) { setCommonModeCheck(check); });
}

}  // namespace vboard
