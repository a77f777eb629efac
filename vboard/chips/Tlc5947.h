// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_TLC5947_H
#define VBOARD_CHIPS_TLC5947_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"
#include "vboard/chips/Timing.h"

namespace vboard {

/// TI TLC5947: 24 constant-current LED outputs with 12-bit pulse width modulation, edge by edge.
///
/// Pins: "SIN", "SCLK", "XLAT" (its rise latches), "BLANK" (high: all outputs off; high unless
/// connected), "SOUT" (cascade output, always driven, moves with the falling clock).
///
/// It has no select: 288 bits shift along with all traffic on its clock, OUT23's topmost bit first,
/// which means nothing until XLAT rises. So it complains at a latch, of what the latched bits came
/// by. At power-up both registers hold noise.
///
/// Violations: "latched-poison" (fewer clocks since power-up than the cascade has bits),
/// "unblanked-poison" (BLANK low before the first latch), "frame-length" (fewer clocks since the
/// last latch than the cascade has bits; or at least 8 more, where no other chip shares the clock),
/// "clock-too-fast", "data-hold" (SIN changed with the rising SCLK, as in modes 1 and 2: mode 1
/// comes a bit too late).
class Tlc5947 : public SpiChip {
 public:
  static constexpr std::string_view kType = "TLC5947";
  static constexpr int kOutputs = 24;

  explicit Tlc5947(std::string name);

  // Bench face. Outputs are 0 to 23; any other is dark.

  /// The latched value of an output, 0 to 4095; also while BLANK is high.
  int value(int output) const;
  /// What a latch at this moment would make of it.
  int shifted(int output) const;
  /// Mean brightness as long as nothing changes, 0 to 0.9998: value/4096, 0 while blanked.
  double brightness(int output) const;
  /// Whether current flows at this moment.
  bool lit(int output) const;
  /// How long current has flowed since the board was made. The difference over a while is what the
  /// eye sees, with the dips that every latch makes.
  Time onTime(int output) const;
  /// Mean current in amperes, as the brightness.
  double current(int output) const;
  bool blanked() const;
  uint64_t latches() const;
  /// Clocks since the last latch, or since power-up.
  uint64_t bitsSinceLatch() const;
  /// Noise (unless set) or zeros in both registers at the next power-up.
  void setPoison(bool poison);
  /// The clock of the pulse width modulation in hertz; 4 MHz unless set, as typical chips have it.
  void setOscillator(double hertz);
  /// Whether a latch keeps the outputs off until the next display period begins, as unless set.
  void setLatchDarkens(bool darkens);
  /// The resistor at IREF in ohms, which sets all currents; 1640 (30 mA) unless set.
  void setReferenceResistor(double ohms);
  /// The highest clock in hertz of a chip that is alone, and in a cascade: 30 and 15 MHz unless
  /// set.
  void setClockLimits(double alone, double cascade);
  /// Too hot: all outputs are off for as long as it is set.
  void setOverheated(bool hot);

  // Bus face.
  Pin& clockPin() override { return sclk_; }
  Pin* dataInPin() override { return &sin_; }
  /// SOUT never lets go, so it is not for a bus's MISO.
  Pin* dataOutPin() override { return nullptr; }
  bool listening() const override { return true; }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void powerLost() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  static constexpr uint32_t kBits = 288;
  using Values = std::array<uint16_t, kOutputs>;

  void addKnobs();
  void addMeters();
  void shift();
  void latch();
  void blankChanged(bool high);
  void checkLatch();
  void checkLength();
  void findChain();
  bool bitAt(uint32_t position) const;
  uint16_t shiftedValue(uint32_t output) const;
  double ticksAt(uint32_t output, Time moment) const;
  double firstLitTick(uint32_t output) const;
  double onNanoseconds(uint32_t output, Time from, Time to) const;
  void account();
  void refresh();

  Pin& sin_;
  Pin& sclk_;
  Pin& xlat_;
  Pin& blank_;
  Pin& sout_;
  SpiLimits limits_;

  bool poison_ = true;
  bool latchDarkens_ = true;
  bool overheated_ = false;
  double oscillator_ = 4e6;
  double resistor_ = 1640;
  double clockAlone_ = 30e6;
  double clockCascade_ = 15e6;

  // The shift register as a ring: the next bit in takes the place of bit 287, the oldest.
  std::array<bool, kBits> ring_{};
  uint32_t next_ = 0;
  Values latched_{};
  bool lastBit_ = false;    // what the last clock took
  bool known_ = false;      // latched since power-up, or zeros from the start
  uint64_t clocks_ = 0;     // since power-up
  uint64_t latchedAt_ = 0;  // the count at the last latch
  uint64_t lateAt_ = 0;     // at the last bit whose SIN changed while SCLK was high; 0: none
  uint64_t fastAt_ = 0;     // at the last bit that came too soon after the one before; 0: none
  Time roseAt_ = kNever;
  uint64_t latches_ = 0;

  uint32_t chain_ = 1;         // chips in the cascade
  bool shared_ = false;        // other chips are on the clock
  uint64_t chainVersion_ = 0;  // of the wiring they were found in

  bool running_ = false;      // the outputs are not held off
  Time startedAt_{0};         // BLANK fell
  Time darkenedAt_ = kNever;  // the last latch since then
  Time accountedUntil_{0};
  std::array<double, kOutputs> onTimes_{};  // in nanoseconds, until then
};

}  // namespace vboard

#endif
