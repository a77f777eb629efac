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

class Alarm;

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
  friend class Alarm;
  struct Event {
    std::function<void()> action;
    Alarm* alarm = nullptr;  // in place of an action
  };
  using Events = std::map<EventId, Event>;

  void runEventsUntil(Time moment);
  void findNext() { nextEvent_ = events_.empty() ? Time::max() : events_.begin()->first.first; }

  Time now_{0};
  Time nextEvent_ = Time::max();
  uint64_t nextSerial_ = 0;
  Events events_;
};

/// An action that is due again and again, at moments decided on the way: a converter's ready edge.
/// Only making one takes memory from the heap. It must not outlive the clock while it is set.
class Alarm {
 public:
  explicit Alarm(std::function<void()> action);
  ~Alarm() { clear(); }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

  /// Due once at a moment, and not at the one set before. A moment in the past runs at the next
  /// advance. The action may set its alarm again.
  void set(Clock& clock, Time moment);
  void clear();
  bool isSet() const { return clock_ != nullptr; }

 private:
  friend class Clock;
  std::function<void()> action_;
  Clock::Events::node_type entry_;  // while not set
  Clock::EventId id_;               // while set
  Clock* clock_ = nullptr;
};

}  // namespace vboard

#endif
