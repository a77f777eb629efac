// SPDX-License-Identifier: MIT
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"

#include <cerrno>

#include "varnel/chips/memory/EEPROM_64kByte_At25640B_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel::EEPROM {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 0;
constexpr uint32_t SPEED_HZ = 1000000;
constexpr uint8_t BITS_PER_WORD = 8;

uint8_t highByte(uint16_t word) {
  return static_cast<uint8_t>(word >> 8);
}

uint8_t lowByte(uint16_t word) {
  return static_cast<uint8_t>(word & 0xFF);
}

}  // namespace

TErrCode C64kByte_At25640BPrivate::executeTransfer(eTransferInfo dataInfo) {
  switch (dataInfo) {
    case DATA_FIRST: return q_ptr->executeManagedTransfer(CS_JUST_SELECT);
    case DATA_MIDLLE: return q_ptr->executeManagedTransfer(CS_NOTHING);
    case DATA_LAST: return q_ptr->executeManagedTransfer(CS_JUST_DESELECT);
    case DATA_SINGLE: return q_ptr->executeManagedTransfer(CS_SELECT_DESELECT);
    default: return -EINVAL;
  }
}

TErrCode C64kByte_At25640BPrivate::spiTransferByte(uint8_t txByte, uint8_t& rxByte,
                                                   eTransferInfo dataInfo) {
  SPI_TxBuffer = txByte;
  const TErrCode code = executeTransfer(dataInfo);
  if (code < 0) {
    return code;
  }
  rxByte = SPI_RxBuffer;
  return 0;
}

TErrCode C64kByte_At25640BPrivate::spiTransferWord(uint16_t txData, uint16_t& rxData,
                                                   eTransferInfo dataInfo) {
  uint8_t received = 0;
  TErrCode code = spiTransferByte(highByte(txData), received,
                                  dataInfo == DATA_FIRST ? DATA_FIRST : DATA_MIDLLE);
  if (code < 0) {
    return code;
  }
  rxData = static_cast<uint16_t>(received << 8);
  code =
      spiTransferByte(lowByte(txData), received, dataInfo == DATA_LAST ? DATA_LAST : DATA_MIDLLE);
  if (code < 0) {
    return code;
  }
  rxData |= received;
  return 0;
}

TErrCode C64kByte_At25640BPrivate::logAndDeselect(TErrCode code, const char* file, int line,
                                                  const char* function) {
  logReturnCode(code, file, line, function);
  q_ptr->enableChipSelect(false);
  return code;
}

C64kByte_At25640B::C64kByte_At25640B()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr), d_ptr(new C64kByte_At25640BPrivate(this)) {
  setupSPITransferSettings();
}

// Meant: the private object stays.
C64kByte_At25640B::~C64kByte_At25640B() = default;

TErrCode C64kByte_At25640B::readStatus(uint8_t& status) {
  uint8_t reply = 0;
  TErrCode code = d_ptr->spiTransferByte(READ_STATUS_REGISTER, reply, DATA_FIRST);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  // Meant: what came in during the instruction fills the time.
  code = d_ptr->spiTransferByte(reply, status, DATA_LAST);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  return 0;
}

TErrCode C64kByte_At25640B::setWriteEnable(bool writeEnabled) {
  uint8_t reply = 0;
  const TErrCode code = d_ptr->spiTransferByte(
      writeEnabled ? SET_WRITE_ENABLED : SET_WRITE_DISABLED, reply, DATA_SINGLE);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  return 0;
}

TErrCode C64kByte_At25640B::writeByte(uint16_t address, uint8_t value) {
  uint8_t reply = 0;
  TErrCode code = d_ptr->spiTransferByte(WRITE_DATA, reply, DATA_FIRST);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  uint16_t addressReply = 0;
  code = d_ptr->spiTransferWord(address, addressReply, DATA_MIDLLE);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  code = d_ptr->spiTransferByte(value, reply, DATA_LAST);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  return 0;
}

TErrCode C64kByte_At25640B::readByte(uint16_t address, uint8_t& byte) {
  uint8_t reply = 0;
  TErrCode code = d_ptr->spiTransferByte(READ_DATA, reply, DATA_FIRST);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  uint16_t addressReply = 0;
  code = d_ptr->spiTransferWord(address, addressReply, DATA_MIDLLE);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  // Meant, as in `readStatus`.
  code = d_ptr->spiTransferByte(lowByte(addressReply), byte, DATA_LAST);
  if (code < 0) {
    return d_ptr->logAndDeselect(code);
  }
  return 0;
}

void C64kByte_At25640B::setupSPITransferSettings() {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&d_ptr->SPI_TxBuffer);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&d_ptr->SPI_RxBuffer);
  transfer.len = sizeof(d_ptr->SPI_TxBuffer);
  transfer.speed_hz = SPEED_HZ;
  transfer.bits_per_word = BITS_PER_WORD;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

}  // namespace Varnel::EEPROM
