// SPDX-License-Identifier: MIT
// TLC5947: one LED changed and all 24 outputs sent, and the same by hand.
#include <benchmark/benchmark.h>

#include <array>

#include "bench/Rig.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"

namespace {

using bench::check;

constexpr uint16_t kOutputs = 24;

struct Fixture : bench::Rig {
  Fixture() {
    auto& chip = board.add<vboard::Tlc5947>("leds");
    board.attach(chip, spi);
    board.connect(chip.pin("XLAT"), gpio.line(kLatch));
    start();
  }
};

/// The device as an application has it.
struct Library : Fixture {
  Library() {
    device.setBus(&bus);
    device.setLatchPin(&latch);
  }
  void set() {
    value = (value + 1) & 0x0FFFU;
    check(device.setPWM(7, value, true) == 0, "setPWM");
  }
  Varnel::CSpiLedDriver12Bit_TLC5947 device{kOutputs};
  uint16_t value = 0;
};

void setPwm(benchmark::State& state) {
  Library library;
  for ([[maybe_unused]] auto _ : state) {
    library.set();
  }
}

void handWritten(benchmark::State& state) {
  Fixture fixture;
  bench::ByHand node(SPI_MODE_0, 12);
  std::array<uint16_t, kOutputs> table{};
  for ([[maybe_unused]] auto _ : state) {
    table[7] = (table[7] + 1) & 0x0FFFU;
    check(fixture.latch.write(Orv::LOW) == 0, "latch low");
    node.transfer(table.data(), nullptr, sizeof(table));
    check(fixture.latch.write(Orv::HIGH) == 0 && fixture.latch.write(Orv::LOW) == 0, "latch");
  }
}

}  // namespace

void bench::addTlc5947(Suite& suite) {
  Library library;
  suite.operations.push_back(
      count("TLC5947 setPWM, 24 outputs", library.board, [&] { library.set(); }));
  suite.operations.push_back(count("TLC5947 transferData, nothing changed", library.board,
                                   [&] { library.device.transferData(true); }));
  benchmark::RegisterBenchmark("TLC5947.setPWM", setPwm)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("TLC5947.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "TLC5947 setPWM / hand-written loop",
                               .measured = "TLC5947.setPWM",
                               .reference = "TLC5947.handWritten"});
}
