// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_GPIOEVENTQUEUE_H
#define VBOARD_KERNEL_GPIOEVENTQUEUE_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "vboard/board/Board.h"
#include "vboard/kernel/Node.h"

namespace vboard::kernel {

/// The events that a descriptor reads, one datagram each in a seqpacket socket pair: the process
/// holds the reading end, so poll, select and epoll see events as they are.
///
/// Guarded by the board's lock.
class GpioEventQueue {
 public:
  /// What a full queue does with the next event.
  enum class Overflow : uint8_t { DropNewest, DropOldest };

  /// `flags` are those of open(2): O_NONBLOCK and O_CLOEXEC count.
  explicit GpioEventQueue(int flags);
  ~GpioEventQueue();
  GpioEventQueue(const GpioEventQueue&) = delete;
  GpioEventQueue& operator=(const GpioEventQueue&) = delete;

  /// 0, or the errno that making the sockets failed with.
  int error() const { return error_; }
  /// The reading end, for the process; the caller takes it over. Once.
  int takeDescriptor();

  template <typename Event>
  void push(const Event& event, size_t capacity, Overflow overflow) {
    push(&event, sizeof(event), capacity, overflow);
  }

  /// Waits for the next event: 0, or EAGAIN on a non-blocking descriptor, EINTR, ENODEV after
  /// `hangUp`. The board's lock is free while it waits; with virtual time, waiting lets the
  /// board's time pass.
  Result waitForEvent(Board& board);
  /// Moves events of `eventSize` bytes into a buffer: one, and then another as long as it is there
  /// and `step` bytes of room are left. Returns the bytes, or EINVAL where not even one fits.
  Result take(const iovec& buffer, size_t eventSize, size_t step);

  /// Readers and pollers see the end.
  void hangUp();

 private:
  void push(const void* event, size_t size, size_t capacity, Overflow overflow);
  bool pop(void* event, size_t size);
  bool send(const void* event, size_t size);
  void refill();
  bool empty();

  int reader_ = -1;  // shares its flags with the process's descriptor
  int writer_ = -1;
  int processEnd_ = -1;
  int error_ = 0;
  bool hungUp_ = false;
  size_t queued_ = 0;                // in the socket
  std::deque<std::string> waiting_;  // what didn't fit there, after those
};

/// Calls `readOne` for one buffer after the other, the way the kernel serves readv(2) of a driver
/// that only knows read(2).
template <typename ReadOne>
Result readEach(const iovec* buffers, int count, ReadOne readOne) {
  Result total = 0;
  for (int i = 0; i < count; ++i) {
    if (buffers[i].iov_len == 0 && count > 1) {
      continue;
    }
    const Result result = readOne(buffers[i]);
    if (result < 0) {
      return total != 0 ? total : result;
    }
    total += result;
    if (static_cast<size_t>(result) != buffers[i].iov_len) {
      break;
    }
  }
  return total;
}

}  // namespace vboard::kernel

#endif
