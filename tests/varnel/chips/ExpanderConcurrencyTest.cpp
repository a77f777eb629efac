// SPDX-License-Identifier: MIT
// Threads that read converters behind one expander while others write outputs on the same bus.
// Without a journal the thread sanitizer watches; with one, the order of the calls tells.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/wire/Wire.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

namespace {

using Varnel::CHC595ChipSelectDevice;
using Varnel::CLinuxSpiDevice;
using wire::Lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr int kConverters = 3;

struct Adc : Varnel::CSpiAnalogIn1x12Bit_MCP3201 {
  using CSpiAnalogIn1x12Bit_MCP3201::m_TransferBuffer;
};
struct Expander : CHC595ChipSelectDevice {
  using CHC595ChipSelectDevice::m_Register;
};
struct Outputs : Varnel::CSpiDigOut8Bit_HC595 {
  using CSpiDigOut8Bit_HC595::m_Register;
};

/// Three converters behind an expander with its latch on pin 22, and plain outputs with theirs on
/// pin 24.
class ExpanderConcurrency : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(bus_.open(), 0);
    for (CLinuxSpiDevice* device : std::vector<CLinuxSpiDevice*>{&expander_, &outputs_}) {
      device->setBus(&bus_);
    }
    ASSERT_EQ(expanderLatch_.connect(), 0);
    ASSERT_EQ(outputsLatch_.connect(), 0);
    expander_.setLatchPin(&expanderLatch_);
    outputs_.setLatchPin(&outputsLatch_);
    ASSERT_EQ(expander_.writeOutputs(7, kDo), 0);
    wire_.name(&expander_.m_Register, 1, "address");
    wire_.name(&outputs_.m_Register, 1, "outputs");
    for (int i = 0; i < kConverters; ++i) {
      adcs_[i].setBus(&bus_);
      expander_.attachSpiDevice(&adcs_[i], static_cast<uint8_t>(i + 1),
                                CHC595ChipSelectDevice::ExplicitTransfer);
      wire_.name(&adcs_[i].m_TransferBuffer, 2, "adc" + std::to_string(i + 1));
    }
    wire_.discard();
  }

  void run(int rounds) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    const auto start = [&](const std::function<bool(int)>& once) {
      threads.emplace_back([&failures, once, rounds] {
        for (int i = 0; i < rounds; ++i) {
          failures += once(i) ? 0 : 1;
        }
      });
    };
    for (Adc& adc : adcs_) {
      start([&adc](int) {
        uint16_t value = 0;
        return adc.readInput(&value, kDo) == 0;
      });
    }
    // Two writers meet in the test of the cache, which comes before the lock.
    for (const int base : {0x10, 0x20}) {
      start([this, base](int i) {
        return outputs_.writeOutputs(static_cast<uint8_t>(base | (i & 7)), kDo) == 0;
      });
    }
    // The none address comes and goes under whoever asks for it.
    start([this](int) {
      const std::lock_guard<std::recursive_mutex> lock(bus_.transferMutex());
      return expander_.setChipSelect(1, CHC595ChipSelectDevice::ExplicitTransfer) == 0 &&
             expander_.setChipSelect(7, CHC595ChipSelectDevice::ExplicitTransfer) == 0;
    });
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(failures, 0);
  }

  wire::Wire wire_;
  Varnel::CLinuxSpiBus bus_;
  Orv::CLinuxIoPin expanderLatch_{22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Orv::CLinuxIoPin outputsLatch_{24, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Outputs outputs_;
  Expander expander_;
  Adc adcs_[kConverters];
};

TEST_F(ExpanderConcurrency, NothingIsSharedUnlocked) {
  wire_.pause();
  run(500);
  EXPECT_GE(wire_.pausedMessages(), 500U * kConverters * 5U);
}

std::string sent(const std::string& bytes) {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=" + bytes +
         " rx=null len=1 speed_hz=500000 bits_per_word=8}) = 1";
}

std::string converted(int number) {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=null rx=adc" + std::to_string(number) +
         " len=2 speed_hz=500000 bits_per_word=15}) = 2";
}

/// The whole exchanges that may stand in the journal, each as its lines.
std::vector<Lines> exchanges() {
  const std::string low = "pin 22: write LOW = 0";
  const std::string high = "pin 22: write HIGH = 0";
  std::vector<Lines> all;
  for (int i = 1; i <= kConverters; ++i) {
    const std::string address = sent("address[0" + std::to_string(i) + "]");
    all.push_back({low, address, high, low, converted(i), address, low, converted(i),
                   sent("address[07]"), high, low});
  }
  all.push_back(
      {low, sent("address[01]"), high, low, low, converted(1), sent("address[07]"), high, low});
  for (const char* base : {"1", "2"}) {
    for (int i = 0; i < 8; ++i) {
      all.push_back({"pin 24: write LOW = 0",
                     sent("outputs[" + std::string(base) + std::to_string(i) + "]"),
                     "pin 24: write HIGH = 0", "pin 24: write LOW = 0"});
    }
  }
  return all;
}

bool standsAt(const Lines& journal, size_t position, const Lines& exchange) {
  return position + exchange.size() <= journal.size() &&
         std::equal(exchange.begin(), exchange.end(),
                    journal.begin() + static_cast<std::ptrdiff_t>(position));
}

TEST_F(ExpanderConcurrency, NoExchangeIsInterleavedWithAnother) {
  run(60);
  const Lines journal = wire_.journal();
  const std::vector<Lines> known = exchanges();
  std::vector<int> seen(known.size(), 0);
  for (size_t position = 0; position < journal.size();) {
    size_t match = 0;
    while (match < known.size() && !standsAt(journal, position, known[match])) {
      ++match;
    }
    ASSERT_LT(match, known.size())
        << "no whole exchange at line " << position << ": " << journal[position];
    ++seen[match];
    position += known[match].size();
  }
  for (int i = 0; i < kConverters; ++i) {
    EXPECT_EQ(seen[static_cast<size_t>(i)], 60);
  }
  EXPECT_EQ(seen[kConverters], 60);
}

}  // namespace
