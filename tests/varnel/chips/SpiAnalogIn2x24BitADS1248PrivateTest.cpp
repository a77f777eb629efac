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
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248_p.h"

namespace {

using Varnel::CSpiAnalogIn2x24Bit_ADS1248;
using Varnel::CSpiAnalogIn2x24Bit_ADS1248Private;
using wire::Lines;
using wire::lines;

struct OpenAdc : CSpiAnalogIn2x24Bit_ADS1248 {
  using CSpiAnalogIn2x24Bit_ADS1248::m_TransferSettings;
};

/// The driver's own field stands behind the device's five pointers and the two virtual tables.
CSpiAnalogIn2x24Bit_ADS1248Private& privateOf(const CSpiAnalogIn2x24Bit_ADS1248& adc) {
  void* d = nullptr;
  std::memcpy(&d, reinterpret_cast<const char*>(&adc) + 48 + 6 * sizeof(void*), sizeof(d));
  return *static_cast<CSpiAnalogIn2x24Bit_ADS1248Private*>(d);
}

struct AdcRig : BusRig {
  OpenAdc adc;
  CSpiAnalogIn2x24Bit_ADS1248Private& d = privateOf(adc);
  Registers registers{0x40, 0x20};

  AdcRig() {
    bus.close();
    bus.setMode(1);
    bus.setSpiSpeedKHz(2000);
    bus.open();
    adc.setBus(&bus);
    adc.setChipSelector(&selector);
    registers.answer(wire);
    wire.name(d.WriteRegisterCommand, 3, "write");
    wire.name(d.ReadRegisterCommand, 3, "read");
    wire.name(d.RegisterReceiveBuffer, 3, "register");
    wire.name(d.ReadDataMuxChannelCommand, 10, "mux");
    wire.name(d.DataReceiveBuffer, 10, "data");
    wire.name(d.ReadDataCommand, 4, "plain");
    wire.name(d.ReadConversionDataCommandReceiveBuffer, 4, "result");
    wire.name(&d.Command, 1, "command");
    wire.discard();
  }
};

std::string message(const std::string& sent, const std::string& received, int length) {
  const std::string size = std::to_string(length);
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=" + sent + " rx=" + received + " len=" + size +
         " speed_hz=2000000 bits_per_word=8}) = " + size;
}

Lines selected(const std::string& frame) {
  return lines("select(chip, true) = 0", frame, "select(chip, false) = 0");
}

Lines verified(const std::string& write, const std::string& read) {
  return lines(selected(message("write[" + write + "]", "null", 3)),
               selected(message("read[" + read + "]", "register", 3)));
}

TEST(Ads1248Private, StartsWithItsDefaults) {
  const CSpiAnalogIn2x24Bit_ADS1248 adc;
  const CSpiAnalogIn2x24Bit_ADS1248Private& d = privateOf(adc);
  EXPECT_EQ(d.q_ptr, &adc);
  EXPECT_EQ(d.ADConversionBuffer[0], 0);
  EXPECT_EQ(d.ADConversionBuffer[1], 0);
  EXPECT_EQ(d.SelectedChannel, 0);
  EXPECT_EQ(d.NumberOfChannels, 2);
  EXPECT_EQ(d.ADS1248Config.MUX0Values[0], 0x01);
  EXPECT_EQ(d.ADS1248Config.MUX0Values[1], 0x3E);
  EXPECT_EQ(d.ADS1248Config.MUX1Values[0], 0x20);
  EXPECT_EQ(d.ADS1248Config.MUX1Values[1], 0x28);
  EXPECT_EQ(d.ADS1248Config.SYS0Value, 0x34);
  EXPECT_EQ(d.ADS1248Config.IDAC0Value, 0x06);
  EXPECT_EQ(d.ADS1248Config.IDAC1Value, 0x89);
  EXPECT_EQ(d.ADS1248Config.GPIOCFGValue, 0x00);
  EXPECT_EQ(d.ADS1248Config.GPIODIRValue, 0x00);
}

TEST(Ads1248Private, StartsWithUnconnectedInputPins) {
  wire::Wire wire;
  const CSpiAnalogIn2x24Bit_ADS1248 adc;
  CSpiAnalogIn2x24Bit_ADS1248Private& d = privateOf(adc);
  for (Orv::CLinuxIoPin* pin : {&d.StartPin, &d.DataReadyPin, &d.ResetPin}) {
    EXPECT_EQ(pin->read(), -9);
    EXPECT_EQ(pin->connect(), 0);
    EXPECT_EQ(wire.journal(), lines("pin 0: connect INPUT_PIN PIN_MODE_HW = 0"));
  }
}

TEST(Ads1248Private, KeepsItsFieldsInOrderWithTheirTypes) {
  const CSpiAnalogIn2x24Bit_ADS1248 adc;
  const CSpiAnalogIn2x24Bit_ADS1248Private& d = privateOf(adc);
  const std::vector<const void*> fields = {&d.q_ptr,
                                           &d.StartPin,
                                           &d.DataReadyPin,
                                           &d.ResetPin,
                                           &d.ADConversionBuffer,
                                           &d.SelectedChannel,
                                           &d.NumberOfChannels,
                                           &d.ReadDataMuxChannelCommand,
                                           &d.DataReceiveBuffer,
                                           &d.ReadRegisterCommand,
                                           &d.RegisterReceiveBuffer,
                                           &d.ReadRegisterTransfer,
                                           &d.ReadRegisterTransferSettings,
                                           &d.ReadDataCommand,
                                           &d.ReadConversionDataCommandReceiveBuffer,
                                           &d.ReadDataTransfer,
                                           &d.ReadDataTransferSettings,
                                           &d.WriteRegisterCommand,
                                           &d.WriteRegisterTransfer,
                                           &d.WriteRegisterTransferSettings,
                                           &d.Command,
                                           &d.CommandTransfer,
                                           &d.CommandTransferSettings,
                                           &d.ADS1248Config};
  EXPECT_EQ(fields.front(), &d);
  for (size_t i = 1; i < fields.size(); ++i) {
    EXPECT_LT(fields[i - 1], fields[i]) << "field " << i;
  }
  EXPECT_TRUE((std::is_same_v<decltype(d.ADConversionBuffer), std::atomic<int32_t>[2]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.SelectedChannel), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.NumberOfChannels), const uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadDataMuxChannelCommand), uint8_t[10]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.DataReceiveBuffer), uint8_t[10]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadRegisterCommand), uint8_t[3]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.RegisterReceiveBuffer), uint8_t[3]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ReadDataCommand), uint8_t[4]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.WriteRegisterCommand), uint8_t[3]>));
  EXPECT_TRUE((std::is_same_v<decltype(d.Command), uint8_t>));
  using Configuration = CSpiAnalogIn2x24Bit_ADS1248Private::stADS1248Configuration;
  EXPECT_EQ(sizeof(Configuration), 9U) << "bytes, nothing between them";
}

TEST(Ads1248Private, NamesRegistersCommandsAndMasks) {
  EXPECT_EQ(Varnel::Register::MUX0, 0);
  EXPECT_EQ(Varnel::Register::VBIAS, 1);
  EXPECT_EQ(Varnel::Register::MUX1, 2);
  EXPECT_EQ(Varnel::Register::SYS0, 3);
  EXPECT_EQ(Varnel::Register::OFC0, 4);
  EXPECT_EQ(Varnel::Register::OFC1, 5);
  EXPECT_EQ(Varnel::Register::OFC2, 6);
  EXPECT_EQ(Varnel::Register::FSC0, 7);
  EXPECT_EQ(Varnel::Register::FSC1, 8);
  EXPECT_EQ(Varnel::Register::FSC2, 9);
  EXPECT_EQ(Varnel::Register::IDAC0, 10);
  EXPECT_EQ(Varnel::Register::IDAC1, 11);
  EXPECT_EQ(Varnel::Register::GPIOCFG, 12);
  EXPECT_EQ(Varnel::Register::GPIODIR, 13);
  EXPECT_EQ(Varnel::Register::GPIODAT, 14);
  EXPECT_EQ(Varnel::Register::MUX1_WRITABLE_BITS, 127);
  EXPECT_EQ(Varnel::Register::SYS0_WRITABLE_BITS, 127);
  EXPECT_EQ(Varnel::Register::IDAC0_WRITABLE_BITS, 15);
  EXPECT_EQ(Varnel::Command::NOP, 0xFF);
  EXPECT_EQ(Varnel::Command::WREG, 0x40);
  EXPECT_EQ(Varnel::Command::RREG, 0x20);
  EXPECT_EQ(Varnel::Command::RDATA, 0x12);
  EXPECT_EQ(Varnel::Command::RDATAC, 0x14);
  EXPECT_EQ(Varnel::Command::SDATAC, 0x16);
  EXPECT_EQ(Varnel::Bitmask::IDAC1_I1DIR, 0xF0);
  EXPECT_EQ(Varnel::Bitmask::IDAC1_I2DIR, 0x0F);
  EXPECT_EQ(Varnel::Bitmask::SYS0_PGAGAIN, 0xF0);
  EXPECT_EQ(Varnel::Bitmask::SYS0_DRATE, 0x0F);
}

TEST(Ads1248Private, PreparesListsOfOneInModeOne) {
  const CSpiAnalogIn2x24Bit_ADS1248 adc;
  CSpiAnalogIn2x24Bit_ADS1248Private& d = privateOf(adc);
  struct Case {
    const Varnel::stSpiMultipleTransferSettings& settings;
    const spi_ioc_transfer& transfer;
    const void* sent;
    const void* received;
    unsigned int length;
  };
  for (const Case& of :
       {Case{d.ReadRegisterTransferSettings, d.ReadRegisterTransfer, d.ReadRegisterCommand,
             d.RegisterReceiveBuffer, 3},
        Case{d.WriteRegisterTransferSettings, d.WriteRegisterTransfer, d.WriteRegisterCommand,
             nullptr, 3},
        Case{d.ReadDataTransferSettings, d.ReadDataTransfer, d.ReadDataCommand,
             d.ReadConversionDataCommandReceiveBuffer, 4},
        Case{d.CommandTransferSettings, d.CommandTransfer, &d.Command, nullptr, 1}}) {
    EXPECT_EQ(of.settings.ioc_transfer, &of.transfer);
    EXPECT_EQ(of.settings.transfer_count, 1);
    EXPECT_EQ(of.settings.bus_settings.Mode, 1U);
    EXPECT_EQ(of.settings.bus_settings.LSBFirst, 0);
    spi_ioc_transfer expected{};
    expected.tx_buf = reinterpret_cast<uintptr_t>(of.sent);
    expected.rx_buf = reinterpret_cast<uintptr_t>(of.received);
    expected.len = of.length;
    expected.speed_hz = 2000000;
    expected.bits_per_word = 8;
    EXPECT_EQ(std::memcmp(&of.transfer, &expected, sizeof(expected)), 0) << of.length;
  }
}

TEST(Ads1248Private, PreparesAFrameThatReadsWithoutSwitching) {
  AdcRig rig;
  EXPECT_EQ(
      rig.adc.executeManagedTransfer(rig.d.ReadDataTransferSettings, Varnel::CS_SELECT_DESELECT),
      0);
  EXPECT_EQ(rig.wire.journal(), selected(message("plain[12 ff ff ff]", "result", 4)));
}

TEST(Ads1248Private, SafewriteWritesAndReadsBackOnce) {
  AdcRig rig;
  EXPECT_EQ(rig.d.safewriteRegister(11, 0xA5, 0xFF), 0);
  EXPECT_EQ(rig.wire.journal(), verified("4b 00 a5", "2b 00 ff"));
}

TEST(Ads1248Private, SafewriteMasksWhatItReads) {
  AdcRig rig;
  rig.registers.stick(2, 0xA8);
  EXPECT_EQ(rig.d.safewriteRegister(2, 0x28, 0x7F), 0);
  EXPECT_EQ(rig.wire.journal(), verified("42 00 28", "22 00 ff"));
}

TEST(Ads1248Private, SafewriteTriesTwiceNotMore) {
  AdcRig rig;
  rig.registers.stick(0, 0x00, 1);
  EXPECT_EQ(rig.d.safewriteRegister(0, 0x3E, 0xFF), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(verified("40 00 3e", "20 00 ff"), verified("40 00 3e", "20 00 ff")));
  rig.registers.stick(0, 0x00, 2);
  EXPECT_EQ(rig.d.safewriteRegister(0, 0x3E, 0xFF), -201);
  EXPECT_EQ(rig.wire.journal(),
            lines(verified("40 00 3e", "20 00 ff"), verified("40 00 3e", "20 00 ff")))
      << "and logs nothing";
}

TEST(Ads1248Private, SafewriteNeverVerifiesAValueOutsideTheMask) {
  AdcRig rig;
  EXPECT_EQ(rig.d.safewriteRegister(2, 0xA0, 0x7F), -201);
  EXPECT_EQ(rig.registers.value(2), 0xA0) << "although the register holds it";
  EXPECT_EQ(rig.wire.journal(),
            lines(verified("42 00 a0", "22 00 ff"), verified("42 00 a0", "22 00 ff")));
}

TEST(Ads1248Private, SafewriteEndsWithTheFirstFailedTransfer) {
  for (unsigned int failing = 1; failing <= 4; ++failing) {
    AdcRig rig;
    rig.registers.stick(0, 0x00);
    rig.wire.fails("MESSAGE", EIO, failing);
    EXPECT_EQ(rig.d.safewriteRegister(0, 0x3E, 0xFF), -5);
    const Lines journal = rig.wire.journal();
    EXPECT_EQ(journal.size(), (failing - 1) * 3 + 4);
    EXPECT_EQ(journal.back(),
              wire::logged(EIO, "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer"));
  }
}

TEST(Ads1248Private, SwitchesContinuousReading) {
  AdcRig rig;
  EXPECT_EQ(rig.d.setReadingContinuously(true), 0);
  EXPECT_EQ(rig.wire.journal(), selected(message("command[14]", "null", 1)));
  EXPECT_EQ(rig.d.setReadingContinuously(false), 0);
  EXPECT_EQ(rig.wire.journal(), selected(message("command[16]", "null", 1)));
  rig.wire.fails("select(chip, true)", ENODEV);
  EXPECT_EQ(rig.d.setReadingContinuously(false), -19);
  rig.wire.discard();
}

TEST(Ads1248Private, TakesEveryPlaceInAnExchange) {
  AdcRig rig;
  const std::string frame = message("mux[12 ff ff ff 40 00 01 42 00 20]", "data", 10);
  EXPECT_EQ(rig.d.executeTransfer(Varnel::DATA_FIRST), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", frame));
  EXPECT_EQ(rig.d.executeTransfer(Varnel::DATA_MIDLLE), 0);
  EXPECT_EQ(rig.wire.journal(), lines(frame));
  EXPECT_EQ(rig.d.executeTransfer(Varnel::DATA_LAST), 0);
  EXPECT_EQ(rig.wire.journal(), lines(frame, "select(chip, false) = 0"));
  EXPECT_EQ(rig.d.executeTransfer(Varnel::DATA_SINGLE), 0);
  EXPECT_EQ(rig.wire.journal(), selected(frame));
}

TEST(Ads1248Private, RefusesOtherPlaces) {
  AdcRig rig;
  for (const uint32_t place : {4U, 255U, 0xFFFFFFFFU}) {
    EXPECT_EQ(rig.d.executeTransfer(static_cast<Varnel::eTransferInfo>(place)), -22);
    EXPECT_EQ(rig.d.readDataAndMuxChannel(static_cast<Varnel::eTransferInfo>(place)), -22);
  }
  EXPECT_EQ(rig.d.SelectedChannel, 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Ads1248Private, AResultBelongsToTheChannelThatWasConverting) {
  AdcRig rig;
  rig.wire.receives({0xFF, 0x01, 0x02, 0x03, 0xFF}).receives({0xFF, 0x04, 0x05, 0x06, 0xFF});
  EXPECT_EQ(rig.d.readDataAndMuxChannel(Varnel::DATA_SINGLE), 0);
  EXPECT_EQ(rig.wire.journal(),
            selected(message("mux[12 ff ff ff 40 00 3e 42 00 28]", "data", 10)));
  EXPECT_EQ(rig.d.SelectedChannel, 1);
  EXPECT_EQ(rig.d.ADConversionBuffer[0], 0x010203);
  EXPECT_EQ(rig.d.ADConversionBuffer[1], 0);
  EXPECT_EQ(rig.d.readDataAndMuxChannel(Varnel::DATA_MIDLLE), 0);
  EXPECT_EQ(rig.wire.journal(), lines(message("mux[12 ff ff ff 40 00 01 42 00 20]", "data", 10)));
  EXPECT_EQ(rig.d.SelectedChannel, 0);
  EXPECT_EQ(rig.d.ADConversionBuffer[0], 0x010203);
  EXPECT_EQ(rig.d.ADConversionBuffer[1], 0x040506);
}

TEST(Ads1248Private, AFailedTransferChangesNeitherCacheNorChannel) {
  AdcRig rig;
  rig.d.SelectedChannel = 1;
  rig.d.ADConversionBuffer[1] = 77;
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.d.readDataAndMuxChannel(Varnel::DATA_SINGLE), -5);
  EXPECT_EQ(rig.d.SelectedChannel, 1);
  EXPECT_EQ(rig.d.ADConversionBuffer[1], 77);
  rig.wire.discard();
}

TEST(Ads1248Private, AConversionEndsWithTheChannelItBeganWith) {
  AdcRig rig;
  rig.adc.configurePins(17, 27, 22);
  EXPECT_EQ(rig.adc.open(), 0);
  for (const uint8_t channel : {uint8_t{0}, uint8_t{1}}) {
    rig.d.SelectedChannel = channel;
    EXPECT_EQ(rig.adc.doConversion(), 0);
    EXPECT_EQ(rig.d.SelectedChannel, channel);
  }
  rig.wire.pinReads(27, {0, 1, 1});
  EXPECT_EQ(rig.adc.doConversion(), -36);
  EXPECT_EQ(rig.d.SelectedChannel, 0) << "moved on by the half that worked";
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.d.SelectedChannel, 0);
  rig.wire.discard();
}

TEST(Ads1248Private, OpenLeavesTheSelectedChannelAlone) {
  AdcRig rig;
  rig.adc.configurePins(17, 27, 22);
  rig.d.SelectedChannel = 1;
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.d.SelectedChannel, 1);
  EXPECT_EQ(rig.registers.value(0), 0x01) << "although the inputs are those of channel 0";
  rig.wire.discard();
}

TEST(Ads1248Private, ResetPulsesTheLineLow) {
  AdcRig rig;
  rig.adc.configurePins(17, 27, 22);
  rig.d.ResetPin.connect();
  rig.wire.discard();
  rig.d.reset();
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", "sleep(10)", "pin 22: write HIGH = 0"));
}

}  // namespace
