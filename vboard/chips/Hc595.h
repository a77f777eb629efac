// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_HC595_H
#define VBOARD_CHIPS_HC595_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"

namespace vboard {

/// 74HC595: 8-bit serial-in, parallel-out shift register with output latch, edge by edge.
///
/// Pins: "SER", "SRCLK", "RCLK", "SRCLR" (active low, high unless connected), "OE" (active low,
/// low unless connected), "QA" to "QH", "QH'" (cascade output, always driven).
///
/// It has no select: it shifts along with all traffic on its clock, which means nothing until RCLK
/// rises. So it complains at a latch, of what the latched bits came by. At power-up both registers
/// hold noise.
///
/// Violations: "latched-poison" (fewer than 8 clocks since power-up), "clock-too-fast",
/// "data-hold" (SER changed with the rising SRCLK, as in modes 1 and 2: mode 1 comes a bit too
/// late), "latch-setup" (RCLK rose too soon after SRCLK).
class Hc595 : public SpiChip {
 public:
  static constexpr std::string_view kType = "74HC595";

  explicit Hc595(std::string name);

  // Bench face.

  /// The latched byte, QA is bit 0; also while OE disables the outputs.
  int outputs() const;
  /// What a latch at this moment would show, QA is bit 0.
  int shiftRegister() const;
  uint64_t latches() const;
  /// VCC in volts, 2 to 6; 3.3 unless set. The highest clock follows it.
  void setSupply(double volts);
  /// Noise (unless set) or zeros in both registers at the next power-up.
  void setPoison(bool poison);

  // Bus face.
  Pin& clockPin() override { return srclk_; }
  Pin* dataInPin() override { return &ser_; }
  /// QH' never lets go, so it is not for a bus's MISO.
  Pin* dataOutPin() override { return nullptr; }
  bool listening() const override { return true; }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  void addProperties();
  void shift();
  void latch();
  void showOutputs();

  Pin& ser_;
  Pin& srclk_;
  Pin& rclk_;
  Pin& srclr_;
  Pin& oe_;
  Pin* outputs_[8];
  Pin& cascade_;
  SpiLimits limits_;

  double supply_ = 3.3;
  bool poison_ = true;

  uint8_t shift_ = 0;   // QA is bit 0
  uint8_t before_ = 0;  // the same before the last shift
  uint8_t latched_ = 0;
  uint8_t late_ = 0;     // bits whose SER changed while SRCLK was high
  uint8_t tooFast_ = 0;  // bits whose clock came too soon after the one before
  uint32_t clocks_ = 0;  // since power-up, up to 8
  Time roseAt_{0};
  uint64_t latches_ = 0;
};

}  // namespace vboard

#endif
