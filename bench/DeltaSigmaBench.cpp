// SPDX-License-Identifier: MIT
// ADS1248 and ADS1256: what a conversion costs, and a look into the cache.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <type_traits>

#include "bench/Bench.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"

namespace {

using bench::check;
using Varnel::CSpiAnalogIn2x24Bit_ADS1248;
using Varnel::CSpiAnalogIn4x24Bit_ADS1256;

constexpr unsigned kStart = 22;
constexpr unsigned kReset = 23;
constexpr unsigned kDataReady = 24;
constexpr unsigned kSelect = 25;
constexpr uint16_t kAds1248KHz = 2000;
constexpr uint16_t kAds1256KHz = 75;

/// A board with one converter, whose calls take long enough for the drivers' start-up.
template <typename Chip>
struct Fixture {
  explicit Fixture(bool virtualTime)
      : board({.callCost = std::chrono::microseconds(100)}), chip(board.add<Chip>("adc")) {
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
    board.attach(chip, board.addSpiBus({.number = 1}));
    board.connect(chip.pin("CS"), gpio.line(kSelect));
    board.connect(chip.pin("DRDY"), gpio.line(kDataReady));
    board.connect(chip.pin("RESET"), gpio.line(kReset));
    if constexpr (std::is_same_v<Chip, vboard::Ads1248>) {
      board.connect(chip.pin("START"), gpio.line(kStart));
      chip.setReference(1, 2.5);
    }
    kernel =
        std::make_unique<vboard::Kernel>(board, vboard::KernelOptions{.virtualTime = virtualTime});
    check(pin.connect() == 0, "connect the select");
  }
  vboard::Board board;
  Chip& chip;
  std::unique_ptr<vboard::Kernel> kernel;
  Orv::CLinuxIoPin pin{kSelect, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
};

/// Bus and device as an application has them.
template <typename Driver, typename Chip>
struct Library {
  explicit Library(Fixture<Chip>& fixture) : select(fixture.pin) {
    constexpr bool kHasStart = std::is_same_v<Chip, vboard::Ads1248>;
    check(bus.setSpiSpeedKHz(kHasStart ? kAds1248KHz : kAds1256KHz) == 0 && bus.open() == 0,
          "open the bus");
    driver.setBus(&bus);
    driver.setChipSelector(&select);
    if constexpr (kHasStart) {
      driver.configurePins(kStart, kDataReady, kReset);
    } else {
      driver.configurePins(kReset, kDataReady);
    }
    check(driver.open() == 0, "open the converter");
    fixture.board.advance(std::chrono::milliseconds(20));
  }
  ~Library() { bus.close(); }
  Varnel::CGpioPinChipSelector select;
  Varnel::CLinuxSpiBus bus;
  Driver driver;
};

using Ads1256Library = Library<CSpiAnalogIn4x24Bit_ADS1256, vboard::Ads1256>;

void doConversion(benchmark::State& state) {
  Fixture<vboard::Ads1256> fixture(false);
  Ads1256Library library(fixture);
  for ([[maybe_unused]] auto _ : state) {
    check(library.driver.doConversion() == 0, "doConversion");
    benchmark::DoNotOptimize(library.driver.readChannel(0));
  }
}

/// What somebody would write who knows this one chip and nothing else.
void doConversionByHand(benchmark::State& state) {
  Fixture<vboard::Ads1256> fixture(false);
  const Ads1256Library started(fixture);
  const int node = open("/dev/spidev1.0", O_RDWR);
  uint8_t mode = SPI_MODE_1;
  check(node >= 0 && ioctl(node, SPI_IOC_WR_MODE, &mode) == 0, "open the node");
  const auto transfer = [node](uint8_t* sent, uint8_t* received, uint32_t length) {
    spi_ioc_transfer record{};
    record.tx_buf = reinterpret_cast<uintptr_t>(sent);
    record.rx_buf = reinterpret_cast<uintptr_t>(received);
    record.len = length;
    record.speed_hz = kAds1256KHz * 1000;
    record.bits_per_word = 8;
    check(ioctl(node, SPI_IOC_MESSAGE(1), &record) >= 0, "a message by hand");
  };
  uint8_t frame[19] = {0xFC, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                       0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0xFF, 0xFF, 0xFF};
  uint8_t inputs[3] = {0x51, 0x00, 0x01};
  for ([[maybe_unused]] auto _ : state) {
    check(fixture.pin.write(Orv::HIGH) == 0, "select");
    for (int i = 0; i < 4; ++i) {
      uint8_t received[19] = {};
      transfer(frame, received, sizeof(frame));
      benchmark::DoNotOptimize(received[16] << 16 | received[17] << 8 | received[18]);
      if (i < 3) {
        transfer(inputs, nullptr, sizeof(inputs));
      }
    }
    check(fixture.pin.write(Orv::LOW) == 0, "deselect");
  }
  close(node);
}

// On the board's clock, so that results become ready.
void countAds1248(bench::Suite& suite) {
  Fixture<vboard::Ads1248> fixture(true);
  Library<CSpiAnalogIn2x24Bit_ADS1248, vboard::Ads1248> library(fixture);
  CSpiAnalogIn2x24Bit_ADS1248& driver = library.driver;
  check(driver.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS) == 0, "set the rate");
  suite.operations.push_back(bench::count("ADS1248 doConversion", fixture.board, [&] {
    check(driver.doConversion() == 0, "doConversion");
  }));
  suite.operations.push_back(
      bench::count("ADS1248 readChannel", fixture.board, [&] { driver.readChannel(1); }));
}

void countAds1256(bench::Suite& suite) {
  Fixture<vboard::Ads1256> fixture(true);
  Ads1256Library library(fixture);
  suite.operations.push_back(bench::count("ADS1256 doConversion", fixture.board, [&] {
    check(library.driver.doConversion() == 0, "doConversion");
  }));
  suite.operations.push_back(
      bench::count("ADS1256 readChannel", fixture.board, [&] { library.driver.readChannel(3); }));
}

}  // namespace

void bench::addDeltaSigma(Suite& suite) {
  countAds1248(suite);
  countAds1256(suite);
  benchmark::RegisterBenchmark("ADS1256.doConversion", doConversion)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("ADS1256.doConversionByHand", doConversionByHand)
      ->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "ADS1256 doConversion / hand-written loop",
                               .measured = "ADS1256.doConversion",
                               .reference = "ADS1256.doConversionByHand"});
}
