// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_INTERPOSE_H
#define VBOARD_KERNEL_INTERPOSE_H

// Include this before anything else: these switches rename or inline the very functions that the
// interposers define.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#include <features.h>

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

/// Interposed functions keep libc's names.
#define VBOARD_INTERPOSED extern "C" __attribute__((visibility("default")))

namespace vboard::kernel {

/// The function of a name that an interposed one stands in front of, looked up on first use:
/// programs call libc long before the constructors of this library run.
template <typename Function>
class Next {
 public:
  constexpr explicit Next(const char* name) : name_(name) {}

  Function* get() {
    void* function = function_.load(std::memory_order_relaxed);
    if (function == nullptr) {
      function = dlsym(RTLD_NEXT, name_);
      function_.store(function, std::memory_order_relaxed);
    }
    return reinterpret_cast<Function*>(function);
  }
  /// Whether this C library has it: older ones lack the newer names.
  bool exists() { return get() != nullptr; }

  template <typename... Arguments>
  auto operator()(Arguments... arguments) {
    return get()(arguments...);
  }

 private:
  const char* name_;
  std::atomic<void*> function_{nullptr};
};

/// Leaves errno as it was: looking at emulated names must not disturb a call that goes to libc.
class ErrnoGuard {
 public:
  ErrnoGuard() : saved_(errno) {}
  ~ErrnoGuard() { errno = saved_; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

 private:
  int saved_;
};

}  // namespace vboard::kernel

/// `next_NAME`, the function behind an interposed one. Looked up early: a signal handler or a child
/// of vfork may be the first to call it, where looking up isn't safe.
#define VBOARD_NEXT(type, name)                            \
  namespace {                                              \
  constinit vboard::kernel::Next<type> next_##name(#name); \
  __attribute__((constructor)) void find_##name() {        \
    next_##name.get();                                     \
  }                                                        \
  }

#endif
