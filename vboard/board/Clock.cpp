// SPDX-License-Identifier: MIT
#include "vboard/board/Clock.h"

#include <algorithm>

namespace vboard {

Clock::EventId Clock::at(Time moment, std::function<void()> action) {
  const EventId id(moment, nextSerial_++);
  events_.emplace(id, Event{std::move(action)});
  nextEvent_ = std::min(nextEvent_, moment);
  return id;
}

void Clock::cancel(EventId event) {
  events_.erase(event);
  findNext();
}

void Clock::runEventsUntil(Time moment) {
  while (!events_.empty() && events_.begin()->first.first <= moment) {
    // Taken out first: the event may schedule and cancel others, or advance the clock itself.
    auto event = events_.extract(events_.begin());
    findNext();
    now_ = std::max(now_, event.key().first);
    if (Alarm* alarm = event.mapped().alarm; alarm != nullptr) {
      alarm->entry_ = std::move(event);
      alarm->clock_ = nullptr;
      alarm->action_();
    } else {
      event.mapped().action();
    }
  }
}

Alarm::Alarm(std::function<void()> action) : action_(std::move(action)) {
  Clock::Events events;
  events.emplace(Clock::EventId(), Clock::Event{nullptr, this});
  entry_ = events.extract(events.begin());
}

void Alarm::set(Clock& clock, Time moment) {
  clear();
  clock_ = &clock;
  id_ = {moment, clock.nextSerial_++};
  entry_.key() = id_;
  clock.events_.insert(std::move(entry_));
  clock.nextEvent_ = std::min(clock.nextEvent_, moment);
}

void Alarm::clear() {
  if (clock_ != nullptr) {
    entry_ = clock_->events_.extract(id_);
    clock_->findNext();
    clock_ = nullptr;
  }
}

}  // namespace vboard
