// SPDX-License-Identifier: MIT
#include "vboard/kernel/GpioEventQueue.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "vboard/kernel/Running.h"

namespace vboard::kernel {
namespace {

constexpr size_t kLargestEvent = sizeof(gpio_v2_line_info_changed);

/// Programs expect the lowest free numbers for what they open themselves.
constexpr int kFirstHiddenDescriptor = 200;

/// A duplicate out of the way, or the descriptor itself where the limit is lower.
int moveAside(int descriptor) {
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstHiddenDescriptor);
  if (moved < 0) {
    return descriptor;
  }
  ::close(descriptor);
  return moved;
}

}  // namespace

GpioEventQueue::GpioEventQueue(int flags) {
  std::array<int, 2> ends = {-1, -1};
  const int nonBlocking = (flags & O_NONBLOCK) != 0 ? SOCK_NONBLOCK : 0;
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | nonBlocking, 0, ends.data()) != 0) {
    error_ = errno;
    return;
  }
  if ((flags & O_CLOEXEC) == 0) {
    fcntl(ends[0], F_SETFD, 0);
  }
  writer_ = moveAside(ends[1]);
  reader_ = fcntl(ends[0], F_DUPFD_CLOEXEC, kFirstHiddenDescriptor);
  if (reader_ < 0) {
    reader_ = fcntl(ends[0], F_DUPFD_CLOEXEC, 0);
  }
  if (reader_ < 0) {
    error_ = errno;
  }
  processEnd_ = ends[0];
}

GpioEventQueue::~GpioEventQueue() {
  for (const int descriptor : {reader_, writer_, processEnd_}) {
    if (descriptor >= 0) {
      ::close(descriptor);
    }
  }
}

int GpioEventQueue::takeDescriptor() {
  return std::exchange(processEnd_, -1);
}

bool GpioEventQueue::empty() {
  char byte;
  if (recv(reader_, &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT) > 0) {
    return false;
  }
  // A child process may have read what this one counted.
  queued_ = 0;
  refill();
  return queued_ == 0;
}

bool GpioEventQueue::send(const void* event, size_t size) {
  if (::send(writer_, event, size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    return false;
  }
  ++queued_;
  return true;
}

void GpioEventQueue::refill() {
  while (!waiting_.empty() && send(waiting_.front().data(), waiting_.front().size())) {
    waiting_.pop_front();
  }
}

bool GpioEventQueue::pop(void* event, size_t size) {
  if (empty() || recv(reader_, event, size, MSG_DONTWAIT) <= 0) {
    return false;
  }
  queued_ -= std::min<size_t>(queued_, 1);
  refill();
  return true;
}

void GpioEventQueue::push(const void* event, size_t size, size_t capacity, Overflow overflow) {
  if (hungUp_) {
    return;
  }
  if (!empty() && queued_ + waiting_.size() >= capacity) {
    if (overflow == Overflow::DropNewest) {
      return;
    }
    std::array<char, kLargestEvent> oldest;
    pop(oldest.data(), oldest.size());
  }
  if (!waiting_.empty() || !send(event, size)) {
    waiting_.emplace_back(static_cast<const char*>(event), size);
  }
}

Result GpioEventQueue::waitForEvent(Board& board) {
  while (empty()) {
    if (hungUp_) {
      return -ENODEV;
    }
    if ((fcntl(reader_, F_GETFL) & O_NONBLOCK) != 0) {
      return -EAGAIN;
    }
    if (virtualTimeActive() && board.clock().nextEvent() != Time::max()) {
      board.clock().advanceTo(board.clock().nextEvent());
      continue;
    }
    // A peek that blocks obeys signals just as the caller's read should.
    char byte;
    board.mutex().unlock();
    const ssize_t got = recv(reader_, &byte, sizeof(byte), MSG_PEEK);
    const int error = errno;
    board.mutex().lock();
    if (got < 0 && error != EAGAIN) {
      return -error;
    }
  }
  return hungUp_ ? -ENODEV : 0;
}

Result GpioEventQueue::take(const iovec& buffer, size_t eventSize, size_t step) {
  if (buffer.iov_len < eventSize) {
    return -EINVAL;
  }
  size_t done = 0;
  std::array<char, kLargestEvent> event;
  do {
    if (!pop(event.data(), event.size())) {
      break;
    }
    if (!copyToUser(static_cast<char*>(buffer.iov_base) + done, event.data(), eventSize)) {
      return -EFAULT;
    }
    done += eventSize;
  } while (buffer.iov_len >= done + step);
  return done != 0 ? static_cast<Result>(done) : -EAGAIN;
}

void GpioEventQueue::hangUp() {
  hungUp_ = true;
  shutdown(writer_, SHUT_RDWR);
}

}  // namespace vboard::kernel
