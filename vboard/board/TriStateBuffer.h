// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_TRISTATEBUFFER_H
#define VBOARD_BOARD_TRISTATEBUFFER_H

#include <string>
#include <string_view>

#include "vboard/board/Part.h"

namespace vboard {

/// One gate of a '125: output "Y" follows input "A" while "OE" is low and lets go while it is high.
/// It stands between a chip whose output never lets go and a shared MISO.
class TriStateBuffer : public Part {
 public:
  static constexpr std::string_view kType = "tri-state-buffer";

  explicit TriStateBuffer(std::string name);

  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  Pin& a_;
  Pin& oe_;
  Pin& y_;
};

}  // namespace vboard

#endif
