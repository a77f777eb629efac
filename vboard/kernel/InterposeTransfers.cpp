// SPDX-License-Identifier: MIT
// Calls that work on a descriptor: ioctl, reading, writing, seeking.
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include "vboard/kernel/Descriptors.h"
#include "vboard/kernel/EmulatedCalls.h"
#include "vboard/kernel/Probe.h"

namespace vboard::kernel {
namespace {

/// The answer of an emulated call in libc's terms, or what `real` answers for others.
template <typename Real>
auto answer(Result result, Real real) -> decltype(real()) {
  if (result == kNotEmulated) {
    return real();
  }
  if (result < 0) {
    errno = static_cast<int>(-result);
    return -1;
  }
  return static_cast<decltype(real())>(result);
}

template <typename Real>
int control(int descriptor, unsigned long request, void* argument, Real real) {
  if (descriptors.contains(descriptor)) {
    return answer(emulatedIoctl(descriptor, request, argument), real);
  }
  if (descriptor == kProbeDescriptor && request == kProbeRequest) [[unlikely]] {
    *static_cast<bool*>(argument) = true;
    return 0;
  }
  return real();
}

/// Devices are streams: there is no position to go to, to read from or to write to.
Result seekRefusal(int descriptor) {
  return descriptors.contains(descriptor) ? -ESPIPE : kNotEmulated;
}

/// pread and its kin, which look at the offset first.
template <typename Offset>
Result positionedRefusal(int descriptor, Offset offset) {
  if (!descriptors.contains(descriptor)) {
    return kNotEmulated;
  }
  return offset < 0 ? -EINVAL : -ESPIPE;
}

}  // namespace
}  // namespace vboard::kernel

using vboard::kernel::answer;
using vboard::kernel::control;
using vboard::kernel::descriptors;
using vboard::kernel::emulatedRead;
using vboard::kernel::emulatedWrite;
using vboard::kernel::kNotEmulated;
using vboard::kernel::positionedRefusal;
using vboard::kernel::Result;
using vboard::kernel::seekRefusal;

#define VBOARD_IOCTL(name)                                                            \
  VBOARD_NEXT(int(int, unsigned long, ...), name)                                     \
  VBOARD_INTERPOSED int name(int descriptor, unsigned long request, ...) noexcept {   \
    va_list arguments;                                                                \
    va_start(arguments, request);                                                     \
    void* const argument = va_arg(arguments, void*);                                  \
    va_end(arguments);                                                                \
    return control(descriptor, request, argument,                                     \
                   [&] { return next_##name.get()(descriptor, request, argument); }); \
  }

#define VBOARD_READ(name)                                                                         \
  VBOARD_NEXT(ssize_t(int, void*, size_t), name)                                                  \
  VBOARD_INTERPOSED ssize_t name(int descriptor, void* buffer, size_t size) {                     \
    return answer(                                                                                \
        descriptors.contains(descriptor) ? emulatedRead(descriptor, buffer, size) : kNotEmulated, \
        [&] { return next_##name.get()(descriptor, buffer, size); });                             \
  }

#define VBOARD_WRITE(name)                                                                         \
  VBOARD_NEXT(ssize_t(int, const void*, size_t), name)                                             \
  VBOARD_INTERPOSED ssize_t name(int descriptor, const void* buffer, size_t size) {                \
    return answer(                                                                                 \
        descriptors.contains(descriptor) ? emulatedWrite(descriptor, buffer, size) : kNotEmulated, \
        [&] { return next_##name.get()(descriptor, buffer, size); });                              \
  }

#define VBOARD_VECTOR(name, emulated)                                                           \
  VBOARD_NEXT(ssize_t(int, const iovec*, int), name)                                            \
  VBOARD_INTERPOSED ssize_t name(int descriptor, const iovec* buffers, int count) {             \
    return answer(                                                                              \
        descriptors.contains(descriptor) ? emulated(descriptor, buffers, count) : kNotEmulated, \
        [&] { return next_##name.get()(descriptor, buffers, count); });                         \
  }

#define VBOARD_SEEK(name, Offset)                                                     \
  VBOARD_NEXT(Offset(int, Offset, int), name)                                         \
  VBOARD_INTERPOSED Offset name(int descriptor, Offset offset, int whence) noexcept { \
    return answer(seekRefusal(descriptor),                                            \
                  [&] { return next_##name.get()(descriptor, offset, whence); });     \
  }

#define VBOARD_PREAD(name, Offset)                                                           \
  VBOARD_NEXT(ssize_t(int, void*, size_t, Offset), name)                                     \
  VBOARD_INTERPOSED ssize_t name(int descriptor, void* buffer, size_t size, Offset offset) { \
    return answer(positionedRefusal(descriptor, offset),                                     \
                  [&] { return next_##name.get()(descriptor, buffer, size, offset); });      \
  }

#define VBOARD_PREAD_CHECKED(name, Offset)                                                     \
  VBOARD_NEXT(ssize_t(int, void*, size_t, Offset, size_t), name)                               \
  VBOARD_INTERPOSED ssize_t name(int descriptor, void* buffer, size_t size, Offset offset,     \
                                 size_t space) {                                               \
    return answer(positionedRefusal(descriptor, offset),                                       \
                  [&] { return next_##name.get()(descriptor, buffer, size, offset, space); }); \
  }

#define VBOARD_PWRITE(name, Offset)                                                                \
  VBOARD_NEXT(ssize_t(int, const void*, size_t, Offset), name)                                     \
  VBOARD_INTERPOSED ssize_t name(int descriptor, const void* buffer, size_t size, Offset offset) { \
    return answer(positionedRefusal(descriptor, offset),                                           \
                  [&] { return next_##name.get()(descriptor, buffer, size, offset); });            \
  }

#define VBOARD_POSITIONED_VECTOR(name, Offset)                                                     \
  VBOARD_NEXT(ssize_t(int, const iovec*, int, Offset), name)                                       \
  VBOARD_INTERPOSED ssize_t name(int descriptor, const iovec* buffers, int count, Offset offset) { \
    return answer(positionedRefusal(descriptor, offset),                                           \
                  [&] { return next_##name.get()(descriptor, buffers, count, offset); });          \
  }

// An offset of -1 means the file's own position: plain readv and writev.
#define VBOARD_POSITIONED_VECTOR_2(name, Offset, emulated)                                       \
  VBOARD_NEXT(ssize_t(int, const iovec*, int, Offset, int), name)                                \
  VBOARD_INTERPOSED ssize_t name(int descriptor, const iovec* buffers, int count, Offset offset, \
                                 int flags) {                                                    \
    const Result result = offset == -1 && descriptors.contains(descriptor)                       \
                              ? emulated(descriptor, buffers, count)                             \
                              : positionedRefusal(descriptor, offset);                           \
    return answer(result,                                                                        \
                  [&] { return next_##name.get()(descriptor, buffers, count, offset, flags); }); \
  }

VBOARD_IOCTL(ioctl)
#ifndef __LP64__
VBOARD_IOCTL(__ioctl_time64)
#endif

VBOARD_READ(read)
VBOARD_READ(__read)
VBOARD_WRITE(write)
VBOARD_WRITE(__write)
VBOARD_VECTOR(readv, emulatedRead)
VBOARD_VECTOR(writev, emulatedWrite)

VBOARD_SEEK(lseek, off_t)
VBOARD_SEEK(__lseek, off_t)
VBOARD_SEEK(lseek64, off64_t)

VBOARD_PREAD(pread, off_t)
VBOARD_PREAD(pread64, off64_t)
VBOARD_PREAD(__pread64, off64_t)
VBOARD_PREAD_CHECKED(__pread_chk, off_t)
VBOARD_PREAD_CHECKED(__pread64_chk, off64_t)
VBOARD_PWRITE(pwrite, off_t)
VBOARD_PWRITE(pwrite64, off64_t)
VBOARD_PWRITE(__pwrite64, off64_t)
VBOARD_POSITIONED_VECTOR(preadv, off_t)
VBOARD_POSITIONED_VECTOR(preadv64, off64_t)
VBOARD_POSITIONED_VECTOR(pwritev, off_t)
VBOARD_POSITIONED_VECTOR(pwritev64, off64_t)
VBOARD_POSITIONED_VECTOR_2(preadv2, off_t, emulatedRead)
VBOARD_POSITIONED_VECTOR_2(preadv64v2, off64_t, emulatedRead)
VBOARD_POSITIONED_VECTOR_2(pwritev2, off_t, emulatedWrite)
VBOARD_POSITIONED_VECTOR_2(pwritev64v2, off64_t, emulatedWrite)

VBOARD_NEXT(ssize_t(int, void*, size_t, size_t), __read_chk)

VBOARD_INTERPOSED ssize_t __read_chk(int descriptor, void* buffer, size_t size, size_t space) {
  // Too small a buffer ends the program, whoever the descriptor belongs to: libc's business.
  const bool emulated = descriptors.contains(descriptor) && size <= space;
  return answer(emulated ? emulatedRead(descriptor, buffer, size) : kNotEmulated,
                [&] { return next___read_chk.get()(descriptor, buffer, size, space); });
}
