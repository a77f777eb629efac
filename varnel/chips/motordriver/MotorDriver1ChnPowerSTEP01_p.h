// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNPOWERSTEP01_P_H
#define VARNEL_CHIPS_MOTORDRIVER_MOTORDRIVER1CHNPOWERSTEP01_P_H

#include <cstdint>
#include <vector>

#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver_p.h"

namespace Varnel {

class CMotorDriver1ChnPowerSTEP01Private : public CSTMicroSteppingMotorDriverPrivate {
 public:
  explicit CMotorDriver1ChnPowerSTEP01Private(CSTMicroSteppingMotorDriver* driver);

  ST::CStatus& status() override { return Status; }

  /// Sets the length of every register.
  void initRegisterBitLengthArray();

  std::vector<uint8_t> RegisterBitLength;
  ST::powerSTEP01::CStatus Status{0};
};

}  // namespace Varnel

#endif
