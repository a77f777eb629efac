// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_KERNELSTATE_H
#define VBOARD_KERNEL_KERNELSTATE_H

#include <atomic>
#include <chrono>
#include <memory>
#include <string_view>
#include <thread>

#include "vboard/kernel/Faults.h"
#include "vboard/kernel/FileTree.h"
#include "vboard/kernel/Kernel.h"
#include "vboard/kernel/Running.h"

namespace vboard::kernel {

/// The board's clock tied to the real one.
class RealTime {
 public:
  explicit RealTime(Board& board);
  ~RealTime();
  RealTime(const RealTime&) = delete;
  RealTime& operator=(const RealTime&) = delete;

  /// Moves the board's clock up to now. The board's lock is held.
  void catchUp();
  /// Sleeps until a moment of the board's clock has really come. The board's lock is not held.
  void waitUntil(Time moment) const;
  /// The thread below doesn't live in a forked child.
  void forked();

 private:
  void run();

  Board& board_;
  std::chrono::steady_clock::time_point start_;
  std::atomic<bool> stopping_{false};
  /// Lets what is due on the board happen while the program makes no calls.
  std::thread thread_;
};

/// Everything a `Kernel` holds. There is one at a time.
struct KernelState {
  /// Throws std::logic_error when another one lives.
  KernelState(Board& theBoard, KernelOptions theOptions);
  ~KernelState();
  KernelState(const KernelState&) = delete;
  KernelState& operator=(const KernelState&) = delete;

  Board& board;
  KernelOptions options;
  FileTree tree;
  Faults faults;
  std::unique_ptr<RealTime> realTime;
};

/// The state of the running kernel. Only inside a `RunningScope` or `CallScope` that is not empty.
KernelState& kernelState();

/// Lets calls in. The board's lock is held.
void startRunning(KernelState& state);
/// Returns when no call is inside any more; nothing is emulated afterwards.
void stopRunning();

/// One emulated call from beginning to end: the board's lock, and in real time the clock.
class CallScope {
 public:
  CallScope();
  ~CallScope();
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

  /// False when no kernel runs any more: the call is libc's.
  explicit operator bool() const;

 private:
  KernelState* state_;
  int savedErrno_;
};

}  // namespace vboard::kernel

#endif
