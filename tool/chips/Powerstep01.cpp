// SPDX-License-Identifier: MIT
#include "tool/chips/Powerstep01.h"

#include <cstdint>
#include <memory>

#include "tool/chips/Stepper.h"
#include "tool/chips/StepperStatus.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace tool {
namespace powerstep01 {
namespace {

constexpr uint8_t kMode = 3;

constexpr StepperChip kChip = {
    .info = {.name = "powerstep01",
             .title = "powerSTEP01",
             .about = "stepper motor controller with 10 A bridges",
             .selectActiveLow = true,
             .behindExpander = {.reason = "every byte has to be a select of its own in mode 3, and "
                                          "would have others around it in mode 0"},
             .openMode = kMode},
    .make = [](Trouble& trouble) -> std::unique_ptr<StepperDriver> {
      return std::make_unique<Watched<Varnel::CMotorDriver1ChnPowerSTEP01>>(trouble);
    },
    .decode = powerstep01Status,
    .registers = true};

}  // namespace
}  // namespace powerstep01

void registerPowerstep01(App& app) {
  registerStepper(app, powerstep01::kChip);
}

}  // namespace tool
