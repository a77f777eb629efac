// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_EMULATEDCALLS_H
#define VBOARD_KERNEL_EMULATEDCALLS_H

#include <sys/uio.h>

#include <climits>

#include "vboard/kernel/Node.h"

namespace vboard::kernel {

/// The answer of an emulated call that libc has to make after all: the kernel ended since the
/// caller looked, or this part of the call is libc's.
constexpr Result kNotEmulated = LONG_MIN;

// Each takes the board's lock, leaves errno alone and returns the kernel's answer. When another
// thread closed the descriptor since the caller found it to be ours, that is EBADF, and a second
// close is libc's.

/// Names of ours; kNotEmulated for all others, which cost nothing but one load while no kernel
/// runs.
Result emulatedOpen(int directory, const char* path, int flags);
Result emulatedClose(int descriptor);
/// The same without closing the real descriptor, for fclose.
Result emulatedForget(int descriptor);
Result emulatedIoctl(int descriptor, unsigned long request, void* argument);
/// `buffers` itself is the caller's memory.
Result emulatedRead(int descriptor, const iovec* buffers, int count);
Result emulatedWrite(int descriptor, const iovec* buffers, int count);
Result emulatedRead(int descriptor, void* buffer, size_t size);
Result emulatedWrite(int descriptor, const void* buffer, size_t size);

/// libc opened a real file under this number: whatever was known of the number is out of date,
/// as its owner closed it in a way that can't be seen.
void forgetStale(int descriptor);
/// Closing a range of descriptors at once.
void forgetRange(unsigned first, unsigned last);

}  // namespace vboard::kernel

#endif
