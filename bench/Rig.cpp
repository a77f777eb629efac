// SPDX-License-Identifier: MIT
#include "bench/Rig.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr const char* kNode = "/dev/spidev1.0";
constexpr uint32_t kSpeedHz = 1000000;

}  // namespace

Rig::Rig() : spi(board.addSpiBus({.number = 1})), gpio(board.addGpioChip({.lines = 32})) {
}

Rig::~Rig() {
  bus.close();
}

void Rig::start(uint16_t speedKHz) {
  kernel_ = std::make_unique<vboard::Kernel>(board, vboard::KernelOptions{.virtualTime = false});
  check(select.connect() == 0 && latch.connect() == 0, "connect the pins");
  check(bus.setSpiSpeedKHz(speedKHz) == 0 && bus.open() == 0, "open the bus");
}

ByHand::ByHand(uint8_t mode, uint8_t bitsPerWord) : node_(open(kNode, O_RDWR)) {
  check(node_ >= 0 && ioctl(node_, SPI_IOC_WR_MODE, &mode) == 0, "open the node");
  transfer_.speed_hz = kSpeedHz;
  transfer_.bits_per_word = bitsPerWord;
}

ByHand::~ByHand() {
  close(node_);
}

void ByHand::transfer(const void* tx, void* rx, uint32_t bytes) {
  transfer_.tx_buf = reinterpret_cast<uintptr_t>(tx);
  transfer_.rx_buf = reinterpret_cast<uintptr_t>(rx);
  transfer_.len = bytes;
  check(ioctl(node_, SPI_IOC_MESSAGE(1), &transfer_) >= 0, "a message by hand");
}

uint64_t allocationsOfOpening(Rig& rig) {
  return count("open and close", rig.board, [] { close(open(kNode, O_RDWR)); }).allocations;
}

}  // namespace bench
