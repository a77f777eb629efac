// SPDX-License-Identifier: MIT
#include "tool/chips/L6470.h"

#include <cstdint>
#include <memory>

#include "tool/chips/Stepper.h"
#include "tool/chips/StepperStatus.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"

namespace tool {
namespace l6470 {
namespace {

constexpr uint8_t kMode = 3;

constexpr StepperChip kChip = {
    .info = {.name = "l6470",
             .title = "L6470",
             .about = "stepper motor controller with voltage-mode bridges",
             .selectActiveLow = true,
             .behindExpander = {.reason = "every byte has to be a select of its own in mode 3, and "
                                          "would have others around it in mode 0"},
             .openMode = kMode},
    .make = [](Trouble& trouble) -> std::unique_ptr<StepperDriver> {
      return std::make_unique<Watched<Varnel::CMotorDriver1ChnL6470>>(trouble);
    },
    .decode = l6470Status,
    .registers = false};

}  // namespace
}  // namespace l6470

void registerL6470(App& app) {
  registerStepper(app, l6470::kChip);
}

}  // namespace tool
