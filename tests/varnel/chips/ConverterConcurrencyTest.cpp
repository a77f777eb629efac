// SPDX-License-Identifier: MIT
// Threads that convert and set rates while others read the caches of the 24-bit converters. Without
// a journal the thread sanitizer watches; with one, the order of the calls tells.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/varnel/chips/Registers.h"
#include "tests/wire/Selector.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"

namespace {

using wire::Lines;

/// Both converters on one bus, at the speed of the slower one.
class ConverterConcurrency : public testing::Test {
 protected:
  void SetUp() override {
    bus_.setMode(1);
    bus_.setSpiSpeedKHz(200);
    ASSERT_EQ(bus_.open(), 0);
    registers_.answer(wire_);
    two_.setBus(&bus_);
    two_.setChipSelector(&selectTwo_);
    two_.configurePins(17, 27, 22);
    ASSERT_EQ(two_.open(), 0);
    four_.setBus(&bus_);
    four_.setChipSelector(&selectFour_);
    four_.setUsedChannels({2});
    wire_.discard();
  }

  /// Runs each of `writers` `rounds` times in a thread of its own, and each of `readers` in another
  /// until they are done.
  static void run(int rounds, const std::vector<std::function<bool(int)>>& writers,
                  const std::vector<std::function<bool()>>& readers) {
    std::atomic<int> failures{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> reading;
    for (const auto& once : readers) {
      reading.emplace_back([&failures, &done, &once] {
        do {
          failures += once() ? 0 : 1;
        } while (!done);
      });
    }
    std::vector<std::thread> writing;
    for (const auto& once : writers) {
      writing.emplace_back([&failures, &once, rounds] {
        for (int i = 0; i < rounds; ++i) {
          failures += once(i) ? 0 : 1;
        }
      });
    }
    for (std::thread& thread : writing) {
      thread.join();
    }
    done = true;
    for (std::thread& thread : reading) {
      thread.join();
    }
    EXPECT_EQ(failures, 0);
  }

  static bool isNothingOrResult(int32_t value) { return value == 0 || value == 0xEEEEEE; }

  wire::Wire wire_;
  Varnel::CLinuxSpiBus bus_;
  Registers registers_{0x40, 0x20};
  wire::Selector selectTwo_{"two"};
  wire::Selector selectFour_{"four"};
  Varnel::CSpiAnalogIn2x24Bit_ADS1248 two_;
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 four_;
};

TEST_F(ConverterConcurrency, CachesAreReadWhileConversionsRun) {
  wire_.pause();
  constexpr int kRounds = 2000;
  run(kRounds,
      {[this](int) { return two_.doConversion() == 0; },
       [this](int) { return four_.doConversion() == 0; }},
      {[this] {
         return isNothingOrResult(two_.readChannel(0)) && isNothingOrResult(two_.readChannel(1)) &&
                two_.numberOfChannels() == 2;
       },
       [this] { return isNothingOrResult(four_.readChannel(0)) && four_.numberOfChannels() == 1; },
       [this] { return two_.dataRate() == 4 && two_.pGAGain() == 3; }});
  EXPECT_EQ(two_.readChannel(0), 0xEEEEEE);
  EXPECT_EQ(two_.readChannel(1), 0xEEEEEE);
  EXPECT_EQ(four_.readChannel(0), 0xEEEEEE);
  EXPECT_EQ(wire_.pausedMessages(), kRounds * (2U + 7U));
}

std::string sent(const std::string& bytes, const std::string& received, int length) {
  const std::string size = std::to_string(length);
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[" + bytes + "] rx=" + received + " len=" + size +
         " speed_hz=200000 bits_per_word=8}) = " + size;
}

/// The whole exchanges that may stand in the journal, each as its lines: a conversion of each
/// converter, then the rate and gain register with what two threads make of it.
std::vector<Lines> exchanges() {
  const std::string reading = sent("fc 00 ff*13 01 ff ff ff", "unnamed", 19);
  const std::string switching = sent("51 00 45", "null", 3);
  std::vector<Lines> all = {
      {"pin 27: read = 0", "select(two, true) = 0",
       sent("12 ff ff ff 40 00 3e 42 00 28", "unnamed", 10), "pin 27: read = 0",
       sent("12 ff ff ff 40 00 01 42 00 20", "unnamed", 10), "select(two, false) = 0"},
      {"select(four, true) = 0", reading, switching, reading, switching, reading, switching,
       reading, "select(four, false) = 0"}};
  for (const char* value : {"34", "04", "14", "30", "00", "10", "39", "09", "19"}) {
    all.push_back({"select(two, true) = 0", sent(std::string("43 00 ") + value, "null", 3),
                   "select(two, false) = 0", "select(two, true) = 0",
                   sent("23 00 ff", "unnamed", 3), "select(two, false) = 0"});
  }
  return all;
}

bool standsAt(const Lines& journal, size_t position, const Lines& exchange) {
  return position + exchange.size() <= journal.size() &&
         std::equal(exchange.begin(), exchange.end(),
                    journal.begin() + static_cast<std::ptrdiff_t>(position));
}

TEST_F(ConverterConcurrency, NoExchangeIsInterleavedWithAnother) {
  constexpr int kRounds = 60;
  run(kRounds,
      {[this](int) { return two_.doConversion() == 0; },
       [this](int) { return four_.doConversion() == 0; },
       [this](int i) { return two_.setDataRate(i % 2 == 0 ? 0 : 9) == 0; },
       [this](int i) { return two_.setPGAGain(i % 2 == 0 ? 0 : 1) == 0; }},
      {[this] { return two_.dataRate() <= 9 && two_.pGAGain() <= 7; }});
  EXPECT_EQ(two_.dataRate(), 9);
  EXPECT_EQ(two_.pGAGain(), 1);
  EXPECT_EQ(registers_.value(3), 0x19);
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
  EXPECT_EQ(seen[0], kRounds);
  EXPECT_EQ(seen[1], kRounds);
}

}  // namespace
