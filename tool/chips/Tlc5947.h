// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_TLC5947_H
#define TOOL_CHIPS_TLC5947_H

#include <cstdint>
#include <string_view>

namespace tool {

class App;

/// Neighbouring outputs that get the same value, counted from OUT0 of the chip nearest MOSI.
struct Tlc5947Outputs {
  unsigned int first;
  unsigned int last;
  uint16_t value;
};

/// Reads "5=2048" or "0-2=4095". Throws std::invalid_argument whose text says what is wrong.
Tlc5947Outputs parseTlc5947Outputs(std::string_view text);

void registerTlc5947(App& app);

}  // namespace tool

#endif
