// SPDX-License-Identifier: MIT
// iC-MD: a position of 48 bits, byte by byte in one select, and on a bus that is faster than the
// driver.
#include <benchmark/benchmark.h>

#include <array>

#include "bench/Rig.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"

namespace {

using bench::check;
namespace iC_MD = Varnel::iC_MD;

/// The device as an application has it, with one counter of 48 bits.
struct Library : bench::Rig {
  explicit Library(bool withChip, uint16_t speedKHz = 1000) {
    if (withChip) {
      auto& chip = board.add<vboard::Icmd>("counter");
      board.attach(chip, spi);
      board.connect(chip.pin("NCS"), gpio.line(kSelect));
    }
    start(speedKHz);
    device.setBus(&bus);
    device.setChipSelector(&selector);
    device.setRegisterValue(iC_MD::REG_COUNTER_INPUT_CONFIG, iC_MD::BITMASK_REG0_CNTCFG,
                            iC_MD::REG0_CNT0_48BIT);
    check(device.connect() == 0 && device.clearCounter(0) == 0, "configure the counter");
  }
  void read() { check(device.readPosition64(0, position) == 0, "readPosition64"); }
  iC_MD::CSpiQuadratureCounter48Bit device;
  int64_t position = 0;
};

void readPosition(benchmark::State& state) {
  Library library(true);
  for ([[maybe_unused]] auto _ : state) {
    library.read();
    benchmark::DoNotOptimize(library.position);
  }
}

void handWritten(benchmark::State& state) {
  Library library(true);
  bench::ByHand node(SPI_MODE_0, 8);
  for ([[maybe_unused]] auto _ : state) {
    check(library.select.write(Orv::HIGH) == 0, "select");
    int64_t position = 0;
    for (const uint8_t sent : std::array<uint8_t, 7>{0x88}) {
      uint8_t received = 0;
      node.transfer(&sent, &received, 1);
      position = position << 8 | (sent == 0 ? received : 0);
    }
    check(library.select.write(Orv::LOW) == 0, "deselect");
    benchmark::DoNotOptimize(position);
  }
}

}  // namespace

void bench::addIcmd(Suite& suite) {
  {
    Library library(false);
    suite.operations.push_back(
        count("iC-MD readPosition64, 48 bits", library.board, [&] { library.read(); }));
    suite.operations.push_back(count("iC-MD readRegister", library.board, [&] {
      uint8_t value = 0;
      library.device.readRegister(0x48, value);
    }));
  }
  {
    Library library(false, 2000);
    Operation operation = count("iC-MD readPosition64, 48 bits, bus of 2 MHz", library.board,
                                [&] { library.read(); });
    operation.boardAllocations = 7 * allocationsOfOpening(library);
    suite.operations.push_back(operation);
  }
  benchmark::RegisterBenchmark("iC-MD.readPosition64", readPosition)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("iC-MD.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "iC-MD readPosition64 / hand-written loop",
                               .measured = "iC-MD.readPosition64",
                               .reference = "iC-MD.handWritten"});
}
