// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_HC595_H
#define TOOL_CHIPS_HC595_H

namespace tool {

class App;

void registerHc595(App& app);

}  // namespace tool

#endif
