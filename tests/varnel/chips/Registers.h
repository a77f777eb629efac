// SPDX-License-Identifier: MIT
#ifndef TESTS_VARNEL_CHIPS_REGISTERS_H
#define TESTS_VARNEL_CHIPS_REGISTERS_H

#include <cstddef>
#include <cstdint>
#include <map>

#include "tests/wire/Wire.h"

/// The registers of a converter as its driver sees them: what one frame wrote, another reads back.
class Registers {
 public:
  /// The commands without a register in their low half.
  Registers(uint8_t writeCommand, uint8_t readCommand)
      : writeCommand_(writeCommand), readCommand_(readCommand) {}

  void answer(wire::Wire& wire) {
    wire.answersAs([this](const uint8_t* sent, uint8_t* received, size_t size) {
      transfer(sent, received, size);
    });
  }

  /// Lets a register read as `value`, whatever is written: always, or the next `times` times.
  void stick(uint8_t address, uint8_t value, int times = -1) { stuck_[address] = {value, times}; }

  uint8_t value(uint8_t address) const { return values_[address & 0x0F]; }

 private:
  struct Stuck {
    uint8_t value;
    int times;
  };

  void transfer(const uint8_t* sent, uint8_t* received, size_t size) {
    const int command = sent[0] & 0xF0;
    if (command == writeCommand_ && size == 3) {
      values_[sent[0] & 0x0F] = sent[2];
    }
    if (command == readCommand_ && (size == 3 || size == 2)) {
      asked_ = sent[0] & 0x0F;
    }
    // The value is the last byte of the frame, or a transfer of its own.
    if (received != nullptr && (size == 3 || size == 1)) {
      received[size - 1] = read();
    }
  }

  uint8_t read() {
    const auto stuck = stuck_.find(asked_);
    if (stuck == stuck_.end() || stuck->second.times == 0) {
      return values_[asked_];
    }
    --stuck->second.times;
    return stuck->second.value;
  }

  uint8_t writeCommand_;
  uint8_t readCommand_;
  uint8_t values_[16] = {};
  int asked_ = 0;
  std::map<int, Stuck> stuck_;
};

#endif
