// SPDX-License-Identifier: MIT
// Several threads convert on shared buses. Without a journal, so that no lock but the bus's own is
// there to order them, the thread sanitizer watches; with a journal, the order of the calls tells.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/wire/Selector.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"

namespace {

using Varnel::CLinuxSpiDevice;

struct Adc : Varnel::CSpiAnalogIn1x12Bit_MCP3201 {
  using CSpiAnalogIn1x12Bit_MCP3201::m_TransferBuffer;
  using CSpiAnalogIn1x12Bit_MCP3201::m_TransferSettings;
};

/// A converter with its selector on one of the buses.
struct Channel {
  Adc adc;
  wire::Selector selector;
  std::string name;
  int descriptor;

  Channel(Varnel::CLinuxSpiBus& bus, std::string channelName, uint8_t mode)
      : selector(channelName), name(channelName), descriptor(bus.fileDescriptor()) {
    adc.setBus(&bus);
    adc.setChipSelector(&selector);
    adc.m_TransferSettings.bus_settings.Mode = mode;
  }
};

/// Two buses faster than the converters, which differ in mode: every exchange is several calls.
class Concurrency : public testing::Test {
 protected:
  void SetUp() override {
    for (size_t i = 0; i < buses_.size(); ++i) {
      buses_[i].setSPIDevice("/dev/spidev" + std::to_string(i) + ".0");
      buses_[i].setSpiSpeedKHz(2000);
      ASSERT_EQ(buses_[i].open(), 0);
    }
    wire_.discard();
    for (size_t i = 0; i < 6; ++i) {
      channels_.push_back(std::make_unique<Channel>(buses_[i % 2], "adc" + std::to_string(i),
                                                    static_cast<uint8_t>(i / 2)));
      Adc& adc = channels_.back()->adc;
      wire_.name(&adc.m_TransferBuffer, sizeof(adc.m_TransferBuffer), channels_.back()->name);
    }
  }

  /// One thread per channel, and a second one on every channel's converter.
  void convert(int rounds) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (const auto& channel : channels_) {
      for (int twice = 0; twice < 2; ++twice) {
        threads.emplace_back([&failures, &channel, rounds] {
          for (int i = 0; i < rounds; ++i) {
            uint16_t value = 0;
            if (channel->adc.readInput(&value, CLinuxSpiDevice::DO_TRANSFER) != 0 ||
                value != 0xEEE) {
              ++failures;
            }
            channel->adc.readInput(&value, CLinuxSpiDevice::NO_TRANSFER);
          }
        });
      }
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(failures, 0);
  }

  wire::Wire wire_;
  std::array<Varnel::CLinuxSpiBus, 2> buses_;
  std::vector<std::unique_ptr<Channel>> channels_;
};

TEST_F(Concurrency, ConversionsShareNothingUnlocked) {
  wire_.pause();
  convert(500);
  EXPECT_EQ(wire_.pausedMessages(), 6000U);
}

/// Checks the calls on one bus: each exchange of a channel is whole, nobody else's call inside.
class ExchangeChecker {
 public:
  explicit ExchangeChecker(int descriptor) : descriptor_(std::to_string(descriptor)) {}

  void see(const std::string& line, const std::string& channel) {
    if (line == "select(" + channel + ", true) = 0") {
      EXPECT_EQ(inside_, "") << line;
      inside_ = channel;
      messages_ = 0;
    } else if (line == "select(" + channel + ", false) = 0") {
      EXPECT_EQ(inside_, channel) << line;
      EXPECT_EQ(messages_, 1) << line;
      inside_.clear();
      ++exchanges_;
    }
  }

  void see(const std::string& line) {
    if (line.find("ioctl(" + descriptor_ + ",") != 0) {
      return;
    }
    EXPECT_NE(inside_, "") << line;
    if (line.find("SPI_IOC_MESSAGE") != std::string::npos) {
      EXPECT_NE(line.find("rx=" + inside_ + " len=2 speed_hz=1600000"), std::string::npos)
          << "inside " << inside_ << ": " << line;
      ++messages_;
    }
  }

  int exchanges() const { return exchanges_; }

 private:
  std::string descriptor_;
  std::string inside_;
  int messages_ = 0;
  int exchanges_ = 0;
};

TEST_F(Concurrency, NoExchangeIsInterleavedWithAnotherOnItsBus) {
  convert(50);
  const wire::Lines journal = wire_.journal();
  for (const Varnel::CLinuxSpiBus& bus : buses_) {
    ExchangeChecker checker(bus.fileDescriptor());
    for (const std::string& line : journal) {
      for (const auto& channel : channels_) {
        if (channel->descriptor == bus.fileDescriptor()) {
          checker.see(line, channel->name);
        }
      }
      checker.see(line);
    }
    EXPECT_EQ(checker.exchanges(), 300);
  }
}

}  // namespace
