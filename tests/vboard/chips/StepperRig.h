// SPDX-License-Identifier: MIT
#ifndef TESTS_VBOARD_CHIPS_STEPPERRIG_H
#define TESTS_VBOARD_CHIPS_STEPPERRIG_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "vboard/vboard.h"

namespace boardtest {

/// A stepper controller on a bus's own select, with its pins in hands and a motor on its cable.
template <typename Chip>
struct StepperRig {
  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  Chip& chip = board.add<Chip>("drv");
  vboard::StepperMotor& motor = board.add<vboard::StepperMotor>("motor");
  Hand& standby = board.add<Hand>("standby");
  Hand& limit = board.add<Hand>("switch");
  Hand& stepClock = board.add<Hand>("clock");
  vboard::SpiFormat format{.mode = 3, .bitsPerWord = 8, .speedHz = 1000000};

  StepperRig() {
    board.attach(chip, spi);
    board.connect(spi.select(0), chip.pin("CS"));
    board.connect(standby.p(), chip.pin("STBY"));
    board.connect(limit.p(), chip.pin("SW"));
    board.connect(stepClock.p(), chip.pin("STCK"));
    board.connect(motor.pin("PHASES"), chip.pin("OUT"));
    board.netOf(chip.pin("BUSY")).setPull(vboard::Pull::Up);
    board.netOf(chip.pin("FLAG")).setPull(vboard::Pull::Up);
    board.powerUp();
  }

  /// Each byte in a select of its own, 1 µs apart; what came back.
  std::vector<uint32_t> send(const std::vector<uint32_t>& bytes) {
    std::vector<uint32_t> answers;
    for (const uint32_t byte : bytes) {
      answers.push_back(frame({byte}).front());
    }
    return answers;
  }
  /// Several bytes in one select.
  std::vector<uint32_t> frame(const std::vector<uint32_t>& bytes) {
    const std::lock_guard guard(board.mutex());
    std::vector<uint32_t> answers(bytes.size());
    board.clock().advance(std::chrono::microseconds(1));
    spi.setIdle(format.mode);
    spi.driveSelect(0, vboard::Level::Low);
    board.clock().advance(std::chrono::microseconds(1));
    spi.transfer(0, format, bytes, answers);
    spi.driveSelect(0, vboard::Level::High);
    return answers;
  }
  /// GetParam.
  uint32_t get(uint8_t address, int bytes) {
    std::vector<uint32_t> request(static_cast<size_t>(bytes) + 1, 0);
    request[0] = 0x20U | address;
    uint32_t value = 0;
    for (const uint32_t byte : send(request)) {
      value = (value << 8U) | byte;
    }
    return value;
  }
  /// GetStatus.
  uint32_t clearStatus() {
    const std::vector<uint32_t> answer = send({0xD0, 0, 0});
    return (answer[1] << 8U) | answer[2];
  }

  void low(Hand& hand) { turn(hand, vboard::Drive::Low); }
  void high(Hand& hand) { turn(hand, vboard::Drive::High); }
  void turn(Hand& hand, vboard::Drive drive) {
    const std::lock_guard guard(board.mutex());
    hand.p().drive(drive);
  }
  bool busyPin() { return !chip.pin("BUSY").high(); }
  bool flagPin() { return !chip.pin("FLAG").high(); }

  /// What the board recorded, without the parts' names.
  std::vector<std::string> rules() const {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    return rules;
  }

  void wait(std::chrono::microseconds time) { board.advance(time); }
};

}  // namespace boardtest

#endif
