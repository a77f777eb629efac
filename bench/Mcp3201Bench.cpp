// SPDX-License-Identifier: MIT
// MCP3201: one reading through the library, and the same system calls written by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bench/Bench.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"

namespace {

using bench::check;

constexpr uint32_t kSpeedHz = 1600000;

/// A board with one converter on the node's own select: no GPIO call blurs the comparison.
struct Fixture {
  Fixture() : adc(board.add<vboard::Mcp3201>("adc")) {
    vboard::SpiBus& spi = board.addSpiBus({.number = 1});
    board.attach(adc, spi);
    board.connect(adc.pin("CS"), spi.select(0));
  }
  vboard::Board board;
  vboard::Mcp3201& adc;
};

/// Bus and device as an application has them.
struct Library {
  explicit Library() {
    check(bus.setSpiSpeedKHz(kSpeedHz / 1000) == 0 && bus.open() == 0, "open the bus");
    device.setBus(&bus);
  }
  ~Library() { bus.close(); }
  Varnel::CLinuxSpiBus bus;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 device;
};

/// What somebody would write who knows this one chip and nothing else.
uint16_t readByHand(int node) {
  uint16_t word = 0;
  spi_ioc_transfer transfer{};
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&word);
  transfer.len = sizeof(word);
  transfer.bits_per_word = 15;
  transfer.speed_hz = kSpeedHz;
  check(ioctl(node, SPI_IOC_MESSAGE(1), &transfer) >= 0, "message");
  return word & 0x0FFF;
}

void readInput(benchmark::State& state) {
  Fixture fixture;
  vboard::Kernel kernel(fixture.board, {.virtualTime = false});
  Library library;
  uint16_t code = 0;
  for ([[maybe_unused]] auto _ : state) {
    check(library.device.readInput(&code, true) == 0, "readInput");
    benchmark::DoNotOptimize(code);
  }
}

void handWritten(benchmark::State& state) {
  Fixture fixture;
  vboard::Kernel kernel(fixture.board, {.virtualTime = false});
  const int node = open("/dev/spidev1.0", O_RDWR);
  check(node >= 0, "open the node");
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(readByHand(node));
  }
  close(node);
}

}  // namespace

void bench::addMcp3201(Suite& suite) {
  Fixture fixture;
  vboard::Kernel kernel(fixture.board, {.virtualTime = false});
  Library library;
  uint16_t code = 0;
  suite.operations.push_back(
      count("MCP3201 readInput", fixture.board, [&] { library.device.readInput(&code, true); }));
  suite.operations.push_back(count("MCP3201 readInput, no transfer", fixture.board,
                                   [&] { library.device.readInput(&code, false); }));

  benchmark::RegisterBenchmark("MCP3201.readInput", readInput)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("MCP3201.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "MCP3201 readInput / hand-written loop",
                               .measured = "MCP3201.readInput",
                               .reference = "MCP3201.handWritten"});
}
