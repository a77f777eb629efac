// SPDX-License-Identifier: MIT
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <mutex>

#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 0;
// The controller takes the low 12 bits of each value and leaves the upper four.
constexpr uint8_t BITS_PER_WORD = 12;

}  // namespace

size_t LedDriverTLC5947Private::pwmChannelIndex(uint16_t ledChannelIndex) const {
  return static_cast<size_t>(ledChannelIndex) * PwmChannelsPerLed;
}

void LedDriverTLC5947Private::setOutputs(size_t first, size_t end, uint16_t pwm) {
  std::fill(PwmChannels.data() + first, PwmChannels.data() + end,
            std::min<uint16_t>(pwm, CSpiLedDriver12Bit_TLC5947::MAX_PWM));
  DataChanged = true;
}

CSpiLedDriver12Bit_TLC5947::CSpiLedDriver12Bit_TLC5947(uint16_t channelCount)
    : CLinuxSpiDevice(nullptr, nullptr, nullptr), d(new LedDriverTLC5947Private(this)) {
  setChannelCount(channelCount, 1);
  m_TransferSettings.ioc_transfer.bits_per_word = BITS_PER_WORD;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

CSpiLedDriver12Bit_TLC5947::~CSpiLedDriver12Bit_TLC5947() {
  delete d;
}

Orv::CLinuxIoPin& CSpiLedDriver12Bit_TLC5947::outputEnablePin() {
  return d->OutputEnablePin;
}

TErrCode CSpiLedDriver12Bit_TLC5947::setOutputEnable(bool enable) {
  return d->OutputEnablePin.write(enable ? Orv::HIGH : Orv::LOW);
}

TErrCode CSpiLedDriver12Bit_TLC5947::setChannelCount(uint16_t channelCount,
                                                     uint8_t pwmChannelsPerLed) {
  d->PwmChannelsPerLed = pwmChannelsPerLed;
  d->PwmChannels.resize(d->pwmChannelIndex(channelCount));
  d->ShadowChannels.resize(d->PwmChannels.size());
  return 0;
}

uint16_t CSpiLedDriver12Bit_TLC5947::channelCount() {
  if (d->PwmChannelsPerLed == 0) {
    return 0;
  }
  return static_cast<uint16_t>(d->PwmChannels.size() / d->PwmChannelsPerLed);
}

uint16_t CSpiLedDriver12Bit_TLC5947::pwmChannelCount() {
  return static_cast<uint16_t>(d->PwmChannels.size());
}

uint8_t CSpiLedDriver12Bit_TLC5947::channelsPerLed() {
  return d->PwmChannelsPerLed;
}

TErrCode CSpiLedDriver12Bit_TLC5947::setPWM(uint16_t channel, uint16_t pwm, bool doWrite) {
  const size_t first = d->pwmChannelIndex(channel);
  // Also refuses every channel of a table without outputs per LED, which is empty.
  if (first >= d->PwmChannels.size()) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  d->setOutputs(first, first + d->PwmChannelsPerLed, pwm);
  return transferData(doWrite);
}

TErrCode CSpiLedDriver12Bit_TLC5947::setPWMs(uint16_t channelFirst, uint16_t channelLast,
                                             uint16_t pwm, bool doWrite) {
  if (channelFirst > channelLast) {
    return -EINVAL;
  }
  const size_t first = d->pwmChannelIndex(channelFirst);
  const size_t end = d->pwmChannelIndex(channelLast) + d->PwmChannelsPerLed;
  if (end > d->PwmChannels.size() || first >= d->PwmChannels.size()) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  d->setOutputs(first, end, pwm);
  return transferData(doWrite);
}

void CSpiLedDriver12Bit_TLC5947::setDataChanged(bool value) {
  d->DataChanged = value;
}

TErrCode CSpiLedDriver12Bit_TLC5947::executeTransfer() {
  assert(m_Bus != nullptr && "a device needs a bus: call setBus() first");
  ++d->TransferCount;
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(d->PwmChannels.data());
  transfer.len = static_cast<uint32_t>(d->PwmChannels.size() * sizeof(uint16_t));
  return m_Bus->transferData(m_TransferSettings);
}

TErrCode CSpiLedDriver12Bit_TLC5947::transferData(bool doWrite) {
  if (!doWrite) {
    return 0;
  }
  assert(m_LatchPin != nullptr && "a TLC5947 needs a latch pin: call setLatchPin() first");
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  if (!d->DataChanged) {
    return 0;
  }
  TErrCode code = enableChipSelect(true);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = executeChainedDataTransfer();
  if (code < 0) {
    return logReturnCode(code);
  }
  // The rising edge copies the shifted bits to the outputs of all chips of the cascade.
  code = m_LatchPin->write(Orv::HIGH);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = enableChipSelect(false);
  if (code < 0) {
    return logReturnCode(code);
  }
  d->DataChanged = false;
  return 0;
}

}  // namespace Varnel
