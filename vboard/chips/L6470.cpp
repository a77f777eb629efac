// SPDX-License-Identifier: MIT
#include "vboard/chips/L6470.h"

#include <utility>

namespace vboard {

namespace {

using Access = StepperChip::Access;

constexpr uint8_t kAlarmEnable = 0x17;

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
    {"KVAL_HOLD", 8, 0x29, Access::Always},
    {"KVAL_RUN", 8, 0x29, Access::Always},
    {"KVAL_ACC", 8, 0x29, Access::Always},
    {"KVAL_DEC", 8, 0x29, Access::Always},
    {"INT_SPEED", 14, 0x0408, Access::HighZ},
    {"ST_SLP", 8, 0x19, Access::HighZ},
    {"FN_SLP_ACC", 8, 0x29, Access::HighZ},
    {"FN_SLP_DEC", 8, 0x29, Access::HighZ},
    {"K_THERM", 4, 0x0, Access::Always},
    {"ADC_OUT", 5, 0x00, Access::ReadOnly},
    {"OCD_TH", 4, 0x8, Access::Always},
    {"STALL_TH", 7, 0x40, Access::Always},
    {"FS_SPD", 10, 0x027, Access::Always},
    {"STEP_MODE", 8, 0x07, Access::HighZ},
    {"ALARM_EN", 8, 0xFF, Access::Stopped},
    {"CONFIG", 16, 0x2E88, Access::HighZ},
    {"STATUS", 16, 0x0000, Access::ReadOnly},
}};

}  // namespace

L6470::L6470(std::string name)
    : StepperChip(kType, std::move(name), kRegisters,
                  {.supplyMin = 8, .supplyMax = 45, .configAddress = 0x18, .statusAddress = 0x19}) {
}

uint16_t L6470::statusWord() const {
  unsigned word = commonStatusBits();
  word |= latched(kNotPerformed) ? 0x0080U : 0U;
  word |= latched(kWrongCommand) ? 0x0100U : 0U;
  word |= latched(kUndervoltage) ? 0U : 0x0200U;
  word |= latched(kThermalWarning) ? 0U : 0x0400U;
  word |= latched(kThermalShutdown) ? 0U : 0x0800U;
  word |= latched(kOverCurrent) ? 0U : 0x1000U;
  word |= latched(kStallA) ? 0U : 0x2000U;
  word |= latched(kStallB) ? 0U : 0x4000U;
  word |= stepClockMode() ? 0x8000U : 0U;
  return static_cast<uint16_t>(word);
}

uint16_t L6470::enabledAlarms() const {
  static constexpr uint16_t kOfBit[] = {
      kOverCurrent, kThermalShutdown, kThermalWarning, kUndervoltage,
      kStallA,      kStallB,          kSwitch,         kWrongCommand | kNotPerformed};
  return alarmsOf(kOfBit, stored(kAlarmEnable));
}

}  // namespace vboard
