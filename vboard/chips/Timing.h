// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_TIMING_H
#define VBOARD_CHIPS_TIMING_H

#include <string>

#include "vboard/board/Board.h"

namespace vboard {

/// Of moments that never came: before the first edge of a kind.
constexpr Time kNever = Time::min();

/// Whether the time between two edges is known to be less than a chip needs. Without call costs the
/// board can't tell the moments of two calls apart, so no time at all proves nothing there.
inline bool tooShort(const Board& board, Time measured, Time needed) {
  return measured < needed && (measured > Time{0} || board.options().callCost > Time{0});
}

/// "15 ns".
inline std::string nanosecondsText(Time time) {
  return std::to_string(time.count()) + " ns";
}

}  // namespace vboard

#endif
