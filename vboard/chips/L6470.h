// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_L6470_H
#define VBOARD_CHIPS_L6470_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/chips/StepperChip.h"

namespace vboard {

/// ST L6470 (dSPIN): stepper controller with voltage-mode microstepping bridges, 8 to 45 V. Pins,
/// bench and violations are those of `StepperChip`.
class L6470 : public StepperChip {
 public:
  static constexpr std::string_view kType = "L6470";

  explicit L6470(std::string name);

 protected:
  uint16_t statusWord() const override;
  uint16_t enabledAlarms() const override;
};

}  // namespace vboard

#endif
