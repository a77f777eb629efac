// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_DELTASIGMA_H
#define VBOARD_CHIPS_DELTASIGMA_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Signal.h"
#include "vboard/board/SpiBus.h"

namespace vboard {

/// What the 24-bit delta-sigma converters have in common: a byte-wise interface in mode 1, a
/// register file, a filter that averages the input over a conversion, a data-ready pin on the
/// board's clock, and their bench face.
class DeltaSigma : public SpiChip {
 public:
  // Bench face.

  /// What stands on an analog input, in volts against ground.
  void setInput(int channel, Signal volts);
  /// Noise of the chip in volts RMS between the inputs; the same seed gives the same noise. 0
  /// unless set.
  void setNoise(double volts, uint64_t seed = 1);
  /// Errors of this very chip before calibration: volts between the inputs, and a share of the
  /// value (0.001 is 0.1 %).
  void setOffsetError(double volts);
  void setGainError(double share);
  /// Fault: conversions and calibrations don't end, the data-ready pin stays high.
  void setNeverReady(bool neverReady);
  /// Fault: the bits of a mask keep a value in a register, whatever is written. A mask of 0
  /// releases them.
  void stickRegisterBits(uint8_t address, uint8_t mask, uint8_t value);

  /// What the next register readout would show, from address 0.
  std::vector<uint8_t> registers() const;
  /// What a conversion of the present input without noise would give.
  int32_t codeNow() const;
  /// What the last conversion gave, and the volts between the inputs it averaged. 0 before the
  /// first.
  int32_t lastCode() const;
  double lastVoltage() const;
  uint64_t conversions() const;

  // Bus face.
  Pin& clockPin() override { return sclk_; }
  Pin* dataInPin() override { return &din_; }
  Pin* dataOutPin() override { return &dout_; }
  bool listening() const override { return selected_; }
  const SpiLimits& limits() const override { return limits_; }
  void pinChanged(Pin& pin, Level level) override;
  void powerLost() override;

 protected:
  static constexpr int kMaxChannels = 9;
  static constexpr size_t kMaxRegisters = 16;
  static constexpr int kMaxSettling = 5;
  static constexpr int32_t kCodeMax = 0x7FFFFF;
  static constexpr int32_t kCodeMin = -0x800000;
  static constexpr Time kNever = Time::min();

  /// What ends at a moment to come.
  enum class Activity : uint8_t { None, Conversion, Calibration, Waking, PoweringDown };

  DeltaSigma(std::string_view type, std::string name, int channels, size_t registers);

  // What a chip does at the edges; data out is its own.
  virtual void selectFell() = 0;
  virtual void selectRose() = 0;
  virtual void clockRising() = 0;
  /// Before the byte that this edge completes.
  virtual void clockFalling() = 0;
  virtual void byteReceived(uint8_t byte) = 0;
  /// A pin of the chip's own, or RESET.
  virtual void controlChanged(Pin& pin, Level level) = 0;
  /// The command that a deselection now would cut, or null.
  virtual const char* cutCommand() const = 0;

  /// Volts between the inputs as the multiplexer stands.
  virtual double inputAt(Time moment) const = 0;
  /// The code of a voltage between the inputs, with this chip's errors and calibration.
  virtual int32_t codeOf(double volts, Time moment) const = 0;
  /// What a register readout shows, without bits stuck on the bench.
  virtual uint8_t shownRegister(uint8_t address) const { return reg(address); }
  virtual void finished(Activity activity) = 0;
  /// The data-ready pin went high for a moment, as nobody read the last result.
  virtual void readyPulse() {}

  // Time.
  Time clocks(double count) const;
  /// Leaves what went on before. While data are ready, the data-ready pin goes high a moment
  /// before a conversion ends.
  void begin(Activity activity, Time end);
  void stop();
  Activity activity() const { return activity_; }
  Time end() const { return end_; }
  void setReady(bool ready);
  bool ready() const { return ready_; }

  // The filter.
  void restartFilter();
  /// Adds up what the input was so far; before every change of it.
  void integrate();
  /// Ends a conversion: the result is the mean of the last periods, or all of the first one.
  void convert(int periods);
  /// The mean of what was added up.
  double mean() const { return span_ > 0 ? sum_ / span_ : inputAt(now()); }
  static int32_t clip(double code);
  /// The lowest 24 bits of a code.
  static uint32_t wordOf(int32_t code) { return static_cast<uint32_t>(code) & 0xFFFFFFU; }

  // Registers.
  uint8_t reg(uint8_t address) const { return stuck(address, registers_[address]); }
  uint8_t readRegister(uint8_t address) const { return stuck(address, shownRegister(address)); }
  void storeRegister(uint8_t address, uint8_t value) { registers_[address] = value; }
  /// Three registers, the lowest byte first.
  uint32_t word24(uint8_t address) const;
  int32_t signedWord24(uint8_t address) const;
  void storeWord24(uint8_t address, uint32_t value);
  size_t registerCount() const { return registerCount_; }

  // Complaints.
  /// At most once in a select frame. Whether this is the first time.
  bool firstInFrame(uint32_t complaint);
  /// At most once until the condition was false.
  bool firstTime(uint32_t complaint, bool condition);
  /// Whether a measured time is shorter than a limit. No time at all tells nothing on a board
  /// without call costs.
  bool tooShort(Time measured, Time limit) const;
  static std::string timeText(Time time);
  static std::string voltsText(double volts);

  // Properties.
  Property& addKnob(std::string name, const char* unit, const char* help, double lowest,
                    double highest, std::function<double()> get, std::function<void(double)> set);
  Property& addSwitch(const char* name, const char* help, std::function<bool()> get,
                      std::function<void(bool)> set);
  Property& addSignal(std::string name, const char* help, Signal& signal,
                      const std::function<void(Signal)>& set);
  void addMeter(const char* name, const char* unit, const char* help,
                std::function<PropertyValue()> get);

  /// What the signal was until now still counts.
  void changeSignal(Signal& signal, Signal volts);

  Pin& cs_;
  Pin& sclk_;
  Pin& din_;
  Pin& dout_;
  Pin& drdy_;
  Pin& reset_;
  SpiLimits limits_;
  double clockHz_ = 0;
  Time selectHold_{0};  // last clock to deselection
  Time selectHigh_{0};
  Time readyPulse_{0};  // data-ready pin high before the next result

  std::array<Signal, kMaxChannels> inputs_;
  std::array<Signal, 2> references_;
  double offsetError_ = 0;
  double gainError_ = 0;

  bool selected_ = false;
  unsigned bits_ = 0;   // of the byte that comes in
  uint32_t bytes_ = 0;  // of this frame
  Time roseAt_{0};
  Time fellAt_{0};
  int32_t result_ = 0;
  uint64_t conversions_ = 0;

 private:
  void addBaseProperties();
  void select();
  void deselect();
  void clockRose();
  void clockFell();
  void alarmRang();
  void armAlarm();
  double meanInput(Time from, Time to) const;
  double nextNoise();
  void findSteady();
  uint8_t stuck(uint8_t address, uint8_t value) const {
    return static_cast<uint8_t>((value & ~stuckMask_[address]) | stuckValue_[address]);
  }
  std::string stuckText() const;
  bool parseStuck(const std::string& text);

  int channels_;
  size_t registerCount_;
  std::array<uint8_t, kMaxRegisters> registers_{};
  std::array<uint8_t, kMaxRegisters> stuckMask_{};
  std::array<uint8_t, kMaxRegisters> stuckValue_{};

  Alarm alarm_;
  Activity activity_ = Activity::None;
  Time begun_{0};
  Time end_{0};
  bool ready_ = false;
  bool neverReady_ = false;

  bool steady_ = true;  // no signal changes by itself
  Time addedUntil_{0};
  double sum_ = 0;
  double span_ = 0;
  bool firstSinceRestart_ = true;
  std::array<double, kMaxSettling> means_{};  // newest first
  double noise_ = 0;
  uint64_t noiseState_ = 1;
  double lastVoltage_ = 0;

  uint8_t input_ = 0;
  Time deselectedAt_ = kNever;
  uint32_t frameComplaints_ = 0;
  uint32_t standingComplaints_ = 0;
};

}  // namespace vboard

#endif
