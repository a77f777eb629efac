// SPDX-License-Identifier: MIT
// The MCP3201 driver against the model of the chip: volts in, codes out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "vboard/vboard.h"

namespace {

using testing::ElementsAre;
using Varnel::CLinuxSpiDevice;

constexpr unsigned kSelectPin = 25;

/// One converter on /dev/spidev1.0, selected by GPIO 25, active low; supply and reference 5 V.
class Mcp3201Board : public testing::Test {
 protected:
  explicit Mcp3201Board(const vboard::SpiBusOptions& options = {.number = 1})
      : spi(board.addSpiBus(options)),
        gpio(board.addGpioChip({.lines = 32})),
        adc(board.add<vboard::Mcp3201>("adc")),
        kernel((wire(), board)),
        selector(kSelectPin, Orv::PIN_MODE_INVERT),
        log(board) {}

  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    ASSERT_EQ(bus.setSpiSpeedKHz(1600), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(selector.connect(), 0);
    device.setBus(&bus);
    device.setChipSelector(&selector);
  }
  void TearDown() override { bus.close(); }

  void wire() {
    board.attach(adc, spi);
    board.connect(adc.pin("CS"), gpio.line(kSelectPin));
  }

  uint16_t read() {
    uint16_t code = 0xFFFF;
    EXPECT_EQ(device.readInput(&code, CLinuxSpiDevice::DO_TRANSFER), 0);
    return code;
  }

  std::vector<std::string> violations() const {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    return rules;
  }

  vboard::Board board;
  vboard::SpiBus& spi;
  vboard::GpioChip& gpio;
  vboard::Mcp3201& adc;
  vboard::Kernel kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector selector;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 device;
  vboard::WireLog log;
};

TEST_F(Mcp3201Board, VoltsAtTheInputComeBackAsCodes) {
  struct Point {
    double volts;
    uint16_t code;
  };
  // One step is 5 V / 4096 = 1.2207 mV; half a step is added to stay clear of the borders.
  for (const Point& point : {Point{0.0, 0}, Point{0.00183, 1}, Point{1.25061, 1024},
                             Point{2.50061, 2048}, Point{4.99817, 4094}, Point{4.99939, 4095}}) {
    adc.setInput(point.volts);
    EXPECT_EQ(read(), point.code) << point.volts << " V";
  }
  EXPECT_THAT(violations(), ElementsAre());
}

TEST_F(Mcp3201Board, TheReferenceIsFullScale) {
  adc.setReference(2.5);
  adc.setInput(1.2503);
  EXPECT_EQ(read(), 2048);
}

TEST_F(Mcp3201Board, EveryCodeComesThrough) {
  for (int code = 0; code < 4096; ++code) {
    adc.setInput((code + 0.5) * 5.0 / 4096);
    ASSERT_EQ(read(), code);
  }
  EXPECT_THAT(violations(), ElementsAre());
}

TEST_F(Mcp3201Board, OneReadingIsOneFrameOf15BitsInMode0) {
  adc.setInput(3.31177);  // code 2713 = 0xA99
  read();
  ASSERT_EQ(log.transfers().size(), 1U);
  const vboard::WireLog::Transfer frame = log.transfers()[0];
  EXPECT_EQ(frame.format.mode, 0);
  EXPECT_FALSE(frame.format.lsbFirst);
  EXPECT_EQ(frame.format.bitsPerWord, 15);
  EXPECT_EQ(frame.format.speedHz, 1600000U);
  EXPECT_THAT(frame.mosi, ElementsAre(0));
  // Two clocks of sampling float; then the null bit and the code.
  EXPECT_EQ(frame.miso[0] & 0x1FFF, 0x0A99U);
  EXPECT_EQ(frame.end - frame.start, vboard::Time(9375));
}

TEST_F(Mcp3201Board, TheFloatingSamplingBitsNeverReachTheCaller) {
  adc.setInput(5.0 * 0.25 / 4096);  // code 0: any bit that shows is noise
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(read(), 0);
  }
}

TEST_F(Mcp3201Board, TheChipIsSelectedForTheFrameOnly) {
  vboard::Net& select = board.netOf(adc.pin("CS"));
  EXPECT_EQ(select.level(), vboard::Level::High);
  log.clear();
  log.watch(select, "CS");
  adc.setInput(0.0);
  read();
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 4U) << log.text();
  EXPECT_EQ(lines[0], "CS low");
  EXPECT_EQ(lines[3], "CS high");
  EXPECT_EQ(select.level(), vboard::Level::High);
}

TEST_F(Mcp3201Board, WithoutTransferTheLastValueComesBackAndNothingIsConverted) {
  adc.setInput(2.0);
  const uint16_t converted = read();
  adc.setInput(4.0);
  uint16_t code = 0;
  EXPECT_EQ(device.readInput(&code, CLinuxSpiDevice::NO_TRANSFER), 0);
  EXPECT_EQ(code, converted);
  EXPECT_EQ(adc.conversions(), 1U);
}

TEST_F(Mcp3201Board, AnInputThatFollowsARampIsSampledAtTheTimeOfTheReading) {
  adc.setInput(vboard::Signal(
      vboard::Signal::Ramp{.from = 0.0, .to = 4.0, .over = std::chrono::seconds(4)}));
  uint16_t previous = 0;
  for (int i = 0; i < 4; ++i) {
    const uint16_t code = read();
    EXPECT_EQ(code, adc.lastCode());
    if (i > 0) {
      // One second is one volt: 819.2 steps, and the 819 or 820 between two readings.
      EXPECT_NEAR(code - previous, 819, 1);
    }
    previous = code;
    board.clock().advance(std::chrono::seconds(1));
  }
}

TEST_F(Mcp3201Board, AtALowSupplyTheNominalClockIsTooFastAndASlowerBusIsNot) {
  adc.setSupply(2.7);
  adc.setReference(2.5);
  adc.setInput(1.0);
  read();
  EXPECT_THAT(violations(), ElementsAre("clock-too-fast"));
  board.clearViolations();

  ASSERT_EQ(bus.setSpiSpeedKHz(800), 0);
  read();
  EXPECT_THAT(violations(), ElementsAre());
}

TEST_F(Mcp3201Board, AFailedTransferLeavesTheChipSelectedAndTheNextReadingRecovers) {
  adc.setInput(1.0);
  const uint16_t good = read();
  kernel.failCall(vboard::Call::Message, 1, EIO);
  uint16_t code = 77;
  EXPECT_EQ(device.readInput(&code, CLinuxSpiDevice::DO_TRANSFER), -5);
  EXPECT_EQ(code, 77);
  EXPECT_EQ(board.netOf(adc.pin("CS")).level(), vboard::Level::Low);

  // The recovery that the guide names.
  EXPECT_EQ(selector.enable(false), 0);
  EXPECT_EQ(bus.close(), 0);
  EXPECT_EQ(bus.setSpiSpeedKHz(1600), 0);
  EXPECT_EQ(bus.open(), 0);
  EXPECT_EQ(read(), good);
  EXPECT_THAT(violations(), ElementsAre());
}

TEST_F(Mcp3201Board, WithoutReleasingTheSelectNothingIsConvertedAgain) {
  adc.setInput(1.0);
  read();
  kernel.failCall(vboard::Call::Message, 1, EIO);
  uint16_t code = 0;
  EXPECT_EQ(device.readInput(&code, CLinuxSpiDevice::DO_TRANSFER), -5);
  // Nothing was clocked in the failed frame, so this reading is the selection's first conversion,
  // and it releases the chip.
  EXPECT_EQ(read(), adc.lastCode());
  EXPECT_EQ(board.netOf(adc.pin("CS")).level(), vboard::Level::High);
}

/// The Raspberry Pi's own controller.
class Mcp3201OnBcm2835 : public Mcp3201Board {
 protected:
  Mcp3201OnBcm2835() : Mcp3201Board({.number = 1, .profile = "bcm2835"}) {}
};

TEST_F(Mcp3201OnBcm2835, AControllerWith8BitWordsOnlyRefusesTheReading) {
  uint16_t code = 77;
  EXPECT_EQ(device.readInput(&code, CLinuxSpiDevice::DO_TRANSFER), -22);
  EXPECT_EQ(code, 77);
  EXPECT_EQ(adc.conversions(), 0U);
}

/// The GPIO bit-banging controller takes every word size.
class Mcp3201OnSpiGpio : public Mcp3201Board {
 protected:
  Mcp3201OnSpiGpio() : Mcp3201Board({.number = 1, .profile = "spi-gpio"}) {}
};

TEST_F(Mcp3201OnSpiGpio, ReadsTheInput) {
  adc.setInput(2.50061);
  EXPECT_EQ(read(), 2048);
}

}  // namespace
