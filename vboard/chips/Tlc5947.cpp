// SPDX-License-Identifier: MIT
#include "vboard/chips/Tlc5947.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "vboard/chips/Knobs.h"
#include "vboard/chips/Wiring.h"

namespace vboard {

namespace {

constexpr uint32_t kBitsPerOutput = 12;
constexpr double kPeriod = 4096;    // oscillator clocks of a display period
constexpr double kFirstClock = 4;   // the outputs turn on with the fifth clock after BLANK
constexpr uint32_t kGroups = 4;     // which start one clock after the other
constexpr double kReference = 1.2;  // volts at IREF
constexpr double kMirror = 41;      // output current by that of IREF
constexpr double kResistorMin = 1640;
constexpr double kResistorMax = 1e6;
constexpr double kOscillatorMin = 1e5;
constexpr double kOscillatorMax = 1e8;
constexpr double kClockMin = 1000;
constexpr double kClockMax = 1e9;
// More clocks than the cascade has bits push out what came first. A change of the clock's idle
// level is a clock as well and leaves no trace; a whole byte too many was meant for something.
constexpr uint64_t kStrayClocks = 8;

bool isOutput(int output) {
  return output >= 0 && output < Tlc5947::kOutputs;
}

}  // namespace

Tlc5947::Tlc5947(std::string name)
    : SpiChip(std::string(kType), std::move(name)),
      sin_(addQuietInput("SIN", Level::Low)),
      sclk_(addInput("SCLK", Level::Low)),
      xlat_(addInput("XLAT", Level::Low)),
      blank_(addInput("BLANK", Level::High)),
      sout_(addOutput("SOUT")) {
  // Other chips' traffic passes through unnoticed, in whatever format.
  limits_.lsbFirst = true;
  addKnobs();
  addMeters();
}

int Tlc5947::value(int output) const {
  const auto guard = lock();
  return isOutput(output) ? latched_[static_cast<size_t>(output)] : 0;
}

int Tlc5947::shifted(int output) const {
  const auto guard = lock();
  return isOutput(output) ? shiftedValue(static_cast<uint32_t>(output)) : 0;
}

double Tlc5947::brightness(int output) const {
  const auto guard = lock();
  return running_ ? value(output) / kPeriod : 0;
}

bool Tlc5947::lit(int output) const {
  const auto guard = lock();
  if (!running_ || !isOutput(output)) {
    return false;
  }
  const auto index = static_cast<uint32_t>(output);
  const double ticks = ticksAt(index, now());
  return ticks >= firstLitTick(index) && std::fmod(ticks, kPeriod) < latched_[index];
}

Time Tlc5947::onTime(int output) const {
  const auto guard = lock();
  if (!isOutput(output)) {
    return Time{0};
  }
  const auto index = static_cast<uint32_t>(output);
  return Time(std::llround(onTimes_[index] + onNanoseconds(index, accountedUntil_, now())));
}

double Tlc5947::current(int output) const {
  const auto guard = lock();
  return brightness(output) * kMirror * kReference / resistor_;
}

bool Tlc5947::blanked() const {
  const auto guard = lock();
  return blank_.high();
}

uint64_t Tlc5947::latches() const {
  const auto guard = lock();
  return latches_;
}

uint64_t Tlc5947::bitsSinceLatch() const {
  const auto guard = lock();
  return clocks_ - latchedAt_;
}

void Tlc5947::setPoison(bool poison) {
  const auto guard = lock();
  poison_ = poison;
}

void Tlc5947::setOscillator(double hertz) {
  const auto guard = lock();
  account();
  oscillator_ = std::clamp(hertz, kOscillatorMin, kOscillatorMax);
}

void Tlc5947::setLatchDarkens(bool darkens) {
  const auto guard = lock();
  account();
  latchDarkens_ = darkens;
}

void Tlc5947::setReferenceResistor(double ohms) {
  const auto guard = lock();
  resistor_ = std::clamp(ohms, kResistorMin, kResistorMax);
}

void Tlc5947::setClockLimits(double alone, double cascade) {
  const auto guard = lock();
  clockAlone_ = std::clamp(alone, kClockMin, kClockMax);
  clockCascade_ = std::clamp(cascade, kClockMin, kClockMax);
}

void Tlc5947::setOverheated(bool hot) {
  const auto guard = lock();
  overheated_ = hot;
  refresh();
}

void Tlc5947::powerUp() {
  for (uint32_t bit = 0; bit < kBits; ++bit) {
    ring_[bit] = poison_ && board().noise();
  }
  for (uint16_t& value : latched_) {
    value = 0;
    for (uint32_t bit = 0; poison_ && bit < kBitsPerOutput; ++bit) {
      value = static_cast<uint16_t>(2 * value + (board().noise() ? 1 : 0));
    }
  }
  next_ = 0;
  lastBit_ = bitAt(0);
  known_ = !poison_;
  clocks_ = 0;
  latchedAt_ = 0;
  lateAt_ = 0;
  fastAt_ = 0;
  roseAt_ = kNever;
  sout_.drive(driveOf(levelOf(ring_[next_])));
  if (!blank_.high()) {
    blankChanged(false);
  }
}

void Tlc5947::powerLost() {
  refresh();
}

void Tlc5947::pinChanged(Pin& pin, Level level) {
  const bool rose = level == Level::High;
  if (&pin == &sclk_) {
    if (rose) {
      shift();
      return;
    }
    if (sin_.high() != lastBit_) {
      lateAt_ = clocks_;
    }
    sout_.drive(ring_[next_] ? Drive::High : Drive::Low);
  } else if (&pin == &xlat_) {
    if (rose) {
      latch();
    }
  } else if (&pin == &blank_) {
    blankChanged(rose);
  }
}

void Tlc5947::shift() {
  if (chainVersion_ != board().wiringVersion()) {
    findChain();
  }
  lastBit_ = sin_.high();
  ring_[next_] = lastBit_;
  next_ = next_ + 1 == kBits ? 0 : next_ + 1;
  ++clocks_;
  // The board's nanoseconds cut off what is behind the point: one more may be meant.
  const Time period = roseAt_ == kNever ? Time{0} : now() - roseAt_ + Time{1};
  const double highest = chain_ > 1 ? clockCascade_ : clockAlone_;
  if (period > Time{1} && static_cast<double>(period.count()) * highest < 1e9) {
    fastAt_ = clocks_;
  }
  roseAt_ = now();
}

bool Tlc5947::bitAt(uint32_t position) const {
  return ring_[(next_ + kBits - 1 - position) % kBits];
}

uint16_t Tlc5947::shiftedValue(uint32_t output) const {
  uint32_t value = 0;
  for (uint32_t bit = kBitsPerOutput; bit-- > 0;) {
    value = 2 * value + (bitAt(kBitsPerOutput * output + bit) ? 1 : 0);
  }
  return static_cast<uint16_t>(value);
}

void Tlc5947::latch() {
  if (chainVersion_ != board().wiringVersion()) {
    findChain();
  }
  account();
  checkLatch();
  for (uint32_t output = 0; output < kOutputs; ++output) {
    latched_[output] = shiftedValue(output);
  }
  known_ = true;
  ++latches_;
  latchedAt_ = clocks_;
  darkenedAt_ = now();
  if (observed()) {
    const auto dark = std::count(latched_.begin(), latched_.end(), 0);
    note("latched, " + std::to_string(kOutputs - dark) + " of 24 outputs not zero");
  }
}

void Tlc5947::checkLatch() {
  const uint64_t whole = uint64_t{kBits} * chain_;
  if (poison_ && clocks_ < whole) {
    violate("latched-poison", "XLAT rose after " + std::to_string(clocks_) +
                                  " clocks since power-up, " + std::to_string(whole) +
                                  " needed: the other bits are noise");
  } else {
    checkLength();
  }
  // A shift register before this chip may move SIN with the rising clock as well: that is late
  // enough.
  if (lateAt_ != 0 && clocks_ - lateAt_ < whole && fedByHost(sin_)) {
    violate("data-hold", "SIN changed with the rising SCLK: a race; modes 0 and 3 are right");
  }
  if (fastAt_ != 0 && clocks_ - fastAt_ < whole) {
    char text[80];
    std::snprintf(text, sizeof text, "SCLK faster than %.1f MHz %s",
                  (chain_ > 1 ? clockCascade_ : clockAlone_) / 1e6,
                  chain_ > 1 ? "in a cascade" : "of a single chip");
    violate("clock-too-fast", text);
  }
}

void Tlc5947::checkLength() {
  const uint64_t whole = uint64_t{kBits} * chain_;
  const uint64_t clocks = clocks_ - latchedAt_;
  if (clocks > 0 && clocks < whole) {
    violate("frame-length", std::to_string(clocks) + " clocks since the last latch, " +
                                std::to_string(whole) + " expected: old bits moved up");
  } else if (clocks >= whole + kStrayClocks && !shared_) {
    violate("frame-length", std::to_string(clocks) + " clocks since the last latch, " +
                                std::to_string(whole) + " expected: only the last ones count");
  }
}

void Tlc5947::findChain() {
  chainVersion_ = board().wiringVersion();
  chain_ = chainLength(*this, "SIN", "SOUT");
  uint32_t clocked = 1;
  if (sclk_.net() != nullptr) {
    for (Pin* pin : sclk_.net()->pins()) {
      auto* chip = dynamic_cast<SpiChip*>(&pin->part());
      clocked += chip != nullptr && chip != this && &chip->clockPin() == pin ? 1 : 0;
    }
  }
  shared_ = clocked > chain_;
}

void Tlc5947::blankChanged(bool high) {
  refresh();
  if (high) {
    return;
  }
  startedAt_ = now();
  darkenedAt_ = kNever;
  if (!known_) {
    violate("unblanked-poison", "BLANK is low before the first latch: the outputs show noise");
  }
}

void Tlc5947::refresh() {
  account();
  running_ = powered() && !overheated_ && !blank_.high();
}

void Tlc5947::account() {
  for (uint32_t output = 0; output < kOutputs; ++output) {
    onTimes_[output] += onNanoseconds(output, accountedUntil_, now());
  }
  accountedUntil_ = now();
}

// Oscillator clocks since the first display period of an output began; negative before.
double Tlc5947::ticksAt(uint32_t output, Time moment) const {
  const double clocks = static_cast<double>((moment - startedAt_).count()) * oscillator_ / 1e9;
  return clocks - kFirstClock - output % kGroups;
}

double Tlc5947::firstLitTick(uint32_t output) const {
  if (!latchDarkens_ || darkenedAt_ == kNever) {
    return 0;
  }
  return std::max(0.0, std::ceil(ticksAt(output, darkenedAt_) / kPeriod) * kPeriod);
}

double Tlc5947::onNanoseconds(uint32_t output, Time from, Time to) const {
  if (!running_) {
    return 0;
  }
  const double value = latched_[output];
  const auto litUntil = [value](double ticks) {
    return std::floor(ticks / kPeriod) * value + std::min(std::fmod(ticks, kPeriod), value);
  };
  const double begin = std::max(ticksAt(output, from), firstLitTick(output));
  const double end = ticksAt(output, to);
  return end > begin ? (litUntil(end) - litUntil(begin)) * 1e9 / oscillator_ : 0;
}

void Tlc5947::addKnobs() {
  const auto locked = [this](auto read) {
    return [this, read] {
      const auto guard = lock();
      return read();
    };
  };
  addProperty(
      boolProperty("poison", "noise (true, unless set) or zeros in the registers at power-up",
                   locked([this] { return poison_; }), [this](bool value) { setPoison(value); }));
  addProperty(numberProperty("oscillator", "Hz",
                             "clock of the pulse width modulation, 4 MHz unless set",
                             kOscillatorMin, kOscillatorMax, locked([this] { return oscillator_; }),
                             [this](double value) { setOscillator(value); }));
  addProperty(boolProperty(
      "latch_darkens", "whether a latch keeps the outputs off until the next period, as unless set",
      locked([this] { return latchDarkens_; }), [this](bool value) { setLatchDarkens(value); }));
  addProperty(numberProperty("iref", "ohm",
                             "resistor at IREF, 1640 (30 mA) and more, 1640 unless set",
                             kResistorMin, kResistorMax, locked([this] { return resistor_; }),
                             [this](double value) { setReferenceResistor(value); }));
  addProperty(numberProperty("max_clock", "Hz", "highest clock of a single chip, 30 MHz unless set",
                             kClockMin, kClockMax, locked([this] { return clockAlone_; }),
                             [this](double value) {
                               const auto guard = lock();
                               setClockLimits(value, clockCascade_);
                             }));
  addProperty(numberProperty("max_clock_cascade", "Hz",
                             "highest clock in a cascade, 15 MHz unless set", kClockMin, kClockMax,
                             locked([this] { return clockCascade_; }), [this](double value) {
                               const auto guard = lock();
                               setClockLimits(clockAlone_, value);
                             }));
  addProperty(boolProperty("overheated", "too hot: all outputs are off, false unless set",
                           locked([this] { return overheated_; }),
                           [this](bool value) { setOverheated(value); }));
}

void Tlc5947::addMeters() {
  const auto count = [](auto read) {
    return [read]() -> PropertyValue { return static_cast<int64_t>(read()); };
  };
  addProperty(meterProperty("values", "", "latched values, OUT0 first", [this]() -> PropertyValue {
    std::string text;
    for (int output = 0; output < kOutputs; ++output) {
      text += (output == 0 ? "" : " ") + std::to_string(value(output));
    }
    return text;
  }));
  addProperty(meterProperty("blanked", "", "whether BLANK holds all outputs off",
                            [this]() -> PropertyValue { return blanked(); }));
  addProperty(
      meterProperty("latches", "", "how often XLAT rose", count([this] { return latches(); })));
  addProperty(meterProperty("bits_since_latch", "", "clocks since the last latch",
                            count([this] { return bitsSinceLatch(); })));
  for (int output = 0; output < kOutputs; ++output) {
    addProperty({"out" + std::to_string(output),
                 "",
                 "mean brightness of OUT" + std::to_string(output) + ", 0 to 0.9998",
                 [this, output]() -> PropertyValue { return brightness(output); },
                 {},
                 false});
  }
}

}  // namespace vboard
