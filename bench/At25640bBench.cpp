// SPDX-License-Identifier: MIT
// AT25640B: a byte read and written, in one select each, and on a bus that is faster than the
// driver.
#include <benchmark/benchmark.h>

#include <array>

#include "bench/Rig.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"

namespace {

using bench::check;

/// The device as an application has it.
struct Library : bench::Rig {
  explicit Library(bool withChip, uint16_t speedKHz = 1000) {
    if (withChip) {
      auto& chip = board.add<vboard::At25640b>("memory");
      board.attach(chip, spi);
      board.connect(chip.pin("CS"), gpio.line(kSelect));
    }
    start(speedKHz);
    device.setBus(&bus);
    device.setChipSelector(&selector);
  }
  void read() { check(device.readByte(0x1234, byte) == 0, "readByte"); }
  Varnel::EEPROM::C64kByte_At25640B device;
  uint8_t byte = 0;
};

void readByte(benchmark::State& state) {
  Library library(true);
  for ([[maybe_unused]] auto _ : state) {
    library.read();
    benchmark::DoNotOptimize(library.byte);
  }
}

void handWritten(benchmark::State& state) {
  Library library(true);
  bench::ByHand node(SPI_MODE_0, 8);
  for ([[maybe_unused]] auto _ : state) {
    uint8_t received = 0;
    check(library.select.write(Orv::HIGH) == 0, "select");
    for (const uint8_t sent : std::array<uint8_t, 4>{0x03, 0x12, 0x34, 0x00}) {
      node.transfer(&sent, &received, 1);
    }
    check(library.select.write(Orv::LOW) == 0, "deselect");
    benchmark::DoNotOptimize(received);
  }
}

}  // namespace

void bench::addAt25640b(Suite& suite) {
  {
    Library library(false);
    suite.operations.push_back(count("AT25640B readByte", library.board, [&] { library.read(); }));
    suite.operations.push_back(count("AT25640B setWriteEnable, writeByte", library.board, [&] {
      check(library.device.setWriteEnable(true) == 0 && library.device.writeByte(1, 2) == 0,
            "writeByte");
    }));
    suite.operations.push_back(count("AT25640B readStatus", library.board,
                                     [&] { library.device.readStatus(library.byte); }));
  }
  {
    Library library(false, 2000);
    Operation operation =
        count("AT25640B readByte, bus of 2 MHz", library.board, [&] { library.read(); });
    operation.boardAllocations = 4 * allocationsOfOpening(library);
    suite.operations.push_back(operation);
  }
  benchmark::RegisterBenchmark("AT25640B.readByte", readByte)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("AT25640B.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "AT25640B readByte / hand-written loop",
                               .measured = "AT25640B.readByte",
                               .reference = "AT25640B.handWritten"});
}
