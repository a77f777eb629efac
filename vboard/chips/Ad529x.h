// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_AD529X_H
#define VBOARD_CHIPS_AD529X_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"
#include "vboard/chips/Timing.h"

namespace vboard {

/// Analog Devices AD5291 and AD5292: digital potentiometers of 256 and 1024 positions with a memory
/// of 20 slots that each can be programmed once.
///
/// Pins: "SYNC" (active low), "SCLK", "DIN" (sampled with the falling clock), "SDO" (moves with the
/// rising clock), "RDY" (low: busy), "RESET" (acts when it rises; high unless connected). SDO and
/// RDY are open-drain: they need a pull-up on the wire, and SDO holds the wire low whatever SYNC
/// does, until 0x8001 and then 0x0000 turn it off.
///
/// The rise of SYNC decodes the last 16 bits of a select whose clocks are a multiple of 16. What
/// the chip was asked for goes out in the next select; otherwise that one gives the word back. A
/// word of which any clock comes while the chip is busy is ignored. At power-up the wiper and the
/// memory are locked, the wiper stands where the last programmed slot says, or in the middle.
///
/// Violations besides those of every SPI chip ("spi-mode", "clock-too-fast" …): "frame-length",
/// "empty-frame", "select-high-too-short", "select-low-at-power-up", "busy", "unknown-command",
/// "reserved-bits", "memory-address", "wiper-locked", "memory-locked", "memory-full",
/// "program-failed", "power-lost-while-programming", "reset-too-short", and of reading:
/// "read-too-fast", "no-pull-up", "first-bit".
class Ad529x : public SpiChip {
 public:
  static constexpr size_t kSlots = 20;

  // Bench face.

  /// Where the wiper stands: 0 (at B) to 255 or 1023.
  int position() const;
  /// Positions there are: 256 or 1024.
  int positions() const { return positions_; }
  /// The four control bits: program enable, wiper enable, calibration off, program success.
  int control() const;
  bool shutDown() const;
  bool busy() const;
  /// Whether SDO was turned off.
  bool outputOff() const;
  /// How many of the 20 slots are programmed.
  int slotsUsed() const;
  /// A slot's ten bits, from 0; nothing when it is not programmed.
  std::optional<int> slot(int index) const;
  /// Words that were decoded.
  uint64_t commands() const;
  /// Between wiper and terminal B, or A, in ohms. In shutdown A is open: infinite.
  double resistanceToB() const;
  double resistanceToA() const;
  /// The unloaded wiper in volts, by the voltages at the terminals.
  double wiperVoltage() const;

  /// What the memory was programmed with before, oldest slot first, in its ten bits; more than 20
  /// are forgotten. The wiper follows at the next reset or power-up.
  void setMemory(std::span<const uint16_t> slots);
  /// End to end in ohms; 20000 unless set. Chips come with 20, 50 and 100 kohm.
  void setResistance(double ohms);
  /// The wiper's own resistance in ohms; 60 unless set.
  void setWiperResistance(double ohms);
  /// Voltages at the terminals; 5 and 0 unless set.
  void setTerminals(double a, double b);
  /// Whether the capacitor at EXT_CAP is there, without which programming fails; it is unless set.
  void setCapacitor(bool fitted);
  /// How long programming a slot takes; 8 ms unless set.
  void setProgramTime(Time time);
  /// How long a slot or the status takes to be read; 1.3 ms, the longest, unless set.
  void setMemoryReadTime(Time time);
  /// What an empty slot reads as, in ten bits; 0 unless set.
  void setEmptySlot(uint16_t value);
  /// Whether the program success bit outlives a reset; it does not unless set.
  void setSuccessSurvivesReset(bool survives);
  /// Whether storing to a full memory clears the program success bit; it does unless set.
  void setFullClearsSuccess(bool clears);
  /// Whether the AD5291 answers noise in the two bits below its value; zeros unless set.
  void setNoiseBits(bool noise);

  // Bus face.
  Pin& clockPin() override { return sclk_; }
  Pin* dataInPin() override { return &din_; }
  Pin* dataOutPin() override { return &sdo_; }
  bool listening() const override { return selected_; }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void powerLost() override;
  void pinChanged(Pin& pin, Level level) override;

 protected:
  Ad529x(std::string_view type, std::string name, int positions);

 private:
  /// What keeps the chip busy.
  enum class Work : uint8_t { None, WriteWiper, ReadWiper, ReadMemory, Program, Reset };

  void addKnobs();
  void addMeters();
  void select();
  void deselect();
  void clockRose();
  void clockFell();
  bool stillBusy();
  bool hears();
  void complainOfClock();
  void checkOutput();
  void showOutput(bool late);
  void decode(uint16_t word);
  void execute(unsigned command, uint16_t word);
  void writeWiper(uint16_t value);
  void readMemory(uint16_t address);
  void store();
  void reset();
  void loadWiper();
  void answer(uint16_t value);
  void begin(Work work, Time duration);
  void finish();
  void finishProgram();
  static const char* nameOf(Work work);
  int positionOf(uint16_t wiper) const;
  double share() const { return static_cast<double>(wiper_) / 1024; }

  int positions_;
  uint16_t mask_;  // of the bits that hold a position
  Pin& sync_;
  Pin& sclk_;
  Pin& din_;
  Pin& sdo_;
  Pin& rdy_;
  Pin& reset_;
  SpiLimits limits_;

  double resistance_ = 20000;
  double wiperResistance_ = 60;
  double terminalA_ = 5;
  double terminalB_ = 0;
  bool capacitor_ = true;
  bool successSurvivesReset_ = false;
  bool fullClearsSuccess_ = true;
  bool noiseBits_ = false;
  uint16_t emptySlot_ = 0;
  Time programTime_ = std::chrono::milliseconds(8);
  Time memoryReadTime_ = std::chrono::microseconds(1300);

  std::array<uint16_t, kSlots> memory_{};
  size_t used_ = 0;

  uint16_t wiper_ = 0;  // ten bits, the position topmost
  uint16_t control_ = 0;
  bool shutDown_ = false;
  bool outputOff_ = false;
  bool offAsked_ = false;  // the first of the two words that turn SDO off
  uint64_t commands_ = 0;

  bool seenHigh_ = false;  // SYNC has been high since power came
  bool selected_ = false;
  bool beganBusy_ = false;  // busy when the select began
  bool locked_ = false;     // a clock of this select came too early: nothing is taken
  uint32_t falls_ = 0;      // of the clock since the select
  uint16_t shift_ = 0;
  bool output_ = true;      // what SDO shows, or will as soon as the wire has risen
  bool answering_ = false;  // an answer stands in the shift register
  Time deselectedAt_ = kNever;
  bool rose_ = false;  // the clock has risen in this select
  Time roseAt_{0};
  Time fellAt_{0};

  // What may be wrong with the bits that SDO shows in this select.
  bool firstFell_ = false;           // the clock fell before it rose
  bool notHeld_ = false;             // nobody pulled the wire up
  Time shortestHigh_ = Time::max();  // from a rise of the clock to its fall

  Work work_ = Work::None;
  Time busySince_{0};
  Time busyUntil_{0};
  std::optional<Clock::EventId> event_;
  std::optional<uint16_t> result_;  // what the work will answer
  uint16_t programming_ = 0;
  Time resetFellAt_ = kNever;
};

/// The chip of 256 positions, which stand in the upper eight of the ten bits.
class Ad5291 : public Ad529x {
 public:
  static constexpr std::string_view kType = "AD5291";

  explicit Ad5291(std::string name) : Ad529x(kType, std::move(name), 256) {}
};

/// The chip of 1024 positions.
class Ad5292 : public Ad529x {
 public:
  static constexpr std::string_view kType = "AD5292";

  explicit Ad5292(std::string name) : Ad529x(kType, std::move(name), 1024) {}
};

}  // namespace vboard

#endif
