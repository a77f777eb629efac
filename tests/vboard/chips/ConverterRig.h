// SPDX-License-Identifier: MIT
#ifndef TESTS_VBOARD_CHIPS_CONVERTERRIG_H
#define TESTS_VBOARD_CHIPS_CONVERTERRIG_H

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "vboard/board/Board.h"

namespace convertertest {

using Bytes = std::vector<uint32_t>;

/// One converter on native select 0 of a bus in mode 1, with an ear on its data-ready pin and a
/// hand on its reset. Undriven data out reads 1.
template <typename Chip>
struct ConverterRig : testing::Test {
  vboard::Board board{{.callCost = vboard::Time{0}}};
  vboard::SpiBus& bus = board.addSpiBus({.floatingMiso = vboard::FloatingMiso::High});
  Chip& adc = board.add<Chip>("adc");
  boardtest::Ear& ready = board.add<boardtest::Ear>("ready", vboard::Level::High);
  boardtest::Hand& reset = board.add<boardtest::Hand>("reset");
  vboard::SpiFormat format{.mode = 1, .speedHz = 1000000};

  void wire() {
    board.attach(adc, bus);
    board.connect(bus.select(0), adc.pin("CS"));
    board.connect(adc.pin("DRDY"), ready.p());
    board.connect(adc.pin("RESET"), reset.p());
  }
  void select() {
    bus.setIdle(format.mode);
    bus.driveSelect(0, vboard::Level::Low);
  }
  void deselect() { bus.driveSelect(0, vboard::Level::High); }
  Bytes send(const Bytes& sent) {
    Bytes received(sent.size());
    bus.transfer(0, format, sent, received);
    return received;
  }
  Bytes frame(const Bytes& sent) {
    select();
    Bytes received = send(sent);
    deselect();
    return received;
  }
  bool isReady() { return !adc.pin("DRDY").high(); }
  /// Advances to the next fall of the data-ready pin and says how long it took.
  vboard::Time untilReady() {
    const vboard::Time start = board.now();
    for (const size_t heard = ready.heard.size();
         ready.heard.find('0', heard) == std::string::npos;) {
      if (board.clock().nextEvent() == vboard::Time::max()) {
        throw std::logic_error("never ready");
      }
      board.advance(board.clock().nextEvent() - board.now());
    }
    return board.now() - start;
  }
};

}  // namespace convertertest

#endif
