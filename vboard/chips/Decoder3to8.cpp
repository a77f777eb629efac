// SPDX-License-Identifier: MIT
#include "vboard/chips/Decoder3to8.h"

namespace vboard {

Decoder3to8::Decoder3to8(std::string name)
    : Part(std::string(kType), std::move(name)),
      address_{&addInput("A0", Level::Low), &addInput("A1", Level::Low),
               &addInput("A2", Level::Low)},
      e1_(addInput("E1", Level::Low)),
      e2_(addInput("E2", Level::Low)),
      e3_(addInput("E3", Level::High)) {
  for (int i = 0; i < 8; ++i) {
    outputs_[i] = &addOutput("Y" + std::to_string(i));
  }
}

void Decoder3to8::powerUp() {
  pinChanged(e1_, e1_.level());
}

void Decoder3to8::pinChanged(Pin& /*pin*/, Level /*level*/) {
  const bool enabled = !e1_.high() && !e2_.high() && e3_.high();
  const int address =
      (address_[0]->high() ? 1 : 0) | (address_[1]->high() ? 2 : 0) | (address_[2]->high() ? 4 : 0);
  for (int i = 0; i < 8; ++i) {
    outputs_[i]->drive(enabled && i == address ? Drive::Low : Drive::High);
  }
}

}  // namespace vboard
