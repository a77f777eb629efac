// SPDX-License-Identifier: MIT
#include "vboard/kernel/SanitizerCalls.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstring>

// Not even the instrumentation may run: a thread sanitizer asks when it has taken a thread's state
// apart already.
#if defined(__clang__)
#define VBOARD_UNINSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define VBOARD_UNINSTRUMENTED __attribute__((no_sanitize("address", "thread", "undefined")))
#endif

namespace vboard::kernel {
namespace {

enum Presence : int { Unknown, Absent, Present };

/// Return addresses by who asked. A program has two or three of them, each looked up once: dladdr
/// takes its time and a lock.
struct Callers {
  static constexpr int kMost = 8;
  const void* addresses[kMost];
};

int sanitizer = Unknown;
const void* sanitizerModule = nullptr;
Callers ownCallers{};
Callers program{};

VBOARD_UNINSTRUMENTED bool contains(const Callers& callers, const void* address) {
  for (int index = 0; index < Callers::kMost; ++index) {
    if (__atomic_load_n(&callers.addresses[index], __ATOMIC_RELAXED) == address) {
      return true;
    }
  }
  return false;
}

VBOARD_UNINSTRUMENTED void remember(Callers& callers, const void* address) {
  for (int index = 0; index < Callers::kMost; ++index) {
    const void* expected = nullptr;
    if (__atomic_compare_exchange_n(&callers.addresses[index], &expected, address, false,
                                    __ATOMIC_RELAXED, __ATOMIC_RELAXED) ||
        expected == address) {
      return;
    }
  }
}

/// Every runtime exports this function; a statically linked one stands in the executable.
VBOARD_UNINSTRUMENTED int findSanitizer() {
  void* const runtime = dlsym(RTLD_DEFAULT, "__sanitizer_set_report_path");
  Dl_info info{};
  const bool found = runtime != nullptr && dladdr(runtime, &info) != 0;
  if (found) {
    __atomic_store_n(&sanitizerModule, info.dli_fbase, __ATOMIC_RELAXED);
  }
  __atomic_store_n(&sanitizer, found ? Present : Absent, __ATOMIC_RELEASE);
  return found ? Present : Absent;
}

/// The program's calls come through the runtime's interceptor, which has libc's name, or straight
/// from another module.
VBOARD_UNINSTRUMENTED bool isOwn(const void* caller) {
  Dl_info info{};
  if (dladdr(caller, &info) == 0 ||
      info.dli_fbase != __atomic_load_n(&sanitizerModule, __ATOMIC_RELAXED)) {
    return false;
  }
  return info.dli_sname == nullptr || std::strstr(info.dli_sname, "clock_gettime") == nullptr ||
         std::strstr(info.dli_sname, "real_") != nullptr;
}

}  // namespace

VBOARD_UNINSTRUMENTED bool isSanitizersOwnCall(const void* caller) {
  int presence = __atomic_load_n(&sanitizer, __ATOMIC_ACQUIRE);
  if (presence == Unknown) {
    presence = findSanitizer();
  }
  if (presence == Absent || contains(program, caller)) {
    return false;
  }
  if (contains(ownCallers, caller)) {
    return true;
  }
  const bool answer = isOwn(caller);
  remember(answer ? ownCallers : program, caller);
  return answer;
}

}  // namespace vboard::kernel
