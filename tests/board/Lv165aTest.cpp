// SPDX-License-Identifier: MIT
// The 74LV165A driver against the model of the chip: levels in, bytes out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "vboard/vboard.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using Varnel::CLinuxSpiDevice;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr unsigned kLoad = 23;

/// One chip on /dev/spidev1.0 with its load input straight at line 23.
class Lv165aBoard : public testing::Test {
 protected:
  Lv165aBoard()
      : spi(board.addSpiBus({.number = 1})),
        gpio(board.addGpioChip({.lines = 32})),
        chip(board.add<vboard::Lv165a>("inputs")) {
    board.attach(chip, spi);
    board.connect(chip.pin("SH/LD"), gpio.line(kLoad));
  }

  void start(Orv::ePinMode mode = Orv::PIN_MODE_INVERT) {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    load.configure(kLoad, Orv::OUTPUT_PIN, mode);
    ASSERT_EQ(load.connect(), 0);
    ASSERT_EQ(bus.open(), 0);
    device.setBus(&bus);
    device.setLatchPin(&load);
  }
  void TearDown() override { bus.close(); }

  std::vector<std::string> violations() const {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    return rules;
  }

  vboard::Board board;
  vboard::SpiBus& spi;
  vboard::GpioChip& gpio;
  vboard::Lv165a& chip;
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin load{kLoad, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
  Varnel::CSpiDigIn8Bit_LV165A device;
};

TEST_F(Lv165aBoard, WithTheLoadPinInvertedTheInputsAreRead) {
  start(Orv::PIN_MODE_INVERT);
  for (const int byte : {0xA5, 0x5A, 0x01, 0x80, 0x00, 0xFF}) {
    chip.setInputs(static_cast<uint8_t>(byte));
    EXPECT_EQ(device.readInputs(kDo), byte);
  }
  EXPECT_THAT(violations(), IsEmpty());
}

/// The load input is low during the transfer: the chip doesn't shift, each bit is input H.
TEST_F(Lv165aBoard, WithTheLoadPinNotInvertedEveryBitIsInputH) {
  start(Orv::PIN_MODE_HW);
  chip.setInputs(0xA5);
  EXPECT_EQ(device.readInputs(kDo), 0xFF);
  chip.setInputs(0x5A);
  EXPECT_EQ(device.readInputs(kDo), 0x00);
  EXPECT_THAT(violations(), Contains("clock-while-loading"));
}

TEST_F(Lv165aBoard, TheInputsOfTheLoadAreReadNotThoseAfterIt) {
  start();
  chip.setInputs(0x11);
  EXPECT_EQ(device.readInputs(kDo), 0x11);
  chip.setInputs(0x22);
  EXPECT_EQ(device.readInputs(kNo), 0x11);
}

TEST_F(Lv165aBoard, AFailingEndOfTheLoadPulseReadsInputHOnly) {
  start();
  chip.setInputs(0xA5);
  kernel->failCall(vboard::Call::GpioSet, 3, EIO);
  EXPECT_EQ(device.readInputs(kDo), 0xFF) << "the load input stayed low, which nobody reports";
}

TEST_F(Lv165aBoard, AFailedTransferIsRepeatedWithAFreshLoad) {
  start();
  chip.setInputs(0x33);
  kernel->failCall(vboard::Call::Message, 1, EIO);
  EXPECT_EQ(device.readInputs(kDo), -5);
  EXPECT_EQ(device.readInputs(kDo), 0x33);
}

TEST_F(Lv165aBoard, AChainOfTwoIsReadTheChipAtMisoFirst) {
  auto& far = board.add<vboard::Lv165a>("far");
  board.connect(far.clockPin(), spi.sclk());
  board.connect(far.pin("SH/LD"), gpio.line(kLoad));
  board.connect(far.pin("QH"), chip.pin("SER"));
  start();
  Varnel::CSpiDigIn8Bit_LV165A farDevice;
  farDevice.setBus(&bus);
  device.setDeviceChain(std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&farDevice, &device}));
  chip.setInputs(0x12);
  far.setInputs(0x34);
  EXPECT_EQ(device.readInputs(kDo), 0x12);
  EXPECT_EQ(farDevice.readInputs(kNo), 0x34);
}

TEST_F(Lv165aBoard, OutputsOfA74HC595AreReadBack) {
  auto& outputs = board.add<vboard::Hc595>("outputs");
  board.attach(outputs, spi);
  board.connect(outputs.pin("RCLK"), gpio.line(22));
  for (char letter = 'A'; letter <= 'H'; ++letter) {
    board.connect(outputs.pin(std::string("Q") + letter), chip.pin(std::string(1, letter)));
  }
  start();
  Orv::CLinuxIoPin latch(22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  ASSERT_EQ(latch.connect(), 0);
  Varnel::CSpiDigOut8Bit_HC595 writer;
  writer.setBus(&bus);
  writer.setLatchPin(&latch);
  for (const int byte : {0x00, 0x01, 0x80, 0xC3, 0xFF, 0x42}) {
    ASSERT_EQ(writer.writeOutputs(static_cast<uint8_t>(byte), kDo), 0);
    EXPECT_EQ(device.readInputs(kDo), byte);
  }
  EXPECT_THAT(violations(), IsEmpty());
}

}  // namespace
