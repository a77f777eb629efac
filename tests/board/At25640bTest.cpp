// SPDX-License-Identifier: MIT
// The AT25640B driver against the model of the chip: bytes that last.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/board/EepromBoard.h"
#include "tests/vboard/board/Parts.h"
#include "vboard/vboard.h"

namespace {

using boardtest::awaitWritten;
using boardtest::rulesOf;
using boardtest::store;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::At25640b;
using vboard::FloatingMiso;
using vboard::Level;

constexpr unsigned kSelect = 25;
constexpr uint8_t kEnabled = 0x02;
constexpr uint8_t kBusy = 0xFF;

/// One chip on /dev/spidev1.0, selected by line 25.
class EepromBoard : public testing::Test {
 protected:
  explicit EepromBoard(const vboard::SpiBusOptions& options = {.number = 1},
                       uint16_t speedKHz = 1000)
      : spi(board.addSpiBus(options)), speed(speedKHz) {
    board.attach(chip, spi);
    board.connect(chip.pin("CS"), gpio.line(kSelect));
  }

  void SetUp() override { start(); }
  void TearDown() override { bus.close(); }

  void start() {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(bus.setSpiSpeedKHz(speed), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(selector.connect(), 0);
    eeprom.setBus(&bus);
    eeprom.setChipSelector(&selector);
  }

  int status() {
    uint8_t value = 0x5A;
    EXPECT_EQ(eeprom.readStatus(value), 0);
    return value;
  }
  int read(uint16_t address) {
    uint8_t value = 0x5A;
    EXPECT_EQ(eeprom.readByte(address, value), 0);
    return value;
  }
  void fill(uint16_t address, const std::vector<uint8_t>& bytes) {
    chip.setContents(address, bytes);
  }

  vboard::Board board;
  vboard::SpiBus& spi;
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  At25640b& chip = board.add<At25640b>("eeprom");
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector selector{kSelect, Orv::PIN_MODE_INVERT};
  boardtest::Eeprom eeprom;
  uint16_t speed;
};

TEST_F(EepromBoard, AWholeChipIsWrittenAndReadBack) {
  const auto pattern = [](size_t address) {
    return static_cast<uint8_t>(address * 37 + address / 256);
  };
  std::vector<uint8_t> expected(At25640b::kSize);
  for (size_t address = 0; address < At25640b::kSize; ++address) {
    expected[address] = pattern(address);
    ASSERT_EQ(store(eeprom, static_cast<uint16_t>(address), pattern(address)), 0) << address;
  }
  EXPECT_TRUE(chip.contents() == expected);
  EXPECT_EQ(chip.writes(), At25640b::kSize);
  EXPECT_EQ(chip.pageCycles(17), At25640b::kPageSize) << "a cycle per byte";
  for (size_t address = 0; address < At25640b::kSize; ++address) {
    ASSERT_EQ(read(static_cast<uint16_t>(address)), pattern(address)) << address;
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(EepromBoard, StatusFollowsTheLatchAndTheWriteCycle) {
  EXPECT_EQ(status(), 0);
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(status(), kEnabled);
  ASSERT_EQ(eeprom.setWriteEnable(false), 0);
  EXPECT_EQ(status(), 0);
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  ASSERT_EQ(eeprom.writeByte(0x0010, 0xA5), 0);
  EXPECT_EQ(status(), kBusy) << "all ones: the latch can't be told from it";
  board.advance(milliseconds(5));
  EXPECT_EQ(status(), 0) << "the write ended the latch";
  EXPECT_EQ(read(0x0010), 0xA5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(EepromBoard, AByteAtEachEndIsWrittenAlone) {
  fill(0, std::vector<uint8_t>(At25640b::kSize, 0x77));
  ASSERT_EQ(store(eeprom, 0x0000, 0x01), 0);
  ASSERT_EQ(store(eeprom, 0x1FFF, 0x02), 0);
  EXPECT_EQ(read(0x0000), 0x01);
  EXPECT_EQ(read(0x1FFF), 0x02);
  const std::vector<uint8_t> contents = chip.contents();
  EXPECT_EQ(std::count(contents.begin(), contents.end(), 0x77), At25640b::kSize - 2);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(EepromBoard, EachExchangeIsOneSelect) {
  fill(0x0123, {0x42});
  vboard::WireLog log(board);
  log.watch(board.netOf(chip.pin("CS")), "CS");
  ASSERT_EQ(read(0x0123), 0x42);
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 6U) << log.text();
  EXPECT_EQ(lines.front(), "CS low");
  EXPECT_EQ(lines.back(), "CS high");
  for (const vboard::WireLog::Transfer& byte : log.transfers()) {
    EXPECT_EQ(byte.format.mode, 0);
    EXPECT_EQ(byte.format.bitsPerWord, 8);
    EXPECT_EQ(byte.format.speedHz, 1000000U);
    EXPECT_EQ(byte.mosi.size(), 1U);
  }
}

TEST_F(EepromBoard, AWriteWithoutEnableIsSilentlyIgnored) {
  ASSERT_EQ(eeprom.writeByte(0x0010, 0xA5), 0);
  EXPECT_EQ(status(), 0);
  EXPECT_EQ(read(0x0010), 0xFF);
  EXPECT_THAT(rulesOf(board), ElementsAre("eeprom not-enabled"));
}

TEST_F(EepromBoard, OneEnableIsGoodForOneWrite) {
  ASSERT_EQ(store(eeprom, 0x0010, 0x01), 0);
  ASSERT_EQ(eeprom.writeByte(0x0011, 0x02), 0);
  ASSERT_EQ(awaitWritten(eeprom), 0);
  EXPECT_EQ(read(0x0010), 0x01);
  EXPECT_EQ(read(0x0011), 0xFF);
  EXPECT_THAT(rulesOf(board), ElementsAre("eeprom not-enabled"));
}

TEST_F(EepromBoard, BlockProtectionRefusesAndKeepsTheLatch) {
  // The driver can't set it: a programmer did.
  const std::string path = testing::TempDir() + "protected.bin";
  {
    std::ofstream image(path, std::ios::binary);
    image << std::string(At25640b::kSize, '\x11') << '\x04';  // the upper quarter
  }
  ASSERT_EQ(chip.setImage(path), std::nullopt);
  EXPECT_EQ(status(), 0x04);
  ASSERT_EQ(store(eeprom, 0x17FF, 0xA5), 0);
  ASSERT_EQ(store(eeprom, 0x1800, 0xA5), 0);
  EXPECT_EQ(read(0x17FF), 0xA5);
  EXPECT_EQ(read(0x1800), 0x11);
  EXPECT_EQ(status(), 0x04 | kEnabled);
  EXPECT_THAT(rulesOf(board), ElementsAre("eeprom protected"));
  std::filesystem::remove(path);
}

TEST_F(EepromBoard, AddressesBeyondTheChipAreOthersOfIt) {
  fill(0x0005, {0x42});
  EXPECT_EQ(read(0x2005), 0x42);
  ASSERT_EQ(store(eeprom, 0xE006, 0x43), 0);
  EXPECT_EQ(read(0x0006), 0x43);
  EXPECT_THAT(rulesOf(board), ElementsAre("eeprom address-range", "eeprom address-range"));
}

TEST_F(EepromBoard, ContentsSurviveAPowerLossAndTheLatchDoesNot) {
  ASSERT_EQ(store(eeprom, 0x0010, 0xA5), 0);
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  chip.losePower();
  chip.restorePower();
  board.advance(milliseconds(1));
  EXPECT_EQ(status(), 0);
  EXPECT_EQ(read(0x0010), 0xA5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(EepromBoard, AFailedByteEndsTheSelectAndWritesNothing) {
  for (unsigned byte = 1; byte <= 4; ++byte) {
    ASSERT_EQ(eeprom.setWriteEnable(true), 0);
    kernel->failCall(vboard::Call::Message, byte, EIO);
    EXPECT_EQ(eeprom.writeByte(0x0010, 0xA5), -5);
    EXPECT_EQ(gpio.level(kSelect), Level::High) << byte;
    EXPECT_EQ(chip.byteAt(0x0010), 0xFF) << byte;
    EXPECT_FALSE(chip.busy()) << byte;
  }
  // Before the first byte nothing was clocked.
  EXPECT_THAT(rulesOf(board),
              ElementsAre("eeprom short-frame", "eeprom short-frame", "eeprom short-frame"));
  EXPECT_EQ(store(eeprom, 0x0010, 0xA5), 0);
  EXPECT_EQ(read(0x0010), 0xA5);
}

TEST_F(EepromBoard, AFailedReadGivesNothingAndTheNextOneIsWhole) {
  fill(0x0010, {0x42});
  for (unsigned byte = 1; byte <= 4; ++byte) {
    kernel->failCall(vboard::Call::Message, byte, EIO);
    uint8_t value = 0x77;
    EXPECT_EQ(eeprom.readByte(0x0010, value), -5);
    EXPECT_EQ(value, 0x77);
    EXPECT_EQ(gpio.level(kSelect), Level::High) << byte;
    EXPECT_EQ(read(0x0010), 0x42) << byte;
  }
}

TEST_F(EepromBoard, AWriteWhoseReleaseFailsIsCarriedOutAllTheSame) {
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  kernel->failCall(vboard::Call::GpioSet, 2, EIO);
  EXPECT_EQ(eeprom.writeByte(0x0010, 0xA5), -5);
  EXPECT_EQ(gpio.level(kSelect), Level::High) << "released with the second attempt";
  ASSERT_EQ(awaitWritten(eeprom), 0);
  EXPECT_EQ(read(0x0010), 0xA5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST(EepromImage, WhatADriverWroteIsThereInTheNextRun) {
  const std::string path = testing::TempDir() + "kept.bin";
  std::filesystem::remove(path);
  for (const bool firstRun : {true, false}) {
    vboard::Board board;
    auto& spi = board.addSpiBus({.number = 1});
    auto& gpio = board.addGpioChip({.lines = 32});
    auto& chip = board.add<At25640b>("eeprom");
    board.attach(chip, spi);
    board.connect(chip.pin("CS"), gpio.line(kSelect));
    ASSERT_EQ(chip.setImage(path), std::nullopt);
    const vboard::Kernel kernel(board);
    Varnel::CLinuxSpiBus bus;
    Varnel::CGpioPinChipSelector selector(kSelect, Orv::PIN_MODE_INVERT);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(selector.connect(), 0);
    boardtest::Eeprom eeprom;
    eeprom.setBus(&bus);
    eeprom.setChipSelector(&selector);
    uint8_t value = 0;
    ASSERT_EQ(eeprom.readByte(0x1234, value), 0);
    EXPECT_EQ(value, firstRun ? 0xFF : 0xA5);
    ASSERT_EQ(store(eeprom, 0x1234, 0xA5), 0);
    EXPECT_EQ(bus.close(), 0);
    EXPECT_THAT(rulesOf(board), IsEmpty());
  }
  std::filesystem::remove(path);
}

/// A pull-up at MISO: what nobody drives reads as ones.
class PulledUpEeprom : public EepromBoard {
 protected:
  PulledUpEeprom() : EepromBoard({.number = 1, .floatingMiso = FloatingMiso::High}) {}
};

TEST_F(PulledUpEeprom, WhileItWritesTheChipIgnoresEverythingButItsStatus) {
  fill(0x0010, {0x01, 0x02});
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  ASSERT_EQ(eeprom.writeByte(0x0010, 0xA5), 0);
  EXPECT_EQ(read(0x0011), 0xFF) << "the pull-up, not the byte";
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  ASSERT_EQ(eeprom.writeByte(0x0011, 0xA6), 0);
  EXPECT_EQ(status(), kBusy);
  ASSERT_EQ(awaitWritten(eeprom), 0);
  EXPECT_EQ(read(0x0010), 0xA5);
  EXPECT_EQ(read(0x0011), 0x02);
  EXPECT_THAT(rulesOf(board), ElementsAre("eeprom busy", "eeprom busy", "eeprom busy"));
}

TEST_F(PulledUpEeprom, WhatCameInWithTheByteBeforeGoesOutWithTheLast) {
  vboard::WireLog log(board);
  status();
  read(0x0012);
  std::vector<uint32_t> sent;
  for (const vboard::WireLog::Transfer& byte : log.transfers()) {
    sent.push_back(byte.mosi[0]);
  }
  EXPECT_THAT(sent, ElementsAre(0x05, 0xFF, 0x03, 0x00, 0x12, 0xFF));
}

TEST_F(PulledUpEeprom, AMissingChipIsBusyForEver) {
  chip.losePower();
  EXPECT_EQ(status(), kBusy);
  EXPECT_EQ(store(eeprom, 0x0010, 0xA5), -110) << "the application's own time is up";
}

/// A pull-down at MISO.
class PulledDownEeprom : public EepromBoard {
 protected:
  PulledDownEeprom() : EepromBoard({.number = 1, .floatingMiso = FloatingMiso::Low}) {}
};

TEST_F(PulledDownEeprom, WhatCameInWithTheByteBeforeGoesOutWithTheLast) {
  vboard::WireLog log(board);
  status();
  read(0x0012);
  std::vector<uint32_t> sent;
  for (const vboard::WireLog::Transfer& byte : log.transfers()) {
    sent.push_back(byte.mosi[0]);
  }
  EXPECT_THAT(sent, ElementsAre(0x05, 0x00, 0x03, 0x00, 0x12, 0x00));
}

TEST_F(PulledDownEeprom, AMissingChipShowsInTheLatchThatWontSet) {
  chip.losePower();
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(status(), 0);
}

/// The driver's clock is 1 MHz: on a faster bus every byte brings a settling byte along.
class FastEeprom : public EepromBoard {
 protected:
  FastEeprom() : EepromBoard({.number = 1}, 1001) {}
  std::vector<uint32_t> sentBy(const vboard::WireLog& log) {
    std::vector<uint32_t> sent;
    for (const vboard::WireLog::Transfer& byte : log.transfers()) {
      EXPECT_EQ(byte.format.speedHz, 1000000U);
      sent.push_back(byte.mosi[0]);
    }
    return sent;
  }
};

TEST_F(FastEeprom, ASettlingByteComesBeforeEveryByte) {
  fill(0x1F00, {0, 0, 0, 0, 0x42});
  vboard::WireLog log(board);
  read(0x0100);
  const std::vector<uint32_t> sent = sentBy(log);
  ASSERT_EQ(sent.size(), 8U);
  EXPECT_THAT(std::vector<uint32_t>(sent.begin(), sent.end() - 1),
              ElementsAre(0xFF, 0x03, 0xFF, 0x01, 0xFF, 0x00, 0xFF));
}

TEST_F(FastEeprom, StatusAndLatchStillWork) {
  EXPECT_EQ(status(), 0);
  ASSERT_EQ(eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(status(), kEnabled);
  ASSERT_EQ(eeprom.setWriteEnable(false), 0);
  EXPECT_EQ(status(), 0);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(FastEeprom, AWriteGoesToAnotherPageAndOverFourBytes) {
  fill(0, std::vector<uint8_t>(At25640b::kSize, 0x77));
  ASSERT_EQ(store(eeprom, 0x0123, 0x5A), 0);
  EXPECT_EQ(chip.byteAt(0x0123), 0x77);
  // The settling bytes are the address's high byte, and data: FF, the low address byte, FF, value.
  const std::vector<uint8_t> contents = chip.contents();
  EXPECT_THAT(std::vector<uint8_t>(contents.begin() + 0x1F00, contents.begin() + 0x1F06),
              ElementsAre(0x77, 0xFF, 0x23, 0xFF, 0x5A, 0x77));
  EXPECT_EQ(std::count(contents.begin(), contents.end(), 0x77), At25640b::kSize - 4);
  EXPECT_THAT(rulesOf(board), ElementsAre("eeprom address-range"));
}

TEST_F(FastEeprom, ReadingBackSeemsRightThoughAddressesOfAPageAreOne) {
  ASSERT_EQ(store(eeprom, 0x0123, 0x5A), 0);
  EXPECT_EQ(read(0x0123), 0x5A);
  ASSERT_EQ(store(eeprom, 0x0124, 0xA5), 0);
  EXPECT_EQ(read(0x0124), 0xA5);
  EXPECT_EQ(read(0x0123), 0xA5);
  EXPECT_THAT(rulesOf(board), AllOf(testing::SizeIs(5), Each("eeprom address-range")));
}

TEST_F(FastEeprom, SlowedDownTheBusWorks) {
  ASSERT_EQ(bus.setSpiSpeedKHz(1000), 0);
  ASSERT_EQ(store(eeprom, 0x0123, 0x5A), 0);
  EXPECT_EQ(read(0x0123), 0x5A);
  EXPECT_EQ(chip.byteAt(0x0123), 0x5A);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

}  // namespace
