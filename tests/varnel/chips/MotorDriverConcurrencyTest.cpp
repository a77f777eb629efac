// SPDX-License-Identifier: MIT
// Two motors on one bus, each driven by several threads. Without a journal the thread sanitizer
// watches; with one, the order of the calls tells.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/varnel/chips/MotorDriverRig.h"
#include "tests/wire/Selector.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace {

using Varnel::CMotorDriver1ChnL6470;
using Varnel::CMotorDriver1ChnPowerSTEP01;
using Varnel::CSTMicroSteppingMotorDriver;
using wire::Lines;

constexpr unsigned kThreads = 8;

/// The first use of the registry in this program: nothing else here asks the factory.
TEST(MotorDriverFactoryConcurrency, ThreadsShareTheFirstUse) {
  std::atomic<unsigned> ready{0};
  std::atomic<unsigned> made{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&ready, &made, i] {
      const std::string name =
          i % 2 == 0 ? "Varnel::CMotorDriver1ChnL6470" : "Varnel::CMotorDriver1ChnPowerSTEP01";
      ++ready;
      while (ready < kThreads) {
        std::this_thread::yield();
      }
      for (int round = 0; round < 50; ++round) {
        const std::unique_ptr<CSTMicroSteppingMotorDriver> driver(
            CSTMicroSteppingMotorDriver::create(name));
        made += driver != nullptr ? 1U : 0U;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(made, kThreads * 50U);
}

template <class Driver>
struct Motor {
  OpenMotorDriver<Driver> driver;
  wire::Selector selector;
  std::string name;

  Motor(wire::Wire& wire, Varnel::CLinuxSpiBus& bus, const std::string& motorName)
      : selector(motorName), name(motorName) {
    driver.setBus(&bus);
    driver.setChipSelector(&selector);
    wire.name(driver.txBuffer(), 1, name);
    wire.name(driver.rxBuffer(), 1, name + "'s answer");
  }
};

/// A whole exchange of a motor: every byte in a select of its own.
Lines exchange(const std::string& name, const std::vector<std::string>& bytes) {
  Lines all;
  for (const std::string& hex : bytes) {
    all = wire::lines(all, "select(" + name + ", true) = 0",
                      "ioctl(7, SPI_IOC_MESSAGE(1), {tx=" + name + "[" + hex + "] rx=" + name +
                          "'s answer len=1 speed_hz=1000000 bits_per_word=8}) = 1",
                      "select(" + name + ", false) = 0");
  }
  return all;
}

struct Work {
  std::function<bool()> once;
  Lines journal;
};

class MotorDriverConcurrency : public testing::Test {
 protected:
  void SetUp() override {
    bus_.setMode(3);
    bus_.setSpiSpeedKHz(1000);
    ASSERT_EQ(bus_.open(), 0);
    first_ = std::make_unique<Motor<CMotorDriver1ChnPowerSTEP01>>(wire_, bus_, "first");
    second_ = std::make_unique<Motor<CMotorDriver1ChnL6470>>(wire_, bus_, "second");
    wire_.discard();
  }

  /// Each is done by a thread of its own. Every byte received is 0xEE.
  std::vector<Work> works() {
    auto& first = first_->driver;
    auto& second = second_->driver;
    return {
        {[&first] { return first.run(100.0F, 1) == 0; },
         exchange("first", {"51", "00", "1a", "36"})},
        {[&first] {
           int32_t position = 0;
           return first.getPosition(position) == 0 && position == -1118482;  // 0xEEEEEE
         },
         exchange("first", {"21", "00", "00", "00"})},
        {[&first] { return first.readStatus() == 0; }, exchange("first", {"3b", "00", "00"})},
        {[&first] { return first.setAcceleration(1000.0F) == 0; },
         exchange("first", {"05", "00", "44"})},
        {[&second] { return second.goTo(-2) == 0; }, exchange("second", {"60", "3f", "ff", "fe"})},
        {[&second] { return second.clearStatus() == 0; }, exchange("second", {"d0", "ee", "ee"})},
        {[&second] { return second.setParameter(5, 1) == -22; }, exchange("second", {"05"})},
        {[&second] { return second.softStop() == 0; }, exchange("second", {"b0"})}};
  }

  void run(const std::vector<Work>& all, int rounds) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    threads.reserve(all.size());
    for (const Work& work : all) {
      threads.emplace_back([&failures, &work, rounds] {
        for (int i = 0; i < rounds; ++i) {
          failures += work.once() ? 0 : 1;
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(failures, 0);
  }

  wire::Wire wire_;
  Varnel::CLinuxSpiBus bus_;
  std::unique_ptr<Motor<CMotorDriver1ChnPowerSTEP01>> first_;
  std::unique_ptr<Motor<CMotorDriver1ChnL6470>> second_;
};

TEST_F(MotorDriverConcurrency, NothingIsSharedUnlocked) {
  wire_.pause();
  run(works(), 300);
  EXPECT_EQ(wire_.pausedMessages(), 300U * (4 + 4 + 3 + 3 + 4 + 3 + 1 + 1));
  EXPECT_EQ(first_->driver.status().m_Data, 0xEEEE);
  EXPECT_EQ(second_->driver.status().m_Data, 0xEEEE);
}

bool standsAt(const Lines& journal, size_t position, const Lines& lines) {
  return position + lines.size() <= journal.size() &&
         std::equal(lines.begin(), lines.end(),
                    journal.begin() + static_cast<std::ptrdiff_t>(position));
}

TEST_F(MotorDriverConcurrency, NoCommandIsInterleavedWithAnother) {
  constexpr int kRounds = 100;
  const std::vector<Work> all = works();
  run(all, kRounds);
  const Lines journal = wire_.journal();
  std::vector<int> seen(all.size(), 0);
  for (size_t position = 0; position < journal.size();) {
    size_t match = 0;
    while (match < all.size() && !standsAt(journal, position, all[match].journal)) {
      ++match;
    }
    ASSERT_LT(match, all.size()) << "no whole exchange at line " << position << ": "
                                 << journal[position];
    ++seen[match];
    position += all[match].journal.size();
  }
  EXPECT_EQ(seen, std::vector<int>(all.size(), kRounds));
}

}  // namespace
