// SPDX-License-Identifier: MIT
#include "tool/chips/Chips.h"

#include "tool/chips/Ad529x.h"
#include "tool/chips/Address.h"
#include "tool/chips/Ads1248.h"
#include "tool/chips/Ads1256.h"
#include "tool/chips/At25640b.h"
#include "tool/chips/Hc595.h"
#include "tool/chips/Icmd.h"
#include "tool/chips/L6470.h"
#include "tool/chips/Lv165a.h"
#include "tool/chips/Mcp3201.h"
#include "tool/chips/Mcp4822.h"
#include "tool/chips/Powerstep01.h"
#include "tool/chips/Tlc5947.h"

namespace tool {

void registerChips(App& app) {
  registerMcp3201(app);
  registerAds1248(app);
  registerAds1256(app);
  registerHc595(app);
  registerLv165a(app);
  registerL6470(app);
  registerPowerstep01(app);
  registerMcp4822(app);
  registerTlc5947(app);
  registerAd529x(app);
  registerIcmd(app);
  registerAt25640b(app);
  registerAddress(app);
}

}  // namespace tool
