// SPDX-License-Identifier: MIT
#include "vboard/kernel/Descriptors.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "vboard/kernel/Running.h"

namespace vboard::kernel {

constinit DescriptorTable descriptors;

void DescriptorTable::set(int descriptor, Description* description) {
  slots_[static_cast<size_t>(descriptor)].store(description, std::memory_order_release);
  end_ = std::max(end_, descriptor + 1);
}

void DescriptorTable::add(int descriptor, std::shared_ptr<OpenFile> file, int flags) {
  release(descriptor);
  set(descriptor, new Description{std::move(file), flags & O_ACCMODE, 1});
}

void DescriptorTable::share(int original, int descriptor) {
  Description* description = find(original);
  if (description == nullptr || original == descriptor) {
    return;
  }
  ++description->references;
  release(descriptor);
  if (descriptor < kMaxDescriptors) {
    set(descriptor, description);
  } else {
    drop(description);
  }
}

void DescriptorTable::release(int descriptor) {
  Description* description = find(descriptor);
  if (description == nullptr) {
    return;
  }
  set(descriptor, nullptr);
  drop(description);
}

Description* DescriptorTable::hold(int descriptor) {
  Description* description = find(descriptor);
  if (description != nullptr) {
    ++description->references;
  }
  return description;
}

void DescriptorTable::drop(Description* description) {
  if (--description->references == 0) {
    delete description;
  }
}

void DescriptorTable::releaseRange(unsigned first, unsigned last) {
  for (unsigned descriptor = first; descriptor <= last && descriptor < static_cast<unsigned>(end_);
       ++descriptor) {
    release(static_cast<int>(descriptor));
  }
}

void DescriptorTable::clear() {
  releaseRange(0, kMaxDescriptors - 1);
}

int DescriptorTable::count() const {
  const auto used = [](const std::atomic<Description*>& slot) {
    return slot.load(std::memory_order_relaxed) != nullptr;
  };
  return static_cast<int>(std::count_if(slots_.begin(), slots_.begin() + end_, used));
}

bool DescriptorTable::frozen() const {
  return syscall(SYS_getpid) != owner_;
}

void DescriptorTable::own() {
  owner_ = static_cast<pid_t>(syscall(SYS_getpid));
}

std::string nodePathOf(int descriptor) {
  if (!descriptors.contains(descriptor)) {
    return {};
  }
  const RunningScope scope;
  const Description* description = scope ? descriptors.find(descriptor) : nullptr;
  return description != nullptr ? description->file->nodePath() : std::string();
}

Result installOpenFile(std::shared_ptr<OpenFile> file, int flags, int backingDescriptor) {
  long descriptor = backingDescriptor;
  if (descriptor < 0) {
    descriptor =
        syscall(SYS_openat, AT_FDCWD, "/dev/null", flags & (O_ACCMODE | O_CLOEXEC | O_NONBLOCK), 0);
    if (descriptor < 0) {
      return -errno;
    }
  }
  if (descriptor >= kMaxDescriptors) {
    syscall(SYS_close, descriptor);
    return -EMFILE;
  }
  if (!descriptors.frozen()) {
    descriptors.add(static_cast<int>(descriptor), std::move(file), flags);
  }
  return descriptor;
}

}  // namespace vboard::kernel
