// SPDX-License-Identifier: MIT
#include "vboard/board/Net.h"

#include <algorithm>

#include "vboard/board/Board.h"

namespace vboard {

void Pin::changeDrive(Drive drive) {
  if (!powered_) {
    return;
  }
  if (net_ == nullptr) {
    wanted_ = drive;
    drive_ = drive;
    return;
  }
  net_->board_.wires().drive(*this, drive);
}

void Pin::setBias(Pull bias) {
  bias_ = bias;
  if (net_ != nullptr) {
    net_->refresh();
  }
}

void Net::setPull(Pull pull) {
  if (joinedTo_ != nullptr) {
    joinedTo_->setPull(pull);
    return;
  }
  const std::lock_guard guard(board_.mutex());
  pull_ = pull;
  refresh();
}

void Net::stick(std::optional<Level> level) {
  if (joinedTo_ != nullptr) {
    joinedTo_->stick(level);
    return;
  }
  const std::lock_guard guard(board_.mutex());
  stuck_ = level;
  refresh();
}

void Net::refresh() {
  effectivePull_ = pull_;
  for (const Pin* pin : pins_) {
    if (effectivePull_ == Pull::None) {
      effectivePull_ = pin->bias_;
    }
  }
  board_.wires().refresh(*this);
}

Level Net::idleLevel() const {
  return levelOf(std::any_of(pins_.begin(), pins_.end(),
                             [](const Pin* pin) { return pin->idle() == Level::High; }));
}

}  // namespace vboard
