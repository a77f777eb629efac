// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_ADS1248_H
#define VBOARD_CHIPS_ADS1248_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/chips/DeltaSigma.h"

namespace vboard {

/// Texas Instruments ADS1248: 24-bit delta-sigma converter with eight inputs, gains up to 128 and
/// rates up to 2000 samples per second, every result settled.
///
/// Pins: "CS", "SCLK", "DIN", "DOUT" (DOUT/DRDY), "DRDY", "START" (low unless connected: then
/// nothing converts and registers can't be written), "RESET" (high unless connected), "GPIO0" to
/// "GPIO7". The analog side is the bench: inputs, two references, supplies, temperature.
///
/// A chip that has power as the board's clock starts has been powered for long; one that gets it
/// later needs its time to wake up. Burn-out and excitation currents and the bias voltage are
/// registers only.
///
/// Violations besides those of every SPI chip ("spi-mode", "clock-too-fast" …):
/// "in-reset", "reset-recovery", "power-up" (bytes that the chip doesn't hear), "reset-too-short",
/// "start-too-short", "select-hold-too-short", "select-high-too-short", "partial-byte",
/// "cut-command", "bad-sync", "unknown-command", "restricted-command", "command-in-standby",
/// "command-while-calibrating", "read-too-early" (no result there, or only that of before the
/// filter restarted and read already), "read-across-ready" (a new result in the middle of a
/// readout), "no-reference", "input-range".
class Ads1248 : public DeltaSigma {
 public:
  static constexpr std::string_view kType = "ADS1248";
  static constexpr int kChannels = 8;

  explicit Ads1248(std::string name);

  // Bench face.

  /// The voltage between the reference pins of pair 0 (2.5 unless set) or 1 (0, nothing connected,
  /// unless set).
  void setReference(int pair, Signal volts);
  /// AVDD and AVSS in volts against ground: 2.5 and -2.5 unless set, so that ground is in the
  /// middle of what the inputs may be.
  void setSupply(double avdd, double avss = 0);
  /// DVDD in volts, 3.3 unless set.
  void setDigitalSupply(double volts);
  /// Of the chip, in degrees Celsius; 25 unless set.
  void setTemperature(double celsius);
  /// An external clock, 1 to 4.5 MHz. 0: the oscillator inside, 4.096 MHz, as unless set.
  void setExternalClock(double hertz);
  /// The read-only bits 7:4 of IDAC0; 0 unless set.
  void setId(uint8_t id);
  /// What FSC holds after a reset, trimmed in the factory: 0x400000 unless set.
  void setFactoryFullScale(uint32_t value);
  /// From power to the first command heard, 16 ms unless set.
  void setPowerUpTime(Time time);
  /// Whether inputs too near to the supplies for the gain are a violation; true unless set.
  void setCommonModeCheck(bool check);

  // Bus face.
  void powerUp() override;

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
  void readyPulse() override;

 private:
  enum class State : uint8_t { Command, SecondSync, Count, WriteData, ReadData };

  void addProperties();
  void resetState(Time recovery, bool waking);
  void command(uint8_t byte);
  void stoppedCommand(uint8_t byte);
  void knownCommand(uint8_t byte);
  bool deaf(uint8_t byte);
  void countReceived(uint8_t byte);
  void dataReceived(uint8_t byte);
  void writeRegister(uint8_t address, uint8_t value);
  void loadRegister();
  void loadResult();
  void readData();
  void wakeUp();
  void startRose();
  void startFell();
  void restart(Time moment, bool quick);
  void startCalibration(uint8_t kind);
  void calibrate();
  void showGpio();
  void checkAnalog();
  bool stopped() const { return activity() == Activity::None; }
  unsigned rate() const;
  unsigned muxcal() const { return reg(0x02) & 7U; }
  bool readyOnDout() const { return (reg(0x0A) & 8U) != 0; }
  double gain() const;
  double reference(Time moment) const;
  double internalReference() const;
  double rawOf(double volts, Time moment) const;

  Pin& start_;
  Pin* gpio_[8];

  double avdd_ = 2.5;
  double avss_ = -2.5;
  double dvdd_ = 3.3;
  double celsius_ = 25;
  bool externalClock_ = false;
  uint8_t id_ = 0;
  uint32_t factoryFullScale_ = 0x400000;
  Time powerUpTime_ = std::chrono::milliseconds(16);
  bool commonModeCheck_ = true;

  bool inReset_ = false;
  Time resetFell_{0};
  Time hearsFrom_{0};
  bool wakingUp_ = false;  // it is deaf because power came, not because of a reset
  Time startRose_{0};
  bool asleep_ = false;  // SLEEP was sent; the conversion in progress still ends
  bool continuous_ = true;
  bool wantsContinuous_ = true;
  uint8_t calibration_ = 0;

  State state_ = State::Command;
  bool ignored_ = false;  // the command at hand, as the clock of the chip stands still
  bool writing_ = false;
  uint8_t address_ = 0;
  unsigned left_ = 0;    // registers of the command at hand
  uint32_t output_ = 0;  // next bit topmost
  unsigned outputLeft_ = 0;
  bool resultInOutput_ = false;
  bool corrupted_ = false;   // a result took the place of the register readout
  bool gaveData_ = false;    // in this frame
  bool onlyDummies_ = true;  // in this frame
  bool resultRead_ = false;
  bool restarted_ = true;  // since the last result
  bool hasResult_ = false;
};

}  // namespace vboard

#endif
