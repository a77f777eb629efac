// SPDX-License-Identifier: MIT
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include "vboard/kernel/EmulatedCalls.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <utility>
#include <vector>

#include "vboard/kernel/Descriptors.h"
#include "vboard/kernel/EmulatedFiles.h"
#include "vboard/kernel/KernelState.h"

namespace vboard::kernel {
namespace {

/// As many buffers as the kernel takes in one call.
constexpr int kMaxBuffers = 1024;

/// Keeps what a descriptor names while a call is inside it: what happens on the board may close it.
class HeldDescription {
 public:
  explicit HeldDescription(int descriptor) : description_(descriptors.hold(descriptor)) {}
  ~HeldDescription() {
    if (description_ != nullptr) {
      descriptors.drop(description_);
    }
  }
  HeldDescription(const HeldDescription&) = delete;
  HeldDescription& operator=(const HeldDescription&) = delete;

  explicit operator bool() const { return description_ != nullptr; }
  int accessMode() const { return description_->accessMode; }
  OpenFile& file() const { return *description_->file; }

 private:
  Description* description_;
};

/// What the kernel checks of a device's path before it asks the driver.
int refusalOf(const Node& node, int flags) {
  if ((flags & O_DIRECTORY) != 0) {
    return ENOTDIR;
  }
  if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
    return EEXIST;
  }
  return node.denied ? EACCES : 0;
}

Result openNode(Node& node, int flags) {
  if ((flags & O_PATH) != 0) {
    // Such a descriptor names the file and does nothing else: no driver hears of it.
    const long descriptor = syscall(SYS_openat, AT_FDCWD, "/dev/null", flags, 0);
    return descriptor < 0 ? -errno : descriptor;
  }
  int error = refusalOf(node, flags);
  if (error == 0) {
    error = faultFor(Call::Open, node.path());
  }
  if (error != 0) {
    return -error;
  }
  OpenResult opened = node.open(flags);
  return opened.error != 0
             ? -opened.error
             : installOpenFile(std::move(opened.file), flags, opened.backingDescriptor);
}

/// Requests that the kernel answers for every file, before the driver.
bool isForEveryFile(unsigned long request) {
  switch (static_cast<uint32_t>(request)) {
    case FIOCLEX:
    case FIONCLEX:
    case FIONBIO:
    case FIOASYNC: return true;
    default: return false;
  }
}

/// `close` and `fclose` up to the real descriptor.
template <typename CloseReal>
Result closeDescriptor(int descriptor, CloseReal closeReal) {
  const CallScope scope;
  if (!scope || !descriptors.contains(descriptor) || descriptors.frozen()) {
    return kNotEmulated;
  }
  const std::string path = descriptors.find(descriptor)->file->nodePath();
  // As on a real kernel the descriptor is gone also when closing reports an error.
  const Result result = -faultFor(Call::Close, path);
  descriptors.release(descriptor);
  closeReal();
  chargeCall("close", path, result);
  return result;
}

/// Reading or writing; `buffers` is ours.
Result transfer(int descriptor, bool writes, const iovec* buffers, int count) {
  const CallScope scope;
  if (!scope) {
    return kNotEmulated;
  }
  const HeldDescription held(descriptor);
  if (!held) {
    return -EBADF;
  }
  if (held.accessMode() == (writes ? O_RDONLY : O_WRONLY)) {
    return -EBADF;
  }
  for (int i = 0; i < count; ++i) {
    if (static_cast<ssize_t>(buffers[i].iov_len) < 0) {
      return -EINVAL;
    }
  }
  OpenFile& file = held.file();
  const int error = faultFor(writes ? Call::Write : Call::Read, file.nodePath());
  const bool backing = !writes && file.readsBackingDescriptor();
  Result result = -error;
  if (error == 0 && !backing) {
    result = writes ? file.write(buffers, count) : file.read(buffers, count);
  }
  chargeCall(writes ? "write" : "read", file.nodePath(), result);
  return error == 0 && backing ? kNotEmulated : result;
}

Result transferMany(int descriptor, bool writes, const iovec* buffers, int count) {
  if (count < 0 || count > kMaxBuffers) {
    return -EINVAL;
  }
  std::vector<iovec> copies(static_cast<size_t>(count));
  {
    const ErrnoGuard guard;
    if (!copyFromUser(copies.data(), buffers, copies.size() * sizeof(iovec))) {
      return -EFAULT;
    }
  }
  return count == 0 ? 0 : transfer(descriptor, writes, copies.data(), count);
}

}  // namespace

Result emulatedOpen(int directory, const char* path, int flags) {
  if (!running()) {
    return kNotEmulated;
  }
  const Lookup found = lookUp(directory, path, (flags & O_NOFOLLOW) == 0);
  if (found.answer == Lookup::Answer::Real) {
    return kNotEmulated;
  }
  if (found.answer == Lookup::Answer::Found && !found.found(Entry::Kind::Device)) {
    const ErrnoGuard guard;
    return openEmulatedFile(found, flags).value_or(kNotEmulated);
  }
  const CallScope scope;
  if (!scope) {
    return kNotEmulated;
  }
  Result result = -ENOENT;
  if (found.answer == Lookup::Answer::Found && descriptors.frozen()) {
    // A child of vfork can't use it before it executes something, and then it is /dev/null.
    result = syscall(SYS_openat, AT_FDCWD, "/dev/null", flags & (O_ACCMODE | O_CLOEXEC), 0);
    return result < 0 ? -errno : result;
  }
  if (found.answer == Lookup::Answer::Found) {
    result = openNode(*found.entry.node, flags);
  }
  chargeCall("open", found.path, result);
  return result;
}

Result emulatedClose(int descriptor) {
  return closeDescriptor(descriptor, [descriptor] { syscall(SYS_close, descriptor); });
}

Result emulatedForget(int descriptor) {
  return closeDescriptor(descriptor, [] {});
}

Result emulatedIoctl(int descriptor, unsigned long request, void* argument) {
  if (isForEveryFile(request)) {
    return kNotEmulated;
  }
  const CallScope scope;
  if (!scope) {
    return kNotEmulated;
  }
  const HeldDescription held(descriptor);
  if (!held) {
    return -EBADF;
  }
  OpenFile& file = held.file();
  const Result result = file.ioctl(request, argument);
  if (kernelState().board.observed()) {
    chargeCall(file.requestName(request), file.nodePath(), result);
  } else {
    chargeCall("ioctl", file.nodePath(), result);
  }
  return result;
}

Result emulatedRead(int descriptor, const iovec* buffers, int count) {
  return transferMany(descriptor, false, buffers, count);
}

Result emulatedWrite(int descriptor, const iovec* buffers, int count) {
  return transferMany(descriptor, true, buffers, count);
}

Result emulatedRead(int descriptor, void* buffer, size_t size) {
  const iovec one{buffer, size};
  return transfer(descriptor, false, &one, 1);
}

Result emulatedWrite(int descriptor, const void* buffer, size_t size) {
  const iovec one{const_cast<void*>(buffer), size};
  return transfer(descriptor, true, &one, 1);
}

void forgetStale(int descriptor) {
  if (!descriptors.contains(descriptor)) {
    return;
  }
  const CallScope scope;
  if (scope && !descriptors.frozen()) {
    descriptors.release(descriptor);
  }
}

void forgetRange(unsigned first, unsigned last) {
  if (!running()) {
    return;
  }
  const CallScope scope;
  if (scope && !descriptors.frozen()) {
    descriptors.releaseRange(first, last);
  }
}

}  // namespace vboard::kernel
