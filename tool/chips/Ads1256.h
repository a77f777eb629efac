// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_ADS1256_H
#define TOOL_CHIPS_ADS1256_H

namespace tool {

class App;

void registerAds1256(App& app);

}  // namespace tool

#endif
