// SPDX-License-Identifier: MIT
#include "orv/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

TEST(Thread, SleepsAtLeastAsLongAsAsked) {
  const Clock::time_point start = Clock::now();
  Orv::CThread::sleep(20);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
}

TEST(Thread, ALongerSleepTakesLonger) {
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < 10; ++i) {
    Orv::CThread::sleep(0);
  }
  const Clock::time_point middle = Clock::now();
  Orv::CThread::sleep(50);
  EXPECT_LT(middle - start, Clock::now() - middle);
}

TEST(Thread, ASignalDoesNotCutTheSleepShort) {
  struct sigaction action {};
  struct sigaction former {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &former), 0);

  std::atomic<bool> awake{false};
  Clock::duration slept{};
  std::thread sleeper([&] {
    const Clock::time_point start = Clock::now();
    Orv::CThread::sleep(50);
    slept = Clock::now() - start;
    awake = true;
  });
  while (!awake) {
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  sleeper.join();
  EXPECT_GE(slept, std::chrono::milliseconds(50));
  ASSERT_EQ(sigaction(SIGUSR1, &former, nullptr), 0);
}

}  // namespace
