// SPDX-License-Identifier: MIT
#include "vboard/chips/Mcp4822.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

constexpr uint32_t kClockMax = 20000000;
constexpr uint32_t kWordBits = 16;
constexpr uint16_t kChannelB = 0x8000;
constexpr uint16_t kGainOne = 0x2000;
constexpr uint16_t kActive = 0x1000;
constexpr uint16_t kControl = kGainOne | kActive;
constexpr uint16_t kCodeMask = 0x0FFF;
constexpr double kReference = 2.048;
constexpr double kCodes = 4096;
constexpr double kSupplyMin = 2.7;
constexpr double kSupplyMax = 5.5;
constexpr double kLowest = 0.010;         // an output never gets closer to ground
constexpr double kHeadroom = 0.040;       // nor to the supply
constexpr double kSlew = 0.55e-3;         // volts per nanosecond
constexpr double kRounding = 1e-6;        // volts that arithmetic may be off
constexpr nanoseconds kSelectHigh(15);    // between two words
constexpr nanoseconds kLdacSetup(40);     // CS rise to LDAC fall
constexpr nanoseconds kLdacPulse(100);    // low
constexpr double kWakeTimeMax = 1000000;  // µs, of the knob

int gainOf(uint16_t word) {
  return (word & kGainOne) != 0 ? 1 : 2;
}

std::string voltsText(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f V", value);
  return text;
}

}  // namespace

double Mcp4822::Output::target() const {
  return kReference * gainOf(word) * (word & kCodeMask) / kCodes;
}

Mcp4822::Mcp4822(std::string name)
    : SpiChip(std::string(kType), std::move(name)),
      cs_(addInput("CS", Level::High)),
      sck_(addInput("SCK", Level::Low)),
      sdi_(addQuietInput("SDI", Level::Low)),
      ldac_(addInput("LDAC", Level::High)) {
  limits_.modes = 0b1001;
  limits_.maxHz = kClockMax;
  sck_.setAttentive(false);
  addProperties();
}

double Mcp4822::voltage(Channel channel) const {
  const auto guard = lock();
  return settled(outputOf(channel));
}

double Mcp4822::voltageNow(Channel channel) const {
  const auto guard = lock();
  return present(outputOf(channel));
}

bool Mcp4822::active(Channel channel) const {
  const auto guard = lock();
  return powered() && (outputOf(channel).word & kActive) != 0;
}

int Mcp4822::code(Channel channel) const {
  const auto guard = lock();
  return outputOf(channel).word & kCodeMask;
}

int Mcp4822::gain(Channel channel) const {
  const auto guard = lock();
  return gainOf(outputOf(channel).word);
}

int Mcp4822::inputRegister(Channel channel) const {
  const auto guard = lock();
  return inputs_[static_cast<size_t>(channel)];
}

uint64_t Mcp4822::writes() const {
  const auto guard = lock();
  return writes_;
}

uint64_t Mcp4822::updates() const {
  const auto guard = lock();
  return updates_;
}

void Mcp4822::setSupply(double volts) {
  const auto guard = lock();
  supply_ = std::clamp(volts, kSupplyMin, kSupplyMax);
}

void Mcp4822::setWakeTime(Time time) {
  const auto guard = lock();
  wakeTime_ = std::max(time, Time{0});
}

void Mcp4822::setBuffersControl(bool buffers) {
  const auto guard = lock();
  buffersControl_ = buffers;
}

void Mcp4822::powerUp() {
  seenHigh_ = cs_.high();
  selected_ = false;
  openTold_ = false;
  clocks_ = 0;
  for (size_t channel = 0; channel < 2; ++channel) {
    inputs_[channel] = channel == 0 ? 0 : kChannelB;
    outputs_[channel] = {inputs_[channel], 0, now()};
  }
  deselectedAt_ = kNever;
  writtenAt_ = kNever;
  ldacFellAt_ = kNever;
  // Clocks of a select that nobody saw begin are only heard to be reported.
  sck_.setAttentive(!seenHigh_);
}

void Mcp4822::pinChanged(Pin& pin, Level level) {
  const bool rose = level == Level::High;
  if (&pin == &sck_) {
    if (rose) {
      clockRose();
    }
  } else if (&pin == &cs_) {
    rose ? deselect() : select();
  } else if (&pin == &ldac_) {
    rose ? ldacRose() : ldacFell();
  }
}

void Mcp4822::select() {
  selected_ = true;
  clocks_ = 0;
  sck_.setAttentive(true);
  if (deselectedAt_ == kNever) {
    return;
  }
  const Time high = now() - deselectedAt_;
  if (tooShort(board(), high, kSelectHigh)) {
    violate("select-high-too-short", "CS high for " + nanosecondsText(high) +
                                         " between words, at least " +
                                         nanosecondsText(kSelectHigh));
  }
}

void Mcp4822::clockRose() {
  ++clocks_;
  if (!selected_) {
    violate("select-low-at-power-up",
            "clocked with CS low since power came: nothing is taken until CS has been high");
    sck_.setAttentive(false);
  } else if (clocks_ <= kWordBits) {
    shift_ = static_cast<uint16_t>((unsigned{shift_} << 1U) | (sdi_.high() ? 1U : 0U));
  }
}

void Mcp4822::deselect() {
  const bool framed = selected_;
  seenHigh_ = true;
  selected_ = false;
  deselectedAt_ = now();
  sck_.setAttentive(false);
  if (!framed) {
    return;
  }
  if (clocks_ == 0) {
    violate("empty-frame", "CS rose without a clock: nothing is written");
  } else if (clocks_ < kWordBits) {
    violate("frame-length",
            std::to_string(clocks_) + " clocks in one select, 16 expected: nothing is written");
  } else if (clocks_ > kWordBits) {
    violate("frame-length", std::to_string(clocks_) +
                                " clocks in one select, 16 expected: only the first word, " +
                                hexText(shift_, 4) + ", counts");
  }
  if (clocks_ < kWordBits) {
    return;
  }
  const size_t channel = (shift_ & kChannelB) != 0 ? 1 : 0;
  inputs_[channel] = shift_;
  writtenAt_ = now();
  ++writes_;
  if (ldac_.net() == nullptr && !openTold_) {
    openTold_ = true;
    violate("ldac-open", "a word was written and LDAC is connected to nothing: no output moves");
  }
  if (!ldac_.high()) {
    update();
  } else if (!buffersControl_) {
    const unsigned kept = outputs_[channel].word & ~unsigned{kControl};
    show(channel, static_cast<uint16_t>(kept | (shift_ & kControl)));
  }
}

void Mcp4822::ldacFell() {
  ldacFellAt_ = now();
  const Time setup = writtenAt_ == kNever ? kLdacSetup : now() - writtenAt_;
  if (tooShort(board(), setup, kLdacSetup)) {
    violate("ldac-too-early", "LDAC fell " + nanosecondsText(setup) + " after CS rose, at least " +
                                  nanosecondsText(kLdacSetup));
  }
  update();
}

void Mcp4822::ldacRose() {
  if (ldacFellAt_ == kNever) {
    return;
  }
  const Time low = now() - ldacFellAt_;
  if (tooShort(board(), low, kLdacPulse)) {
    violate("ldac-pulse-too-short",
            "LDAC low for " + nanosecondsText(low) + ", at least " + nanosecondsText(kLdacPulse));
  }
}

void Mcp4822::update() {
  if (writtenAt_ != kNever) {
    ++updates_;
  }
  for (size_t channel = 0; channel < 2; ++channel) {
    show(channel, inputs_[channel]);
  }
}

void Mcp4822::show(size_t channel, uint16_t word) {
  Output& output = outputs_[channel];
  if (output.word == word) {
    return;
  }
  const bool wakes = (output.word & kActive) == 0 && (word & kActive) != 0;
  const Time ready = std::max(now(), output.movesAt);
  const double before = present(output);
  output.from = before;
  // A channel that is still waking isn't woken earlier by another value.
  output.movesAt = wakes ? now() + wakeTime_ : ready;
  output.word = word;
  const std::string_view name = channel == 0 ? "VOUTA" : "VOUTB";
  const bool on = (word & kActive) != 0;
  if (on && output.target() > supply_ - kHeadroom + kRounding) {
    violate("output-clips", std::string(name) + " can't reach " + voltsText(output.target()) +
                                ", at most " + voltsText(supply_ - kHeadroom) + " at a supply of " +
                                voltsText(supply_));
  }
  if (observed()) {
    note(std::string(name) + (on ? " " + voltsText(settled(output)) : " off"));
  }
}

double Mcp4822::clipped(double volts) const {
  return std::clamp(volts, kLowest, supply_ - kHeadroom);
}

double Mcp4822::settled(const Output& output) const {
  return powered() && (output.word & kActive) != 0 ? clipped(output.target()) : 0;
}

double Mcp4822::present(const Output& output) const {
  const double target = settled(output);
  if (!powered() || (output.word & kActive) == 0) {
    return 0;
  }
  if (now() < output.movesAt) {
    return output.from;
  }
  const double reach = static_cast<double>((now() - output.movesAt).count()) * kSlew;
  return output.from + std::clamp(target - output.from, -reach, reach);
}

void Mcp4822::addProperties() {
  addProperty(numberProperty(
      "vdd", "V", "supply, 2.7 to 5.5, 5 unless set; the outputs stay 40 mV below", kSupplyMin,
      kSupplyMax,
      [this] {
        const auto guard = lock();
        return supply_;
      },
      [this](double value) { setSupply(value); }));
  addProperty(numberProperty(
      "wake_time", "us", "from shutdown to a moving output, 10 unless set", 0, kWakeTimeMax,
      [this] {
        const auto guard = lock();
        return static_cast<double>(wakeTime_.count()) / 1000;
      },
      [this](double value) { setWakeTime(Time(std::llround(value * 1000))); }));
  addProperty(boolProperty(
      "buffers_control", "whether gain and shutdown wait for LDAC, true unless set",
      [this] {
        const auto guard = lock();
        return buffersControl_;
      },
      [this](bool value) { setBuffersControl(value); }));
  for (const Channel channel : {Channel::A, Channel::B}) {
    const std::string suffix = channel == Channel::A ? "_a" : "_b";
    const std::string pin = channel == Channel::A ? "VOUTA" : "VOUTB";
    addProperty(meterProperty("vout" + suffix, "V", pin + " once settled; 0 while it is off",
                              [this, channel]() -> PropertyValue { return voltage(channel); }));
    addProperty(meterProperty("active" + suffix, "", "whether " + pin + " is on",
                              [this, channel]() -> PropertyValue { return active(channel); }));
    addProperty(meterProperty(
        "code" + suffix, "", "the value behind " + pin + ", 0 to 4095",
        [this, channel]() -> PropertyValue { return static_cast<int64_t>(code(channel)); }));
    addProperty(meterProperty(
        "gain" + suffix, "", "gain of " + pin + ", 1 or 2",
        [this, channel]() -> PropertyValue { return static_cast<int64_t>(gain(channel)); }));
  }
  addProperty(meterProperty("writes", "", "words written to an input register",
                            [this]() -> PropertyValue { return static_cast<int64_t>(writes()); }));
  addProperty(meterProperty("updates", "", "how often the input registers went to the outputs",
                            [this]() -> PropertyValue { return static_cast<int64_t>(updates()); }));
}

}  // namespace vboard
