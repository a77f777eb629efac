// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <optional>

#include "orv/LinuxIoPin.h"
#include "orv/PinMap.h"
#include "tests/system/Checks.h"

using Orv::CLinuxIoPin;
using Orv::CPinMap;

namespace checks {
namespace {

/// The fifth controller: lines 0 to 3 have names, line 5 is the kernel's own.
constexpr const char* kNamedChip = "/dev/gpiochip4";
constexpr unsigned int kNamedFirst = 128;
constexpr unsigned int kHeldPin = kNamedFirst + 5;
constexpr unsigned int kFreeLine = 8;
constexpr unsigned int kFreePin = kNamedFirst + kFreeLine;
constexpr unsigned int kBeyondLast = 224;

/// The level of a free line, without changing it.
std::string wireLevel(unsigned int line) {
  const int chip = ::open(kNamedChip, O_RDWR);
  gpio_v2_line_request request{};
  request.offsets[0] = line;
  request.num_lines = 1;
  std::string level = "unknown";
  if (ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &request) == 0) {
    gpio_v2_line_values values{};
    values.mask = 1;
    if (ioctl(request.fd, GPIO_V2_LINE_GET_VALUES_IOCTL, &values) == 0) {
      level = (values.bits & 1U) != 0 ? "high" : "low";
    }
    ::close(request.fd);
  }
  ::close(chip);
  return level;
}

/// What the kernel says about a line: "used by varnel, output, active low".
std::string lineInfo(unsigned int line) {
  const int chip = ::open(kNamedChip, O_RDWR);
  gpio_v2_line_info info{};
  info.offset = line;
  const int result = ioctl(chip, GPIO_V2_GET_LINEINFO_IOCTL, &info);
  ::close(chip);
  if (result < 0) {
    return "unknown";
  }
  std::string text =
      (info.flags & GPIO_V2_LINE_FLAG_USED) != 0 ? "used by " + std::string(info.consumer) : "free";
  text += (info.flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0 ? ", output" : ", input";
  text += (info.flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0 ? ", active low" : "";
  return text;
}

void checkOutput(Record& record) {
  std::optional<CLinuxIoPin> pin(std::in_place, kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  record.run("write before connect", [&] { return pin->write(Orv::HIGH); });
  record.run("output: connect", [&] { return pin->connect(); });
  record.note("output: the kernel says", lineInfo(kFreeLine));
  record.run("output: read at first", [&] { return pin->read(); });
  record.run("output: write high", [&] { return pin->write(Orv::HIGH); });
  record.run("output: read high", [&] { return pin->read(); });
  record.run("output: connect once more", [&] { return pin->connect(); });
  record.run("output: still high", [&] { return pin->read(); });
  CLinuxIoPin other(kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  record.run("output: another pin on the line", [&] { return other.connect(); });
  const CLinuxIoPin copy(*pin);
  pin->configure(kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  record.run("output: configured anew while a copy has the line", [&] { return pin->connect(); });
  record.note("output: the copy has it", lineInfo(kFreeLine));
}

void checkRelease(Record& record) {
  record.note("released: the kernel says", lineInfo(kFreeLine));
  record.note("released: wire", wireLevel(kFreeLine));
  CLinuxIoPin again(kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  record.run("reconnect", [&] { return again.connect(); });
  record.run("reconnect: read", [&] { return again.read(); });
}

void checkActiveLow(Record& record) {
  std::optional<CLinuxIoPin> pin(std::in_place, kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  record.run("active low: connect", [&] { return pin->connect(); });
  record.note("active low: the kernel says", lineInfo(kFreeLine));
  record.run("active low: read at first", [&] { return pin->read(); });
  pin.reset();
  record.note("active low: wire at first", wireLevel(kFreeLine));
  pin.emplace(kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  record.run("active low: connect again", [&] { return pin->connect(); });
  record.run("active low: write high", [&] { return pin->write(Orv::HIGH); });
  record.run("active low: read", [&] { return pin->read(); });
  pin.reset();
  record.note("active low: wire", wireLevel(kFreeLine));
}

void checkInput(Record& record) {
  CLinuxIoPin pin(kFreePin, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
  record.run("read before connect", [&] { return pin.read(); });
  record.run("input: connect", [&] { return pin.connect(); });
  record.note("input: the kernel says", lineInfo(kFreeLine));
  record.run("input: write", [&] { return pin.write(Orv::HIGH); });
  pin.configure(kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  record.run("input made an output: connect", [&] { return pin.connect(); });
  record.note("input made an output: the kernel says", lineInfo(kFreeLine));
}

void checkRefusals(Record& record) {
  const auto connect = [](unsigned int number) {
    return CLinuxIoPin(number, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW).connect();
  };
  record.run("line that the kernel holds", [&] { return connect(kHeldPin); });
  record.run("last line", [&] { return connect(kBeyondLast - 1); });
  record.run("line beyond the last", [&] { return connect(kBeyondLast); });
}

void checkMap(Record& record) {
  CPinMap map;
  record.run("map: name", [&] { return map.addLineName(1, "LAMP"); });
  record.run("map: name that two lines have", [&] { return map.addLineName(2, "TWICE"); });
  record.run("map: name that no line has", [&] { return map.addLineName(3, "NOWHERE"); });
  record.run("map: label", [&] { return map.addLine(4, "20ac000.gpio", kFreeLine); });
  record.run("map: label that no chip has", [&] { return map.addLine(5, "nowhere", 0); });
  record.run("map: chip", [&] { return map.addRange(100, 2, "gpiochip4", kFreeLine + 1); });
  record.run("map: line beyond the chip's", [&] { return map.addLine(6, kNamedChip, 32); });
  record.run("map: number that is taken", [&] { return map.addLineName(101, "VALVE"); });
  CPinMap::install(map);
  for (const unsigned int number : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 100U, 101U}) {
    CLinuxIoPin pin(number, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
    const std::string name = "map: pin " + std::to_string(number);
    record.run(name, [&] { return pin.connect(); });
    if (number == 1) {
      record.note("map: LAMP is", lineInfo(0));
    } else if (number == 4) {
      record.note("map: the labelled chip's line is", lineInfo(kFreeLine));
    } else if (number == 101) {
      record.note("map: the second of the range is", lineInfo(kFreeLine + 2));
    }
  }
  CPinMap::uninstall();
  CLinuxIoPin counted(kFreePin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  record.run("map uninstalled", [&] { return counted.connect(); });
}

}  // namespace

void checkPins(Record& record) {
  checkOutput(record);
  checkRelease(record);
  checkActiveLow(record);
  checkInput(record);
  checkRefusals(record);
  checkMap(record);
}

}  // namespace checks
