// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_MCP3201_H
#define TOOL_CHIPS_MCP3201_H

#include <cstdint>

namespace tool {

class App;

/// Volts at the input for a code of 0 to 4095.
double mcp3201Volts(uint16_t code, double vref);

void registerMcp3201(App& app);

}  // namespace tool

#endif
