// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_L6470_H
#define TOOL_CHIPS_L6470_H

namespace tool {

class App;

void registerL6470(App& app);

}  // namespace tool

#endif
