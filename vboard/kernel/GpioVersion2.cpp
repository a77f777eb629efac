// SPDX-License-Identifier: MIT
// Line requests of the second GPIO user interface.
#include <fcntl.h>
#include <linux/gpio.h>

#include <algorithm>
#include <bit>
#include <optional>
#include <utility>
#include <vector>

#include "vboard/kernel/GpioEventQueue.h"
#include "vboard/kernel/GpioRequests.h"

namespace vboard::kernel {
namespace {

constexpr uint32_t kEventsPerLine = 16;
constexpr uint32_t kLargestBuffer = GPIO_V2_LINES_MAX * kEventsPerLine;

constexpr uint64_t kLineDirections = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT;
constexpr uint64_t kEdges = GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;
constexpr uint64_t kLineDrives = GPIO_V2_LINE_FLAG_OPEN_DRAIN | GPIO_V2_LINE_FLAG_OPEN_SOURCE;
constexpr uint64_t kLineBiases = GPIO_V2_LINE_FLAG_BIAS_PULL_UP | GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN |
                                 GPIO_V2_LINE_FLAG_BIAS_DISABLED;
constexpr uint64_t kKnownLineFlags =
    GPIO_V2_LINE_FLAG_ACTIVE_LOW | kLineDirections | kEdges | kLineDrives | kLineBiases |
    GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME | GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE;

bool atMostOne(uint64_t bits) {
  return (bits & (bits - 1)) == 0;
}

/// 0, or the negated errno that flags of one line are refused with.
int checkFlags(uint64_t flags) {
  if ((flags & ~kKnownLineFlags) != 0) {
    return -EINVAL;
  }
  // A kernel without hardware timestamping, as distributions build it.
  if ((flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE) != 0) {
    return -EOPNOTSUPP;
  }
  const bool input = (flags & GPIO_V2_LINE_FLAG_INPUT) != 0;
  const bool output = (flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0;
  if ((input && output) || ((flags & kEdges) != 0 && !input) || !atMostOne(flags & kLineDrives) ||
      ((flags & kLineDrives) != 0 && !output) ||
      ((flags & kLineBiases) != 0 && !input && !output) || !atMostOne(flags & kLineBiases)) {
    return -EINVAL;
  }
  return 0;
}

/// A line configuration as one line of the request sees it: the first attribute of a kind that
/// names the line counts.
class LineConfig {
 public:
  explicit LineConfig(const gpio_v2_line_config& config) : config_(config) {}

  uint64_t flags(uint32_t index) const {
    const gpio_v2_line_attribute* found = find(index, GPIO_V2_LINE_ATTR_ID_FLAGS);
    return found != nullptr ? found->flags : config_.flags;
  }
  bool outputValue(uint32_t index) const {
    const gpio_v2_line_attribute* found = find(index, GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES);
    return found != nullptr && (found->values >> index & 1) != 0;
  }
  bool hasDebounce(uint32_t index) const {
    return find(index, GPIO_V2_LINE_ATTR_ID_DEBOUNCE) != nullptr;
  }
  uint32_t debounceMicroseconds(uint32_t index) const {
    const gpio_v2_line_attribute* found = find(index, GPIO_V2_LINE_ATTR_ID_DEBOUNCE);
    return found != nullptr ? found->debounce_period_us : 0;
  }

  int check(uint32_t lineCount) const {
    if (config_.num_attrs > GPIO_V2_LINE_NUM_ATTRS_MAX ||
        std::any_of(std::begin(config_.padding), std::end(config_.padding),
                    [](uint32_t word) { return word != 0; })) {
      return -EINVAL;
    }
    // Unused attributes count here as well.
    for (const gpio_v2_line_config_attribute& attribute : config_.attrs) {
      if (attribute.attr.padding != 0) {
        return -EINVAL;
      }
    }
    for (uint32_t i = 0; i < lineCount; ++i) {
      if (const int error = checkFlags(flags(i)); error != 0) {
        return error;
      }
      if (hasDebounce(i) && (flags(i) & GPIO_V2_LINE_FLAG_INPUT) == 0) {
        return -EINVAL;
      }
    }
    return 0;
  }

 private:
  const gpio_v2_line_attribute* find(uint32_t index, uint32_t id) const {
    for (uint32_t i = 0; i < config_.num_attrs; ++i) {
      if (config_.attrs[i].attr.id == id && (config_.attrs[i].mask >> index & 1) != 0) {
        return &config_.attrs[i].attr;
      }
    }
    return nullptr;
  }

  const gpio_v2_line_config& config_;
};

/// Lines that were requested together, with the events of those that detect edges.
class LineRequest : public GpioFile {
 public:
  explicit LineRequest(std::shared_ptr<GpioLines> lines)
      : GpioFile(std::move(lines)), events_(O_RDONLY | O_CLOEXEC) {}
  ~LineRequest() override {
    for (Line& line : held_) {
      stopDebounce(line);
      lines().release(line.offset);
    }
  }

  GpioEventQueue& events() { return events_; }

  int request(const gpio_v2_line_request& request) {
    const std::string consumer = gpioNameIn(request.consumer);
    const LineConfig config(request.config);
    asked_ = request.num_lines;
    const uint32_t size = request.event_buffer_size != 0 ? request.event_buffer_size
                                                         : request.num_lines * kEventsPerLine;
    bufferSize_ = std::min(size, kLargestBuffer);
    held_.reserve(asked_);  // timers refer to its elements
    for (uint32_t i = 0; i < request.num_lines; ++i) {
      const uint32_t offset = request.offsets[i];
      if (const int error = lines().request(offset, consumer, *this); error != 0) {
        return error;
      }
      held_.push_back({});
      held_[i].offset = offset;
      if (const int error = configure(held_[i], i, config); error != 0) {
        return error;
      }
      lines().announce(offset, GPIO_V2_LINE_CHANGED_REQUESTED);
    }
    return 0;
  }

  void lineLevelChanged(uint32_t offset, Level level, Time time) override {
    const auto found = std::find_if(held_.begin(), held_.end(),
                                    [offset](const Line& line) { return line.offset == offset; });
    if (found == held_.end()) {
      return;
    }
    if (found->debounce == Time::zero()) {
      report(*found, level, time);
      return;
    }
    Line& line = *found;
    cancelSettling(line);
    line.settling = clock().after(line.debounce, [this, &line] {
      line.settling.reset();
      const Level settled = lines().chip().level(static_cast<int>(line.offset));
      if (settled != line.settledLevel) {
        line.settledLevel = settled;
        report(line, settled, clock().now());
      }
    });
  }

  Result read(const iovec* buffers, int count) override {
    return readEach(buffers, count, [this](const iovec& buffer) -> Result {
      if (!lines().alive()) {
        return -ENODEV;
      }
      if (buffer.iov_len < sizeof(gpio_v2_line_event)) {
        return -EINVAL;
      }
      const Result ready = events_.waitForEvent(lines().chip().board());
      return ready != 0
                 ? ready
                 : events_.take(buffer, sizeof(gpio_v2_line_event), sizeof(gpio_v2_line_event));
    });
  }

  void hangUp() override {
    for (Line& line : held_) {
      stopDebounce(line);
    }
    events_.hangUp();
  }

 protected:
  Result answer(uint32_t request, void* argument) override {
    switch (request) {
      case GPIO_V2_LINE_GET_VALUES_IOCTL: return getValues(argument);
      case GPIO_V2_LINE_SET_VALUES_IOCTL: return setValues(argument);
      case GPIO_V2_LINE_SET_CONFIG_IOCTL: return setConfig(argument);
      default: return -EINVAL;
    }
  }

 private:
  struct Line {
    uint32_t offset = 0;
    uint64_t edges = 0;
    uint32_t events = 0;
    Time debounce{0};
    Level settledLevel = Level::Low;
    std::optional<Clock::EventId> settling;
  };

  Clock& clock() const { return lines().chip().board().clock(); }

  void cancelSettling(Line& line) {
    if (line.settling) {
      clock().cancel(*line.settling);
      line.settling.reset();
    }
  }

  void stopDebounce(Line& line) {
    if (lines().alive()) {
      cancelSettling(line);
      lines().setDebounce(line.offset, 0);
    }
    line.debounce = Time::zero();
  }

  void startDebounce(Line& line, uint32_t microseconds) {
    if (line.debounce == Time::zero()) {
      line.settledLevel = lines().chip().level(static_cast<int>(line.offset));
    }
    line.debounce = std::chrono::microseconds(microseconds);
    lines().setDebounce(line.offset, microseconds);
  }

  /// Without a direction flag a new line stays as it is. Edges count from when all is set up.
  int configure(Line& line, uint32_t index, const LineConfig& config) {
    const uint64_t flags = config.flags(index);
    lines().setFlags(line.offset, flags);
    line.edges = 0;
    if ((flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0) {
      stopDebounce(line);
      lines().makeOutput(line.offset, config.outputValue(index));
    } else if ((flags & GPIO_V2_LINE_FLAG_INPUT) != 0) {
      lines().makeInput(line.offset);
      if ((flags & kEdges) != 0 && capacity_ == 0) {
        // The kernel's queue has a power of two of places, and refuses to have only one.
        if (bufferSize_ < 2) {
          return -EINVAL;
        }
        capacity_ = std::bit_ceil(bufferSize_);
      }
      if (const uint32_t microseconds = config.debounceMicroseconds(index); microseconds != 0) {
        startDebounce(line, microseconds);
      } else {
        stopDebounce(line);
      }
    }
    line.edges = flags & kEdges;
    return 0;
  }

  void report(Line& line, Level level, Time time) {
    const bool rising = lines().isActive(line.offset, level);
    const uint64_t edge =
        rising ? uint64_t{GPIO_V2_LINE_FLAG_EDGE_RISING} : uint64_t{GPIO_V2_LINE_FLAG_EDGE_FALLING};
    if ((line.edges & edge) == 0) {
      return;
    }
    gpio_v2_line_event event = {};
    const bool realtime =
        (lines().flags(line.offset) & GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME) != 0;
    event.timestamp_ns = lines().timestamp(time, realtime ? CLOCK_REALTIME : CLOCK_MONOTONIC);
    event.id = rising ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE;
    event.offset = line.offset;
    event.line_seqno = ++line.events;
    event.seqno = ++totalEvents_;
    events_.push(event, capacity_, GpioEventQueue::Overflow::DropOldest);
  }

  Result getValues(void* argument) {
    gpio_v2_line_values values;
    if (!copyFromUser(&values, argument, sizeof(values))) {
      return -EFAULT;
    }
    if ((values.mask & maskOfAll()) == 0) {
      return -EINVAL;
    }
    values.bits = 0;
    for (size_t i = 0; i < held_.size(); ++i) {
      const Line& line = held_[i];
      const bool active = line.debounce != Time::zero()
                              ? lines().isActive(line.offset, line.settledLevel)
                              : lines().get(line.offset);
      if (active && (values.mask >> i & 1) != 0) {
        values.bits |= uint64_t{1} << i;
      }
    }
    return copyToUser(argument, &values, sizeof(values)) ? 0 : -EFAULT;
  }

  Result setValues(void* argument) {
    gpio_v2_line_values values;
    if (!copyFromUser(&values, argument, sizeof(values))) {
      return -EFAULT;
    }
    for (size_t i = 0; i < held_.size(); ++i) {
      if ((values.mask >> i & 1) != 0 && !lines().isOutput(held_[i].offset)) {
        return -EPERM;
      }
    }
    if ((values.mask & maskOfAll()) == 0) {
      return -EINVAL;
    }
    for (size_t i = 0; i < held_.size(); ++i) {
      if ((values.mask >> i & 1) != 0) {
        lines().set(held_[i].offset, (values.bits >> i & 1) != 0);
      }
    }
    return 0;
  }

  Result setConfig(void* argument) {
    gpio_v2_line_config asked;
    if (!copyFromUser(&asked, argument, sizeof(asked))) {
      return -EFAULT;
    }
    const LineConfig config(asked);
    if (const int error = config.check(asked_); error != 0) {
      return error;
    }
    for (uint32_t i = 0; i < asked_; ++i) {
      if ((config.flags(i) & kLineDirections) == 0) {
        continue;
      }
      if (const int error = configure(held_[i], i, config); error != 0) {
        return error;
      }
      lines().announce(held_[i].offset, GPIO_V2_LINE_CHANGED_CONFIG);
    }
    return 0;
  }

  uint64_t maskOfAll() const { return ~uint64_t{0} >> (GPIO_V2_LINES_MAX - asked_); }

  GpioEventQueue events_;
  std::vector<Line> held_;
  uint32_t asked_ = 0;
  uint32_t bufferSize_ = 0;
  size_t capacity_ = 0;
  uint32_t totalEvents_ = 0;
};

}  // namespace

Result makeLineRequest(const std::shared_ptr<GpioLines>& lines, void* argument) {
  gpio_v2_line_request request;
  if (!copyFromUser(&request, argument, sizeof(request))) {
    return -EFAULT;
  }
  if (request.num_lines == 0 || request.num_lines > GPIO_V2_LINES_MAX ||
      std::any_of(std::begin(request.padding), std::end(request.padding),
                  [](uint32_t word) { return word != 0; })) {
    return -EINVAL;
  }
  if (const int error = LineConfig(request.config).check(request.num_lines); error != 0) {
    return error;
  }
  auto file = std::make_shared<LineRequest>(lines);
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
