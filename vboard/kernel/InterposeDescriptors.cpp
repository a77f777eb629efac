// SPDX-License-Identifier: MIT
// Calls that make, copy and close descriptors.
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "vboard/kernel/Descriptors.h"
#include "vboard/kernel/EmulatedCalls.h"
#include "vboard/kernel/KernelState.h"

namespace vboard::kernel {
namespace {

int answer(Result result) {
  if (result < 0) {
    errno = static_cast<int>(-result);
    return -1;
  }
  return static_cast<int>(result);
}

/// Opening: ours, or what `real` makes of it.
template <typename Real>
int openPath(int directory, const char* path, int flags, Real real) {
  const Result result = emulatedOpen(directory, path, flags);
  if (result != kNotEmulated) {
    return answer(result);
  }
  const int descriptor = real();
  forgetStale(descriptor);
  return descriptor;
}

bool needsMode(int flags) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

/// Copying `original`, to the number `target` where it isn't -1. Table and kernel change in one
/// step, so that no other thread sees the one without the other.
template <typename Real>
int duplicate(int original, int target, Real real) {
  if (!descriptors.contains(original) && !descriptors.contains(target)) {
    const int descriptor = real();
    forgetStale(descriptor);
    return descriptor;
  }
  int descriptor = -1;
  int error = 0;
  {
    const CallScope scope;
    descriptor = real();
    error = errno;
    if (scope && descriptor >= 0 && !descriptors.frozen()) {
      if (descriptors.contains(original)) {
        descriptors.share(original, descriptor);
      } else {
        descriptors.release(descriptor);
      }
    }
  }
  if (descriptor < 0) {
    errno = error;
  }
  return descriptor;
}

int control(int descriptor, int command, void* argument, int (*real)(int, int, ...)) {
  if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) {
    return duplicate(descriptor, -1, [&] { return real(descriptor, command, argument); });
  }
  return real(descriptor, command, argument);
}

}  // namespace
}  // namespace vboard::kernel

using vboard::kernel::answer;
using vboard::kernel::control;
using vboard::kernel::descriptors;
using vboard::kernel::duplicate;
using vboard::kernel::emulatedClose;
using vboard::kernel::emulatedForget;
using vboard::kernel::forgetRange;
using vboard::kernel::kNotEmulated;
using vboard::kernel::needsMode;
using vboard::kernel::openPath;
using vboard::kernel::Result;

#define VBOARD_OPEN(name)                                                                         \
  VBOARD_NEXT(int(const char*, int, ...), name)                                                   \
  VBOARD_INTERPOSED int name(const char* path, int flags, ...) {                                  \
    mode_t mode = 0;                                                                              \
    if (needsMode(flags)) {                                                                       \
      va_list arguments;                                                                          \
      va_start(arguments, flags);                                                                 \
      mode = va_arg(arguments, mode_t);                                                           \
      va_end(arguments);                                                                          \
    }                                                                                             \
    return openPath(AT_FDCWD, path, flags, [&] { return next_##name.get()(path, flags, mode); }); \
  }

#define VBOARD_OPENAT(name)                                                           \
  VBOARD_NEXT(int(int, const char*, int, ...), name)                                  \
  VBOARD_INTERPOSED int name(int directory, const char* path, int flags, ...) {       \
    mode_t mode = 0;                                                                  \
    if (needsMode(flags)) {                                                           \
      va_list arguments;                                                              \
      va_start(arguments, flags);                                                     \
      mode = va_arg(arguments, mode_t);                                               \
      va_end(arguments);                                                              \
    }                                                                                 \
    return openPath(directory, path, flags,                                           \
                    [&] { return next_##name.get()(directory, path, flags, mode); }); \
  }

// What fortified programs call when the flags ask for no mode.
#define VBOARD_OPEN_2(name)                                                                 \
  VBOARD_NEXT(int(const char*, int), name)                                                  \
  VBOARD_INTERPOSED int name(const char* path, int flags) {                                 \
    return openPath(AT_FDCWD, path, flags, [&] { return next_##name.get()(path, flags); }); \
  }

#define VBOARD_OPENAT_2(name)                                                   \
  VBOARD_NEXT(int(int, const char*, int), name)                                 \
  VBOARD_INTERPOSED int name(int directory, const char* path, int flags) {      \
    return openPath(directory, path, flags,                                     \
                    [&] { return next_##name.get()(directory, path, flags); }); \
  }

#define VBOARD_CREAT(name)                                          \
  VBOARD_NEXT(int(const char*, mode_t), name)                       \
  VBOARD_INTERPOSED int name(const char* path, mode_t mode) {       \
    return openPath(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC,   \
                    [&] { return next_##name.get()(path, mode); }); \
  }

#define VBOARD_CLOSE(name)                                                           \
  VBOARD_NEXT(int(int), name)                                                        \
  VBOARD_INTERPOSED int name(int descriptor) {                                       \
    const Result result =                                                            \
        descriptors.contains(descriptor) ? emulatedClose(descriptor) : kNotEmulated; \
    return result != kNotEmulated ? answer(result) : next_##name.get()(descriptor);  \
  }

#define VBOARD_DUP2(name)                                                                    \
  VBOARD_NEXT(int(int, int), name)                                                           \
  VBOARD_INTERPOSED int name(int original, int target) noexcept {                            \
    return duplicate(original, target, [&] { return next_##name.get()(original, target); }); \
  }

#define VBOARD_FCNTL(name)                                            \
  VBOARD_NEXT(int(int, int, ...), name)                               \
  VBOARD_INTERPOSED int name(int descriptor, int command, ...) {      \
    va_list arguments;                                                \
    va_start(arguments, command);                                     \
    void* const argument = va_arg(arguments, void*);                  \
    va_end(arguments);                                                \
    return control(descriptor, command, argument, next_##name.get()); \
  }

VBOARD_OPEN(open)
VBOARD_OPEN(open64)
VBOARD_OPEN(__open)
VBOARD_OPEN(__open64)
VBOARD_OPENAT(openat)
VBOARD_OPENAT(openat64)
VBOARD_OPEN_2(__open_2)
VBOARD_OPEN_2(__open64_2)
VBOARD_OPENAT_2(__openat_2)
VBOARD_OPENAT_2(__openat64_2)
VBOARD_CREAT(creat)
VBOARD_CREAT(creat64)
VBOARD_CLOSE(close)
VBOARD_CLOSE(__close)
VBOARD_DUP2(dup2)
VBOARD_DUP2(__dup2)
VBOARD_FCNTL(fcntl)
VBOARD_FCNTL(fcntl64)
VBOARD_FCNTL(__fcntl)
#ifndef __LP64__
VBOARD_FCNTL(__fcntl_time64)
#endif

VBOARD_NEXT(int(int), dup)
VBOARD_NEXT(int(int, int, int), dup3)
VBOARD_NEXT(int(unsigned, unsigned, int), close_range)
VBOARD_NEXT(void(int), closefrom)
VBOARD_NEXT(int(FILE*), fclose)

VBOARD_INTERPOSED int dup(int original) noexcept {
  return duplicate(original, -1, [&] { return next_dup.get()(original); });
}

VBOARD_INTERPOSED int dup3(int original, int target, int flags) noexcept {
  return duplicate(original, target, [&] { return next_dup3.get()(original, target, flags); });
}

VBOARD_INTERPOSED int close_range(unsigned first, unsigned last, int flags) noexcept {
  if (first <= last && (static_cast<unsigned>(flags) & CLOSE_RANGE_CLOEXEC) == 0) {
    forgetRange(first, last);
  }
  return next_close_range.get()(first, last, flags);
}

VBOARD_INTERPOSED void closefrom(int first) noexcept {
  forgetRange(first < 0 ? 0U : static_cast<unsigned>(first), ~0U);
  next_closefrom.get()(first);
}

VBOARD_INTERPOSED int fclose(FILE* stream) {
  const int descriptor = fileno(stream);
  const Result result =
      descriptors.contains(descriptor) ? emulatedForget(descriptor) : kNotEmulated;
  const int closed = next_fclose.get()(stream);
  return result != kNotEmulated && result < 0 ? answer(result) : closed;
}
