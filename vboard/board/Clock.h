// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_CLOCK_H
#define VBOARD_BOARD_CLOCK_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace vboard {

/// Time since the board was powered.
using Time = std::chrono::nanoseconds;

/// The board's own clock. It stands still until something advances it: the wires by what a
/// transfer takes, a sleep, a system call by its cost.
class Clock {
 public:
  /// Names a scheduled event.
  using EventId = std::pair<Time, uint64_t>;

  Time now() const { return now_; }
  /// When the next scheduled call is due; Time::max() without one.
  Time nextEvent() const { return nextEvent_; }

  /// Moves on, running the events that fall due on the way in order, each at its own time.
  void advance(Time duration) {
    const Time moment = now_ + duration;
    if (moment >= nextEvent_) [[unlikely]] {
      runEventsUntil(moment);
    }
    now_ = std::max(now_, moment);
  }
  /// The same, to a moment; a moment in the past does nothing.
  void advanceTo(Time moment) {
    if (moment >= nextEvent_) {
      runEventsUntil(moment);
    }
    if (moment > now_) {
      now_ = moment;
    }
  }

  /// Schedules a call. A moment in the past runs at the next advance.
  EventId at(Time moment, std::function<void()> action);
  EventId after(Time delay, std::function<void()> action) {
    return at(now_ + delay, std::move(action));
  }
  /// Forgets a scheduled call; one that already ran is fine.
  void cancel(EventId event);

 private:
  void runEventsUntil(Time moment);

  Time now_{0};
  Time nextEvent_ = Time::max();
  uint64_t nextSerial_ = 0;
  std::map<EventId, std::function<void()>> events_;
};

}  // namespace vboard

#endif
