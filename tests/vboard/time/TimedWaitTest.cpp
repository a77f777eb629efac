// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "vboard/vboard.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

timespec inTwoHours(clockid_t clock) {
  timespec moment{};
  EXPECT_EQ(::clock_gettime(clock, &moment), 0);
  moment.tv_sec += 7200;
  return moment;
}

class TimedWait : public testing::Test {
 protected:
  vboard::Board& board() { return board_; }
  template <typename Call>
  nanoseconds taken(Call call) {
    const nanoseconds before = now();
    call();
    return now() - before;
  }
  nanoseconds now() {
    const std::lock_guard lock(board_.mutex());
    return board_.clock().now();
  }

 private:
  vboard::Board board_;
  vboard::Kernel kernel_{board_};
};

TEST_F(TimedWait, OfAConditionEndsAtItsDeadlineWhenNobodySignals) {
  std::mutex mutex;
  std::condition_variable condition;
  std::unique_lock lock(mutex);
  EXPECT_EQ(taken([&] { EXPECT_EQ(condition.wait_for(lock, 2h), std::cv_status::timeout); }), 2h);
  EXPECT_TRUE(lock.owns_lock());
}

TEST_F(TimedWait, OfAConditionFollowsTheWallClockToo) {
  std::mutex mutex;
  std::condition_variable condition;
  std::unique_lock lock(mutex);
  std::this_thread::sleep_for(10h);
  EXPECT_EQ(taken([&] {
              const auto deadline = std::chrono::system_clock::now() + 2h;
              EXPECT_EQ(condition.wait_until(lock, deadline), std::cv_status::timeout);
            }),
            2h);
}

TEST_F(TimedWait, OfAConditionMadeForTheMonotonicClockUsesThat) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  ASSERT_EQ(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC), 0);
  pthread_cond_t condition;
  pthread_cond_init(&condition, &attributes);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_lock(&mutex);
  const timespec deadline = inTwoHours(CLOCK_MONOTONIC);
  EXPECT_EQ(
      taken([&] { EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &deadline), ETIMEDOUT); }),
      2h);
  pthread_mutex_unlock(&mutex);
  pthread_cond_destroy(&condition);
  pthread_condattr_destroy(&attributes);
}

TEST_F(TimedWait, ForAPastMomentTakesNothing) {
  std::mutex mutex;
  std::condition_variable condition;
  std::unique_lock lock(mutex);
  EXPECT_EQ(taken([&] {
              const auto deadline = std::chrono::steady_clock::now() - 1s;
              EXPECT_EQ(condition.wait_until(lock, deadline), std::cv_status::timeout);
            }),
            0ns);
}

TEST_F(TimedWait, ASignalInTimeEndsItWithoutTakingTime) {
  std::mutex mutex;
  std::condition_variable condition;
  std::atomic<bool> done{false};
  std::thread signaller([&] {
    while (!done) {
      condition.notify_all();
      std::this_thread::yield();
    }
  });
  // A machine under load may keep the signaller from running in time: one wait of many is enough.
  bool signalled = false;
  for (int attempt = 0; attempt < 10000 && !signalled; ++attempt) {
    std::unique_lock lock(mutex);
    const nanoseconds before = now();
    signalled = condition.wait_for(lock, 2h) == std::cv_status::no_timeout;
    EXPECT_EQ(now() - before, signalled ? 0h : 2h);
  }
  done = true;
  signaller.join();
  EXPECT_TRUE(signalled);
}

TEST_F(TimedWait, AThreadThatPollsWithTimeoutsSeesTheWorkDone) {
  std::mutex mutex;
  std::condition_variable condition;
  bool ready = false;
  std::thread worker([&] {
    const std::lock_guard lock(mutex);
    ready = true;
    condition.notify_one();
  });
  {
    std::unique_lock lock(mutex);
    while (!ready) {
      condition.wait_for(lock, 1s);
    }
  }
  worker.join();
  EXPECT_TRUE(ready);
}

TEST_F(TimedWait, OfASemaphoreEndsAtItsDeadline) {
  sem_t semaphore;
  ASSERT_EQ(sem_init(&semaphore, 0, 1), 0);
  const timespec wall = inTwoHours(CLOCK_REALTIME);
  EXPECT_EQ(taken([&] { EXPECT_EQ(sem_timedwait(&semaphore, &wall), 0); }), 0ns);
  EXPECT_EQ(taken([&] {
              errno = 0;
              EXPECT_EQ(sem_timedwait(&semaphore, &wall), -1);
              EXPECT_EQ(errno, ETIMEDOUT);
            }),
            2h);
  const timespec monotonic = inTwoHours(CLOCK_MONOTONIC);
  EXPECT_EQ(taken([&] {
              EXPECT_EQ(sem_clockwait(&semaphore, CLOCK_MONOTONIC, &monotonic), -1);
              EXPECT_EQ(errno, ETIMEDOUT);
            }),
            2h);
  sem_destroy(&semaphore);
}

TEST_F(TimedWait, OfAMutexEndsAtItsDeadline) {
  std::timed_mutex mutex;
  const std::lock_guard lock(mutex);
  std::thread waiter([&] {
    EXPECT_EQ(taken([&] { EXPECT_FALSE(mutex.try_lock_for(2h)); }), 2h);
    const auto wall = std::chrono::system_clock::now() + 2h;
    EXPECT_EQ(taken([&] { EXPECT_FALSE(mutex.try_lock_until(wall)); }), 2h);
  });
  waiter.join();
}

TEST_F(TimedWait, OfAReadWriteLockEndsAtItsDeadline) {
  std::shared_timed_mutex mutex;
  const std::lock_guard lock(mutex);
  std::thread waiter([&] {
    EXPECT_EQ(taken([&] { EXPECT_FALSE(mutex.try_lock_for(2h)); }), 2h);
    EXPECT_EQ(taken([&] { EXPECT_FALSE(mutex.try_lock_shared_for(2h)); }), 2h);
  });
  waiter.join();
}

TEST_F(TimedWait, IsLeftToTheMachineForImpossibleDeadlines) {
  sem_t semaphore;
  ASSERT_EQ(sem_init(&semaphore, 0, 0), 0);
  timespec wrong{};
  wrong.tv_nsec = -1;
  errno = 0;
  EXPECT_EQ(sem_timedwait(&semaphore, &wrong), -1);
  EXPECT_EQ(errno, EINVAL);
  sem_destroy(&semaphore);
}

TEST_F(TimedWait, DoesNotDeadlockWithAnObserverThatTakesTheSameMutex) {
  std::mutex mutex;
  std::condition_variable condition;
  std::atomic<bool> done{false};
  int seen = 0;
  // What an observer does: the board's lock first, the program's mutex inside.
  std::thread observer([&] {
    while (!done) {
      const std::lock_guard boardLock(board().mutex());
      const std::lock_guard lock(mutex);
      ++seen;
    }
  });
  for (int round = 0; round < 50; ++round) {
    std::unique_lock lock(mutex);
    condition.wait_for(lock, 1h);
  }
  done = true;
  observer.join();
  EXPECT_GT(seen, 0);
}

}  // namespace
