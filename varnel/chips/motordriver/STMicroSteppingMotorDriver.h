// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MOTORDRIVER_STMICROSTEPPINGMOTORDRIVER_H
#define VARNEL_CHIPS_MOTORDRIVER_STMICROSTEPPINGMOTORDRIVER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "orv/HasFlags.h"
#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

/// Vocabulary of the ST stepper controllers L6470 and powerSTEP01.
namespace ST {

/// Command bytes; the low bits of some carry an argument.
enum eCommand : uint8_t {
  CMD_NOP = 0x00,           ///< fill byte
  CMD_SET_PARAM = 0x00,     ///< OR-ed with the register address
  CMD_GET_PARAM = 0x20,     ///< OR-ed with the register address
  CMD_RUN = 0x50,           ///< OR-ed with the direction
  CMD_STEP_CLOCK = 0x58,    ///< OR-ed with the direction; not sent by this library
  CMD_MOVE = 0x40,          ///< OR-ed with the direction
  CMD_GOTO = 0x60,          ///< shortest path to a position
  CMD_GOTO_DIR = 0x68,      ///< OR-ed with the direction
  CMD_GO_UNTIL = 0x82,      ///< OR-ed with the direction; not sent by this library
  CMD_RELEASE_SW = 0x92,    ///< OR-ed with the direction; not sent by this library
  CMD_GO_HOME = 0x70,       ///< to position 0
  CMD_GO_MARK = 0x78,       ///< to the position in MARK
  CMD_RESET_POS = 0xD8,     ///< makes the present position 0
  CMD_RESET_DEVICE = 0xC0,  ///< power-up state
  CMD_SOFT_STOP = 0xB0,     ///< ramps down, bridges on
  CMD_HARD_STOP = 0xB8,     ///< stops at once, bridges on
  CMD_SOFT_HIZ = 0xA0,      ///< ramps down, bridges off
  CMD_HARD_HIZ = 0xA8,      ///< bridges off at once
  CMD_GET_STATUS = 0xD0,    ///< reads the status word and clears its latched flags
};

/// Register addresses that both chips share; each chip's header adds its own.
enum eRegister : uint8_t {
  ABS_POS = 1,      ///< position, 22 bits two's complement, in microsteps
  EL_POS = 2,       ///< electrical position: full step and microstep
  MARK = 3,         ///< a position to return to, like ABS_POS
  SPEED = 4,        ///< present speed, read only
  ACC = 5,          ///< acceleration
  DEC = 6,          ///< deceleration
  MAX_SPEED = 7,    ///< no motion is faster
  MIN_SPEED = 8,    ///< where ramps begin and end
  KVAL_HOLD = 9,    ///< drive voltage at standstill
  KVAL_RUN = 10,    ///< drive voltage at constant speed
  KVAL_ACC = 11,    ///< drive voltage while accelerating
  KVAL_DEC = 12,    ///< drive voltage while decelerating
  INT_SPEED = 13,   ///< back-EMF compensation: speed where the slope changes
  ST_SLP = 14,      ///< back-EMF compensation: slope at the start
  FN_SLP_ACC = 15,  ///< back-EMF compensation: final slope, accelerating
  FN_SLP_DEC = 16,  ///< back-EMF compensation: final slope, decelerating
  K_THERM = 17,     ///< compensation of the winding's resistance
  ADC_OUT = 18,     ///< the chip's analog input, read only
  OCD_TH = 19,      ///< over-current threshold
  STALL_TH = 20,    ///< stall threshold
  FS_SPEED = 21,    ///< full steps above this speed
  STEP_MODE = 22,   ///< microsteps per step, synchronisation output
  ALARM_EN = 23,    ///< which alarms pull the FLAG pin
};

/// Bit length of a register whose length is not known; it can't be read or written.
constexpr uint8_t INDETERMINED_BITLENGTH = 255;

/// Direction of a motion command.
enum eDirection : uint8_t {
  DIRECTION_REVERSE = 0,  ///< the position counts down
  DIRECTION_FORWARD = 1,  ///< the position counts up
};

/// What `CStatus::thermalStatus` tells.
enum eThermalStatus : uint8_t {
  THERMAL_STATUS_NORMAL = 0,    ///< no alarm
  THERMAL_STATUS_WARNING = 1,   ///< warm, still driving
  THERMAL_STATUS_SHUTDOWN = 2,  ///< too hot, switched off
};

/// The status word of a stepper controller, as last read.
class VARNEL_EXPORT CStatus : public Orv::CHasFlags<uint16_t> {
 public:
  /// The word @p data in the chip's own bit layout.
  CStatus(uint16_t data);                        // NOLINT(google-explicit-constructor): as its base
  CStatus(const CStatus&) = default;             ///< Copies the word.
  CStatus& operator=(const CStatus&) = default;  ///< Copies the word.
  virtual ~CStatus();

  /// Whether either bridge saw the motor lose steps.
  virtual bool stepLossDetected() const = 0;
  /// An `eThermalStatus` value.
  virtual uint8_t thermalStatus() const = 0;
  /// Whether the over-current alarm is set.
  virtual bool overCurrentDetected() const = 0;
  /// Whether the chip refused a command: unknown, or not possible at that moment.
  virtual bool commandError() const = 0;
  /// Whether a motion command is still being carried out.
  virtual bool isBusy() const = 0;
  /// Standstill, acceleration, deceleration or constant speed; the values are each chip's own.
  virtual uint8_t motionStatus() const = 0;
};

}  // namespace ST

class CSTMicroSteppingMotorDriver;
class CSTMicroSteppingMotorDriverPrivate;

/// Makes a driver of one type; the caller owns it.
typedef CSTMicroSteppingMotorDriver* (*MotorDriverFactoryFunction)();
/// Factory functions by type name.
typedef std::map<std::string, MotorDriverFactoryFunction> tMotorDriverFactoryMap;

/// Base of the drivers for ST's stepper controllers: motion commands, registers and status.
///
/// SPI:  mode 3, most significant bit first, 1 MHz, every byte in a select of its own
/// Pins: chip select (active low) through a chip selector
///
/// Speeds are in full steps per second and accelerations in full steps per second squared, whatever
/// the step mode; positions and step counts are in microsteps of the chip's STEP_MODE. Arguments
/// out of range are limited, never refused: negative speeds and NaN act as 0.
///
/// Every operation that talks to the chip locks the bus for its whole byte sequence, blocks until
/// the kernel is done (not until a motion is), and returns 0 or a negative code: that of the chip
/// selector or the bus, or -22 for a register of unknown length. After a failed byte the chip
/// expects the rest of its arguments, and may still be selected.
///
/// A fresh driver has neither bus nor chip selector: call `setBus` and `setChipSelector` before the
/// first command.
class VARNEL_EXPORT CSTMicroSteppingMotorDriver : public CLinuxSpiDevice {
 public:
  static constexpr int32_t MAXIMUM_POSITION = 2097151;     ///< in microsteps
  static constexpr int32_t MINIMUM_POSITION = -2097152;    ///< in microsteps
  static constexpr uint32_t MAXIMUM_SPEED = 15625;         ///< in steps/s
  static constexpr uint32_t MINIMUM_SPEED = 16;            ///< in steps/s
  static constexpr float MAXIMUM_ACCELERATION = 59590.0F;  ///< in steps/s²
  static constexpr float MINIMUM_ACCELERATION = 14.55F;    ///< in steps/s²

  /// Takes over the private part that a chip's driver made.
  explicit CSTMicroSteppingMotorDriver(CSTMicroSteppingMotorDriverPrivate* privatePart);
  /// Deletes the private part as the base class it was handed in as.
  ~CSTMicroSteppingMotorDriver() override;

  /// Makes a driver by name; the caller owns it.
  /// @param typeName "Varnel::CMotorDriver1ChnL6470" or "Varnel::CMotorDriver1ChnPowerSTEP01"
  /// @throws std::invalid_argument for any other name
  static CSTMicroSteppingMotorDriver* create(const std::string& typeName);

  /// Ramps down to standstill; the bridges stay on.
  TErrCode softStop();
  /// Stops at once; the bridges stay on.
  TErrCode hardStop();
  /// Puts the chip into its power-up state.
  TErrCode resetDevice();
  /// Moves to position 0 by the shortest path.
  TErrCode goHome();
  /// Moves to the position in register MARK by the shortest path.
  TErrCode goMark();
  /// Makes the present position 0.
  TErrCode resetPosition();
  /// Ramps down, then switches the bridges off.
  TErrCode softHiZ();
  /// Switches the bridges off at once.
  TErrCode hardHiZ();

  /// Turns at a constant speed. A failure of the command byte itself is not reported.
  /// @param stepsPerSecond 0 to 15625; limited to the register's 20 bits
  /// @param direction an `ST::eDirection`, sent as it is
  TErrCode run(float stepsPerSecond, uint8_t direction);
  /// Moves by a number of microsteps. A failure of the command byte itself is not reported.
  /// @param steps at most 2097151; larger counts move by that
  /// @param direction an `ST::eDirection`, sent as it is
  TErrCode move(uint32_t steps, uint8_t direction);
  /// Moves to a position by the shortest path. A failure of the command byte itself is not
  /// reported.
  /// @param absolutePosition limited to `MINIMUM_POSITION` and `MAXIMUM_POSITION`
  TErrCode goTo(int32_t absolutePosition);
  /// Moves to a position in one direction. A failure of the command byte itself is not reported.
  /// @param absolutePosition limited to `MINIMUM_POSITION` and `MAXIMUM_POSITION`
  /// @param direction an `ST::eDirection`, sent as it is
  TErrCode goToDirection(int32_t absolutePosition, uint8_t direction);

  /// Writes a register.
  /// @param parameter its address, sent as it is
  /// @param value as many low bytes as the register has
  /// @return -22, after the command byte has gone out, for a register of unknown length
  TErrCode setParameter(uint8_t parameter, uint32_t value);
  /// Reads a register.
  /// @param parameter its address, 0 to 31
  /// @param value gets the register's bytes; the others are left alone, so pass 0
  /// @return -22, after the command byte has gone out, for a register of unknown length
  TErrCode getParameter(uint8_t parameter, uint32_t& value);
  /// Sets the acceleration, 14.56 to 59590 steps/s²; above that, all ramps are left out.
  TErrCode setAcceleration(float stepsPerSecond2);
  /// Sets the deceleration, 14.56 to 59590 steps/s².
  TErrCode setDeceleration(float stepsPerSecond2);
  /// Sets the highest speed, 15.26 to 15610 steps/s.
  TErrCode setMaximumVelocity(float stepsPerSecond);
  /// Sets the speed where ramps begin and end, 0 to 976 steps/s.
  TErrCode setMinimumVelocity(float stepsPerSecond);
  /// Declares the present position to be @p absolutePosition, limited as in `goTo`.
  TErrCode writePosition(int32_t absolutePosition);
  /// Reads the highest speed; @p stepsPerSecond is written on success only.
  TErrCode getMaximumVelocity(float& stepsPerSecond);
  /// Reads the position; @p absolutePosition is written on success only. `MINIMUM_POSITION` itself
  /// reads as 0.
  TErrCode getPosition(int32_t& absolutePosition);
  /// Reads the present speed, without sign; @p stepsPerSecond is written on success only.
  TErrCode getSpeed(float& stepsPerSecond);
  /// Reads the status word into `status()` and clears the chip's latched flags. A failure of the
  /// command byte itself is not reported.
  TErrCode clearStatus();

  int32_t maximumPosition() const;    ///< `MAXIMUM_POSITION`
  int32_t minimumPosition() const;    ///< `MINIMUM_POSITION`
  uint32_t maximumSpeed() const;      ///< `MAXIMUM_SPEED`
  uint32_t minimumSpeed() const;      ///< `MINIMUM_SPEED`
  float maximumAcceleration() const;  ///< `MAXIMUM_ACCELERATION`
  float minimumAcceleration() const;  ///< `MINIMUM_ACCELERATION`

 protected:
  /// Bit length of each register, 0 to 32 or `ST::INDETERMINED_BITLENGTH`; the first element is
  /// that of address 1.
  virtual const std::vector<uint8_t>& registerBitLength() const = 0;

 public:
  /// Reads the status word into `status()`; the chip's latched flags stay.
  virtual TErrCode readStatus() = 0;
  /// The status word as last read. Not synchronised with threads that read it anew.
  virtual const ST::CStatus& status() const = 0;

 protected:
  /// The factory function of a type.
  /// @throws std::invalid_argument for an unknown name
  static MotorDriverFactoryFunction motorDriverFactory(std::string motorDriverTypeName);
  /// The types this library makes.
  static tMotorDriverFactoryMap& motorDriverFactoryRegistry();

  CSTMicroSteppingMotorDriverPrivate* d_ptr;  ///< owned

 private:
  void setupSPITransferSettings();
  TErrCode spiTransferByte(uint8_t txByte, uint8_t& rxByte);
  TErrCode spiTransferHandler(uint8_t parameter, uint32_t value, uint32_t& result);
  TErrCode sendCommand(uint8_t command);
  TErrCode sendMotionCommand(uint8_t command, uint32_t argument);
};

}  // namespace Varnel

#endif
