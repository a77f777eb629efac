// SPDX-License-Identifier: MIT
#include "vboard/chips/Mcp3201.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "vboard/board/Board.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

constexpr int kCodes = 4096;
constexpr double kSupplyMin = 2.7;
constexpr double kSupplyMax = 5.5;
constexpr double kSupplyFast = 5.0;
constexpr double kClockAtMin = 0.8e6;
constexpr double kClockAtFast = 1.6e6;
constexpr uint32_t kClockMin = 10000;
constexpr double kReferenceMin = 0.25;
constexpr double kMinusSpan = 0.1;
constexpr nanoseconds kSelectSetup(100);  // tSUCS: CS fall to first clock rise
constexpr nanoseconds kSelectHigh(625);   // tCSH
constexpr microseconds kHoldTime(1200);   // until the sampling capacitor has lost too much
constexpr uint32_t kSampleFall = 2;
constexpr uint32_t kLastBitFall = 14;  // B0 appears on DOUT
constexpr uint32_t kLastBitRise = 15;  // and is sampled here
// DOUT has long been low for good. A neighbour's traffic may well run past a selected chip, as the
// register of a select expander does; three frames of 16 clocks are a forgotten deselection.
constexpr uint32_t kForgottenRises = 48;

std::string volts(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f V", value);
  return text;
}

std::string nanosecondsText(Time time) {
  return std::to_string(time.count()) + " ns";
}

// Null bit, B11 … B0, then B1 … B11, from the top of the word downwards.
uint32_t outputOf(int code) {
  const auto bits = static_cast<uint32_t>(code);
  uint32_t mirrored = 0;
  for (unsigned bit = 1; bit < 12; ++bit) {
    mirrored = (mirrored << 1U) | ((bits >> bit) & 1U);
  }
  return (bits << 19U) | (mirrored << 8U);
}

}  // namespace

Mcp3201::Mcp3201(std::string name)
    : SpiChip(std::string(kType), std::move(name)),
      cs_(addInput("CS", Level::High)),
      clk_(addInput("CLK", Level::Low)),
      dout_(addOutput("DOUT")) {
  limits_.modes = 0b1001;
  limits_.minHz = kClockMin;
  updateClockLimit();
  clk_.setAttentive(false);
  addProperties();
}

void Mcp3201::setInput(Signal volts) {
  const auto guard = lock();
  input_ = std::move(volts);
}

void Mcp3201::setInputMinus(Signal volts) {
  const auto guard = lock();
  inputMinus_ = std::move(volts);
}

void Mcp3201::setReference(Signal volts) {
  const auto guard = lock();
  reference_ = std::move(volts);
}

void Mcp3201::setSupply(double volts) {
  const auto guard = lock();
  supply_ = std::clamp(volts, kSupplyMin, kSupplyMax);
  updateClockLimit();
}

double Mcp3201::supply() const {
  const auto guard = lock();
  return supply_;
}

void Mcp3201::setOffsetError(double lsb) {
  const auto guard = lock();
  offsetError_ = lsb;
}

void Mcp3201::setGainError(double lsb) {
  const auto guard = lock();
  gainError_ = lsb;
}

int Mcp3201::codeNow() const {
  const auto guard = lock();
  return convert(input_.evaluate(now()) - inputMinus_.evaluate(now()), reference_.evaluate(now()));
}

int Mcp3201::lastCode() const {
  const auto guard = lock();
  return lastCode_;
}

double Mcp3201::lastVoltage() const {
  const auto guard = lock();
  return lastVoltage_;
}

uint64_t Mcp3201::conversions() const {
  const auto guard = lock();
  return conversions_;
}

void Mcp3201::updateClockLimit() {
  const double share = std::clamp((supply_ - kSupplyMin) / (kSupplyFast - kSupplyMin), 0.0, 1.0);
  limits_.maxHz =
      static_cast<uint32_t>(std::lround(kClockAtMin + share * (kClockAtFast - kClockAtMin)));
}

void Mcp3201::powerUp() {
  // A chip that finds CS low when power comes waits until it has been high.
  seenHigh_ = cs_.high();
  selected_ = false;
  deselectedAt_ = kNever;
  rises_ = 0;
  clk_.setAttentive(!seenHigh_);
}

void Mcp3201::pinChanged(Pin& pin, Level level) {
  if (&pin == &clk_) {
    if (level == Level::High) {
      clockRose();
    } else {
      clockFell();
    }
  } else if (level == Level::Low) {
    select();
  } else {
    deselect();
  }
}

void Mcp3201::select() {
  selected_ = true;
  selectedAt_ = now();
  rises_ = 0;
  falls_ = 0;
  clk_.setAttentive(true);
  if (deselectedAt_ == kNever) {
    return;
  }
  const Time high = selectedAt_ - deselectedAt_;
  // A board without call costs can't tell how long the select stood high.
  const bool known = high > Time{0} || board().options().callCost > Time{0};
  if (known && high < kSelectHigh) {
    violate("select-high-too-short", "CS high for " + nanosecondsText(high) +
                                         " between conversions, at least " +
                                         nanosecondsText(kSelectHigh));
  }
}

void Mcp3201::deselect() {
  if (selected_ && falls_ >= kSampleFall && rises_ < kLastBitRise) {
    violate("short-frame",
            "CS rose after " + std::to_string(rises_) + " clocks: 15 are needed to read 12 bits");
  }
  seenHigh_ = true;
  selected_ = false;
  deselectedAt_ = now();
  clk_.setAttentive(false);
  dout_.drive(Drive::Floating);
}

void Mcp3201::clockRose() {
  ++rises_;
  if (!selected_) {
    if (rises_ == 1) {
      violate("select-low-at-power-up",
              "clocked with CS low since power came: no conversion until CS has been high");
    }
    return;
  }
  if (rises_ == 1) {
    const Time setup = now() - selectedAt_;
    const bool known = setup > Time{0} || board().options().callCost > Time{0};
    if (known && setup < kSelectSetup) {
      violate("select-setup-too-short", "clock rose " + nanosecondsText(setup) +
                                            " after CS fell, at least " +
                                            nanosecondsText(kSelectSetup));
    }
  } else if (rises_ == kForgottenRises + 1) {
    violate("no-deselect",
            "clock 49 with CS still low: zeros only, and no conversion until CS has been high");
    clk_.setAttentive(false);
  }
}

void Mcp3201::clockFell() {
  // In mode 3 a falling edge comes before the first rising one and means nothing.
  if (rises_ == 0 || !selected_) {
    return;
  }
  ++falls_;
  if (falls_ < kSampleFall) {
    return;
  }
  if (falls_ == kSampleFall) {
    sample();
  } else if (falls_ == kLastBitFall && now() - sampledAt_ > kHoldTime) {
    violate("droop", "last bit out " + std::to_string((now() - sampledAt_).count() / 1000) +
                         " us after sampling, at most 1200 us");
  }
  dout_.drive((output_ >> 31U) != 0 ? Drive::High : Drive::Low);
  output_ <<= 1U;
}

void Mcp3201::sample() {
  sampledAt_ = now();
  const double plus = input_.evaluate(sampledAt_);
  const double minus = inputMinus_.evaluate(sampledAt_);
  const double reference = reference_.evaluate(sampledAt_);
  checkInputs(plus, minus, reference);
  lastVoltage_ = plus - minus;
  lastCode_ = convert(lastVoltage_, reference);
  output_ = outputOf(lastCode_);
  ++conversions_;
  if (observed()) {
    note("sampled " + volts(lastVoltage_) + ": code " + std::to_string(lastCode_));
  }
}

void Mcp3201::checkInputs(double plus, double minus, double reference) {
  if (std::abs(minus) > kMinusSpan) [[unlikely]] {
    violate("input-minus-range", "IN- at " + volts(minus) + ", within 0.100 V of VSS");
  }
  if (plus < minus || plus > minus + reference) [[unlikely]] {
    violate("input-range",
            "IN+ at " + volts(plus) + ", from " + volts(minus) + " to " + volts(minus + reference));
  }
  if (reference < kReferenceMin || reference > supply_) [[unlikely]] {
    violate("reference-range",
            "VREF at " + volts(reference) + ", from 0.250 V to " + volts(supply_));
  }
}

int Mcp3201::convert(double volts, double reference) const {
  if (!(reference > 0)) {
    return volts > 0 ? kCodes - 1 : 0;
  }
  const double ideal = kCodes * volts / reference;
  const double real = ideal * (1 + gainError_ / kCodes) + offsetError_;
  return static_cast<int>(std::clamp(std::floor(real), 0.0, kCodes - 1.0));
}

void Mcp3201::addProperties() {
  const auto knob = [this](const char* name, const char* unit, const char* help, double lowest,
                           double highest, auto get, auto set) -> Property& {
    return addProperty({name, unit, help,
                        [this, get]() -> PropertyValue {
                          const auto guard = lock();
                          return get();
                        },
                        numberSetter(lowest, highest, set), false});
  };
  knob(
      "vdd", "V", "supply, 2.7 to 5.5, 5 unless set; the highest clock follows it", kSupplyMin,
      kSupplyMax, [this] { return supply_; }, [this](double value) { setSupply(value); });
  knob(
      "vref", "V", "reference, 0.25 to the supply, 5 unless set", 0, kSupplyMax,
      [this] { return reference_.evaluate(now()); }, [this](double value) { setReference(value); })
      .setSignal = [this](const Signal& volts) { setReference(volts); };
  knob(
      "in", "V", "IN+ against VSS, 0 unless set", -kSupplyMax, 2 * kSupplyMax,
      [this] { return input_.evaluate(now()); }, [this](double value) { setInput(value); })
      .setSignal = [this](const Signal& volts) { setInput(volts); };
  knob(
      "in_minus", "V", "IN- against VSS, within 0.1 of it, 0 unless set", -kSupplyMax, kSupplyMax,
      [this] { return inputMinus_.evaluate(now()); },
      [this](double value) { setInputMinus(value); })
      .setSignal = [this](const Signal& volts) { setInputMinus(volts); };
  knob(
      "offset", "LSB", "offset error of this chip, 3 at most in the data sheet, 0 unless set",
      -kCodes, kCodes, [this] { return offsetError_; },
      [this](double value) { setOffsetError(value); });
  knob(
      "gain", "LSB", "gain error at full scale, 5 at most in the data sheet, 0 unless set", -kCodes,
      kCodes, [this] { return gainError_; }, [this](double value) { setGainError(value); });
  addProperty({"last_code",
               "",
               "code of the last conversion",
               [this]() -> PropertyValue { return static_cast<int64_t>(lastCode()); },
               {},
               true});
  addProperty({"last_voltage",
               "V",
               "voltage between the inputs at the last conversion",
               [this]() -> PropertyValue { return lastVoltage(); },
               {},
               true});
  addProperty({"conversions",
               "",
               "conversions since the start",
               [this]() -> PropertyValue { return static_cast<int64_t>(conversions()); },
               {},
               true});
}

}  // namespace vboard
