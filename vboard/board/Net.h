// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_NET_H
#define VBOARD_BOARD_NET_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Level.h"

namespace vboard {

class Board;
class Net;
class Part;
class Wires;

/// One terminal of a part. The part owns it, and hears of level changes through
/// `Part::pinChanged` when the pin listens.
class Pin {
 public:
  /// `idle` is what an unconnected or undriven input sees before anything drove its net.
  Pin(Part& part, std::string name, Level idle, bool listens)
      : part_(part), name_(std::move(name)), idle_(idle), listens_(listens) {}
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;

  Part& part() const { return part_; }
  const std::string& name() const { return name_; }
  Net* net() const { return net_; }
  bool listens() const { return listens_; }
  Level idle() const { return idle_; }
  /// Position among the pins of its part, in the order the part added them.
  int index() const { return index_; }

  /// The level on the pin's net; of a pin that hangs in the air, what it drives or its idle level.
  Level level() const;
  bool high() const { return level() == Level::High; }

  /// Drives or releases the pin. Inside `Part::pinChanged` the change shows on the net only after
  /// every part has seen the edge at hand, as an output's delay makes it on silicon: the next chip
  /// of a daisy chain still samples the old level.
  void drive(Drive drive) {
    if (drive != wanted_) {
      changeDrive(drive);
    }
  }
  Drive driven() const { return drive_; }

  /// A resistor inside the part, as GPIO controllers have them. It yields to a pull on the net.
  void setBias(Pull bias);
  Pull bias() const { return bias_; }

  /// A listening pin can look away for a while, so that edges cost nothing: the clock pin of a
  /// chip that is not selected. The level can still be read.
  void setAttentive(bool attentive) {
    attentive_ = attentive;
    hears_ = listens_ && attentive_ && powered_;
  }

 private:
  friend class Net;
  friend class Board;
  friend class Part;
  friend class Wires;
  void changeDrive(Drive drive);
  void setPowered(bool powered) {
    powered_ = powered;
    hears_ = listens_ && attentive_ && powered_;
  }

  Part& part_;
  std::string name_;
  Net* net_ = nullptr;
  Level idle_;
  bool listens_;
  bool attentive_ = true;
  bool powered_ = true;
  bool hears_ = listens_;           // all three at once, for the loop over listeners
  Drive drive_ = Drive::Floating;   // what stands on the net
  Drive wanted_ = Drive::Floating;  // what the part asked for last
  Pull bias_ = Pull::None;
  int index_ = 0;
};

/// One wire with the pins soldered to it.
///
/// An undriven wire follows its pull; without a pull it keeps its last level, as stray capacitance
/// does, except a MISO wire, which reads as noise (see `SpiBus`). Before anything drove it, it is
/// high when any of its pins idles high. Two outputs driving it against each other are a violation
/// ("conflict", once until at most one of them still drives), and low wins.
class Net {
 public:
  Net(Board& board, std::string name) : board_(board), name_(std::move(name)) {}
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;

  const std::string& name() const { return name_; }
  Level level() const { return level_; }
  /// Whether an output or a pull holds the wire.
  bool driven() const { return driven_; }
  /// Empty once the net was joined to another one (`Board::connect`).
  const std::vector<Pin*>& pins() const { return pins_; }
  /// Whether a level change would be told to any part.
  bool heard() const {
    for (const Pin* pin : listeners_) {
      if (pin->hears_) {
        return true;
      }
    }
    return false;
  }

  /// A resistor on the wire. Pull::None takes it away.
  void setPull(Pull pull);
  Pull pull() const { return pull_; }

  /// Fault: the wire stays at a level whatever drives it, until released with nullopt.
  void stick(std::optional<Level> level);

 private:
  friend class Board;
  friend class Pin;
  friend class Wires;

  /// Follows the resistors and faults that changed.
  void refresh();
  int drivers(Drive drive) const { return outputs_[static_cast<int>(drive)]; }
  int& drivers(Drive drive) { return outputs_[static_cast<int>(drive)]; }
  Level idleLevel() const;

  Board& board_;
  std::string name_;
  std::vector<Pin*> pins_;
  std::vector<Pin*> listeners_;
  Pin* sole_ = nullptr;      // the only output of a wire that is not special
  Net* joinedTo_ = nullptr;  // another net took over the pins
  // Outputs by what they do, indexed by Drive. The count of floating ones is never looked at.
  int outputs_[3] = {};
  Level level_ = Level::Low;
  Level announced_ = Level::Low;  // what the listeners know
  bool driven_ = false;
  bool queued_ = false;  // waits for its announcement
  bool conflictSeen_ = false;
  bool special_ = false;  // stuck, or in conflict: not decided by outputs and pull alone
  Pull pull_ = Pull::None;
  Pull effectivePull_ = Pull::None;  // with the resistors inside the parts
  std::optional<Level> stuck_;
};

inline Level Pin::level() const {
  if (net_ != nullptr) {
    return net_->level();
  }
  return drive_ == Drive::Floating ? idle_ : levelOf(drive_ == Drive::High);
}

}  // namespace vboard

#endif
