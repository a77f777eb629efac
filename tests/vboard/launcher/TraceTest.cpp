// SPDX-License-Identifier: MIT
#include "vboard/launcher/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "vboard/chips/Mcp3201.h"

namespace vboard::launcher {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Collecting : public Tracer {
 public:
  std::vector<std::string> lines;

 protected:
  void write(const std::string& line) override { lines.push_back(line); }
};

TEST(Trace, ShowsSelectSampleTransferAndViolationInTheirOrder) {
  Board board;
  auto& spi = board.addSpiBus({.number = 1});
  auto& gpio = board.addGpioChip({.lines = 32, .lineNames = {{25, "ADC_CS"}}});
  auto& adc = board.add<Mcp3201>("adc");
  board.attach(adc, spi);
  board.connect(adc.pin("CS"), gpio.line(25));
  adc.setInput(2.5);
  board.powerUp();
  gpio.setOutput(25, Drive::High);
  Collecting tracer;
  board.addObserver(tracer);
  board.advance(std::chrono::microseconds(10));
  gpio.setOutput(25, Drive::Low);
  board.advance(std::chrono::microseconds(10));
  const uint32_t sent[2] = {0, 0xFF};
  uint32_t received[2] = {};
  spi.transfer(0, {.mode = 0, .bitsPerWord = 8, .speedHz = 2000000}, sent, received);
  ASSERT_THAT(
      tracer.lines,
      ElementsAre(
          HasSubstr("[   0.000000000] board powered up for "),
          "[   0.000010000] gpiochip0:25 ADC_CS low\n",
          HasSubstr("[   0.000020000] VIOLATION adc: clock-too-fast: "),
          HasSubstr("] adc: sampled 2.500 V: code 2048\n"),
          HasSubstr("[   0.000028000] spidev1.0 mode 0, 8 bits, 2 MHz: MOSI 00 ff, MISO ")));
  board.removeObserver(tracer);
}

TEST(Trace, WordsHaveTheDigitsOfTheirSizeAndLongTransfersEndEarly) {
  Board board;
  auto& spi = board.addSpiBus({.number = 2});
  std::vector<uint32_t> words(40);
  std::iota(words.begin(), words.end(), 0xABCU);
  SpiRecord record;
  record.bus = &spi;
  record.select = 0;
  record.format = {.mode = 3, .lsbFirst = true, .bitsPerWord = 12, .speedHz = 1500};
  record.mosi = std::span(words).first(2);
  EXPECT_EQ(Tracer::describe(record),
            "spidev2.0 mode 3, 12 bits LSB first, 1.5 kHz: MOSI abc abd, MISO -");
  record.mosi = words;
  EXPECT_THAT(Tracer::describe(record), HasSubstr(" adb ... (40 words), MISO -"));
}

TEST(Trace, FailedCallsSayWhy) {
  Collecting tracer;
  tracer.onCall("SPI_IOC_MESSAGE", "/dev/spidev1.0", 2, Time(1000));
  EXPECT_TRUE(tracer.lines.empty());
  tracer.onCall("SPI_IOC_MESSAGE", "/dev/spidev1.0", -EINVAL, Time(1000));
  ASSERT_EQ(tracer.lines.size(), 2U);
  EXPECT_EQ(tracer.lines[1],
            "[   0.000001000] /dev/spidev1.0: SPI_IOC_MESSAGE failed: Invalid argument\n");
}

}  // namespace
}  // namespace vboard::launcher
