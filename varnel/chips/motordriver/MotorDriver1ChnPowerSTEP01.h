// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNPOWERSTEP01_H
#define VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNPOWERSTEP01_H

#include <cstdint>
#include <vector>

#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"
#include "varnel/common/Export.h"

namespace Varnel {

/// Vocabulary of the powerSTEP01.
namespace ST::powerSTEP01 {

/// Register addresses besides those of `ST::eRegister`, and the names that shared addresses have in
/// current mode.
enum eRegister : uint8_t {
  TVAL_HOLD = 9,        ///< current mode: torque at standstill
  TVAL_RUN = 10,        ///< current mode: torque at constant speed
  TVAL_ACC = 11,        ///< current mode: torque while accelerating
  TVAL_DEC = 12,        ///< current mode: torque while decelerating
  T_FAST = 14,          ///< current mode: fast decay times
  T_ON_MIN = 15,        ///< current mode: shortest on time
  T_OFF_MIN = 16,       ///< current mode: shortest off time
  GATECFG1 = 24,        ///< gate current and its times, clock watchdog
  GATECFG2 = 25,        ///< dead time and blanking
  CONFIG = 26,          ///< oscillator, switch mode, over-current reaction, supply, PWM
  STATUS = 27,          ///< status word, read only
  REGISTER_COUNT = 27,  ///< registers are numbered from 1
};

/// Bits of the status word. The alarms and BUSY are low when active.
enum eStatusFlags : uint16_t {
  HiZ = 0x0001,          ///< bridges off
  BUSY = 0x0002,         ///< low while a motion command is carried out
  SW_F = 0x0004,         ///< switch closed
  SW_EVN = 0x0008,       ///< switch was closed (latched)
  DIR = 0x0010,          ///< forward
  MOT_STATUS = 0x0060,   ///< standstill, accelerating, decelerating, constant speed
  CMD_ERR = 0x0080,      ///< a command was not understood or could not be carried out (latched)
  STCK_MOD = 0x0100,     ///< step-clock mode
  UVLO = 0x0200,         ///< low: supply was too low, or the chip was reset (latched)
  UVLO_ADC = 0x0400,     ///< low: the analog input was too low (latched)
  TH_STATUS = 0x1800,    ///< an `eTH_STATUS_Flags` value (latched)
  OCD = 0x2000,          ///< low: over-current (latched)
  STEP_LOSS_A = 0x4000,  ///< low: bridge A saw a stall (latched)
  STEP_LOSS_B = 0x8000,  ///< low: bridge B saw a stall (latched)
};

/// Values of the two bits TH_STATUS.
enum eTH_STATUS_Flags : uint8_t {
  NORMAL = 0,           ///< no alarm
  WARNING = 1,          ///< warm, still driving
  BRIGDE_SHUTDOWN = 2,  ///< bridges off (the spelling is part of the interface)
  DEVICE_SHUTDOWN = 3,  ///< the whole chip is off
};

/// The powerSTEP01's status word.
class VARNEL_EXPORT CStatus : public ST::CStatus {
 public:
  using ST::CStatus::CStatus;

  bool stepLossDetected() const override;
  /// `THERMAL_STATUS_SHUTDOWN` or `THERMAL_STATUS_NORMAL`; the chip's warning counts as normal.
  uint8_t thermalStatus() const override;
  bool overCurrentDetected() const override;
  bool commandError() const override;
  bool isBusy() const override;
  /// MOT_STATUS as a number: 0 standstill, 1 accelerating, 2 decelerating, 3 constant speed.
  uint8_t motionStatus() const override;
};

}  // namespace ST::powerSTEP01

/// ST powerSTEP01: stepper controller in one package with 10 A bridges, voltage or current mode.
///
/// Parts:      powerSTEP01 (data sheet DocID025022)
/// SPI:        mode 3, most significant bit first, 8-bit words, 1 MHz, every byte in a select of
///             its own
/// Pins:       chip select (active low) through a chip selector; BUSY and FLAG are the board's
/// Controller: any that has mode 3
///
/// After power-up set at least GATECFG1 and GATECFG2 to the values of your board, and call
/// `clearStatus`.
class VARNEL_EXPORT CMotorDriver1ChnPowerSTEP01 : public CSTMicroSteppingMotorDriver {
 public:
  /// Unbound: call `setBus` and `setChipSelector` before the first command.
  CMotorDriver1ChnPowerSTEP01();
  ~CMotorDriver1ChnPowerSTEP01() override;

 protected:
  /// The lengths of registers 1 to 27.
  const std::vector<uint8_t>& registerBitLength() const override;

 public:
  /// Reads register STATUS into `status()`; the chip's latched flags stay.
  /// @return 0, or a negative code with `status()` as it was
  TErrCode readStatus() override;
  /// The status word as last read by `readStatus` or `clearStatus`, 0 before.
  const ST::CStatus& status() const override;
};

/// Makes a powerSTEP01 driver with `new`; the caller owns it.
VARNEL_EXPORT CSTMicroSteppingMotorDriver* createMotorDriver1ChnPowerSTEP01();

}  // namespace Varnel

#endif
