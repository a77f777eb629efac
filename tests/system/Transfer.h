// SPDX-License-Identifier: MIT
#ifndef TESTS_SYSTEM_TRANSFER_H
#define TESTS_SYSTEM_TRANSFER_H

#include <cstdint>
#include <string>
#include <vector>

#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace checks {

/// What a receive buffer holds that nothing was received into.
constexpr uint8_t kUntouched = 0xEE;

/// Bytes to send, room for as many, and the record that the bus takes.
class Transfer {
 public:
  explicit Transfer(std::vector<uint8_t> bytes, uint8_t bitsPerWord = 8, uint32_t speedHz = 0)
      : sent_(std::move(bytes)), received_(sent_.size(), kUntouched) {
    spi_ioc_transfer& transfer = settings.ioc_transfer;
    transfer.tx_buf = reinterpret_cast<uintptr_t>(sent_.data());
    transfer.rx_buf = reinterpret_cast<uintptr_t>(received_.data());
    transfer.len = static_cast<uint32_t>(sent_.size());
    transfer.bits_per_word = bitsPerWord;
    transfer.speed_hz = speedHz;
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  const std::vector<uint8_t>& received() const { return received_; }
  bool touched() const { return received_.empty() || received_.front() != kUntouched; }

  Varnel::stSpiTransferSettings settings;

 private:
  std::vector<uint8_t> sent_;
  std::vector<uint8_t> received_;
};

/// What the kernel says about an open node: "mode 0, 8 bits, 500000 Hz".
std::string readBack(int descriptor);

/// One message of three zero bytes: "0, received 00 00 00". Shows that the bus works.
std::string threeBytes(Varnel::CLinuxSpiBus& bus);

}  // namespace checks

#endif
