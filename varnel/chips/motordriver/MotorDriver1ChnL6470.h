// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNL6470_H
#define VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNL6470_H

#include <cstdint>
#include <vector>

#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"
#include "varnel/common/Export.h"

namespace Varnel {

/// Vocabulary of the L6470.
namespace ST::L6470 {

/// Register addresses besides those of `ST::eRegister`.
enum eRegister : uint8_t {
  CONFIG = 24,          ///< oscillator, switch mode, over-current reaction, PWM
  STATUS = 25,          ///< status word, read only
  REGISTER_COUNT = 25,  ///< registers are numbered from 1
};

/// Bits of the status word. The alarms and BUSY are low when active.
enum eStatusFlags : uint16_t {
  HiZ = 0x0001,          ///< bridges off
  BUSY = 0x0002,         ///< low while a motion command is carried out
  SW_F = 0x0004,         ///< switch closed
  SW_EVN = 0x0008,       ///< switch was closed (latched)
  DIR = 0x0010,          ///< forward
  MOT_STATUS = 0x0060,   ///< 0 standstill, 0x20 accelerating, 0x40 decelerating, 0x60 constant
  NOTPERF_CMD = 0x0080,  ///< a command could not be carried out (latched)
  WRONG_CMD = 0x0100,    ///< a command was not understood (latched)
  UVLO = 0x0200,         ///< low: supply was too low, or the chip was reset (latched)
  THERM_WRN = 0x0400,    ///< low: warm (latched)
  THERM_SD = 0x0800,     ///< low: too hot, bridges off (latched)
  OCD = 0x1000,          ///< low: over-current (latched)
  STEP_LOSS_A = 0x2000,  ///< low: bridge A saw a stall (latched)
  STEP_LOSS_B = 0x4000,  ///< low: bridge B saw a stall (latched)
  SCK_MOD = 0x8000,      ///< step-clock mode
};

/// The L6470's status word.
class VARNEL_EXPORT CStatus : public ST::CStatus {
 public:
  using ST::CStatus::CStatus;

  bool stepLossDetected() const override;
  uint8_t thermalStatus() const override;
  bool overCurrentDetected() const override;
  bool commandError() const override;
  bool isBusy() const override;
  /// The two bits of MOT_STATUS in place: 0, 0x20, 0x40 or 0x60.
  uint8_t motionStatus() const override;
};

}  // namespace ST::L6470

/// ST L6470 (dSPIN): stepper controller with voltage-mode microstepping bridges.
///
/// Parts:      L6470H, L6470PD (data sheet DocID16737)
/// SPI:        mode 3, most significant bit first, 8-bit words, 1 MHz, every byte in a select of
///             its own
/// Pins:       chip select (active low) through a chip selector; BUSY and FLAG are the board's
/// Controller: any that has mode 3
///
/// This driver knows no register lengths of the L6470: `setParameter`, `getParameter`, what is
/// built on them (`setAcceleration`, `getPosition` …) and `readStatus` return -22 after the command
/// byte has gone out. The motion and stop commands, `resetDevice`, `resetPosition` and
/// `clearStatus` work.
class VARNEL_EXPORT CMotorDriver1ChnL6470 : public CSTMicroSteppingMotorDriver {
 public:
  /// Unbound: call `setBus` and `setChipSelector` before the first command.
  CMotorDriver1ChnL6470();
  ~CMotorDriver1ChnL6470() override;

 protected:
  /// 25 times `ST::INDETERMINED_BITLENGTH`.
  const std::vector<uint8_t>& registerBitLength() const override;

 public:
  /// Returns -22 after the command byte has gone out; use `clearStatus`.
  TErrCode readStatus() override;
  /// The status word as last read by `clearStatus`, 0 before.
  const ST::CStatus& status() const override;
};

/// Makes an L6470 driver with `new`; the caller owns it.
VARNEL_EXPORT CSTMicroSteppingMotorDriver* createMotorDriver1ChnL6470();

}  // namespace Varnel

#endif
