// SPDX-License-Identifier: MIT
#include "tool/chips/Chips.h"

#include "tool/chips/Mcp3201.h"

namespace tool {

void registerChips(App& app) {
  registerMcp3201(app);
}

}  // namespace tool
