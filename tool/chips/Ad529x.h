// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_AD529X_H
#define TOOL_CHIPS_AD529X_H

namespace tool {

class App;

void registerAd529x(App& app);

}  // namespace tool

#endif
