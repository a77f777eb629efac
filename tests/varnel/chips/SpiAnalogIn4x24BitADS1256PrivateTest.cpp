// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Registers.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256_p.h"

namespace {

using Varnel::CSpiAnalogIn4x24Bit_ADS1256;
using Varnel::CSpiAnalogIn4x24Bit_ADS1256Private;
using wire::Lines;
using wire::lines;

/// The driver's own field stands behind the device's five pointers and the two virtual tables.
CSpiAnalogIn4x24Bit_ADS1256Private& privateOf(const CSpiAnalogIn4x24Bit_ADS1256& adc) {
  void* d = nullptr;
  std::memcpy(&d, reinterpret_cast<const char*>(&adc) + 48 + 6 * sizeof(void*), sizeof(d));
  return *static_cast<CSpiAnalogIn4x24Bit_ADS1256Private*>(d);
}

struct AdcRig : BusRig {
  CSpiAnalogIn4x24Bit_ADS1256 adc;
  CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  Registers registers{0x50, 0x10};

  AdcRig() {
    bus.close();
    bus.setMode(1);
    bus.setSpiSpeedKHz(200);
    bus.open();
    adc.setBus(&bus);
    adc.setChipSelector(&selector);
    registers.answer(wire);
    wire.name(d.WriteRegisterCommand, 3, "write");
    wire.name(d.ReadRegisterCommand, 2, "read");
    wire.name(&d.ReadRegisterDummy, 1, "dummy");
    wire.name(&d.RegisterReceiveBuffer, 1, "register");
    wire.name(d.ReadDataCommand, 19, "convert");
    wire.name(d.ReadDataCommandReceiveBuffer, 19, "data");
    wire.name(&d.Command, 1, "command");
    wire.discard();
  }
};

std::string message(const std::string& sent, const std::string& received, int length) {
  const std::string size = std::to_string(length);
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=" + sent + " rx=" + received + " len=" + size +
         " speed_hz=200000 bits_per_word=8}) = " + size;
}

Lines selected(const std::string& frame) {
  return lines("select(chip, true) = 0", frame, "select(chip, false) = 0");
}

Lines verified(const std::string& write, const std::string& read) {
  return lines(
      selected(message("write[" + write + "]", "null", 3)),
      selected("ioctl(7, SPI_IOC_MESSAGE(2), {tx=read[" + read +
               "] rx=null len=2 speed_hz=200000 delay_usecs=10 bits_per_word=8}, {tx=dummy[ff] "
               "rx=register len=1 speed_hz=200000 delay_usecs=10 bits_per_word=8}) = 3"));
}

const std::string kConversion = message("convert[fc 00 ff*13 01 ff ff ff]", "data", 19);

std::string switched(const std::string& inputs) {
  return message("write[51 00 " + inputs + "]", "null", 3);
}

TEST(Ads1256Private, StartsWithItsDefaults) {
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  const CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  EXPECT_EQ(d.q_ptr, &adc);
  for (const std::atomic<int32_t>& value : d.ADConversionBuffer) {
    EXPECT_EQ(value, 0);
  }
  EXPECT_EQ(d.SelectedChannel, 0);
  EXPECT_EQ(d.MaxChannelCount, 4);
  EXPECT_EQ(d.UsedChannels, (std::vector<uint16_t>{0, 1, 2, 3}));
}

TEST(Ads1256Private, StartsWithUnconnectedInputPins) {
  wire::Wire wire;
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  for (Orv::CLinuxIoPin* pin : {&d.ChipSelectPin, &d.DataReadyPin, &d.ResetPin}) {
    EXPECT_EQ(pin->read(), -9);
    EXPECT_EQ(pin->connect(), 0);
    EXPECT_EQ(wire.journal(), lines("pin 0: connect INPUT_PIN PIN_MODE_HW = 0"));
  }
}

TEST(Ads1256Private, TheChipSelectPinIsNeverUsed) {
  AdcRig rig;
  rig.adc.configurePins(22, 27);
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.d.ChipSelectPin.read(), -9) << "not connected";
  rig.wire.discard();
}

TEST(Ads1256Private, KeepsItsFieldsInOrderWithTheirTypes) {
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  const CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  const std::vector<const void*> fields = {&d.q_ptr,
                                           &d.ChipSelectPin,
                                           &d.DataReadyPin,
                                           &d.ResetPin,
                                           &d.ADConversionBuffer,
                                           &d.SelectedChannel,
                                           &d.MaxChannelCount,
                                           &d.UsedChannels,
                                           &d.ReadRegisterCommand,
                                           &d.ReadRegisterDummy,
                                           &d.RegisterReceiveBuffer,
                                           &d.ReadRegisterTransfer,
                                           &d.ReadRegisterTransferSettings,
                                           &d.ReadDataCommand,
                                           &d.ReadDataCommandReceiveBuffer,
                                           &d.ReadDataTransfer,
                                           &d.ReadDataTransferSettings,
                                           &d.WriteRegisterCommand,
                                           &d.WriteRegisterTransfer,
                                           &d.WriteRegisterTransferSettings,
                                           &d.Command,
                                           &d.CommandTransfer,
                                           &d.CommandTransferSettings};
  EXPECT_EQ(fields.front(), &d);
  for (size_t i = 1; i < fields.size(); ++i) {
    EXPECT_LT(fields[i - 1], fields[i]) << "field " << i;
  }
  EXPECT_TRUE((std::is_same_v<decltype(d.ADConversionBuffer), std::atomic<int32_t>[4]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.SelectedChannel), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.MaxChannelCount), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.UsedChannels), std::vector<uint16_t>>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadRegisterCommand), uint8_t[2]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadRegisterDummy), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.RegisterReceiveBuffer), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadRegisterTransfer), spi_ioc_transfer[2]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadDataCommand), uint8_t[19]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadDataCommandReceiveBuffer), uint8_t[19]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.WriteRegisterCommand), uint8_t[3]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.Command), uint8_t>));
  const Varnel::stADS1256Configuration config{1, {2, 3, 4, 5}, 6, 7, 8};
  uint8_t bytes[8];
  static_assert(sizeof(config) == sizeof(bytes));
  std::memcpy(bytes, &config, sizeof(bytes));
  EXPECT_EQ(bytes[0], config.STATUSValue);
  EXPECT_EQ(bytes[1], config.MUXValues[0]);
  EXPECT_EQ(bytes[5], config.ADCONValue);
  EXPECT_EQ(bytes[6], config.DRATEValue);
  EXPECT_EQ(bytes[7], config.IOValue);
}

TEST(Ads1256Private, NamesRegistersCommandsAndDirections) {
  EXPECT_EQ(Varnel::Register::STATUS, 0);
  EXPECT_EQ(Varnel::Register::MUX, 1);
  EXPECT_EQ(Varnel::Register::ADCON, 2);
  EXPECT_EQ(Varnel::Register::DRATE, 3);
  EXPECT_EQ(Varnel::Register::IO, 4);
  EXPECT_EQ(Varnel::Register::OFC0, 5);
  EXPECT_EQ(Varnel::Register::OFC1, 6);
  EXPECT_EQ(Varnel::Register::OFC2, 7);
  EXPECT_EQ(Varnel::Register::FSC0, 8);
  EXPECT_EQ(Varnel::Register::FSC1, 9);
  EXPECT_EQ(Varnel::Register::FSC2, 10);
  EXPECT_EQ(Varnel::Register::STATUS_WRITABLE_BITS, 15);
  EXPECT_EQ(Varnel::Register::IO_WRITABLE_BITS, 240);
  EXPECT_EQ(Varnel::Command::WAKEUP, 0x00);
  EXPECT_EQ(Varnel::Command::RDATA, 0x01);
  EXPECT_EQ(Varnel::Command::RDATAC, 0x03);
  EXPECT_EQ(Varnel::Command::SDATAC, 0x0F);
  EXPECT_EQ(Varnel::Command::RREG, 0x10);
  EXPECT_EQ(Varnel::Command::WREG, 0x50);
  EXPECT_EQ(Varnel::Command::SELFCAL, 0xF0);
  EXPECT_EQ(Varnel::Command::SELFOCAL, 0xF1);
  EXPECT_EQ(Varnel::Command::SELFGCAL, 0xF2);
  EXPECT_EQ(Varnel::Command::SYSOCAL, 0xF3);
  EXPECT_EQ(Varnel::Command::SYSGCAL, 0xF4);
  EXPECT_EQ(Varnel::Command::SYNC, 0xFC);
  EXPECT_EQ(Varnel::Command::STANDBY, 0xFD);
  EXPECT_EQ(Varnel::Command::RESET, 0xFE);
  EXPECT_EQ(Varnel::Command::NOP, 0xFF);
  EXPECT_EQ(Varnel::IODIR_OUTPUT, 0);
  EXPECT_EQ(Varnel::IODIR_INPUT, 1);
}

TEST(Ads1256Private, PreparesItsListsInModeOne) {
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  struct Case {
    const Varnel::stSpiMultipleTransferSettings& settings;
    const spi_ioc_transfer* transfers;
    uint16_t count;
  };
  for (const Case& of : {Case{d.ReadRegisterTransferSettings, d.ReadRegisterTransfer, 2},
                         Case{d.WriteRegisterTransferSettings, &d.WriteRegisterTransfer, 1},
                         Case{d.ReadDataTransferSettings, &d.ReadDataTransfer, 1},
                         Case{d.CommandTransferSettings, &d.CommandTransfer, 1}}) {
    EXPECT_EQ(of.settings.ioc_transfer, of.transfers);
    EXPECT_EQ(of.settings.transfer_count, of.count);
    EXPECT_EQ(of.settings.bus_settings.Mode, 1U);
    EXPECT_EQ(of.settings.bus_settings.LSBFirst, 0);
  }
}

TEST(Ads1256Private, PreparesEveryFieldOfItsTransfers) {
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  struct Case {
    const spi_ioc_transfer& transfer;
    const void* sent;
    const void* received;
    unsigned int length;
    uint16_t delay;
  };
  for (const Case& of :
       {Case{d.ReadRegisterTransfer[0], d.ReadRegisterCommand, nullptr, 2, 10},
        Case{d.ReadRegisterTransfer[1], &d.ReadRegisterDummy, &d.RegisterReceiveBuffer, 1, 10},
        Case{d.WriteRegisterTransfer, d.WriteRegisterCommand, nullptr, 3, 0},
        Case{d.ReadDataTransfer, d.ReadDataCommand, d.ReadDataCommandReceiveBuffer, 19, 0},
        Case{d.CommandTransfer, &d.Command, nullptr, 1, 0}}) {
    spi_ioc_transfer expected{};
    expected.tx_buf = reinterpret_cast<uintptr_t>(of.sent);
    expected.rx_buf = reinterpret_cast<uintptr_t>(of.received);
    expected.len = of.length;
    expected.speed_hz = 200000;
    expected.delay_usecs = of.delay;
    expected.bits_per_word = 8;
    EXPECT_EQ(std::memcmp(&of.transfer, &expected, sizeof(expected)), 0) << of.length;
  }
}

TEST(Ads1256Private, SafeWriteWritesAndReadsBackOnce) {
  AdcRig rig;
  EXPECT_EQ(rig.d.safeWriteRegister(2, 0x27, 0xFF), 0);
  EXPECT_EQ(rig.wire.journal(), verified("52 00 27", "12 00"));
}

TEST(Ads1256Private, SafeWriteMasksWhatItReads) {
  AdcRig rig;
  rig.registers.stick(0, 0x32);
  EXPECT_EQ(rig.d.safeWriteRegister(0, 0x02, 0x0F), 0);
  EXPECT_EQ(rig.wire.journal(), verified("50 00 02", "10 00"));
}

TEST(Ads1256Private, SafeWriteTriesTwiceNotMore) {
  AdcRig rig;
  rig.registers.stick(3, 0xF0, 1);
  EXPECT_EQ(rig.d.safeWriteRegister(3, 0xB0, 0xFF), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(verified("53 00 b0", "13 00"), verified("53 00 b0", "13 00")));
  rig.registers.stick(3, 0xF0, 2);
  EXPECT_EQ(rig.d.safeWriteRegister(3, 0xB0, 0xFF), -201);
  EXPECT_EQ(rig.wire.journal(), lines(verified("53 00 b0", "13 00"), verified("53 00 b0", "13 00")))
      << "and logs nothing";
}

TEST(Ads1256Private, SafeWriteNeverVerifiesAValueOutsideTheMask) {
  AdcRig rig;
  EXPECT_EQ(rig.d.safeWriteRegister(4, 0xE1, 0xF0), -201);
  EXPECT_EQ(rig.registers.value(4), 0xE1) << "although the register holds it";
  EXPECT_EQ(rig.wire.journal(),
            lines(verified("54 00 e1", "14 00"), verified("54 00 e1", "14 00")));
}

TEST(Ads1256Private, SafeWriteEndsWithTheFirstFailedTransfer) {
  for (unsigned int failing = 1; failing <= 4; ++failing) {
    AdcRig rig;
    rig.registers.stick(3, 0x00);
    rig.wire.fails("MESSAGE", EIO, failing);
    EXPECT_EQ(rig.d.safeWriteRegister(3, 0xB0, 0xFF), -5);
    const Lines journal = rig.wire.journal();
    EXPECT_EQ(journal.size(), (failing - 1) * 3 + 4);
    EXPECT_EQ(journal.back(),
              wire::logged(EIO, "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer"));
  }
}

TEST(Ads1256Private, SendsSingleCommands) {
  AdcRig rig;
  EXPECT_EQ(rig.d.setReadingContinuously(true), 0);
  EXPECT_EQ(rig.wire.journal(), selected(message("command[03]", "null", 1)));
  EXPECT_EQ(rig.d.setReadingContinuously(false), 0);
  EXPECT_EQ(rig.wire.journal(), selected(message("command[0f]", "null", 1)));
  EXPECT_EQ(rig.d.writeCommand(0xFD), 0);
  EXPECT_EQ(rig.wire.journal(), selected(message("command[fd]", "null", 1)));
  rig.wire.fails("select(chip, true)", ENODEV);
  EXPECT_EQ(rig.d.writeCommand(0xFE), -19);
  rig.wire.discard();
}

TEST(Ads1256Private, ConvertsAtEveryPlaceInAnExchange) {
  AdcRig rig;
  EXPECT_EQ(rig.d.syncAndTransfer(Varnel::CS_JUST_SELECT), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", kConversion));
  EXPECT_EQ(rig.d.syncAndTransfer(Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kConversion));
  EXPECT_EQ(rig.d.syncAndTransfer(Varnel::CS_JUST_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kConversion, "select(chip, false) = 0"));
  EXPECT_EQ(rig.d.syncAndTransfer(Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(), selected(kConversion));
}

TEST(Ads1256Private, AResultIsStoredUnderItsPhysicalChannel) {
  AdcRig rig;
  rig.adc.setUsedChannels({3, 1});
  rig.d.SelectedChannel = 1;
  std::vector<uint8_t> frame(19, 0xFF);
  frame[16] = 0x12;
  frame[17] = 0x34;
  frame[18] = 0x56;
  rig.wire.receives(frame);
  EXPECT_EQ(rig.d.syncAndTransfer(Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.d.ADConversionBuffer[0], 0);
  EXPECT_EQ(rig.d.ADConversionBuffer[1], 0x123456);
  EXPECT_EQ(rig.d.ADConversionBuffer[2], 0);
  EXPECT_EQ(rig.d.ADConversionBuffer[3], 0);
  EXPECT_EQ(rig.d.SelectedChannel, 1);
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.d.syncAndTransfer(Varnel::CS_SELECT_DESELECT), -5);
  EXPECT_EQ(rig.d.ADConversionBuffer[1], 0x123456);
  rig.wire.discard();
}

TEST(Ads1256Private, StepsThroughTheUsedChannels) {
  AdcRig rig;
  for (const auto& [inputs, selected] :
       {std::pair<const char*, int>{"23", 1}, {"45", 2}, {"67", 3}, {"01", 0}}) {
    EXPECT_EQ(rig.d.selectNextChannel(Varnel::CS_NOTHING), 0);
    EXPECT_EQ(rig.wire.journal(), lines(switched(inputs)));
    EXPECT_EQ(rig.d.SelectedChannel, selected);
  }
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.d.selectNextChannel(Varnel::CS_NOTHING), -5);
  EXPECT_EQ(rig.d.SelectedChannel, 1) << "moves on all the same";
  rig.wire.discard();
}

TEST(Ads1256Private, ThePositionWrapsAfter255) {
  AdcRig rig;
  rig.adc.setUsedChannels(std::vector<uint16_t>(300, 2));
  rig.d.SelectedChannel = 255;
  EXPECT_EQ(rig.d.selectNextChannel(Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.d.SelectedChannel, 0);
  EXPECT_EQ(rig.wire.journal(), selected(switched("45")));
}

struct TwoOfFour : CSpiAnalogIn4x24Bit_ADS1256 {
  uint16_t numberOfChannels() const override { return 2; }
};

TEST(Ads1256Private, AsksTheVirtualNumberOfChannels) {
  AdcRig rig;
  TwoOfFour adc;
  adc.setBus(&rig.bus);
  CSpiAnalogIn4x24Bit_ADS1256Private& d = privateOf(adc);
  EXPECT_EQ(d.selectNextChannel(Varnel::CS_NOTHING), 0);
  EXPECT_EQ(d.SelectedChannel, 1);
  EXPECT_EQ(d.selectNextChannel(Varnel::CS_NOTHING), 0);
  EXPECT_EQ(d.SelectedChannel, 0);
  rig.wire.discard();
}

TEST(Ads1256Private, EachConversionStartsWhereTheLastEnded) {
  AdcRig rig;
  for (const int position : {3, 2, 1, 0, 3}) {
    EXPECT_EQ(rig.adc.doConversion(), 0);
    EXPECT_EQ(rig.d.SelectedChannel, position);
  }
  rig.adc.setUsedChannels({0, 1});
  EXPECT_EQ(rig.d.SelectedChannel, 3) << "setting channels doesn't touch the position";
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.d.SelectedChannel, 1) << "from 0 on, three steps";
  rig.wire.discard();
}

TEST(Ads1256Private, OpenLeavesThePositionAlone) {
  AdcRig rig;
  rig.adc.configurePins(22, 27);
  rig.d.SelectedChannel = 2;
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.d.SelectedChannel, 2);
  EXPECT_EQ(rig.registers.value(1), 0x01) << "although the inputs are those of the first channel";
  rig.wire.discard();
}

TEST(Ads1256Private, ResetPulsesTheLineLow) {
  AdcRig rig;
  rig.adc.configurePins(22, 27);
  rig.d.ResetPin.connect();
  rig.wire.discard();
  rig.d.reset();
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", "sleep(10)", "pin 22: write HIGH = 0"));
}

}  // namespace
