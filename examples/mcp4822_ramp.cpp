// SPDX-License-Identifier: MIT
// Drives both outputs of an MCP4822: A climbs from 0 V to 2 V in steps of 0.25 V while B falls.
//
//   mcp4822_ramp [NODE [PIN [LDAC]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
//   LDAC  GPIO line of the chip's LDAC (default 24)
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

using Converter = Varnel::CSpiAnalogOut2x12Bit_MCP4822;

constexpr uint16_t kBusSpeedKHz = 1000;
constexpr uint16_t kOutputA = 0;
constexpr uint16_t kOutputB = 1;
constexpr int kSteps = 8;
constexpr unsigned int kStepMs = 100;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [volts]
// The driver runs both channels with gain 1: 4096 steps of 0.5 mV.
uint16_t valueFor(double volts) {
  return static_cast<uint16_t>(std::lround(volts * 4096 / 2.048));
}

// One value waits in the driver until the other is written: both outputs move on the same pulse.
bool setOutputs(Converter& converter, double voltsA, double voltsB) {
  return !failed("storing A",
                 converter.setValue(kOutputA, valueFor(voltsA), Converter::NO_WRITE)) &&
         !failed("writing both",
                 converter.setValue(kOutputB, valueFor(voltsB), Converter::DO_WRITE));
}
// [volts]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto pin = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;
  const auto ldac = argc > 3 ? static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)) : 24U;

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
  Converter converter;
  converter.setBus(&bus);
  converter.setChipSelector(&select);
  converter.configurePins(ldac);
  // Takes the LDAC line and deselects the chip. The bus is opened on its own, above.
  bool good = !failed("taking LDAC", converter.open());
  // [setup]

  for (int step = 0; good && step <= kSteps; ++step) {
    const double voltsA = 0.25 * step;
    const double voltsB = 0.25 * (kSteps - step);
    good = setOutputs(converter, voltsA, voltsB);
    if (good) {
      std::printf("A %.2f V  B %.2f V\n", voltsA, voltsB);
      Orv::CThread::sleep(kStepMs);
    }
  }

  // [close]
  // A failed write leaves the chip selected. The outputs keep their voltages.
  good = !failed("releasing the chip", converter.enableChipSelect(false)) && good;
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
  // [close]
}
