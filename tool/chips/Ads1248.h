// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_ADS1248_H
#define TOOL_CHIPS_ADS1248_H

namespace tool {

class App;

void registerAds1248(App& app);

}  // namespace tool

#endif
