// SPDX-License-Identifier: MIT
#include <linux/spi/spi.h>

#include "tests/system/Checks.h"
#include "tests/system/Transfer.h"

using Varnel::CLinuxSpiBus;

namespace checks {
namespace {

struct Controller {
  const char* name;
  const char* node;
  /// No transfer that it takes can end: there is no controller behind its driver.
  bool refusesOnly;
};

constexpr Controller kControllers[] = {
    {"i.MX", "/dev/spidev0.0", false},
    {"GPIO lines", "/dev/spidev5.0", false},
    {"Raspberry Pi", "/dev/spidev3.0", true},
};

void checkModes(Record& record, const std::string& name, CLinuxSpiBus& bus) {
  struct Mode {
    const char* name;
    uint8_t bits;
  };
  for (const Mode& mode :
       {Mode{"mode 1", SPI_MODE_1}, Mode{"mode 2", SPI_MODE_2}, Mode{"mode 3", SPI_MODE_3},
        Mode{"loop", SPI_LOOP}, Mode{"no select", SPI_NO_CS}, Mode{"select high", SPI_CS_HIGH}}) {
    record.run(name + ", " + mode.name, [&] { return bus.setMode(mode.bits); });
    record.note(name + ", after " + mode.name, readBack(bus.fileDescriptor()));
  }
  bus.setMode(SPI_MODE_0);
  record.run(name + ", LSB first", [&] { return bus.setLSBFirst(1); });
  record.note(name + ", after LSB first", readBack(bus.fileDescriptor()));
  if (bus.busSettings().LSBFirst != 0) {
    record.run(name + ", MSB first", [&] { return bus.setLSBFirst(0); });
  }
}

void checkWords(Record& record, const Controller& controller, CLinuxSpiBus& bus) {
  constexpr uint8_t kByte = 8;
  for (const uint8_t bits :
       std::initializer_list<uint8_t>{1, 7, 8, 9, 12, 15, 16, 17, 24, 32, 33}) {
    if (controller.refusesOnly && bits == kByte) {
      continue;
    }
    Transfer transfer({1, 2, 3, 4}, bits);
    const std::string result = outcome([&] { return bus.transferData(transfer.settings); });
    record.note(std::string(controller.name) + ", words of " + std::to_string(bits) + " bits",
                result + ", received " + hex(transfer.received()));
  }
  constexpr uint8_t kTwelve = 12;
  Transfer odd({1, 2, 3}, kTwelve);
  record.run(std::string(controller.name) + ", 3 bytes in words of 12 bits",
             [&] { return bus.transferData(odd.settings); });
}

}  // namespace

void checkControllers(Record& record) {
  for (const Controller& controller : kControllers) {
    const std::string name = controller.name;
    CLinuxSpiBus bus;
    bus.setSPIDevice(controller.node);
    bus.setSpiSpeedKHz(1000);
    record.run(name + ", open", [&] { return bus.open(); });
    record.note(name + ", after open", readBack(bus.fileDescriptor()));
    checkModes(record, name, bus);
    checkWords(record, controller, bus);
    record.note(name + ", in the end", readBack(bus.fileDescriptor()));
    record.run(name + ", close", [&] { return bus.close(); });
  }
}

}  // namespace checks
