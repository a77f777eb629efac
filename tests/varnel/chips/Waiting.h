// SPDX-License-Identifier: MIT
#ifndef TESTS_VARNEL_CHIPS_WAITING_H
#define TESTS_VARNEL_CHIPS_WAITING_H

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "tests/wire/Locks.h"

/// Whether an operation gets through while another thread holds the bus. One that doesn't wait is
/// done long before the pause is over; one that waits is never seen as done.
template <class Operation>
bool finishesWithoutTheBus(std::recursive_mutex& bus, Operation operation) {
  std::atomic<bool> done{false};
  bool early = false;
  std::thread thread;
  {
    const wire::HeldElsewhere held(bus);
    thread = std::thread([&] {
      operation();
      done = true;
    });
    for (int i = 0; i < 50 && !done; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    early = done;
  }
  thread.join();
  return early;
}

#endif
