// SPDX-License-Identifier: MIT
// Two memories on one bus: callers that hold the bus around each operation keep their exchanges
// whole; nothing else does.
#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/varnel/chips/EepromRig.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Selector.h"
#include "tests/wire/Wire.h"

namespace {

/// A second memory on the rig's bus.
struct SecondMemory {
  wire::Selector selector{"other"};
  OpenEeprom eeprom;

  explicit SecondMemory(EepromRig& rig) {
    eeprom.setBus(&rig.bus);
    eeprom.setChipSelector(&selector);
    rig.wire.name(&eeprom.d_ptr->SPI_TxBuffer, 1, "out");
    rig.wire.name(&eeprom.d_ptr->SPI_RxBuffer, 1, "in");
  }
};

/// The journal's exchanges: from a select to the release.
std::vector<wire::Lines> exchangesOf(const wire::Lines& journal) {
  std::vector<wire::Lines> exchanges;
  for (const std::string& line : journal) {
    if (exchanges.empty() || exchanges.back().back().find("false)") != std::string::npos) {
      exchanges.emplace_back();
    }
    exchanges.back().push_back(line);
  }
  return exchanges;
}

wire::Lines writing(const std::string& chip, const std::string& value) {
  return wire::lines("select(" + chip + ", true) = 0", eepromByte("02"), eepromByte("12"),
                     eepromByte("34"), eepromByte(value), "select(" + chip + ", false) = 0");
}

TEST(At25640bConcurrency, CallersThatHoldTheBusKeepTheirExchangesWhole) {
  constexpr int kRounds = 200;
  EepromRig rig;
  SecondMemory other(rig);
  const auto writeOften = [&rig](OpenEeprom& eeprom, uint8_t value) {
    for (int i = 0; i < kRounds; ++i) {
      const std::lock_guard<std::recursive_mutex> lock(rig.bus.transferMutex());
      EXPECT_EQ(eeprom.writeByte(0x1234, value), 0);
    }
  };
  std::thread second([&] { writeOften(other.eeprom, 0xBB); });
  writeOften(rig.eeprom, 0xAA);
  second.join();
  const std::vector<wire::Lines> exchanges = exchangesOf(rig.wire.journal());
  EXPECT_EQ(exchanges.size(), 2U * kRounds);
  int firstOnes = 0;
  for (const wire::Lines& exchange : exchanges) {
    const bool first = exchange == writing("chip", "aa");
    firstOnes += first ? 1 : 0;
    EXPECT_TRUE(first || exchange == writing("other", "bb")) << exchange.front();
  }
  EXPECT_EQ(firstOnes, kRounds);
}

TEST(At25640bConcurrency, WithoutTheCallersLockAnotherExchangeGetsBetweenTheBytes) {
  EepromRig rig;
  SecondMemory other(rig);
  int calls = 0;
  rig.wire.atEachCall([&] {
    // Between the two bytes of the address.
    if (++calls == 4) {
      std::thread([&other] { EXPECT_EQ(other.eeprom.setWriteEnable(true), 0); }).join();
    }
  });
  ASSERT_TRUE(wire::isFree(rig.mutex()));
  EXPECT_EQ(rig.eeprom.writeByte(0x1234, 0xAA), 0);
  EXPECT_EQ(rig.wire.journal(),
            wire::lines("select(chip, true) = 0", eepromByte("02"), eepromByte("12"),
                        "select(other, true) = 0", eepromByte("06"), "select(other, false) = 0",
                        eepromByte("34"), eepromByte("aa"), "select(chip, false) = 0"));
}

}  // namespace
