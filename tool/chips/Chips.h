// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_CHIPS_H
#define TOOL_CHIPS_CHIPS_H

namespace tool {

class App;

/// Adds the subcommands of every chip.
void registerChips(App& app);

}  // namespace tool

#endif
