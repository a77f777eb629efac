// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_STEPPERREGISTERS_H
#define TOOL_CHIPS_STEPPERREGISTERS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tool {

/// When a register can be written.
enum class RegisterAccess : uint8_t { Always, AtStandstill, BridgesOff, Never };

/// A register of the powerSTEP01.
struct StepperRegister {
  uint8_t address;
  std::string_view name;
  unsigned int bits;
  RegisterAccess access;
  /// What a value means, with its unit.
  std::string (*meaning)(uint32_t value);
  /// The register at the same address in current mode, if it is another one there.
  std::string_view nameInCurrentMode = {};
  std::string (*meaningInCurrentMode)(uint32_t value) = nullptr;
  std::string_view otherName = {};  ///< that is understood as well
  bool isPosition = false;          ///< two's complement
};

std::span<const StepperRegister> powerstep01Registers();
/// By a name, whatever its case, or an address in decimal or 0x and hexadecimal digits; null for an
/// unknown one.
const StepperRegister* findRegister(std::string_view text);
/// The register at an address of 1 to 27.
const StepperRegister& registerAt(uint8_t address);

/// Whether STEP_MODE selects current mode.
bool inCurrentMode(uint32_t stepMode);
std::string_view nameOf(const StepperRegister& reg, bool currentMode);
std::string meaningOf(const StepperRegister& reg, uint32_t value, bool currentMode);

/// A whole number in decimal with or without a sign, or in 0x and hexadecimal or 0b and binary
/// digits.
std::optional<int64_t> parseNumber(std::string_view text);
/// Microsteps of 22 bits two's complement, and the way back.
int32_t positionOf(uint32_t bits);
uint32_t positionBits(int64_t position);

// Physical values of one unit in the register.
constexpr double kTickSeconds = 250e-9;
constexpr double kSpeedUnit = 1.0 / (1U << 28U) / kTickSeconds;                          // steps/s
constexpr double kAccelerationUnit = 1.0 / (1ULL << 40U) / kTickSeconds / kTickSeconds;  // steps/s²
constexpr double kMaxSpeedUnit = 1.0 / (1U << 18U) / kTickSeconds;                       // steps/s
constexpr double kMinSpeedUnit = 1.0 / (1U << 24U) / kTickSeconds;                       // steps/s

}  // namespace tool

#endif
