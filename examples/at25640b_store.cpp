// SPDX-License-Identifier: MIT
// Stores a text in an AT25640B EEPROM, byte by byte, and reads it back.
//
//   at25640b_store [NODE [PIN [TEXT]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
//   TEXT  what to store, at address 0 (default "Hello, board!")
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

using Memory = Varnel::EEPROM::C64kByte_At25640B;
using Lock = std::lock_guard<std::recursive_mutex>;

// The driver's own speed. A faster bus puts bytes of its own into every exchange.
constexpr uint16_t kBusSpeedKHz = 1000;
constexpr size_t kSize = 8192;
constexpr uint8_t kBusy = 0x01;
constexpr uint8_t kWriteEnabled = 0x02;
constexpr int kMaxPolls = 10;  // a write takes 5 ms at most

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [store]
// Enable and write: no other exchange with this chip may come between. The chip says of neither
// whether it took it, so that the status is looked at after the first.
bool startWrite(Memory& memory, uint16_t address, uint8_t value) {
  const Lock lock(memory.transferMutex());
  uint8_t status = 0;
  if (failed("enabling the write", memory.setWriteEnable(true)) ||
      failed("reading the status", memory.readStatus(status))) {
    return false;
  }
  if ((status & (kWriteEnabled | kBusy)) != kWriteEnabled) {
    std::fprintf(stderr, "the chip does not take a write: status 0x%02x\n", status);
    return false;
  }
  return !failed("writing", memory.writeByte(address, value));
}

// While the chip writes, the bus is free for other devices.
bool waitUntilWritten(Memory& memory) {
  for (int poll = 0; poll < kMaxPolls; ++poll) {
    Orv::CThread::sleep(1);
    const Lock lock(memory.transferMutex());
    uint8_t status = 0;
    if (failed("reading the status", memory.readStatus(status))) {
      return false;
    }
    if ((status & kBusy) == 0) {
      return true;
    }
  }
  std::fprintf(stderr, "the chip stays busy\n");
  return false;
}

bool read(Memory& memory, uint16_t address, uint8_t& value) {
  const Lock lock(memory.transferMutex());
  return !failed("reading", memory.readByte(address, value));
}

// A byte that is there already costs none of the million writes of its page.
bool store(Memory& memory, uint16_t address, uint8_t value, bool& written) {
  uint8_t stored = 0;
  if (!read(memory, address, stored)) {
    return false;
  }
  written = stored != value;
  if (!written) {
    return true;
  }
  if (!startWrite(memory, address, value) || !waitUntilWritten(memory) ||
      !read(memory, address, stored)) {
    return false;
  }
  if (stored != value) {
    std::fprintf(stderr, "0x%04x holds 0x%02x instead of 0x%02x\n", address, stored, value);
  }
  return stored == value;
}
// [store]

bool storeText(Memory& memory, const std::string& text) {
  int count = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    bool written = false;
    if (!store(memory, static_cast<uint16_t>(i), static_cast<uint8_t>(text[i]), written)) {
      return false;
    }
    count += written ? 1 : 0;
  }
  std::printf("wrote %d of %d bytes\n", count, static_cast<int>(text.size()));
  return true;
}

bool showText(Memory& memory, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    uint8_t value = 0;
    if (!read(memory, static_cast<uint16_t>(i), value)) {
      return false;
    }
    text += static_cast<char>(value);
  }
  std::printf("read back: %s\n", text.c_str());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto pin = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;
  const std::string text = argc > 3 ? argv[3] : "Hello, board!";
  if (text.size() > kSize) {
    std::fprintf(stderr, "the chip holds %d bytes\n", static_cast<int>(kSize));
    return EXIT_FAILURE;
  }

  // [setup]
  Varnel::CGpioPinChipSelector select(pin, Orv::PIN_MODE_INVERT);
  if (failed("taking the select line", select.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Memory memory;
  memory.setBus(&bus);
  memory.setChipSelector(&select);
  // [setup]

  const bool good = storeText(memory, text) && showText(memory, text.size());
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
