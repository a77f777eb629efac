// SPDX-License-Identifier: MIT
#include "vboard/board/Wires.h"

#include "vboard/board/Board.h"

namespace vboard {

namespace {

// More rounds than any sensible chain of gates is deep: the wiring feeds back on itself.
constexpr int kMaxRounds = 1000;

}  // namespace

void Wires::reserve() {
  pending_.reserve(64);
  applying_.reserve(64);
  changed_.reserve(64);
  conflicts_.reserve(8);
}

void Wires::driveShared(Pin& pin) {
  settling_ = true;
  if (apply(pin)) {
    announce(*pin.net_);
  }
  finish();
}

void Wires::findSole(Net& net) {
  net.sole_ = nullptr;
  if (net.special_ || net.drivers(Drive::Low) + net.drivers(Drive::High) != 1) {
    return;
  }
  for (Pin* pin : net.pins_) {
    if (pin->drive_ != Drive::Floating) {
      net.sole_ = pin;
    }
  }
}

void Wires::refresh(Net& net) {
  net.special_ = net.conflictSeen_ || net.stuck_.has_value();
  const bool changed = resolve(net);
  findSole(net);
  if (changed) {
    enqueue(net);
  }
  if (!settling_) {
    finish();
  }
}

void Wires::finish() {
  settling_ = true;
  runRounds();
  settling_ = false;
  if (!conflicts_.empty()) {
    reportConflicts();
  }
}

void Wires::runRounds() {
  int rounds = 0;
  while (!pending_.empty() || !changed_.empty()) {
    if (++rounds > kMaxRounds) {
      const std::string where =
          pending_.empty() ? changed_.front()->name() : pending_.front()->net()->name();
      giveUp();
      board_.violate({board_.clock().now(), where, "oscillation",
                      "outputs still change after " + std::to_string(kMaxRounds) +
                          " gate delays: the wiring feeds back on itself"});
      return;
    }
    if (pending_.size() == 1 && changed_.empty()) {
      // One chip answering an edge: the usual case, without the detour over lists.
      Pin& pin = *pending_.front();
      pending_.clear();
      Net& net = *pin.net_;
      if (net.sole_ == &pin && pin.wanted_ != Drive::Floating) {
        changeSides(pin);
        announce(net);
      } else if (apply(pin)) {
        announce(net);
      }
      continue;
    }
    applying_.swap(pending_);
    for (Pin* pin : applying_) {
      if (apply(*pin)) {
        enqueue(*pin->net_);
      }
    }
    applying_.clear();
    // Listeners only drive pins, which waits in pending_, so changed_ doesn't grow here.
    for (size_t i = 0; i < changed_.size(); ++i) {
      changed_[i]->queued_ = false;
      announce(*changed_[i]);
    }
    changed_.clear();
  }
}

void Wires::giveUp() {
  for (Pin* pin : pending_) {
    pin->wanted_ = pin->drive_;
  }
  for (Net* net : changed_) {
    net->queued_ = false;
  }
  pending_.clear();
  changed_.clear();
}

void Wires::enqueue(Net& net) {
  if (!net.queued_) {
    net.queued_ = true;
    changed_.push_back(&net);
  }
}

void Wires::tellObservers(const Net& net) {
  for (Observer* observer : board_.observers()) {
    observer->onNet(net, board_.clock().now());
  }
}

bool Wires::resolveSpecial(Net& net) {
  const int lows = net.drivers(Drive::Low);
  const int highs = net.drivers(Drive::High);
  if (lows != 0 && highs != 0) {
    if (!net.conflictSeen_) {
      net.conflictSeen_ = true;
      conflicts_.push_back(&net);
    }
  } else if (lows + highs < 2) {
    net.conflictSeen_ = false;
  }
  net.special_ = net.conflictSeen_ || net.stuck_.has_value();
  if (net.stuck_.has_value()) {
    return change(net, *net.stuck_, true);
  }
  if (lows + highs != 0) {
    return change(net, levelOf(lows == 0), true);
  }
  return resolve(net);
}

void Wires::reportConflicts() {
  for (Net* net : conflicts_) {
    // A conflict that lasted a gate delay is none: one output let go as the other took over.
    if (net->drivers(Drive::Low) == 0 || net->drivers(Drive::High) == 0) {
      net->conflictSeen_ = false;
      net->special_ = net->stuck_.has_value();
      continue;
    }
    std::string high;
    std::string low;
    for (const Pin* pin : net->pins()) {
      if (pin->driven() != Drive::Floating) {
        std::string& side = pin->driven() == Drive::High ? high : low;
        side.append(side.empty() ? "" : ", ").append(pin->part().name());
        side.append(".").append(pin->name());
      }
    }
    board_.violate({board_.clock().now(), net->name(), "conflict",
                    "driven high by " + high + " and low by " + low});
  }
  conflicts_.clear();
}

}  // namespace vboard
