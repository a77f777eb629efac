// SPDX-License-Identifier: MIT
#ifndef BENCH_RIG_H
#define BENCH_RIG_H

#include <linux/spi/spidev.h>

#include <cstdint>
#include <memory>

#include "bench/Bench.h"
#include "orv/LinuxIoPin.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace bench {

/// A board with one bus and one GPIO controller, and the library's bus on it. Chips are added
/// before `start`.
class Rig {
 public:
  static constexpr unsigned kSelect = 25;
  static constexpr unsigned kLatch = 22;

  Rig();
  ~Rig();
  /// The board runs from here on, in real time; the select and latch lines are taken, the bus is
  /// open.
  void start(uint16_t speedKHz = 1000);

  vboard::Board board;
  vboard::SpiBus& spi;
  vboard::GpioChip& gpio;
  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin select{kSelect, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
  Orv::CLinuxIoPin latch{kLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Varnel::CGpioPinChipSelector selector{select};

 private:
  std::unique_ptr<vboard::Kernel> kernel_;
};

/// The node as somebody has it who knows one chip and nothing else.
class ByHand {
 public:
  ByHand(uint8_t mode, uint8_t bitsPerWord);
  ~ByHand();
  ByHand(const ByHand&) = delete;
  ByHand& operator=(const ByHand&) = delete;
  /// One message of one transfer; either buffer may be null.
  void transfer(const void* tx, void* rx, uint32_t bytes);

 private:
  int node_;
  spi_ioc_transfer transfer_{};
};

/// Heap allocations of the virtual board when a node is opened and closed: what a transfer costs it
/// on a bus that is faster than the device.
uint64_t allocationsOfOpening(Rig& rig);

}  // namespace bench

#endif
