// SPDX-License-Identifier: MIT
#include "vboard/board/Part.h"

#include <stdexcept>

#include "vboard/board/Board.h"

namespace vboard {

void Part::pinChanged(Pin& /*pin*/, Level /*level*/) {
}

Pin* Part::findPin(std::string_view name) {
  for (Pin& pin : pins_) {
    if (pin.name() == name) {
      return &pin;
    }
  }
  return nullptr;
}

Pin& Part::pin(std::string_view name) {
  Pin* found = findPin(name);
  if (found == nullptr) {
    throw std::invalid_argument(name_ + " (" + type_ + ") has no pin \"" + std::string(name) +
                                "\"");
  }
  return *found;
}

void Part::losePower() {
  const auto guard = lock();
  if (powered_) {
    switchOff();
    powerLost();
  }
}

void Part::restorePower() {
  const auto guard = lock();
  if (!powered_) {
    switchOn();
    powerUp();
  }
}

void Part::switchOff() {
  ++powerCycles_;
  powered_ = false;
  for (Pin& pin : pins_) {
    pin.drive(Drive::Floating);
    pin.setPowered(false);
  }
}

void Part::switchOn() {
  powered_ = true;
  for (Pin& pin : pins_) {
    pin.setPowered(true);
  }
}

Pin& Part::addPin(std::string name, Level idle, bool listens) {
  Pin& pin = pins_.emplace_back(*this, std::move(name), idle, listens);
  pin.index_ = static_cast<int>(pins_.size()) - 1;
  return pin;
}

Pin& Part::addInput(std::string name, Level idle) {
  return addPin(std::move(name), idle, true);
}

Pin& Part::addQuietInput(std::string name, Level idle) {
  return addPin(std::move(name), idle, false);
}

Pin& Part::addOutput(std::string name) {
  return addPin(std::move(name), Level::Low, false);
}

Property& Part::addProperty(Property property) {
  return properties_.emplace_back(std::move(property));
}

Time Part::now() const {
  return board_ == nullptr ? Time{0} : board_->clock().now();
}

Clock& Part::clock() const {
  return board_->clock();
}

Clock::EventId Part::at(Time moment, std::function<void()> action) {
  return clock().at(moment, [this, cycle = powerCycles_, action = std::move(action)] {
    if (cycle == powerCycles_) {
      action();
    }
  });
}

Clock::EventId Part::after(Time delay, std::function<void()> action) {
  return at(now() + delay, std::move(action));
}

void Part::violate(std::string_view rule, std::string details) {
  if (board_ != nullptr) {
    board_->violate({now(), name_, std::string(rule), std::move(details)});
  }
}

void Part::note(std::string text) {
  if (board_ != nullptr) {
    for (Observer* observer : board_->observers()) {
      observer->onNote(*this, now(), text);
    }
  }
}

bool Part::observed() const {
  return board_ != nullptr && board_->observed();
}

std::unique_lock<std::recursive_mutex> Part::lock() const {
  return board_ == nullptr ? std::unique_lock<std::recursive_mutex>()
                           : std::unique_lock<std::recursive_mutex>(board_->mutex());
}

}  // namespace vboard
