// SPDX-License-Identifier: MIT
#include "tool/chips/Chips.h"

#include "tool/chips/Address.h"
#include "tool/chips/Hc595.h"
#include "tool/chips/Lv165a.h"
#include "tool/chips/Mcp3201.h"

namespace tool {

void registerChips(App& app) {
  registerMcp3201(app);
  registerHc595(app);
  registerLv165a(app);
  registerAddress(app);
}

}  // namespace tool
