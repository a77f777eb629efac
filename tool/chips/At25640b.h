// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_AT25640B_H
#define TOOL_CHIPS_AT25640B_H

namespace tool {

class App;

void registerAt25640b(App& app);

}  // namespace tool

#endif
