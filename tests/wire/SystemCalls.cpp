// SPDX-License-Identifier: MIT
// The system calls of the test program. Each is declared under a name of its own with libc's symbol
// name, so that no header's declaration or redirection gets in the way.
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/wire/Journal.h"

#define WIRE_REPLACES(symbol) __asm__(symbol) __attribute__((visibility("default")))

extern "C" {
int wireOpen(const char* path, int flags, ...) WIRE_REPLACES("open");
int wireOpen64(const char* path, int flags, ...) WIRE_REPLACES("open64");
int wireOpen2(const char* path, int flags) WIRE_REPLACES("__open_2");
int wireOpen642(const char* path, int flags) WIRE_REPLACES("__open64_2");
int wireClose(int descriptor) WIRE_REPLACES("close");
int wireIoctl(int descriptor, unsigned long request, ...) WIRE_REPLACES("ioctl");
int wireIoctlTime64(int descriptor, unsigned long request, ...) WIRE_REPLACES("__ioctl_time64");
ssize_t wireWrite(int descriptor, const void* data, size_t size) WIRE_REPLACES("write");
void wirePerror(const char* text) WIRE_REPLACES("perror");
}

namespace {

using wire::EntryKind;
using wire::Node;
using State = wire::Wire::State;

int failed(int error) {
  errno = error;
  return -1;
}

std::string callText(const char* name, int descriptor, const std::string& rest) {
  return std::string(name) + "(" + std::to_string(descriptor) + rest + ")";
}

/// Whether a call on this descriptor can only be meant for a node: on one of ours, or on one that a
/// bus uses when it is closed or failed to open.
bool isForNode(State& state, int descriptor) {
  return descriptor <= 0 || state.node(descriptor) != nullptr;
}

/// What a node that isn't open answers.
int closedError(int descriptor) {
  return descriptor == 0 ? ENOTTY : EBADF;
}

std::string flagsText(int flags) {
  const int access = flags & O_ACCMODE;
  std::string text = access == O_RDWR ? "O_RDWR" : access == O_WRONLY ? "O_WRONLY" : "O_RDONLY";
  const int rest = flags & ~(O_ACCMODE | O_LARGEFILE);
  return rest == 0 ? text : text + "|" + std::to_string(rest);
}

int openPath(const char* path, int flags, mode_t mode) {
  constexpr char kNodePrefix[] = "/dev/spidev";
  State* state = State::active();
  if (state == nullptr || std::strncmp(path, kNodePrefix, sizeof(kNodePrefix) - 1) != 0) {
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
  }
  const int descriptor = state->openNode();
  if (state->paused) {
    return descriptor;
  }
  const int error = state->attempt(EntryKind::SystemCall,
                                   "open(\"" + std::string(path) + "\", " + flagsText(flags) + ")",
                                   " = " + std::to_string(descriptor));
  if (error != 0) {
    state->node(descriptor)->open = false;
    return failed(error);
  }
  return descriptor;
}

struct Setting {
  unsigned long request;
  const char* name;
  bool writes;
  size_t size;
  std::atomic<uint32_t> Node::*field;
};

constexpr Setting kSettings[] = {
    {SPI_IOC_WR_MODE32, "SPI_IOC_WR_MODE32", true, 4, &Node::mode},
    {SPI_IOC_RD_MODE32, "SPI_IOC_RD_MODE32", false, 4, &Node::mode},
    {SPI_IOC_WR_MODE, "SPI_IOC_WR_MODE", true, 1, &Node::mode},
    {SPI_IOC_RD_MODE, "SPI_IOC_RD_MODE", false, 1, &Node::mode},
    {SPI_IOC_WR_LSB_FIRST, "SPI_IOC_WR_LSB_FIRST", true, 1, &Node::lsbFirst},
    {SPI_IOC_RD_LSB_FIRST, "SPI_IOC_RD_LSB_FIRST", false, 1, &Node::lsbFirst},
    {SPI_IOC_WR_BITS_PER_WORD, "SPI_IOC_WR_BITS_PER_WORD", true, 1, &Node::bits},
    {SPI_IOC_RD_BITS_PER_WORD, "SPI_IOC_RD_BITS_PER_WORD", false, 1, &Node::bits},
    {SPI_IOC_WR_MAX_SPEED_HZ, "SPI_IOC_WR_MAX_SPEED_HZ", true, 4, &Node::speedHz},
    {SPI_IOC_RD_MAX_SPEED_HZ, "SPI_IOC_RD_MAX_SPEED_HZ", false, 4, &Node::speedHz},
};

uint32_t load(const void* data, size_t size) {
  uint32_t value = 0;
  if (size == 1) {
    uint8_t byte;
    std::memcpy(&byte, data, sizeof(byte));
    value = byte;
  } else {
    std::memcpy(&value, data, sizeof(value));
  }
  return value;
}

void store(void* data, size_t size, uint32_t value) {
  const auto byte = static_cast<uint8_t>(value);
  std::memcpy(data, size == 1 ? static_cast<const void*>(&byte) : &value, size);
}

int setOrGet(State& state, int descriptor, const Setting& setting, void* argument) {
  Node* node = state.node(descriptor);
  const bool open = node != nullptr && node->open;
  if (!state.paused) {
    uint32_t value = setting.writes ? load(argument, setting.size) : 0;
    const std::string call =
        callText("ioctl", descriptor,
                 std::string(", ") + setting.name +
                     (setting.writes ? ", " + std::to_string(value) : std::string()));
    std::string result = " = 0";
    bool scripted = false;
    if (!setting.writes && open) {
      scripted = state.scriptedAnswer(call, value);
      if (!scripted) {
        value = (node->*setting.field).load();
      }
      result += " -> " + std::to_string(value);
    }
    if (!open) {
      result = " = -1 " + wire::errorName(closedError(descriptor));
    }
    const int error = state.attempt(EntryKind::SystemCall, call, result);
    if (error != 0) {
      return failed(error);
    }
    if (scripted) {
      node->*setting.field = value;
    }
  }
  if (!open) {
    return failed(closedError(descriptor));
  }
  if (setting.writes) {
    node->*setting.field = load(argument, setting.size);
  } else {
    store(argument, setting.size, (node->*setting.field).load());
  }
  return 0;
}

int sendMessage(State& state, int descriptor, size_t bytes, void* argument) {
  const auto* transfers = static_cast<const spi_ioc_transfer*>(argument);
  const size_t count = bytes / sizeof(spi_ioc_transfer);
  int total = 0;
  for (size_t i = 0; i < count; ++i) {
    total += static_cast<int>(transfers[i].len);
  }
  Node* node = state.node(descriptor);
  const bool open = node != nullptr && node->open;
  if (state.paused) {
    ++state.pausedMessages;
    for (size_t i = 0; i < count && open; ++i) {
      if (transfers[i].rx_buf != 0) {
        std::memset(reinterpret_cast<void*>(static_cast<uintptr_t>(transfers[i].rx_buf)),
                    wire::kUnscriptedByte, transfers[i].len);
      }
    }
    return open ? total : failed(closedError(descriptor));
  }
  std::string text = ", SPI_IOC_MESSAGE(" + std::to_string(count) + ")";
  for (size_t i = 0; i < count; ++i) {
    text += ", " + state.transferText(transfers[i]);
  }
  const int closed = closedError(descriptor);
  const std::string result =
      open ? " = " + std::to_string(total) : " = -1 " + wire::errorName(closed);
  const int error =
      state.attempt(EntryKind::SystemCall, callText("ioctl", descriptor, text), result);
  if (error != 0 || !open) {
    return failed(error != 0 ? error : closed);
  }
  state.receive(transfers, count);
  return total;
}

int control(int descriptor, unsigned long request, void* argument) {
  State* state = State::active();
  if (state == nullptr ||
      (_IOC_TYPE(request) != SPI_IOC_MAGIC && state->node(descriptor) == nullptr)) {
    return static_cast<int>(::syscall(SYS_ioctl, descriptor, request, argument));
  }
  for (const Setting& setting : kSettings) {
    if (setting.request == request) {
      return setOrGet(*state, descriptor, setting, argument);
    }
  }
  const size_t size = _IOC_SIZE(request);
  if (request == _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, size) && size % sizeof(spi_ioc_transfer) == 0) {
    return sendMessage(*state, descriptor, size, argument);
  }
  state->note(callText("ioctl", descriptor, ", unknown request " + std::to_string(request)),
              " = -1 ENOTTY");
  return failed(ENOTTY);
}

}  // namespace

int wireOpen(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  const mode_t mode = creates ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return openPath(path, flags, mode);
}

int wireOpen64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  const mode_t mode = creates ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return openPath(path, flags | O_LARGEFILE, mode);
}

int wireOpen2(const char* path, int flags) {
  return openPath(path, flags, 0);
}

int wireOpen642(const char* path, int flags) {
  return openPath(path, flags | O_LARGEFILE, 0);
}

int wireClose(int descriptor) {
  State* state = State::active();
  if (state == nullptr || !isForNode(*state, descriptor)) {
    return static_cast<int>(::syscall(SYS_close, descriptor));
  }
  Node* node = state->node(descriptor);
  const bool closes = descriptor == 0 || (node != nullptr && node->open);
  if (!state->paused) {
    const int error = state->attempt(EntryKind::SystemCall, callText("close", descriptor, ""),
                                     closes ? " = 0" : " = -1 EBADF");
    if (error != 0) {
      return failed(error);
    }
  }
  if (node != nullptr) {
    node->open = false;
  }
  return closes ? 0 : failed(EBADF);
}

int wireIoctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return control(descriptor, request, argument);
}

int wireIoctlTime64(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return control(descriptor, request, argument);
}

ssize_t wireWrite(int descriptor, const void* data, size_t size) {
  State* state = State::active();
  if (state == nullptr || !isForNode(*state, descriptor)) {
    return ::syscall(SYS_write, descriptor, data, size);
  }
  Node* node = state->node(descriptor);
  const bool open = node != nullptr && node->open;
  if (!state->paused) {
    const std::string bytes = wire::bytesText(static_cast<const uint8_t*>(data), size);
    const int error =
        state->attempt(EntryKind::SystemCall, callText("write", descriptor, ", " + bytes),
                       open ? " = " + std::to_string(size) : " = -1 EBADF");
    if (error != 0) {
      return failed(error);
    }
  }
  return open ? static_cast<ssize_t>(size) : failed(EBADF);
}

void wirePerror(const char* text) {
  const int error = errno;
  State* state = State::active();
  if (state == nullptr) {
    std::fprintf(stderr, "%s: %s\n", text, std::strerror(error));
  } else if (!state->paused) {
    state->note("perror(\"" + std::string(text) + "\") " + wire::errorName(error));
  }
  errno = wire::kErrnoAfterPerror;
}
