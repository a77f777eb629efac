// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_WIRES_H
#define VBOARD_BOARD_WIRES_H

#include <vector>

#include "vboard/board/Part.h"

namespace vboard {

class Board;

/// How levels travel over a board, in rounds: a change is told to every listening pin first, and
/// only then do the outputs that these parts drove meanwhile show on their nets, all together,
/// which starts the next round. So a chip never sees another chip's answer to the same edge.
///
/// Parts use `Pin::drive`; this is what stands behind it.
class Wires {
 public:
  explicit Wires(Board& board) : board_(board) { reserve(); }
  Wires(const Wires&) = delete;
  Wires& operator=(const Wires&) = delete;

  /// Drives a pin that is on a net: now, or after the round at hand.
  void drive(Pin& pin, Drive drive) {
    if (pin.wanted_ == drive) {
      return;
    }
    pin.wanted_ = drive;
    if (settling_) {
      pending_.push_back(&pin);
      return;
    }
    Net& net = *pin.net_;
    if (net.sole_ != &pin || drive == Drive::Floating || observed_) {
      driveShared(pin);
      return;
    }
    changeSides(pin);
    settling_ = true;
    tellListeners(net);
    settling_ = false;
    if (!pending_.empty()) {
      finish();
    }
  }

  /// Recomputes a net whose resistors or faults changed.
  void refresh(Net& net);

  /// Everything driven while a batch lives shows at its end, at once.
  class Batch {
   public:
    explicit Batch(Wires& wires) : wires_(wires), outer_(wires.settling_) {
      wires_.settling_ = true;
    }
    ~Batch() {
      if (!outer_) {
        wires_.finish();
      }
    }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

   private:
    Wires& wires_;
    bool outer_;
  };

  /// Whether anybody wants to hear of nets.
  void setObserved(bool observed) { observed_ = observed; }

 private:
  void reserve();
  void driveShared(Pin& pin);
  static void findSole(Net& net);
  /// The only output of its wire goes from one level to the other, as clock lines do: nothing to
  /// weigh up.
  static void changeSides(Pin& pin) {
    Net& net = *pin.net_;
    const Drive drive = pin.wanted_;
    net.drivers(pin.drive_) = 0;
    net.drivers(drive) = 1;
    pin.drive_ = drive;
    net.level_ = levelOf(drive == Drive::High);
  }
  /// Puts on the net what the pin wants. Whether the net changed.
  bool apply(Pin& pin) {
    Net& net = *pin.net_;
    --net.drivers(pin.drive_);
    pin.drive_ = pin.wanted_;
    ++net.drivers(pin.drive_);
    const bool changed = resolve(net);
    findSole(net);
    return changed;
  }
  bool resolve(Net& net) {
    const int lows = net.drivers(Drive::Low);
    const int highs = net.drivers(Drive::High);
    if (net.special_ || (lows != 0 && highs != 0)) [[unlikely]] {
      return resolveSpecial(net);
    }
    if ((lows | highs) != 0) {
      return change(net, levelOf(lows == 0), true);
    }
    if (net.effectivePull_ == Pull::None) {
      return change(net, net.level_, false);
    }
    return change(net, levelOf(net.effectivePull_ == Pull::Up), true);
  }
  static bool change(Net& net, Level level, bool driven) {
    const bool changed = level != net.level_ || driven != net.driven_;
    net.level_ = level;
    net.driven_ = driven;
    return changed;
  }
  void announce(Net& net) {
    if (observed_) {
      tellObservers(net);
    }
    if (net.announced_ != net.level_) {
      tellListeners(net);
    }
  }
  void tellListeners(Net& net) {
    const Level level = net.level_;
    net.announced_ = level;
    for (Pin* pin : net.listeners_) {
      if (pin->hears_) {
        pin->part_.pinChanged(*pin, level);
      }
    }
  }
  /// Runs rounds until nothing changes any more.
  void finish();
  void runRounds();
  void giveUp();
  void enqueue(Net& net);
  void tellObservers(const Net& net);
  bool resolveSpecial(Net& net);
  void reportConflicts();

  Board& board_;
  bool settling_ = false;
  bool observed_ = false;
  std::vector<Pin*> pending_;   // driven in this round
  std::vector<Pin*> applying_;  // driven in the round before
  std::vector<Net*> changed_;
  std::vector<Net*> conflicts_;  // nets to look at when all is quiet
};

}  // namespace vboard

#endif
