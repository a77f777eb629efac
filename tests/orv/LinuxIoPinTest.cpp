// SPDX-License-Identifier: MIT
// Pins on the GPIO chips of the virtual board.
#include "orv/LinuxIoPin.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "orv/PinMap.h"
#include "tests/orv/AllocationFaults.h"
#include "tests/orv/CallFaults.h"
#include "vboard/board/Board.h"
#include "vboard/kernel/Kernel.h"

namespace {

using Orv::CLinuxIoPin;
using Orv::HIGH;
using Orv::INPUT_PIN;
using Orv::LOW;
using Orv::OUTPUT_PIN;
using Orv::PIN_MODE_HW;
using Orv::PIN_MODE_INVERT;
using vboard::Call;
using vboard::Level;
using vboard::Pull;

static_assert(sizeof(CLinuxIoPin) == sizeof(std::shared_ptr<int>));
static_assert(!std::is_polymorphic_v<CLinuxIoPin>);
static_assert(std::is_nothrow_move_constructible_v<CLinuxIoPin>);
static_assert(std::is_nothrow_move_assignable_v<CLinuxIoPin>);

constexpr const char* kChip = "/dev/gpiochip0";

/// One chip of 32 lines; line 30 is held by the kernel.
class LinuxIoPin : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(vboard::interposed()); }
  void TearDown() override { CallFaults::clear(); }

  /// What an electrically low or high wire at a line looks like to it.
  void pull(int line, Pull direction) { board.netOf(gpio.line(line)).setPull(direction); }
  Level level(int line) { return gpio.level(line); }
  /// What the kernel tells about a line.
  static gpioline_info lineInfo(unsigned int line) {
    gpioline_info info{};
    info.line_offset = line;
    const int fd = open(kChip, O_RDWR);
    EXPECT_EQ(ioctl(fd, GPIO_GET_LINEINFO_IOCTL, &info), 0);
    close(fd);
    return info;
  }
  static bool isTaken(unsigned int line) {
    return (lineInfo(line).flags & GPIOLINE_FLAG_KERNEL) != 0;
  }

  vboard::Board board{{.callCost = {}, .seed = 1}};
  vboard::GpioChip& gpio = board.addGpioChip(
      {.label = "test", .lines = 32, .lineNames = {}, .reserved = {{30, "kernel"}}});
  vboard::Kernel kernel{board};
};

TEST_F(LinuxIoPin, ConstructingCopyingAndConfiguringTouchNoHardware) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  CLinuxIoPin copy(pin);
  copy.configure(6, OUTPUT_PIN, PIN_MODE_INVERT);
  pin = copy;
  EXPECT_EQ(kernel.openDescriptors(), 0);
  EXPECT_FALSE(gpio.isOutput(5));
  EXPECT_FALSE(gpio.isOutput(6));
}

TEST_F(LinuxIoPin, ConnectingTakesTheLineUnderTheNameVarnel) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_TRUE(isTaken(5));
  EXPECT_FALSE(isTaken(4));
  EXPECT_STREQ(lineInfo(5).consumer, "varnel");
}

TEST_F(LinuxIoPin, AnOutputStartsLowAndFollowsItsWrites) {
  pull(5, Pull::Up);
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_TRUE(gpio.isOutput(5));
  EXPECT_EQ(level(5), Level::Low);
  EXPECT_EQ(pin.write(HIGH), 0);
  EXPECT_EQ(level(5), Level::High);
  EXPECT_EQ(pin.write(HIGH), 0);
  EXPECT_EQ(level(5), Level::High);
  EXPECT_EQ(pin.write(LOW), 0);
  EXPECT_EQ(level(5), Level::Low);
}

TEST_F(LinuxIoPin, AnInvertedOutputStartsElectricallyHigh) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_INVERT);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_EQ(level(5), Level::High);
  EXPECT_EQ(pin.write(HIGH), 0);
  EXPECT_EQ(level(5), Level::Low);
  EXPECT_EQ(pin.write(LOW), 0);
  EXPECT_EQ(level(5), Level::High);
}

TEST_F(LinuxIoPin, AnInputReadsItsWire) {
  CLinuxIoPin pin(7, INPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_FALSE(gpio.isOutput(7));
  pull(7, Pull::Up);
  EXPECT_EQ(pin.read(), 1);
  pull(7, Pull::Down);
  EXPECT_EQ(pin.read(), 0);
}

TEST_F(LinuxIoPin, AnInvertedInputReadsTheOpposite) {
  CLinuxIoPin pin(7, INPUT_PIN, PIN_MODE_INVERT);
  ASSERT_EQ(pin.connect(), 0);
  pull(7, Pull::Up);
  EXPECT_EQ(pin.read(), 0);
  pull(7, Pull::Down);
  EXPECT_EQ(pin.read(), 1);
}

TEST_F(LinuxIoPin, AnOutputReadsTheLevelItHas) {
  CLinuxIoPin pin(7, OUTPUT_PIN, PIN_MODE_INVERT);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_EQ(pin.read(), 0);
  ASSERT_EQ(pin.write(HIGH), 0);
  EXPECT_EQ(pin.read(), 1);
}

TEST_F(LinuxIoPin, WritingAnInputIsTheWrongDirection) {
  CLinuxIoPin pin(7, INPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_EQ(pin.write(HIGH), -1);
  EXPECT_FALSE(gpio.isOutput(7));
}

TEST_F(LinuxIoPin, AnUnconnectedPinRefusesToWorkAndReadsNonzero) {
  CLinuxIoPin output(5, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(output.write(HIGH), -9);
  EXPECT_EQ(output.read(), -9);
  CLinuxIoPin input(5, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(input.write(HIGH), -9);
  EXPECT_EQ(input.read(), -9);
}

TEST_F(LinuxIoPin, AMovedFromPinIsSafeAndWorksAgainOnceConfigured) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  CLinuxIoPin taken(std::move(pin));
  EXPECT_EQ(taken.write(HIGH), 0);
  // NOLINTBEGIN(bugprone-use-after-move)
  EXPECT_EQ(pin.write(LOW), -9);
  EXPECT_EQ(pin.read(), -9);
  EXPECT_EQ(pin.connect(), -22);
  CLinuxIoPin copy(pin);
  EXPECT_EQ(copy.connect(), -22);
  pin.configure(6, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_EQ(pin.write(HIGH), 0);
  // NOLINTEND(bugprone-use-after-move)
  EXPECT_EQ(level(5), Level::High);
  EXPECT_EQ(level(6), Level::High);
  pin = std::move(taken);
  EXPECT_FALSE(isTaken(6));
  EXPECT_EQ(pin.write(LOW), 0);
  EXPECT_EQ(level(5), Level::Low);
}

TEST_F(LinuxIoPin, CopiesShareOneLine) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  CLinuxIoPin early(pin);
  ASSERT_EQ(pin.connect(), 0);
  CLinuxIoPin late(9, INPUT_PIN, PIN_MODE_HW);
  late = pin;
  EXPECT_EQ(early.write(HIGH), 0);
  EXPECT_EQ(level(5), Level::High);
  EXPECT_EQ(late.write(LOW), 0);
  EXPECT_EQ(level(5), Level::Low);
  EXPECT_GT(kernel.openDescriptors(), 0);
}

TEST_F(LinuxIoPin, TheLastCopyGivesTheLineBack) {
  auto first = std::make_unique<CLinuxIoPin>(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(first->connect(), 0);
  auto second = std::make_unique<CLinuxIoPin>(*first);
  first.reset();
  EXPECT_TRUE(isTaken(5));
  EXPECT_EQ(second->write(HIGH), 0);
  second.reset();
  EXPECT_FALSE(isTaken(5));
  EXPECT_EQ(kernel.openDescriptors(), 0);
}

TEST_F(LinuxIoPin, ConfiguringDetachesFromTheCopies) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  CLinuxIoPin copy(pin);
  pin.configure(6, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.write(HIGH), -9);
  EXPECT_EQ(copy.write(HIGH), 0);
  EXPECT_EQ(level(5), Level::High);
  ASSERT_EQ(pin.connect(), 0);
  EXPECT_EQ(pin.write(HIGH), 0);
  EXPECT_EQ(level(6), Level::High);
}

TEST_F(LinuxIoPin, ConfiguringTheOnlyCopyGivesTheLineBack) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  pin.configure(5, INPUT_PIN, PIN_MODE_HW);
  EXPECT_FALSE(isTaken(5));
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_FALSE(gpio.isOutput(5));
}

TEST_F(LinuxIoPin, ConnectingOnceMoreKeepsLineAndLevel) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  ASSERT_EQ(pin.write(HIGH), 0);
  // A request would fail; none is made.
  kernel.failCallsFromNow(Call::GpioRequest, EIO);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_EQ(level(5), Level::High);
  CLinuxIoPin copy(pin);
  EXPECT_EQ(copy.connect(), 0);
  EXPECT_EQ(level(5), Level::High);
}

TEST_F(LinuxIoPin, AFailedWriteKeepsThePinConnectedAndConnectingRenewsTheLine) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  ASSERT_EQ(pin.write(HIGH), 0);
  kernel.failCall(Call::GpioSet, 1, EIO);
  EXPECT_EQ(pin.write(LOW), -5);
  EXPECT_EQ(level(5), Level::High);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_EQ(level(5), Level::Low);
  // Once is enough.
  kernel.failCallsFromNow(Call::GpioRequest, EIO);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_EQ(pin.write(HIGH), 0);
}

TEST_F(LinuxIoPin, AWriteThatWorksAgainForgetsTheFailure) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  kernel.failCall(Call::GpioSet, 1, EIO);
  EXPECT_EQ(pin.write(HIGH), -5);
  EXPECT_EQ(pin.write(HIGH), 0);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_EQ(level(5), Level::High);
}

TEST_F(LinuxIoPin, AFailedReadIsNegativeSoItNeverLooksLow) {
  CLinuxIoPin pin(7, INPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  pull(7, Pull::Down);
  kernel.failCall(Call::GpioGet, 1, EIO);
  EXPECT_EQ(pin.read(), -5);
  EXPECT_EQ(pin.read(), 0);
}

TEST_F(LinuxIoPin, ARenewalThatFailsLeavesThePinUnconnected) {
  CLinuxIoPin pin(7, INPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  kernel.failCall(Call::GpioGet, 1, EIO);
  ASSERT_EQ(pin.read(), -5);
  kernel.failCall(Call::GpioRequest, 1, EIO);
  EXPECT_EQ(pin.connect(), -5);
  EXPECT_EQ(pin.read(), -9);
  EXPECT_EQ(kernel.openDescriptors(), 0);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_GE(pin.read(), 0);
}

TEST_F(LinuxIoPin, ALineInUseIsBusy) {
  CLinuxIoPin held(30, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(held.connect(), -16);
  CLinuxIoPin first(5, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(first.connect(), 0);
  CLinuxIoPin second(5, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(second.connect(), -16);
  EXPECT_EQ(second.write(HIGH), -9);
  first.configure(6, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(second.connect(), 0);
}

TEST_F(LinuxIoPin, APinBeyondTheLastLineIsUnknown) {
  CLinuxIoPin last(31, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(last.connect(), 0);
  CLinuxIoPin beyond(32, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(beyond.connect(), -22);
  CLinuxIoPin far(0xffffffff, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(far.connect(), -22);
}

TEST_F(LinuxIoPin, WithoutPermissionConnectingSaysSo) {
  kernel.denyNode(kChip, true);
  CLinuxIoPin pin(5, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), -13);
  kernel.denyNode(kChip, false);
  EXPECT_EQ(pin.connect(), 0);
}

TEST_F(LinuxIoPin, WithoutPermissionToRequestIsNotAWrongDirection) {
  kernel.failCall(Call::GpioRequest, 1, EPERM);
  CLinuxIoPin pin(5, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), -13);
}

TEST_F(LinuxIoPin, AChipThatVanishesWhileItIsOpenedIsMissing) {
  for (const int errorNumber : {ENOENT, ENXIO, ENODEV}) {
    kernel.failCall(Call::Open, 1, errorNumber, kChip);
    CLinuxIoPin pin(5, INPUT_PIN, PIN_MODE_HW);
    EXPECT_EQ(pin.connect(), -19) << errorNumber;
  }
}

TEST_F(LinuxIoPin, OtherFailuresKeepTheirNumbers) {
  CLinuxIoPin pin(5, INPUT_PIN, PIN_MODE_HW);
  kernel.failCall(Call::Open, 1, EMFILE, kChip);
  EXPECT_EQ(pin.connect(), -24);
  kernel.failCall(Call::GpioRequest, 1, EIO);
  EXPECT_EQ(pin.connect(), -5);
  CallFaults::failChipInfo(1, EIO);
  EXPECT_EQ(pin.connect(), -5);
  CallFaults::failOpendir(1, EMFILE);
  EXPECT_EQ(pin.connect(), -24);
  EXPECT_EQ(kernel.openDescriptors(), 0);
  EXPECT_EQ(pin.connect(), 0);
}

TEST_F(LinuxIoPin, AFailedConnectLeavesNothingOpen) {
  kernel.failCall(Call::GpioRequest, 1, EBUSY);
  CLinuxIoPin pin(5, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), -16);
  EXPECT_EQ(kernel.openDescriptors(), 0);
  EXPECT_EQ(pin.read(), -9);
}

TEST_F(LinuxIoPin, WithoutMemoryAPinCanBeMadeAndSaysSo) {
  const auto make = [] {
    const AllocationFault fault(1);
    CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
    EXPECT_TRUE(fault.hit());
    return pin;
  };
  CLinuxIoPin pin = make();
  CLinuxIoPin copy(pin);
  EXPECT_EQ(pin.connect(), -12);
  EXPECT_EQ(pin.write(HIGH), -12);
  EXPECT_EQ(copy.read(), -12);
  pin.configure(5, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), 0);
  {
    const AllocationFault fault(1);
    pin.configure(6, OUTPUT_PIN, PIN_MODE_HW);
    EXPECT_TRUE(fault.hit());
  }
  EXPECT_EQ(pin.connect(), -12);
  EXPECT_FALSE(isTaken(5));
}

TEST_F(LinuxIoPin, RunningOutOfMemoryFailsToConnectAndMayBeRepeated) {
  Orv::CPinMap map;
  ASSERT_EQ(map.addLine(5, kChip, 5), 0);  // by path: nothing is searched, so the first one is ours
  Orv::CPinMap::install(map);
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  {
    const AllocationFault fault(1);
    EXPECT_EQ(pin.connect(), -12);
    EXPECT_TRUE(fault.hit());
  }
  EXPECT_EQ(kernel.openDescriptors(), 0);
  EXPECT_EQ(pin.connect(), 0);
  Orv::CPinMap::uninstall();
}

TEST_F(LinuxIoPin, CopiesWorkInSeveralThreads) {
  CLinuxIoPin pin(5, OUTPUT_PIN, PIN_MODE_HW);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([pin]() mutable {
      EXPECT_EQ(pin.connect(), 0);
      for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(pin.write(round % 2 == 0 ? HIGH : LOW), 0);
        EXPECT_GE(pin.read(), 0);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(level(5), Level::Low);
}

TEST(LinuxIoPinWithoutChips, ThereIsNoGpioDevice) {
  vboard::Board board;
  const vboard::Kernel kernel(board);
  CLinuxIoPin pin(0, INPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), -19);
}

}  // namespace
