// SPDX-License-Identifier: MIT
//
// The kernel answers EFAULT for addresses that the process can't read or write; a plain memcpy
// would crash instead. Addresses in the caller's stack, the heap and the program's own variables
// are known to be good and cost nothing. For all others the kernel copies, and so tells.
#include "vboard/kernel/UserMemory.h"

#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace vboard::kernel {
namespace {

struct Range {
  uintptr_t begin = 0;
  uintptr_t end = 0;

  bool holds(uintptr_t address, size_t size) const {
    return address >= begin && address < end && size <= end - address;
  }
};

/// Where the heap began when this library was loaded, and the program's writable variables.
struct ProcessRanges {
  uintptr_t heapBegin = 0;
  Range variables;

  ProcessRanges() {
    heapBegin = reinterpret_cast<uintptr_t>(sbrk(0));
    dl_iterate_phdr(&ProcessRanges::readProgram, this);
  }

  /// The first object is the program itself.
  static int readProgram(dl_phdr_info* info, size_t /*size*/, void* self) {
    Range writable;
    Range readOnlyAfterRelocation;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
      const auto& header = info->dlpi_phdr[i];
      const uintptr_t begin = info->dlpi_addr + header.p_vaddr;
      if (header.p_type == PT_LOAD && (header.p_flags & PF_W) != 0) {
        writable = {begin, begin + header.p_memsz};
      } else if (header.p_type == PT_GNU_RELRO) {
        readOnlyAfterRelocation = {begin, begin + header.p_memsz};
      }
    }
    if (writable.holds(readOnlyAfterRelocation.begin, 0)) {
      // The loader protects whole pages: what shares the last one stays out as well.
      const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
      writable.begin = (readOnlyAfterRelocation.end + page - 1) / page * page;
    }
    if (writable.begin < writable.end) {
      static_cast<ProcessRanges*>(self)->variables = writable;
    }
    return 1;
  }
};

const ProcessRanges& processRanges() {
  static const ProcessRanges ranges;
  return ranges;
}

/// Learned early, while the heap is still short.
__attribute__((constructor)) void learnProcessRanges() {
  processRanges();
}

Range ownStack() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
    return {1, 1};
  }
  void* lowest = nullptr;
  size_t size = 0;
  pthread_attr_getstack(&attributes, &lowest, &size);
  pthread_attr_destroy(&attributes);
  const auto begin = reinterpret_cast<uintptr_t>(lowest);
  return {begin, begin + size};
}

/// Everything above the stack pointer, when that is in the thread's own stack: not on a signal
/// stack or a coroutine's.
bool inOwnStack(uintptr_t address, size_t size) {
  static thread_local Range stack __attribute__((tls_model("initial-exec")));
  if (stack.begin == 0) {
    stack = ownStack();
  }
  const auto pointer = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  return stack.holds(pointer, 0) && address >= pointer && stack.holds(address, size);
}

bool inHeap(uintptr_t address, size_t size) {
  const Range heap{processRanges().heapBegin, reinterpret_cast<uintptr_t>(sbrk(0))};
  return heap.holds(address, size);
}

bool knownGood(const void* pointer, size_t size) {
  const auto address = reinterpret_cast<uintptr_t>(pointer);
  return inOwnStack(address, size) || inHeap(address, size) ||
         processRanges().variables.holds(address, size);
}

enum class Direction : uint8_t { FromUser, ToUser };

/// Set once the direct way turned out to be missing: under emulation, or forbidden.
std::atomic<bool> noDirectCopy{false};

/// One call that copies inside this process; nothing when the kernel has no such call.
bool copyDirectly(Direction direction, void* user, void* own, size_t size, size_t& copied) {
  if (noDirectCopy.load(std::memory_order_relaxed)) {
    return false;
  }
  const iovec ownPart{own, size};
  const iovec userPart{user, size};
  const long number =
      direction == Direction::FromUser ? SYS_process_vm_readv : SYS_process_vm_writev;
  const long result = syscall(number, syscall(SYS_getpid), &ownPart, 1UL, &userPart, 1UL, 0UL);
  if (result < 0 && errno != EFAULT) {
    noDirectCopy.store(true, std::memory_order_relaxed);
    return false;
  }
  copied = result < 0 ? 0 : static_cast<size_t>(result);
  return true;
}

long transferFile(long number, long file, void* memory, size_t size) {
#if defined(__LP64__)
  return syscall(number, file, memory, size, 0L);
#elif defined(__arm__)
  // 64-bit offsets take an aligned pair of registers.
  return syscall(number, file, memory, size, 0L, 0L, 0L);
#else
  return syscall(number, file, memory, size, 0L, 0L);
#endif
}

/// Through a file in memory: reading and writing it touches the user's memory from the kernel.
size_t copyThroughFile(Direction direction, void* user, void* own, size_t size) {
  const long file = syscall(SYS_memfd_create, "vboard-copy", 1U /* MFD_CLOEXEC */);
  if (file < 0) {
    // No descriptor left to ask with: trust the caller.
    std::memcpy(direction == Direction::FromUser ? own : user,
                direction == Direction::FromUser ? user : own, size);
    return size;
  }
  void* source = direction == Direction::FromUser ? user : own;
  void* destination = direction == Direction::FromUser ? own : user;
  const long written = transferFile(SYS_pwrite64, file, source, size);
  const long copied =
      written > 0 ? transferFile(SYS_pread64, file, destination, static_cast<size_t>(written)) : 0;
  syscall(SYS_close, file);
  return static_cast<size_t>(std::max(copied, 0L));
}

size_t copyCarefully(Direction direction, void* user, void* own, size_t size) {
  const int savedErrno = errno;
  size_t copied = 0;
  if (!copyDirectly(direction, user, own, size, copied)) {
    copied = copyThroughFile(direction, user, own, size);
  }
  errno = savedErrno;
  return copied;
}

}  // namespace

bool copyFromUser(void* destination, const void* source, size_t size) {
  if (size == 0) {
    return true;
  }
  if (knownGood(source, size)) {
    std::memcpy(destination, source, size);
    return true;
  }
  return copyCarefully(Direction::FromUser, const_cast<void*>(source), destination, size) == size;
}

size_t copyToUserPartly(void* destination, const void* source, size_t size) {
  if (size == 0) {
    return 0;
  }
  if (!knownGood(destination, size)) {
    const size_t copied =
        copyCarefully(Direction::ToUser, destination, const_cast<void*>(source), size);
    if (copied < size) {
      return copied;
    }
  }
  // Also after a careful copy: memory checkers don't see what a call into one's own memory did.
  std::memcpy(destination, source, size);
  return size;
}

bool copyToUser(void* destination, const void* source, size_t size) {
  return copyToUserPartly(destination, source, size) == size;
}

}  // namespace vboard::kernel
