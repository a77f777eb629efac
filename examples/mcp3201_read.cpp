// SPDX-License-Identifier: MIT
// Reads an MCP3201 analog-to-digital converter ten times.
//
//   mcp3201_read [NODE [PIN [VREF]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
//   VREF  voltage at the chip's VREF pin (default 3.3)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

// What the chip takes at any supply from 2.7 V up; at 5 V it takes 1600.
constexpr uint16_t kBusSpeedKHz = 800;
constexpr double kSteps = 4096.0;
constexpr int kReadings = 10;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [open]
// The speed comes before everything else: a device never runs faster than its bus.
bool openBus(Varnel::CLinuxSpiBus& bus) {
  return !failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) &&
         !failed("opening the bus", bus.open());
}
// [open]

// [recover]
// After a failure the chip may still be selected, and the bus may have kept a setting. A bus must
// be closed before it is opened anew.
bool recover(Varnel::CLinuxSpiBus& bus, Varnel::CGpioPinChipSelector& select) {
  if (failed("releasing the chip", select.enable(false))) {
    return false;
  }
  if (bus.isOpen() && failed("closing the bus", bus.close())) {
    return false;
  }
  return openBus(bus);
}
// [recover]

// [read]
bool readInput(Varnel::CSpiAnalogIn1x12Bit_MCP3201& converter, uint16_t& code) {
  return !failed("reading", converter.readInput(&code, Varnel::CLinuxSpiDevice::DO_TRANSFER));
}
// [read]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto pin = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;
  const double vref = argc > 3 ? std::strtod(argv[3], nullptr) : 3.3;

  // [setup]
  // Connecting the select drives it high, not selected, before anything moves on the bus.
  Varnel::CGpioPinChipSelector select(pin, Orv::PIN_MODE_INVERT);
  if (failed("taking the select line", select.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 converter;
  converter.setBus(&bus);
  converter.setChipSelector(&select);
  bool good = openBus(bus);
  // [setup]

  for (int i = 0; good && i < kReadings; ++i) {
    uint16_t code = 0;
    // One failure may be a glitch: start afresh and read again. Two in a row are not.
    good = readInput(converter, code) || (recover(bus, select) && readInput(converter, code));
    if (good) {
      std::printf("code %4d  %.4f V\n", code, code * vref / kSteps);
    }
  }

  // [close]
  // The bus object does not close the node by itself, and a failure leaves the chip selected.
  good = !failed("releasing the chip", select.enable(false)) && good;
  if (bus.isOpen()) {
    good = !failed("closing the bus", bus.close()) && good;
  }
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
  // [close]
}
