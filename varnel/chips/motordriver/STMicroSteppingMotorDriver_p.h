// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MOTORDRIVER_STMICROSTEPPINGMOTORDRIVER_P_H
#define VARNEL_CHIPS_MOTORDRIVER_STMICROSTEPPINGMOTORDRIVER_P_H

#include <cstdint>

#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"

namespace Varnel {

/// Buffers and unit conversions. Its owner deletes it as this class, without a virtual destructor.
class CSTMicroSteppingMotorDriverPrivate {
 public:
  explicit CSTMicroSteppingMotorDriverPrivate(CSTMicroSteppingMotorDriver* driver)
      : q_ptr(driver) {}

  /// The status object of the chip.
  virtual ST::CStatus& status() = 0;

  // Conversions into register values multiply in single precision, truncate, and limit to the
  // register's width; negative numbers and NaN give 0.
  uint32_t toSPEED_Value(float stepsPerSecond);
  float fromSPEED_Value(uint32_t speedValue);
  uint32_t ACC_DEC_Value(float stepsPerSecond2);
  uint32_t INTSPEED_Value(float stepsPerSecond) const;
  uint32_t toMAXSPEED_Value(float stepsPerSecond) const;
  float fromMAXSPEED_Value(uint32_t maxSpeedValue) const;
  uint32_t MINSPEED_Value(float stepsPerSecond) const;
  /// 22 bits two's complement.
  uint32_t toABSPOSValue(int32_t position) const;
  /// The way back, except that 0x200000 gives 0.
  int32_t fromABSPOSValue(uint32_t absPos) const;

  // Register units per physical unit: a power of two and the chips' tick of 250 ns.
  static constexpr float SPEED_StepTickConversion = 67.108864F;      // 2^28 * tick
  static constexpr float ACC_DEC_StepTickConversion = 0.068719476F;  // 2^40 * tick^2
  static constexpr float MAX_SPEED_StepTickConversion = 0.065536F;   // 2^18 * tick
  static constexpr float MINSPEED_StepTickConversion = 4.194304F;    // 2^24 * tick
  static constexpr float INTSPEED_StepTickConversion = 16.777216F;   // 2^26 * tick

  CSTMicroSteppingMotorDriver* q_ptr;
  uint8_t SPI_TxBuffer = 0;
  uint8_t SPI_RxBuffer = 0;
};

}  // namespace Varnel

#endif
