// SPDX-License-Identifier: MIT
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"

#include <cassert>
#include <mutex>

#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 0;

}  // namespace

CSpiDigIn8Bit_LV165A::CSpiDigIn8Bit_LV165A() : CLinuxSpiDevice(nullptr, nullptr, nullptr) {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&m_Register);
  transfer.len = sizeof(m_Register);
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

CSpiDigIn8Bit_LV165A::~CSpiDigIn8Bit_LV165A() = default;

int32_t CSpiDigIn8Bit_LV165A::readInputs(bool doTransfer) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  const TErrCode code = transferData(doTransfer);
  if (code < 0) {
    return logReturnCode(code);
  }
  return m_Register;
}

TErrCode CSpiDigIn8Bit_LV165A::transferData(bool doWrite) {
  if (!doWrite) {
    return 0;
  }
  assert(m_LatchPin != nullptr && "a 74LV165A needs its load pin: call setLatchPin() first");
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = enableChipSelect(true);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::HIGH);
  if (code < 0) {
    return logReturnCode(code);
  }
  // The inputs are in the register by now, whatever the last write says. The chip stays selected.
  m_LatchPin->write(Orv::LOW);
  return executeChainedDataTransfer();
}

}  // namespace Varnel
