// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_ICMD_H
#define TOOL_CHIPS_ICMD_H

namespace tool {

class App;

void registerIcmd(App& app);

}  // namespace tool

#endif
