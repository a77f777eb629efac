// SPDX-License-Identifier: MIT
#ifndef VBOARD_GPIO_GPIOFIXTURE_H
#define VBOARD_GPIO_GPIOFIXTURE_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vboard/vboard.h"

using namespace std::chrono_literals;

/// A pin on the bench with a switch to low and to high.
class Lead : public vboard::Part {
 public:
  explicit Lead(std::string name) : Part("lead", std::move(name)), out_(addOutput("OUT")) {}
  vboard::Pin& out() { return out_; }
  void put(vboard::Drive drive) {
    const auto guard = lock();
    out_.drive(drive);
  }
  void high() { put(vboard::Drive::High); }
  void low() { put(vboard::Drive::Low); }
  vboard::Level level() const {
    const auto guard = lock();
    return out_.level();
  }

 private:
  vboard::Pin& out_;
};

/// Closes a descriptor at the end of a test.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { reset(); }
  void reset() {
    if (number_ >= 0) {
      close(std::exchange(number_, -1));
    }
  }
  operator int() const { return number_; }

 private:
  int number_;
};

/// Two controllers of eight lines; line 7 of the first is reserved. Lead n hangs on line n of the
/// first, and line 6 of the first is wired to line 0 of the second.
class GpioTest : public testing::Test {
 protected:
  static constexpr const char* kPath = "/dev/gpiochip0";

  GpioTest()
      : board_({.callCost = 0us}),
        gpio_(board_.addGpioChip({.label = "bench",
                                  .lines = 8,
                                  .lineNames = {{2, "LATCH"}},
                                  .reserved = {{7, "regulator"}}})),
        other_(board_.addGpioChip({.lines = 8})) {
    for (int line = 0; line < 6; ++line) {
      leads_.push_back(&board_.add<Lead>("lead" + std::to_string(line)));
      board_.connect(leads_.back()->out(), gpio_.line(line));
    }
    board_.connect(gpio_.line(6), other_.line(0));
    kernel_ = std::make_unique<vboard::Kernel>(board_);
  }

  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    chip_ = Descriptor(open(kPath, O_RDWR | O_CLOEXEC));
    ASSERT_GE(chip_, 0);
  }

  Lead& lead(int line) { return *leads_.at(static_cast<size_t>(line)); }
  void advance(vboard::Time time) {
    const std::lock_guard guard(board_.mutex());
    board_.clock().advance(time);
  }

  /// GPIO_GET_LINEHANDLE: a descriptor, or -1 and errno.
  Descriptor handle(const std::vector<uint32_t>& offsets, uint32_t flags,
                    const std::vector<uint8_t>& values = {}) {
    gpiohandle_request request = {};
    std::copy(offsets.begin(), offsets.end(), request.lineoffsets);
    std::copy(values.begin(), values.end(), request.default_values);
    std::strcpy(request.consumer_label, "test");
    request.lines = static_cast<uint32_t>(offsets.size());
    request.flags = flags;
    return Descriptor(ioctl(chip_, GPIO_GET_LINEHANDLE_IOCTL, &request) == 0 ? request.fd : -1);
  }

  Descriptor event(uint32_t offset, uint32_t edges, uint32_t flags = GPIOHANDLE_REQUEST_INPUT) {
    gpioevent_request request = {};
    request.lineoffset = offset;
    request.handleflags = flags;
    request.eventflags = edges;
    return Descriptor(ioctl(chip_, GPIO_GET_LINEEVENT_IOCTL, &request) == 0 ? request.fd : -1);
  }

  static gpio_v2_line_request requestOf(const std::vector<uint32_t>& offsets, uint64_t flags) {
    gpio_v2_line_request request = {};
    std::copy(offsets.begin(), offsets.end(), request.offsets);
    request.num_lines = static_cast<uint32_t>(offsets.size());
    request.config.flags = flags;
    std::strcpy(request.consumer, "test");
    return request;
  }

  /// GPIO_V2_GET_LINE: a descriptor, or -1 and errno.
  Descriptor lines(gpio_v2_line_request request) {
    return Descriptor(ioctl(chip_, GPIO_V2_GET_LINE_IOCTL, &request) == 0 ? request.fd : -1);
  }
  Descriptor lines(const std::vector<uint32_t>& offsets, uint64_t flags) {
    return lines(requestOf(offsets, flags));
  }

  gpio_v2_line_info info(uint32_t offset) {
    gpio_v2_line_info info = {};
    info.offset = offset;
    EXPECT_EQ(ioctl(chip_, GPIO_V2_GET_LINEINFO_IOCTL, &info), 0);
    return info;
  }

  static bool readable(int descriptor) {
    pollfd waiting = {descriptor, POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
  }

  /// Values of a version-1 handle, one digit per line.
  static std::string values(int handle, size_t count) {
    gpiohandle_data data = {};
    EXPECT_EQ(ioctl(handle, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data), 0);
    std::string text;
    for (size_t i = 0; i < count; ++i) {
      text += static_cast<char>('0' + data.values[i]);
    }
    return text;
  }
  static int setValues(int handle, const std::vector<uint8_t>& values) {
    gpiohandle_data data = {};
    std::copy(values.begin(), values.end(), data.values);
    return ioctl(handle, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
  }
  static uint64_t bits(int request, uint64_t mask) {
    gpio_v2_line_values values = {0, mask};
    EXPECT_EQ(ioctl(request, GPIO_V2_LINE_GET_VALUES_IOCTL, &values), 0);
    return values.bits;
  }

  /// The events that are there, without waiting.
  template <typename Event>
  static std::vector<Event> eventsOf(int descriptor) {
    std::vector<Event> events;
    Event event;
    while (readable(descriptor) && read(descriptor, &event, sizeof(event)) == sizeof(event)) {
      events.push_back(event);
    }
    return events;
  }

  vboard::Board board_;
  vboard::GpioChip& gpio_;
  vboard::GpioChip& other_;
  std::vector<Lead*> leads_;
  std::unique_ptr<vboard::Kernel> kernel_;
  Descriptor chip_;
};

#endif
