// SPDX-License-Identifier: MIT
#ifndef TESTS_BOARD_STEPPERBOARD_H
#define TESTS_BOARD_STEPPERBOARD_H

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"
#include "vboard/vboard.h"

namespace boardtest {

/// A stepper driver on a bus of 1 MHz against the model of its chip, with a motor on its cable.
/// The select is line 25, BUSY line 23, FLAG line 24.
template <typename Driver, typename Chip>
class StepperBoard : public testing::Test {
 protected:
  StepperBoard() {
    board.attach(chip, spi);
    board.connect(chip.pin("CS"), gpio.line(25));
    board.connect(chip.pin("BUSY"), gpio.line(23));
    board.connect(chip.pin("FLAG"), gpio.line(24));
    board.connect(motor.pin("PHASES"), chip.pin("OUT"));
    board.connect(motor.pin("LIMIT"), chip.pin("SW"));
    for (const int line : {23, 24, 25}) {
      board.netOf(gpio.line(line)).setPull(vboard::Pull::Up);
    }
  }

  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(select.connect(), 0);
    ASSERT_EQ(bus.setSpiSpeedKHz(1000), 0);
    ASSERT_EQ(bus.open(), 0);
    driver.setBus(&bus);
    driver.setChipSelector(&select);
    ASSERT_EQ(driver.clearStatus(), 0);
  }
  void TearDown() override { bus.close(); }

  void wait(std::chrono::milliseconds time) { board.advance(time); }
  /// Until the motion is over, as the BUSY pin tells.
  void finish() {
    for (int tries = 0; tries < 20000 && gpio.level(23) == vboard::Level::Low; ++tries) {
      board.advance(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(gpio.level(23), vboard::Level::High);
  }
  std::vector<std::string> violations() const {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    return rules;
  }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  Chip& chip = board.add<Chip>("driver");
  vboard::StepperMotor& motor = board.add<vboard::StepperMotor>("motor");
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector select{25, Orv::PIN_MODE_INVERT};
  Driver driver;
};

}  // namespace boardtest

#endif
