// SPDX-License-Identifier: MIT
#include "tool/chips/StepperRegisters.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>

#include "tool/chips/StepperStatus.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace tool {
namespace {

namespace st = Varnel::ST;
namespace powerstep01 = Varnel::ST::powerSTEP01;

constexpr uint32_t kNoRamps = 0xFFF;                // in ACC
constexpr uint32_t kLowSpeedOptimisation = 0x1000;  // in MIN_SPEED
constexpr uint32_t kNeverFullSteps = 0x3FF;         // in FS_SPEED
constexpr uint32_t kBoost = 0x400;                  // in FS_SPEED
constexpr uint32_t kCurrentMode = 0x08;             // in STEP_MODE
constexpr double kIntSpeedUnit = 1.0 / (1U << 26U) / kTickSeconds;
constexpr double kSlopeUnit = 1.0 / (1U << 16U);
constexpr int64_t kPositions = 1 << 22;

uint32_t field(uint32_t value, unsigned int lowest, unsigned int bits) {
  return (value >> lowest) & ((1U << bits) - 1);
}

std::string microsteps(uint32_t value) {
  return fmt::format("{} microsteps", positionOf(value));
}

std::string electrical(uint32_t value) {
  return fmt::format("full step {}, {}/128", field(value, 7, 2), field(value, 0, 7));
}

std::string speed(uint32_t value) {
  return fmt::format("{:.2f} steps/s", value * kSpeedUnit);
}

std::string acceleration(uint32_t value) {
  return value == kNoRamps ? "infinite: no ramps"
                           : fmt::format("{:.1f} steps/s2", value * kAccelerationUnit);
}

std::string deceleration(uint32_t value) {
  return fmt::format("{:.1f} steps/s2", value * kAccelerationUnit);
}

std::string maxSpeed(uint32_t value) {
  return fmt::format("{:.1f} steps/s", value * kMaxSpeedUnit);
}

std::string minSpeed(uint32_t value) {
  return fmt::format("{:.1f} steps/s{}", field(value, 0, 12) * kMinSpeedUnit,
                     (value & kLowSpeedOptimisation) != 0 ? ", low speed optimisation" : "");
}

std::string fullStepSpeed(uint32_t value) {
  const uint32_t code = field(value, 0, 10);
  const std::string at = code == kNeverFullSteps
                             ? "never"
                             : fmt::format("{:.1f} steps/s", (code + 0.5) * kMaxSpeedUnit);
  return at + ((value & kBoost) != 0 ? ", boost" : "");
}

std::string driveVoltage(uint32_t value) {
  return fmt::format("{:.1f} % of the supply", value * 100 / 256.0);
}

std::string torque(uint32_t value) {
  return fmt::format("{:.1f} mV at the sense resistor", (field(value, 0, 7) + 1) * 7.8125);
}

std::string intersectSpeed(uint32_t value) {
  return fmt::format("{:.1f} steps/s", value * kIntSpeedUnit);
}

std::string slope(uint32_t value) {
  return fmt::format("{:.3f} % s/step", value * kSlopeUnit * 100);
}

std::string fastDecay(uint32_t value) {
  return fmt::format("fast off time {} us, fast step {} us", (field(value, 4, 4) + 1) * 2,
                     (field(value, 0, 4) + 1) * 2);
}

std::string halfMicroseconds(uint32_t value) {
  return fmt::format("{:.1f} us", (field(value, 0, 7) + 1) * 0.5);
}

std::string thermalFactor(uint32_t value) {
  return fmt::format("factor {:.5f}", 1 + value / 32.0);
}

std::string adcOutput(uint32_t value) {
  return fmt::format("{}/32 of the reference", value);
}

std::string thresholdVoltage(uint32_t value) {
  return fmt::format("{:.2f} mV at a transistor", (value + 1) * 31.25);
}

std::string stepMode(uint32_t value) {
  constexpr unsigned int kFinestInCurrentMode = 4;
  const bool current = inCurrentMode(value);
  const uint32_t code =
      current ? std::min(field(value, 0, 3), kFinestInCurrentMode) : field(value, 0, 3);
  return fmt::format("{} microsteps per step, {} mode{}", 1U << code,
                     current ? "current" : "voltage",
                     (value & 0x80U) != 0 ? ", BUSY pin shows steps" : "");
}

std::string alarmEnable(uint32_t value) {
  static constexpr std::string_view kOfBit[] = {
      "over-current", "thermal shutdown", "thermal warning", "undervoltage", "ADCIN undervoltage",
      "stall",        "switch closed",    "command refused"};
  std::string words;
  for (unsigned int bit = 0; bit < std::size(kOfBit); ++bit) {
    if (field(value, bit, 1) != 0) {
      words += words.empty() ? "" : ", ";
      words += kOfBit[bit];
    }
  }
  return "FLAG shows: " + (words.empty() ? "nothing" : words);
}

std::string gateConfig1(uint32_t value) {
  static constexpr unsigned int kGateMilliamps[] = {4, 4, 8, 16, 24, 32, 64, 96};
  constexpr uint32_t kLongestNs = 3750;
  return fmt::format("gate current {} mA for {} ns, boost code {}{}",
                     kGateMilliamps[field(value, 5, 3)],
                     std::min((field(value, 0, 5) + 1) * 125, kLongestNs), field(value, 8, 3),
                     field(value, 11, 1) != 0 ? ", clock watchdog on" : "");
}

std::string gateConfig2(uint32_t value) {
  return fmt::format("dead time {} ns, blanking {} ns", (field(value, 0, 5) + 1) * 125,
                     (field(value, 5, 3) + 1) * 125);
}

/// The bits of CONFIG that both modes share.
std::string commonConfig(uint32_t value) {
  constexpr uint32_t kExternal = 0x4;  // OSC_SEL 4 to 7, with and without EXT_CLK
  return fmt::format("{} clock, switch {}, over-current {}, {} V gate supply",
                     (value & kExternal) != 0 ? "external" : "internal",
                     field(value, 4, 1) != 0 ? "is the user's" : "stops hard",
                     field(value, 7, 1) != 0 ? "switches off" : "only warns",
                     field(value, 9, 1) != 0 ? "15" : "7.5");
}

std::string config(uint32_t value) {
  return fmt::format("{}, PWM divider {}, multiplier code {}", commonConfig(value),
                     field(value, 13, 3) + 1, field(value, 10, 3));
}

std::string configInCurrentMode(uint32_t value) {
  return fmt::format("{}, switching period {} us", commonConfig(value), field(value, 10, 5) * 4);
}

std::string statusWord(uint32_t value) {
  return statusWords(powerstep01Status(static_cast<uint16_t>(value)));
}

using enum RegisterAccess;

// Where the library sends whole bytes, a register is as wide here as the data sheet has it.
constexpr StepperRegister kRegisters[] = {
    {st::ABS_POS, "ABS_POS", 22, AtStandstill, microsteps, {}, nullptr, {}, true},
    {st::EL_POS, "EL_POS", 9, AtStandstill, electrical},
    {st::MARK, "MARK", 22, Always, microsteps, {}, nullptr, {}, true},
    {st::SPEED, "SPEED", 20, Never, speed},
    {st::ACC, "ACC", 12, AtStandstill, acceleration},
    {st::DEC, "DEC", 12, AtStandstill, deceleration},
    {st::MAX_SPEED, "MAX_SPEED", 10, Always, maxSpeed},
    {st::MIN_SPEED, "MIN_SPEED", 13, AtStandstill, minSpeed},
    {st::KVAL_HOLD, "KVAL_HOLD", 8, Always, driveVoltage, "TVAL_HOLD", torque},
    {st::KVAL_RUN, "KVAL_RUN", 8, Always, driveVoltage, "TVAL_RUN", torque},
    {st::KVAL_ACC, "KVAL_ACC", 8, Always, driveVoltage, "TVAL_ACC", torque},
    {st::KVAL_DEC, "KVAL_DEC", 8, Always, driveVoltage, "TVAL_DEC", torque},
    {st::INT_SPEED, "INT_SPEED", 14, BridgesOff, intersectSpeed},
    {st::ST_SLP, "ST_SLP", 8, BridgesOff, slope, "T_FAST", fastDecay},
    {st::FN_SLP_ACC, "FN_SLP_ACC", 8, BridgesOff, slope, "T_ON_MIN", halfMicroseconds, "TON_MIN"},
    {st::FN_SLP_DEC, "FN_SLP_DEC", 8, BridgesOff, slope, "T_OFF_MIN", halfMicroseconds, "TOFF_MIN"},
    {st::K_THERM, "K_THERM", 4, Always, thermalFactor},
    {st::ADC_OUT, "ADC_OUT", 5, Never, adcOutput},
    {st::OCD_TH, "OCD_TH", 5, Always, thresholdVoltage},
    {st::STALL_TH, "STALL_TH", 5, Always, thresholdVoltage},
    {st::FS_SPEED, "FS_SPEED", 11, Always, fullStepSpeed, {}, nullptr, "FS_SPD"},
    {st::STEP_MODE, "STEP_MODE", 8, BridgesOff, stepMode},
    {st::ALARM_EN, "ALARM_EN", 8, AtStandstill, alarmEnable},
    {powerstep01::GATECFG1, "GATECFG1", 12, BridgesOff, gateConfig1},
    {powerstep01::GATECFG2, "GATECFG2", 8, BridgesOff, gateConfig2},
    {powerstep01::CONFIG, "CONFIG", 16, BridgesOff, config, "CONFIG", configInCurrentMode},
    {powerstep01::STATUS, "STATUS", 16, Never, statusWord},
};
static_assert(std::size(kRegisters) == powerstep01::REGISTER_COUNT);

bool sameName(std::string_view name, std::string_view text) {
  return !name.empty() &&
         std::equal(name.begin(), name.end(), text.begin(), text.end(),
                    [](unsigned char a, unsigned char b) { return a == std::toupper(b); });
}

}  // namespace

std::span<const StepperRegister> powerstep01Registers() {
  return kRegisters;
}

const StepperRegister* findRegister(std::string_view text) {
  const std::optional<int64_t> address = parseNumber(text);
  for (const StepperRegister& reg : kRegisters) {
    if (address == reg.address || sameName(reg.name, text) ||
        sameName(reg.nameInCurrentMode, text) || sameName(reg.otherName, text)) {
      return &reg;
    }
  }
  return nullptr;
}

const StepperRegister& registerAt(uint8_t address) {
  return kRegisters[address - 1U];
}

bool inCurrentMode(uint32_t stepMode) {
  return (stepMode & kCurrentMode) != 0;
}

std::string_view nameOf(const StepperRegister& reg, bool currentMode) {
  return currentMode && !reg.nameInCurrentMode.empty() ? reg.nameInCurrentMode : reg.name;
}

std::string meaningOf(const StepperRegister& reg, uint32_t value, bool currentMode) {
  return currentMode && reg.meaningInCurrentMode != nullptr ? reg.meaningInCurrentMode(value)
                                                            : reg.meaning(value);
}

std::optional<int64_t> parseNumber(std::string_view text) {
  const bool negative = text.starts_with('-');
  text.remove_prefix(negative ? 1 : 0);
  int base = 10;
  if (!negative && (text.starts_with("0x") || text.starts_with("0X"))) {
    base = 16;
  } else if (!negative && (text.starts_with("0b") || text.starts_with("0B"))) {
    base = 2;
  }
  text.remove_prefix(base == 10 ? 0 : 2);
  uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number, base);
  if (result.ec != std::errc() || result.ptr != end) {
    return std::nullopt;
  }
  return negative ? -int64_t{number} : int64_t{number};
}

int32_t positionOf(uint32_t bits) {
  const int64_t position = bits & (kPositions - 1);
  return static_cast<int32_t>(position >= kPositions / 2 ? position - kPositions : position);
}

uint32_t positionBits(int64_t position) {
  return static_cast<uint32_t>(position & (kPositions - 1));
}

}  // namespace tool
