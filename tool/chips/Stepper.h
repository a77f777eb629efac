// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_STEPPER_H
#define TOOL_CHIPS_STEPPER_H

#include "tool/chips/StepperLink.h"

namespace tool {

class App;

/// Adds a stepper controller's subcommand with all its operations. `chip` must outlive `app`.
void registerStepper(App& app, const StepperChip& chip);

}  // namespace tool

#endif
