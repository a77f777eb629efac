// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_VIRTUALTIME_H
#define VBOARD_KERNEL_VIRTUALTIME_H

#include <atomic>
#include <cstdint>

#include "vboard/board/Board.h"

namespace vboard::kernel {

// While virtual time is active (see Running.h) the clocks of this process read the board's clock,
// and its sleeps advance that and return at once.
//
// - CLOCK_MONOTONIC, CLOCK_BOOTTIME, CLOCK_REALTIME, CLOCK_TAI and their coarse, raw and alarm kin
//   start at the real values of the moment the kernel started. CPU-time clocks and clock_getres
//   stay real.
// - Reading a clock never waits for the board: while another thread is in a call, it shows the time
//   before that call. Programs read clocks with locks held that an observer may want.
// - Every sleep advances the one clock: two threads that sleep a second each take two together.
// - Timed waits (condition variables, semaphores, mutexes, read-write locks) first wait a real
//   millisecond for another thread; then the clock moves to the deadline and they time out.
// - The timeouts of poll, select, epoll, timers, alarms, sigtimedwait, and everything that goes
//   to the kernel without libc (a future's timed wait) stay real.

/// Remembers where the clocks stand: virtual time goes on from here. To be called just before
/// virtual time becomes active; takes the board's lock.
void startVirtualClocks(Board& board);

/// Where the board's clock stood when the last call ended. Written with the board's lock held.
extern std::atomic<int64_t> publishedTime __attribute__((visibility("hidden")));

}  // namespace vboard::kernel

#endif
