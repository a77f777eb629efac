// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_MCP3201_H
#define VBOARD_CHIPS_MCP3201_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/board/Signal.h"
#include "vboard/board/SpiBus.h"

namespace vboard {

/// Microchip MCP3201: 12-bit successive approximation converter with one pseudo-differential
/// input, edge by edge.
///
/// Pins: "CS" (chip select and shutdown, active low), "CLK", "DOUT". It has no data input.
/// The analog side is the bench: supply, reference and both inputs.
///
/// A select starts nothing; the clock does. Sampling runs from the first rising edge to the second
/// falling edge, where the value freezes and DOUT answers with the null bit; then 12 bits follow,
/// MSB first, the same bits again LSB first (B0 shared), and zeros until CS has been high.
///
/// Violations besides those of every SPI chip ("spi-mode", "clock-too-fast" …):
/// "select-high-too-short", "select-setup-too-short", "short-frame", "no-deselect", "droop",
/// "select-low-at-power-up", "input-range", "input-minus-range", "reference-range".
class Mcp3201 : public SpiChip {
 public:
  static constexpr std::string_view kType = "MCP3201";

  explicit Mcp3201(std::string name);

  // Bench face.

  /// IN+ in volts against VSS.
  void setInput(Signal volts);
  /// IN- in volts against VSS; 0 unless set, within 0.1 V of it.
  void setInputMinus(Signal volts);
  /// VREF in volts, 0.25 to the supply; 5 unless set.
  void setReference(Signal volts);
  /// VDD in volts, 2.7 to 5.5; 5 unless set. The highest clock follows it.
  void setSupply(double volts);
  double supply() const;
  /// Errors of this very chip, in LSB: a shift of every code, and what is added at full scale.
  void setOffsetError(double lsb);
  void setGainError(double lsb);

  /// What a conversion at this moment would give.
  int codeNow() const;
  /// What the last conversion gave, and from what voltage between the inputs. 0 before the first.
  int lastCode() const;
  double lastVoltage() const;
  uint64_t conversions() const;

  // Bus face.
  Pin& clockPin() override { return clk_; }
  Pin* dataOutPin() override { return &dout_; }
  bool listening() const override { return selected_; }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  void addProperties();
  void select();
  void deselect();
  void clockRose();
  void clockFell();
  void sample();
  void checkInputs(double plus, double minus, double reference);
  int convert(double volts, double reference) const;
  void updateClockLimit();

  Pin& cs_;
  Pin& clk_;
  Pin& dout_;
  SpiLimits limits_;

  Signal input_{0.0};
  Signal inputMinus_{0.0};
  Signal reference_{5.0};
  double supply_ = 5.0;
  double offsetError_ = 0;
  double gainError_ = 0;

  bool seenHigh_ = false;  // CS has been high since power came
  bool selected_ = false;
  uint32_t rises_ = 0;   // of the clock since the select
  uint32_t falls_ = 0;   // since the first rise
  uint32_t output_ = 0;  // what is still to come on DOUT, next bit topmost
  Time selectedAt_{0};
  Time sampledAt_{0};
  Time deselectedAt_ = kNever;
  int lastCode_ = 0;
  double lastVoltage_ = 0;
  uint64_t conversions_ = 0;

  static constexpr Time kNever = Time::min();
};

}  // namespace vboard

#endif
