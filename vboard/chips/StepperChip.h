// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_STEPPERCHIP_H
#define VBOARD_CHIPS_STEPPERCHIP_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"
#include "vboard/chips/StepperMotion.h"

namespace vboard {

class StepperMotor;

/// What ST's stepper controllers L6470 and powerSTEP01 have in common: serial interface, command
/// set, register file and motion engine. Each chip's model adds its registers and its status word.
///
/// Pins: "CS", "CK", "SDI", "SDO" (floating while CS is high), "STBY" (standby and reset, active
/// low), "FLAG" and "BUSY" (open drain, active low), "SW" (switch to ground, with a pull-up),
/// "STCK" (step clock), "OUT" (the motor's cable: a `StepperMotor` belongs there).
///
/// Every byte is a select of its own: the chip decodes when CS rises, and answers in the selects
/// that follow. Chips whose SDO feeds the next one's SDI share a longer select.
///
/// Violations besides those of every SPI chip: "frame-length", "select-high-too-short",
/// "select-setup-too-short", "unknown-command", "command-refused", "write-refused",
/// "not-awake", "reset-too-short", "no-oscillator".
class StepperChip : public SpiChip {
 public:
  /// Who may write a register.
  enum class Access : uint8_t { Missing, ReadOnly, Always, Stopped, HighZ };

  struct Register {
    std::string_view name = {};
    uint8_t bits = 0;
    uint32_t reset = 0;
    Access access = Access::Missing;
  };

  /// Alarms: what is noticed and stays noticed until GetStatus.
  static constexpr uint16_t kOverCurrent = 1U << 0U;
  static constexpr uint16_t kThermalWarning = 1U << 1U;
  static constexpr uint16_t kThermalShutdown = 1U << 2U;  // of the bridges
  static constexpr uint16_t kDeviceShutdown = 1U << 3U;
  static constexpr uint16_t kUndervoltage = 1U << 4U;
  static constexpr uint16_t kAdcUndervoltage = 1U << 5U;
  static constexpr uint16_t kStallA = 1U << 6U;
  static constexpr uint16_t kStallB = 1U << 7U;
  static constexpr uint16_t kSwitch = 1U << 8U;
  static constexpr uint16_t kWrongCommand = 1U << 9U;
  static constexpr uint16_t kNotPerformed = 1U << 10U;

  enum class Thermal : uint8_t { Normal, Warning, BridgeShutdown, DeviceShutdown };

  /// What SetParam of a read-only register does; the data sheets say both.
  enum class ReadOnlyWrite : uint8_t {
    WrongCommand,  ///< wrong at the command byte; its data bytes are decoded as commands
    NotPerformed,  ///< not performed, after its data bytes
  };

  // Bench face.

  /// Motor supply in volts; 24 unless set. Too low: undervoltage.
  void setSupply(double volts);
  /// ADCIN in volts, 0 to 3.3; 3.3 unless set.
  void setAdcInput(double volts);
  /// A short circuit at the motor for as long as it is set.
  void setOverCurrent(bool present);
  void setThermal(Thermal level);
  /// Whether there is a clock for a chip that CONFIG tells to use one; none unless set.
  void setExternalClock(bool present);
  /// `WrongCommand` unless set.
  void setReadOnlyWrite(ReadOnlyWrite reaction);
  /// Whether ResetDevice is refused while the bridges are on.
  void setResetNeedsHighZ(bool needed);
  /// How long CS must be high between two bytes, 800 ns unless set.
  void setSelectHighTime(Time time);

  /// ABS_POS as a number, in microsteps.
  int32_t position() const;
  /// In full steps per second, without sign.
  double speed() const;
  bool busy() const;
  bool highZ() const;
  uint16_t status() const;
  /// A register as GetParam would give it; 0 for a missing one.
  uint32_t registerValue(uint8_t address) const;
  uint64_t commands() const;

  // For the motor on the cable, with the board's lock held.

  /// Where the field stands, in 1/128 of a full step since power-up.
  double electrical() const;
  /// When it next comes to a place or leaves it, at the latest; or nothing.
  std::optional<Time> whenElectrical(double position) const;
  /// Looks at what may raise an alarm: the bench settings, and whether the motor stalls.
  void causesChanged();

  // Bus face.
  Pin& clockPin() override { return ck_; }
  Pin* dataInPin() override { return &sdi_; }
  Pin* dataOutPin() override { return &sdo_; }
  bool listening() const override { return selected_; }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void powerLost() override;
  void pinChanged(Pin& pin, Level level) override;

 protected:
  using Registers = std::array<Register, 32>;

  struct Traits {
    double supplyMin = 0;  ///< in volts; undervoltage below
    double supplyMax = 0;
    double adcMin = 0;             ///< in volts; ADC undervoltage below
    bool resetNeedsHighZ = false;  ///< unless set otherwise on the bench
    uint8_t configAddress = 0;
    uint8_t statusAddress = 0;
  };

  StepperChip(std::string_view type, std::string name, const Registers& registers, Traits traits);

  /// The status word in the chip's layout.
  virtual uint16_t statusWord() const = 0;
  /// The alarms that ALARM_EN lets pull FLAG.
  virtual uint16_t enabledAlarms() const = 0;
  /// Whether a stall can be noticed.
  virtual bool noticesStalls() const { return true; }
  /// Microsteps per step as a power of two, 0 to 7.
  virtual unsigned stepSelect() const;
  /// What is latched when power comes, and after a reset.
  virtual uint16_t alarmsAtReset() const { return kUndervoltage; }
  /// Who may write a register; other than in the table where a bench setting says so.
  virtual Access accessOf(uint8_t address) const { return registers_[address].access; }

  uint32_t stored(uint8_t address) const { return values_[address]; }
  bool latched(uint16_t alarms) const { return (latched_ & alarms) != 0; }
  /// The bits that both layouts share: HiZ, BUSY, SW_F, SW_EVN, DIR, MOT_STATUS.
  uint16_t commonStatusBits() const;
  bool stepClockMode() const { return stepClock_; }
  /// The alarms behind the bits that are set in a register: the entry of each bit, together.
  static uint16_t alarmsOf(std::span<const uint16_t, 8> ofBit, uint32_t bits);

 private:
  enum class Motion : uint8_t { None, Run, Position, GoUntil, ReleaseSwitch, Stopping };

  void addProperties();
  void reset();
  void select();
  void deselect();
  void checkSetup();
  void checkFrame();
  uint32_t chainLength() const;
  void standbyChanged(Level level);
  bool hears();

  void receive(uint8_t byte);
  void decode(uint8_t byte);
  void decodeParameter(uint8_t byte);
  void expectArguments(uint8_t command, uint8_t count);
  void execute();
  void answer(uint32_t value, uint8_t bytes);
  void wrongCommand(uint8_t byte, const char* why);
  void refuse(std::string_view rule, std::string text);

  uint32_t liveValue(uint8_t address) const;
  void writeRegister(uint8_t address, uint32_t value);
  void storeRegister(uint8_t address, uint32_t value);
  bool mayWrite(uint8_t address) const;

  void run(int direction, uint32_t speedCode);
  void goUntil(int direction, bool mark, uint32_t speedCode);
  void releaseSwitch(int direction, bool mark);
  void moveBy(int direction, uint32_t steps);
  void goTo(uint32_t target, int direction, const char* name);
  void stepClock(int direction);
  void resetDevice();
  void getStatus();
  void stop(bool ramp, bool thenHighZ);
  bool mayMove(const char* name);
  void begin(Motion motion);

  StepperMotion::Profile profile() const;
  StepperMotion::State state() const;
  bool moving() const { return state().phase != StepperMotion::Phase::Stopped; }
  double microstepsPerStep() const;
  bool busyNow() const;
  int64_t count() const;
  int32_t absolutePosition() const;
  void setAbsolutePosition(uint32_t value);
  void setElectrical(double position);
  void plan();
  void motionChanged();
  void motionEvent();
  void switchChanged(Level level);
  void takeSwitchedPosition();

  uint16_t presentCauses() const;
  void raise(uint16_t alarms);
  bool bridgesBlocked() const;
  void refreshPins();
  StepperMotor* motor() const;

  const Registers registers_;
  const Traits traits_;
  SpiLimits limits_;
  Pin& cs_;
  Pin& ck_;
  Pin& sdi_;
  Pin& sdo_;
  Pin& stby_;
  Pin& flag_;
  Pin& busy_;
  Pin& sw_;
  Pin& stck_;
  Pin& out_;

  // Bench.
  double supply_ = 24;
  double adc_ = 3.3;
  bool overCurrent_ = false;
  Thermal thermal_ = Thermal::Normal;
  bool externalClock_ = false;
  ReadOnlyWrite readOnlyWrite_ = ReadOnlyWrite::WrongCommand;
  bool resetNeedsHighZ_;
  Time selectHighTime_{800};

  // Serial interface.
  bool selected_ = false;
  uint8_t shift_ = 0;
  uint32_t clocks_ = 0;
  uint32_t chain_ = 1;  // chips that share a select
  uint64_t chainVersion_ = 0;
  Time selectedAt_{0};
  Time deselectedAt_ = kNever;
  uint8_t command_ = 0;
  uint8_t argumentsLeft_ = 0;
  uint32_t argument_ = 0;
  uint32_t reply_ = 0;
  uint8_t replyLeft_ = 0;
  uint8_t replyByte_ = 0;  // of the next select
  uint64_t commands_ = 0;

  // Standby and clock.
  bool asleep_ = false;
  bool clockLost_ = false;
  Time sleptAt_{0};
  Time awakeAt_{0};

  std::array<uint32_t, 32> values_{};
  uint16_t latched_ = 0;
  bool highZ_ = true;
  bool stepClock_ = false;
  int stepDirection_ = 1;

  StepperMotion motion_;
  Motion motionKind_ = Motion::None;
  bool highZAfterStop_ = false;
  bool markOnSwitch_ = false;  // GoUntil and ReleaseSW: MARK takes the position, else ABS_POS is 0
  double runSpeed_ = 0;        // of Run and GoUntil, in steps/s as asked
  int runDirection_ = 1;
  double target_ = 0;           // of a positioning command, as the motion counts
  int64_t absoluteOffset_ = 0;  // ABS_POS = count + offset
  double electricalOffset_ = 0;
  std::optional<Clock::EventId> event_;

  static constexpr Time kNever = Time::min();
};

}  // namespace vboard

#endif
