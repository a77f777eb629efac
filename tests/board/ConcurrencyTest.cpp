// SPDX-License-Identifier: MIT
// Threads on shared and on separate buses: no exchange is interleaved with another.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <thread>
#include <vector>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "vboard/vboard.h"

namespace {

constexpr int kReadings = 200;

/// Two buses with two converters each; converter i is selected by GPIO i and sees i + 0.5 volts.
struct FourConverters {
  FourConverters() {
    for (size_t i = 0; i < spi.size(); ++i) {
      spi[i] = &board.addSpiBus({.number = static_cast<int>(i)});
    }
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 8});
    for (size_t i = 0; i < 4; ++i) {
      auto& adc = board.add<vboard::Mcp3201>("adc" + std::to_string(i));
      adc.setInput(static_cast<double>(i) + 0.5);
      board.attach(adc, *spi[i / 2]);
      board.connect(adc.pin("CS"), gpio.line(static_cast<int>(i)));
    }
    kernel = std::make_unique<vboard::Kernel>(board);
  }
  vboard::Board board;
  std::array<vboard::SpiBus*, 2> spi{};
  std::unique_ptr<vboard::Kernel> kernel;
};

/// Counts selects that overlap on one bus.
class Overlaps : public vboard::Observer {
 public:
  explicit Overlaps(vboard::Board& board) : board_(board) { board_.addObserver(*this); }
  ~Overlaps() override { board_.removeObserver(*this); }

  void onTransfer(const vboard::SpiRecord& record) override {
    const int busNumber = record.bus->options().number;
    int selected = 0;
    for (int i = 2 * busNumber; i < 2 * busNumber + 2; ++i) {
      selected += board_.gpioChips()[0]->level(i) == vboard::Level::Low ? 1 : 0;
    }
    ++transfers;
    wrong += selected == 1 ? 0 : 1;
  }
  int transfers = 0;
  int wrong = 0;

 private:
  vboard::Board& board_;
};

TEST(Concurrency, ReadingsOfFourConvertersOnTwoBusesDoNotDisturbEachOther) {
  FourConverters fixture;
  std::array<Varnel::CLinuxSpiBus, 2> buses;
  buses[0].setSPIDevice("/dev/spidev0.0");
  buses[1].setSPIDevice("/dev/spidev1.0");
  for (Varnel::CLinuxSpiBus& bus : buses) {
    ASSERT_EQ(bus.setSpiSpeedKHz(1600), 0);
    ASSERT_EQ(bus.open(), 0);
  }
  std::vector<std::unique_ptr<Varnel::CGpioPinChipSelector>> selectors;
  std::array<Varnel::CSpiAnalogIn1x12Bit_MCP3201, 4> devices;
  for (unsigned i = 0; i < 4; ++i) {
    selectors.push_back(std::make_unique<Varnel::CGpioPinChipSelector>(i, Orv::PIN_MODE_INVERT));
    ASSERT_EQ(selectors.back()->connect(), 0);
    devices[i].setBus(&buses[i / 2]);
    devices[i].setChipSelector(selectors.back().get());
  }

  Overlaps overlaps(fixture.board);
  // 0.5 V, 1.5 V, 2.5 V and 3.5 V of 5 V.
  constexpr std::array<int, 4> kCodes = {409, 1228, 2048, 2867};
  std::array<int, 4> wrongReadings{};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < kReadings; ++n) {
        uint16_t code = 0;
        const int32_t result = devices[i].readInput(&code, true);
        wrongReadings[i] += result == 0 && code == kCodes[i] ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_THAT(wrongReadings, testing::Each(0));
  EXPECT_EQ(overlaps.transfers, 4 * kReadings);
  EXPECT_EQ(overlaps.wrong, 0);
  EXPECT_EQ(fixture.board.violationCount(), 0U);
  for (Varnel::CLinuxSpiBus& bus : buses) {
    EXPECT_EQ(bus.close(), 0);
  }
}

}  // namespace
