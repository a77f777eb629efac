// SPDX-License-Identifier: MIT
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 3;
constexpr uint8_t BITS_PER_WORD = 16;
constexpr uint8_t CHANNEL_COUNT = 2;

// The word as it goes out, first bit left ("-": don't care):
//   bit   15  14  13    12  11 ... 0
//        A/B   -  GA  SHDN  D11 .. D0
// GA and SHDN are active low, so that two set bits mean gain 1, output driven.
constexpr unsigned int CHANNEL_SHIFT = 15;
constexpr unsigned int GAIN_SHIFT = 13;
constexpr unsigned int OPERATION_MODE_SHIFT = 12;

uint16_t commandWord(uint8_t channel, uint16_t value) {
  constexpr unsigned int GAIN_AND_MODE =
      CSpiAnalogOut2x12Bit_MCP4822::GAIN_1 << GAIN_SHIFT | CSpiAnalogOut2x12Bit_MCP4822::MODE_ACTIVE
                                                               << OPERATION_MODE_SHIFT;
  return static_cast<uint16_t>(static_cast<unsigned int>(channel) << CHANNEL_SHIFT | GAIN_AND_MODE |
                               value);
}

}  // namespace

CSpiAnalogOut2x12Bit_MCP4822::CSpiAnalogOut2x12Bit_MCP4822()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr), d_ptr(new CSpiAnalogOut2x12Bit_MCP4822Private) {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&d_ptr->WriteChannelCommand);
  transfer.len = sizeof(d_ptr->WriteChannelCommand);
  transfer.bits_per_word = BITS_PER_WORD;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

CSpiAnalogOut2x12Bit_MCP4822::~CSpiAnalogOut2x12Bit_MCP4822() {
  delete d_ptr;
}

void CSpiAnalogOut2x12Bit_MCP4822::configurePins(uint32_t pin) {
  d_ptr->LDACPin.configure(pin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
}

TErrCode CSpiAnalogOut2x12Bit_MCP4822::open() {
  TErrCode code = d_ptr->LDACPin.connect();
  if (code < 0) {
    return logReturnCode(code);
  }
  code = enableChipSelect(false);
  if (code < 0) {
    return logReturnCode(code);
  }
  return d_ptr->LDACPin.write(Orv::HIGH);
}

uint8_t CSpiAnalogOut2x12Bit_MCP4822::channelCount() const {
  return CHANNEL_COUNT;
}

TErrCode CSpiAnalogOut2x12Bit_MCP4822::setValue(uint16_t channel, uint16_t value, bool doWrite) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  value = std::min<uint16_t>(value, MAX_VALUE);
  if (channel >= channelCount()) {
    return -EINVAL;
  }
  d_ptr->OutputBuffer[channel] = value;
  return doWrite ? write() : 0;
}

TErrCode CSpiAnalogOut2x12Bit_MCP4822::write() {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  for (uint8_t channel = 0; channel < channelCount(); ++channel) {
    d_ptr->WriteChannelCommand = commandWord(channel, d_ptr->OutputBuffer[channel]);
    const TErrCode code = executeManagedTransfer(CS_SELECT_DESELECT);
    if (code < 0) {
      return code;
    }
  }
  const TErrCode code = d_ptr->LDACPin.write(Orv::LOW);
  if (code < 0) {
    return code;
  }
  return d_ptr->LDACPin.write(Orv::HIGH);
}

}  // namespace Varnel
