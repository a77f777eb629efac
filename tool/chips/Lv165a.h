// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_LV165A_H
#define TOOL_CHIPS_LV165A_H

namespace tool {

class App;

void registerLv165a(App& app);

}  // namespace tool

#endif
