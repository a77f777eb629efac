// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_BOARD_H
#define VBOARD_BOARD_BOARD_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vboard/board/Clock.h"
#include "vboard/board/GpioChip.h"
#include "vboard/board/Net.h"
#include "vboard/board/Observer.h"
#include "vboard/board/Part.h"
#include "vboard/board/SpiBus.h"
#include "vboard/board/Wires.h"

namespace vboard {

struct BoardOptions {
  /// What a system call on an emulated node takes: 10 to 100 µs on a real board. 0 for tests that
  /// want the bare wire.
  Time callCost = std::chrono::microseconds(20);
  /// Seed of every noise on the board, so that runs repeat.
  uint64_t seed = 1;
};

/// Parts, wires, and what was seen on them.
///
/// Build it, wire it, then let a `Kernel` put its nodes into the process:
///
///     vboard::Board board;
///     auto& spi = board.addSpiBus({.number = 1});
///     auto& gpio = board.addGpioChip({.lines = 32});
///     auto& adc = board.add<vboard::Mcp3201>("adc");
///     board.attach(adc, spi);
///     board.connect(adc.pin("CS"), gpio.line(25));
///     vboard::Kernel kernel(board);
///
/// Every call may come from any thread; the board has one lock.
class Board {
 public:
  explicit Board(BoardOptions options = {});
  ~Board();
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  const BoardOptions& options() const { return options_; }

  /// Named "spi1" for bus 1.
  SpiBus& addSpiBus(SpiBusOptions options = {});
  /// Named "gpiochip0", "gpiochip1" … in the order they are added.
  GpioChip& addGpioChip(GpioChipOptions options = {});
  /// Adds a part of any kind: add<Mcp3201>("adc").
  template <typename PartType, typename... Arguments>
  PartType& add(Arguments&&... arguments) {
    auto part = std::make_unique<PartType>(std::forward<Arguments>(arguments)...);
    PartType& added = *part;
    adopt(std::move(part));
    return added;
  }
  Part& adopt(std::unique_ptr<Part> part);

  /// Solders two pins together. Where both have nets already, these become one: the older net
  /// takes over the pins of the other.
  Net& connect(Pin& first, Pin& second);
  /// The net of a pin, made when it has none.
  Net& netOf(Pin& pin);
  /// Connects clock, data in and data out of a chip to a bus.
  void attach(SpiChip& chip, SpiBus& bus);

  const std::vector<std::unique_ptr<Part>>& parts() const { return parts_; }
  Part* findPart(std::string_view name) const;
  /// The pin of a path "part.pin" ("adc.CS", "gpiochip0.25"), or null.
  Pin* findPin(std::string_view path) const;
  /// The nets that have pins, oldest first.
  std::vector<Net*> nets() const;
  const std::vector<SpiBus*>& spiBuses() const { return spiBuses_; }
  const std::vector<GpioChip*>& gpioChips() const { return gpioChips_; }

  /// Powers every part up. `Kernel` does it; call it again for a power cycle of the whole board.
  /// The clock goes on.
  void powerUp();

  /// The clock; whoever uses it holds the board's lock.
  Clock& clock() { return clock_; }
  /// The clock's time, from any thread.
  Time now() const;
  /// Lets time pass, from any thread.
  void advance(Time duration);
  std::recursive_mutex& mutex() { return mutex_; }

  void violate(Violation violation);
  /// What went wrong so far, oldest first; the first 1000 are kept.
  std::vector<Violation> violations() const;
  /// All, including those beyond the first 1000.
  uint64_t violationCount() const;
  void clearViolations();

  /// Observers must outlive their stay; parts skip building notes when there is none.
  void addObserver(Observer& observer);
  void removeObserver(Observer& observer);
  bool observed() const { return !observers_.empty(); }
  const std::vector<Observer*>& observers() const { return observers_; }

  /// The next bit of noise.
  bool noise() {
    // xorshift64: cheap enough for every bit of a floating wire.
    noiseState_ ^= noiseState_ << 13U;
    noiseState_ ^= noiseState_ >> 7U;
    noiseState_ ^= noiseState_ << 17U;
    return ((noiseState_ >> 32U) & 1U) != 0;
  }

  /// How levels travel; for `Pin`, `Net` and the buses.
  Wires& wires() { return wires_; }
  /// Counts changes of the wiring.
  uint64_t wiringVersion() const { return wiringVersion_; }

 private:
  void addToNet(Net& net, Pin& pin);
  void placeOnNet(Net& net, Pin& pin);
  void join(Net& survivor, Net& other);

  BoardOptions options_;
  Clock clock_;
  mutable std::recursive_mutex mutex_;
  std::vector<std::unique_ptr<Part>> parts_;
  std::vector<std::unique_ptr<Net>> nets_;
  std::vector<SpiBus*> spiBuses_;
  std::vector<GpioChip*> gpioChips_;
  std::vector<Observer*> observers_;
  std::vector<Violation> violations_;
  uint64_t violationCount_ = 0;
  uint64_t noiseState_;
  uint64_t wiringVersion_ = 1;
  Wires wires_{*this};
};

}  // namespace vboard

#endif
