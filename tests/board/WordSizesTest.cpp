// SPDX-License-Identifier: MIT
// Chips whose words aren't bytes on a controller that sends nothing else, the Raspberry Pi's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"
#include "vboard/vboard.h"

namespace {

using boardtest::rulesOf;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Level;

constexpr unsigned kSelect = 25;
constexpr unsigned kLatch = 22;
constexpr const char* kRefused = "can't transfer data via CLinuxSpiBus: Invalid argument";

/// What came to stderr meanwhile: messages as they are, log lines as "code function".
class Printed {
 public:
  Printed() { testing::internal::CaptureStderr(); }

  std::vector<std::string> lines() {
    static const std::regex kLogLine("^.* ERROR Return code  (-?[0-9]+) .* \\(.*:[0-9]+ (.*)\\)$");
    std::istringstream text(testing::internal::GetCapturedStderr());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      lines.push_back(std::regex_replace(line, kLogLine, "$1 $2"));
    }
    return lines;
  }
};

class WordSizes : public testing::Test {
 protected:
  void start() {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(bus.setSpiSpeedKHz(1000), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(selector.connect(), 0);
    ASSERT_EQ(latch.connect(), 0);
  }
  void TearDown() override { bus.close(); }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1, .profile = "bcm2835"});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector selector{kSelect, Orv::PIN_MODE_INVERT};
  Orv::CLinuxIoPin latch{kLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
};

TEST_F(WordSizes, TwelveBitsForLedsAreRefused) {
  auto& leds = board.add<vboard::Tlc5947>("leds");
  board.attach(leds, spi);
  board.connect(leds.pin("XLAT"), gpio.line(kLatch));
  start();
  Varnel::CSpiLedDriver12Bit_TLC5947 device(24);
  device.setBus(&bus);
  device.setLatchPin(&latch);
  Printed printed;
  EXPECT_EQ(device.setPWM(0, 100, true), -22);
  EXPECT_THAT(printed.lines(),
              ElementsAre(kRefused, "-22 executeChainedDataTransfer", "-22 transferData"));
  EXPECT_EQ(leds.bitsSinceLatch(), 0U);
  EXPECT_EQ(leds.latches(), 0U);
  EXPECT_EQ(gpio.level(kLatch), Level::Low);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(WordSizes, FifteenBitsOfAConversionAreRefused) {
  auto& adc = board.add<vboard::Mcp3201>("adc");
  board.attach(adc, spi);
  board.connect(adc.pin("CS"), gpio.line(kSelect));
  start();
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 device;
  device.setBus(&bus);
  device.setChipSelector(&selector);
  uint16_t code = 77;
  Printed printed;
  EXPECT_EQ(device.readInput(&code, true), -22);
  EXPECT_THAT(printed.lines(),
              ElementsAre(kRefused, "-22 executeTransfer", "-22 executeChainedDataTransfer",
                          "-22 transferData", "-22 readInput"));
  EXPECT_EQ(code, 77);
  EXPECT_EQ(adc.conversions(), 0U);
  EXPECT_EQ(gpio.level(kSelect), Level::Low) << "left selected";
}

TEST_F(WordSizes, SixteenBitsForVoltsAreRefusedBeforeTheChipIsSelected) {
  auto& dac = board.add<vboard::Mcp4822>("dac");
  board.attach(dac, spi);
  board.connect(dac.pin("CS"), gpio.line(kSelect));
  board.connect(dac.pin("LDAC"), gpio.line(24));
  start();
  Varnel::CSpiAnalogOut2x12Bit_MCP4822 device;
  device.setBus(&bus);
  device.setChipSelector(&selector);
  device.configurePins(24);
  ASSERT_EQ(device.open(), 0);
  Printed printed;
  EXPECT_EQ(device.setValue(0, 100, true), -22);
  // The settling transfer of the new mode is as long as the word.
  EXPECT_THAT(printed.lines(), ElementsAre(kRefused, "-22 executeManagedTransfer"));
  EXPECT_EQ(gpio.level(kSelect), Level::High);
  EXPECT_EQ(dac.writes(), 0U);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(WordSizes, SixteenBitsForAWiperAreRefused) {
  auto& pot = board.add<vboard::Ad5292>("pot");
  board.attach(pot, spi);
  board.connect(pot.pin("SYNC"), gpio.line(kLatch));
  start();
  Varnel::CSpiPotentiometer16Bit_AD529x device;
  device.setBus(&bus);
  device.setLatchPin(&latch);
  Printed written;
  EXPECT_EQ(device.writeRDAC(100), -22);
  EXPECT_THAT(written.lines(), ElementsAre(kRefused, "-22 executeTransfer",
                                           "-22 executeChainedDataTransfer", "-22 transferData"));
  Printed read;
  EXPECT_EQ(device.readControlWord(), -22);
  EXPECT_THAT(read.lines(),
              ElementsAre(kRefused, "-22 executeTransfer", "-22 executeChainedDataTransfer",
                          "-22 transferData", "-22 readData", "-22 readControlWord"));
  EXPECT_EQ(pot.commands(), 0U);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

}  // namespace
