// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_DECODER3TO8_H
#define VBOARD_CHIPS_DECODER3TO8_H

#include <string>
#include <string_view>

#include "vboard/board/Part.h"

namespace vboard {

/// 74HC138: three address lines in, one of eight outputs low.
///
/// Pins: "A0", "A1", "A2" (address), "E1", "E2" (enables, active low), "E3" (enable, active high),
/// "Y0" to "Y7" (outputs, active low). Unconnected enables enable. Without an enable all outputs
/// are high.
class Decoder3to8 : public Part {
 public:
  static constexpr std::string_view kType = "74HC138";

  explicit Decoder3to8(std::string name);

  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  Pin* address_[3];
  Pin& e1_;
  Pin& e2_;
  Pin& e3_;
  Pin* outputs_[8];
};

}  // namespace vboard

#endif
