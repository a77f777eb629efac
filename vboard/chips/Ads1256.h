// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_ADS1256_H
#define VBOARD_CHIPS_ADS1256_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/chips/DeltaSigma.h"

namespace vboard {

/// Texas Instruments ADS1256: 24-bit delta-sigma converter with eight inputs and a common one,
/// gains up to 64 and rates up to 30000 samples per second. At the three highest rates an input
/// step needs several results to settle, unless the filter is restarted.
///
/// Pins: "CS", "SCLK", "DIN", "DOUT", "DRDY", "SYNC" (SYNC/PDWN) and "RESET" (both high unless
/// connected), "D0" to "D3" (high while nothing drives them). The clock output on D0 isn't
/// simulated: the pin floats. The analog side is the bench: inputs, reference, supply. Burn-out
/// currents are registers only.
///
/// A chip that has power as the board's clock starts has been powered for long and is calibrated;
/// one that gets it later needs its time to wake up, and calibrates.
///
/// Violations besides those of every SPI chip ("spi-mode", "clock-too-fast" …):
/// "in-reset", "power-up", "in-power-down" (bytes that the chip doesn't hear), "reset-too-short",
/// "select-hold-too-short", "partial-byte", "cut-command", "command-gap" (too soon after the
/// command before), "data-too-soon" (data clocked too soon after the command), "unknown-command",
/// "command-in-standby", "command-while-calibrating", "command-in-read-mode" (in continuous
/// reading), "stop-while-not-ready" (SDATAC with DRDY high), "read-too-early" (the result was read
/// before, or there is none), "invalid-rate", "reference-range", "input-range".
class Ads1256 : public DeltaSigma {
 public:
  static constexpr std::string_view kType = "ADS1256";
  static constexpr int kChannels = 8;
  /// The channel number of AINCOM for `setInput`.
  static constexpr int kCommon = 8;

  explicit Ads1256(std::string name);

  // Bench face.

  /// VREFP against VREFN, 0.5 to 2.6 V; 2.5 unless set. Full scale is twice that.
  void setReference(Signal volts);
  /// AVDD in volts against ground, 5 unless set.
  void setSupply(double volts);
  /// The frequency at CLKIN, 0.1 to 10 MHz; 7.68 MHz unless set.
  void setClock(double hertz);
  /// The read-only bits 7:4 of STATUS; 3 unless set.
  void setId(uint8_t id);
  /// From power or power-down to the first command heard; 30 ms for a crystal unless set.
  void setStartUpTime(Time time);
  /// Whether a command that comes too soon after another one is lost; true unless set. It is a
  /// violation anyway.
  void setEarlyCommandsLost(bool lost);
  /// Whether a change of the rate restarts the conversion; true unless set.
  void setRateRestarts(bool restarts);

  // Bus face.
  void powerUp() override;
  void powerLost() override;

 protected:
  void selectFell() override;
  void selectRose() override;
  void clockRising() override;
  void clockFalling() override;
  void byteReceived(uint8_t byte) override;
  void controlChanged(Pin& pin, Level level) override;
  const char* cutCommand() const override;
  double inputAt(Time moment) const override;
  int32_t codeOf(double volts, Time moment) const override;
  uint8_t shownRegister(uint8_t address) const override;
  void finished(Activity activity) override;

 private:
  enum class State : uint8_t { Command, Count, WriteData, ReadRegisters, ReadResult };
  struct Rate;

  void addProperties();
  void resetState(bool pin);
  void resetRose();
  void syncFell();
  void syncRose();
  void restart(Time moment, double extraClocks);
  bool deaf(uint8_t byte);
  bool tooEarly(uint8_t byte);
  void command(uint8_t byte);
  void knownCommand(uint8_t byte);
  void continuousByte(uint8_t byte);
  bool takenNow(uint8_t byte);
  bool takenInStandby(uint8_t byte);
  void wakeUp();
  void readResult();
  void checkFresh(const char* command);
  void latchResult();
  void outputDone();
  void countReceived(uint8_t byte);
  void writeReceived(uint8_t byte);
  void writeRegister(uint8_t address, uint8_t value);
  void writeEnded();
  void loadRegister();
  void commandEnds(const char* name, double gapClocks);
  void startCalibration(uint8_t kind);
  Time calibrationTime(uint8_t kind) const;
  void calibrate();
  void showPins();
  void checkAnalog();
  void checkSlowClock();
  const Rate& rate() const;
  double gain() const;
  double rawOf(double volts, Time moment) const;
  bool buffered() const { return (reg(0x00) & 2U) != 0; }
  uint8_t outputPins() const;

  Pin& sync_;
  Pin* io_[4];
  Alarm release_;  // of data out, a moment after its last bit

  double avdd_ = 5.0;
  uint8_t id_ = 3;
  Time startUpTime_ = std::chrono::milliseconds(30);
  bool earlyLost_ = true;
  bool rateRestarts_ = true;

  bool inReset_ = false;
  Time resetFell_{0};
  bool poweredDown_ = false;
  bool halted_ = false;  // SYNC was sent
  bool standby_ = false;
  bool continuous_ = false;
  uint8_t calibration_ = 0;
  uint8_t rateCode_ = 0xF0;  // the last valid one
  Time slowHigh_{0};         // the shortest high of the pattern that resets the chip
  unsigned slowHighs_ = 0;   // of that pattern

  State state_ = State::Command;
  bool writing_ = false;
  bool ignored_ = false;  // the register command at hand, in standby
  uint8_t address_ = 0;
  unsigned left_ = 0;
  uint8_t before_[3] = {};  // STATUS, ADCON and DRATE as a write found them
  Time gapUntil_{0};
  const char* gapAfter_ = "";
  Time byteRose_{0};  // first edge of the byte that comes in
  bool byteReady_ = false;
  Time dataFrom_{0};
  uint32_t output_ = 0;  // next bit topmost
  unsigned outputLeft_ = 0;
  unsigned outputGiven_ = 0;  // bits since the command
  uint64_t outputOf_ = 0;     // the conversion in the output register, 0 for registers
  uint64_t readOf_ = 0;       // the conversion read last
  uint64_t firstOf_ = 0;      // conversions before the last reset
  unsigned emptyBytes_ = 0;
};

}  // namespace vboard

#endif
