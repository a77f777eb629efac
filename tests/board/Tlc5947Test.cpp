// SPDX-License-Identifier: MIT
// The TLC5947 driver against the model of the chip: a table in, LEDs of a cascade of three out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"
#include "vboard/vboard.h"

namespace {

using boardtest::rulesOf;
using std::chrono::microseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Varnel::CLinuxSpiDevice;
using vboard::Level;

using Driver = Varnel::CSpiLedDriver12Bit_TLC5947;
constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr unsigned kLatch = 22;
constexpr unsigned kBlank = 23;
constexpr int kChips = 3;
constexpr int kOutputs = 24 * kChips;
constexpr microseconds kPeriod(1024);  // of the display

/// Three chips in a row, the first at MOSI, on a bus of 8 MHz.
class Tlc5947Board : public testing::Test {
 protected:
  Tlc5947Board() {
    for (int i = 0; i < kChips; ++i) {
      auto& chip = board.add<vboard::Tlc5947>("leds" + std::to_string(i));
      board.connect(chip.clockPin(), spi.sclk());
      board.connect(chip.pin("SIN"), i == 0 ? spi.mosi() : chips.back()->pin("SOUT"));
      board.connect(chip.pin("XLAT"), gpio.line(kLatch));
      board.connect(chip.pin("BLANK"), gpio.line(kBlank));
      chips.push_back(&chip);
    }
  }

  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(bus.setSpiSpeedKHz(8000), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(latch.connect(), 0);
    bind(device);
  }
  void TearDown() override { bus.close(); }

  void bind(Driver& driver) {
    driver.setBus(&bus);
    driver.setLatchPin(&latch);
  }
  /// BLANK through an inverting pin, so that true means on; connecting it leaves the outputs off.
  void light() {
    device.outputEnablePin().configure(kBlank, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
    ASSERT_EQ(device.outputEnablePin().connect(), 0);
    ASSERT_EQ(device.setOutputEnable(true), 0);
  }

  /// The chips' latched values in the order of the table: the farthest chip's OUT23 first.
  std::vector<int> table() const {
    std::vector<int> values;
    for (auto chip = chips.rbegin(); chip != chips.rend(); ++chip) {
      for (int output = 23; output >= 0; --output) {
        values.push_back((*chip)->value(output));
      }
    }
    return values;
  }
  static std::vector<int> all(int value) { return std::vector<int>(kOutputs, value); }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  std::vector<vboard::Tlc5947*> chips;
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin latch{kLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Driver device{kOutputs};
};

TEST_F(Tlc5947Board, EveryLedOfTheCascadeHasItsPlaceInTheTable) {
  std::vector<int> expected;
  for (int i = 0; i < kOutputs; ++i) {
    expected.push_back(57 * i + 1);
    ASSERT_EQ(device.setPWM(static_cast<uint16_t>(i), static_cast<uint16_t>(57 * i + 1), kNo), 0);
  }
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(table(), expected);
  // The last value is output 0 of the nearest chip, the first one output 23 of the farthest.
  EXPECT_EQ(chips[0]->value(0), 57 * 71 + 1);
  EXPECT_EQ(chips[0]->value(23), 57 * 48 + 1);
  EXPECT_EQ(chips[1]->value(0), 57 * 47 + 1);
  EXPECT_EQ(chips[2]->value(23), 1);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, OneLedAfterTheOtherIsLitAloneInAllTheCascade) {
  for (int i = 0; i < kOutputs; ++i) {
    ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 0, kNo), 0);
    ASSERT_EQ(device.setPWM(static_cast<uint16_t>(i), 4095, kDo), 0);
    std::vector<int> expected = all(0);
    expected[static_cast<size_t>(i)] = 4095;
    ASSERT_EQ(table(), expected) << i;
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, EveryPulseWidthComesThrough) {
  for (int value = 0; value <= 4095; value += 39) {
    ASSERT_EQ(device.setPWMs(0, kOutputs - 1, static_cast<uint16_t>(value), kDo), 0);
    ASSERT_EQ(table(), all(value));
  }
  ASSERT_EQ(device.setPWM(3, 5000, kDo), 0);
  EXPECT_EQ(table()[3], 4095);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, AsRgbChannelsThreeOutputsHaveOneValueEightChannelsPerChip) {
  ASSERT_EQ(device.setChannelCount(8 * kChips, 3), 0);
  std::vector<int> expected;
  for (int channel = 0; channel < 8 * kChips; ++channel) {
    const int value = 100 * channel + 7;
    expected.insert(expected.end(), 3, value);
    ASSERT_EQ(device.setPWM(static_cast<uint16_t>(channel), static_cast<uint16_t>(value), kNo), 0);
  }
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(table(), expected);
  EXPECT_EQ(device.setPWM(8 * kChips, 1, kDo), -22);
  // The last channel is the nearest chip's outputs 2 to 0.
  EXPECT_EQ(chips[0]->value(2), 2307);
  EXPECT_EQ(chips[0]->value(0), 2307);
  EXPECT_EQ(chips[0]->value(3), 2207);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, AsEightChannelsEachHasNineOutputsOfTheCascade) {
  ASSERT_EQ(device.setChannelCount(8, kOutputs / 8), 0);
  ASSERT_EQ(device.setPWMs(0, 7, 10, kNo), 0);
  ASSERT_EQ(device.setPWMs(2, 3, 20, kDo), 0);
  for (int i = 0; i < kOutputs; ++i) {
    EXPECT_EQ(table()[static_cast<size_t>(i)], i >= 18 && i < 36 ? 20 : 10) << i;
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, OneLatchPulseShowsTheWholeTable) {
  vboard::WireLog log(board);
  log.watch(board.netOf(gpio.line(kLatch)), "XLAT");
  ASSERT_EQ(device.setPWM(0, 1, kDo), 0);
  ASSERT_EQ(log.transfers().size(), 1U);
  const vboard::WireLog::Transfer sent = log.transfers()[0];
  EXPECT_EQ(sent.format.mode, 0);
  EXPECT_FALSE(sent.format.lsbFirst);
  EXPECT_EQ(sent.format.bitsPerWord, 12);
  EXPECT_EQ(sent.mosi.size(), size_t{kOutputs});
  EXPECT_EQ(sent.mosi[0], 1U);
  for (const vboard::Tlc5947* chip : chips) {
    EXPECT_EQ(chip->latches(), 1U);
    EXPECT_EQ(chip->bitsSinceLatch(), 0U);
  }
  EXPECT_EQ(gpio.level(kLatch), Level::Low);
  const std::vector<std::string> lines = log.lines();
  EXPECT_EQ(lines.at(lines.size() - 5), "XLAT high");
  EXPECT_EQ(lines.back(), "XLAT low");
}

TEST_F(Tlc5947Board, NothingNewSendsNothingAndAMarkedTableIsSentAgain) {
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(table(), all(0)) << "a new table is sent: zeros over the chips' noise";
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(chips[0]->latches(), 1U);
  for (vboard::Tlc5947* chip : chips) {
    chip->losePower();
    chip->restorePower();
  }
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(chips[0]->latches(), 1U) << "the driver can't know";
  device.setDataChanged(true);
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(table(), all(0));
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, ThroughAnInvertedPinTrueLightsTheLeds) {
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 2048, kDo), 0);
  EXPECT_DOUBLE_EQ(chips[0]->brightness(0), 0) << "BLANK is not driven yet: pulled high";
  light();
  for (const vboard::Tlc5947* chip : chips) {
    EXPECT_FALSE(chip->blanked());
    EXPECT_DOUBLE_EQ(chip->brightness(7), 0.5);
  }
  ASSERT_EQ(device.setOutputEnable(false), 0);
  EXPECT_TRUE(chips[2]->blanked());
  EXPECT_DOUBLE_EQ(chips[2]->brightness(7), 0);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, APlainPinMeansTheOppositeAndLightsNoiseWhenConnectedBeforeTheFirstTable) {
  device.outputEnablePin().configure(kBlank, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  ASSERT_EQ(device.outputEnablePin().connect(), 0);
  EXPECT_THAT(rulesOf(board), ElementsAre("leds0 unblanked-poison", "leds1 unblanked-poison",
                                          "leds2 unblanked-poison"));
  ASSERT_EQ(device.setOutputEnable(true), 0);
  EXPECT_TRUE(chips[0]->blanked()) << "a high BLANK switches off";
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 1024, kDo), 0);
  ASSERT_EQ(device.setOutputEnable(false), 0);
  EXPECT_DOUBLE_EQ(chips[0]->brightness(0), 0.25);
  EXPECT_EQ(board.violationCount(), 3U);
}

TEST_F(Tlc5947Board, TheEyeSeesThePulseWidth) {
  ASSERT_EQ(device.setPWM(kOutputs - 1, 1024, kNo), 0);
  ASSERT_EQ(device.setPWM(kOutputs - 2, 4095, kNo), 0);
  ASSERT_EQ(device.transferData(kDo), 0);
  light();
  board.advance(2 * kPeriod);
  const vboard::Time dim = chips[0]->onTime(0);
  const vboard::Time bright = chips[0]->onTime(1);
  const vboard::Time dark = chips[0]->onTime(2);
  board.advance(10 * kPeriod);
  EXPECT_EQ(chips[0]->onTime(0) - dim, microseconds(10 * 256));
  EXPECT_EQ(chips[0]->onTime(1) - bright, microseconds(10 * 1024) - std::chrono::nanoseconds(2500))
      << "one part in 4096 is always dark";
  EXPECT_EQ(chips[0]->onTime(2), dark);
}

TEST_F(Tlc5947Board, AnUpdateDarkensItsPeriodAndTooManyKeepTheLedsDark) {
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 4095, kDo), 0);
  light();
  board.advance(2 * kPeriod);
  const vboard::Time start = board.now();
  const vboard::Time lit = chips[0]->onTime(0);
  while (board.now() - start < 6 * kPeriod) {
    device.setDataChanged(true);
    ASSERT_EQ(device.transferData(kDo), 0);
  }
  const vboard::Time whileUpdating = chips[0]->onTime(0) - lit;
  EXPECT_LT(whileUpdating, (board.now() - start) / 3);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, AFailedTransferChangesNoLedAndTheNextCallSendsAgain) {
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 100, kDo), 0);
  kernel->failCall(vboard::Call::Message, 1, EIO);
  EXPECT_EQ(device.setPWMs(0, kOutputs - 1, 200, kDo), -5);
  EXPECT_EQ(table(), all(100));
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(table(), all(200));
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, AFailedLatchKeepsTheOldPictureUntilTheNextCall) {
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 100, kDo), 0);
  kernel->failCall(vboard::Call::GpioSet, 2, EIO);  // low, then high
  EXPECT_EQ(device.setPWMs(0, kOutputs - 1, 200, kDo), -5);
  EXPECT_EQ(table(), all(100));
  EXPECT_EQ(chips[1]->shifted(5), 200) << "it is in the shift registers already";
  ASSERT_EQ(latch.connect(), 0);
  ASSERT_EQ(device.transferData(kDo), 0);
  EXPECT_EQ(table(), all(200));
  // The table went through twice.
  EXPECT_THAT(rulesOf(board),
              ElementsAre("leds0 frame-length", "leds1 frame-length", "leds2 frame-length"));
}

TEST_F(Tlc5947Board, DriversOfOneChipEachFormAChain) {
  Driver near(24);
  Driver middle(24);
  Driver far(24);
  const auto members = std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&near, &middle, &far});
  int value = 1;
  for (Driver* driver : {&near, &middle, &far}) {
    bind(*driver);
    driver->setDeviceChain(members);
    ASSERT_EQ(driver->setPWMs(0, 23, static_cast<uint16_t>(value++), kNo), 0);
  }
  ASSERT_EQ(middle.transferData(kDo), 0);
  for (int output = 0; output < 24; ++output) {
    EXPECT_EQ(chips[0]->value(output), 1);
    EXPECT_EQ(chips[1]->value(output), 2);
    EXPECT_EQ(chips[2]->value(output), 3);
  }
  EXPECT_EQ(chips[0]->latches(), 1U);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Tlc5947Board, ATableTooShortForTheCascadeShiftsOldValuesOn) {
  Driver shorter(24);
  bind(shorter);
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 100, kDo), 0);
  ASSERT_EQ(shorter.setPWMs(0, 23, 200, kDo), 0);
  EXPECT_EQ(chips[0]->value(0), 200);
  EXPECT_EQ(chips[1]->value(0), 100) << "moved on from the nearest chip";
  EXPECT_THAT(rulesOf(board),
              ElementsAre("leds0 frame-length", "leds1 frame-length", "leds2 frame-length"));
}

TEST_F(Tlc5947Board, ACascadeTakesFifteenMegahertz) {
  ASSERT_EQ(bus.setSpiSpeedKHz(15000), 0);
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 1234, kDo), 0);
  EXPECT_THAT(rulesOf(board), IsEmpty());
  ASSERT_EQ(bus.setSpiSpeedKHz(20000), 0);
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 2345, kDo), 0);
  EXPECT_THAT(rulesOf(board), IsEmpty()) << "a driver keeps the speed of its first transfer";
  Driver fast(kOutputs);
  bind(fast);
  ASSERT_EQ(fast.setPWMs(0, kOutputs - 1, 3456, kDo), 0);
  EXPECT_THAT(rulesOf(board),
              ElementsAre("leds0 clock-too-fast", "leds1 clock-too-fast", "leds2 clock-too-fast"));
}

/// A converter on the same wires: its words shift through the LED drivers too.
class Tlc5947WithNeighbour : public Tlc5947Board {
 protected:
  Tlc5947WithNeighbour() {
    board.attach(dac, spi);
    board.connect(dac.pin("CS"), gpio.line(25));
    board.connect(dac.pin("LDAC"), gpio.line(24));
  }
  vboard::Mcp4822& dac = board.add<vboard::Mcp4822>("dac");
};

TEST_F(Tlc5947WithNeighbour, TrafficForOthersShiftsThroughAndIsNeverSeen) {
  Varnel::CGpioPinChipSelector selector(25, Orv::PIN_MODE_INVERT);
  ASSERT_EQ(selector.connect(), 0);
  Varnel::CSpiAnalogOut2x12Bit_MCP4822 converter;
  converter.setBus(&bus);
  converter.setChipSelector(&selector);
  converter.configurePins(24);
  ASSERT_EQ(converter.open(), 0);
  ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 100, kDo), 0);
  for (int value = 0; value < 15; ++value) {
    ASSERT_EQ(converter.setValue(0, static_cast<uint16_t>(value), true), 0);
    ASSERT_EQ(table(), all(100));
    ASSERT_EQ(device.setPWMs(0, kOutputs - 1, static_cast<uint16_t>(value), kDo), 0);
    ASSERT_EQ(table(), all(value));
    ASSERT_EQ(device.setPWMs(0, kOutputs - 1, 100, kDo), 0);
    ASSERT_EQ(dac.code(vboard::Mcp4822::Channel::A), value) << "nor do the LEDs' words reach it";
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

}  // namespace
