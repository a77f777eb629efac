// SPDX-License-Identifier: MIT
// 74LV165A: what a read costs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bench/Bench.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"

namespace {

using bench::check;

constexpr unsigned kLoad = 23;

/// A board with one register, and its load line taken.
struct Fixture {
  Fixture() {
    vboard::SpiBus& spi = board.addSpiBus({.number = 1});
    auto& chip = board.add<vboard::Lv165a>("inputs");
    board.attach(chip, spi);
    board.connect(chip.pin("SH/LD"), board.addGpioChip({.lines = 32}).line(kLoad));
    kernel = std::make_unique<vboard::Kernel>(board, vboard::KernelOptions{.virtualTime = false});
    check(load.connect() == 0, "connect the load pin");
  }
  vboard::Board board;
  std::unique_ptr<vboard::Kernel> kernel;
  Orv::CLinuxIoPin load{kLoad, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
};

/// Bus and device as an application has them.
struct Library {
  explicit Library(Fixture& fixture) {
    check(bus.open() == 0, "open the bus");
    inputs.setBus(&bus);
    inputs.setLatchPin(&fixture.load);
  }
  ~Library() { bus.close(); }
  Varnel::CLinuxSpiBus bus;
  Varnel::CSpiDigIn8Bit_LV165A inputs;
};

void readInputs(benchmark::State& state) {
  Fixture fixture;
  Library library(fixture);
  for ([[maybe_unused]] auto _ : state) {
    check(library.inputs.readInputs(true) >= 0, "readInputs");
  }
}

void handWritten(benchmark::State& state) {
  Fixture fixture;
  const int node = open("/dev/spidev1.0", O_RDWR);
  check(node >= 0, "open the node");
  uint8_t value = 0;
  spi_ioc_transfer transfer{};
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&value);
  transfer.len = 1;
  transfer.speed_hz = 500000;
  transfer.bits_per_word = 8;
  for ([[maybe_unused]] auto _ : state) {
    check(fixture.load.write(Orv::LOW) == 0 && fixture.load.write(Orv::HIGH) == 0 &&
              fixture.load.write(Orv::LOW) == 0 && ioctl(node, SPI_IOC_MESSAGE(1), &transfer) >= 0,
          "a read by hand");
    benchmark::DoNotOptimize(value);
  }
  close(node);
}

}  // namespace

void bench::addLv165a(Suite& suite) {
  Fixture fixture;
  Library library(fixture);
  suite.operations.push_back(
      count("74LV165A readInputs", fixture.board, [&] { library.inputs.readInputs(true); }));
  suite.operations.push_back(count("74LV165A readInputs, no transfer", fixture.board,
                                   [&] { library.inputs.readInputs(false); }));

  benchmark::RegisterBenchmark("74LV165A.readInputs", readInputs)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("74LV165A.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "74LV165A readInputs / hand-written loop",
                               .measured = "74LV165A.readInputs",
                               .reference = "74LV165A.handWritten"});
}
