// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGIN_SPIANALOGIN4X24BITADS1256_P_H
#define VARNEL_CHIPS_ANALOGIN_SPIANALOGIN4X24BITADS1256_P_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"

namespace Varnel {

// The other converter's vocabularies live in the same namespaces: no source includes both headers.

namespace Register {

enum eADS1256Register : uint8_t {
  STATUS = 0,
  MUX = 1,
  ADCON = 2,
  DRATE = 3,
  IO = 4,
  OFC0 = 5,
  OFC1 = 6,
  OFC2 = 7,
  FSC0 = 8,
  FSC1 = 9,
  FSC2 = 10
};

// What reads back as it was written.
constexpr uint8_t STATUS_WRITABLE_BITS = 0x0F;
constexpr uint8_t IO_WRITABLE_BITS = 0xF0;

}  // namespace Register

namespace Command {

enum eADS1256Command : uint8_t {
  WAKEUP = 0x00,
  RDATA = 0x01,
  RDATAC = 0x03,
  SDATAC = 0x0F,
  RREG = 0x10,  ///< OR register
  WREG = 0x50,  ///< OR register
  SELFCAL = 0xF0,
  SELFOCAL = 0xF1,
  SELFGCAL = 0xF2,
  SYSOCAL = 0xF3,
  SYSGCAL = 0xF4,
  SYNC = 0xFC,
  STANDBY = 0xFD,
  RESET = 0xFE,
  NOP = 0xFF
};

}  // namespace Command

/// Direction bits of the IO register.
enum eGPIOCONTROL_GPIODirection { IODIR_OUTPUT = 0, IODIR_INPUT = 1 };

/// Register values of `open`, and the inputs of each physical channel.
struct stADS1256Configuration {
  uint8_t STATUSValue;
  uint8_t MUXValues[4];
  uint8_t ADCONValue;
  uint8_t DRATEValue;
  uint8_t IOValue;
};

class CSpiAnalogIn4x24Bit_ADS1256Private {
 public:
  explicit CSpiAnalogIn4x24Bit_ADS1256Private(CSpiAnalogIn4x24Bit_ADS1256* device);

  void prepareReadRegisterTransfer();
  void prepareWriteRegisterTransfer();
  void prepareADConversionTransfer();
  void prepareCommandTransfer();

  /// There are used channels, and the converter has all of them.
  bool usedChannelsAreValid() const;

  TErrCode connectPins();
  void reset();
  TErrCode safeWriteRegister(uint8_t address, uint8_t value, uint8_t writableMask);
  TErrCode setReadingContinuously(bool on);
  TErrCode writeCommand(uint8_t command);

  /// Converts and stores the value of the selected channel.
  TErrCode syncAndTransfer(eCS_Handling handling);
  /// Switches the inputs, without reading back.
  TErrCode selectNextChannel(eCS_Handling handling);

  CSpiAnalogIn4x24Bit_ADS1256* q_ptr;
  Orv::CLinuxIoPin ChipSelectPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};  ///< not used
  Orv::CLinuxIoPin DataReadyPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};   ///< never read
  Orv::CLinuxIoPin ResetPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};
  std::atomic<int32_t> ADConversionBuffer[4] = {{0}, {0}, {0}, {0}};  ///< by physical channel
  uint8_t SelectedChannel = 0;                                        ///< index into UsedChannels
  uint8_t MaxChannelCount = 4;
  std::vector<uint16_t> UsedChannels = {0, 1, 2, 3};
  uint8_t ReadRegisterCommand[2] = {};
  uint8_t ReadRegisterDummy = 0;
  uint8_t RegisterReceiveBuffer = 0;
  spi_ioc_transfer ReadRegisterTransfer[2] = {};
  stSpiMultipleTransferSettings ReadRegisterTransferSettings;
  uint8_t ReadDataCommand[19] = {};
  uint8_t ReadDataCommandReceiveBuffer[19] = {};
  spi_ioc_transfer ReadDataTransfer{};
  stSpiMultipleTransferSettings ReadDataTransferSettings;
  uint8_t WriteRegisterCommand[3] = {};
  spi_ioc_transfer WriteRegisterTransfer{};
  stSpiMultipleTransferSettings WriteRegisterTransferSettings;
  uint8_t Command = 0;
  spi_ioc_transfer CommandTransfer{};
  stSpiMultipleTransferSettings CommandTransferSettings;
};

}  // namespace Varnel

#endif
