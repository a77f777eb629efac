// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_NODE_H
#define VBOARD_KERNEL_NODE_H

#include <sys/types.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include "vboard/board/Board.h"
#include "vboard/kernel/Kernel.h"

namespace vboard::kernel {

/// Results of emulated calls are the kernel's own: a value of 0 or more, or a negated errno.
using Result = long;

/// What one open(2) made; duplicated descriptors share it, and it ends with the last of them.
/// Every call comes with the board's lock held.
class OpenFile {
 public:
  virtual ~OpenFile() = default;
  virtual Result ioctl(unsigned long /*request*/, void* /*argument*/) { return -ENOTTY; }
  virtual Result read(const iovec* /*buffers*/, int /*count*/) { return -EINVAL; }
  virtual Result write(const iovec* /*buffers*/, int /*count*/) { return -EINVAL; }
  /// True when read(2) goes straight to the backing descriptor instead, outside the board's lock:
  /// event streams, whose reads may block.
  virtual bool readsBackingDescriptor() const { return false; }
  /// What observers are told an ioctl is.
  virtual std::string requestName(unsigned long /*request*/) const { return "ioctl"; }
  /// What observers and faults know it by: the path of its node.
  virtual const std::string& nodePath() const = 0;
};

/// What opening a node gives: an open file, or an errno.
struct OpenResult {
  std::shared_ptr<OpenFile> file;
  int error = 0;
  /// When not negative, the descriptor the process gets instead of the usual /dev/null one: an end
  /// of a socket pair for event streams.
  int backingDescriptor = -1;
};

/// One character device.
class Node {
 public:
  Node(std::string path, dev_t device) : path_(std::move(path)), device_(device) {}
  virtual ~Node() = default;
  const std::string& path() const { return path_; }
  dev_t device() const { return device_; }
  virtual OpenResult open(int flags) = 0;
  /// The driver was unbound: open files answer ESHUTDOWN or ENODEV as their kind does.
  virtual void setRemoved(bool removed) { removed_ = removed; }
  bool removed() const { return removed_; }
  bool denied = false;  ///< open answers EACCES

 private:
  std::string path_;
  dev_t device_;
  bool removed_ = false;
};

/// Hands a new open file to the process as a descriptor, for ioctls that create descriptors (GPIO
/// line handles). Returns the descriptor or a negated errno. `backingDescriptor` as above.
Result installOpenFile(std::shared_ptr<OpenFile> file, int flags, int backingDescriptor = -1);

/// Copies between emulation and the caller's memory, with EFAULT instead of a crash.
bool copyFromUser(void* destination, const void* source, size_t size);
bool copyToUser(void* destination, const void* source, size_t size);

/// Asks the faults whether this call fails now: 0 or an errno. Open, close, read and write are
/// asked for by the callers of `Node` and `OpenFile`, everything else by the open file itself.
int faultFor(Call call, const std::string& nodePath);

/// Advances the board's clock by the cost of one system call and tells the observers. The callers
/// of `Node` and `OpenFile` do it for every emulated call (open, ioctl, read, write, close); nodes
/// themselves don't.
void chargeCall(std::string_view call, const std::string& nodePath, Result result);

}  // namespace vboard::kernel

#endif
