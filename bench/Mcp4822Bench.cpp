// SPDX-License-Identifier: MIT
// MCP4822: both outputs written and latched, and the same by hand.
#include <benchmark/benchmark.h>

#include "bench/Rig.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"

namespace {

using bench::check;

constexpr unsigned kLdac = 24;

struct Fixture : bench::Rig {
  Fixture() {
    auto& chip = board.add<vboard::Mcp4822>("dac");
    board.attach(chip, spi);
    board.connect(chip.pin("CS"), gpio.line(kSelect));
    board.connect(chip.pin("LDAC"), gpio.line(kLdac));
    start();
  }
};

/// The device as an application has it.
struct Library : Fixture {
  Library() {
    device.setBus(&bus);
    device.setChipSelector(&selector);
    device.configurePins(kLdac);
    check(device.open() == 0, "open the converter");
  }
  /// Never the values before.
  void write() {
    value = (value + 1) & 0x0FFFU;
    check(device.setValue(0, value, false) == 0 && device.setValue(1, value, true) == 0, "write");
  }
  Varnel::CSpiAnalogOut2x12Bit_MCP4822 device;
  uint16_t value = 0;
};

void write(benchmark::State& state) {
  Library library;
  for ([[maybe_unused]] auto _ : state) {
    library.write();
  }
}

void handWritten(benchmark::State& state) {
  Fixture fixture;
  Orv::CLinuxIoPin ldac(kLdac, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  check(ldac.connect() == 0, "connect LDAC");
  bench::ByHand node(SPI_MODE_3, 16);
  uint16_t value = 0;
  for ([[maybe_unused]] auto _ : state) {
    value = (value + 1) & 0x0FFFU;
    for (const uint16_t channel : {uint16_t{0x3000}, uint16_t{0xB000}}) {
      const auto word = static_cast<uint16_t>(channel | value);
      check(fixture.select.write(Orv::HIGH) == 0, "select");
      node.transfer(&word, nullptr, sizeof(word));
      check(fixture.select.write(Orv::LOW) == 0, "deselect");
    }
    check(ldac.write(Orv::HIGH) == 0 && ldac.write(Orv::LOW) == 0, "latch");
  }
}

}  // namespace

void bench::addMcp4822(Suite& suite) {
  Library library;
  suite.operations.push_back(
      count("MCP4822 setValue, both outputs", library.board, [&] { library.write(); }));
  suite.operations.push_back(count("MCP4822 setValue, no write", library.board,
                                   [&] { library.device.setValue(0, 1, false); }));
  benchmark::RegisterBenchmark("MCP4822.write", write)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("MCP4822.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "MCP4822 write / hand-written loop",
                               .measured = "MCP4822.write",
                               .reference = "MCP4822.handWritten"});
}
