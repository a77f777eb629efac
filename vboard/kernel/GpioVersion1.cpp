// SPDX-License-Identifier: MIT
// Line handles and line events of the first GPIO user interface.
#include <fcntl.h>
#include <linux/gpio.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "vboard/kernel/GpioEventQueue.h"
#include "vboard/kernel/GpioRequests.h"

namespace vboard::kernel {
namespace {

/// How many edges the kernel keeps for a reader; later ones are lost.
constexpr size_t kEventCapacity = 16;

constexpr uint32_t kKnownFlags = GPIOHANDLE_REQUEST_INPUT | GPIOHANDLE_REQUEST_OUTPUT |
                                 GPIOHANDLE_REQUEST_ACTIVE_LOW | GPIOHANDLE_REQUEST_OPEN_DRAIN |
                                 GPIOHANDLE_REQUEST_OPEN_SOURCE | GPIOHANDLE_REQUEST_BIAS_PULL_UP |
                                 GPIOHANDLE_REQUEST_BIAS_PULL_DOWN |
                                 GPIOHANDLE_REQUEST_BIAS_DISABLE;
constexpr uint32_t kDirections = GPIOHANDLE_REQUEST_INPUT | GPIOHANDLE_REQUEST_OUTPUT;
constexpr uint32_t kDrives = GPIOHANDLE_REQUEST_OPEN_DRAIN | GPIOHANDLE_REQUEST_OPEN_SOURCE;
constexpr uint32_t kBiases = GPIOHANDLE_REQUEST_BIAS_PULL_UP | GPIOHANDLE_REQUEST_BIAS_PULL_DOWN |
                             GPIOHANDLE_REQUEST_BIAS_DISABLE;

bool atMostOne(uint32_t bits) {
  return (bits & (bits - 1)) == 0;
}

bool handleFlagsValid(uint32_t flags) {
  if ((flags & ~kKnownFlags) != 0 || !atMostOne(flags & kDirections) ||
      !atMostOne(flags & kDrives) || !atMostOne(flags & kBiases)) {
    return false;
  }
  if ((flags & kDrives) != 0 && (flags & GPIOHANDLE_REQUEST_OUTPUT) == 0) {
    return false;
  }
  return (flags & kBiases) == 0 || (flags & kDirections) != 0;
}

/// Lines that were requested together, to be read and set together.
class LineHandle : public GpioFile {
 public:
  using GpioFile::GpioFile;
  ~LineHandle() override {
    for (const uint32_t offset : offsets_) {
      lines().release(offset);
    }
  }

  int request(const gpiohandle_request& request) {
    const std::string consumer = gpioNameIn(request.consumer_label);
    for (uint32_t i = 0; i < request.lines; ++i) {
      const uint32_t offset = request.lineoffsets[i];
      if (const int error = lines().request(offset, consumer, *this); error != 0) {
        return error;
      }
      offsets_.push_back(offset);
      configure(offset, request.flags, request.default_values[i] != 0);
      lines().announce(offset, GPIO_V2_LINE_CHANGED_REQUESTED);
    }
    return 0;
  }

 protected:
  Result answer(uint32_t request, void* argument) override {
    switch (request) {
      case GPIOHANDLE_GET_LINE_VALUES_IOCTL: return getValues(argument);
      case GPIOHANDLE_SET_LINE_VALUES_IOCTL: return setValues(argument);
      case GPIOHANDLE_SET_CONFIG_IOCTL: return setConfig(argument);
      default: return -EINVAL;
    }
  }

 private:
  /// Without a direction flag the line stays as it is.
  void configure(uint32_t offset, uint32_t flags, bool active) {
    lines().setFlagsOfVersion1(offset, flags);
    if ((flags & GPIOHANDLE_REQUEST_OUTPUT) != 0) {
      lines().makeOutput(offset, active);
    } else if ((flags & GPIOHANDLE_REQUEST_INPUT) != 0) {
      lines().makeInput(offset);
    }
  }

  Result getValues(void* argument) {
    gpiohandle_data data = {};
    for (size_t i = 0; i < offsets_.size(); ++i) {
      data.values[i] = lines().get(offsets_[i]) ? 1 : 0;
    }
    return copyToUser(argument, &data, sizeof(data)) ? 0 : -EFAULT;
  }

  Result setValues(void* argument) {
    // All were requested with the same flags, so the kernel only asks the first.
    if (!lines().isOutput(offsets_.front())) {
      return -EPERM;
    }
    gpiohandle_data data;
    if (!copyFromUser(&data, argument, sizeof(data))) {
      return -EFAULT;
    }
    for (size_t i = 0; i < offsets_.size(); ++i) {
      lines().set(offsets_[i], data.values[i] != 0);
    }
    return 0;
  }

  Result setConfig(void* argument) {
    gpiohandle_config config;
    if (!copyFromUser(&config, argument, sizeof(config))) {
      return -EFAULT;
    }
    // Later kernels of the 6.1 series want a direction here.
    if (!handleFlagsValid(config.flags) || (config.flags & kDirections) == 0) {
      return -EINVAL;
    }
    for (size_t i = 0; i < offsets_.size(); ++i) {
      configure(offsets_[i], config.flags, config.default_values[i] != 0);
      lines().announce(offsets_[i], GPIO_V2_LINE_CHANGED_CONFIG);
    }
    return 0;
  }

  std::vector<uint32_t> offsets_;
};

/// One input whose edges are read as events.
class LineEvent : public GpioFile {
 public:
  explicit LineEvent(std::shared_ptr<GpioLines> lines)
      : GpioFile(std::move(lines)), events_(O_RDONLY | O_CLOEXEC) {}
  ~LineEvent() override {
    if (held_) {
      lines().release(offset_);
    }
  }

  GpioEventQueue& events() { return events_; }

  int request(const gpioevent_request& request) {
    offset_ = request.lineoffset;
    const int error = lines().request(offset_, gpioNameIn(request.consumer_label), *this);
    if (error != 0) {
      return error;
    }
    held_ = true;
    lines().setFlagsOfVersion1(offset_, request.handleflags);
    lines().makeInput(offset_);
    lines().announce(offset_, GPIO_V2_LINE_CHANGED_REQUESTED);
    edges_ = request.eventflags;
    return 0;
  }

  void lineLevelChanged(uint32_t offset, Level level, Time time) override {
    gpioevent_data event = {};
    event.timestamp = lines().timestamp(time, CLOCK_MONOTONIC);
    event.id = lines().isActive(offset, level) ? GPIOEVENT_EVENT_RISING_EDGE
                                               : GPIOEVENT_EVENT_FALLING_EDGE;
    if ((edges_ & event.id) != 0) {
      events_.push(event, kEventCapacity, GpioEventQueue::Overflow::DropNewest);
    }
  }

  Result read(const iovec* buffers, int count) override {
    return readEach(buffers, count, [this](const iovec& buffer) -> Result {
      if (!lines().alive()) {
        return -ENODEV;
      }
      if (buffer.iov_len < sizeof(gpioevent_data)) {
        return -EINVAL;
      }
      const Result ready = events_.waitForEvent(lines().chip().board());
      return ready != 0 ? ready
                        : events_.take(buffer, sizeof(gpioevent_data), sizeof(gpioevent_data));
    });
  }

  void hangUp() override { events_.hangUp(); }

 protected:
  Result answer(uint32_t request, void* argument) override {
    if (request != GPIOHANDLE_GET_LINE_VALUES_IOCTL) {
      return -EINVAL;
    }
    gpiohandle_data data = {};
    data.values[0] = lines().get(offset_) ? 1 : 0;
    return copyToUser(argument, &data, sizeof(data)) ? 0 : -EFAULT;
  }

 private:
  GpioEventQueue events_;
  uint32_t offset_ = 0;
  uint32_t edges_ = 0;
  bool held_ = false;
};

static_assert(GPIOEVENT_REQUEST_RISING_EDGE == GPIOEVENT_EVENT_RISING_EDGE &&
              GPIOEVENT_REQUEST_FALLING_EDGE == GPIOEVENT_EVENT_FALLING_EDGE);

}  // namespace

Result makeLineHandle(const std::shared_ptr<GpioLines>& lines, void* argument) {
  gpiohandle_request request;
  if (!copyFromUser(&request, argument, sizeof(request))) {
    return -EFAULT;
  }
  if (request.lines == 0 || request.lines > GPIOHANDLES_MAX || !handleFlagsValid(request.flags)) {
    return -EINVAL;
  }
  auto handle = std::make_shared<LineHandle>(lines);
  if (const int error = handle->request(request); error != 0) {
    return error;
  }
  return giveDescriptor(std::move(handle), -1, request, argument);
}

Result makeLineEvent(const std::shared_ptr<GpioLines>& lines, void* argument) {
  gpioevent_request request;
  if (!copyFromUser(&request, argument, sizeof(request))) {
    return -EFAULT;
  }
  constexpr uint32_t kNotForEvents = GPIOHANDLE_REQUEST_OUTPUT | kDrives;
  if (request.lineoffset >= lines->count() || (request.handleflags & ~kKnownFlags) != 0 ||
      (request.eventflags & ~uint32_t{GPIOEVENT_REQUEST_BOTH_EDGES}) != 0 ||
      (request.handleflags & kNotForEvents) != 0 || !atMostOne(request.handleflags & kBiases)) {
    return -EINVAL;
  }
  auto file = std::make_shared<LineEvent>(lines);
  if (file->events().error() != 0) {
    return -file->events().error();
  }
  if (const int error = file->request(request); error != 0) {
    return error;
  }
  const int descriptor = file->events().takeDescriptor();
  return giveDescriptor(std::move(file), descriptor, request, argument);
}

}  // namespace vboard::kernel
