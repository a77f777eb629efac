// SPDX-License-Identifier: MIT
// Reads the eight inputs of a 74LV165A five times.
//
//   lv165a_read [NODE [LOAD]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   LOAD  GPIO line of the chip's SH/LD, counted through all GPIO chips (default 23)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

constexpr uint16_t kBusSpeedKHz = 1000;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto line = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 23U;

  // [setup]
  // Inverted: the driver leaves the pin logically low, and the chip shifts while SH/LD is high.
  Orv::CLinuxIoPin load(line, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  if (failed("taking the load line", load.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  bus.setSpiSpeedKHz(kBusSpeedKHz);
  if (failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  inputs.setBus(&bus);
  inputs.setLatchPin(&load);
  // [setup]

  // [read]
  bool good = true;
  for (int i = 0; good && i < 5; ++i) {
    const int32_t value = inputs.readInputs(Varnel::CLinuxSpiDevice::DO_TRANSFER);
    good = !failed("reading", value);
    if (good) {
      std::printf("inputs 0x%02x  A %d  H %d\n", static_cast<unsigned int>(value), value & 1,
                  value >> 7);
    }
  }
  // [read]
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
