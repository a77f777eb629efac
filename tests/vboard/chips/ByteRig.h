// SPDX-License-Identifier: MIT
#ifndef TESTS_VBOARD_CHIPS_BYTERIG_H
#define TESTS_VBOARD_CHIPS_BYTERIG_H

#include <gmock/gmock.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "vboard/vboard.h"

namespace boardtest {

/// What floating MISO reads as in these tests.
constexpr uint32_t kFloat = 0xFF;

/// A chip that takes commands of bytes, on a bus's own select, with a high-impedance line that
/// reads high.
template <typename Chip>
struct ByteRig : testing::Test {
  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1, .floatingMiso = vboard::FloatingMiso::High});
  Chip& chip = board.add<Chip>("chip");
  vboard::SpiFormat format{.mode = 0, .bitsPerWord = 8, .speedHz = 1000000};

  explicit ByteRig(const char* selectPin) {
    board.attach(chip, spi);
    board.connect(spi.select(0), chip.pin(selectPin));
  }

  using Bytes = std::vector<uint32_t>;

  void select() {
    wait(std::chrono::microseconds(1));
    spi.setIdle(format.mode);
    spi.driveSelect(0, vboard::Level::Low);
  }
  void deselect() { spi.driveSelect(0, vboard::Level::High); }
  Bytes transfer(const Bytes& bytes) {
    Bytes answers(bytes.size());
    spi.transfer(0, format, bytes, answers);
    return answers;
  }
  /// One select, 1 µs after the last one.
  Bytes frame(const Bytes& bytes) {
    select();
    Bytes answers = transfer(bytes);
    deselect();
    return answers;
  }
  /// A frame whose last word has fewer bits.
  void cutFrame(const Bytes& bytes, uint8_t lastBits) {
    select();
    transfer({bytes.begin(), bytes.end() - 1});
    const uint8_t before = std::exchange(format.bitsPerWord, lastBits);
    transfer({bytes.back()});
    format.bitsPerWord = before;
    deselect();
  }
  /// A command and some zeros; what came back behind the command.
  Bytes read(const Bytes& command, size_t bytes) {
    Bytes sent = command;
    sent.resize(command.size() + bytes);
    Bytes answers = frame(sent);
    answers.erase(answers.begin(), answers.begin() + static_cast<long>(command.size()));
    return answers;
  }
  void wait(vboard::Time time) { board.advance(time); }

  /// What the board recorded since the last look, without the part's name.
  std::vector<std::string> rules() {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    board.clearViolations();
    return rules;
  }
  std::string lastDetails() const { return board.violations().back().details; }
};

}  // namespace boardtest

#endif
