// SPDX-License-Identifier: MIT
#include "tests/system/Transfer.h"

#include <sys/ioctl.h>

#include "tests/system/Record.h"

namespace checks {

std::string readBack(int descriptor) {
  uint32_t mode = 0;
  uint8_t bits = 0;
  uint32_t speedHz = 0;
  if (ioctl(descriptor, SPI_IOC_RD_MODE32, &mode) < 0 ||
      ioctl(descriptor, SPI_IOC_RD_BITS_PER_WORD, &bits) < 0 ||
      ioctl(descriptor, SPI_IOC_RD_MAX_SPEED_HZ, &speedHz) < 0) {
    return "nothing";
  }
  return "mode " + std::to_string(mode) + ", " + std::to_string(bits) + " bits, " +
         std::to_string(speedHz) + " Hz";
}

std::string threeBytes(Varnel::CLinuxSpiBus& bus) {
  Transfer transfer({0, 0, 0});
  const std::string result = outcome([&] { return bus.transferData(transfer.settings); });
  return result + ", received " + hex(transfer.received());
}

}  // namespace checks
