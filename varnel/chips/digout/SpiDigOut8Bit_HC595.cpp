// SPDX-License-Identifier: MIT
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

#include <cassert>
#include <mutex>

#include "varnel/chips/digout/SpiDigOut8Bit_HC595_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 0;
constexpr uint8_t NEVER_WRITTEN = 0xFF;

// The cache is looked at before the bus is locked, while another thread may be writing it.
uint8_t readCache(const uint8_t& cache) {
  return __atomic_load_n(&cache, __ATOMIC_RELAXED);
}

void writeCache(uint8_t& cache, uint8_t value) {
  __atomic_store_n(&cache, value, __ATOMIC_RELAXED);
}

}  // namespace

CSpiDigOut8Bit_HC595::CSpiDigOut8Bit_HC595() : CLinuxSpiDevice(nullptr, nullptr, nullptr) {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&m_Register);
  transfer.len = sizeof(m_Register);
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

CSpiDigOut8Bit_HC595::~CSpiDigOut8Bit_HC595() = default;

TErrCode CSpiDigOut8Bit_HC595::writeOutputs(uint8_t value, bool doWrite) {
  if (value == readCache(m_RegisterCache)) {
    return 0;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  m_Register = value;
  const TErrCode code = transferData(doWrite);
  if (code < 0) {
    return logReturnCode(code);
  }
  // Also without a transfer: the value stands for what the next chained transfer will carry.
  writeCache(m_RegisterCache, m_Register);
  return 0;
}

TErrCode CSpiDigOut8Bit_HC595::transferData(bool doWrite) {
  if (!doWrite) {
    return 0;
  }
  assert(m_LatchPin != nullptr && "a 74HC595 needs a latch pin: call setLatchPin() first");
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = executeChainedDataTransfer();
  if (code < 0) {
    return logReturnCode(code);
  }
  // The rising edge copies the shift register to the outputs.
  code = m_LatchPin->write(Orv::HIGH);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  writeCache(m_RegisterCache, m_Register);
  return 0;
}

CHC595ChipSelectDevice::CHC595ChipSelectDevice() : d(new HC595ChipSelectDevicePrivate(this)) {
}

CHC595ChipSelectDevice::~CHC595ChipSelectDevice() {
  delete d;
}

void CHC595ChipSelectDevice::setCsAddressNone(uint8_t address) {
  d->CsAddressNone = address;
}

TErrCode CHC595ChipSelectDevice::attachSpiDevice(CLinuxSpiDevice* device, uint8_t csAddressEnabled,
                                                 eChipSelectTransferMode transferMode) {
  const auto selector =
      std::make_shared<CHC595ChipSelector>(this, csAddressEnabled, d->CsAddressNone);
  selector->setTransferMode(transferMode);
  device->setChipSelector(selector.get());
  const auto chain = std::make_shared<std::vector<CLinuxSpiDevice*>>();
  chain->push_back(this);
  chain->push_back(device);
  device->setDeviceChain(chain);
  // An address that is taken keeps its device; the selector made here then goes with this call.
  d->CsConfigMap.insert({csAddressEnabled, {chain, selector}});
  return 0;
}

TErrCode CHC595ChipSelectDevice::setChipSelect(uint8_t address,
                                               eChipSelectTransferMode transferMode) {
  if (address == readCache(m_RegisterCache)) {
    return 0;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  m_Register = address;
  if (transferMode == ImplicitTransfer) {
    writeCache(m_RegisterCache, address);
    return 0;
  }
  assert(m_LatchPin != nullptr && "a 74HC595 needs a latch pin: call setLatchPin() first");
  const uint8_t previous = m_RegisterCache == NEVER_WRITTEN ? 0 : m_RegisterCache;
  TErrCode code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  if (previous == d->CsAddressNone) {
    code = executeTransfer();
    if (code < 0) {
      return logReturnCode(code);
    }
  } else {
    // The device at the previous address is still selected and shifts along: its own data goes
    // first, the address last.
    const std::shared_ptr<std::vector<CLinuxSpiDevice*>> chain =
        d->CsConfigMap.at(previous).DeviceChain;
    for (auto member = chain->rbegin(); member != chain->rend(); ++member) {
      code = (*member)->executeTransfer();
      if (code < 0) {
        return logReturnCode(code);
      }
    }
  }
  code = m_LatchPin->write(Orv::HIGH);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  writeCache(m_RegisterCache, m_Register);
  return 0;
}

CHC595ChipSelector::CHC595ChipSelector(CHC595ChipSelectDevice* chip, uint8_t csAddressEnabled,
                                       uint8_t csAddressDisabled)
    : m_SpiDeviceHC595(chip),
      m_CsAdressEnabled(csAddressEnabled),
      m_CsAddressDisabled(csAddressDisabled) {
}

CHC595ChipSelector::~CHC595ChipSelector() = default;

void CHC595ChipSelector::setHC595Chip(CHC595ChipSelectDevice* chip) {
  m_SpiDeviceHC595 = chip;
}

CHC595ChipSelectDevice* CHC595ChipSelector::HC595Chip() {
  return m_SpiDeviceHC595;
}

void CHC595ChipSelector::setTransferMode(
    CHC595ChipSelectDevice::eChipSelectTransferMode transferMode) {
  m_TransferMode = transferMode;
}

TErrCode CHC595ChipSelector::enable(bool select) {
  return m_SpiDeviceHC595->setChipSelect(select ? m_CsAdressEnabled : m_CsAddressDisabled,
                                         m_TransferMode);
}

}  // namespace Varnel
