// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_POWERSTEP01_H
#define VBOARD_CHIPS_POWERSTEP01_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/chips/StepperChip.h"

namespace vboard {

/// ST powerSTEP01: stepper controller with 10 A bridges in voltage or current mode, 7.5 to 85 V.
/// Pins, bench and violations are those of `StepperChip`.
class Powerstep01 : public StepperChip {
 public:
  static constexpr std::string_view kType = "powerSTEP01";

  explicit Powerstep01(std::string name);

  /// Whether the ADC undervoltage alarm too is latched when power comes; not unless set.
  void setAdcAlarmAtPowerUp(bool latched);
  /// Whether EL_POS can be written with the bridges off only, instead of at any standstill; not
  /// unless set.
  void setElPosNeedsHighZ(bool needed);

 protected:
  uint16_t statusWord() const override;
  uint16_t enabledAlarms() const override;
  bool noticesStalls() const override { return !currentMode(); }
  unsigned stepSelect() const override;
  uint16_t alarmsAtReset() const override;
  Access accessOf(uint8_t address) const override;

 private:
  bool currentMode() const;

  bool adcAlarmAtPowerUp_ = false;
  bool elPosNeedsHighZ_ = false;
};

}  // namespace vboard

#endif
