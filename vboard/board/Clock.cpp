// SPDX-License-Identifier: MIT
#include "vboard/board/Clock.h"

#include <algorithm>

namespace vboard {

Clock::EventId Clock::at(Time moment, std::function<void()> action) {
  const EventId id(moment, nextSerial_++);
  events_.emplace(id, std::move(action));
  nextEvent_ = std::min(nextEvent_, moment);
  return id;
}

void Clock::cancel(EventId event) {
  events_.erase(event);
  nextEvent_ = events_.empty() ? Time::max() : events_.begin()->first.first;
}

void Clock::runEventsUntil(Time moment) {
  while (!events_.empty() && events_.begin()->first.first <= moment) {
    // Taken out first: the event may schedule and cancel others, or advance the clock itself.
    const auto event = events_.extract(events_.begin());
    nextEvent_ = events_.empty() ? Time::max() : events_.begin()->first.first;
    now_ = std::max(now_, event.key().first);
    event.mapped()();
  }
}

}  // namespace vboard
