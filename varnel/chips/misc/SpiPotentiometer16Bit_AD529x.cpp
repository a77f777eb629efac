// SPDX-License-Identifier: MIT
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"

#include <cassert>
#include <mutex>

#include "orv/Bits.h"
#include "orv/Thread.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 1;
constexpr uint8_t BITS_PER_WORD = 16;
constexpr unsigned int PAUSE_AFTER_FRAME_MS = 1;

constexpr unsigned int COMMAND_SHIFT = 10;
constexpr uint16_t COMMAND_MASK = 0x3C00;
constexpr uint16_t DATA_MASK = 0x03FF;
constexpr uint16_t CONTROL_WORD_MASK = 0x000F;

constexpr uint16_t NOOP_WORD = 0x0000;
constexpr uint8_t LAST_MEMORY_ADDRESS = 19;
// One bit per programmed word of the memory, ten in each.
constexpr uint8_t PROGRAMMED_WORDS_0_TO_9 = 0x14;
constexpr uint8_t PROGRAMMED_WORDS_10_TO_19 = 0x15;
constexpr TErrCode MEMORY_ADDRESS_OUT_OF_RANGE = -513;
constexpr TErrCode NOTHING_PROGRAMMED = 255;

uint16_t replaced(uint16_t word, uint16_t mask, unsigned int field) {
  return static_cast<uint16_t>((word & ~mask) | (field & mask));
}

uint16_t wordOf(CSpiPotentiometer16Bit_AD529x::eCommandWord command, uint16_t data) {
  CAD529xShiftRegister word(0);
  word.setCommandBits(static_cast<uint8_t>(command));
  word.setDataBits(data);
  return word.m_Data;
}

int programmedWords(TErrCode answer) {
  return static_cast<int>(Orv::bitCount(static_cast<uint16_t>(answer)));
}

// The cache is looked at before the bus is locked, while another thread may be writing it.
bool isCached(const CAD529xShiftRegister& cache, uint16_t word) {
  return __atomic_load_n(&cache.m_Data, __ATOMIC_RELAXED) == word;
}

void writeCache(CAD529xShiftRegister& cache, const CAD529xShiftRegister& word) {
  __atomic_store_n(&cache.m_Data, word.m_Data, __ATOMIC_RELAXED);
}

}  // namespace

CAD529xShiftRegister::CAD529xShiftRegister(uint16_t value) : m_Data(value) {
}

uint8_t CAD529xShiftRegister::commandBits() const {
  return static_cast<uint8_t>((m_Data & COMMAND_MASK) >> COMMAND_SHIFT);
}

void CAD529xShiftRegister::setCommandBits(uint8_t command) {
  m_Data = replaced(m_Data, COMMAND_MASK, static_cast<unsigned int>(command) << COMMAND_SHIFT);
}

uint16_t CAD529xShiftRegister::dataBits() const {
  return m_Data & DATA_MASK;
}

void CAD529xShiftRegister::setDataBits(uint16_t data) {
  m_Data = replaced(m_Data, DATA_MASK, data);
}

uint16_t CAD529xShiftRegister::controlWord() const {
  return m_Data & CONTROL_WORD_MASK;
}

void CAD529xShiftRegister::setControlWord(uint16_t controlWord) {
  m_Data = replaced(m_Data, CONTROL_WORD_MASK, controlWord);
}

bool CAD529xShiftRegister::operator==(const CAD529xShiftRegister& other) const {
  return m_Data == other.m_Data;
}

CSpiPotentiometer16Bit_AD529x::CSpiPotentiometer16Bit_AD529x()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr) {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&m_RegisterTx);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&m_RegisterRx);
  transfer.len = sizeof(m_RegisterTx.m_Data);
  transfer.bits_per_word = BITS_PER_WORD;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
}

CSpiPotentiometer16Bit_AD529x::~CSpiPotentiometer16Bit_AD529x() = default;

TErrCode CSpiPotentiometer16Bit_AD529x::setRegister(uint16_t value, bool doWrite) {
  if (isCached(m_RegisterTxCache, value)) {
    return 0;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  return privateSetRegister(value, doWrite);
}

TErrCode CSpiPotentiometer16Bit_AD529x::writeRDAC(uint16_t value) {
  CAD529xShiftRegister word(value);
  word.setCommandBits(CW_WRITE_RDAC);
  return setRegister(word.m_Data, DO_TRANSFER);
}

TErrCode CSpiPotentiometer16Bit_AD529x::writeControlWord(uint8_t controlWord) {
  CAD529xShiftRegister word(wordOf(CW_WRITE_CTRL_REG, 0));
  word.setControlWord(controlWord);
  return setRegister(word.m_Data, DO_TRANSFER);
}

TErrCode CSpiPotentiometer16Bit_AD529x::storeRDAC() {
  return setRegister(wordOf(CW_STORE_RDAC, 0), DO_TRANSFER);
}

TErrCode CSpiPotentiometer16Bit_AD529x::loadRdacFromTpMem() {
  return setRegister(wordOf(CW_RESTORE_RDAC, 0), DO_TRANSFER);
}

TErrCode CSpiPotentiometer16Bit_AD529x::readData(CAD529xShiftRegister& txRegister) {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = privateSetRegister(txRegister.m_Data, DO_TRANSFER);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = privateSetRegister(NOOP_WORD, DO_TRANSFER);
  if (code < 0) {
    return logReturnCode(code);
  }
  return m_RegisterRx.dataBits();
}

TErrCode CSpiPotentiometer16Bit_AD529x::readData(eCommandWord command) {
  CAD529xShiftRegister word(wordOf(command, 0));
  return readData(word);
}

TErrCode CSpiPotentiometer16Bit_AD529x::readControlWord() {
  const TErrCode answer = readData(CW_READ_CTRL_REG);
  if (answer < 0) {
    return logReturnCode(answer);
  }
  return answer & CONTROL_WORD_MASK;
}

TErrCode CSpiPotentiometer16Bit_AD529x::readTpMem(uint8_t address) {
  if (address > LAST_MEMORY_ADDRESS) {
    return MEMORY_ADDRESS_OUT_OF_RANGE;
  }
  CAD529xShiftRegister word(wordOf(CW_READ_TPMEM, address));
  return readData(word);
}

TErrCode CSpiPotentiometer16Bit_AD529x::readLastProgrammedMemoryAddress() {
  CAD529xShiftRegister word(wordOf(CW_READ_TPMEM, PROGRAMMED_WORDS_0_TO_9));
  const TErrCode first = readData(word);
  if (first < 0) {
    return logReturnCode(first);
  }
  word.setDataBits(PROGRAMMED_WORDS_10_TO_19);
  const TErrCode second = readData(word);
  if (second < 0) {
    return logReturnCode(second);
  }
  const int programmed = programmedWords(first) + programmedWords(second);
  return programmed == 0 ? NOTHING_PROGRAMMED : programmed - 1;
}

TErrCode CSpiPotentiometer16Bit_AD529x::readLastProgrammedTpMem() {
  const TErrCode address = readLastProgrammedMemoryAddress();
  if (address < 0) {
    return logReturnCode(address);
  }
  // 255 for an unprogrammed memory is refused there.
  return readTpMem(static_cast<uint8_t>(address));
}

TErrCode CSpiPotentiometer16Bit_AD529x::transferData(bool doWrite) {
  if (!doWrite) {
    return 0;
  }
  assert(m_LatchPin != nullptr && "an AD529x needs its latch pin: call setLatchPin() first");
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = executeChainedDataTransfer();
  if (code < 0) {
    return logReturnCode(code);
  }
  // The rising edge makes the chip look at the word, which takes its time.
  code = m_LatchPin->write(Orv::HIGH);
  Orv::CThread::sleep(PAUSE_AFTER_FRAME_MS);
  if (code < 0) {
    return logReturnCode(code);
  }
  code = m_LatchPin->write(Orv::LOW);
  if (code < 0) {
    return logReturnCode(code);
  }
  writeCache(m_RegisterTxCache, m_RegisterTx);
  return 0;
}

TErrCode CSpiPotentiometer16Bit_AD529x::privateSetRegister(uint16_t value, bool doWrite) {
  m_RegisterTx.m_Data = value;
  return transferData(doWrite);
}

}  // namespace Varnel
