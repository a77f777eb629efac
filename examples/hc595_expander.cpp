// SPDX-License-Identifier: MIT
// Reads two MCP3201 converters that share a bus and are selected through a 74HC595: its outputs QA
// to QC are the address of a 3-to-8 decoder, whose outputs are the selects.
//
//   hc595_expander [NODE [LATCH]]
//
//   NODE   spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   LATCH  GPIO line of the 74HC595's RCLK, counted through all GPIO chips (default 22)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

using Varnel::CHC595ChipSelectDevice;
using Varnel::CLinuxSpiDevice;
using Varnel::CSpiAnalogIn1x12Bit_MCP3201;

constexpr uint16_t kBusSpeedKHz = 800;
constexpr uint8_t kNoAddress = 7;
constexpr double kVolts = 3.3 / 4096;

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

  // [setup]
  // The expander is destroyed last: it must outlive the devices attached to it.
  CHC595ChipSelectDevice expander;
  expander.setBus(&bus);
  expander.setLatchPin(&latch);
  // What the outputs hold at power-up is anybody's guess: no device is selected from here on.
  if (failed("deselecting all", expander.writeOutputs(kNoAddress, CLinuxSpiDevice::DO_TRANSFER))) {
    return EXIT_FAILURE;
  }
  CSpiAnalogIn1x12Bit_MCP3201 converters[2];
  for (uint8_t address = 0; address < 2; ++address) {
    converters[address].setBus(&bus);
    expander.attachSpiDevice(&converters[address], address,
                             CHC595ChipSelectDevice::ExplicitTransfer);
  }
  // [setup]

  // [read]
  bool good = true;
  for (int channel = 0; good && channel < 2; ++channel) {
    uint16_t code = 0;
    good = !failed("reading", converters[channel].readInput(&code, CLinuxSpiDevice::DO_TRANSFER));
    if (good) {
      std::printf("converter %d  code %4d  %.4f V\n", channel, code, code * kVolts);
    }
  }
  // [read]

  // [close]
  // A failed reading leaves its converter selected.
  good =
      !failed("deselecting all", expander.writeOutputs(kNoAddress, CLinuxSpiDevice::DO_TRANSFER)) &&
      good;
  // [close]
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
