// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_OBSERVER_H
#define VBOARD_BOARD_OBSERVER_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "vboard/board/Clock.h"
#include "vboard/board/Level.h"

namespace vboard {

class Net;
class Part;
class SpiBus;

/// How one transfer shapes its words on the wires.
struct SpiFormat {
  uint8_t mode = 0;  ///< 0 to 3
  bool lsbFirst = false;
  uint8_t bitsPerWord = 8;  ///< 1 to 32
  uint32_t speedHz = 500000;
  bool loop = false;  ///< the controller listens to its own MOSI
};

/// Something on the board that the real one would not forgive.
struct Violation {
  Time time{0};
  std::string part;     ///< name of the part or wire
  std::string rule;     ///< short stable id
  std::string details;  ///< what happened, with numbers
};

/// One transfer as it stood on the wires: the words right-justified.
struct SpiRecord {
  Time start{0};
  Time end{0};
  const SpiBus* bus = nullptr;
  int select = -1;  ///< native select of the node
  SpiFormat format;
  std::span<const uint32_t> mosi;
  std::span<const uint32_t> miso;
};

/// Watches a board. Calls come in time order, with the board's lock held; all are empty by default.
class Observer {
 public:
  virtual ~Observer() = default;
  virtual void onTransfer(const SpiRecord& /*record*/) {}
  /// A net changed its level, or whether anything holds it.
  virtual void onNet(const Net& /*net*/, Time /*time*/) {}
  virtual void onViolation(const Violation& /*violation*/) {}
  virtual void onNote(const Part& /*part*/, Time /*time*/, std::string_view /*text*/) {}
  /// A system call on an emulated node: name, and result (negated errno on failure).
  virtual void onCall(std::string_view /*call*/, std::string_view /*node*/, long /*result*/,
                      Time /*time*/) {}
};

}  // namespace vboard

#endif
