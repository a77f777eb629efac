// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_POWERSTEP01_H
#define TOOL_CHIPS_POWERSTEP01_H

namespace tool {

class App;

void registerPowerstep01(App& app);

}  // namespace tool

#endif
