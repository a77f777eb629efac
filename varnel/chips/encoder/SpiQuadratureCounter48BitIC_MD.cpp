// SPDX-License-Identifier: MIT
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"

#include <array>
#include <cerrno>
#include <mutex>

#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel::iC_MD {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 0;
constexpr uint32_t SPEED_HZ = 1000000;
constexpr uint8_t BITS_PER_WORD = 8;
constexpr uint8_t ADDRESS_MASK = 0x7F;
constexpr uint8_t BITS_PER_BYTE = 8;

struct stCounterLayout {
  uint8_t DataBytes;
  std::array<uint8_t, MAX_COUNT_OF_COUNTERS> CounterBytes;  ///< of counter 0, 1, 2
};

/// By counter configuration.
constexpr std::array<stCounterLayout, 8> LAYOUTS = {{
    {3, {3, 0, 0}},
    {6, {3, 3, 0}},
    {6, {6, 0, 0}},
    {2, {2, 0, 0}},
    {4, {4, 0, 0}},
    {6, {4, 2, 0}},
    {4, {2, 2, 0}},
    {6, {2, 2, 2}},
}};

uint8_t readAddress(uint8_t reg) {
  return static_cast<uint8_t>(READ_REGISTER | (reg & ADDRESS_MASK));
}

/// Most significant byte first, without sign extension.
int64_t concatenate(const int64_t* bytes, uint8_t count) {
  int64_t value = 0;
  for (uint8_t i = 0; i < count; ++i) {
    value = value << BITS_PER_BYTE | bytes[i];
  }
  return value;
}

}  // namespace

uint8_t CSpiQuadratureCounter48BitPrivate::counterConfig() const {
  return Configuration[REG_COUNTER_INPUT_CONFIG].m_Data & BITMASK_REG0_CNTCFG;
}

uint8_t CSpiQuadratureCounter48BitPrivate::numberOfBytes() const {
  return LAYOUTS[counterConfig()].DataBytes;
}

TErrCode CSpiQuadratureCounter48BitPrivate::transferByte(uint8_t byte, eCS_Handling handling) {
  SPI_TxBuffer = byte;
  return q_ptr->executeManagedTransfer(handling);
}

TErrCode CSpiQuadratureCounter48BitPrivate::transferCounterData() {
  TErrCode code = transferByte(readAddress(REG_POSITION_COUNTER_DATA), CS_JUST_SELECT);
  if (code < 0) {
    return logReturnCode(code);
  }
  const uint8_t last = numberOfBytes() - 1;
  for (uint8_t i = 0; i <= last; ++i) {
    code = transferByte(WRITE_DUMMY, i < last ? CS_NOTHING : CS_JUST_DESELECT);
    if (code < 0) {
      return logReturnCode(code);
    }
    CounterBytes[i] = SPI_RxBuffer;
  }
  return 0;
}

void CSpiQuadratureCounter48BitPrivate::retrieveCounterValuesFromData() {
  // As received, here with three counters:
  //   b0 b1      b2 b3      b4 b5
  //   counter 2  counter 1  counter 0
  const stCounterLayout& layout = LAYOUTS[counterConfig()];
  const int64_t* bytes = CounterBytes;
  for (uint8_t counter = MAX_COUNT_OF_COUNTERS; counter-- > 0;) {
    const uint8_t count = layout.CounterBytes[counter];
    if (count > 0) {
      Counters[counter] = concatenate(bytes, count);
      bytes += count;
    }
  }
}

TErrCode CSpiQuadratureCounter48BitPrivate::readFromHardware() {
  const std::lock_guard<std::recursive_mutex> lock(q_ptr->transferMutex());
  const TErrCode code = transferCounterData();
  if (code < 0) {
    return logReturnCode(code);
  }
  retrieveCounterValuesFromData();
  return 0;
}

template <typename T>
TErrCode CSpiQuadratureCounter48BitPrivate::readPosition(uint8_t counter, T& position) {
  if (counter >= MAX_COUNT_OF_COUNTERS) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(q_ptr->transferMutex());
  // Meant: a failed read gives the position before it, and only the log tells.
  readFromHardware();
  position = static_cast<T>(Counters[counter]);
  return 0;
}

CSpiQuadratureCounter48Bit::CSpiQuadratureCounter48Bit()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr),
      d_ptr(new CSpiQuadratureCounter48BitPrivate(this)) {
  setupSPITransferSettings();
}

CSpiQuadratureCounter48Bit::~CSpiQuadratureCounter48Bit() {
  delete d_ptr;
}

void CSpiQuadratureCounter48Bit::setRegisterValue(uint8_t reg, uint8_t mask, uint8_t value) {
  if (reg >= CONFIG_REGISTER_COUNT) {
    return;
  }
  d_ptr->Configuration[reg].clearFlag(mask);
  d_ptr->Configuration[reg].setFlag(value & mask);
}

void CSpiQuadratureCounter48Bit::setRegisterBitValue(uint8_t reg, uint8_t bit, bool on) {
  if (bit >= BITS_PER_BYTE) {
    return;
  }
  const auto mask = static_cast<uint8_t>(1U << bit);
  setRegisterValue(reg, mask, on ? mask : 0);
}

TErrCode CSpiQuadratureCounter48Bit::connect() {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    const TErrCode code = writeRegister(reg, d_ptr->Configuration[reg].m_Data);
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  return 0;
}

TErrCode CSpiQuadratureCounter48Bit::writeRegister(uint8_t reg, uint8_t value) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = d_ptr->transferByte(reg, CS_JUST_SELECT);
  if (code >= 0) {
    code = d_ptr->transferByte(value, CS_JUST_DESELECT);
  }
  if (code < 0) {
    logReturnCode(code);
    enableChipSelect(false);
    return code;
  }
  return 0;
}

TErrCode CSpiQuadratureCounter48Bit::readRegister(uint8_t reg, uint8_t& value) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = d_ptr->transferByte(readAddress(reg), CS_JUST_SELECT);
  if (code >= 0) {
    code = d_ptr->transferByte(WRITE_DUMMY, CS_JUST_DESELECT);
  }
  if (code < 0) {
    logReturnCode(code);
    enableChipSelect(false);
    return code;
  }
  value = d_ptr->SPI_RxBuffer;
  return 0;
}

TErrCode CSpiQuadratureCounter48Bit::readPosition64(uint8_t counter, int64_t& position) {
  return d_ptr->readPosition(counter, position);
}

TErrCode CSpiQuadratureCounter48Bit::readPosition32(uint8_t counter, int32_t& position) {
  return d_ptr->readPosition(counter, position);
}

TErrCode CSpiQuadratureCounter48Bit::readPosition16(uint8_t counter, int16_t& position) {
  return d_ptr->readPosition(counter, position);
}

TErrCode CSpiQuadratureCounter48Bit::clearCounter(uint8_t counter) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  if (counter >= MAX_COUNT_OF_COUNTERS) {
    return -EINVAL;
  }
  return writeRegister(REG_INSTRUCTION_BYTE, static_cast<uint8_t>(1U << counter));
}

TErrCode CSpiQuadratureCounter48Bit::setClearCounterOnIndex(uint8_t counter, bool on) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  if (counter >= MAX_COUNT_OF_INDEX_COUNTERS) {
    return -EINVAL;
  }
  setRegisterBitValue(REG1_Z_TOUCH_PROBE_CONFIG, static_cast<uint8_t>(BIT_REG1_CBZ0 + counter), on);
  return writeRegister(REG1_Z_TOUCH_PROBE_CONFIG,
                       d_ptr->Configuration[REG1_Z_TOUCH_PROBE_CONFIG].m_Data);
}

void CSpiQuadratureCounter48Bit::setupSPITransferSettings() {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&d_ptr->SPI_TxBuffer);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&d_ptr->SPI_RxBuffer);
  transfer.len = sizeof(d_ptr->SPI_TxBuffer);
  transfer.speed_hz = SPEED_HZ;
  transfer.bits_per_word = BITS_PER_WORD;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

}  // namespace Varnel::iC_MD
