// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_PART_H
#define VBOARD_BOARD_PART_H

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Clock.h"
#include "vboard/board/Net.h"
#include "vboard/board/Property.h"

namespace vboard {

/// Anything with pins: a chip, a decoder, a GPIO controller, a switch.
///
/// A model has two faces. The bus face is what a driver sees: pins. The bench face is what an
/// engineer does with a screwdriver, a meter or a signal generator: methods of the model, and
/// `properties` for board files. Bench methods hold the board's lock (`Part::lock`).
///
/// A model never throws: what silicon would not forgive is recorded as a violation.
class Part {
 public:
  Part(std::string type, std::string name) : type_(std::move(type)), name_(std::move(name)) {}
  virtual ~Part() = default;
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;

  const std::string& type() const { return type_; }
  const std::string& name() const { return name_; }

  /// Called when the part gets power, and again after a power loss: forget everything volatile.
  /// Its pins float at that moment. Bench settings stay.
  virtual void powerUp() {}
  /// Called when the part lost its power; its pins float and hear nothing already.
  virtual void powerLost() {}
  /// Bus face: the level at a listening pin changed. The other pins still show the levels of just
  /// before this edge as far as parts drive them.
  virtual void pinChanged(Pin& pin, Level level);

  /// The pin of that name (data-sheet name), or null.
  Pin* findPin(std::string_view name);
  /// The pin of that name, which must exist.
  Pin& pin(std::string_view name);
  std::deque<Pin>& pins() { return pins_; }
  const std::deque<Pin>& pins() const { return pins_; }

  /// Knobs and meters for board files, `--set` and the report.
  std::vector<Property>& properties() { return properties_; }

  /// The board the part is on; valid once it was added.
  Board& board() const { return *board_; }

  /// Fault: takes the part's power away. Until it returns the part drives nothing and hears
  /// nothing, and what it had scheduled never happens.
  void losePower();
  /// Gives the power back, through `powerUp`.
  void restorePower();
  bool powered() const { return powered_; }

 protected:
  /// An input that is told of level changes.
  Pin& addInput(std::string name, Level idle);
  /// An input that is only looked at: data inputs, so that no edge costs a call.
  Pin& addQuietInput(std::string name, Level idle);
  Pin& addOutput(std::string name);
  Property& addProperty(Property property);

  /// Called once when the part was added to its board: the place to make nets of its own.
  virtual void added() {}

  Time now() const;
  Clock& clock() const;
  /// Schedules something the part does, forgotten when the part loses power before. To forget it
  /// earlier: `clock().cancel(id)`.
  Clock::EventId at(Time moment, std::function<void()> action);
  Clock::EventId after(Time delay, std::function<void()> action);
  /// Records a violation of this part. `rule` is a short stable id ("clock-too-fast").
  void violate(std::string_view rule, std::string details);
  /// Tells observers what happened in the chip's own terms ("sampled 2.137 V, code 2652"). Build
  /// the text only when `observed()`.
  void note(std::string text);
  bool observed() const;
  /// The board's lock, for bench methods.
  std::unique_lock<std::recursive_mutex> lock() const;

 private:
  friend class Board;
  Pin& addPin(std::string name, Level idle, bool listens);
  void switchOff();
  void switchOn();

  std::string type_;
  std::string name_;
  std::deque<Pin> pins_;  // pins never move
  std::vector<Property> properties_;
  Board* board_ = nullptr;
  bool powered_ = true;
  uint64_t powerCycles_ = 0;
};

}  // namespace vboard

#endif
