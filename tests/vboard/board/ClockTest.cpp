// SPDX-License-Identifier: MIT
#include "vboard/board/Clock.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using vboard::Alarm;
using vboard::Clock;
using vboard::Time;

TEST(Clock, StandsStillUntilItIsAdvanced) {
  Clock clock;
  EXPECT_EQ(clock.now(), Time(0));
  clock.advance(Time(7));
  EXPECT_EQ(clock.now(), Time(7));
}

TEST(Clock, NeverGoesBack) {
  Clock clock;
  clock.advance(Time(100));
  clock.advanceTo(Time(50));
  EXPECT_EQ(clock.now(), Time(100));
}

TEST(Clock, EventsRunInOrderEachAtItsOwnTime) {
  Clock clock;
  std::vector<int64_t> seen;
  for (const long moment : {30, 10, 20}) {
    clock.at(Time(moment), [&] { seen.push_back(clock.now().count()); });
  }
  clock.advance(Time(25));
  EXPECT_THAT(seen, ElementsAre(10, 20));
  EXPECT_EQ(clock.now(), Time(25));
  clock.advance(Time(5));
  EXPECT_THAT(seen, ElementsAre(10, 20, 30));
}

TEST(Clock, EventsOfOneMomentRunInTheOrderTheyWereMade) {
  Clock clock;
  std::string seen;
  clock.at(Time(5), [&] { seen += 'a'; });
  clock.at(Time(5), [&] { seen += 'b'; });
  clock.advance(Time(5));
  EXPECT_EQ(seen, "ab");
}

TEST(Clock, AnEventMayScheduleAnotherThatFallsDueInTheSameAdvance) {
  Clock clock;
  std::vector<int64_t> ticks;
  std::function<void()> tick = [&] {
    ticks.push_back(clock.now().count());
    clock.after(Time(10), tick);
  };
  clock.after(Time(10), tick);
  clock.advance(Time(35));
  EXPECT_THAT(ticks, ElementsAre(10, 20, 30));
}

TEST(Clock, AnEventOfThePastRunsAtTheNextAdvance) {
  Clock clock;
  clock.advance(Time(100));
  bool ran = false;
  clock.at(Time(50), [&] { ran = true; });
  EXPECT_FALSE(ran);
  clock.advance(Time(0));
  EXPECT_TRUE(ran);
  EXPECT_EQ(clock.now(), Time(100));
}

TEST(Clock, ACancelledEventNeverRunsAndCancellingAnOldOneIsFine) {
  Clock clock;
  int runs = 0;
  const auto first = clock.after(Time(10), [&] { ++runs; });
  const auto second = clock.after(Time(20), [&] { ++runs; });
  clock.cancel(second);
  clock.advance(Time(50));
  EXPECT_EQ(runs, 1);
  clock.cancel(first);
  clock.advance(Time(50));
  EXPECT_EQ(runs, 1);
}

TEST(Alarm, RunsOnceAtTheMomentSetLast) {
  Clock clock;
  std::vector<int64_t> rang;
  Alarm alarm([&] { rang.push_back(clock.now().count()); });
  alarm.set(clock, Time(10));
  alarm.set(clock, Time(30));
  EXPECT_EQ(clock.nextEvent(), Time(30));
  EXPECT_TRUE(alarm.isSet());
  clock.advance(Time(100));
  EXPECT_THAT(rang, ElementsAre(30));
  EXPECT_FALSE(alarm.isSet());
  EXPECT_EQ(clock.nextEvent(), Time::max());
}

TEST(Alarm, MaySetItselfAgainAndKeepsItsPlaceAmongEventsOfOneMoment) {
  Clock clock;
  std::string seen;
  Alarm* again = nullptr;
  Alarm alarm([&] {
    seen += 'a';
    if (seen.size() < 4) {
      again->set(clock, clock.now() + Time(10));
    }
  });
  again = &alarm;
  alarm.set(clock, Time(10));
  clock.at(Time(10), [&] { seen += 'e'; });
  clock.advance(Time(100));
  EXPECT_EQ(seen, "aeaa");
}

TEST(Alarm, ClearedOrDestroyedItNeverRuns) {
  Clock clock;
  int runs = 0;
  Alarm alarm([&] { ++runs; });
  alarm.set(clock, Time(10));
  alarm.clear();
  alarm.clear();
  {
    Alarm shortLived([&] { ++runs; });
    shortLived.set(clock, Time(20));
  }
  EXPECT_EQ(clock.nextEvent(), Time::max());
  clock.advance(Time(100));
  EXPECT_EQ(runs, 0);
  alarm.set(clock, Time(200));
  clock.advance(Time(100));
  EXPECT_EQ(runs, 1);
}

}  // namespace
