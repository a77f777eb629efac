// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <chrono>

#include "tests/vboard/kernel/SpiBench.h"

using bench::answer;
using bench::Journal;
using bench::Lines;
using bench::message;
using bench::SpiBench;
using bench::transferOf;
using vboard::Call;

namespace {

class KernelFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    descriptor_ = open("/dev/spidev1.0", O_RDWR);
    ASSERT_GE(descriptor_, 0);
  }
  void TearDown() override { close(descriptor_); }

  long control(unsigned long request) {
    uint32_t value = 8;
    return answer(ioctl(descriptor_, request, &value));
  }

  SpiBench bench_;
  int descriptor_ = -1;
};

TEST_F(KernelFaults, TheNthCallFailsOnce) {
  bench_.kernel.failCall(Call::Message, 3, EIO);
  const spi_ioc_transfer transfer = transferOf(nullptr, nullptr, 1);
  EXPECT_EQ(message(descriptor_, transfer), 1);
  EXPECT_EQ(message(descriptor_, transfer), 1);
  EXPECT_EQ(message(descriptor_, transfer), -EIO);
  EXPECT_EQ(message(descriptor_, transfer), 1);
}

TEST_F(KernelFaults, AFailedMessageLeavesTheWiresAlone) {
  Journal journal(bench_.bus);
  bench_.kernel.failCall(Call::Message, 1, EIO);
  EXPECT_EQ(message(descriptor_, transferOf(nullptr, nullptr, 1)), -EIO);
  EXPECT_EQ(journal.lines, Lines{});
  EXPECT_EQ(journal.calls, (Lines{"SPI_IOC_MESSAGE(1) /dev/spidev1.0 = -5"}));
}

TEST_F(KernelFaults, EachKindOfCallFailsOnItsOwn) {
  const std::vector<std::pair<Call, std::vector<unsigned long>>> kinds = {
      {Call::WriteMode, {SPI_IOC_WR_MODE, SPI_IOC_WR_MODE32}},
      {Call::ReadMode, {SPI_IOC_RD_MODE, SPI_IOC_RD_MODE32}},
      {Call::WriteLsbFirst, {SPI_IOC_WR_LSB_FIRST}},
      {Call::ReadLsbFirst, {SPI_IOC_RD_LSB_FIRST}},
      {Call::WriteBits, {SPI_IOC_WR_BITS_PER_WORD}},
      {Call::ReadBits, {SPI_IOC_RD_BITS_PER_WORD}},
      {Call::WriteSpeed, {SPI_IOC_WR_MAX_SPEED_HZ}},
      {Call::ReadSpeed, {SPI_IOC_RD_MAX_SPEED_HZ}},
  };
  for (const auto& [failing, unused] : kinds) {
    bench_.kernel.failCallsFromNow(failing, ENODEV);
    for (const auto& [kind, requests] : kinds) {
      for (const unsigned long request : requests) {
        EXPECT_EQ(control(request), kind == failing ? -ENODEV : 0);
      }
    }
    bench_.kernel.clearFaults();
  }
}

TEST_F(KernelFaults, AFailedSettingKeepsTheOldOne) {
  bench_.kernel.failCall(Call::WriteMode, 1, EIO);
  bench::set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_3);
  EXPECT_EQ(bench_.kernel.spiSettings("/dev/spidev1.0").mode, 0U);
}

TEST_F(KernelFaults, OpenReadAndWriteFail) {
  bench_.kernel.failCall(Call::Open, 1, EBUSY);
  bench_.kernel.failCall(Call::Read, 1, EIO);
  bench_.kernel.failCall(Call::Write, 2, EINTR);
  uint8_t byte = 0;
  EXPECT_EQ(answer(open("/dev/spidev1.0", O_RDWR)), -EBUSY);
  EXPECT_EQ(answer(read(descriptor_, &byte, 1)), -EIO);
  EXPECT_EQ(answer(read(descriptor_, &byte, 1)), 1);
  EXPECT_EQ(answer(write(descriptor_, &byte, 1)), 1);
  EXPECT_EQ(answer(write(descriptor_, &byte, 1)), -EINTR);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
}

TEST_F(KernelFaults, AFailedCloseClosesAllTheSame) {
  bench_.kernel.failCall(Call::Close, 1, EIO);
  EXPECT_EQ(answer(close(descriptor_)), -EIO);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 0);
  EXPECT_EQ(answer(close(descriptor_)), -EBADF);
}

TEST_F(KernelFaults, AFaultMayBeMeantForOneNodeOnly) {
  const int other = open("/dev/spidev1.1", O_RDWR);
  bench_.kernel.failCallsFromNow(Call::Message, EIO, "/dev/spidev1.1");
  EXPECT_EQ(message(descriptor_, transferOf(nullptr, nullptr, 1)), 1);
  EXPECT_EQ(message(other, transferOf(nullptr, nullptr, 1)), -EIO);
  EXPECT_EQ(message(other, transferOf(nullptr, nullptr, 1)), -EIO);
  bench_.kernel.clearFaults();
  EXPECT_EQ(message(other, transferOf(nullptr, nullptr, 1)), 1);
  close(other);
}

TEST_F(KernelFaults, SeveralFaultsCountSideBySide) {
  bench_.kernel.failCall(Call::Message, 1, EIO);
  bench_.kernel.failCall(Call::Message, 2, EBUSY);
  const spi_ioc_transfer transfer = transferOf(nullptr, nullptr, 1);
  EXPECT_EQ(message(descriptor_, transfer), -EIO);
  EXPECT_EQ(message(descriptor_, transfer), -EBUSY);
  EXPECT_EQ(message(descriptor_, transfer), 1);
}

TEST_F(KernelFaults, ANodeThatIsNotThereIsTheTestsMistake) {
  EXPECT_THROW(bench_.kernel.removeNode("/dev/spidev9.0"), std::invalid_argument);
  EXPECT_THROW(bench_.kernel.denyNode("/dev/null", true), std::invalid_argument);
}

TEST(RealTimeKernel, ATransferTakesAsLongAsItsWires) {
  using Clock = std::chrono::steady_clock;
  vboard::Board board({.callCost = std::chrono::seconds(5)});
  board.addSpiBus({.number = 1});
  const vboard::Kernel kernel(board, {.realTime = true});
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  spi_ioc_transfer transfer = transferOf(nullptr, nullptr, 10);
  transfer.speed_hz = 4000;  // 20 ms
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(message(descriptor, transfer), 10);
  const Clock::duration took = Clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(20));
  close(descriptor);
}

TEST(RealTimeKernel, WhatIsDueOnTheBoardHappensWithoutCalls) {
  vboard::Board board;
  board.addSpiBus({.number = 1});
  const vboard::Kernel kernel(board, {.realTime = true});
  bool happened = false;
  {
    const std::lock_guard lock(board.mutex());
    board.clock().after(std::chrono::milliseconds(2), [&happened] { happened = true; });
  }
  for (int i = 0; i < 5000; ++i) {
    usleep(1000);
    const std::lock_guard lock(board.mutex());
    if (happened) {
      break;
    }
  }
  const std::lock_guard lock(board.mutex());
  EXPECT_TRUE(happened);
}

}  // namespace
