// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxSpiDevice.h"

#include <cassert>
#include <utility>

#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint8_t DEFAULT_BITS_PER_WORD = 8;

}  // namespace

ILinuxSpiChipSelector::~ILinuxSpiChipSelector() = default;

CGpioPinChipSelector::CGpioPinChipSelector(const Orv::CLinuxIoPin& pin) : m_IoPin(pin) {
}

CGpioPinChipSelector::CGpioPinChipSelector(unsigned int pin, Orv::ePinMode mode)
    : m_IoPin(pin, Orv::OUTPUT_PIN, mode) {
}

CGpioPinChipSelector::~CGpioPinChipSelector() = default;

TErrCode CGpioPinChipSelector::connect() {
  return m_IoPin.connect();
}

TErrCode CGpioPinChipSelector::enable(bool select) {
  return m_IoPin.write(select ? Orv::HIGH : Orv::LOW);
}

CLinuxSpiDevice::CLinuxSpiDevice(CLinuxSpiBus* bus, ILinuxSpiChipSelector* chipSelector,
                                 Orv::CLinuxIoPin* latchPin)
    : m_Bus(bus),
      m_ChipSelect(chipSelector),
      m_LatchPin(latchPin),
      m_DeviceChain(std::make_shared<std::vector<CLinuxSpiDevice*>>()) {
  m_TransferSettings.ioc_transfer.bits_per_word = DEFAULT_BITS_PER_WORD;
}

void CLinuxSpiDevice::setBus(CLinuxSpiBus* bus) {
  m_Bus = bus;
}

void CLinuxSpiDevice::setChipSelector(ILinuxSpiChipSelector* chipSelector) {
  m_ChipSelect = chipSelector;
}

ILinuxSpiChipSelector* CLinuxSpiDevice::chipSelector() const {
  return m_ChipSelect;
}

void CLinuxSpiDevice::setLatchPin(Orv::CLinuxIoPin* latchPin) {
  m_LatchPin = latchPin;
}

Orv::CLinuxIoPin& CLinuxSpiDevice::latchPin() {
  assert(m_LatchPin != nullptr && "latchPin() needs a latch pin: call setLatchPin() first");
  return *m_LatchPin;
}

void CLinuxSpiDevice::setDeviceChain(std::shared_ptr<std::vector<CLinuxSpiDevice*>> deviceChain) {
  m_DeviceChain = std::move(deviceChain);
}

std::shared_ptr<std::vector<CLinuxSpiDevice*>> CLinuxSpiDevice::deviceChain() const {
  return m_DeviceChain;
}

std::recursive_mutex& CLinuxSpiDevice::transferMutex() {
  assert(m_Bus != nullptr && "a device needs a bus: call setBus() first");
  return m_Bus->transferMutex();
}

TErrCode CLinuxSpiDevice::enableChipSelect(bool select) {
  return m_ChipSelect == nullptr ? 0 : m_ChipSelect->enable(select);
}

TErrCode CLinuxSpiDevice::executeTransfer(stSpiMultipleTransferSettings& settings) {
  assert(m_Bus != nullptr && "a device needs a bus: call setBus() first");
  const TErrCode code = m_Bus->transferMultipleData(settings);
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CLinuxSpiDevice::executeManagedTransfer(stSpiMultipleTransferSettings& settings,
                                                 eCS_Handling handling) {
  assert(m_Bus != nullptr && "a device needs a bus: call setBus() first");
  const TErrCode code = m_Bus->executeManagedTransferMultipleData(this, settings, handling);
  return code < 0 ? logReturnCode(code) : code;
}

CLinuxSpiDevice::~CLinuxSpiDevice() = default;

TErrCode CLinuxSpiDevice::executeTransfer() {
  assert(m_Bus != nullptr && "a device needs a bus: call setBus() first");
  const TErrCode code = m_Bus->transferData(m_TransferSettings);
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CLinuxSpiDevice::executeManagedTransfer(eCS_Handling handling) {
  assert(m_Bus != nullptr && "a device needs a bus: call setBus() first");
  const TErrCode code = m_Bus->executeManagedTransfer(this, m_TransferSettings, handling);
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CLinuxSpiDevice::executeChainedDataTransfer() {
  if (m_DeviceChain == nullptr || m_DeviceChain->empty()) {
    const TErrCode code = executeTransfer();
    return code < 0 ? logReturnCode(code) : code;
  }
  // The chip farthest down the chain comes first on the wire: its data still has to pass through
  // all the others.
  for (auto member = m_DeviceChain->rbegin(); member != m_DeviceChain->rend(); ++member) {
    const TErrCode code = (*member)->executeTransfer();
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  return 0;
}

TErrCode CLinuxSpiDevice::transferData(bool doTransfer) {
  if (!doTransfer) {
    return 0;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = 0;
  if (m_LatchPin != nullptr) {
    code = m_LatchPin->write(Orv::LOW);
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  code = executeChainedDataTransfer();
  if (code < 0) {
    return logReturnCode(code);
  }
  if (m_LatchPin == nullptr) {
    return code;
  }
  // The rising edge takes the shifted data over into the outputs; the line rests low.
  code = m_LatchPin->write(Orv::HIGH);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  return code < 0 ? logReturnCode(code) : code;
}

}  // namespace Varnel
