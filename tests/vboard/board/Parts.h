// SPDX-License-Identifier: MIT
#ifndef TESTS_VBOARD_BOARD_PARTS_H
#define TESTS_VBOARD_BOARD_PARTS_H

#include <string>
#include <vector>

#include "vboard/board/Board.h"

namespace boardtest {

using vboard::Drive;
using vboard::Level;
using vboard::Pin;

/// Something to turn by hand: one pin "P".
class Hand : public vboard::Part {
 public:
  explicit Hand(std::string name) : Part("hand", std::move(name)) { addOutput("P"); }
  Pin& p() { return pins().front(); }
  void low() { p().drive(Drive::Low); }
  void high() { p().drive(Drive::High); }
  void release() { p().drive(Drive::Floating); }
};

/// Writes down what one listening pin "P" hears.
class Ear : public vboard::Part {
 public:
  explicit Ear(std::string name, Level idle = Level::Low) : Part("ear", std::move(name)) {
    addInput("P", idle);
  }
  Pin& p() { return pins().front(); }
  void pinChanged(Pin& /*pin*/, Level level) override {
    heard += level == Level::High ? '1' : '0';
    times.push_back(now());
  }
  std::string heard;
  std::vector<vboard::Time> times;
};

/// A shift register of some bits: SIN sampled and SOUT changed at the same rising edge, always
/// listening, SOUT never lets go, as a '595 does.
class ShiftRegister : public vboard::SpiChip {
 public:
  explicit ShiftRegister(std::string name, unsigned bits = 8)
      : SpiChip("shift-register", std::move(name)),
        bits_(bits),
        sin_(addQuietInput("SIN", Level::Low)),
        clk_(addInput("CLK", Level::Low)),
        sout_(addOutput("SOUT")) {}

  Pin& clockPin() override { return clk_; }
  Pin* dataInPin() override { return &sin_; }
  Pin* dataOutPin() override { return &sout_; }
  bool listening() const override { return true; }
  const vboard::SpiLimits& limits() const override { return accepted; }
  void powerUp() override { load(0); }
  void pinChanged(Pin& /*pin*/, Level level) override {
    if (level == Level::High) {
      load((value << 1U) | (sin_.high() ? 1U : 0U));
    }
  }
  void load(uint32_t newValue) {
    value = newValue & (0xFFFFFFFFU >> (32 - bits_));
    sout_.drive(((value >> (bits_ - 1)) & 1U) != 0 ? Drive::High : Drive::Low);
  }

  uint32_t value = 0;
  vboard::SpiLimits accepted;

 private:
  unsigned bits_;
  Pin& sin_;
  Pin& clk_;
  Pin& sout_;
};

inline std::vector<std::string> rulesOf(const vboard::Board& board) {
  std::vector<std::string> rules;
  for (const vboard::Violation& violation : board.violations()) {
    rules.push_back(violation.part + ' ' + violation.rule);
  }
  return rules;
}

}  // namespace boardtest

#endif
