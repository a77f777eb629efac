// SPDX-License-Identifier: MIT
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"

#include <mutex>

#include "varnel/chips/motordriver/MotorDriver1ChnL6470_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

bool ST::L6470::CStatus::stepLossDetected() const {
  return !hasFlag(STEP_LOSS_A | STEP_LOSS_B);
}

uint8_t ST::L6470::CStatus::thermalStatus() const {
  if (!hasFlag(THERM_SD)) {
    return THERMAL_STATUS_SHUTDOWN;
  }
  return hasFlag(THERM_WRN) ? THERMAL_STATUS_NORMAL : THERMAL_STATUS_WARNING;
}

bool ST::L6470::CStatus::overCurrentDetected() const {
  return !hasFlag(OCD);
}

bool ST::L6470::CStatus::commandError() const {
  return hasFlag(NOTPERF_CMD) || hasFlag(WRONG_CMD);
}

bool ST::L6470::CStatus::isBusy() const {
  return !hasFlag(BUSY);
}

uint8_t ST::L6470::CStatus::motionStatus() const {
  return static_cast<uint8_t>(m_Data & MOT_STATUS);
}

CMotorDriver1ChnL6470Private::CMotorDriver1ChnL6470Private(CSTMicroSteppingMotorDriver* driver)
    : CSTMicroSteppingMotorDriverPrivate(driver),
      RegisterBitLength(ST::L6470::REGISTER_COUNT, ST::INDETERMINED_BITLENGTH) {
}

void CMotorDriver1ChnL6470Private::initRegisterBitLengthArray() {
}

CMotorDriver1ChnL6470::CMotorDriver1ChnL6470()
    : CSTMicroSteppingMotorDriver(new CMotorDriver1ChnL6470Private(this)) {
}

CMotorDriver1ChnL6470::~CMotorDriver1ChnL6470() = default;

const std::vector<uint8_t>& CMotorDriver1ChnL6470::registerBitLength() const {
  return static_cast<const CMotorDriver1ChnL6470Private*>(d_ptr)->RegisterBitLength;
}

TErrCode CMotorDriver1ChnL6470::readStatus() {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  uint32_t word = 0;
  const TErrCode code = getParameter(ST::L6470::STATUS, word);
  if (code < 0) {
    return logReturnCode(code);
  }
  d_ptr->status().m_Data = static_cast<uint16_t>(word);
  return 0;
}

const ST::CStatus& CMotorDriver1ChnL6470::status() const {
  return d_ptr->status();
}

CSTMicroSteppingMotorDriver* createMotorDriver1ChnL6470() {
  return new CMotorDriver1ChnL6470;
}

}  // namespace Varnel
