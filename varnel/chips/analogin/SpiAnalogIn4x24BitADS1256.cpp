// SPDX-License-Identifier: MIT
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <mutex>

#include "orv/Thread.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 1;
constexpr uint32_t MAX_SPEED_HZ = 200000;
constexpr uint8_t BITS_PER_WORD = 8;

constexpr uint8_t ALL_BITS = 0xFF;
constexpr uint8_t ONE_REGISTER = 0x00;  // number of registers minus one
constexpr uint16_t READ_REGISTER_DELAY =
    10;  // us; the chip wants 50 clocks between command and data
constexpr unsigned int RESET_PULSE_MS = 10;
constexpr int WRITE_TRIES = 2;
constexpr int READS_PER_CONVERSION = 4;

constexpr TErrCode NOT_VERIFIED = -201;

// The conversion frame. The padding is the only wait between starting a conversion and reading it.
//   byte     0     1     2 ... 14    15    16  17  18
//   sent   SYNC WAKEUP    NOP      RDATA  NOP NOP NOP
//   result                                MSB ... LSB
constexpr size_t READ_POSITION = 15;
constexpr size_t RESULT_POSITION = 16;

const stADS1256Configuration ADS1256Config = {
    0x02,                      // most significant bit first, no auto-calibration, input buffer on
    {0x01, 0x23, 0x45, 0x67},  // positive input in the high nibble, negative in the low
    0x01,                      // clock output and sensor detection off, gain 2
    0xB0,                      // 2,000 samples/s
    0xE0                       // D3 to D1 inputs, D0 output at level 0
};

uint8_t with(Command::eADS1256Command command, uint8_t address) {
  return static_cast<uint8_t>(command | address);
}

// As it comes: a negative input stays a code of 0x800000 and above, on purpose.
int32_t codeOf(const uint8_t* result) {
  return result[0] << 16 | result[1] << 8 | result[2];
}

void prepareTransfer(spi_ioc_transfer& transfer, const uint8_t* sent, const uint8_t* received,
                     size_t length) {
  transfer.tx_buf = reinterpret_cast<uintptr_t>(sent);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(received);
  transfer.len = static_cast<uint32_t>(length);
  transfer.bits_per_word = BITS_PER_WORD;
  transfer.speed_hz = MAX_SPEED_HZ;
}

void prepareList(stSpiMultipleTransferSettings& settings, spi_ioc_transfer* transfers,
                 uint16_t count) {
  settings.ioc_transfer = transfers;
  settings.transfer_count = count;
  settings.bus_settings.Mode = SPI_MODE_NUMBER;
}

}  // namespace

CSpiAnalogIn4x24Bit_ADS1256Private::CSpiAnalogIn4x24Bit_ADS1256Private(
    CSpiAnalogIn4x24Bit_ADS1256* device)
    : q_ptr(device) {
  prepareReadRegisterTransfer();
  prepareWriteRegisterTransfer();
  prepareADConversionTransfer();
  prepareCommandTransfer();
}

void CSpiAnalogIn4x24Bit_ADS1256Private::prepareReadRegisterTransfer() {
  ReadRegisterCommand[0] = Command::RREG;
  ReadRegisterCommand[1] = ONE_REGISTER;
  ReadRegisterDummy = Command::NOP;
  prepareTransfer(ReadRegisterTransfer[0], ReadRegisterCommand, nullptr,
                  sizeof(ReadRegisterCommand));
  prepareTransfer(ReadRegisterTransfer[1], &ReadRegisterDummy, &RegisterReceiveBuffer,
                  sizeof(RegisterReceiveBuffer));
  for (spi_ioc_transfer& transfer : ReadRegisterTransfer) {
    transfer.delay_usecs = READ_REGISTER_DELAY;
  }
  prepareList(ReadRegisterTransferSettings, ReadRegisterTransfer, 2);
}

void CSpiAnalogIn4x24Bit_ADS1256Private::prepareWriteRegisterTransfer() {
  WriteRegisterCommand[0] = Command::WREG;
  WriteRegisterCommand[1] = ONE_REGISTER;
  prepareTransfer(WriteRegisterTransfer, WriteRegisterCommand, nullptr,
                  sizeof(WriteRegisterCommand));
  prepareList(WriteRegisterTransferSettings, &WriteRegisterTransfer, 1);
}

void CSpiAnalogIn4x24Bit_ADS1256Private::prepareADConversionTransfer() {
  std::fill(std::begin(ReadDataCommand), std::end(ReadDataCommand), Command::NOP);
  ReadDataCommand[0] = Command::SYNC;
  ReadDataCommand[1] = Command::WAKEUP;
  ReadDataCommand[READ_POSITION] = Command::RDATA;
  prepareTransfer(ReadDataTransfer, ReadDataCommand, ReadDataCommandReceiveBuffer,
                  sizeof(ReadDataCommand));
  prepareList(ReadDataTransferSettings, &ReadDataTransfer, 1);
}

void CSpiAnalogIn4x24Bit_ADS1256Private::prepareCommandTransfer() {
  prepareTransfer(CommandTransfer, &Command, nullptr, sizeof(Command));
  prepareList(CommandTransferSettings, &CommandTransfer, 1);
}

bool CSpiAnalogIn4x24Bit_ADS1256Private::usedChannelsAreValid() const {
  return !UsedChannels.empty() &&
         std::all_of(UsedChannels.begin(), UsedChannels.end(),
                     [this](uint16_t channel) { return channel < MaxChannelCount; });
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256Private::connectPins() {
  for (Orv::CLinuxIoPin* pin : {&ResetPin, &DataReadyPin}) {
    const TErrCode code = pin->connect();
    if (code < 0) {
      return code;
    }
  }
  return ResetPin.write(Orv::HIGH);
}

void CSpiAnalogIn4x24Bit_ADS1256Private::reset() {
  ResetPin.write(Orv::LOW);
  Orv::CThread::sleep(RESET_PULSE_MS);
  ResetPin.write(Orv::HIGH);
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256Private::safeWriteRegister(uint8_t address, uint8_t value,
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
    if ((RegisterReceiveBuffer & writableMask) == value) {
      return 0;
    }
  }
  return NOT_VERIFIED;
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256Private::setReadingContinuously(bool on) {
  return writeCommand(on ? Command::RDATAC : Command::SDATAC);
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256Private::writeCommand(uint8_t command) {
  Command = command;
  return q_ptr->executeManagedTransfer(CommandTransferSettings, CS_SELECT_DESELECT);
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256Private::syncAndTransfer(eCS_Handling handling) {
  const TErrCode code = q_ptr->executeManagedTransfer(ReadDataTransferSettings, handling);
  if (code < 0) {
    return code;
  }
  ADConversionBuffer[UsedChannels[SelectedChannel]] =
      codeOf(ReadDataCommandReceiveBuffer + RESULT_POSITION);
  return 0;
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256Private::selectNextChannel(eCS_Handling handling) {
  ++SelectedChannel;
  if (SelectedChannel >= q_ptr->numberOfChannels()) {
    SelectedChannel = 0;
  }
  WriteRegisterCommand[0] = with(Command::WREG, Register::MUX);
  WriteRegisterCommand[2] = ADS1256Config.MUXValues[UsedChannels[SelectedChannel]];
  return q_ptr->executeManagedTransfer(WriteRegisterTransferSettings, handling);
}

CSpiAnalogIn4x24Bit_ADS1256::CSpiAnalogIn4x24Bit_ADS1256()
    : CLinuxSpiDevice(nullptr, nullptr, nullptr),
      d_ptr(new CSpiAnalogIn4x24Bit_ADS1256Private(this)) {
}

CSpiAnalogIn4x24Bit_ADS1256::~CSpiAnalogIn4x24Bit_ADS1256() {
  delete d_ptr;
}

void CSpiAnalogIn4x24Bit_ADS1256::configurePins(uint32_t resetPin, uint32_t dataReadyPin) {
  d_ptr->ResetPin.configure(resetPin, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  d_ptr->DataReadyPin.configure(dataReadyPin, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
}

void CSpiAnalogIn4x24Bit_ADS1256::setUsedChannels(const std::vector<uint16_t>& channels) {
  d_ptr->UsedChannels = channels;
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256::open() {
  if (!d_ptr->usedChannelsAreValid()) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  TErrCode code = d_ptr->connectPins();
  if (code < 0) {
    return logReturnCode(code);
  }
  code = enableChipSelect(false);
  if (code < 0) {
    return logReturnCode(code);
  }
  // Nothing waits for the self-calibration that follows the pulse.
  d_ptr->reset();
  const struct {
    uint8_t Address;
    uint8_t Value;
    uint8_t WritableMask;
  } startUp[] = {
      {Register::STATUS, ADS1256Config.STATUSValue, Register::STATUS_WRITABLE_BITS},
      {Register::MUX, ADS1256Config.MUXValues[d_ptr->UsedChannels[0]], ALL_BITS},
      {Register::ADCON, ADS1256Config.ADCONValue, ALL_BITS},
      {Register::DRATE, ADS1256Config.DRATEValue, ALL_BITS},
      {Register::IO, ADS1256Config.IOValue, Register::IO_WRITABLE_BITS},
  };
  for (const auto& step : startUp) {
    code = d_ptr->safeWriteRegister(step.Address, step.Value, step.WritableMask);
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  code = d_ptr->setReadingContinuously(false);
  if (code < 0) {
    return logReturnCode(code);
  }
  return d_ptr->writeCommand(Command::SELFCAL);
}

TErrCode CSpiAnalogIn4x24Bit_ADS1256::doConversion() {
  if (!d_ptr->usedChannelsAreValid()) {
    return -EINVAL;
  }
  const std::lock_guard<std::recursive_mutex> lock(transferMutex());
  if (d_ptr->SelectedChannel >= d_ptr->UsedChannels.size()) {
    d_ptr->SelectedChannel = 0;  // the list was shortened
  }
  eCS_Handling handling = CS_JUST_SELECT;
  for (int i = 1; i < READS_PER_CONVERSION; ++i) {
    TErrCode code = d_ptr->syncAndTransfer(handling);
    if (code < 0) {
      return logReturnCode(code);
    }
    handling = CS_NOTHING;
    code = d_ptr->selectNextChannel(handling);
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  return d_ptr->syncAndTransfer(CS_JUST_DESELECT);
}

int32_t CSpiAnalogIn4x24Bit_ADS1256::readChannel(uint16_t index) const {
  if (index >= d_ptr->UsedChannels.size()) {
    return 0;
  }
  const uint16_t channel = d_ptr->UsedChannels[index];
  return channel < d_ptr->MaxChannelCount ? d_ptr->ADConversionBuffer[channel].load() : 0;
}

uint16_t CSpiAnalogIn4x24Bit_ADS1256::numberOfChannels() const {
  return static_cast<uint16_t>(d_ptr->UsedChannels.size());
}

}  // namespace Varnel
