// SPDX-License-Identifier: MIT
#include "vboard/board/GpioChip.h"

#include "vboard/board/Board.h"

namespace vboard {

GpioChip::GpioChip(std::string name, int number, GpioChipOptions options)
    : Part("gpiochip", std::move(name)),
      number_(number),
      options_(std::move(options)),
      output_(static_cast<size_t>(options_.lines)) {
  for (int offset = 0; offset < options_.lines; ++offset) {
    addInput(std::to_string(offset), Level::Low);
  }
}

Pin& GpioChip::line(int offset) {
  return pins().at(static_cast<size_t>(offset));
}

bool GpioChip::isOutput(int offset) const {
  const auto guard = lock();
  return output_.at(static_cast<size_t>(offset));
}

void GpioChip::setInput(int offset) {
  const auto guard = lock();
  output_.at(static_cast<size_t>(offset)) = false;
  line(offset).drive(Drive::Floating);
}

void GpioChip::setOutput(int offset, Drive drive) {
  const auto guard = lock();
  output_.at(static_cast<size_t>(offset)) = true;
  Pin& pin = line(offset);
  if (pin.net() == nullptr) {
    board().netOf(pin);
  }
  pin.drive(drive);
}

Level GpioChip::level(int offset) const {
  const auto guard = lock();
  return pins().at(static_cast<size_t>(offset)).level();
}

void GpioChip::setBias(int offset, Pull pull) {
  const auto guard = lock();
  board().netOf(line(offset));
  line(offset).setBias(pull);
}

void GpioChip::setEdgeListener(EdgeListener listener) {
  const auto guard = lock();
  edgeListener_ = std::move(listener);
}

void GpioChip::powerUp() {
  for (int offset = 0; offset < options_.lines; ++offset) {
    output_[static_cast<size_t>(offset)] = false;
    line(offset).setBias(Pull::None);
  }
}

void GpioChip::pinChanged(Pin& pin, Level level) {
  if (edgeListener_) {
    edgeListener_(pin.index(), level, now());
  }
}

}  // namespace vboard
