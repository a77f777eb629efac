// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_LV165A_H
#define VBOARD_CHIPS_LV165A_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"

namespace vboard {

/// 74LV165A: 8-bit parallel-in, serial-out shift register, edge by edge.
///
/// Pins: "SH/LD" (low: the register follows the inputs, high: shift), "CLK", "CLK INH" (high
/// inhibits, low unless connected), "SER", "A" to "H", "QH" (always driven), "QH_N" (its
/// complement).
///
/// Inputs that are connected follow their wires, the others what the bench sets. At power-up the
/// register holds noise.
///
/// Violations besides those of every SPI chip: "clock-while-loading" (clocked while SH/LD is low,
/// once per load), "inhibit-while-clock-low" (CLK INH rose while CLK was low, which is a clock).
class Lv165a : public SpiChip {
 public:
  static constexpr std::string_view kType = "74LV165A";

  explicit Lv165a(std::string name);

  // Bench face.

  /// Levels at the unconnected inputs, A is bit 0; 0 unless set.
  void setInputs(uint8_t inputs);
  /// Levels at all inputs, A is bit 0.
  int inputs() const;
  /// A is bit 0, H is bit 7 and stands at QH.
  int shiftRegister() const;
  /// How often SH/LD rose.
  uint64_t loads() const;

  // Bus face.
  Pin& clockPin() override { return clk_; }
  Pin* dataOutPin() override { return &qh_; }
  bool listening() const override { return load_.high() && !inhibit_.high(); }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  void addProperties();
  uint8_t levels() const;
  void follow();
  void clock();
  void show();

  Pin& load_;
  Pin& clk_;
  Pin& inhibit_;
  Pin& ser_;
  Pin* inputs_[8];
  Pin& qh_;
  Pin& notQh_;
  SpiLimits limits_;

  uint8_t bench_ = 0;
  uint8_t register_ = 0;
  bool clockLevel_ = false;  // CLK or CLK INH
  bool complained_ = false;
  uint64_t loads_ = 0;
};

}  // namespace vboard

#endif
