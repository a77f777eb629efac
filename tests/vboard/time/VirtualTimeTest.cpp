// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <threads.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "vboard/vboard.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using testing::ElementsAre;

constexpr auto kTenHours = 10h;

/// A clock of this machine, read past every interposed call.
nanoseconds machineClock(clockid_t clock) {
#if defined(SYS_clock_gettime64)
  struct {
    int64_t tv_sec;
    int32_t tv_nsec;
    int32_t padding;
  } now{};
  ::syscall(SYS_clock_gettime64, clock, &now);
#else
  timespec now{};
  ::syscall(SYS_clock_gettime, clock, &now);
#endif
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

nanoseconds processClock(clockid_t clock) {
  timespec now{};
  EXPECT_EQ(::clock_gettime(clock, &now), 0);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

timespec specOf(nanoseconds duration) {
  timespec time{};
  time.tv_sec = static_cast<time_t>(duration / 1s);
  time.tv_nsec = static_cast<decltype(time.tv_nsec)>((duration % 1s).count());
  return time;
}

class VirtualTime : public testing::Test {
 protected:
  VirtualTime() { kernel_.emplace(board_); }

  vboard::Board& board() { return board_; }
  void endKernel() { kernel_.reset(); }
  /// What a call takes on the board's clock.
  template <typename Call>
  nanoseconds taken(Call call) {
    const nanoseconds before = board_.clock().now();
    call();
    return board_.clock().now() - before;
  }

 private:
  vboard::Board board_;
  std::optional<vboard::Kernel> kernel_;
};

TEST_F(VirtualTime, TheProgramRunsOnTheBoard) {
  ASSERT_TRUE(vboard::interposed());
}

TEST_F(VirtualTime, ASleepOfTenHoursReturnsAndTheClocksShowIt) {
  const auto steady = std::chrono::steady_clock::now();
  const auto system = std::chrono::system_clock::now();
  const auto machine = machineClock(CLOCK_MONOTONIC);
  EXPECT_EQ(taken([] { std::this_thread::sleep_for(kTenHours); }), kTenHours);
  EXPECT_EQ(std::chrono::steady_clock::now() - steady, kTenHours);
  EXPECT_EQ(std::chrono::system_clock::now() - system, kTenHours);
  EXPECT_LT(machineClock(CLOCK_MONOTONIC) - machine, kTenHours);
}

TEST_F(VirtualTime, EverySleepTakesWhatItSays) {
  const timespec duration = specOf(3s + 7ns);
  EXPECT_EQ(taken([&] { EXPECT_EQ(::nanosleep(&duration, nullptr), 0); }), 3s + 7ns);
  EXPECT_EQ(taken([&] { EXPECT_EQ(::clock_nanosleep(CLOCK_MONOTONIC, 0, &duration, nullptr), 0); }),
            3s + 7ns);
  EXPECT_EQ(taken([&] { EXPECT_EQ(::thrd_sleep(&duration, nullptr), 0); }), 3s + 7ns);
  EXPECT_EQ(taken([] { EXPECT_EQ(::usleep(2500), 0); }), 2500us);
  EXPECT_EQ(taken([] { EXPECT_EQ(::sleep(3600), 0U); }), 1h);
}

TEST_F(VirtualTime, ASleepUntilAMomentEndsAtIt) {
  for (const clockid_t clock : {CLOCK_MONOTONIC, CLOCK_REALTIME, CLOCK_BOOTTIME}) {
    const nanoseconds moment = processClock(clock) + 2h;
    const timespec deadline = specOf(moment);
    EXPECT_EQ(
        taken([&] { EXPECT_EQ(::clock_nanosleep(clock, TIMER_ABSTIME, &deadline, nullptr), 0); }),
        2h);
    EXPECT_EQ(processClock(clock), moment);
  }
}

TEST_F(VirtualTime, ASleepUntilAPastMomentTakesNothing) {
  const timespec deadline = specOf(processClock(CLOCK_MONOTONIC) - 1ms);
  EXPECT_EQ(taken([&] {
              EXPECT_EQ(::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr), 0);
            }),
            0ns);
}

TEST_F(VirtualTime, ImpossibleTimesAreRefusedAsEver) {
  timespec wrong{};
  wrong.tv_nsec = 1000000000;
  EXPECT_EQ(taken([&] {
              errno = 0;
              EXPECT_EQ(::nanosleep(&wrong, nullptr), -1);
              EXPECT_EQ(errno, EINVAL);
              EXPECT_EQ(::clock_nanosleep(CLOCK_MONOTONIC, 0, &wrong, nullptr), EINVAL);
            }),
            0ns);
  EXPECT_EQ(::clock_gettime(4711, &wrong), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(VirtualTime, AnEndlessSleepReturnsAndLeavesAClockThatRuns) {
  timespec endless{};
  endless.tv_sec = std::numeric_limits<time_t>::max();
  EXPECT_EQ(::nanosleep(&endless, nullptr), 0);
  EXPECT_EQ(::nanosleep(&endless, nullptr), 0);
  EXPECT_GE(board().clock().now(), std::chrono::hours(24 * 365 * 60));
}

TEST_F(VirtualTime, ClocksStartAtTheMachinesTime) {
  for (const clockid_t clock : {CLOCK_MONOTONIC, CLOCK_REALTIME, CLOCK_BOOTTIME}) {
    endKernel();
    const nanoseconds before = machineClock(clock);
    vboard::Board other;
    const vboard::Kernel kernel(other);
    EXPECT_GE(processClock(clock), before);
    EXPECT_LE(processClock(clock), machineClock(clock));
  }
}

TEST_F(VirtualTime, ClocksStandStillWhileNothingHappensOnTheBoard) {
  const nanoseconds first = processClock(CLOCK_MONOTONIC);
  const nanoseconds machine = machineClock(CLOCK_MONOTONIC);
  while (machineClock(CLOCK_MONOTONIC) - machine < 2ms) {
  }
  EXPECT_EQ(processClock(CLOCK_MONOTONIC), first);
}

TEST_F(VirtualTime, AllWallAndMonotonicClocksRunTogether) {
  const std::vector<clockid_t> clocks = {CLOCK_REALTIME,         CLOCK_REALTIME_COARSE,
                                         CLOCK_MONOTONIC,        CLOCK_BOOTTIME,
                                         CLOCK_MONOTONIC_COARSE, CLOCK_MONOTONIC_RAW};
  std::vector<nanoseconds> before;
  for (const clockid_t clock : clocks) {
    before.push_back(processClock(clock));
  }
  ::sleep(1000);
  for (size_t index = 0; index < clocks.size(); ++index) {
    EXPECT_EQ(processClock(clocks[index]) - before[index], 1000s) << clocks[index];
  }
}

TEST_F(VirtualTime, TheOldCallsShowTheSameWallClock) {
  ::sleep(5000);
  const nanoseconds now = processClock(CLOCK_REALTIME);
  timeval day{};
  ASSERT_EQ(::gettimeofday(&day, nullptr), 0);
  EXPECT_EQ(std::chrono::seconds(day.tv_sec) + std::chrono::microseconds(day.tv_usec),
            std::chrono::duration_cast<std::chrono::microseconds>(now));
  time_t stored = 0;
  EXPECT_EQ(std::chrono::seconds(::time(&stored)),
            std::chrono::duration_cast<std::chrono::seconds>(now));
  EXPECT_EQ(stored, ::time(nullptr));
  timespec standard{};
  ASSERT_EQ(::timespec_get(&standard, TIME_UTC), TIME_UTC);
  EXPECT_EQ(std::chrono::seconds(standard.tv_sec) + nanoseconds(standard.tv_nsec), now);
}

TEST_F(VirtualTime, CpuTimeAndResolutionStayReal) {
  const nanoseconds before = processClock(CLOCK_PROCESS_CPUTIME_ID);
  std::this_thread::sleep_for(kTenHours);
  EXPECT_LT(processClock(CLOCK_PROCESS_CPUTIME_ID) - before, 1h);
  timespec resolution{};
  EXPECT_EQ(::clock_getres(CLOCK_MONOTONIC, &resolution), 0);
  EXPECT_EQ(resolution.tv_sec, 0);
}

TEST_F(VirtualTime, WhatIsDueOnTheBoardHappensDuringASleep) {
  std::vector<nanoseconds> moments;
  const nanoseconds start = board().clock().now();
  board().clock().after(2s, [&] { moments.push_back(board().clock().now() - start); });
  board().clock().after(1s, [&] { moments.push_back(board().clock().now() - start); });
  board().clock().after(9s, [&] { moments.push_back(board().clock().now() - start); });
  std::this_thread::sleep_for(5s);
  EXPECT_THAT(moments, ElementsAre(1s, 2s));
}

TEST_F(VirtualTime, SleepsOfSeveralThreadsAddUp) {
  EXPECT_EQ(taken([] {
              std::vector<std::thread> threads;
              for (int index = 0; index < 4; ++index) {
                threads.emplace_back([] {
                  for (int round = 0; round < 100; ++round) {
                    std::this_thread::sleep_for(1s);
                  }
                });
              }
              for (std::thread& thread : threads) {
                thread.join();
              }
            }),
            400s);
}

TEST_F(VirtualTime, ReadingAClockDoesNotWaitForABusyBoard) {
  std::this_thread::sleep_for(1s);
  const nanoseconds before = processClock(CLOCK_MONOTONIC);
  std::promise<void> busy;
  std::promise<void> enough;
  std::thread other([&] {
    const std::lock_guard lock(board().mutex());
    busy.set_value();
    enough.get_future().wait();
  });
  busy.get_future().wait();
  EXPECT_EQ(processClock(CLOCK_MONOTONIC), before);
  enough.set_value();
  other.join();
}

TEST_F(VirtualTime, TheClocksAreTheMachinesAgainAfterTheKernelEnded) {
  std::this_thread::sleep_for(kTenHours);
  endKernel();
  const nanoseconds before = machineClock(CLOCK_MONOTONIC);
  const nanoseconds now = processClock(CLOCK_MONOTONIC);
  EXPECT_LE(before, now);
  EXPECT_LE(now, machineClock(CLOCK_MONOTONIC));
}

TEST(MachineTime, IsLeftAloneWithoutVirtualTime) {
  vboard::Board board;
  const vboard::Kernel kernel(board, {.virtualTime = false});
  const nanoseconds start = board.clock().now();
  const nanoseconds before = machineClock(CLOCK_MONOTONIC);
  std::this_thread::sleep_for(2ms);
  const nanoseconds now = processClock(CLOCK_MONOTONIC);
  EXPECT_GE(now - before, 2ms);
  EXPECT_LE(now, machineClock(CLOCK_MONOTONIC));
  EXPECT_EQ(board.clock().now(), start);
}

TEST(MachineTime, IsKeptInRealTimeMode) {
  vboard::Board board;
  const vboard::Kernel kernel(board, {.virtualTime = true, .realTime = true});
  const nanoseconds before = machineClock(CLOCK_MONOTONIC);
  std::this_thread::sleep_for(2ms);
  EXPECT_GE(machineClock(CLOCK_MONOTONIC) - before, 2ms);
}

}  // namespace
