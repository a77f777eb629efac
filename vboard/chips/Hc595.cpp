// SPDX-License-Identifier: MIT
#include "vboard/chips/Hc595.h"

#include <algorithm>
#include <cstdio>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"
#include "vboard/chips/Wiring.h"

namespace vboard {

namespace {

constexpr double kSupplyMin = 2.0;
constexpr double kSupplyMax = 6.0;
constexpr uint32_t kBits = 8;

/// Limits at a supply, at 25 degrees; in between they are interpolated.
struct Limits {
  double supply;
  double megahertz;
  double latchSetupNs;  // SRCLK rise to RCLK rise
};
constexpr Limits kLimits[] = {{2.0, 6, 75}, {4.5, 31, 15}, {6.0, 36, 13}};

Limits limitsAt(double supply) {
  const Limits* low = &kLimits[0];
  while (low + 2 < std::end(kLimits) && supply > low[1].supply) {
    ++low;
  }
  const double share = (supply - low->supply) / (low[1].supply - low->supply);
  return {supply, low->megahertz + share * (low[1].megahertz - low->megahertz),
          low->latchSetupNs + share * (low[1].latchSetupNs - low->latchSetupNs)};
}

}  // namespace

Hc595::Hc595(std::string name)
    : SpiChip(std::string(kType), std::move(name)),
      ser_(addQuietInput("SER", Level::Low)),
      srclk_(addInput("SRCLK", Level::Low)),
      rclk_(addInput("RCLK", Level::Low)),
      srclr_(addInput("SRCLR", Level::High)),
      oe_(addInput("OE", Level::Low)),
      outputs_{&addOutput("QA"), &addOutput("QB"), &addOutput("QC"), &addOutput("QD"),
               &addOutput("QE"), &addOutput("QF"), &addOutput("QG"), &addOutput("QH")},
      cascade_(addOutput("QH'")) {
  // Other chips' traffic passes through unnoticed, in whatever format.
  limits_.lsbFirst = true;
  addProperties();
}

int Hc595::outputs() const {
  const auto guard = lock();
  return latched_;
}

int Hc595::shiftRegister() const {
  const auto guard = lock();
  return shift_;
}

uint64_t Hc595::latches() const {
  const auto guard = lock();
  return latches_;
}

void Hc595::setSupply(double volts) {
  const auto guard = lock();
  supply_ = std::clamp(volts, kSupplyMin, kSupplyMax);
}

void Hc595::setPoison(bool poison) {
  const auto guard = lock();
  poison_ = poison;
}

void Hc595::powerUp() {
  shift_ = 0;
  latched_ = 0;
  for (uint32_t bit = 0; poison_ && bit < kBits; ++bit) {
    shift_ = shiftedIn(shift_, board().noise());
    latched_ = shiftedIn(latched_, board().noise());
  }
  if (!srclr_.high()) {
    shift_ = 0;
  }
  before_ = shift_;
  late_ = 0;
  tooFast_ = 0;
  clocks_ = poison_ ? 0 : kBits;
  showOutputs();
}

void Hc595::pinChanged(Pin& pin, Level level) {
  const bool rose = level == Level::High;
  if (&pin == &srclk_) {
    if (rose) {
      shift();
    } else if (ser_.high() != ((shift_ & 1U) != 0)) {
      late_ |= 1;
    }
  } else if (&pin == &rclk_) {
    if (rose) {
      latch();
    }
  } else if (&pin == &srclr_ && !rose) {
    shift_ = 0;
    clocks_ = kBits;  // every bit is known
    showOutputs();
  } else if (&pin == &oe_) {
    showOutputs();
  }
}

void Hc595::shift() {
  if (!srclr_.high()) {
    return;
  }
  const Time period = now() - roseAt_;
  const bool tooFast = period > Time{0} && clocks_ > 0 &&
                       static_cast<double>(period.count()) * limitsAt(supply_).megahertz < 1000.0;
  roseAt_ = now();
  before_ = shift_;
  shift_ = shiftedIn(shift_, ser_.high());
  late_ = shiftedIn(late_, false);
  tooFast_ = shiftedIn(tooFast_, tooFast);
  clocks_ = std::min(clocks_ + 1, kBits);
  cascade_.drive((shift_ >> 7U) != 0 ? Drive::High : Drive::Low);
}

void Hc595::latch() {
  ++latches_;
  const Time setup = now() - roseAt_;
  if (setup == Time{0} && srclk_.high()) {
    latched_ = before_;  // both clocks tied together: the outputs lag by one
  } else {
    latched_ = shift_;
    const bool known = setup > Time{0} || board().options().callCost > Time{0};
    if (known && static_cast<double>(setup.count()) < limitsAt(supply_).latchSetupNs) {
      violate("latch-setup", "RCLK rose " + std::to_string(setup.count()) + " ns after SRCLK");
    }
  }
  if (clocks_ < kBits) {
    violate("latched-poison", "RCLK rose after " + std::to_string(clocks_) +
                                  " clocks since power-up: the other bits are noise");
  }
  // In a cascade SER follows the clock as well, and is sampled before it does.
  if (late_ != 0 && fedByHost(ser_)) {
    violate("data-hold", "SER changed with the rising SRCLK: a race; modes 0 and 3 are right");
  }
  if (tooFast_ != 0) {
    char text[64];
    std::snprintf(text, sizeof text, "SRCLK faster than %.1f MHz at %.1f V",
                  limitsAt(supply_).megahertz, supply_);
    violate("clock-too-fast", text);
  }
  showOutputs();
  if (observed()) {
    note("latched " + hexText(latched_));
  }
}

void Hc595::showOutputs() {
  for (uint32_t bit = 0; bit < kBits; ++bit) {
    const Drive driven = ((latched_ >> bit) & 1U) != 0 ? Drive::High : Drive::Low;
    outputs_[bit]->drive(oe_.high() ? Drive::Floating : driven);
  }
  cascade_.drive((shift_ >> 7U) != 0 ? Drive::High : Drive::Low);
}

void Hc595::addProperties() {
  addProperty({"vcc", "V", "supply, 2 to 6, 3.3 unless set; the highest clock follows it",
               [this]() -> PropertyValue {
                 const auto guard = lock();
                 return supply_;
               },
               numberSetter(kSupplyMin, kSupplyMax, [this](double volts) { setSupply(volts); }),
               false});
  addProperty(boolProperty(
      "poison", "noise (true, unless set) or zeros in the registers at power-up",
      [this] { return poison_; }, [this](bool poison) { setPoison(poison); }));
  addProperty({"outputs",
               "",
               "the latched byte, QA is bit 0",
               [this]() -> PropertyValue { return hexText(static_cast<uint8_t>(outputs())); },
               {},
               true});
  addProperty({"latches",
               "",
               "how often RCLK rose",
               [this]() -> PropertyValue { return static_cast<int64_t>(latches()); },
               {},
               true});
}

}  // namespace vboard
