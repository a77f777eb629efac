// SPDX-License-Identifier: MIT
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

#include <mutex>

#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

bool ST::powerSTEP01::CStatus::stepLossDetected() const {
  return !hasFlag(STEP_LOSS_A | STEP_LOSS_B);
}

uint8_t ST::powerSTEP01::CStatus::thermalStatus() const {
  const unsigned field = (m_Data & TH_STATUS) >> 11U;
  return field >= BRIGDE_SHUTDOWN ? THERMAL_STATUS_SHUTDOWN : THERMAL_STATUS_NORMAL;
}

bool ST::powerSTEP01::CStatus::overCurrentDetected() const {
  return !hasFlag(OCD);
}

bool ST::powerSTEP01::CStatus::commandError() const {
  return hasFlag(CMD_ERR);
}

bool ST::powerSTEP01::CStatus::isBusy() const {
  return !hasFlag(BUSY);
}

uint8_t ST::powerSTEP01::CStatus::motionStatus() const {
  return static_cast<uint8_t>((m_Data & MOT_STATUS) >> 5U);
}

CMotorDriver1ChnPowerSTEP01Private::CMotorDriver1ChnPowerSTEP01Private(
    CSTMicroSteppingMotorDriver* driver)
    : CSTMicroSteppingMotorDriverPrivate(driver),
      RegisterBitLength(ST::powerSTEP01::REGISTER_COUNT, ST::INDETERMINED_BITLENGTH) {
}

void CMotorDriver1ChnPowerSTEP01Private::initRegisterBitLengthArray() {
  const auto set = [this](uint8_t address, uint8_t bits) {
    RegisterBitLength[address - 1U] = bits;
  };
  set(ST::ABS_POS, 22);
  set(ST::EL_POS, 9);
  set(ST::MARK, 22);
  set(ST::SPEED, 20);
  set(ST::ACC, 12);
  set(ST::DEC, 12);
  set(ST::MAX_SPEED, 10);
  set(ST::MIN_SPEED, 12);
  set(ST::KVAL_HOLD, 8);
  set(ST::KVAL_RUN, 8);
  set(ST::KVAL_ACC, 8);
  set(ST::KVAL_DEC, 8);
  set(ST::INT_SPEED, 14);
  set(ST::ST_SLP, 8);
  set(ST::FN_SLP_ACC, 8);
  set(ST::FN_SLP_DEC, 8);
  set(ST::K_THERM, 8);
  set(ST::ADC_OUT, 5);
  set(ST::OCD_TH, 5);
  set(ST::STALL_TH, 5);
  set(ST::FS_SPEED, 11);
  set(ST::STEP_MODE, 8);
  set(ST::ALARM_EN, 8);
  set(ST::powerSTEP01::GATECFG1, 11);
  set(ST::powerSTEP01::GATECFG2, 8);
  set(ST::powerSTEP01::CONFIG, 16);
  set(ST::powerSTEP01::STATUS, 16);
}

CMotorDriver1ChnPowerSTEP01::CMotorDriver1ChnPowerSTEP01()
    : CSTMicroSteppingMotorDriver(new CMotorDriver1ChnPowerSTEP01Private(this)) {
  static_cast<CMotorDriver1ChnPowerSTEP01Private*>(d_ptr)->initRegisterBitLengthArray();
}

CMotorDriver1ChnPowerSTEP01::~CMotorDriver1ChnPowerSTEP01() = default;

const std::vector<uint8_t>& CMotorDriver1ChnPowerSTEP01::registerBitLength() const {
  return static_cast<const CMotorDriver1ChnPowerSTEP01Private*>(d_ptr)->RegisterBitLength;
}

TErrCode CMotorDriver1ChnPowerSTEP01::readStatus() {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  uint32_t word = 0;
  const TErrCode code = getParameter(ST::powerSTEP01::STATUS, word);
  if (code < 0) {
    return logReturnCode(code);
  }
  d_ptr->status().m_Data = static_cast<uint16_t>(word);
  return 0;
}

const ST::CStatus& CMotorDriver1ChnPowerSTEP01::status() const {
  return d_ptr->status();
}

CSTMicroSteppingMotorDriver* createMotorDriver1ChnPowerSTEP01() {
  return new CMotorDriver1ChnPowerSTEP01;
}

}  // namespace Varnel
