// SPDX-License-Identifier: MIT
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/varnel/chips/Registers.h"
#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CLinuxSpiDevice;
using Varnel::CSpiAnalogIn4x24Bit_ADS1256;
using Varnel::ISpiAnalogInDevice;
using wire::Lines;
using wire::lines;

constexpr char kOpen[] = "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.cpp open";
constexpr char kDoConversion[] = "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.cpp doConversion";

const std::string kMismatch =
    "log ERROR \"Return code  -201 0x00c9 - Register read-back mismatch\" ";

struct OpenAdc : CSpiAnalogIn4x24Bit_ADS1256 {
  using CSpiAnalogIn4x24Bit_ADS1256::m_Bus;
  using CSpiAnalogIn4x24Bit_ADS1256::m_ChipSelect;
  using CSpiAnalogIn4x24Bit_ADS1256::m_LatchPin;
  using CSpiAnalogIn4x24Bit_ADS1256::m_TransferSettings;
};

/// A converter with RESET on pin 22 and DRDY on 27, on an open bus that runs at the converter's
/// mode and speed.
struct AdcRig : BusRig {
  OpenAdc adc;
  Registers registers{0x50, 0x10};

  AdcRig() {
    bus.close();
    bus.setMode(1);
    bus.setSpiSpeedKHz(200);
    bus.open();
    adc.setBus(&bus);
    adc.setChipSelector(&selector);
    adc.configurePins(22, 27);
    registers.answer(wire);
    wire.discard();
  }

  /// What the next conversions receive.
  void converts(const std::vector<uint32_t>& codes) {
    for (const uint32_t code : codes) {
      std::vector<uint8_t> frame(19, 0xAA);
      frame[16] = static_cast<uint8_t>(code >> 16);
      frame[17] = static_cast<uint8_t>(code >> 8);
      frame[18] = static_cast<uint8_t>(code);
      wire.receives(frame);
    }
  }
};

std::string message(const std::string& sent, const std::string& received, int length,
                    const std::string& speedHz = "200000") {
  const std::string size = std::to_string(length);
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[" + sent + "] rx=" + received + " len=" + size +
         " speed_hz=" + speedHz + " bits_per_word=8}) = " + size;
}

std::string reading(const std::string& sent) {
  return "ioctl(7, SPI_IOC_MESSAGE(2), {tx=[" + sent +
         "] rx=null len=2 speed_hz=200000 delay_usecs=10 bits_per_word=8}, {tx=[ff] rx=unnamed "
         "len=1 speed_hz=200000 delay_usecs=10 bits_per_word=8}) = 3";
}

Lines selected(const std::string& frame) {
  return lines("select(chip, true) = 0", frame, "select(chip, false) = 0");
}

/// One register written and read back.
Lines verified(const std::string& write, const std::string& read) {
  return lines(selected(message(write, "null", 3)), selected(reading(read)));
}

const Lines kPins = {"pin 22: connect OUTPUT_PIN PIN_MODE_HW = 0",
                     "pin 27: connect INPUT_PIN PIN_MODE_HW = 0", "pin 22: write HIGH = 0",
                     "select(chip, false) = 0"};
const Lines kReset = {"pin 22: write LOW = 0", "sleep(10)", "pin 22: write HIGH = 0"};

/// The registers in their order: frame that writes, frame that reads, address.
struct Write {
  const char* write;
  const char* read;
  uint8_t address;
};
constexpr Write kRegisters[] = {{"50 00 02", "10 00", 0},
                                {"51 00 01", "11 00", 1},
                                {"52 00 01", "12 00", 2},
                                {"53 00 b0", "13 00", 3},
                                {"54 00 e0", "14 00", 4}};

const Lines kCommands =
    lines(selected(message("0f", "null", 1)), selected(message("f0", "null", 1)));

const std::string kConversion = message("fc 00 ff*13 01 ff ff ff", "unnamed", 19);

std::string switched(const std::string& inputs) {
  return message("51 00 " + inputs, "null", 3);
}

/// A whole conversion that steps to these inputs.
Lines converting(const std::string& second, const std::string& third, const std::string& fourth) {
  return lines("select(chip, true) = 0", kConversion, switched(second), kConversion,
               switched(third), kConversion, switched(fourth), kConversion,
               "select(chip, false) = 0");
}

std::vector<int32_t> valuesOf(const ISpiAnalogInDevice& adc) {
  std::vector<int32_t> values;
  for (uint16_t i = 0; i < adc.numberOfChannels(); ++i) {
    values.push_back(adc.readChannel(i));
  }
  return values;
}

using Values = std::vector<int32_t>;

TEST(Ads1256, StartsUnboundWithAllChannels) {
  const OpenAdc adc;
  EXPECT_EQ(adc.m_Bus, nullptr);
  EXPECT_EQ(adc.m_ChipSelect, nullptr);
  EXPECT_EQ(adc.m_LatchPin, nullptr);
  EXPECT_EQ(adc.numberOfChannels(), 4);
  EXPECT_EQ(valuesOf(adc), (Values{0, 0, 0, 0}));
  spi_ioc_transfer untouched{};
  untouched.bits_per_word = 8;
  EXPECT_EQ(std::memcmp(&adc.m_TransferSettings.ioc_transfer, &untouched, sizeof(untouched)), 0)
      << "its frames are lists of their own";
}

TEST(Ads1256, IsADeviceThenAConverterThenAPointer) {
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  const auto offset = [&adc](const void* base) {
    return reinterpret_cast<uintptr_t>(base) - reinterpret_cast<uintptr_t>(&adc);
  };
  EXPECT_EQ(offset(static_cast<const CLinuxSpiDevice*>(&adc)), 0U);
  EXPECT_EQ(offset(static_cast<const ISpiAnalogInDevice*>(&adc)), 48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(CSpiAnalogIn4x24Bit_ADS1256), sizeof(void*) == 8 ? 104U : 80U);
}

template <class Object>
void** tableOf(const Object& object) {
  void** table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&object), sizeof(table));
  return table;
}

struct SlotProbe : CSpiAnalogIn4x24Bit_ADS1256 {
  TErrCode open() override { return -6; }
  TErrCode doConversion() override { return -7; }
  int32_t readChannel(uint16_t) const override { return -8; }
  uint16_t numberOfChannels() const override { return 9; }
};

TEST(Ads1256, KeepsItsVirtualOperationsBehindTheDevicesInAnOrderOfItsOwn) {
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

TEST(Ads1256, OverridesNoOperationOfTheDevice) {
  const CSpiAnalogIn4x24Bit_ADS1256 adc;
  const CLinuxSpiDevice device(nullptr, nullptr, nullptr);
  for (size_t slot = 2; slot < 6; ++slot) {
    EXPECT_EQ(tableOf(adc)[slot], tableOf(device)[slot]) << slot;
  }
}

TEST(Ads1256, ConfiguresItsPinsWithoutConnectingThem) {
  wire::Wire wire;
  CSpiAnalogIn4x24Bit_ADS1256 adc;
  adc.configurePins(22, 27);
  EXPECT_EQ(wire.journal(), lines("pin 22: configure OUTPUT_PIN PIN_MODE_HW",
                                  "pin 27: configure INPUT_PIN PIN_MODE_HW"));
}

TEST(Ads1256, OpenResetsWritesItsRegistersAndStartsTheCalibration) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(kPins, kReset, verified("50 00 02", "10 00"), verified("51 00 01", "11 00"),
                  verified("52 00 01", "12 00"), verified("53 00 b0", "13 00"),
                  verified("54 00 e0", "14 00"), selected(message("0f", "null", 1)),
                  selected(message("f0", "null", 1))));
  EXPECT_EQ(rig.wire.pinLevel(22), 1);
}

TEST(Ads1256, OpenSetsTheInputsOfTheFirstUsedChannel) {
  for (const auto& [channel, inputs] :
       {std::pair<uint16_t, uint8_t>{0, 0x01}, {1, 0x23}, {2, 0x45}, {3, 0x67}}) {
    AdcRig rig;
    rig.adc.setUsedChannels({channel, 0});
    EXPECT_EQ(rig.adc.open(), 0);
    EXPECT_EQ(rig.registers.value(1), inputs);
    rig.wire.discard();
  }
}

TEST(Ads1256, OpenComparesEveryWritableBit) {
  struct Case {
    uint8_t address;
    uint8_t good;
    uint8_t writable;
  };
  for (const Case& of : {Case{0, 0x02, 0x0F}, Case{1, 0x01, 0xFF}, Case{2, 0x01, 0xFF},
                         Case{3, 0xB0, 0xFF}, Case{4, 0xE0, 0xF0}}) {
    for (int bit = 0; bit < 8; ++bit) {
      AdcRig rig;
      rig.registers.stick(of.address, static_cast<uint8_t>(of.good ^ (1 << bit)));
      EXPECT_EQ(rig.adc.open(), (of.writable & (1 << bit)) != 0 ? -201 : 0)
          << int{of.address} << " bit " << bit;
      rig.wire.discard();
    }
  }
}

TEST(Ads1256, ARegisterThatReadsBackWrongOnceIsWrittenTwice) {
  AdcRig rig;
  rig.registers.stick(0, 0x03, 1);
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(kPins, kReset, verified("50 00 02", "10 00"), verified("50 00 02", "10 00"),
                  verified("51 00 01", "11 00"), verified("52 00 01", "12 00"),
                  verified("53 00 b0", "13 00"), verified("54 00 e0", "14 00"), kCommands));
}

TEST(Ads1256, ARegisterThatReadsBackWrongTwiceEndsOpen) {
  for (const Write& stuck : kRegisters) {
    AdcRig rig;
    rig.registers.stick(stuck.address, 0x55);
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

TEST(Ads1256, AConversionIsFourReadsUnderOneSelection) {
  AdcRig rig;
  rig.converts({0x000010, 0x000011, 0x000012, 0x000013});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("23", "45", "67"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x10, 0x11, 0x12, 0x13}));
}

TEST(Ads1256, EachConversionStartsWithTheChannelThatTheLastEndedWith) {
  AdcRig rig;
  rig.converts({0x10, 0x11, 0x12, 0x13});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("23", "45", "67"));
  rig.converts({0x23, 0x20, 0x21, 0x22});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("01", "23", "45"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x20, 0x21, 0x22, 0x23}));
  rig.converts({0x32, 0x33, 0x30, 0x31});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("67", "01", "23"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x30, 0x31, 0x32, 0x33}));
  rig.converts({0x41, 0x42, 0x43, 0x40});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("45", "67", "01"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x40, 0x41, 0x42, 0x43}));
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("23", "45", "67")) << "and from the start";
}

TEST(Ads1256, OneUsedChannelIsReadFourTimes) {
  AdcRig rig;
  rig.adc.setUsedChannels({2});
  EXPECT_EQ(rig.adc.numberOfChannels(), 1);
  for (const uint32_t last : {4U, 9U}) {
    rig.converts({1, 2, 3, last});
    EXPECT_EQ(rig.adc.doConversion(), 0);
    EXPECT_EQ(rig.wire.journal(), converting("45", "45", "45"));
    EXPECT_EQ(rig.adc.readChannel(0), static_cast<int32_t>(last));
  }
  rig.adc.setUsedChannels({0, 1, 2, 3});
  EXPECT_EQ(valuesOf(rig.adc), (Values{0, 0, 9, 0})) << "by physical channel";
}

TEST(Ads1256, TwoUsedChannelsComeTwiceEach) {
  AdcRig rig;
  rig.adc.setUsedChannels({3, 1});
  EXPECT_EQ(rig.adc.numberOfChannels(), 2);
  rig.converts({0x31, 0x11, 0x32, 0x12});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("23", "67", "23"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x32, 0x12})) << "index 0 is channel 3";
  rig.converts({0x13, 0x33, 0x14, 0x34});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("67", "23", "67"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x34, 0x14}));
}

TEST(Ads1256, ThreeUsedChannelsStartWithTheFirstEachTime) {
  AdcRig rig;
  rig.adc.setUsedChannels({0, 2, 3});
  for (int call = 0; call < 2; ++call) {
    rig.converts({0x01, 0x21, 0x31, 0x02});
    EXPECT_EQ(rig.adc.doConversion(), 0);
    EXPECT_EQ(rig.wire.journal(), converting("45", "67", "01"));
    EXPECT_EQ(valuesOf(rig.adc), (Values{0x02, 0x21, 0x31}));
  }
}

TEST(Ads1256, AChannelMayBeUsedTwice) {
  AdcRig rig;
  rig.adc.setUsedChannels({1, 1, 0});
  rig.converts({0x11, 0x12, 0x01, 0x13});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("23", "01", "23"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x13, 0x13, 0x01}));
}

TEST(Ads1256, TakesCodesAsTheyCome) {
  AdcRig rig;
  rig.converts({0xFFFFFF, 0x800000, 0x7FFFFF, 0x123456});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(valuesOf(rig.adc), (Values{16777215, 8388608, 8388607, 0x123456}));
  rig.wire.discard();
}

TEST(Ads1256, KeepsACopyOfTheUsedChannels) {
  AdcRig rig;
  std::vector<uint16_t> channels = {2};
  rig.adc.setUsedChannels(channels);
  channels[0] = 0;
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("45", "45", "45"));
}

TEST(Ads1256, SettingChannelsTouchesNothingElse) {
  AdcRig rig;
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.setUsedChannels({1}); }));
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Ads1256, AShortenedListRestartsAtItsFirstEntry) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.doConversion(), 0);
  rig.wire.discard();
  rig.adc.setUsedChannels({2, 1});
  rig.converts({0x30, 0x11, 0x21, 0x12});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("23", "45", "23"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x21, 0x12}))
      << "the first read, of the inputs still set, is overwritten";
}

TEST(Ads1256, RefusesListsThatItCantScanBeforeAnythingElse) {
  for (const std::vector<uint16_t>& channels :
       {std::vector<uint16_t>{}, {4}, {0, 1, 2, 3, 4}, {65535, 0}}) {
    AdcRig rig;
    rig.adc.setUsedChannels(channels);
    EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] {
      EXPECT_EQ(rig.adc.open(), -22);
      EXPECT_EQ(rig.adc.doConversion(), -22);
    }));
    EXPECT_EQ(rig.wire.journal(), Lines{});
    rig.adc.setUsedChannels({0, 1});
    EXPECT_EQ(rig.adc.open(), 0);
    EXPECT_EQ(rig.adc.doConversion(), 0);
    rig.wire.discard();
  }
}

TEST(Ads1256, ReadsZeroForWhatIsNoUsedChannel) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.adc.readChannel(3), 0xEEEEEE);
  EXPECT_EQ(rig.adc.readChannel(4), 0);
  EXPECT_EQ(rig.adc.readChannel(65535), 0);
  rig.adc.setUsedChannels({1, 4, 65535});
  EXPECT_EQ(valuesOf(rig.adc), (Values{0xEEEEEE, 0, 0}));
  rig.adc.setUsedChannels({});
  EXPECT_EQ(rig.adc.numberOfChannels(), 0);
  EXPECT_EQ(rig.adc.readChannel(0), 0);
  rig.wire.discard();
}

TEST(Ads1256, AfterAFailureTheScanGoesOnWhereItStands) {
  AdcRig rig;
  rig.converts({0x10});
  rig.wire.fails("tx=[51 00 23]", EIO);
  EXPECT_EQ(rig.adc.doConversion(), -5);
  EXPECT_TRUE(rig.selector.selected());
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", kConversion,
                  "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[51 00 23] rx=null len=3 speed_hz=200000 "
                  "bits_per_word=8}) = -1 EIO",
                  "perror(\"can't transfer data via CLinuxSpiBus\") EIO",
                  wire::logged(EIO, "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer"),
                  wire::logged(EIO, kDoConversion)));
  rig.converts({0x11, 0x12, 0x13, 0x14});
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(), converting("45", "67", "01"));
  EXPECT_EQ(valuesOf(rig.adc), (Values{0x14, 0x11, 0x12, 0x13}));
}

TEST(Ads1256, AResultWhoseSelectIsNotReleasedDoesNotCount) {
  AdcRig rig;
  rig.converts({1, 2, 3, 4});
  rig.wire.fails("select(chip, false)", ENODEV);
  EXPECT_EQ(rig.adc.doConversion(), -19);
  EXPECT_EQ(valuesOf(rig.adc), (Values{1, 2, 3, 0}));
  rig.wire.discard();
}

TEST(Ads1256, RunsAtTheSpeedOfASlowerBus) {
  AdcRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(150);
  rig.bus.open();
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  const std::string conversion = message("fc 00 ff*13 01 ff ff ff", "unnamed", 19, "150000");
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", conversion, message("51 00 23", "null", 3, "150000"),
                  conversion, message("51 00 45", "null", 3, "150000"), conversion,
                  message("51 00 67", "null", 3, "150000"), conversion, "select(chip, false) = 0"));
}

TEST(Ads1256, OnAFasterBusEveryTransferSettlesWhileSelectedToo) {
  AdcRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(500);
  rig.bus.open();
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  const auto settling = [](const std::string& sent, const std::string& received, int length) {
    return lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 200000) = 0", "close(7) = 0",
                 opening("1", "0", "200000"), message(sent, received, length));
  };
  const std::string restored = "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0";
  const Lines beforeReading = settling("ff*19", "unnamed", 19);
  const Lines beforeSwitching = settling("ff ff ff", "null", 3);
  Lines expected =
      lines(beforeReading, "select(chip, true) = 0", kConversion, restored, beforeSwitching);
  expected = lines(expected, switched("23"), restored, beforeReading, kConversion, restored);
  expected = lines(expected, beforeSwitching, switched("45"), restored, beforeReading, kConversion,
                   restored, beforeSwitching, switched("67"), restored, beforeReading, kConversion,
                   "select(chip, false) = 0", restored);
  EXPECT_EQ(rig.wire.journal(), expected);
}

TEST(Ads1256, SwitchesTheBusToModeOneAndMostSignificantBitFirst) {
  AdcRig rig;
  rig.bus.setMode(2);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 1) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                  "close(7) = 0", opening("1", "0", "200000"), message("ff*19", "unnamed", 19),
                  converting("23", "45", "67")));
}

TEST(Ads1256, HoldsTheBusForItsWholeExchanges) {
  AdcRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.adc.open(), 0);
  EXPECT_EQ(calls, 4 + 2 + 5 * 6 + 6);
  EXPECT_EQ(rig.adc.doConversion(), 0);
  EXPECT_EQ(calls, 42 + 9);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Ads1256, WaitsForTheBusUnlessItOnlyLooksIntoItsCache) {
  AdcRig rig;
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.open(); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.doConversion(); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] {
    EXPECT_EQ(rig.adc.readChannel(0), 0xEEEEEE);
    EXPECT_EQ(rig.adc.numberOfChannels(), 4);
  }));
  rig.wire.discard();
}

TEST(Ads1256, IsReachedThroughTheInterfaceOfTheConverters) {
  AdcRig rig;
  auto adc = std::make_unique<CSpiAnalogIn4x24Bit_ADS1256>();
  adc->setBus(&rig.bus);
  adc->configurePins(22, 27);
  const std::unique_ptr<ISpiAnalogInDevice> converter = std::move(adc);
  EXPECT_EQ(converter->open(), 0);
  EXPECT_EQ(converter->doConversion(), 0);
  EXPECT_EQ(converter->readChannel(3), 0xEEEEEE);
  EXPECT_EQ(converter->numberOfChannels(), 4);
  rig.wire.discard();
}

constexpr char kPerror[] = "can't transfer data via CLinuxSpiBus";
constexpr char kDevice[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
const Lines kBus =
    lines("varnel/common/LinuxSpiBus.cpp executeManagedTransferMultipleData", kDevice);

using Steps = std::vector<wire::Step>;

/// A frame with its own selection; `outer` logs each failure after everybody else.
void addFrame(Steps& steps, const std::string& frame, const Lines& outer) {
  steps.push_back({"select(chip, true) = 0", "", lines(kBus, outer)});
  steps.push_back({frame, kPerror, lines(kDevice, outer)});
  steps.push_back({"select(chip, false) = 0", "", lines(kBus, outer)});
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
    addFrame(steps, reading(of.read), {kOpen});
  }
  addFrame(steps, message("0f", "null", 1), {kOpen});
  addFrame(steps, message("f0", "null", 1), {});
  return steps;
}

void recover(AdcRig& rig) {
  rig.recover(200);
  rig.wire.discard();
}

TEST(Ads1256Faults, Open) {
  wire::FaultSweep<AdcRig>([](AdcRig& rig) { return rig.adc.open(); })
      .recoversBy(recover)
      .run(openingSteps());
}

TEST(Ads1256Faults, DoConversion) {
  const Lines logging = lines(kDevice, kDoConversion);
  wire::FaultSweep<AdcRig>([](AdcRig& rig) { return rig.adc.doConversion(); })
      .leaves([](AdcRig& rig, const std::string& line) {
        EXPECT_EQ(rig.selector.selected(), line != "select(chip, true) = 0");
        EXPECT_EQ(rig.adc.readChannel(3), 0) << "the last one never came";
      })
      .recoversBy(recover)
      .run({{"select(chip, true) = 0", "", lines(kBus, kDoConversion)},
            {kConversion, kPerror, logging},
            {switched("23"), kPerror, logging},
            {kConversion, kPerror, logging},
            {switched("45"), kPerror, logging},
            {kConversion, kPerror, logging},
            {switched("67"), kPerror, logging},
            {kConversion, kPerror, {kDevice}},
            {"select(chip, false) = 0", "", kBus}});
}

}  // namespace
