// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_WIRING_H
#define VBOARD_CHIPS_WIRING_H

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "vboard/board/SpiBus.h"

namespace vboard {

/// Whether a controller's pin is on the same wire.
inline bool fedByHost(const Pin& pin) {
  if (pin.net() == nullptr) {
    return false;
  }
  const std::vector<Pin*>& pins = pin.net()->pins();
  return std::any_of(pins.begin(), pins.end(), [](const Pin* other) {
    return dynamic_cast<const SpiBus*>(&other->part()) != nullptr;
  });
}

/// The chip of a kind that has its pin of that name on the same wire, or null.
template <typename Chip>
Chip* chipBehind(const Pin& pin, std::string_view pinName) {
  if (pin.net() == nullptr) {
    return nullptr;
  }
  for (const Pin* other : pin.net()->pins()) {
    if (&other->part() != &pin.part() && other->name() == pinName) {
      if (auto* chip = dynamic_cast<Chip*>(&other->part())) {
        return chip;
      }
    }
  }
  return nullptr;
}

/// How many chips of a kind the daisy chain has that one of them is in, itself included.
template <typename Chip>
uint32_t chainLength(Chip& chip, std::string_view in, std::string_view out) {
  constexpr uint32_t kLongest = 64;
  uint32_t chips = 1;
  for (Chip* next = chipBehind<Chip>(chip.pin(in), out); next != nullptr && chips < kLongest;
       next = chipBehind<Chip>(next->pin(in), out)) {
    ++chips;
  }
  for (Chip* next = chipBehind<Chip>(chip.pin(out), in); next != nullptr && chips < kLongest;
       next = chipBehind<Chip>(next->pin(out), in)) {
    ++chips;
  }
  return chips;
}

}  // namespace vboard

#endif
