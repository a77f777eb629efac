// SPDX-License-Identifier: MIT
#ifndef TESTS_WIRE_LOCKS_H
#define TESTS_WIRE_LOCKS_H

#include <future>
#include <mutex>
#include <thread>

namespace wire {

/// Whether another thread could lock the mutex now.
inline bool isFree(std::recursive_mutex& mutex) {
  bool free = false;
  std::thread([&mutex, &free] {
    free = mutex.try_lock();
    if (free) {
      mutex.unlock();
    }
  }).join();
  return free;
}

/// Holds a mutex in a thread of its own until it goes.
class HeldElsewhere {
 public:
  explicit HeldElsewhere(std::recursive_mutex& mutex)
      : thread_([this, &mutex] {
          const std::lock_guard<std::recursive_mutex> lock(mutex);
          locked_.set_value();
          release_.get_future().wait();
        }) {
    locked_.get_future().wait();
  }
  ~HeldElsewhere() {
    release_.set_value();
    thread_.join();
  }
  HeldElsewhere(const HeldElsewhere&) = delete;
  HeldElsewhere& operator=(const HeldElsewhere&) = delete;

 private:
  std::promise<void> locked_;
  std::promise<void> release_;
  std::thread thread_;
};

}  // namespace wire

#endif
