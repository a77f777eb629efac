// SPDX-License-Identifier: MIT
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include "vboard/kernel/VirtualTime.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <threads.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <mutex>
#include <optional>

#include "vboard/kernel/Running.h"
#include "vboard/kernel/SanitizerCalls.h"

namespace vboard::kernel {
namespace {

constexpr int64_t kSecond = 1000000000;
/// How long a timed wait really waits for another thread before virtual time moves on.
constexpr int64_t kGrace = 1000000;
/// No sleep leads further: 146 years leave room to add to.
constexpr Time kEndOfTime{int64_t{1} << 62};

/// A `timespec` with 64-bit seconds, as 32-bit programs with 64-bit time have it.
struct Timespec64 {
  int64_t tv_sec;
  int32_t tv_nsec;
  int32_t padding;
};

struct Timeval64 {
  int64_t tv_sec;
  int64_t tv_usec;
};

/// The families of clocks, each with its own offset to the board's clock.
enum ClockFamily : uint8_t { Realtime, Tai, Monotonic, MonotonicRaw, Boottime };
constexpr size_t kClockFamilies = Boottime + 1;

/// What to add to the board's clock. Written before virtual time becomes active.
std::array<std::atomic<int64_t>, kClockFamilies> clockOffsets{};

std::optional<ClockFamily> familyOf(clockid_t clock) {
  switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_REALTIME_ALARM: return Realtime;
    case CLOCK_TAI: return Tai;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE: return Monotonic;
    case CLOCK_MONOTONIC_RAW: return MonotonicRaw;
    case CLOCK_BOOTTIME:
    case CLOCK_BOOTTIME_ALARM: return Boottime;
    default: return std::nullopt;
  }
}

/// The machine's clock, whatever is interposed.
int64_t realClock(clockid_t clock) {
#if defined(SYS_clock_gettime64)
  Timespec64 now{};
  syscall(SYS_clock_gettime64, clock, &now);
#else
  timespec now{};
  syscall(SYS_clock_gettime, clock, &now);
#endif
  return now.tv_sec * kSecond + now.tv_nsec;
}

int64_t offsetOf(ClockFamily family) {
  return clockOffsets[family].load(std::memory_order_relaxed);
}

/// What a clock reads in virtual time; nothing for clocks that stay real.
std::optional<int64_t> virtualClock(clockid_t clock) {
  const std::optional<ClockFamily> family = familyOf(clock);
  if (!family || !virtualTimeActive()) {
    return std::nullopt;
  }
  const RunningScope scope(std::try_to_lock);
  if (!scope && !running()) {
    return std::nullopt;
  }
  const int64_t now =
      scope ? scope.board()->clock().now().count() : publishedTime.load(std::memory_order_relaxed);
  return now + offsetOf(*family);
}

template <typename Spec>
bool isValid(const Spec* time) {
  return time != nullptr && time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < kSecond;
}

template <typename Spec>
int64_t nanosecondsOf(const Spec& time) {
  constexpr int64_t kMost = kEndOfTime.count() / kSecond - 1;
  return std::min<int64_t>(time.tv_sec, kMost) * kSecond + time.tv_nsec;
}

/// Writes a time; false when the caller's type can't hold it.
template <typename Spec>
bool toSpec(int64_t nanoseconds, Spec* out) {
  using Seconds = decltype(out->tv_sec);
  const int64_t seconds = nanoseconds / kSecond;
  if (seconds > std::numeric_limits<Seconds>::max()) {
    errno = EOVERFLOW;
    return false;
  }
  out->tv_sec = static_cast<Seconds>(seconds);
  out->tv_nsec = static_cast<decltype(out->tv_nsec)>(nanoseconds % kSecond);
  return true;
}

void moveTo(Board& board, Time moment) {
  board.clock().advanceTo(std::min(moment, kEndOfTime));
}

/// Sleeps on the board's clock; false when there is none to sleep on.
bool sleepVirtually(int64_t nanoseconds) {
  if (!virtualTimeActive()) {
    return false;
  }
  {
    const RunningScope scope;
    if (!scope) {
      return false;
    }
    moveTo(*scope.board(), scope.board()->clock().now() + Time(nanoseconds));
  }
  // A loop that sleeps until another thread is done must let that thread run.
  sched_yield();
  pthread_testcancel();
  return true;
}

/// The same until a clock reads `deadline`.
bool sleepVirtuallyUntil(ClockFamily family, int64_t deadline) {
  if (!virtualTimeActive()) {
    return false;
  }
  {
    const RunningScope scope;
    if (!scope) {
      return false;
    }
    moveTo(*scope.board(), Time(deadline - offsetOf(family)));
  }
  sched_yield();
  pthread_testcancel();
  return true;
}

template <typename Spec, typename Real>
int sleepFor(const Spec* duration, Spec* remaining, Real real) {
  if (!isValid(duration) || !sleepVirtually(nanosecondsOf(*duration))) {
    return real(duration, remaining);
  }
  return 0;
}

template <typename Spec, typename Real>
int clockSleep(clockid_t clock, int flags, const Spec* time, Spec* remaining, Real real) {
  const std::optional<ClockFamily> family = familyOf(clock);
  if (!family || !isValid(time)) {
    return real(clock, flags, time, remaining);
  }
  const int64_t nanoseconds = nanosecondsOf(*time);
  const bool slept = (flags & TIMER_ABSTIME) != 0 ? sleepVirtuallyUntil(*family, nanoseconds)
                                                  : sleepVirtually(nanoseconds);
  return slept ? 0 : real(clock, flags, time, remaining);
}

template <typename Spec, typename Real>
int readClock(clockid_t clock, Spec* out, Real real) {
  const std::optional<int64_t> now = virtualClock(clock);
  if (!now || out == nullptr) {
    return real(clock, out);
  }
  return toSpec(*now, out) ? 0 : -1;
}

template <typename Value, typename Real>
int readTimeOfDay(Value* out, void* zone, Real real) {
  const std::optional<int64_t> now = virtualClock(CLOCK_REALTIME);
  if (!now || out == nullptr) {
    return real(out, zone);
  }
  out->tv_sec = static_cast<decltype(out->tv_sec)>(*now / kSecond);
  out->tv_usec = static_cast<decltype(out->tv_usec)>(*now % kSecond / 1000);
  return 0;
}

template <typename Seconds, typename Real>
Seconds readSeconds(Seconds* out, Real real) {
  const std::optional<int64_t> now = virtualClock(CLOCK_REALTIME);
  if (!now) {
    return real(out);
  }
  const auto seconds = static_cast<Seconds>(*now / kSecond);
  if (out != nullptr) {
    *out = seconds;
  }
  return seconds;
}

template <typename Spec, typename Real>
int readTimespec(Spec* out, int base, Real real) {
  const std::optional<int64_t> now =
      base == TIME_UTC ? virtualClock(CLOCK_REALTIME) : std::optional<int64_t>();
  if (!now) {
    return real(out, base);
  }
  return toSpec(*now, out) ? base : 0;
}

/// libc's own, past a thread sanitizer, which takes the mutex of a waiting call for free already.
constinit Next<int(pthread_mutex_t*)> nextLock("pthread_mutex_lock");
constinit Next<int(pthread_mutex_t*)> nextUnlock("pthread_mutex_unlock");

/// Moves the clock to a missed deadline. The caller holds a mutex of the program's when `mutex` is
/// given: waiting for the board's lock with it held could deadlock with an observer that takes it,
/// so it is let go when the board is busy. Returns the error of taking it back.
int missDeadline(ClockFamily family, int64_t deadline, pthread_mutex_t* mutex) {
  const Time moment(deadline - offsetOf(family));
  if (const RunningScope scope(std::try_to_lock); scope) {
    moveTo(*scope.board(), moment);
    return 0;
  }
  if (mutex != nullptr) {
    nextUnlock(mutex);
  }
  if (const RunningScope scope; scope) {
    moveTo(*scope.board(), moment);
  }
  return mutex != nullptr ? nextLock(mutex) : 0;
}

/// A timed wait on virtual time. `real` waits until a moment of the machine's clock and returns an
/// error number.
template <typename Spec, typename Real>
int waitVirtually(clockid_t clock, const Spec* deadline, pthread_mutex_t* mutex, Real real) {
  const std::optional<ClockFamily> family = familyOf(clock);
  if (!family || !isValid(deadline) || !virtualTimeActive()) {
    return real(deadline);
  }
  Spec grace{};
  toSpec(realClock(clock) + kGrace, &grace);
  const int error = real(&grace);
  if (error != ETIMEDOUT) {
    return error;
  }
  const int relocked = missDeadline(*family, nanosecondsOf(*deadline), mutex);
  return relocked != 0 ? relocked : ETIMEDOUT;
}

/// The same for calls that return -1 and set errno.
template <typename Spec, typename Real>
int waitVirtuallyErrno(clockid_t clock, const Spec* deadline, Real real) {
  const int error = waitVirtually(clock, deadline, nullptr,
                                  [&](const Spec* until) { return real(until) == 0 ? 0 : errno; });
  if (error == 0) {
    return 0;
  }
  errno = error;
  return -1;
}

/// The same for the calls of <threads.h>, which have results of their own.
template <typename Spec, typename Real>
int waitVirtuallyThreads(const Spec* deadline, pthread_mutex_t* mutex, Real real) {
  int result = thrd_error;
  const int error = waitVirtually(CLOCK_REALTIME, deadline, mutex, [&](const Spec* until) {
    result = real(until);
    return result == thrd_timedout ? ETIMEDOUT : 0;
  });
  return error == 0 || error == ETIMEDOUT ? result : thrd_error;
}

/// The clock a condition variable was made for: glibc keeps it in a bit of its own.
clockid_t clockOf(const pthread_cond_t* condition) {
  constexpr unsigned kMonotonicBit = 2;
  const unsigned bits = __atomic_load_n(&condition->__data.__wrefs, __ATOMIC_RELAXED);
  return (bits & kMonotonicBit) != 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

}  // namespace

constinit std::atomic<int64_t> publishedTime{0};

void startVirtualClocks(Board& board) {
  constexpr std::array<clockid_t, kClockFamilies> kClocks = {
      CLOCK_REALTIME, CLOCK_TAI, CLOCK_MONOTONIC, CLOCK_MONOTONIC_RAW, CLOCK_BOOTTIME};
  const std::lock_guard lock(board.mutex());
  const int64_t now = board.clock().now().count();
  publishedTime.store(now, std::memory_order_relaxed);
  for (size_t family = 0; family < kClocks.size(); ++family) {
    clockOffsets[family].store(realClock(kClocks[family]) - now, std::memory_order_relaxed);
  }
}

}  // namespace vboard::kernel

using namespace vboard::kernel;  // NOLINT: the names below are libc's, outside of any namespace

/// The calls that come twice on 32-bit machines, for each width of time.
#define VBOARD_TIME_CALLS(Spec, Value, Seconds, nanosleepName, clockNanosleepName,            \
                          clockGettimeName, gettimeofdayName, timeName, timespecGetName,      \
                          thrdSleepName)                                                      \
  VBOARD_INTERPOSED int nanosleepName(const Spec* duration, Spec* remaining) {                \
    static constinit Next<int(const Spec*, Spec*)> next(#nanosleepName);                      \
    return sleepFor(duration, remaining, next.get());                                         \
  }                                                                                           \
  VBOARD_INTERPOSED int clockNanosleepName(clockid_t clock, int flags, const Spec* duration,  \
                                           Spec* remaining) {                                 \
    static constinit Next<int(clockid_t, int, const Spec*, Spec*)> next(#clockNanosleepName); \
    return clockSleep(clock, flags, duration, remaining, next.get());                         \
  }                                                                                           \
  VBOARD_INTERPOSED int thrdSleepName(const Spec* duration, Spec* remaining) {                \
    static constinit Next<int(const Spec*, Spec*)> next(#thrdSleepName);                      \
    return sleepFor(duration, remaining, next.get());                                         \
  }                                                                                           \
  VBOARD_INTERPOSED int clockGettimeName(clockid_t clock, Spec* out) noexcept {               \
    static constinit Next<int(clockid_t, Spec*)> next(#clockGettimeName);                     \
    if (!virtualTimeActive() || isSanitizersOwnCall(__builtin_return_address(0))) {           \
      return next(clock, out);                                                                \
    }                                                                                         \
    return readClock(clock, out, next.get());                                                 \
  }                                                                                           \
  VBOARD_INTERPOSED int gettimeofdayName(Value* out, void* zone) noexcept {                   \
    static constinit Next<int(Value*, void*)> next(#gettimeofdayName);                        \
    return readTimeOfDay(out, zone, next.get());                                              \
  }                                                                                           \
  VBOARD_INTERPOSED Seconds timeName(Seconds* out) noexcept {                                 \
    static constinit Next<Seconds(Seconds*)> next(#timeName);                                 \
    return readSeconds(out, next.get());                                                      \
  }                                                                                           \
  VBOARD_INTERPOSED int timespecGetName(Spec* out, int base) noexcept {                       \
    static constinit Next<int(Spec*, int)> next(#timespecGetName);                            \
    return readTimespec(out, base, next.get());                                               \
  }

#define VBOARD_CONDITION_CALLS(Spec, timedwaitName, clockwaitName)                                 \
  VBOARD_INTERPOSED int timedwaitName(pthread_cond_t* condition, pthread_mutex_t* mutex,           \
                                      const Spec* deadline) {                                      \
    static constinit Next<int(pthread_cond_t*, pthread_mutex_t*, const Spec*)> next(               \
        #timedwaitName);                                                                           \
    return waitVirtually(clockOf(condition), deadline, mutex,                                      \
                         [&](const Spec* until) { return next(condition, mutex, until); });        \
  }                                                                                                \
  VBOARD_INTERPOSED int clockwaitName(pthread_cond_t* condition, pthread_mutex_t* mutex,           \
                                      clockid_t clock, const Spec* deadline) {                     \
    static constinit Next<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const Spec*)> next(    \
        #clockwaitName);                                                                           \
    return waitVirtually(clock, deadline, mutex,                                                   \
                         [&](const Spec* until) { return next(condition, mutex, clock, until); }); \
  }

/// Timed waits for mutexes and read-write locks: a deadline of CLOCK_REALTIME, or of any clock.
#define VBOARD_LOCK_CALLS(Lock, Spec, timedName, clockName)                                     \
  VBOARD_INTERPOSED int timedName(Lock* lock, const Spec* deadline) noexcept {                  \
    static constinit Next<int(Lock*, const Spec*)> next(#timedName);                            \
    return waitVirtually(CLOCK_REALTIME, deadline, nullptr,                                     \
                         [&](const Spec* until) { return next(lock, until); });                 \
  }                                                                                             \
  VBOARD_INTERPOSED int clockName(Lock* lock, clockid_t clock, const Spec* deadline) noexcept { \
    static constinit Next<int(Lock*, clockid_t, const Spec*)> next(#clockName);                 \
    return waitVirtually(clock, deadline, nullptr,                                              \
                         [&](const Spec* until) { return next(lock, clock, until); });          \
  }

#define VBOARD_SEMAPHORE_CALLS(Spec, timedName, clockName)                                       \
  VBOARD_INTERPOSED int timedName(sem_t* semaphore, const Spec* deadline) {                      \
    static constinit Next<int(sem_t*, const Spec*)> next(#timedName);                            \
    return waitVirtuallyErrno(CLOCK_REALTIME, deadline,                                          \
                              [&](const Spec* until) { return next(semaphore, until); });        \
  }                                                                                              \
  VBOARD_INTERPOSED int clockName(sem_t* semaphore, clockid_t clock, const Spec* deadline) {     \
    static constinit Next<int(sem_t*, clockid_t, const Spec*)> next(#clockName);                 \
    return waitVirtuallyErrno(clock, deadline,                                                   \
                              [&](const Spec* until) { return next(semaphore, clock, until); }); \
  }

// glibc's cnd_t and mtx_t are its condition variables and mutexes under other names.
#define VBOARD_THREADS_CALLS(Spec, conditionName, mutexName)                                       \
  VBOARD_INTERPOSED int conditionName(cnd_t* condition, mtx_t* mutex, const Spec* deadline) {      \
    static constinit Next<int(cnd_t*, mtx_t*, const Spec*)> next(#conditionName);                  \
    return waitVirtuallyThreads(deadline, reinterpret_cast<pthread_mutex_t*>(mutex),               \
                                [&](const Spec* until) { return next(condition, mutex, until); }); \
  }                                                                                                \
  VBOARD_INTERPOSED int mutexName(mtx_t* mutex, const Spec* deadline) {                            \
    static constinit Next<int(mtx_t*, const Spec*)> next(#mutexName);                              \
    return waitVirtuallyThreads(deadline, nullptr,                                                 \
                                [&](const Spec* until) { return next(mutex, until); });            \
  }

VBOARD_TIME_CALLS(timespec, timeval, time_t, nanosleep, clock_nanosleep, clock_gettime,
                  gettimeofday, time, timespec_get, thrd_sleep)
VBOARD_CONDITION_CALLS(timespec, pthread_cond_timedwait, pthread_cond_clockwait)
VBOARD_LOCK_CALLS(pthread_mutex_t, timespec, pthread_mutex_timedlock, pthread_mutex_clocklock)
VBOARD_LOCK_CALLS(pthread_rwlock_t, timespec, pthread_rwlock_timedrdlock,
                  pthread_rwlock_clockrdlock)
VBOARD_LOCK_CALLS(pthread_rwlock_t, timespec, pthread_rwlock_timedwrlock,
                  pthread_rwlock_clockwrlock)
VBOARD_SEMAPHORE_CALLS(timespec, sem_timedwait, sem_clockwait)
VBOARD_THREADS_CALLS(timespec, cnd_timedwait, mtx_timedlock)

#if defined(__arm__)
VBOARD_TIME_CALLS(Timespec64, Timeval64, int64_t, __nanosleep64, __clock_nanosleep_time64,
                  __clock_gettime64, __gettimeofday64, __time64, __timespec_get64, __thrd_sleep64)
VBOARD_CONDITION_CALLS(Timespec64, __pthread_cond_timedwait64, __pthread_cond_clockwait64)
VBOARD_LOCK_CALLS(pthread_mutex_t, Timespec64, __pthread_mutex_timedlock64,
                  __pthread_mutex_clocklock64)
VBOARD_LOCK_CALLS(pthread_rwlock_t, Timespec64, __pthread_rwlock_timedrdlock64,
                  __pthread_rwlock_clockrdlock64)
VBOARD_LOCK_CALLS(pthread_rwlock_t, Timespec64, __pthread_rwlock_timedwrlock64,
                  __pthread_rwlock_clockwrlock64)
VBOARD_SEMAPHORE_CALLS(Timespec64, __sem_timedwait64, __sem_clockwait64)
VBOARD_THREADS_CALLS(Timespec64, __cnd_timedwait64, __mtx_timedlock64)
#endif

VBOARD_INTERPOSED int usleep(useconds_t duration) {
  static constinit Next<int(useconds_t)> next("usleep");
  return sleepVirtually(int64_t{duration} * 1000) ? 0 : next(duration);
}

VBOARD_INTERPOSED unsigned sleep(unsigned duration) {
  static constinit Next<unsigned(unsigned)> next("sleep");
  return sleepVirtually(int64_t{duration} * kSecond) ? 0 : next(duration);
}
