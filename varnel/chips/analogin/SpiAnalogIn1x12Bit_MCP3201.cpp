// SPDX-License-Identifier: MIT
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"

#include <mutex>

#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 0;
constexpr uint32_t MAX_SPEED_HZ = 1600000;  // at 5 V supply
constexpr uint8_t BITS_PER_WORD = 15;

// The word as it comes off the wire, first bit left ("z": not driven, sampling):
//   bit  14 13 12 11  10 ...  1  0
//         z  z  0 B11 B10 ... B1 B0
// 15 bits put the code into the low 12 without a shift.
constexpr uint16_t CODE_MASK = 0x0FFF;

}  // namespace

CSpiAnalogIn1x12Bit_MCP3201::CSpiAnalogIn1x12Bit_MCP3201()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr) {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&m_TransferBuffer);
  transfer.len = sizeof(m_TransferBuffer);
  transfer.bits_per_word = BITS_PER_WORD;
  transfer.speed_hz = MAX_SPEED_HZ;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

int32_t CSpiAnalogIn1x12Bit_MCP3201::readInput(uint16_t* value, bool doTransfer) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  const TErrCode code = transferData(doTransfer);
  if (code < 0) {
    return logReturnCode(code);
  }
  *value = m_AnalogIn;
  return code;
}

TErrCode CSpiAnalogIn1x12Bit_MCP3201::transferData(bool doTransfer) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  if (!doTransfer) {
    return 0;
  }
  TErrCode code = enableChipSelect(true);
  if (code < 0) {
    return logReturnCode(code);
  }
  m_TransferBuffer = 0;
  code = executeChainedDataTransfer();
  if (code < 0) {
    return logReturnCode(code);  // the chip stays selected
  }
  m_AnalogIn = m_TransferBuffer & CODE_MASK;
  return enableChipSelect(false);
}

}  // namespace Varnel
