// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_ADDRESS_H
#define TOOL_CHIPS_ADDRESS_H

namespace tool {

class App;

void registerAddress(App& app);

}  // namespace tool

#endif
