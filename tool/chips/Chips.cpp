// SPDX-License-Identifier: MIT
#include "tool/chips/Chips.h"

#include "tool/chips/Address.h"
#include "tool/chips/Hc595.h"
#include "tool/chips/L6470.h"
#include "tool/chips/Lv165a.h"
#include "tool/chips/Mcp3201.h"
#include "tool/chips/Powerstep01.h"

namespace tool {

void registerChips(App& app) {
  registerMcp3201(app);
  registerHc595(app);
  registerLv165a(app);
  registerL6470(app);
  registerPowerstep01(app);
  registerAddress(app);
}

}  // namespace tool
