// SPDX-License-Identifier: MIT
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <mutex>

#include "orv/Thread.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 1;
constexpr uint32_t MAX_SPEED_HZ = 2000000;
constexpr uint8_t BITS_PER_WORD = 8;

constexpr uint8_t ALL_BITS = 0xFF;
constexpr uint8_t ONE_REGISTER = 0x00;  // number of registers minus one
constexpr unsigned int GAIN_SHIFT = 4;
constexpr unsigned int RESET_PULSE_MS = 10;
constexpr unsigned int DATA_READY_WAIT_MS = 2;
constexpr int WRITE_TRIES = 2;

constexpr TErrCode NOT_READY = -36;
constexpr TErrCode NOT_VERIFIED = -201;

// The data-and-multiplexer frame: the result comes while the inputs of the next conversion go.
//   byte     0     1   2   3   4     5      6     7     8      9
//   sent   RDATA  NOP NOP NOP WREG count  MUX0  WREG count  MUX1
//   result         MSB ... LSB
constexpr size_t RESULT_POSITION = 1;
constexpr size_t MUX0_POSITION = 6;
constexpr size_t MUX1_POSITION = 9;

uint8_t with(Command::eADS1248Command command, uint8_t address) {
  return static_cast<uint8_t>(command | address);
}

// As it comes: a negative input stays a code of 0x800000 and above, on purpose.
int32_t codeOf(const uint8_t* result) {
  return result[0] << 16 | result[1] << 8 | result[2];
}

template <size_t LENGTH>
void prepareTransfer(spi_ioc_transfer& transfer, const uint8_t (&sent)[LENGTH],
                     const uint8_t* received) {
  transfer.tx_buf = reinterpret_cast<uintptr_t>(sent);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(received);
  transfer.len = LENGTH;
  transfer.bits_per_word = BITS_PER_WORD;
  transfer.speed_hz = MAX_SPEED_HZ;
}

void prepareList(stSpiMultipleTransferSettings& settings, spi_ioc_transfer& transfer) {
  settings.ioc_transfer = &transfer;
  settings.transfer_count = 1;
  settings.bus_settings.Mode = SPI_MODE_NUMBER;
}

// Rate and gain are asked for without a lock, while another thread may be setting them.
uint8_t readCache(const uint8_t& cache) {
  return __atomic_load_n(&cache, __ATOMIC_RELAXED);
}

void writeCache(uint8_t& cache, uint8_t value) {
  __atomic_store_n(&cache, value, __ATOMIC_RELAXED);
}

}  // namespace

CSpiAnalogIn2x24Bit_ADS1248Private::CSpiAnalogIn2x24Bit_ADS1248Private(
    CSpiAnalogIn2x24Bit_ADS1248* device)
    : q_ptr(device) {
  prepareADConversionChannelMuxTransfer();
  prepareReadRegisterTransfer();
  prepareWriteRegisterTransfer();
  prepareADConversionTransfer();
  prepareCommandTransfer();
}

void CSpiAnalogIn2x24Bit_ADS1248Private::prepareADConversionChannelMuxTransfer() {
  const uint8_t frame[] = {Command::RDATA,
                           Command::NOP,
                           Command::NOP,
                           Command::NOP,
                           with(Command::WREG, Register::MUX0),
                           ONE_REGISTER,
                           ADS1248Config.MUX0Values[0],
                           with(Command::WREG, Register::MUX1),
                           ONE_REGISTER,
                           ADS1248Config.MUX1Values[0]};
  static_assert(sizeof(frame) == sizeof(ReadDataMuxChannelCommand));
  std::copy(std::begin(frame), std::end(frame), ReadDataMuxChannelCommand);
  stSpiTransferSettings& settings = q_ptr->m_TransferSettings;
  prepareTransfer(settings.ioc_transfer, ReadDataMuxChannelCommand, DataReceiveBuffer);
  settings.bus_settings.Mode = SPI_MODE_NUMBER;
}

void CSpiAnalogIn2x24Bit_ADS1248Private::prepareReadRegisterTransfer() {
  ReadRegisterCommand[0] = Command::RREG;
  ReadRegisterCommand[1] = ONE_REGISTER;
  ReadRegisterCommand[2] = Command::NOP;
  prepareTransfer(ReadRegisterTransfer, ReadRegisterCommand, RegisterReceiveBuffer);
  prepareList(ReadRegisterTransferSettings, ReadRegisterTransfer);
}

void CSpiAnalogIn2x24Bit_ADS1248Private::prepareWriteRegisterTransfer() {
  WriteRegisterCommand[0] = Command::WREG;
  WriteRegisterCommand[1] = ONE_REGISTER;
  prepareTransfer(WriteRegisterTransfer, WriteRegisterCommand, nullptr);
  prepareList(WriteRegisterTransferSettings, WriteRegisterTransfer);
}

void CSpiAnalogIn2x24Bit_ADS1248Private::prepareADConversionTransfer() {
  ReadDataCommand[0] = Command::RDATA;
  std::fill(ReadDataCommand + RESULT_POSITION, std::end(ReadDataCommand), Command::NOP);
  prepareTransfer(ReadDataTransfer, ReadDataCommand, ReadConversionDataCommandReceiveBuffer);
  prepareList(ReadDataTransferSettings, ReadDataTransfer);
}

void CSpiAnalogIn2x24Bit_ADS1248Private::prepareCommandTransfer() {
  CommandTransfer.tx_buf = reinterpret_cast<uintptr_t>(&Command);
  CommandTransfer.len = sizeof(Command);
  CommandTransfer.bits_per_word = BITS_PER_WORD;
  CommandTransfer.speed_hz = MAX_SPEED_HZ;
  prepareList(CommandTransferSettings, CommandTransfer);
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::connectPins() {
  for (Orv::CLinuxIoPin* pin : {&ResetPin, &StartPin, &DataReadyPin}) {
    const TErrCode code = pin->connect();
    if (code < 0) {
      return code;
    }
  }
  const TErrCode code = ResetPin.write(Orv::HIGH);
  return code < 0 ? code : StartPin.write(Orv::HIGH);
}

void CSpiAnalogIn2x24Bit_ADS1248Private::reset() {
  ResetPin.write(Orv::LOW);
  Orv::CThread::sleep(RESET_PULSE_MS);
  ResetPin.write(Orv::HIGH);
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::safewriteRegister(uint8_t address, uint8_t value,
                                                               uint8_t writableMask) {
  for (int i = 0; i < WRITE_TRIES; ++i) {
    WriteRegisterCommand[0] = with(Command::WREG, address);
    WriteRegisterCommand[2] = value;
    TErrCode code =
        q_ptr->executeManagedTransfer(WriteRegisterTransferSettings, CS_SELECT_DESELECT);
    if (code < 0) {
      return code;
    }
    ReadRegisterCommand[0] = with(Command::RREG, address);
    code = q_ptr->executeManagedTransfer(ReadRegisterTransferSettings, CS_SELECT_DESELECT);
    if (code < 0) {
      return code;
    }
    // Meant to mask what was read only: a value with other bits never verifies.
    if ((RegisterReceiveBuffer[2] & writableMask) == value) {
      return 0;
    }
  }
  return NOT_VERIFIED;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::writeSYS0(uint8_t value) {
  const TErrCode code = safewriteRegister(Register::SYS0, value, Register::SYS0_WRITABLE_BITS);
  if (code < 0) {
    return code;
  }
  writeCache(ADS1248Config.SYS0Value, value);
  return 0;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::setReadingContinuously(bool on) {
  Command = on ? Command::RDATAC : Command::SDATAC;
  return q_ptr->executeManagedTransfer(CommandTransferSettings, CS_SELECT_DESELECT);
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::waitForDataReady() {
  // A pin that can't be read is no ready converter either.
  if (DataReadyPin.read() == Orv::LOW) {
    return 0;
  }
  Orv::CThread::sleep(DATA_READY_WAIT_MS);
  return DataReadyPin.read() == Orv::LOW ? 0 : NOT_READY;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::readDataAndMuxChannel(eTransferInfo info) {
  const uint8_t next = SelectedChannel == 0 ? 1 : 0;
  ReadDataMuxChannelCommand[MUX0_POSITION] = ADS1248Config.MUX0Values[next];
  ReadDataMuxChannelCommand[MUX1_POSITION] = ADS1248Config.MUX1Values[next];
  const TErrCode code = executeTransfer(info);
  if (code < 0) {
    return code;
  }
  // The result was converted before the frame switched the inputs.
  ADConversionBuffer[SelectedChannel] = codeOf(DataReceiveBuffer + RESULT_POSITION);
  SelectedChannel = next;
  return 0;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248Private::executeTransfer(eTransferInfo info) {
  switch (info) {
    case DATA_FIRST: return q_ptr->executeManagedTransfer(CS_JUST_SELECT);
    case DATA_MIDLLE: return q_ptr->executeManagedTransfer(CS_NOTHING);
    case DATA_LAST: return q_ptr->executeManagedTransfer(CS_JUST_DESELECT);
    case DATA_SINGLE: return q_ptr->executeManagedTransfer(CS_SELECT_DESELECT);
  }
  return -EINVAL;
}

CSpiAnalogIn2x24Bit_ADS1248::CSpiAnalogIn2x24Bit_ADS1248()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr),
      d_ptr(new CSpiAnalogIn2x24Bit_ADS1248Private(this)) {
}

CSpiAnalogIn2x24Bit_ADS1248::~CSpiAnalogIn2x24Bit_ADS1248() {
  delete d_ptr;
}

void CSpiAnalogIn2x24Bit_ADS1248::configurePins(uint32_t startPin, uint32_t dataReadyPin,
                                                uint32_t resetPin) {
  d_ptr->ResetPin.configure(resetPin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  d_ptr->StartPin.configure(startPin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  d_ptr->DataReadyPin.configure(dataReadyPin, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248::setDataRate(uint8_t rate) {
  if (rate > DRATE_2000_SPS) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  const int gain = d_ptr->ADS1248Config.SYS0Value & Bitmask::SYS0_PGAGAIN;
  const TErrCode code = d_ptr->writeSYS0(static_cast<uint8_t>(gain | rate));
  return code < 0 ? logReturnCode(code) : 0;
}

uint8_t CSpiAnalogIn2x24Bit_ADS1248::dataRate() const {
  return readCache(d_ptr->ADS1248Config.SYS0Value) & Bitmask::SYS0_DRATE;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248::setPGAGain(uint8_t gain) {
  if (gain > PGA_GAIN_128) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  const int rate = d_ptr->ADS1248Config.SYS0Value & Bitmask::SYS0_DRATE;
  const TErrCode code = d_ptr->writeSYS0(static_cast<uint8_t>(gain << GAIN_SHIFT | rate));
  return code < 0 ? logReturnCode(code) : 0;
}

uint8_t CSpiAnalogIn2x24Bit_ADS1248::pGAGain() const {
  return readCache(d_ptr->ADS1248Config.SYS0Value) >> GAIN_SHIFT;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248::open() {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = d_ptr->connectPins();
  if (code < 0) {
    return logReturnCode(code);
  }
  code = enableChipSelect(false);
  if (code < 0) {
    return logReturnCode(code);
  }
  // Nothing waits for the recovery of 0.6 ms after the pulse: the time up to the read-back and its
  // retry is what the converter has.
  d_ptr->reset();
  const CSpiAnalogIn2x24Bit_ADS1248Private::stADS1248Configuration& values = d_ptr->ADS1248Config;
  const struct {
    uint8_t Address;
    uint8_t Value;
    uint8_t WritableMask;
  } startUp[] = {
      {Register::MUX0, values.MUX0Values[0], ALL_BITS},
      {Register::MUX1, values.MUX1Values[0], Register::MUX1_WRITABLE_BITS},
      {Register::SYS0, values.SYS0Value, Register::SYS0_WRITABLE_BITS},
      {Register::OFC0, 0, ALL_BITS},
      {Register::OFC1, 0, ALL_BITS},
      {Register::OFC2, 0, ALL_BITS},
      {Register::IDAC0, values.IDAC0Value, Register::IDAC0_WRITABLE_BITS},
      {Register::IDAC1, values.IDAC1Value, ALL_BITS},
      {Register::GPIOCFG, values.GPIOCFGValue, ALL_BITS},
      {Register::GPIODIR, values.GPIODIRValue, ALL_BITS},
  };
  for (const auto& step : startUp) {
    code = d_ptr->safewriteRegister(step.Address, step.Value, step.WritableMask);
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  return d_ptr->setReadingContinuously(false);
}

int32_t CSpiAnalogIn2x24Bit_ADS1248::readChannel(uint16_t channel) const {
  return channel < d_ptr->NumberOfChannels ? d_ptr->ADConversionBuffer[channel].load() : 0;
}

TErrCode CSpiAnalogIn2x24Bit_ADS1248::doConversion() {
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = d_ptr->waitForDataReady();
  if (code == 0) {
    code = d_ptr->readDataAndMuxChannel(DATA_FIRST);
  }
  if (code < 0) {
    return logReturnCode(code);
  }
  // The second half is meant to fail silently: at slow rates it times out in every call, and the
  // chip then stays selected until the next one.
  code = d_ptr->waitForDataReady();
  if (code < 0) {
    return code;
  }
  return d_ptr->readDataAndMuxChannel(DATA_LAST);
}

uint16_t CSpiAnalogIn2x24Bit_ADS1248::numberOfChannels() const {
  return d_ptr->NumberOfChannels;
}

}  // namespace Varnel
