// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_MCP4822_H
#define TOOL_CHIPS_MCP4822_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace tool {

class App;

/// Volts at an output for a code of 0 to 4095, with gain 1.
double mcp4822Volts(uint16_t code);
/// The code of a text that is one ("2048", "0x800", "0b1") or gives the voltage of the nearest one
/// ("1.024V"); nothing for any other text, or for more than the output reaches.
std::optional<uint16_t> mcp4822Code(std::string_view text);

void registerMcp4822(App& app);

}  // namespace tool

#endif
