// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNL6470_P_H
#define VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNL6470_P_H

#include <cstdint>
#include <vector>

#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver_p.h"

namespace Varnel {

class CMotorDriver1ChnL6470Private : public CSTMicroSteppingMotorDriverPrivate {
 public:
  explicit CMotorDriver1ChnL6470Private(CSTMicroSteppingMotorDriver* driver);

  ST::CStatus& status() override { return Status; }

  /// Sets nothing: no length is known.
  void initRegisterBitLengthArray();

  std::vector<uint8_t> RegisterBitLength;
  ST::L6470::CStatus Status{0};
};

}  // namespace Varnel

#endif
