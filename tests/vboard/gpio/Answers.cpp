// SPDX-License-Identifier: MIT
#include "tests/vboard/gpio/Answers.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <sstream>
#include <vector>

namespace {

constexpr uint32_t kNoLine = 8;

std::string errorName(int error) {
  switch (error) {
    case EINVAL: return "EINVAL";
    case EBUSY: return "EBUSY";
    case EPERM: return "EPERM";
    case EFAULT: return "EFAULT";
    case ENOTTY: return "ENOTTY";
    case EAGAIN: return "EAGAIN";
    case EBADF: return "EBADF";
    case ESPIPE: return "ESPIPE";
    case EOPNOTSUPP: return "EOPNOTSUPP";
    default: return "errno " + std::to_string(error);
  }
}

/// The transcript in the making.
class Interview {
 public:
  explicit Interview(const std::string& path) : chip_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {}
  ~Interview() { close(chip_); }
  Interview(const Interview&) = delete;
  Interview& operator=(const Interview&) = delete;

  int chip() const { return chip_; }
  std::string text() const { return out_.str(); }

  void say(const std::string& what, long result) {
    out_ << what << ": " << (result < 0 ? errorName(errno) : std::to_string(result)) << '\n';
  }
  void say(const std::string& what, const std::string& answer) {
    out_ << what << ": " << answer << '\n';
  }
  int ask(const std::string& what, int descriptor, unsigned long request, void* argument) {
    const int result = ioctl(descriptor, request, argument);
    say(what, result);
    return result;
  }

  /// Consumer and flags of a line, by both interfaces.
  void describe(const std::string& what, uint32_t offset) {
    gpioline_info first = {};
    first.line_offset = offset;
    const int one = ioctl(chip_, GPIO_GET_LINEINFO_IOCTL, &first);
    gpio_v2_line_info second = {};
    second.offset = offset;
    const int two = ioctl(chip_, GPIO_V2_GET_LINEINFO_IOCTL, &second);
    out_ << what << ": " << one << " '" << first.consumer << "' " << std::hex << first.flags << "; "
         << two << " '" << second.consumer << "' " << second.flags << std::dec << ' '
         << second.num_attrs << '\n';
  }

  /// A line handle or -1; the result goes on record.
  int handle(const std::string& what, std::vector<uint32_t> offsets, uint32_t flags,
             const char* consumer = "asker", uint8_t value = 0) {
    gpiohandle_request request = {};
    for (size_t i = 0; i < offsets.size() && i < GPIOHANDLES_MAX; ++i) {
      request.lineoffsets[i] = offsets[i];
      request.default_values[i] = value;
    }
    request.lines = static_cast<uint32_t>(offsets.size());
    request.flags = flags;
    std::strncpy(request.consumer_label, consumer, sizeof(request.consumer_label) - 1);
    const int result = ask(what, chip_, GPIO_GET_LINEHANDLE_IOCTL, &request);
    return result == 0 ? request.fd : -1;
  }

  int event(const std::string& what, uint32_t offset, uint32_t flags, uint32_t edges) {
    gpioevent_request request = {};
    request.lineoffset = offset;
    request.handleflags = flags;
    request.eventflags = edges;
    std::strcpy(request.consumer_label, "asker");
    const int result = ask(what, chip_, GPIO_GET_LINEEVENT_IOCTL, &request);
    return result == 0 ? request.fd : -1;
  }

  int lines(const std::string& what, const gpio_v2_line_request& request) {
    gpio_v2_line_request copy = request;
    const int result = ask(what, chip_, GPIO_V2_GET_LINE_IOCTL, &copy);
    return result == 0 ? copy.fd : -1;
  }

 private:
  int chip_;
  std::ostringstream out_;
};

gpio_v2_line_request requestOf(std::vector<uint32_t> offsets, uint64_t flags) {
  gpio_v2_line_request request = {};
  for (size_t i = 0; i < offsets.size() && i < GPIO_V2_LINES_MAX; ++i) {
    request.offsets[i] = offsets[i];
  }
  request.num_lines = static_cast<uint32_t>(offsets.size());
  request.config.flags = flags;
  std::strcpy(request.consumer, "asker");
  return request;
}

void closeAll(std::initializer_list<int> descriptors) {
  for (const int descriptor : descriptors) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

void askChip(Interview& to) {
  const int chip = to.chip();
  to.ask("chip info into nowhere", chip, GPIO_GET_CHIPINFO_IOCTL, nullptr);
  to.ask("unknown number of the type", chip, _IO(0xB4, 0x7F), nullptr);
  to.ask("unknown type", chip, _IO('k', 1), nullptr);
  to.ask("chip info with a wrong size", chip, _IOR(0xB4, 0x01, int), nullptr);
  to.ask("handle request on the chip", chip, GPIOHANDLE_GET_LINE_VALUES_IOCTL, nullptr);
  gpioline_info info = {};
  info.line_offset = kNoLine;
  to.ask("info of no line", chip, GPIO_GET_LINEINFO_IOCTL, &info);
  to.ask("info into nowhere", chip, GPIO_GET_LINEINFO_IOCTL, nullptr);
  gpio_v2_line_info info2 = {};
  info2.offset = kNoLine;
  to.ask("v2 info of no line", chip, GPIO_V2_GET_LINEINFO_IOCTL, &info2);
  info2.offset = 0;
  info2.padding[3] = 1;
  to.ask("v2 info with padding", chip, GPIO_V2_GET_LINEINFO_IOCTL, &info2);
  to.ask("v2 info into nowhere", chip, GPIO_V2_GET_LINEINFO_IOCTL, nullptr);
  to.describe("free line", 0);
  std::array<char, 512> buffer;
  to.say("seek", lseek(chip, 0, SEEK_SET));
  to.say("pread", pread(chip, buffer.data(), 1, 0));
  to.say("write", write(chip, "x", 1));
}

void askHandleFlags(Interview& to) {
  struct Case {
    const char* what;
    uint32_t flags;
  };
  constexpr uint32_t kIn = GPIOHANDLE_REQUEST_INPUT;
  constexpr uint32_t kOut = GPIOHANDLE_REQUEST_OUTPUT;
  const std::array<Case, 16> cases = {{
      {"as is", 0},
      {"input", kIn},
      {"output", kOut},
      {"both directions", kIn | kOut},
      {"unknown flag", 1U << 8},
      {"active low as is", GPIOHANDLE_REQUEST_ACTIVE_LOW},
      {"open drain output", kOut | GPIOHANDLE_REQUEST_OPEN_DRAIN},
      {"open source output", kOut | GPIOHANDLE_REQUEST_OPEN_SOURCE},
      {"open drain input", kIn | GPIOHANDLE_REQUEST_OPEN_DRAIN},
      {"open source as is", GPIOHANDLE_REQUEST_OPEN_SOURCE},
      {"both drives", kOut | GPIOHANDLE_REQUEST_OPEN_DRAIN | GPIOHANDLE_REQUEST_OPEN_SOURCE},
      {"pull up as is", GPIOHANDLE_REQUEST_BIAS_PULL_UP},
      {"pull up input", kIn | GPIOHANDLE_REQUEST_BIAS_PULL_UP},
      {"pull up output", kOut | GPIOHANDLE_REQUEST_BIAS_PULL_UP},
      {"both pulls", kIn | GPIOHANDLE_REQUEST_BIAS_PULL_UP | GPIOHANDLE_REQUEST_BIAS_PULL_DOWN},
      {"pull and none", kIn | GPIOHANDLE_REQUEST_BIAS_DISABLE | GPIOHANDLE_REQUEST_BIAS_PULL_DOWN},
  }};
  for (const Case& one : cases) {
    const int handle = to.handle(std::string("handle ") + one.what, {5}, one.flags);
    to.describe("  then", 5);
    closeAll({handle});
  }
  closeAll({to.handle("back to input", {5}, kIn)});
  to.describe("released", 5);
}

void askHandle(Interview& to) {
  to.ask("handle from nowhere", to.chip(), GPIO_GET_LINEHANDLE_IOCTL, nullptr);
  to.handle("handle without lines", {}, GPIOHANDLE_REQUEST_INPUT);
  to.handle("handle with 65 lines", std::vector<uint32_t>(65, 0), GPIOHANDLE_REQUEST_INPUT);
  to.handle("handle of no line", {kNoLine}, GPIOHANDLE_REQUEST_INPUT);
  to.handle("handle of a line twice", {4, 4}, GPIOHANDLE_REQUEST_INPUT);
  to.describe("  then", 4);
  const int unnamed = to.handle("handle without consumer", {4}, GPIOHANDLE_REQUEST_INPUT, "");
  to.describe("  then", 4);
  to.handle("held line", {4}, GPIOHANDLE_REQUEST_INPUT);
  to.handle("a free and a held line", {6, 4}, GPIOHANDLE_REQUEST_INPUT);
  to.describe("  the free one then", 6);
  gpiohandle_data data = {};
  to.ask("set an input", unnamed, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
  to.ask("set an input from nowhere", unnamed, GPIOHANDLE_SET_LINE_VALUES_IOCTL, nullptr);
  to.ask("get into nowhere", unnamed, GPIOHANDLE_GET_LINE_VALUES_IOCTL, nullptr);
  to.ask("unknown request on a handle", unnamed, _IO(0xB4, 0x7F), nullptr);
  std::array<char, 64> buffer;
  to.say("read a handle", read(unnamed, buffer.data(), buffer.size()));
  to.say("write a handle", write(unnamed, buffer.data(), 1));
  to.say("descriptor flags", fcntl(unnamed, F_GETFD));
  to.say("access mode", fcntl(unnamed, F_GETFL) & O_ACCMODE);
  pollfd waiting = {unnamed, POLLIN, 0};
  to.say("poll a handle", poll(&waiting, 1, 0));
  closeAll({unnamed});

  const int out = to.handle("two outputs, high", {0, 1}, GPIOHANDLE_REQUEST_OUTPUT, "pair", 7);
  to.ask("get outputs", out, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
  to.say("  values", std::to_string(data.values[0]) + std::to_string(data.values[1]));
  data = {};
  data.values[1] = 9;
  to.ask("set outputs", out, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
  to.ask("set outputs from nowhere", out, GPIOHANDLE_SET_LINE_VALUES_IOCTL, nullptr);
  to.ask("get again", out, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
  to.say("  values", std::to_string(data.values[0]) + std::to_string(data.values[1]));
  gpiohandle_config config = {};
  to.ask("config from nowhere", out, GPIOHANDLE_SET_CONFIG_IOCTL, nullptr);
  config.flags = 1U << 8;
  to.ask("config with an unknown flag", out, GPIOHANDLE_SET_CONFIG_IOCTL, &config);
  config.flags = GPIOHANDLE_REQUEST_ACTIVE_LOW;
  to.ask("config without direction", out, GPIOHANDLE_SET_CONFIG_IOCTL, &config);
  to.describe("  then", 0);
  config.flags = GPIOHANDLE_REQUEST_INPUT;
  config.padding[0] = 1;
  to.ask("config to input, with padding", out, GPIOHANDLE_SET_CONFIG_IOCTL, &config);
  to.describe("  then", 0);
  to.ask("set after that", out, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
  closeAll({out});
  to.describe("released", 0);

  const int left = to.handle("output, to be left", {2}, GPIOHANDLE_REQUEST_OUTPUT, "x", 1);
  closeAll({left});
  to.describe("released output", 2);
  const int again = to.handle("as is afterwards", {2}, 0);
  to.ask("get it", again, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
  to.say("  value", data.values[0]);
  data.values[0] = 0;
  to.ask("set it", again, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
  closeAll({again});
  closeAll({to.handle("back to input", {2}, GPIOHANDLE_REQUEST_INPUT)});
  const int longName = to.handle("long consumer", {2}, GPIOHANDLE_REQUEST_INPUT,
                                 "0123456789012345678901234567890123456789");
  to.describe("  then", 2);
  closeAll({longName});
}

void askEvent(Interview& to) {
  constexpr uint32_t kBoth = GPIOEVENT_REQUEST_BOTH_EDGES;
  to.ask("event from nowhere", to.chip(), GPIO_GET_LINEEVENT_IOCTL, nullptr);
  to.event("event of no line", kNoLine, GPIOHANDLE_REQUEST_INPUT, kBoth);
  to.event("event on an output", 1, GPIOHANDLE_REQUEST_OUTPUT, kBoth);
  to.event("event with open drain", 1, GPIOHANDLE_REQUEST_OPEN_DRAIN, kBoth);
  to.event("unknown edge", 1, GPIOHANDLE_REQUEST_INPUT, 4);
  to.event("unknown flag", 1, 1U << 8, kBoth);
  to.event("both pulls", 1, GPIOHANDLE_REQUEST_BIAS_PULL_UP | GPIOHANDLE_REQUEST_BIAS_PULL_DOWN,
           kBoth);
  closeAll({to.event("pull without direction", 1, GPIOHANDLE_REQUEST_BIAS_PULL_DOWN, kBoth)});
  closeAll({to.event("without direction", 1, 0, kBoth)});
  const int event = to.event("event", 1, GPIOHANDLE_REQUEST_INPUT, kBoth);
  to.describe("  then", 1);
  to.event("held", 1, GPIOHANDLE_REQUEST_INPUT, kBoth);
  gpiohandle_data data = {};
  to.ask("get", event, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
  to.ask("get into nowhere", event, GPIOHANDLE_GET_LINE_VALUES_IOCTL, nullptr);
  to.ask("set", event, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
  to.ask("config", event, GPIOHANDLE_SET_CONFIG_IOCTL, &data);
  pollfd waiting = {event, POLLIN, 0};
  to.say("poll", poll(&waiting, 1, 0));
  std::array<char, 64> buffer;
  to.say("short read", read(event, buffer.data(), sizeof(gpioevent_data) - 1));
  to.say("read of nothing", read(event, buffer.data(), 0));
  to.say("write", write(event, buffer.data(), 1));
  to.say("make it non-blocking", fcntl(event, F_SETFL, O_NONBLOCK));
  to.say("read", read(event, buffer.data(), buffer.size()));
  closeAll({event});
}

void askLineFlags(Interview& to) {
  struct Case {
    const char* what;
    uint64_t flags;
  };
  constexpr uint64_t kIn = GPIO_V2_LINE_FLAG_INPUT;
  constexpr uint64_t kOut = GPIO_V2_LINE_FLAG_OUTPUT;
  constexpr uint64_t kRising = GPIO_V2_LINE_FLAG_EDGE_RISING;
  const std::array<Case, 22> cases = {{
      {"as is", 0},
      {"input", kIn},
      {"output", kOut},
      {"both directions", kIn | kOut},
      {"used", GPIO_V2_LINE_FLAG_USED | kIn},
      {"unknown flag", uint64_t{1} << 40 | kIn},
      {"active low as is", GPIO_V2_LINE_FLAG_ACTIVE_LOW},
      {"edge input", kIn | kRising},
      {"edge as is", kRising},
      {"edge output", kOut | kRising},
      {"open drain output", kOut | GPIO_V2_LINE_FLAG_OPEN_DRAIN},
      {"open drain input", kIn | GPIO_V2_LINE_FLAG_OPEN_DRAIN},
      {"open source as is", GPIO_V2_LINE_FLAG_OPEN_SOURCE},
      {"both drives", kOut | GPIO_V2_LINE_FLAG_OPEN_DRAIN | GPIO_V2_LINE_FLAG_OPEN_SOURCE},
      {"pull up as is", GPIO_V2_LINE_FLAG_BIAS_PULL_UP},
      {"pull up input", kIn | GPIO_V2_LINE_FLAG_BIAS_PULL_UP},
      {"no pull output", kOut | GPIO_V2_LINE_FLAG_BIAS_DISABLED},
      {"both pulls", kIn | GPIO_V2_LINE_FLAG_BIAS_PULL_UP | GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN},
      {"realtime input", kIn | GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME},
      {"realtime as is", GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME},
      {"hardware clock", kIn | GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE},
      {"hardware clock and more wrong", kIn | kOut | GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE},
  }};
  for (const Case& one : cases) {
    const int lines = to.lines(std::string("v2 ") + one.what, requestOf({5}, one.flags));
    if (lines >= 0) {
      to.describe("  then", 5);
    }
    closeAll({lines});
  }
  closeAll({to.lines("back to input", requestOf({5}, kIn))});
}

void askAttributes(Interview& to) {
  gpio_v2_line_request request = requestOf({0, 3}, GPIO_V2_LINE_FLAG_OUTPUT);
  request.config.num_attrs = 11;
  to.lines("too many attributes", request);
  request.config.num_attrs = 0;
  request.config.padding[2] = 1;
  to.lines("config padding", request);
  request.config.padding[2] = 0;
  request.padding[4] = 1;
  to.lines("request padding", request);
  request.padding[4] = 0;

  request.config.num_attrs = 2;
  request.config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_FLAGS;
  request.config.attrs[0].attr.flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_ACTIVE_LOW;
  request.config.attrs[0].mask = 2;
  request.config.attrs[1].attr.id = GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES;
  request.config.attrs[1].attr.values = 3;
  request.config.attrs[1].mask = 1;
  const int mixed = to.lines("an output and an input", request);
  to.describe("  output", 0);
  to.describe("  input", 3);
  gpio_v2_line_values values = {0, 3};
  to.ask("get both", mixed, GPIO_V2_LINE_GET_VALUES_IOCTL, &values);
  to.say("  values", static_cast<long>(values.bits));
  values = {0, 0};
  to.ask("get none", mixed, GPIO_V2_LINE_GET_VALUES_IOCTL, &values);
  values = {0, 4};
  to.ask("get another", mixed, GPIO_V2_LINE_GET_VALUES_IOCTL, &values);
  values = {7, 6};
  to.ask("get one and another", mixed, GPIO_V2_LINE_GET_VALUES_IOCTL, &values);
  to.say("  values", static_cast<long>(values.bits));
  to.say("  mask", static_cast<long>(values.mask));
  values = {0, 3};
  to.ask("set both", mixed, GPIO_V2_LINE_SET_VALUES_IOCTL, &values);
  values = {0, 0};
  to.ask("set none", mixed, GPIO_V2_LINE_SET_VALUES_IOCTL, &values);
  values = {0, 1};
  to.ask("set the output", mixed, GPIO_V2_LINE_SET_VALUES_IOCTL, &values);
  to.ask("get from nowhere", mixed, GPIO_V2_LINE_GET_VALUES_IOCTL, nullptr);
  to.ask("set from nowhere", mixed, GPIO_V2_LINE_SET_VALUES_IOCTL, nullptr);
  to.ask("unknown request", mixed, _IO(0xB4, 0x7F), nullptr);
  to.ask("request of the first interface", mixed, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &values);
  closeAll({mixed});

  request = requestOf({1}, GPIO_V2_LINE_FLAG_OUTPUT);
  request.config.num_attrs = 1;
  request.config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_DEBOUNCE;
  request.config.attrs[0].attr.debounce_period_us = 100;
  request.config.attrs[0].mask = 1;
  to.lines("debounced output", request);
  request.config.flags = 0;
  to.lines("debounced as is", request);
  request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
  const int debounced = to.lines("debounced input", request);
  to.describe("  then", 1);
  closeAll({debounced});
  to.describe("released", 1);
  request.config.flags |= GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME;
  closeAll({to.lines("with the realtime clock", request)});
  to.describe("released", 1);
  closeAll({to.handle("by the first interface", {1}, GPIOHANDLE_REQUEST_INPUT)});
  to.describe("released", 1);
  request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
  request.config.attrs[0].attr.debounce_period_us = 0;
  closeAll({to.lines("debounced by nothing", request)});
  request.config.attrs[0].attr.padding = 1;
  closeAll({to.lines("attribute padding", request)});
  request.config.attrs[0].attr.padding = 0;
  request.config.attrs[5].attr.padding = 1;
  closeAll({to.lines("padding of an unused attribute", request)});
  request.config.attrs[5].attr.padding = 0;
  request.config.attrs[0].attr.id = 99;
  closeAll({to.lines("unknown attribute", request)});
  closeAll({to.lines("back to input", requestOf({0}, GPIO_V2_LINE_FLAG_INPUT))});
}

void askLines(Interview& to) {
  constexpr uint64_t kEdgeInput = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING;
  to.ask("v2 from nowhere", to.chip(), GPIO_V2_GET_LINE_IOCTL, nullptr);
  to.lines("v2 without lines", requestOf({}, GPIO_V2_LINE_FLAG_INPUT));
  to.lines("v2 with 65 lines", requestOf(std::vector<uint32_t>(65, 0), GPIO_V2_LINE_FLAG_INPUT));
  to.lines("v2 of no line", requestOf({kNoLine}, GPIO_V2_LINE_FLAG_INPUT));
  to.lines("v2 of a line twice", requestOf({4, 4}, GPIO_V2_LINE_FLAG_INPUT));
  const int lines = to.lines("v2 edge", requestOf({4}, kEdgeInput));
  to.describe("  then", 4);
  to.lines("v2 held", requestOf({4}, GPIO_V2_LINE_FLAG_INPUT));
  to.handle("handle held", {4}, GPIOHANDLE_REQUEST_INPUT);
  pollfd waiting = {lines, POLLIN, 0};
  to.say("poll", poll(&waiting, 1, 0));
  std::array<char, 256> buffer;
  to.say("short read", read(lines, buffer.data(), sizeof(gpio_v2_line_event) - 1));
  to.say("make it non-blocking", fcntl(lines, F_SETFL, O_NONBLOCK));
  to.say("read", read(lines, buffer.data(), buffer.size()));
  gpio_v2_line_config config = {};
  to.ask("v2 config from nowhere", lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, nullptr);
  config.flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT;
  to.ask("v2 config both directions", lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config);
  config.flags = GPIO_V2_LINE_FLAG_ACTIVE_LOW;
  to.ask("v2 config without direction", lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config);
  to.describe("  then", 4);
  config.flags = GPIO_V2_LINE_FLAG_OUTPUT | GPIO_V2_LINE_FLAG_OPEN_DRAIN;
  to.ask("v2 config open drain", lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config);
  to.describe("  then", 4);
  config.flags = GPIO_V2_LINE_FLAG_INPUT;
  to.ask("v2 config input", lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config);
  closeAll({lines});
  gpio_v2_line_request request = requestOf({4}, kEdgeInput);
  request.event_buffer_size = 1;
  closeAll({to.lines("buffer for one event", request)});
  request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
  const int plain = to.lines("buffer for one event, no edges", request);
  waiting = {plain, POLLIN, 0};
  to.say("poll without edges", poll(&waiting, 1, 0));
  fcntl(plain, F_SETFL, O_NONBLOCK);
  to.say("read without edges", read(plain, buffer.data(), buffer.size()));
  closeAll({plain});
  const int late = to.lines("no edges at first, buffer for one", request);
  config.flags = kEdgeInput;
  to.ask("edges later", late, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config);
  to.describe("  then", 4);
  closeAll({late});
  request.event_buffer_size = 1000000;
  request.config.flags = kEdgeInput;
  closeAll({to.lines("buffer for a million", request)});
}

void askWatch(Interview& to) {
  const int chip = to.chip();
  uint32_t offset = kNoLine;
  to.ask("unwatch no line", chip, GPIO_GET_LINEINFO_UNWATCH_IOCTL, &offset);
  to.ask("unwatch from nowhere", chip, GPIO_GET_LINEINFO_UNWATCH_IOCTL, nullptr);
  offset = 6;
  to.ask("unwatch unwatched", chip, GPIO_GET_LINEINFO_UNWATCH_IOCTL, &offset);
  pollfd waiting = {chip, POLLIN, 0};
  to.say("poll the chip", poll(&waiting, 1, 0));
  fcntl(chip, F_SETFL, fcntl(chip, F_GETFL) | O_NONBLOCK);
  std::array<char, 4096> buffer;
  to.say("read the chip", read(chip, buffer.data(), buffer.size()));
  to.say("read nothing", read(chip, buffer.data(), 0));
  gpio_v2_line_info info = {};
  info.offset = 6;
  to.ask("watch", chip, GPIO_V2_GET_LINEINFO_WATCH_IOCTL, &info);
  to.ask("watch again", chip, GPIO_V2_GET_LINEINFO_WATCH_IOCTL, &info);
  gpioline_info first = {};
  first.line_offset = 5;
  to.ask("watch by the first interface", chip, GPIO_GET_LINEINFO_WATCH_IOCTL, &first);
  to.say("read with nothing there", read(chip, buffer.data(), 1));
  closeAll({to.handle("use the line", {6}, GPIOHANDLE_REQUEST_INPUT | GPIOHANDLE_REQUEST_ACTIVE_LOW,
                      "user")});
  to.say("poll the chip", poll(&waiting, 1, 0));
  to.say("short read", read(chip, buffer.data(), sizeof(gpio_v2_line_info_changed) - 1));
  const ssize_t got = read(chip, buffer.data(), buffer.size());
  to.say("read the chip", got / static_cast<ssize_t>(sizeof(gpio_v2_line_info_changed)));
  for (ssize_t at = 0; at < got; at += static_cast<ssize_t>(sizeof(gpio_v2_line_info_changed))) {
    gpio_v2_line_info_changed change;
    std::memcpy(&change, buffer.data() + at, sizeof(change));
    std::ostringstream text;
    text << change.event_type << ' ' << change.info.offset << " '" << change.info.consumer << "' "
         << std::hex << change.info.flags;
    to.say("  change", text.str());
  }
  for (int i = 0; i < 20; ++i) {
    gpio_v2_line_request request = requestOf({6}, GPIO_V2_LINE_FLAG_INPUT);
    ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &request);
    close(request.fd);
  }
  std::array<gpio_v2_line_info_changed, 64> changes;
  to.say("changes kept of 40", read(chip, changes.data(), sizeof(changes)) /
                                   static_cast<ssize_t>(sizeof(gpio_v2_line_info_changed)));
  offset = 6;
  to.ask("unwatch", chip, GPIO_GET_LINEINFO_UNWATCH_IOCTL, &offset);
  to.ask("watch by the first interface", chip, GPIO_GET_LINEINFO_WATCH_IOCTL, &first);
}

/// Two changes wait; how many come into a buffer depends on its room in an odd way.
void askFirstWatch(Interview& to) {
  const int chip = to.chip();
  gpioline_info info = {};
  info.line_offset = 6;
  to.ask("first watch", chip, GPIO_GET_LINEINFO_WATCH_IOCTL, &info);
  gpio_v2_line_info other = {};
  other.offset = 5;
  to.ask("watch by the second interface", chip, GPIO_V2_GET_LINEINFO_WATCH_IOCTL, &other);
  closeAll({to.handle("use the line", {6}, GPIOHANDLE_REQUEST_INPUT)});
  closeAll({to.handle("use the line", {6}, GPIOHANDLE_REQUEST_INPUT)});
  std::array<gpioline_info_changed, 16> changes;
  to.say("read into room for two", read(chip, changes.data(), 2 * sizeof(gpioline_info_changed)) /
                                       static_cast<ssize_t>(sizeof(gpioline_info_changed)));
  to.say("read the rest", read(chip, changes.data(), sizeof(changes)) /
                              static_cast<ssize_t>(sizeof(gpioline_info_changed)));
}

}  // namespace

std::string gpioAnswers(const std::string& path) {
  std::string text;
  for (const auto ask : {askChip, askHandleFlags, askHandle, askEvent, askLineFlags, askAttributes,
                         askLines, askWatch, askFirstWatch}) {
    Interview interview(path);
    ask(interview);
    text += interview.text();
  }
  return text;
}
