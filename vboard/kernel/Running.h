// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_RUNNING_H
#define VBOARD_KERNEL_RUNNING_H

#include <mutex>

namespace vboard {

class Board;

namespace kernel {

/// Whether a `Kernel` runs whose clock this process's sleeps and clocks follow. One atomic load, so
/// every interposed clock call may ask.
bool virtualTimeActive();

/// Whether a `Kernel` runs at all.
bool running();

/// The board of the running `Kernel`, or null. It stays valid while the kernel lives: who looks
/// at it from a thread of its own holds a `RunningScope`.
Board* activeBoard();

/// Calls a function once, at this process's next call on an emulated node, with the board's lock
/// held.
void onFirstCall(void (*function)());

/// Keeps the running kernel and its board alive, and the board's lock held, for the length of one
/// emulated call. Scopes nest.
class RunningScope {
 public:
  RunningScope();
  /// The same without waiting: also empty while another thread is in a call.
  explicit RunningScope(std::try_to_lock_t);
  ~RunningScope();
  RunningScope(const RunningScope&) = delete;
  RunningScope& operator=(const RunningScope&) = delete;

  /// Null when no kernel runs.
  Board* board() const { return board_; }
  explicit operator bool() const { return board_ != nullptr; }

 private:
  Board* board_;
};

}  // namespace kernel
}  // namespace vboard

#endif
