// SPDX-License-Identifier: MIT
// Threads on shared and on separate buses: no exchange is interleaved with another.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/board/EepromBoard.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"
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

/// An ADS1248 on bus 0 and an ADS1256 on bus 1, at speeds and call costs that they can follow.
struct TwoSlowConverters {
  TwoSlowConverters() {
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 8});
    board.attach(two, board.addSpiBus({.number = 0}));
    board.attach(four, board.addSpiBus({.number = 1}));
    board.connect(two.pin("CS"), gpio.line(0));
    board.connect(four.pin("CS"), gpio.line(1));
    board.connect(two.pin("START"), gpio.line(2));
    board.connect(two.pin("DRDY"), gpio.line(3));
    board.connect(two.pin("RESET"), gpio.line(4));
    board.connect(four.pin("RESET"), gpio.line(5));
    board.connect(four.pin("DRDY"), gpio.line(6));
    for (const int line : {0, 1, 4, 5}) {
      board.netOf(gpio.line(line)).setPull(vboard::Pull::Up);
    }
    two.setReference(1, 2.5);
    two.setInput(0, 0.0625);  // a fifth of full scale at a gain of 8
    two.setInput(7, -0.0625);
    for (int channel = 0; channel < 4; ++channel) {
      four.setInput(2 * channel, 0.5 * (channel + 1));  // fifths at a gain of 2
    }
    kernel = std::make_unique<vboard::Kernel>(board);
  }
  vboard::Board board{{.callCost = std::chrono::microseconds(50)}};
  vboard::Ads1248& two = board.add<vboard::Ads1248>("two");
  vboard::Ads1256& four = board.add<vboard::Ads1256>("four");
  std::unique_ptr<vboard::Kernel> kernel;
};

/// The code of some fifths of full scale.
int32_t fifths(int number) {
  return (number * 0x7FFFFF / 5) & 0xFFFFFF;
}

TEST(Concurrency, CachesOfSlowConvertersCanBeReadWhileTheyConvert) {
  constexpr int kConversions = 25;
  TwoSlowConverters fixture;
  std::array<Varnel::CLinuxSpiBus, 2> buses;
  buses[0].setSPIDevice("/dev/spidev0.0");
  ASSERT_EQ(buses[0].setSpiSpeedKHz(2000), 0);
  buses[1].setSPIDevice("/dev/spidev1.0");
  ASSERT_EQ(buses[1].setSpiSpeedKHz(75), 0);
  Varnel::CGpioPinChipSelector selectTwo(0, Orv::PIN_MODE_INVERT);
  Varnel::CGpioPinChipSelector selectFour(1, Orv::PIN_MODE_INVERT);
  Varnel::CSpiAnalogIn2x24Bit_ADS1248 two;
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 four;
  ASSERT_EQ(selectTwo.connect(), 0);
  ASSERT_EQ(selectFour.connect(), 0);
  for (Varnel::CLinuxSpiBus& bus : buses) {
    ASSERT_EQ(bus.open(), 0);
  }
  two.setBus(&buses[0]);
  two.setChipSelector(&selectTwo);
  two.configurePins(2, 3, 4);
  four.setBus(&buses[1]);
  four.setChipSelector(&selectFour);
  four.configurePins(5, 6);
  ASSERT_EQ(two.open(), 0);
  ASSERT_EQ(four.open(), 0);
  ASSERT_EQ(two.setDataRate(two.DRATE_640_SPS), 0);
  fixture.board.advance(std::chrono::milliseconds(20));

  std::atomic<int> failures{0};
  std::atomic<int> converting{2};
  const auto near = [](int32_t code, int32_t expected) {
    return code == 0 || std::abs(code - expected) <= 1;
  };
  const auto readUntilDone = [&](const std::function<bool()>& once) {
    do {
      failures += once() ? 0 : 1;
    } while (converting > 0);
  };
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < kConversions; ++i) {
      failures += two.doConversion() == 0 ? 0 : 1;
      // Restarts the filter, so that the next call has to wait.
      const uint8_t rate = i % 2 == 0 ? two.DRATE_1000_SPS : two.DRATE_640_SPS;
      failures += two.setDataRate(rate) == 0 ? 0 : 1;
    }
    --converting;
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kConversions; ++i) {
      failures += four.doConversion() == 0 ? 0 : 1;
    }
    --converting;
  });
  threads.emplace_back(readUntilDone, [&] {
    const uint8_t rate = two.dataRate();
    return near(two.readChannel(0), fifths(1)) && near(two.readChannel(1), fifths(-1)) &&
           two.pGAGain() == 3 && (rate == two.DRATE_640_SPS || rate == two.DRATE_1000_SPS);
  });
  threads.emplace_back(readUntilDone, [&] {
    bool right = four.numberOfChannels() == 4;
    for (uint16_t i = 0; i < 4; ++i) {
      right = right && near(four.readChannel(i), fifths(i + 1));
    }
    return right;
  });
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(failures, 0);
  EXPECT_NEAR(two.readChannel(0), fifths(1), 1);
  EXPECT_NEAR(two.readChannel(1), fifths(-1), 1);
  for (uint16_t i = 0; i < 4; ++i) {
    EXPECT_NEAR(four.readChannel(i), fifths(i + 1), 1);
  }
  EXPECT_EQ(fixture.board.violationCount(), 0U);
  for (Varnel::CLinuxSpiBus& bus : buses) {
    EXPECT_EQ(bus.close(), 0);
  }
}

/// Two memories, selected by lines 0 and 1, and a converter at 2.5 V, selected by line 2, on one
/// bus.
struct SharedBus {
  SharedBus() {
    vboard::SpiBus& spi = board.addSpiBus({.number = 1});
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 8});
    for (int i = 0; i < 2; ++i) {
      auto& chip = board.add<vboard::At25640b>("eeprom" + std::to_string(i));
      board.attach(chip, spi);
      board.connect(chip.pin("CS"), gpio.line(i));
      chips.push_back(&chip);
    }
    auto& adc = board.add<vboard::Mcp3201>("adc");
    adc.setInput(2.50061);
    board.attach(adc, spi);
    board.connect(adc.pin("CS"), gpio.line(2));
    kernel = std::make_unique<vboard::Kernel>(board);
    EXPECT_EQ(bus.setSpiSpeedKHz(1000), 0);
    EXPECT_EQ(bus.open(), 0);
    for (unsigned line = 0; line < 3; ++line) {
      selectors.push_back(
          std::make_unique<Varnel::CGpioPinChipSelector>(line, Orv::PIN_MODE_INVERT));
      EXPECT_EQ(selectors.back()->connect(), 0);
    }
    for (size_t i = 0; i < 2; ++i) {
      eeproms[i].setBus(&bus);
      eeproms[i].setChipSelector(selectors[i].get());
    }
    converter.setBus(&bus);
    converter.setChipSelector(selectors[2].get());
  }
  ~SharedBus() { EXPECT_EQ(bus.close(), 0); }
  SharedBus(const SharedBus&) = delete;
  SharedBus& operator=(const SharedBus&) = delete;

  vboard::Board board;
  std::vector<vboard::At25640b*> chips;
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  std::vector<std::unique_ptr<Varnel::CGpioPinChipSelector>> selectors;
  std::array<boardtest::Eeprom, 2> eeproms;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 converter;
};

/// Bytes stored and read back by one thread, with the bus locked around every call of the driver;
/// between them others get their turn. Counts what went wrong.
int storeAndReadBack(SharedBus& shared, size_t memory, int bytes) {
  boardtest::Eeprom& eeprom = shared.eeproms[memory];
  const auto locked = [&shared](auto call) {
    const std::lock_guard<std::recursive_mutex> lock(shared.bus.transferMutex());
    return call();
  };
  int wrong = 0;
  for (int i = 0; i < bytes; ++i) {
    const auto address = static_cast<uint16_t>(300 * memory + static_cast<size_t>(i));
    const auto value = static_cast<uint8_t>(7 * i + static_cast<int>(memory));
    wrong += locked([&] { return eeprom.setWriteEnable(true); }) != 0 ? 1 : 0;
    wrong += locked([&] { return eeprom.writeByte(address, value); }) != 0 ? 1 : 0;
    uint8_t status = 1;
    while (locked([&] { return eeprom.readStatus(status); }) == 0 && (status & 1U) != 0) {
      Orv::CThread::sleep(1);
    }
    uint8_t back = 0;
    wrong += locked([&] { return eeprom.readByte(address, back); }) != 0 ? 1 : 0;
    wrong += back != value ? 1 : 0;
  }
  return wrong;
}

TEST(Concurrency, TwoMemoriesOnABusThatTheirCallersLockKeepTheirBytes) {
  constexpr int kBytes = 60;
  SharedBus shared;
  std::array<int, 2> wrong{};
  std::thread other([&] { wrong[1] = storeAndReadBack(shared, 1, kBytes); });
  wrong[0] = storeAndReadBack(shared, 0, kBytes);
  other.join();
  EXPECT_THAT(wrong, testing::Each(0));
  EXPECT_EQ(shared.chips[0]->writes(), static_cast<uint64_t>(kBytes));
  EXPECT_EQ(shared.chips[1]->writes(), static_cast<uint64_t>(kBytes));
  EXPECT_EQ(shared.board.violationCount(), 0U);
}

TEST(Concurrency, AMemoryWhoseCallerLocksTheBusLivesWithADriverThatLocksItself) {
  SharedBus shared;
  int wrongReadings = 0;
  std::thread reader([&] {
    for (int n = 0; n < kReadings; ++n) {
      uint16_t code = 0;
      wrongReadings += shared.converter.readInput(&code, true) == 0 && code == 2048 ? 0 : 1;
    }
  });
  const int wrong = storeAndReadBack(shared, 0, 60);
  reader.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(wrongReadings, 0);
  EXPECT_EQ(shared.board.violationCount(), 0U);
}

}  // namespace
