// SPDX-License-Identifier: MIT
#include "vboard/kernel/GpioLines.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "vboard/kernel/Running.h"

namespace vboard::kernel {
namespace {

struct FlagPair {
  uint32_t version1;
  uint64_t version2;
};

constexpr std::array<FlagPair, 8> kFlagPairs = {{
    {GPIOHANDLE_REQUEST_INPUT, GPIO_V2_LINE_FLAG_INPUT},
    {GPIOHANDLE_REQUEST_OUTPUT, GPIO_V2_LINE_FLAG_OUTPUT},
    {GPIOHANDLE_REQUEST_ACTIVE_LOW, GPIO_V2_LINE_FLAG_ACTIVE_LOW},
    {GPIOHANDLE_REQUEST_OPEN_DRAIN, GPIO_V2_LINE_FLAG_OPEN_DRAIN},
    {GPIOHANDLE_REQUEST_OPEN_SOURCE, GPIO_V2_LINE_FLAG_OPEN_SOURCE},
    {GPIOHANDLE_REQUEST_BIAS_PULL_UP, GPIO_V2_LINE_FLAG_BIAS_PULL_UP},
    {GPIOHANDLE_REQUEST_BIAS_PULL_DOWN, GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN},
    {GPIOHANDLE_REQUEST_BIAS_DISABLE, GPIO_V2_LINE_FLAG_BIAS_DISABLED},
}};

struct RequestName {
  uint32_t request;
  std::string_view name;
};

/// The last entry is for all others.
constexpr std::array<RequestName, 16> kRequestNames = {{
    {GPIO_GET_CHIPINFO_IOCTL, "GPIO_GET_CHIPINFO"},
    {GPIO_GET_LINEINFO_UNWATCH_IOCTL, "GPIO_GET_LINEINFO_UNWATCH"},
    {GPIO_V2_GET_LINEINFO_IOCTL, "GPIO_V2_GET_LINEINFO"},
    {GPIO_V2_GET_LINEINFO_WATCH_IOCTL, "GPIO_V2_GET_LINEINFO_WATCH"},
    {GPIO_V2_GET_LINE_IOCTL, "GPIO_V2_GET_LINE"},
    {GPIO_V2_LINE_SET_CONFIG_IOCTL, "GPIO_V2_LINE_SET_CONFIG"},
    {GPIO_V2_LINE_GET_VALUES_IOCTL, "GPIO_V2_LINE_GET_VALUES"},
    {GPIO_V2_LINE_SET_VALUES_IOCTL, "GPIO_V2_LINE_SET_VALUES"},
    {GPIO_GET_LINEINFO_IOCTL, "GPIO_GET_LINEINFO"},
    {GPIO_GET_LINEHANDLE_IOCTL, "GPIO_GET_LINEHANDLE"},
    {GPIO_GET_LINEEVENT_IOCTL, "GPIO_GET_LINEEVENT"},
    {GPIOHANDLE_GET_LINE_VALUES_IOCTL, "GPIOHANDLE_GET_LINE_VALUES"},
    {GPIOHANDLE_SET_LINE_VALUES_IOCTL, "GPIOHANDLE_SET_LINE_VALUES"},
    {GPIOHANDLE_SET_CONFIG_IOCTL, "GPIOHANDLE_SET_CONFIG"},
    {GPIO_GET_LINEINFO_WATCH_IOCTL, "GPIO_GET_LINEINFO_WATCH"},
    {0, "ioctl"},
}};

int64_t offsetOfClock(clockid_t clock, Time now) {
  timespec time = {};
  clock_gettime(clock, &time);
  return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec - now.count();
}

/// The fault that this request can be hit by, or 0.
int faultOfRequest(uint32_t request, const std::string& path) {
  switch (request) {
    case GPIO_V2_GET_LINE_IOCTL:
    case GPIO_GET_LINEHANDLE_IOCTL:
    case GPIO_GET_LINEEVENT_IOCTL: return faultFor(Call::GpioRequest, path);
    case GPIO_V2_LINE_GET_VALUES_IOCTL:
    case GPIOHANDLE_GET_LINE_VALUES_IOCTL: return faultFor(Call::GpioGet, path);
    case GPIO_V2_LINE_SET_VALUES_IOCTL:
    case GPIOHANDLE_SET_LINE_VALUES_IOCTL: return faultFor(Call::GpioSet, path);
    default: return 0;
  }
}

}  // namespace

GpioFile::GpioFile(std::shared_ptr<GpioLines> lines) : lines_(std::move(lines)) {
  lines_->addFile(*this);
}

GpioFile::~GpioFile() {
  lines_->removeFile(*this);
}

const std::string& GpioFile::nodePath() const {
  return lines_->path();
}

std::string GpioFile::requestName(unsigned long request) const {
  const auto number = static_cast<uint32_t>(request);
  const auto* found =
      std::find_if(kRequestNames.begin(), kRequestNames.end() - 1,
                   [number](const RequestName& entry) { return entry.request == number; });
  return std::string(found->name);
}

Result GpioFile::ioctl(unsigned long request, void* argument) {
  if (!lines_->alive()) {
    return -ENODEV;
  }
  const auto number = static_cast<uint32_t>(request);
  const int fault = faultOfRequest(number, lines_->path());
  return fault != 0 ? -fault : answer(number, argument);
}

GpioLines::GpioLines(GpioChip& chip, std::string path)
    : chip_(&chip),
      path_(std::move(path)),
      lines_(static_cast<size_t>(chip.lineCount())),
      monotonicOffset_(offsetOfClock(CLOCK_MONOTONIC, chip.board().clock().now())),
      realtimeOffset_(offsetOfClock(CLOCK_REALTIME, chip.board().clock().now())) {
  for (const auto& [offset, consumer] : chip.options().reserved) {
    if (offset >= 0 && offset < chip.lineCount()) {
      Line& line = lines_[static_cast<size_t>(offset)];
      line.held = true;
      line.consumer = consumer;
    }
  }
  chip.setEdgeListener([this](int offset, Level level, Time time) {
    const auto line = static_cast<uint32_t>(offset);
    if (GpioFile* owner = lines_[line].owner; owner != nullptr) {
      owner->lineLevelChanged(line, level, time);
    }
  });
}

GpioLines::~GpioLines() {
  detach();
}

void GpioLines::detach() {
  if (chip_ == nullptr) {
    return;
  }
  for (GpioFile* file : files_) {
    file->hangUp();
  }
  for (Line& line : lines_) {
    line = Line();
  }
  chip_->setEdgeListener(nullptr);
  chip_ = nullptr;
}

void GpioLines::removeFile(GpioFile& file) {
  files_.erase(std::remove(files_.begin(), files_.end(), &file), files_.end());
}

int GpioLines::request(uint32_t offset, const std::string& consumer, GpioFile& owner) {
  if (offset >= count()) {
    return -EINVAL;
  }
  Line& line = lines_[offset];
  if (line.held) {
    return -EBUSY;
  }
  line.held = true;
  line.owner = &owner;
  line.consumer = consumer.empty() ? "?" : consumer;
  return 0;
}

void GpioLines::release(uint32_t offset) {
  if (!alive()) {
    return;
  }
  // The choice of clock sticks to a line until a version-2 request makes another: the kernel
  // doesn't reset it, and line info shows it.
  const uint64_t left = lines_[offset].flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME;
  lines_[offset] = Line();
  lines_[offset].flags = left;
  announce(offset, GPIO_V2_LINE_CHANGED_RELEASED);
}

void GpioLines::setFlagsOfVersion1(uint32_t offset, uint32_t handleFlags) {
  uint64_t flags = lines_[offset].flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME;
  for (const FlagPair& pair : kFlagPairs) {
    if ((handleFlags & pair.version1) != 0) {
      flags |= pair.version2;
    }
  }
  lines_[offset].flags = flags;
}

void GpioLines::announce(uint32_t offset, uint32_t change) {
  for (GpioFile* file : files_) {
    file->lineUseChanged(offset, change);
  }
}

void GpioLines::applyBias(uint32_t offset) {
  const uint64_t flags = lines_[offset].flags;
  const int line = static_cast<int>(offset);
  if ((flags & GPIO_V2_LINE_FLAG_BIAS_DISABLED) != 0) {
    chip_->setBias(line, Pull::None);
  } else if ((flags & GPIO_V2_LINE_FLAG_BIAS_PULL_UP) != 0) {
    chip_->setBias(line, Pull::Up);
  } else if ((flags & GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN) != 0) {
    chip_->setBias(line, Pull::Down);
  }
}

void GpioLines::drive(uint32_t offset, bool active) {
  const uint64_t flags = lines_[offset].flags;
  const bool high = active != ((flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0);
  const uint64_t letsGo =
      high ? uint64_t{GPIO_V2_LINE_FLAG_OPEN_DRAIN} : uint64_t{GPIO_V2_LINE_FLAG_OPEN_SOURCE};
  chip_->setOutput(static_cast<int>(offset),
                   (flags & letsGo) != 0 ? Drive::Floating : driveOf(levelOf(high)));
}

void GpioLines::makeInput(uint32_t offset) {
  chip_->setInput(static_cast<int>(offset));
  applyBias(offset);
}

void GpioLines::makeOutput(uint32_t offset, bool active) {
  applyBias(offset);
  drive(offset, active);
}

bool GpioLines::isOutput(uint32_t offset) const {
  return chip_->isOutput(static_cast<int>(offset));
}

bool GpioLines::get(uint32_t offset) const {
  return isActive(offset, chip_->level(static_cast<int>(offset)));
}

bool GpioLines::isActive(uint32_t offset, Level level) const {
  return (level == Level::High) != ((lines_[offset].flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0);
}

void GpioLines::set(uint32_t offset, bool active) {
  if (isOutput(offset)) {
    drive(offset, active);
  }
}

gpio_v2_line_info GpioLines::info(uint32_t offset) const {
  // Every settable flag but the direction, which the controller knows.
  constexpr uint64_t kShown = GPIO_V2_LINE_FLAG_ACTIVE_LOW | GPIO_V2_LINE_FLAG_EDGE_RISING |
                              GPIO_V2_LINE_FLAG_EDGE_FALLING | GPIO_V2_LINE_FLAG_OPEN_DRAIN |
                              GPIO_V2_LINE_FLAG_OPEN_SOURCE | GPIO_V2_LINE_FLAG_BIAS_PULL_UP |
                              GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN | GPIO_V2_LINE_FLAG_BIAS_DISABLED |
                              GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME;
  const Line& line = lines_[offset];
  gpio_v2_line_info info = {};
  info.offset = offset;
  const auto& names = chip_->options().lineNames;
  if (const auto name = names.find(static_cast<int>(offset)); name != names.end()) {
    copyGpioName(info.name, name->second);
  }
  copyGpioName(info.consumer, line.consumer);
  info.flags = line.flags & kShown;
  info.flags |= isOutput(offset) ? GPIO_V2_LINE_FLAG_OUTPUT : GPIO_V2_LINE_FLAG_INPUT;
  if (line.held) {
    info.flags |= GPIO_V2_LINE_FLAG_USED;
  }
  if (line.debounceMicroseconds != 0) {
    info.attrs[0].id = GPIO_V2_LINE_ATTR_ID_DEBOUNCE;
    info.attrs[0].debounce_period_us = line.debounceMicroseconds;
    info.num_attrs = 1;
  }
  return info;
}

uint64_t GpioLines::timestamp(Time moment, clockid_t clock) const {
  int64_t offset = clock == CLOCK_REALTIME ? realtimeOffset_ : monotonicOffset_;
  if (virtualTimeActive()) {
    offset = offsetOfClock(clock, chip_->board().clock().now());
  }
  return static_cast<uint64_t>(moment.count() + offset);
}

void copyGpioName(char (&field)[GPIO_MAX_NAME_SIZE], const std::string& name) {
  const size_t length = std::min(name.size(), sizeof(field) - 1);
  std::memcpy(field, name.data(), length);
  field[length] = '\0';
}

std::string gpioNameIn(const char (&field)[GPIO_MAX_NAME_SIZE]) {
  return {field, strnlen(field, sizeof(field) - 1)};
}

}  // namespace vboard::kernel
