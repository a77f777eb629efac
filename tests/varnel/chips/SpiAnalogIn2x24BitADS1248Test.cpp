// SPDX-License-Identifier: MIT
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Registers.h"
#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CLinuxSpiDevice;
using Varnel::CSpiAnalogIn2x24Bit_ADS1248;
using Varnel::ISpiAnalogInDevice;
using wire::Lines;
using wire::lines;

constexpr char kOpen[] = "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.cpp open";
constexpr char kDoConversion[] = "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.cpp doConversion";
constexpr char kSetDataRate[] = "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.cpp setDataRate";
constexpr char kSetPGAGain[] = "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.cpp setPGAGain";

const std::string kTimedOut =
    "log ERROR \"Return code  -36 0x0024 - Time-out waiting for data ready (or file name too "
    "long)\" ";
const std::string kMismatch =
    "log ERROR \"Return code  -201 0x00c9 - Register read-back mismatch\" ";

constexpr unsigned int kDataReady = 27;

struct OpenAdc : CSpiAnalogIn2x24Bit_ADS1248 {
  using CSpiAnalogIn2x24Bit_ADS1248::m_Bus;
  using CSpiAnalogIn2x24Bit_ADS1248::m_ChipSelect;
  using CSpiAnalogIn2x24Bit_ADS1248::m_LatchPin;
  using CSpiAnalogIn2x24Bit_ADS1248::m_TransferSettings;
};

/// A converter with START on pin 17, DRDY on 27 and RESET on 22, on an open bus that runs at the
/// converter's mode and speed.
struct AdcRig : BusRig {
  OpenAdc adc;
  Registers registers{0x40, 0x20};

  AdcRig() {
    bus.close();
    bus.setMode(1);
    bus.setSpiSpeedKHz(2000);
    bus.open();
    adc.setBus(&bus);
    adc.setChipSelector(&selector);
    adc.configurePins(17, kDataReady, 22);
    registers.answer(wire);
    wire.discard();
  }
};

/// The same after a successful `open`.
struct StartedRig : AdcRig {
  StartedRig() {
    EXPECT_EQ(adc.open(), 0);
    wire.discard();
  }
};

std::string message(const std::string& sent, const std::string& received, int length,
                    const std::string& speedHz = "2000000") {
  const std::string size = std::to_string(length);
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[" + sent + "] rx=" + received + " len=" + size +
         " speed_hz=" + speedHz + " bits_per_word=8}) = " + size;
}

/// One register written and read back.
Lines verified(const std::string& write, const std::string& read) {
  return lines("select(chip, true) = 0", message(write, "null", 3), "select(chip, false) = 0",
               "select(chip, true) = 0", message(read, "unnamed", 3), "select(chip, false) = 0");
}

const Lines kPins = {"pin 22: connect OUTPUT_PIN PIN_MODE_HW = 0",
                     "pin 17: connect OUTPUT_PIN PIN_MODE_HW = 0",
                     "pin 27: connect INPUT_PIN PIN_MODE_HW = 0",
                     "pin 22: write HIGH = 0",
                     "pin 17: write HIGH = 0",
                     "select(chip, false) = 0"};
const Lines kReset = {"pin 22: write LOW = 0", "sleep(10)", "pin 22: write HIGH = 0"};

/// The registers in their order: frame that writes, frame that reads, address.
struct Write {
  const char* write;
  const char* read;
  uint8_t address;
};
constexpr Write kRegisters[] = {{"40 00 01", "20 00 ff", 0},  {"42 00 20", "22 00 ff", 2},
                                {"43 00 34", "23 00 ff", 3},  {"44 00 00", "24 00 ff", 4},
                                {"45 00 00", "25 00 ff", 5},  {"46 00 00", "26 00 ff", 6},
                                {"4a 00 06", "2a 00 ff", 10}, {"4b 00 89", "2b 00 ff", 11},
                                {"4c 00 00", "2c 00 ff", 12}, {"4d 00 00", "2d 00 ff", 13}};

const Lines kStopContinuous = {"select(chip, true) = 0", message("16", "null", 1),
                               "select(chip, false) = 0"};

const std::string kReady = "pin 27: read = 0";
const std::string kNotReady = "pin 27: read = 1";
/// The frame that takes channel 0's result and switches to channel 1, and the other one.
const std::string kFrame0 = message("12 ff ff ff 40 00 3e 42 00 28", "unnamed", 10);
const std::string kFrame1 = message("12 ff ff ff 40 00 01 42 00 20", "unnamed", 10);
const Lines kFirstHalf = {kReady, "select(chip, true) = 0", kFrame0};
const Lines kSecondHalf = {kReady, kFrame1, "select(chip, false) = 0"};

TEST(Ads1248, StartsUnboundWithItsFrame) {
  const OpenAdc adc;
  EXPECT_EQ(adc.m_Bus, nullptr);
  EXPECT_EQ(adc.m_ChipSelect, nullptr);
  EXPECT_EQ(adc.m_LatchPin, nullptr);
  EXPECT_EQ(adc.readChannel(0), 0);
  EXPECT_EQ(adc.readChannel(1), 0);
  EXPECT_EQ(adc.numberOfChannels(), 2);
  EXPECT_EQ(adc.dataRate(), 4);
  EXPECT_EQ(adc.pGAGain(), 3);
  const spi_ioc_transfer& transfer = adc.m_TransferSettings.ioc_transfer;
  ASSERT_EQ(transfer.len, 10U);
  const auto* sent = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(transfer.tx_buf));
  EXPECT_EQ(std::vector<uint8_t>(sent, sent + 10),
            (std::vector<uint8_t>{0x12, 0xFF, 0xFF, 0xFF, 0x40, 0x00, 0x01, 0x42, 0x00, 0x20}));
  EXPECT_NE(transfer.rx_buf, 0U);
  EXPECT_EQ(transfer.speed_hz, 2000000U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 8);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(adc.m_TransferSettings.bus_settings.Mode, 1U);
  EXPECT_EQ(adc.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(Ads1248, IsADeviceThenAConverterThenAPointer) {
  const CSpiAnalogIn2x24Bit_ADS1248 adc;
  const auto offset = [&adc](const void* base) {
    return reinterpret_cast<uintptr_t>(base) - reinterpret_cast<uintptr_t>(&adc);
  };
  EXPECT_EQ(offset(static_cast<const CLinuxSpiDevice*>(&adc)), 0U);
  EXPECT_EQ(offset(static_cast<const ISpiAnalogInDevice*>(&adc)), 48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(CSpiAnalogIn2x24Bit_ADS1248), sizeof(void*) == 8 ? 104U : 80U);
  EXPECT_EQ(sizeof(ISpiAnalogInDevice), sizeof(void*));
}

template <class Object>
void** tableOf(const Object& object) {
  void** table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&object), sizeof(table));
  return table;
}

struct SlotProbe : CSpiAnalogIn2x24Bit_ADS1248 {
  TErrCode open() override { return -6; }
  int32_t readChannel(uint16_t) const override { return -7; }
  TErrCode doConversion() override { return -8; }
  uint16_t numberOfChannels() const override { return 9; }
};

TEST(Ads1248, KeepsItsVirtualOperationsBehindTheDevices) {
  const SlotProbe probe;
  // The destructor takes two slots. A member function takes its object as its first argument.
  const auto call = [&probe](size_t slot) {
    return reinterpret_cast<int32_t (*)(const SlotProbe*, int)>(tableOf(probe)[slot])(&probe, 0);
  };
  EXPECT_EQ(call(6), -6);
  EXPECT_EQ(call(7), -7);
  EXPECT_EQ(call(8), -8);
  EXPECT_EQ(static_cast<uint16_t>(call(9)), 9);
}

TEST(Ads1248, OverridesNoOperationOfTheDevice) {
  const CSpiAnalogIn2x24Bit_ADS1248 adc;
  const CLinuxSpiDevice device(nullptr, nullptr, nullptr);
  for (size_t slot = 2; slot < 6; ++slot) {
    EXPECT_EQ(tableOf(adc)[slot], tableOf(device)[slot]) << slot;
  }
}

struct InterfaceProbe : ISpiAnalogInDevice {
  TErrCode open() override { return -2; }
  int32_t readChannel(uint16_t) const override { return -3; }
  TErrCode doConversion() override { return -4; }
  uint16_t numberOfChannels() const override { return 5; }
};

TEST(AnalogInDevice, KeepsItsVirtualOperationsInOrder) {
  const InterfaceProbe probe;
  const auto call = [&probe](size_t slot) {
    return reinterpret_cast<int32_t (*)(const InterfaceProbe*, int)>(tableOf(probe)[slot])(&probe,
                                                                                           0);
  };
  EXPECT_EQ(call(2), -2);
  EXPECT_EQ(call(3), -3);
  EXPECT_EQ(call(4), -4);
  EXPECT_EQ(static_cast<uint16_t>(call(5)), 5);
  EXPECT_TRUE(std::has_virtual_destructor_v<ISpiAnalogInDevice>);
}

TEST(Ads1248, NamesItsRatesAndGains) {
  using Adc = CSpiAnalogIn2x24Bit_ADS1248;
  EXPECT_EQ(Adc::DRATE_5_SPS, 0);
  EXPECT_EQ(Adc::DRATE_10_SPS, 1);
  EXPECT_EQ(Adc::DRATE_20_SPS, 2);
  EXPECT_EQ(Adc::DRATE_40_SPS, 3);
  EXPECT_EQ(Adc::DRATE_80_SPS, 4);
  EXPECT_EQ(Adc::DRATE_160PS, 5);
  EXPECT_EQ(Adc::DRATE_320_SPS, 6);
  EXPECT_EQ(Adc::DRATE_640_SPS, 7);
  EXPECT_EQ(Adc::DRATE_1000_SPS, 8);
  EXPECT_EQ(Adc::DRATE_2000_SPS, 9);
  EXPECT_EQ(Adc::PGA_GAIN_1, 0);
  EXPECT_EQ(Adc::PGA_GAIN_2, 1);
  EXPECT_EQ(Adc::PGA_GAIN_4, 2);
  EXPECT_EQ(Adc::PGA_GAIN_8, 3);
  EXPECT_EQ(Adc::PGA_GAIN_16, 4);
  EXPECT_EQ(Adc::PGA_GAIN_32, 5);
  EXPECT_EQ(Adc::PGA_GAIN_64, 6);
  EXPECT_EQ(Adc::PGA_GAIN_128, 7);
  EXPECT_TRUE((std::is_same_v<decltype(Adc::DRATE_160PS), Adc::DataOutputRate>));
  EXPECT_TRUE((std::is_same_v<decltype(Adc::PGA_GAIN_1), Adc::PGAGain>));
}

TEST(Ads1248, ConfiguresItsPinsWithoutConnectingThem) {
  wire::Wire wire;
  CSpiAnalogIn2x24Bit_ADS1248 adc;
  adc.configurePins(17, 27, 22);
  EXPECT_EQ(wire.journal(), lines("pin 22: configure OUTPUT_PIN PIN_MODE_HW",
                                  "pin 17: configure OUTPUT_PIN PIN_MODE_HW",
                                  "pin 27: configure INPUT_PIN PIN_MODE_HW"));
}

TEST(Ads1248, OpenResetsTheConverterAndWritesItsRegisters) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(
      rig.wire.journal(),
      lines(kPins, kReset, verified("40 00 01", "20 00 ff"), verified("42 00 20", "22 00 ff"),
            verified("43 00 34", "23 00 ff"), verified("44 00 00", "24 00 ff"),
            verified("45 00 00", "25 00 ff"), verified("46 00 00", "26 00 ff"),
            verified("4a 00 06", "2a 00 ff"), verified("4b 00 89", "2b 00 ff"),
            verified("4c 00 00", "2c 00 ff"), verified("4d 00 00", "2d 00 ff"), kStopContinuous));
  EXPECT_EQ(rig.wire.pinLevel(17), 1);
  EXPECT_EQ(rig.wire.pinLevel(22), 1);
}

TEST(Ads1248, OpenWritesTheRateAndTheGainThatWereSetBefore) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS), 0);
  EXPECT_EQ(rig.adc.setPGAGain(CSpiAnalogIn2x24Bit_ADS1248::PGA_GAIN_1), 0);
  rig.registers.stick(3, 0x09);
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.registers.value(3), 0x09);
  rig.wire.discard();
}

TEST(Ads1248, OpenTakesWhatCantBeWrittenAsItReads) {
  AdcRig rig;
  rig.registers.stick(2, 0xA0);   // bit 7 tells the clock
  rig.registers.stick(3, 0xB4);   // bit 7 is reserved
  rig.registers.stick(10, 0x96);  // the high half tells the chip
  EXPECT_EQ(rig.adc.open(), 0);
  rig.wire.discard();
}

TEST(Ads1248, OpenComparesEveryWritableBit) {
  struct Case {
    uint8_t address;
    uint8_t good;
    uint8_t writable;
  };
  for (const Case& of :
       {Case{0, 0x01, 0xFF}, Case{2, 0x20, 0x7F}, Case{3, 0x34, 0x7F}, Case{4, 0x00, 0xFF},
        Case{5, 0x00, 0xFF}, Case{6, 0x00, 0xFF}, Case{10, 0x06, 0x0F}, Case{11, 0x89, 0xFF},
        Case{12, 0x00, 0xFF}, Case{13, 0x00, 0xFF}}) {
    for (int bit = 0; bit < 8; ++bit) {
      AdcRig rig;
      rig.registers.stick(of.address, static_cast<uint8_t>(of.good ^ (1 << bit)));
      EXPECT_EQ(rig.adc.open(), (of.writable & (1 << bit)) != 0 ? -201 : 0)
          << int{of.address} << " bit " << bit;
      rig.wire.discard();
    }
  }
}

TEST(Ads1248, ARegisterThatReadsBackWrongOnceIsWrittenTwice) {
  AdcRig rig;
  rig.registers.stick(0, 0x00, 1);
  EXPECT_EQ(rig.adc.open(), 0);
  Lines expected =
      lines(kPins, kReset, verified("40 00 01", "20 00 ff"), verified("40 00 01", "20 00 ff"));
  for (const Write& later : kRegisters) {
    if (later.address != 0) {
      expected = lines(expected, verified(later.write, later.read));
    }
  }
  EXPECT_EQ(rig.wire.journal(), lines(expected, kStopContinuous));
}

TEST(Ads1248, ARegisterThatReadsBackWrongTwiceEndsOpen) {
  for (const Write& stuck : kRegisters) {
    AdcRig rig;
    rig.registers.stick(stuck.address, 0x5A);
    EXPECT_EQ(rig.adc.open(), -201);
    Lines expected = lines(kPins, kReset);
    for (const Write& earlier : kRegisters) {
      if (earlier.address < stuck.address) {
        expected = lines(expected, verified(earlier.write, earlier.read));
      }
    }
    EXPECT_EQ(rig.wire.journal(), lines(expected, verified(stuck.write, stuck.read),
                                        verified(stuck.write, stuck.read), kMismatch + kOpen));
    EXPECT_TRUE(wire::isFree(rig.mutex()));
  }
}

TEST(Ads1248, OneConversionRefreshesBothChannels) {
  StartedRig rig;
  rig.wire.receives({0xEE, 0x12, 0x34, 0x56}).receives({0xEE, 0x07, 0x08, 0x09});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kFirstHalf, kSecondHalf));
  EXPECT_EQ(rig.adc.readChannel(0), 0x123456);
  EXPECT_EQ(rig.adc.readChannel(1), 0x070809);
  rig.wire.receives({0, 0, 0, 1}).receives({0, 0, 0, 2});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kFirstHalf, kSecondHalf)) << "again with channel 0 first";
  EXPECT_EQ(rig.adc.readChannel(0), 1);
  EXPECT_EQ(rig.adc.readChannel(1), 2);
}

TEST(Ads1248, TakesCodesAsTheyCome) {
  StartedRig rig;
  rig.wire.receives({0, 0xFF, 0xFF, 0xFF}).receives({0, 0x80, 0x00, 0x00});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.adc.readChannel(0), 16777215) << "a little below zero";
  EXPECT_EQ(rig.adc.readChannel(1), 8388608) << "negative full scale";
  rig.wire.receives({0xFF, 0x7F, 0xFF, 0xFF, 0xFF}).receives({0xFF, 0x00, 0x00, 0x00, 0xFF});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.adc.readChannel(0), 8388607);
  EXPECT_EQ(rig.adc.readChannel(1), 0);
  rig.wire.discard();
}

TEST(Ads1248, ReadsNoChannelButItsTwo) {
  StartedRig rig;
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.adc.readChannel(1), 0xEEEEEE);
  EXPECT_EQ(rig.adc.readChannel(2), 0);
  EXPECT_EQ(rig.adc.readChannel(65535), 0);
  rig.wire.discard();
}

TEST(Ads1248, LooksTwiceWhetherAResultIsReady) {
  StartedRig rig;
  rig.wire.pinReads(kDataReady, {1, 0, 1, 0});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(kNotReady, "sleep(2)", kFirstHalf, kNotReady, "sleep(2)", kSecondHalf));
}

TEST(Ads1248, WithoutAResultTheFirstHalfTimesOutAndSaysSo) {
  StartedRig rig;
  rig.wire.pinReads(kDataReady, {1, 1});
  EXPECT_EQ(rig.adc.doConversion(), -36);
  EXPECT_EQ(rig.wire.journal(), lines(kNotReady, "sleep(2)", kNotReady, kTimedOut + kDoConversion));
  EXPECT_EQ(rig.adc.readChannel(0), 0);
  EXPECT_EQ(rig.adc.readChannel(1), 0);
  EXPECT_FALSE(rig.selector.selected());
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kFirstHalf, kSecondHalf));
}

TEST(Ads1248, WithoutASecondResultOneChannelIsRefreshedPerCall) {
  StartedRig rig;
  rig.wire.pinReads(kDataReady, {0, 1, 1}).receives({0, 0, 0, 0x11});
  EXPECT_EQ(rig.adc.doConversion(), -36);
  EXPECT_EQ(rig.wire.journal(), lines(kFirstHalf, kNotReady, "sleep(2)", kNotReady))
      << "without a word";
  EXPECT_TRUE(rig.selector.selected()) << "and the chip stays selected";
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  EXPECT_EQ(rig.adc.readChannel(0), 0x11);
  EXPECT_EQ(rig.adc.readChannel(1), 0);
  rig.wire.pinReads(kDataReady, {0, 1, 1}).receives({0, 0, 0, 0x22});
  EXPECT_EQ(rig.adc.doConversion(), -36);
  EXPECT_EQ(rig.wire.journal(),
            lines(kReady, "select(chip, true) = 0", kFrame1, kNotReady, "sleep(2)", kNotReady));
  EXPECT_EQ(rig.adc.readChannel(0), 0x11);
  EXPECT_EQ(rig.adc.readChannel(1), 0x22);
}

TEST(Ads1248, AnUnreadablePinIsNoReadyConverter) {
  AdcRig rig;  // nothing connected the pin
  EXPECT_EQ(rig.adc.doConversion(), -36);
  EXPECT_EQ(rig.wire.journal(), lines("sleep(2)", kTimedOut + kDoConversion));
}

TEST(Ads1248, AFailedFirstTransferIsRepeated) {
  StartedRig rig;
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.adc.doConversion(), -5);
  EXPECT_TRUE(rig.selector.selected());
  EXPECT_EQ(rig.adc.readChannel(0), 0);
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kFirstHalf, kSecondHalf));
}

TEST(Ads1248, AResultWhoseSelectIsNotReleasedDoesNotCount) {
  StartedRig rig;
  rig.wire.receives({0, 0, 0, 1}).receives({0, 0, 0, 2});
  rig.wire.fails("select(chip, false)", ENODEV);
  EXPECT_EQ(rig.adc.doConversion(), -19);
  EXPECT_EQ(rig.adc.readChannel(0), 1);
  EXPECT_EQ(rig.adc.readChannel(1), 0);
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kReady, "select(chip, true) = 0", kFrame1, kReady, kFrame0,
                                      "select(chip, false) = 0"));
}

TEST(Ads1248, SetsTheGainAndKeepsTheRate) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.setPGAGain(7), 0);
  EXPECT_EQ(rig.wire.journal(), verified("43 00 74", "23 00 ff"));
  EXPECT_EQ(rig.adc.pGAGain(), 7);
  EXPECT_EQ(rig.adc.dataRate(), 4);
  EXPECT_EQ(rig.adc.setPGAGain(0), 0);
  EXPECT_EQ(rig.wire.journal(), verified("43 00 04", "23 00 ff"));
  EXPECT_EQ(rig.adc.pGAGain(), 0);
}

TEST(Ads1248, SetsTheRateAndKeepsTheGain) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.setDataRate(9), 0);
  EXPECT_EQ(rig.wire.journal(), verified("43 00 39", "23 00 ff"));
  EXPECT_EQ(rig.adc.dataRate(), 9);
  EXPECT_EQ(rig.adc.pGAGain(), 3);
  EXPECT_EQ(rig.adc.setDataRate(0), 0);
  EXPECT_EQ(rig.wire.journal(), verified("43 00 30", "23 00 ff"));
  EXPECT_EQ(rig.adc.dataRate(), 0);
}

TEST(Ads1248, RefusesOtherGainsAndRatesBeforeAnythingElse) {
  AdcRig rig;
  for (const int code : {8, 16, 255}) {
    EXPECT_EQ(rig.adc.setPGAGain(static_cast<uint8_t>(code)), -22);
  }
  for (const int code : {10, 16, 255}) {
    EXPECT_EQ(rig.adc.setDataRate(static_cast<uint8_t>(code)), -22);
  }
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] {
    rig.adc.setPGAGain(8);
    rig.adc.setDataRate(10);
  }));
  EXPECT_EQ(rig.adc.pGAGain(), 3);
  EXPECT_EQ(rig.adc.dataRate(), 4);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Ads1248, AGainOrRateThatDoesNotReadBackIsNotSet) {
  AdcRig rig;
  rig.registers.stick(3, 0x34);
  EXPECT_EQ(rig.adc.setPGAGain(7), -201);
  EXPECT_EQ(rig.wire.journal(), lines(verified("43 00 74", "23 00 ff"),
                                      verified("43 00 74", "23 00 ff"), kMismatch + kSetPGAGain));
  EXPECT_EQ(rig.adc.setDataRate(9), -201);
  EXPECT_EQ(rig.wire.journal(), lines(verified("43 00 39", "23 00 ff"),
                                      verified("43 00 39", "23 00 ff"), kMismatch + kSetDataRate));
  EXPECT_EQ(rig.adc.pGAGain(), 3);
  EXPECT_EQ(rig.adc.dataRate(), 4);
}

TEST(Ads1248, RunsAtTheSpeedOfASlowerBus) {
  StartedRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(500);
  rig.bus.open();
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(kReady, "select(chip, true) = 0",
                  message("12 ff ff ff 40 00 3e 42 00 28", "unnamed", 10, "500000"), kReady,
                  message("12 ff ff ff 40 00 01 42 00 20", "unnamed", 10, "500000"),
                  "select(chip, false) = 0"));
}

TEST(Ads1248, OnAFasterBusEveryTransferSettlesWhileSelectedToo) {
  StartedRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(4000);
  rig.bus.open();
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  const Lines settling = lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0", "close(7) = 0",
                               opening("1", "0", "2000000"), message("ff*10", "unnamed", 10));
  EXPECT_EQ(rig.wire.journal(),
            lines(kReady, settling, "select(chip, true) = 0", kFrame0,
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 4000000) = 0", kReady, settling, kFrame1,
                  "select(chip, false) = 0", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 4000000) = 0"));
}

TEST(Ads1248, SwitchesTheBusToModeOneAndMostSignificantBitFirst) {
  const auto disturb = [](AdcRig& rig) {
    rig.bus.setMode(2);
    rig.bus.setLSBFirst(1);
    rig.wire.discard();
  };
  const auto settling = [](const std::string& sent, const std::string& received, int length) {
    return lines("ioctl(7, SPI_IOC_WR_MODE, 1) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                 "close(7) = 0", opening("1", "0", "2000000"), message(sent, received, length));
  };
  StartedRig rig;
  disturb(rig);
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kReady, settling("ff*10", "unnamed", 10),
                                      "select(chip, true) = 0", kFrame0, kSecondHalf));
  disturb(rig);
  EXPECT_EQ(rig.adc.setDataRate(9), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(settling("ff ff ff", "null", 3), verified("43 00 39", "23 00 ff")));
}

TEST(Ads1248, HoldsTheBusForItsWholeExchanges) {
  AdcRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(calls, 6 + 2 + 10 * 6 + 3);
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.adc.setDataRate(1), 0);
  EXPECT_EQ(rig.adc.setPGAGain(1), 0);
  EXPECT_EQ(calls, 71 + 4 + 6 + 6);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Ads1248, WaitsForTheBusUnlessItOnlyLooksIntoItsCaches) {
  StartedRig rig;
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.open(); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.doConversion(); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.setDataRate(1); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.setPGAGain(1); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] {
    EXPECT_EQ(rig.adc.readChannel(0), 0xEEEEEE);
    EXPECT_EQ(rig.adc.numberOfChannels(), 2);
    EXPECT_EQ(rig.adc.dataRate(), 1);
    EXPECT_EQ(rig.adc.pGAGain(), 1);
  }));
  rig.wire.discard();
}

struct Recording : CSpiAnalogIn2x24Bit_ADS1248 {
  std::vector<Varnel::eCS_Handling> handlings;
  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    handlings.push_back(handling);
    return handling == Varnel::CS_JUST_DESELECT ? -7 : 0;
  }
};

TEST(Ads1248, ConvertsThroughTheVirtualManagedTransfer) {
  AdcRig rig;
  Recording adc;
  adc.setBus(&rig.bus);
  adc.configurePins(17, kDataReady, 22);
  EXPECT_EQ(adc.open(), 0) << "the other frames go their own way";
  EXPECT_TRUE(adc.handlings.empty());
  rig.wire.discard();
  EXPECT_EQ(adc.doConversion(), -7);
  EXPECT_EQ(adc.handlings,
            (std::vector<Varnel::eCS_Handling>{Varnel::CS_JUST_SELECT, Varnel::CS_JUST_DESELECT}));
  EXPECT_EQ(rig.wire.journal(), lines(kReady, kReady));
}

TEST(Ads1248, IsReachedThroughTheInterfaceOfTheConverters) {
  AdcRig rig;
  auto adc = std::make_unique<CSpiAnalogIn2x24Bit_ADS1248>();
  adc->setBus(&rig.bus);
  adc->configurePins(17, kDataReady, 22);
  const std::unique_ptr<ISpiAnalogInDevice> converter = std::move(adc);
  rig.wire.discard();
  EXPECT_EQ(converter->open(), 0);
  EXPECT_EQ(converter->doConversion(), 0);
  EXPECT_EQ(converter->readChannel(1), 0xEEEEEE);
  EXPECT_EQ(converter->numberOfChannels(), 2);
  rig.wire.discard();
}

constexpr char kPerror[] = "can't transfer data via CLinuxSpiBus";
constexpr char kDevice[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
const Lines kBusList =
    lines("varnel/common/LinuxSpiBus.cpp executeManagedTransferMultipleData", kDevice);
const Lines kBusSingle = lines("varnel/common/LinuxSpiBus.cpp executeManagedTransfer", kDevice);

using Steps = std::vector<wire::Step>;

/// A frame with its own selection; `outer` logs each failure after everybody else.
void addFrame(Steps& steps, const std::string& frame, const Lines& outer) {
  steps.push_back({"select(chip, true) = 0", "", lines(kBusList, outer)});
  steps.push_back({frame, kPerror, lines(kDevice, outer)});
  steps.push_back({"select(chip, false) = 0", "", lines(kBusList, outer)});
}

Steps openingSteps() {
  Steps steps;
  for (const std::string& line : kPins) {
    steps.push_back({line, "", {kOpen}});
  }
  for (const std::string& line : kReset) {
    steps.push_back({line, "", {}, true});
  }
  for (const Write& of : kRegisters) {
    addFrame(steps, message(of.write, "null", 3), {kOpen});
    addFrame(steps, message(of.read, "unnamed", 3), {kOpen});
  }
  addFrame(steps, message("16", "null", 1), {});
  return steps;
}

void recover(AdcRig& rig) {
  rig.recover(2000);
  rig.wire.discard();
}

TEST(Ads1248Faults, Open) {
  wire::FaultSweep<AdcRig>([](AdcRig& rig) { return rig.adc.open(); })
      .recoversBy(recover)
      .run(openingSteps());
}

TEST(Ads1248Faults, DoConversion) {
  const auto leaves = [](StartedRig& rig, const std::string& line) {
    const bool first = line == kFrame0 || line == "select(chip, true) = 0";
    EXPECT_EQ(rig.adc.readChannel(0), first ? 0 : 0xEEEEEE);
    EXPECT_EQ(rig.adc.readChannel(1), 0);
    EXPECT_EQ(rig.selector.selected(), line != "select(chip, true) = 0");
  };
  wire::FaultSweep<StartedRig>([](StartedRig& rig) { return rig.adc.doConversion(); })
      .leaves(leaves)
      .recoversBy(recover)
      .run({{kReady},
            {"select(chip, true) = 0", "", lines(kBusSingle, kDoConversion)},
            {kFrame0, kPerror, lines(kDevice, kDoConversion)},
            {kReady},
            {kFrame1, kPerror, {kDevice}},
            {"select(chip, false) = 0", "", kBusSingle}});
}

Steps verifyingSteps(const std::string& write, const std::string& place) {
  Steps steps;
  addFrame(steps, message(write, "null", 3), {place});
  addFrame(steps, message("23 00 ff", "unnamed", 3), {place});
  return steps;
}

TEST(Ads1248Faults, SetDataRate) {
  wire::FaultSweep<AdcRig>([](AdcRig& rig) { return rig.adc.setDataRate(9); })
      .leaves([](AdcRig& rig, const std::string&) { EXPECT_EQ(rig.adc.dataRate(), 4); })
      .recoversBy(recover)
      .run(verifyingSteps("43 00 39", kSetDataRate));
}

TEST(Ads1248Faults, SetPGAGain) {
  wire::FaultSweep<AdcRig>([](AdcRig& rig) { return rig.adc.setPGAGain(7); })
      .leaves([](AdcRig& rig, const std::string&) { EXPECT_EQ(rig.adc.pGAGain(), 3); })
      .recoversBy(recover)
      .run(verifyingSteps("43 00 74", kSetPGAGain));
}

}  // namespace
