// SPDX-License-Identifier: MIT
#include "vboard/chips/DeltaSigma.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

constexpr double kNoiseMax = 1.0;
constexpr double kInputMax = 10.0;
// A prime, so that hardly any tone falls together with the points.
constexpr int kMeanPoints = 31;

bool constant(const Signal& signal) {
  return std::holds_alternative<Signal::Constant>(signal.shape);
}

}  // namespace

DeltaSigma::DeltaSigma(std::string_view type, std::string name, int channels, size_t registers)
    : SpiChip(std::string(type), std::move(name)),
      cs_(addInput("CS", Level::High)),
      sclk_(addInput("SCLK", Level::Low)),
      din_(addQuietInput("DIN", Level::Low)),
      dout_(addOutput("DOUT")),
      drdy_(addOutput("DRDY")),
      reset_(addInput("RESET", Level::High)),
      channels_(channels),
      registerCount_(registers),
      alarm_([this] { alarmRang(); }) {
  limits_.modes = 0b0010;
  sclk_.setAttentive(false);
  addBaseProperties();
}

void DeltaSigma::setInput(int channel, Signal volts) {
  if (channel >= 0 && channel < channels_) {
    changeSignal(inputs_[static_cast<size_t>(channel)], std::move(volts));
  }
}

void DeltaSigma::changeSignal(Signal& signal, Signal volts) {
  const auto guard = lock();
  integrate();
  signal = std::move(volts);
  findSteady();
}

void DeltaSigma::findSteady() {
  steady_ = std::all_of(inputs_.begin(), inputs_.end(), constant) &&
            std::all_of(references_.begin(), references_.end(), constant);
}

void DeltaSigma::setNoise(double volts, uint64_t seed) {
  const auto guard = lock();
  noise_ = std::clamp(volts, 0.0, kNoiseMax);
  // The generator must not start at 0.
  noiseState_ = seed * 2 + 1;
}

void DeltaSigma::setOffsetError(double volts) {
  const auto guard = lock();
  offsetError_ = volts;
}

void DeltaSigma::setGainError(double share) {
  const auto guard = lock();
  gainError_ = share;
}

void DeltaSigma::setNeverReady(bool neverReady) {
  const auto guard = lock();
  neverReady_ = neverReady;
  if (neverReady && powered()) {
    setReady(false);
  }
}

void DeltaSigma::stickRegisterBits(uint8_t address, uint8_t mask, uint8_t value) {
  const auto guard = lock();
  if (address < registerCount_) {
    stuckMask_[address] = mask;
    stuckValue_[address] = value & mask;
  }
}

std::vector<uint8_t> DeltaSigma::registers() const {
  const auto guard = lock();
  std::vector<uint8_t> values;
  for (uint8_t address = 0; address < registerCount_; ++address) {
    values.push_back(readRegister(address));
  }
  return values;
}

int32_t DeltaSigma::codeNow() const {
  const auto guard = lock();
  return codeOf(inputAt(now()), now());
}

int32_t DeltaSigma::lastCode() const {
  const auto guard = lock();
  return result_;
}

double DeltaSigma::lastVoltage() const {
  const auto guard = lock();
  return lastVoltage_;
}

uint64_t DeltaSigma::conversions() const {
  const auto guard = lock();
  return conversions_;
}

void DeltaSigma::powerLost() {
  stop();
  selected_ = false;
  ready_ = false;
  sclk_.setAttentive(false);
}

void DeltaSigma::pinChanged(Pin& pin, Level level) {
  if (&pin == &sclk_) {
    if (level == Level::High) {
      clockRose();
    } else {
      clockFell();
    }
  } else if (&pin == &cs_) {
    if (level == Level::Low) {
      select();
    } else {
      deselect();
    }
  } else {
    controlChanged(pin, level);
  }
}

void DeltaSigma::select() {
  selected_ = true;
  bits_ = 0;
  bytes_ = 0;
  frameComplaints_ = 0;
  sclk_.setAttentive(true);
  if (deselectedAt_ != kNever && tooShort(now() - deselectedAt_, selectHigh_)) {
    violate("select-high-too-short", "CS high for " + timeText(now() - deselectedAt_) +
                                         " between frames, at least " + timeText(selectHigh_));
  }
  selectFell();
}

void DeltaSigma::deselect() {
  if (selected_) {
    if (bits_ != 0) {
      violate("partial-byte",
              "CS rose after " + std::to_string(bits_) + " bits of a byte: they are lost");
    } else if (const char* command = cutCommand(); command != nullptr) {
      violate("cut-command", std::string("CS rose in the middle of ") + command);
    }
    // With the select of the controller itself the wires tell no time here.
    const Time hold = now() - fellAt_;
    if (bytes_ != 0 && hold > Time{0} && hold < selectHold_) {
      violate(
          "select-hold-too-short",
          "CS rose " + timeText(hold) + " after the last clock, at least " + timeText(selectHold_));
    }
    selectRose();
  }
  selected_ = false;
  deselectedAt_ = now();
  sclk_.setAttentive(false);
  dout_.drive(Drive::Floating);
}

void DeltaSigma::clockRose() {
  clockRising();
  roseAt_ = now();
}

void DeltaSigma::clockFell() {
  fellAt_ = now();
  input_ = shiftedIn(input_, din_.high());
  clockFalling();
  if (++bits_ == 8) {
    bits_ = 0;
    ++bytes_;
    byteReceived(input_);
  }
}

Time DeltaSigma::clocks(double count) const {
  return Time(std::llround(count * 1e9 / clockHz_));
}

void DeltaSigma::begin(Activity activity, Time end) {
  activity_ = activity;
  begun_ = now();
  end_ = end;
  armAlarm();
}

void DeltaSigma::armAlarm() {
  const bool pulse = ready_ && activity_ == Activity::Conversion && end_ - readyPulse_ > now();
  alarm_.set(clock(), pulse ? end_ - readyPulse_ : end_);
}

void DeltaSigma::stop() {
  activity_ = Activity::None;
  alarm_.clear();
}

void DeltaSigma::alarmRang() {
  if (now() < end_) {
    setReady(false);
    readyPulse();
    alarm_.set(clock(), end_);
    return;
  }
  const Activity activity = activity_;
  const bool gives = activity == Activity::Conversion || activity == Activity::Calibration;
  if (gives && neverReady_) {
    begin(activity, end_ + std::max(end_ - begun_, Time{1}));
    return;
  }
  activity_ = Activity::None;
  finished(activity);
}

void DeltaSigma::setReady(bool ready) {
  ready_ = ready && !neverReady_;
  drdy_.drive(ready_ ? Drive::Low : Drive::High);
}

void DeltaSigma::restartFilter() {
  addedUntil_ = now();
  sum_ = 0;
  span_ = 0;
  firstSinceRestart_ = true;
}

void DeltaSigma::integrate() {
  const auto length = static_cast<double>((now() - addedUntil_).count());
  if (length > 0) {
    sum_ += length * meanInput(addedUntil_, now());
    span_ += length;
    addedUntil_ = now();
  }
}

double DeltaSigma::meanInput(Time from, Time to) const {
  if (steady_) {
    return inputAt(to);
  }
  double sum = 0;
  for (int point = 0; point < kMeanPoints; ++point) {
    sum += inputAt(from + (to - from) * (2 * point + 1) / (2 * kMeanPoints));
  }
  return sum / kMeanPoints;
}

void DeltaSigma::convert(int periods) {
  integrate();
  const double newest = mean();
  sum_ = 0;
  span_ = 0;
  if (firstSinceRestart_) {
    means_.fill(newest);
    firstSinceRestart_ = false;
  } else {
    std::copy_backward(means_.begin(), means_.end() - 1, means_.end());
    means_[0] = newest;
  }
  double total = 0;
  for (int period = 0; period < periods; ++period) {
    total += means_[static_cast<size_t>(period)];
  }
  lastVoltage_ = total / periods;
  result_ = codeOf(lastVoltage_ + nextNoise(), now());
  ++conversions_;
  if (observed()) {
    note("converted " + voltsText(lastVoltage_) + ": code " + std::to_string(result_));
  }
}

// The sum of twelve even numbers is as good as a bell curve here.
double DeltaSigma::nextNoise() {
  if (!(noise_ > 0)) {
    return 0;
  }
  double sum = -6;
  for (int i = 0; i < 12; ++i) {
    noiseState_ ^= noiseState_ << 13U;
    noiseState_ ^= noiseState_ >> 7U;
    noiseState_ ^= noiseState_ << 17U;
    sum += static_cast<double>(noiseState_ >> 32U) / 4294967296.0;
  }
  return sum * noise_;
}

int32_t DeltaSigma::clip(double code) {
  return static_cast<int32_t>(
      std::lround(std::clamp(code, static_cast<double>(kCodeMin), static_cast<double>(kCodeMax))));
}

uint32_t DeltaSigma::word24(uint8_t address) const {
  return reg(address) | static_cast<uint32_t>(reg(static_cast<uint8_t>(address + 1))) << 8U |
         static_cast<uint32_t>(reg(static_cast<uint8_t>(address + 2))) << 16U;
}

int32_t DeltaSigma::signedWord24(uint8_t address) const {
  return static_cast<int32_t>(word24(address) << 8U) / 256;
}

void DeltaSigma::storeWord24(uint8_t address, uint32_t value) {
  for (unsigned i = 0; i < 3; ++i) {
    storeRegister(static_cast<uint8_t>(address + i), static_cast<uint8_t>(value >> (8 * i)));
  }
}

bool DeltaSigma::firstInFrame(uint32_t complaint) {
  const bool first = (frameComplaints_ & complaint) == 0;
  frameComplaints_ |= complaint;
  return first;
}

bool DeltaSigma::firstTime(uint32_t complaint, bool condition) {
  const bool before = (standingComplaints_ & complaint) != 0;
  standingComplaints_ =
      condition ? standingComplaints_ | complaint : standingComplaints_ & ~complaint;
  return condition && !before;
}

bool DeltaSigma::tooShort(Time measured, Time limit) const {
  const bool known = measured > Time{0} || board().options().callCost > Time{0};
  return known && measured < limit;
}

std::string DeltaSigma::timeText(Time time) {
  char text[32];
  const auto nanoseconds = static_cast<double>(time.count());
  if (nanoseconds < 1e4) {
    std::snprintf(text, sizeof text, "%.0f ns", nanoseconds);
  } else if (nanoseconds < 1e7) {
    std::snprintf(text, sizeof text, "%.1f us", nanoseconds / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.1f ms", nanoseconds / 1e6);
  }
  return text;
}

std::string DeltaSigma::voltsText(double volts) {
  char text[48];
  std::snprintf(text, sizeof text, "%.6f V", volts);
  return text;
}

std::string DeltaSigma::stuckText() const {
  std::string text;
  for (uint8_t address = 0; address < registerCount_; ++address) {
    if (stuckMask_[address] != 0) {
      text += (text.empty() ? "" : " ") + hexText(address) + ":" + hexText(stuckMask_[address]) +
              "=" + hexText(stuckValue_[address]);
    }
  }
  return text;
}

// "0x03:0x70=0x20 0x00:0x01=0", nothing for none.
bool DeltaSigma::parseStuck(const std::string& text) {
  std::array<uint8_t, kMaxRegisters> masks{};
  std::array<uint8_t, kMaxRegisters> values{};
  const char* place = text.c_str();
  const auto number = [&place](unsigned long limit, char before) -> long {
    if (before != 0 && *place++ != before) {
      return -1;
    }
    char* end = nullptr;
    const bool digit = *place >= '0' && *place <= '9';
    const unsigned long value = digit ? std::strtoul(place, &end, 0) : limit;
    place = digit ? end : place;
    return value < limit ? static_cast<long>(value) : -1;
  };
  while (*place != 0) {
    const long address = number(registerCount_, 0);
    const long mask = address < 0 ? -1 : number(256, ':');
    const long value = mask < 0 ? -1 : number(256, '=');
    if (value < 0 || (*place != 0 && *place != ' ')) {
      return false;
    }
    masks[static_cast<size_t>(address)] = static_cast<uint8_t>(mask);
    values[static_cast<size_t>(address)] = static_cast<uint8_t>(value & mask);
    while (*place == ' ') {
      ++place;
    }
  }
  const auto guard = lock();
  stuckMask_ = masks;
  stuckValue_ = values;
  return true;
}

Property& DeltaSigma::addKnob(std::string name, const char* unit, const char* help, double lowest,
                              double highest, std::function<double()> get,
                              std::function<void(double)> set) {
  return addProperty({std::move(name), unit, help,
                      [this, get = std::move(get)]() -> PropertyValue {
                        const auto guard = lock();
                        return get();
                      },
                      numberSetter(lowest, highest, std::move(set)), false});
}

Property& DeltaSigma::addSwitch(const char* name, const char* help, std::function<bool()> get,
                                std::function<void(bool)> set) {
  return addProperty(boolProperty(
      name, help,
      [this, get = std::move(get)] {
        const auto guard = lock();
        return get();
      },
      std::move(set)));
}

Property& DeltaSigma::addSignal(std::string name, const char* help, Signal& signal,
                                const std::function<void(Signal)>& set) {
  Property& property = addKnob(
      std::move(name), "V", help, -kInputMax, kInputMax,
      [this, &signal] { return signal.evaluate(now()); }, [set](double volts) { set(volts); });
  property.setSignal = [set](const Signal& volts) { set(volts); };
  return property;
}

void DeltaSigma::addMeter(const char* name, const char* unit, const char* help,
                          std::function<PropertyValue()> get) {
  addProperty({name, unit, help, std::move(get), {}, true});
}

void DeltaSigma::addBaseProperties() {
  for (int channel = 0; channel < std::min(channels_, 8); ++channel) {
    addSignal("in" + std::to_string(channel), "input AIN of this number, 0 unless set",
              inputs_[static_cast<size_t>(channel)],
              [this, channel](Signal volts) { setInput(channel, std::move(volts)); });
  }
  addKnob(
      "noise", "V", "noise between the inputs, RMS, 0 unless set", 0, kNoiseMax,
      [this] { return noise_; }, [this](double volts) { setNoise(volts); });
  addKnob(
      "offset", "V", "offset error of this chip before calibration, 0 unless set", -1, 1,
      [this] { return offsetError_; }, [this](double volts) { setOffsetError(volts); });
  addKnob(
      "gain", "", "gain error of this chip before calibration as a share, 0 unless set", -0.5, 0.5,
      [this] { return gainError_; }, [this](double share) { setGainError(share); });
  addSwitch(
      "never_ready", "fault: nothing ever ends and DRDY stays high, false unless set",
      [this] { return neverReady_; }, [this](bool value) { setNeverReady(value); });
  addProperty({"stuck_bits", "",
               "fault: register bits that keep a value, ADDRESS:MASK=VALUE with spaces between",
               [this]() -> PropertyValue {
                 const auto guard = lock();
                 return stuckText();
               },
               [this](const PropertyValue& value) -> std::optional<std::string> {
                 const std::string* text = std::get_if<std::string>(&value);
                 if (text == nullptr || !parseStuck(*text)) {
                   return "must be text as \"0x03:0x70=0x20\": a register of the chip, a mask and "
                          "a value; empty for none";
                 }
                 return std::nullopt;
               },
               false});
  addMeter("last_code", "", "code of the last conversion",
           [this]() -> PropertyValue { return static_cast<int64_t>(lastCode()); });
  addMeter("last_voltage", "V", "mean voltage between the inputs in the last conversion",
           [this]() -> PropertyValue { return lastVoltage(); });
  addMeter("conversions", "", "conversions since the start",
           [this]() -> PropertyValue { return static_cast<int64_t>(conversions()); });
  addMeter("registers", "", "all registers from address 0", [this]() -> PropertyValue {
    std::string text;
    for (const uint8_t value : registers()) {
      text += (text.empty() ? "" : " ") + hexText(value);
    }
    return text;
  });
}

}  // namespace vboard
