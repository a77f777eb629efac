// SPDX-License-Identifier: MIT
// The programs that docs/virtual-board.md shows, compiled and run.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "vboard/vboard.h"

namespace {

using namespace std::chrono_literals;
using testing::IsEmpty;

class Thermometer : public vboard::SpiChip {
 public:
  explicit Thermometer(std::string name)
      : SpiChip("thermometer", std::move(name)),
        select_(addInput("CS", vboard::Level::High)),
        clock_(addInput("SCK", vboard::Level::Low)),
        out_(addOutput("SDO")) {
    limits_.modes = 0b0001;   // mode 0 only
    limits_.maxHz = 5000000;  // data sheet: 5 MHz
  }

  // Bench face: what it is exposed to.
  void setTemperature(int degrees) {
    const auto held = lock();
    temperature_ = degrees;
  }

  // Bus face: pins.
  vboard::Pin& clockPin() override { return clock_; }
  vboard::Pin* dataOutPin() override { return &out_; }
  bool listening() const override { return !select_.high(); }
  const vboard::SpiLimits& limits() const override { return limits_; }
  void pinChanged(vboard::Pin& pin, vboard::Level level) override {
    if (&pin == &select_ && level == vboard::Level::Low) {
      left_ = 8;
      showNextBit();
    } else if (&pin == &select_) {
      if (left_ > 0) {
        violate("short-frame", std::to_string(8 - left_) + " clocks of 8");
      }
      out_.drive(vboard::Drive::Floating);
    } else if (listening() && level == vboard::Level::Low && left_ > 0) {
      --left_;
      showNextBit();
    }
  }

 private:
  void showNextBit() {
    const bool bit = left_ > 0 && ((temperature_ >> (left_ - 1)) & 1) != 0;
    out_.drive(vboard::driveOf(vboard::levelOf(bit)));
  }

  vboard::Pin& select_;
  vboard::Pin& clock_;
  vboard::Pin& out_;
  vboard::SpiLimits limits_;
  int temperature_ = 20;
  int left_ = 0;
};

TEST(Guide, AProgramReadsAChipOnTheBoard) {
  ASSERT_TRUE(vboard::interposed());

  vboard::Board board;
  auto& spi = board.addSpiBus({.number = 1});
  auto& sensor = board.add<Thermometer>("sensor");
  board.attach(sensor, spi);
  board.connect(spi.select(0), sensor.pin("CS"));
  vboard::Kernel kernel(board);

  sensor.setTemperature(25);
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  const uint32_t speed = 1000000;
  ASSERT_EQ(ioctl(descriptor, SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
  uint8_t degrees = 0;
  ASSERT_EQ(read(descriptor, &degrees, 1), 1);
  EXPECT_EQ(degrees, 25);
  close(descriptor);

  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST(Guide, TimeIsTheBoards) {
  vboard::Board board;
  vboard::Kernel kernel(board);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(10h);
  EXPECT_EQ(std::chrono::steady_clock::now() - start, 10h);
}

TEST(Guide, ACallFailsOnceAsOrdered) {
  vboard::Board board;
  board.addSpiBus({.number = 1});
  vboard::Kernel kernel(board);
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  uint8_t byte = 0;

  kernel.failCall(vboard::Call::Read, 2, EIO);
  EXPECT_EQ(read(descriptor, &byte, 1), 1);
  EXPECT_EQ(read(descriptor, &byte, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(read(descriptor, &byte, 1), 1);

  kernel.removeNode("/dev/spidev1.0");
  EXPECT_EQ(read(descriptor, &byte, 1), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  close(descriptor);
}

}  // namespace
