// SPDX-License-Identifier: MIT
#include "vboard/chips/Lv165a.h"

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

constexpr uint32_t kBits = 8;
constexpr uint32_t kClockMax = 25000000;

}  // namespace

Lv165a::Lv165a(std::string name)
    : SpiChip(std::string(kType), std::move(name)),
      load_(addInput("SH/LD", Level::High)),
      clk_(addInput("CLK", Level::Low)),
      inhibit_(addInput("CLK INH", Level::Low)),
      ser_(addQuietInput("SER", Level::Low)),
      inputs_{&addInput("A", Level::Low), &addInput("B", Level::Low), &addInput("C", Level::Low),
              &addInput("D", Level::Low), &addInput("E", Level::Low), &addInput("F", Level::Low),
              &addInput("G", Level::Low), &addInput("H", Level::Low)},
      qh_(addOutput("QH")),
      notQh_(addOutput("QH_N")) {
  limits_.lsbFirst = true;
  limits_.maxHz = kClockMax;
  addProperties();
}

void Lv165a::setInputs(uint8_t inputs) {
  const auto guard = lock();
  bench_ = inputs;
  follow();
}

int Lv165a::inputs() const {
  const auto guard = lock();
  return levels();
}

int Lv165a::shiftRegister() const {
  const auto guard = lock();
  return register_;
}

uint64_t Lv165a::loads() const {
  const auto guard = lock();
  return loads_;
}

uint8_t Lv165a::levels() const {
  uint8_t levels = 0;
  for (uint32_t bit = 0; bit < kBits; ++bit) {
    const Pin& pin = *inputs_[bit];
    const bool high = pin.net() != nullptr ? pin.high() : ((bench_ >> bit) & 1U) != 0;
    levels = static_cast<uint8_t>(levels | (high ? 1U : 0U) << bit);
  }
  return levels;
}

void Lv165a::powerUp() {
  for (uint32_t bit = 0; bit < kBits; ++bit) {
    register_ = shiftedIn(register_, board().noise());
  }
  clockLevel_ = clk_.high() || inhibit_.high();
  complained_ = false;
  follow();
  show();
}

void Lv165a::pinChanged(Pin& pin, Level level) {
  if (&pin == &load_) {
    if (level == Level::High) {
      ++loads_;
      if (observed()) {
        note("loaded " + hexText(register_));
      }
    }
    complained_ = false;
    follow();
  } else if (&pin == &clk_ || &pin == &inhibit_) {
    if (&pin == &inhibit_ && level == Level::High && !clk_.high() && load_.high()) {
      violate("inhibit-while-clock-low", "CLK INH rose while CLK was low, which shifts by one");
    }
    clock();
  } else {
    follow();
  }
}

// Either of the two clock inputs high keeps the other from being seen.
void Lv165a::clock() {
  const bool before = clockLevel_;
  clockLevel_ = clk_.high() || inhibit_.high();
  if (!clockLevel_ || before) {
    return;
  }
  if (load_.high()) {
    register_ = shiftedIn(register_, ser_.high());
    show();
  } else if (!complained_) {
    complained_ = true;
    violate("clock-while-loading", "clocked with SH/LD low: nothing shifts, QH stays input H");
  }
}

void Lv165a::follow() {
  if (!load_.high()) {
    register_ = levels();
    show();
  }
}

void Lv165a::show() {
  const bool high = (register_ >> 7U) != 0;
  qh_.drive(high ? Drive::High : Drive::Low);
  notQh_.drive(high ? Drive::Low : Drive::High);
}

void Lv165a::addProperties() {
  addProperty(
      {"inputs", "", "levels at the unconnected inputs, 0 to 255, A is bit 0",
       [this]() -> PropertyValue { return static_cast<int64_t>(inputs()); },
       numberSetter(0, 255, [this](double value) { setInputs(static_cast<uint8_t>(value)); }),
       true});
  addProperty({"loads",
               "",
               "how often SH/LD rose",
               [this]() -> PropertyValue { return static_cast<int64_t>(loads()); },
               {},
               true});
}

}  // namespace vboard
