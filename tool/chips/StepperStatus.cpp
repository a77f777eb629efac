// SPDX-License-Identifier: MIT
#include "tool/chips/StepperStatus.h"

#include <fmt/format.h>

#include <span>

#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace tool {
namespace {

namespace l6470 = Varnel::ST::L6470;
namespace powerstep01 = Varnel::ST::powerSTEP01;

struct AlarmBit {
  uint16_t bit;
  bool activeLow;
  Alarms alarm;
};

constexpr AlarmBit kL6470Alarms[] = {
    {l6470::NOTPERF_CMD, false, kAlarmCommandError},
    {l6470::WRONG_CMD, false, kAlarmCommandUnknown},
    {l6470::UVLO, true, kAlarmUndervoltage},
    {l6470::THERM_WRN, true, kAlarmThermalWarning},
    {l6470::THERM_SD, true, kAlarmThermalShutdown},
    {l6470::OCD, true, kAlarmOverCurrent},
    {l6470::STEP_LOSS_A, true, kAlarmStallA},
    {l6470::STEP_LOSS_B, true, kAlarmStallB},
    {l6470::SW_EVN, false, kAlarmSwitch},
};

constexpr AlarmBit kPowerstep01Alarms[] = {
    {powerstep01::CMD_ERR, false, kAlarmCommandError},
    {powerstep01::UVLO, true, kAlarmUndervoltage},
    {powerstep01::UVLO_ADC, true, kAlarmAdcUndervoltage},
    {powerstep01::OCD, true, kAlarmOverCurrent},
    {powerstep01::STEP_LOSS_A, true, kAlarmStallA},
    {powerstep01::STEP_LOSS_B, true, kAlarmStallB},
    {powerstep01::SW_EVN, false, kAlarmSwitch},
};

// TH_STATUS counts up to the worst.
constexpr Alarms kThermalAlarms[] = {0, kAlarmThermalWarning, kAlarmThermalShutdown,
                                     kAlarmDeviceShutdown};

struct AlarmText {
  Alarms alarm;
  std::string_view text;
};

constexpr AlarmText kAlarmTexts[] = {
    {kAlarmCommandError, "command refused"},
    {kAlarmCommandUnknown, "unknown command"},
    {kAlarmUndervoltage, "undervoltage or reset"},
    {kAlarmAdcUndervoltage, "undervoltage at ADCIN"},
    {kAlarmThermalWarning, "hot"},
    {kAlarmThermalShutdown, "too hot, bridges shut down"},
    {kAlarmDeviceShutdown, "too hot, device shut down"},
    {kAlarmOverCurrent, "over-current"},
    {kAlarmStallA, "stall at bridge A"},
    {kAlarmStallB, "stall at bridge B"},
    {kAlarmSwitch, "switch was closed"},
};

// The low bits are where both chips have them.
StepperStatus decode(uint16_t word, uint16_t stepClockBit, std::span<const AlarmBit> alarms) {
  constexpr unsigned int kStateShift = 5;
  const auto has = [word](uint16_t bit) { return (word & bit) != 0; };
  StepperStatus status;
  status.word = word;
  status.bridgesOff = has(powerstep01::HiZ);
  status.busy = !has(powerstep01::BUSY);
  status.forward = has(powerstep01::DIR);
  status.switchClosed = has(powerstep01::SW_F);
  status.stepClock = has(stepClockBit);
  status.state = static_cast<MotorState>((word & powerstep01::MOT_STATUS) >> kStateShift);
  for (const AlarmBit& alarm : alarms) {
    status.alarms |= has(alarm.bit) != alarm.activeLow ? alarm.alarm : 0;
  }
  return status;
}

}  // namespace

StepperStatus l6470Status(uint16_t word) {
  return decode(word, l6470::SCK_MOD, kL6470Alarms);
}

StepperStatus powerstep01Status(uint16_t word) {
  constexpr unsigned int kThermalShift = 11;
  StepperStatus status = decode(word, powerstep01::STCK_MOD, kPowerstep01Alarms);
  status.alarms |=
      kThermalAlarms[static_cast<unsigned int>(word & powerstep01::TH_STATUS) >> kThermalShift];
  return status;
}

std::string_view stateWords(const StepperStatus& status) {
  switch (status.state) {
    case MotorState::Accelerating: return "accelerating";
    case MotorState::Decelerating: return "decelerating";
    case MotorState::Constant: return "constant speed";
    default: return status.stepClock ? "step clock" : "standstill";
  }
}

std::string alarmWords(Alarms alarms) {
  std::string words;
  for (const AlarmText& known : kAlarmTexts) {
    if ((alarms & known.alarm) != 0) {
      words += words.empty() ? "" : ", ";
      words += known.text;
    }
  }
  return words.empty() ? "none" : words;
}

std::string statusWords(const StepperStatus& status) {
  return fmt::format("bridges {}, {}, {}, {}, switch {}; alarms: {}",
                     status.bridgesOff ? "off" : "on", status.busy ? "busy" : "not busy",
                     stateWords(status), status.forward ? "forward" : "reverse",
                     status.switchClosed ? "closed" : "open", alarmWords(status.alarms));
}

}  // namespace tool
