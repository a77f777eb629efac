// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGIN_SPIANALOGIN2X24BITADS1248_P_H
#define VARNEL_CHIPS_ANALOGIN_SPIANALOGIN2X24BITADS1248_P_H

#include <atomic>
#include <cstdint>

#include "orv/LinuxIoPin.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/common/TransferInfo.h"

namespace Varnel {

// The other converter's vocabularies live in the same namespaces: no source includes both headers.

namespace Register {

enum eADS1248Register : uint8_t {
  MUX0 = 0,
  VBIAS = 1,
  MUX1 = 2,
  SYS0 = 3,
  OFC0 = 4,
  OFC1 = 5,
  OFC2 = 6,
  FSC0 = 7,
  FSC1 = 8,
  FSC2 = 9,
  IDAC0 = 10,
  IDAC1 = 11,
  GPIOCFG = 12,
  GPIODIR = 13,
  GPIODAT = 14
};

// What reads back as it was written.
constexpr uint8_t MUX1_WRITABLE_BITS = 0x7F;
constexpr uint8_t SYS0_WRITABLE_BITS = 0x7F;
constexpr uint8_t IDAC0_WRITABLE_BITS = 0x0F;

}  // namespace Register

namespace Command {

enum eADS1248Command : uint8_t {
  NOP = 0xFF,
  WREG = 0x40,  ///< OR register
  RREG = 0x20,  ///< OR register
  RDATA = 0x12,
  RDATAC = 0x14,
  SDATAC = 0x16
};

}  // namespace Command

namespace Bitmask {

enum eADS1248BitMask : uint8_t {
  IDAC1_I1DIR = 0xF0,
  IDAC1_I2DIR = 0x0F,
  SYS0_PGAGAIN = 0xF0,
  SYS0_DRATE = 0x0F
};

}  // namespace Bitmask

class CSpiAnalogIn2x24Bit_ADS1248Private {
 public:
  /// Register values of `open` and of the conversion frames; index 0 is channel 0.
  struct stADS1248Configuration {
    uint8_t MUX0Values[2] = {0x01, 0x3E};  ///< AIN0 - AIN1, AIN7 - AIN6; burn-out sources off
    uint8_t MUX1Values[2] = {0x20, 0x28};  ///< internal reference on; converting against REF0, REF1
    uint8_t SYS0Value = 0x34;              ///< gain 8, 80 samples/s; cache of rate and gain
    uint8_t IDAC0Value = 0x06;             ///< 750 uA, DRDY not on DOUT
    uint8_t IDAC1Value = 0x89;             ///< currents to IEXC1 and IEXC2
    uint8_t GPIOCFGValue = 0x00;           ///< all pins analog
    uint8_t GPIODIRValue = 0x00;
  };

  explicit CSpiAnalogIn2x24Bit_ADS1248Private(CSpiAnalogIn2x24Bit_ADS1248* device);

  /// The data-and-multiplexer frame is the prepared transfer of the device itself.
  void prepareADConversionChannelMuxTransfer();
  void prepareReadRegisterTransfer();
  void prepareWriteRegisterTransfer();
  void prepareADConversionTransfer();
  void prepareCommandTransfer();

  TErrCode connectPins();
  void reset();
  TErrCode safewriteRegister(uint8_t address, uint8_t value, uint8_t writableMask);
  /// Writes gain and rate; the cache follows when the converter holds them.
  TErrCode writeSYS0(uint8_t value);
  TErrCode setReadingContinuously(bool on);

  /// 0 once DRDY is low, -36 when it isn't after 2 ms.
  TErrCode waitForDataReady();
  TErrCode readDataAndMuxChannel(eTransferInfo info);
  /// The data-and-multiplexer frame at a position of an exchange.
  TErrCode executeTransfer(eTransferInfo info);

  CSpiAnalogIn2x24Bit_ADS1248* q_ptr;
  Orv::CLinuxIoPin StartPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};
  Orv::CLinuxIoPin DataReadyPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};
  Orv::CLinuxIoPin ResetPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};
  std::atomic<int32_t> ADConversionBuffer[2] = {{0}, {0}};
  uint8_t SelectedChannel = 0;  ///< the channel that is converting
  const uint8_t NumberOfChannels = 2;
  uint8_t ReadDataMuxChannelCommand[10] = {};
  uint8_t DataReceiveBuffer[10] = {};
  uint8_t ReadRegisterCommand[3] = {};
  uint8_t RegisterReceiveBuffer[3] = {};
  spi_ioc_transfer ReadRegisterTransfer{};
  stSpiMultipleTransferSettings ReadRegisterTransferSettings;
  uint8_t ReadDataCommand[4] = {};
  uint8_t ReadConversionDataCommandReceiveBuffer[4] = {};
  spi_ioc_transfer ReadDataTransfer{};
  stSpiMultipleTransferSettings
      ReadDataTransferSettings;  ///< prepared for reading without switching
  uint8_t WriteRegisterCommand[3] = {};
  spi_ioc_transfer WriteRegisterTransfer{};
  stSpiMultipleTransferSettings WriteRegisterTransferSettings;
  uint8_t Command = 0;
  spi_ioc_transfer CommandTransfer{};
  stSpiMultipleTransferSettings CommandTransferSettings;
  stADS1248Configuration ADS1248Config;
};

}  // namespace Varnel

#endif
