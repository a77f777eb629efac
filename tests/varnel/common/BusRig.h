// SPDX-License-Identifier: MIT
#ifndef TESTS_VARNEL_COMMON_BUSRIG_H
#define TESTS_VARNEL_COMMON_BUSRIG_H

#include <mutex>
#include <string>
#include <vector>

#include "tests/wire/Selector.h"
#include "tests/wire/Wire.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

/// An open bus and one selected device on it, with a journal that starts empty.
struct BusRig {
  wire::Wire wire;
  Varnel::CLinuxSpiBus bus;
  wire::Selector selector{"chip"};
  Varnel::CLinuxSpiDevice device{&bus, &selector, nullptr};

  BusRig() {
    bus.open();
    wire.discard();
  }

  std::recursive_mutex& mutex() { return bus.transferMutex(); }

  /// What a caller does after a failed exchange.
  void recover(uint16_t speedKHz = 500) {
    selector.enable(false);
    bus.close();
    bus.setSpiSpeedKHz(speedKHz);
    bus.open();
  }
};

/// What opening the default node looks like.
inline wire::Lines opening(const std::string& mode = "0", const std::string& order = "0",
                           const std::string& speedHz = "500000") {
  return {"open(\"/dev/spidev1.0\", O_RDWR) = 7",
          "ioctl(7, SPI_IOC_WR_MODE32, " + mode + ") = 0",
          "ioctl(7, SPI_IOC_RD_MODE32) = 0 -> " + mode,
          "ioctl(7, SPI_IOC_WR_LSB_FIRST, " + order + ") = 0",
          "ioctl(7, SPI_IOC_WR_BITS_PER_WORD, 8) = 0",
          "ioctl(7, SPI_IOC_RD_BITS_PER_WORD) = 0 -> 8",
          "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, " + speedHz + ") = 0",
          "ioctl(7, SPI_IOC_RD_MAX_SPEED_HZ) = 0 -> " + speedHz};
}

/// A message of one transfer without buffers.
inline std::string emptyMessage(const std::string& speedHz = "500000") {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=null rx=null len=0 speed_hz=" + speedHz +
         " bits_per_word=0}) = 0";
}

/// The settling transfer of such a message.
inline std::string emptySettling(const std::string& speedHz = "500000") {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[] rx=null len=0 speed_hz=" + speedHz +
         " bits_per_word=0}) = 0";
}

#endif
