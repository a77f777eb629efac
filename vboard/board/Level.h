// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_LEVEL_H
#define VBOARD_BOARD_LEVEL_H

#include <cstdint>

namespace vboard {

/// What an input sees.
enum class Level : uint8_t { Low = 0, High = 1 };

/// What an output does to its wire. Open-drain outputs use Floating and Low.
enum class Drive : uint8_t { Floating, Low, High };

/// A resistor on a wire: weaker than any output.
enum class Pull : uint8_t { None, Up, Down };

constexpr Level levelOf(bool high) {
  return high ? Level::High : Level::Low;
}
constexpr Drive driveOf(Level level) {
  return level == Level::High ? Drive::High : Drive::Low;
}
constexpr Level operator!(Level level) {
  return level == Level::High ? Level::Low : Level::High;
}

}  // namespace vboard

#endif
