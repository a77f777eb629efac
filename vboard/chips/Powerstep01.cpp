// SPDX-License-Identifier: MIT
#include "vboard/chips/Powerstep01.h"

#include <algorithm>
#include <utility>

#include "vboard/chips/Knobs.h"
#include "vboard/chips/StepperCodes.h"

namespace vboard {

namespace {

using Access = StepperChip::Access;

constexpr uint8_t kAlarmEnable = 0x17;
constexpr uint32_t kCurrentMode = 0x08;  // CM_VM in STEP_MODE
constexpr unsigned kFinestInCurrentMode = 4;
constexpr double kAdcThreshold = 1.16;

constexpr std::array<StepperChip::Register, 32> kRegisters = {{
    {},
    {"ABS_POS", 22, 0x000000, Access::Stopped},
    {"EL_POS", 9, 0x000, Access::Stopped},
    {"MARK", 22, 0x000000, Access::Always},
    {"SPEED", 20, 0x00000, Access::ReadOnly},
    {"ACC", 12, 0x08A, Access::Stopped},
    {"DEC", 12, 0x08A, Access::Stopped},
    {"MAX_SPEED", 10, 0x041, Access::Always},
    {"MIN_SPEED", 13, 0x0000, Access::Stopped},
    {"KVAL_HOLD/TVAL_HOLD", 8, 0x29, Access::Always},
    {"KVAL_RUN/TVAL_RUN", 8, 0x29, Access::Always},
    {"KVAL_ACC/TVAL_ACC", 8, 0x29, Access::Always},
    {"KVAL_DEC/TVAL_DEC", 8, 0x29, Access::Always},
    {"INT_SPEED", 14, 0x0408, Access::HighZ},
    {"ST_SLP/T_FAST", 8, 0x19, Access::HighZ},
    {"FN_SLP_ACC/TON_MIN", 8, 0x29, Access::HighZ},
    {"FN_SLP_DEC/TOFF_MIN", 8, 0x29, Access::HighZ},
    {"K_THERM", 4, 0x0, Access::Always},
    {"ADC_OUT", 5, 0x00, Access::ReadOnly},
    {"OCD_TH", 5, 0x08, Access::Always},
    {"STALL_TH", 5, 0x10, Access::Always},
    {"FS_SPD", 11, 0x027, Access::Always},
    {"STEP_MODE", 8, 0x07, Access::HighZ},
    {"ALARM_EN", 8, 0xFF, Access::Stopped},
    {"GATECFG1", 12, 0x000, Access::HighZ},
    {"GATECFG2", 8, 0x00, Access::HighZ},
    {"CONFIG", 16, 0x2C88, Access::HighZ},
    {"STATUS", 16, 0x0000, Access::ReadOnly},
}};

}  // namespace

Powerstep01::Powerstep01(std::string name)
    : StepperChip(kType, std::move(name), kRegisters,
                  {.supplyMin = 7.5,
                   .supplyMax = 85,
                   .adcMin = kAdcThreshold,
                   .resetNeedsHighZ = true,
                   .configAddress = 0x1A,
                   .statusAddress = 0x1B}) {
  addProperty(boolProperty(
      "adc_alarm_at_power_up", "whether UVLO_ADC too is latched when power comes, false unless set",
      [this] { return adcAlarmAtPowerUp_; }, [this](bool value) { setAdcAlarmAtPowerUp(value); }));
  addProperty(boolProperty(
      "el_pos_needs_high_z",
      "whether EL_POS can be written with the bridges off only, false unless set",
      [this] { return elPosNeedsHighZ_; }, [this](bool value) { setElPosNeedsHighZ(value); }));
}

void Powerstep01::setAdcAlarmAtPowerUp(bool latched) {
  const auto guard = lock();
  adcAlarmAtPowerUp_ = latched;
}

void Powerstep01::setElPosNeedsHighZ(bool needed) {
  const auto guard = lock();
  elPosNeedsHighZ_ = needed;
}

bool Powerstep01::currentMode() const {
  return (stored(stepper::kStepMode) & kCurrentMode) != 0;
}

unsigned Powerstep01::stepSelect() const {
  const unsigned asked = StepperChip::stepSelect();
  return currentMode() ? std::min(asked, kFinestInCurrentMode) : asked;
}

uint16_t Powerstep01::alarmsAtReset() const {
  return adcAlarmAtPowerUp_ ? kUndervoltage | kAdcUndervoltage : kUndervoltage;
}

Access Powerstep01::accessOf(uint8_t address) const {
  return address == stepper::kElPos && elPosNeedsHighZ_ ? Access::HighZ
                                                        : StepperChip::accessOf(address);
}

uint16_t Powerstep01::statusWord() const {
  unsigned word = commonStatusBits();
  word |= latched(kNotPerformed | kWrongCommand) ? 0x0080U : 0U;
  word |= stepClockMode() ? 0x0100U : 0U;
  word |= latched(kUndervoltage) ? 0U : 0x0200U;
  word |= latched(kAdcUndervoltage) ? 0U : 0x0400U;
  if (latched(kDeviceShutdown)) {
    word |= 0x1800U;
  } else if (latched(kThermalShutdown)) {
    word |= 0x1000U;
  } else if (latched(kThermalWarning)) {
    word |= 0x0800U;
  }
  word |= latched(kOverCurrent) ? 0U : 0x2000U;
  word |= latched(kStallA) ? 0U : 0x4000U;
  word |= latched(kStallB) ? 0U : 0x8000U;
  return static_cast<uint16_t>(word);
}

uint16_t Powerstep01::enabledAlarms() const {
  static constexpr uint16_t kOfBit[] = {kOverCurrent,     kThermalShutdown | kDeviceShutdown,
                                        kThermalWarning,  kUndervoltage,
                                        kAdcUndervoltage, kStallA | kStallB,
                                        kSwitch,          kWrongCommand | kNotPerformed};
  return alarmsOf(kOfBit, stored(kAlarmEnable));
}

}  // namespace vboard
