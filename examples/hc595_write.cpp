// SPDX-License-Identifier: MIT
// Lets a light run over the eight outputs of a 74HC595.
//
//   hc595_write [NODE [LATCH]]
//
//   NODE   spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   LATCH  GPIO line of the chip's RCLK, counted through all GPIO chips (default 22)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

constexpr uint16_t kBusSpeedKHz = 1000;
constexpr unsigned int kStepMs = 100;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto line = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 22U;

  // [setup]
  Orv::CLinuxIoPin latch(line, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  if (failed("taking the latch line", latch.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  bus.setSpiSpeedKHz(kBusSpeedKHz);
  if (failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  outputs.setBus(&bus);
  outputs.setLatchPin(&latch);
  // [setup]

  // [write]
  bool good = true;
  for (unsigned int bit = 0; good && bit < 8; ++bit) {
    const auto value = static_cast<uint8_t>(1U << bit);
    good = !failed("writing", outputs.writeOutputs(value, Varnel::CLinuxSpiDevice::DO_TRANSFER));
    std::printf("Q%c  0x%02x\n", static_cast<char>('A' + bit), value);
    Orv::CThread::sleep(kStepMs);
  }
  good = good && !failed("writing", outputs.writeOutputs(0, Varnel::CLinuxSpiDevice::DO_TRANSFER));
  // [write]
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
