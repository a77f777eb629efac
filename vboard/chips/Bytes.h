// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_BYTES_H
#define VBOARD_CHIPS_BYTES_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace vboard {

/// A shift register's byte after one more clock: the bit comes in at the bottom.
constexpr uint8_t shiftedIn(uint8_t byte, bool bit) {
  return static_cast<uint8_t>(2 * byte + (bit ? 1 : 0));
}

/// "0x5a".
inline std::string hexText(uint8_t byte) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02x", byte);
  return text;
}

/// "0x05a" with three digits.
inline std::string hexText(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*x", digits, static_cast<unsigned>(value));
  return text;
}

}  // namespace vboard

#endif
