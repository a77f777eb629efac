// SPDX-License-Identifier: MIT
// Writes the outputs of a 74HC595 and reads them back with a 74LV165A whose inputs are wired to
// them: both on one bus.
//
//   lv165a_loopback [NODE [LATCH [LOAD]]]
//
//   NODE   spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   LATCH  GPIO line of the 74HC595's RCLK, counted through all GPIO chips (default 22)
//   LOAD   GPIO line of the 74LV165A's SH/LD (default 23)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

unsigned int lineOf(int argc, char** argv, int position, unsigned int otherwise) {
  return argc > position ? static_cast<unsigned int>(std::strtoul(argv[position], nullptr, 10))
                         : otherwise;
}

}  // namespace

int main(int argc, char** argv) {
  Orv::CLinuxIoPin latch(lineOf(argc, argv, 2, 22), Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  Orv::CLinuxIoPin load(lineOf(argc, argv, 3, 23), Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(argc > 1 ? argv[1] : "/dev/spidev1.0");
  if (failed("taking the latch line", latch.connect()) ||
      failed("taking the load line", load.connect()) || failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  outputs.setBus(&bus);
  outputs.setLatchPin(&latch);
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  inputs.setBus(&bus);
  inputs.setLatchPin(&load);

  bool good = true;
  for (const int written : {0x00, 0x0F, 0xA5, 0xFF}) {
    if (failed("writing", outputs.writeOutputs(static_cast<uint8_t>(written),
                                               Varnel::CLinuxSpiDevice::DO_TRANSFER))) {
      return EXIT_FAILURE;
    }
    const int32_t read = inputs.readInputs(Varnel::CLinuxSpiDevice::DO_TRANSFER);
    if (failed("reading", read)) {
      return EXIT_FAILURE;
    }
    std::printf("wrote 0x%02x, read 0x%02x\n", static_cast<unsigned int>(written),
                static_cast<unsigned int>(read));
    good = good && read == written;
  }
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
