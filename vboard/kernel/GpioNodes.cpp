// SPDX-License-Identifier: MIT
#include "vboard/kernel/GpioNodes.h"

#include <linux/gpio.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "vboard/kernel/GpioEventQueue.h"
#include "vboard/kernel/GpioLines.h"
#include "vboard/kernel/GpioRequests.h"

namespace vboard::kernel {
namespace {

/// GPIO controllers have no fixed major; the kernel hands numbers out from 254 down.
constexpr unsigned kMajor = 254;

/// How many line-info changes the kernel keeps for a reader.
constexpr size_t kWatchCapacity = 32;

uint32_t infoFlagsOfVersion2(uint64_t flags) {
  struct Pair {
    uint64_t version2;
    uint32_t version1;
  };
  constexpr std::array<Pair, 8> kPairs = {{
      {GPIO_V2_LINE_FLAG_USED, GPIOLINE_FLAG_KERNEL},
      {GPIO_V2_LINE_FLAG_OUTPUT, GPIOLINE_FLAG_IS_OUT},
      {GPIO_V2_LINE_FLAG_ACTIVE_LOW, GPIOLINE_FLAG_ACTIVE_LOW},
      {GPIO_V2_LINE_FLAG_OPEN_DRAIN, GPIOLINE_FLAG_OPEN_DRAIN},
      {GPIO_V2_LINE_FLAG_OPEN_SOURCE, GPIOLINE_FLAG_OPEN_SOURCE},
      {GPIO_V2_LINE_FLAG_BIAS_PULL_UP, GPIOLINE_FLAG_BIAS_PULL_UP},
      {GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN, GPIOLINE_FLAG_BIAS_PULL_DOWN},
      {GPIO_V2_LINE_FLAG_BIAS_DISABLED, GPIOLINE_FLAG_BIAS_DISABLE},
  }};
  uint32_t result = 0;
  for (const Pair& pair : kPairs) {
    if ((flags & pair.version2) != 0) {
      result |= pair.version1;
    }
  }
  return result;
}

gpioline_info version1Info(const gpio_v2_line_info& info) {
  gpioline_info result = {};
  result.line_offset = info.offset;
  result.flags = infoFlagsOfVersion2(info.flags);
  std::copy(std::begin(info.name), std::end(info.name), std::begin(result.name));
  std::copy(std::begin(info.consumer), std::end(info.consumer), std::begin(result.consumer));
  return result;
}

bool allZero(const uint32_t* words, size_t count) {
  return std::all_of(words, words + count, [](uint32_t word) { return word == 0; });
}

/// One open of /dev/gpiochipN.
class ChipFile : public GpioFile {
 public:
  ChipFile(std::shared_ptr<GpioLines> lines, int flags)
      : GpioFile(std::move(lines)), events_(flags), watched_(this->lines().count(), false) {}

  GpioEventQueue& events() { return events_; }

  Result read(const iovec* buffers, int count) override {
    if (!lines().alive()) {
      return -ENODEV;
    }
    return readEach(buffers, count, [this](const iovec& buffer) {
      const Result ready = events_.waitForEvent(lines().chip().board());
      if (ready != 0) {
        return ready;
      }
      // The kernel looks for room for a version-2 event before it goes on, whatever the version.
      return events_.take(buffer, eventSize(), sizeof(gpio_v2_line_info_changed));
    });
  }

  void lineUseChanged(uint32_t offset, uint32_t change) override {
    if (!watched_[offset]) {
      return;
    }
    const uint64_t time = lines().timestamp(lines().chip().board().clock().now(), CLOCK_MONOTONIC);
    if (watchVersion_ == 1) {
      gpioline_info_changed event = {};
      event.info = version1Info(lines().info(offset));
      event.timestamp = time;
      event.event_type = change;
      events_.push(event, kWatchCapacity, GpioEventQueue::Overflow::DropNewest);
    } else {
      gpio_v2_line_info_changed event = {};
      event.info = lines().info(offset);
      event.timestamp_ns = time;
      event.event_type = change;
      events_.push(event, kWatchCapacity, GpioEventQueue::Overflow::DropNewest);
    }
  }

  void hangUp() override { events_.hangUp(); }

 protected:
  Result answer(uint32_t request, void* argument) override {
    switch (request) {
      case GPIO_GET_CHIPINFO_IOCTL: return chipInfo(argument);
      case GPIO_GET_LINEINFO_IOCTL: return lineInfo(argument, false);
      case GPIO_GET_LINEINFO_WATCH_IOCTL: return lineInfo(argument, true);
      case GPIO_V2_GET_LINEINFO_IOCTL: return lineInfo2(argument, false);
      case GPIO_V2_GET_LINEINFO_WATCH_IOCTL: return lineInfo2(argument, true);
      case GPIO_GET_LINEINFO_UNWATCH_IOCTL: return unwatch(argument);
      case GPIO_GET_LINEHANDLE_IOCTL: return makeLineHandle(sharedLines(), argument);
      case GPIO_GET_LINEEVENT_IOCTL: return makeLineEvent(sharedLines(), argument);
      case GPIO_V2_GET_LINE_IOCTL: return makeLineRequest(sharedLines(), argument);
      default:
        // Not ENOTTY: this driver says EINVAL to what it doesn't know.
        return -EINVAL;
    }
  }

 private:
  size_t eventSize() const {
    return watchVersion_ == 1 ? sizeof(gpioline_info_changed) : sizeof(gpio_v2_line_info_changed);
  }

  Result chipInfo(void* argument) {
    gpiochip_info info = {};
    const std::string& path = lines().path();
    copyGpioName(info.name, path.substr(path.rfind('/') + 1));
    copyGpioName(info.label, lines().chip().options().label);
    info.lines = lines().count();
    return copyToUser(argument, &info, sizeof(info)) ? 0 : -EFAULT;
  }

  /// The first watch decides the version of every later one.
  int startWatching(uint32_t offset, int version) {
    if (watchVersion_ == 0) {
      watchVersion_ = version;
    }
    if (watchVersion_ != version) {
      return -EPERM;
    }
    if (watched_[offset]) {
      return -EBUSY;
    }
    watched_[offset] = true;
    return 0;
  }

  template <typename Info>
  Result giveInfo(const Info& info, uint32_t offset, bool watch, int version, void* argument) {
    if (watch) {
      if (const int error = startWatching(offset, version); error != 0) {
        return error;
      }
    }
    if (!copyToUser(argument, &info, sizeof(info))) {
      if (watch) {
        watched_[offset] = false;
      }
      return -EFAULT;
    }
    return 0;
  }

  Result lineInfo(void* argument, bool watch) {
    gpioline_info info;
    if (!copyFromUser(&info, argument, sizeof(info))) {
      return -EFAULT;
    }
    if (info.line_offset >= lines().count()) {
      return -EINVAL;
    }
    const uint32_t offset = info.line_offset;
    return giveInfo(version1Info(lines().info(offset)), offset, watch, 1, argument);
  }

  Result lineInfo2(void* argument, bool watch) {
    gpio_v2_line_info info;
    if (!copyFromUser(&info, argument, sizeof(info))) {
      return -EFAULT;
    }
    if (!allZero(info.padding, std::size(info.padding)) || info.offset >= lines().count()) {
      return -EINVAL;
    }
    return giveInfo(lines().info(info.offset), info.offset, watch, 2, argument);
  }

  Result unwatch(void* argument) {
    uint32_t offset = 0;
    if (!copyFromUser(&offset, argument, sizeof(offset))) {
      return -EFAULT;
    }
    if (offset >= lines().count()) {
      return -EINVAL;
    }
    if (!watched_[offset]) {
      return -EBUSY;
    }
    watched_[offset] = false;
    return 0;
  }

  GpioEventQueue events_;
  std::vector<bool> watched_;
  int watchVersion_ = 0;
};

}  // namespace

GpioNode::GpioNode(GpioChip& chip)
    : Node("/dev/gpiochip" + std::to_string(chip.number()),
           makedev(kMajor, static_cast<unsigned>(chip.number()))),
      chip_(chip),
      lines_(std::make_shared<GpioLines>(chip, path())) {
}

GpioNode::~GpioNode() {
  const std::scoped_lock lock(chip_.board().mutex());
  lines_->detach();
}

OpenResult GpioNode::open(int flags) {
  if (removed()) {
    return {nullptr, ENODEV, -1};
  }
  auto file = std::make_shared<ChipFile>(lines_, flags);
  if (file->events().error() != 0) {
    return {nullptr, file->events().error(), -1};
  }
  const int descriptor = file->events().takeDescriptor();
  return {std::move(file), 0, descriptor};
}

void GpioNode::setRemoved(bool gone) {
  const std::scoped_lock lock(chip_.board().mutex());
  if (gone == removed()) {
    return;
  }
  Node::setRemoved(gone);
  if (gone) {
    lines_->detach();
  } else {
    lines_ = std::make_shared<GpioLines>(chip_, path());
  }
}

void addGpioNodes(Board& board, FileTree& tree) {
  for (GpioChip* chip : board.gpioChips()) {
    tree.addDevice(std::make_shared<GpioNode>(*chip));
  }
}

}  // namespace vboard::kernel
