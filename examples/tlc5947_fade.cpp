// SPDX-License-Identifier: MIT
// Fades eight RGB LEDs at a TLC5947 in, then leaves each one brighter than the one before.
//
//   tlc5947_fade [NODE [XLAT [BLANK]]]
//
//   NODE   spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   XLAT   GPIO line of the chip's XLAT, counted through all GPIO chips (default 22)
//   BLANK  GPIO line of the chip's BLANK (default 23)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

using Leds = Varnel::CSpiLedDriver12Bit_TLC5947;

constexpr uint16_t kBusSpeedKHz = 1000;
constexpr uint16_t kLeds = 8;
constexpr uint8_t kOutputsPerLed = 3;
constexpr unsigned int kSteps = 8;
constexpr unsigned int kStepMs = 50;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [fade]
// The eye takes equal ratios for equal steps, so the pulse width grows with the square.
uint16_t widthOf(unsigned int step) {
  return static_cast<uint16_t>(Leds::MAX_PWM * step * step / (kSteps * kSteps));
}

bool fadeIn(Leds& leds) {
  for (unsigned int step = 1; step <= kSteps; ++step) {
    const uint16_t width = widthOf(step);
    if (failed("fading", leds.setPWMs(0, kLeds - 1, width, Leds::DO_TRANSFER))) {
      return false;
    }
    std::printf("all LEDs  %4d of 4096\n", width);
    Orv::CThread::sleep(kStepMs);
  }
  return true;
}

// All but the last only change the table. One transfer carries it out.
bool showScale(Leds& leds) {
  for (uint16_t led = 0; led < kLeds; ++led) {
    const uint16_t width = widthOf(led + 1U);
    const bool last = led + 1 == kLeds;
    if (failed("setting an LED",
               leds.setPWM(led, width, last ? Leds::DO_TRANSFER : Leds::NO_TRANSFER))) {
      return false;
    }
    std::printf("LED %d     %4d of 4096\n", led, width);
  }
  return true;
}
// [fade]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto xlat = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 22U;
  const auto blank = argc > 3 ? static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)) : 23U;

  // [setup]
  Leds leds(24);
  leds.setChannelCount(kLeds, kOutputsPerLed);
  // Inverted, so that "enabled" is a low BLANK. Connecting the pin drives BLANK high: all off.
  leds.outputEnablePin().configure(blank, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin latch(xlat, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  if (failed("taking BLANK", leds.outputEnablePin().connect()) ||
      failed("taking XLAT", latch.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  leds.setBus(&bus);
  leds.setLatchPin(&latch);
  // The chip came up with noise: zeros first, then light.
  bool good = !failed("writing zeros", leds.transferData(Leds::DO_TRANSFER)) &&
              !failed("enabling the outputs", leds.setOutputEnable(true));
  // [setup]

  good = good && fadeIn(leds) && showScale(leds);
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
