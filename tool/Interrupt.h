// SPDX-License-Identifier: MIT
#ifndef TOOL_INTERRUPT_H
#define TOOL_INTERRUPT_H

#include <csignal>
#include <cstdint>
#include <functional>
#include <iterator>

#include "tool/Options.h"

namespace tool {

/// While it lives, SIGINT, SIGTERM and SIGHUP don't end the process: they are remembered, so that
/// the reading at hand is finished and the chip released. A SIGHUP that was ignored, as under
/// nohup, stays ignored. One at a time.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  bool requested() const { return count() > 0; }
  /// How many signals came.
  unsigned int count() const;
  /// Blocks for so long, or until more signals came than are `known`, which it notices within
  /// 50 ms.
  void sleep(unsigned int milliseconds, unsigned int known = 0) const;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction previous_[std::size(kSignals)];
};

/// Runs `body` as often as asked, with pauses between, until done or interrupted; `body` gets the
/// number of the round, from 1.
void repeat(const Repetition& repetition, const Interrupt& interrupt,
            const std::function<void(uint64_t round)>& body);

}  // namespace tool

#endif
