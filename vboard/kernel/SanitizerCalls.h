// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_SANITIZERCALLS_H
#define VBOARD_KERNEL_SANITIZERCALLS_H

#if defined(__SANITIZE_THREAD__)
#define VBOARD_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VBOARD_THREAD_SANITIZER 1
#endif
#endif

#if defined(VBOARD_THREAD_SANITIZER)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace vboard::kernel {

// Inside a sleep or another blocking call the thread sanitizer turns a blind eye to mutexes, but
// not to memory. Said around locking and unlocking, these tell it what it then overlooks.

template <typename Mutex>
void tellLocked([[maybe_unused]] Mutex& mutex) {
#if defined(VBOARD_THREAD_SANITIZER)
  __tsan_acquire(&mutex);
#endif
}

template <typename Mutex>
void tellUnlocking([[maybe_unused]] Mutex& mutex) {
#if defined(VBOARD_THREAD_SANITIZER)
  __tsan_release(&mutex);
#endif
}

/// Whether a return address of the interposed clock_gettime lies in a sanitizer's runtime that asks
/// for itself, and not on behalf of the program it intercepts. Allocators of sanitizers look at the
/// clock with their locks held: nothing of ours may run there that takes a lock or allocates.
/// One load in programs without a sanitizer.
bool isSanitizersOwnCall(const void* caller);

}  // namespace vboard::kernel

#endif
