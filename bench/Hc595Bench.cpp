// SPDX-License-Identifier: MIT
// 74HC595: what a write costs, and a selection through it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bench/Bench.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

namespace {

using bench::check;
using Varnel::CHC595ChipSelectDevice;

constexpr unsigned kLatch = 22;

/// A board with one register, and its latch line taken.
struct Fixture {
  Fixture() {
    vboard::SpiBus& spi = board.addSpiBus({.number = 1});
    auto& chip = board.add<vboard::Hc595>("outputs");
    board.attach(chip, spi);
    board.connect(chip.pin("RCLK"), board.addGpioChip({.lines = 32}).line(kLatch));
    kernel = std::make_unique<vboard::Kernel>(board, vboard::KernelOptions{.virtualTime = false});
    check(latch.connect() == 0, "connect the latch");
  }
  vboard::Board board;
  std::unique_ptr<vboard::Kernel> kernel;
  Orv::CLinuxIoPin latch{kLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
};

/// Bus and device as an application has them.
struct Library {
  explicit Library(Fixture& fixture) {
    check(bus.open() == 0, "open the bus");
    outputs.setBus(&bus);
    outputs.setLatchPin(&fixture.latch);
  }
  ~Library() { bus.close(); }
  /// Never the value before.
  void write() { check(outputs.writeOutputs(++value & 0x7FU, true) == 0, "writeOutputs"); }
  Varnel::CLinuxSpiBus bus;
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  uint8_t value = 0;
};

void writeOutputs(benchmark::State& state) {
  Fixture fixture;
  Library library(fixture);
  for ([[maybe_unused]] auto _ : state) {
    library.write();
  }
}

void handWritten(benchmark::State& state) {
  Fixture fixture;
  const int node = open("/dev/spidev1.0", O_RDWR);
  check(node >= 0, "open the node");
  uint8_t value = 0;
  spi_ioc_transfer transfer{};
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&value);
  transfer.len = 1;
  transfer.speed_hz = 500000;
  transfer.bits_per_word = 8;
  for ([[maybe_unused]] auto _ : state) {
    ++value;
    check(fixture.latch.write(Orv::LOW) == 0 && ioctl(node, SPI_IOC_MESSAGE(1), &transfer) >= 0 &&
              fixture.latch.write(Orv::HIGH) == 0 && fixture.latch.write(Orv::LOW) == 0,
          "a write by hand");
  }
  close(node);
}

}  // namespace

void bench::addHc595(Suite& suite) {
  Fixture fixture;
  Library library(fixture);
  suite.operations.push_back(
      count("74HC595 writeOutputs", fixture.board, [&] { library.write(); }));
  suite.operations.push_back(count("74HC595 writeOutputs, same value", fixture.board, [&] {
    library.outputs.writeOutputs(library.value & 0x7FU, true);
  }));

  CHC595ChipSelectDevice expander;
  expander.setBus(&library.bus);
  expander.setLatchPin(&fixture.latch);
  check(expander.writeOutputs(7, true) == 0, "write the none address");
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 device;
  device.setBus(&library.bus);
  expander.attachSpiDevice(&device, 1, CHC595ChipSelectDevice::ExplicitTransfer);
  suite.operations.push_back(count("74HC595 expander, select and deselect", fixture.board, [&] {
    device.enableChipSelect(true);
    device.enableChipSelect(false);
  }));

  benchmark::RegisterBenchmark("74HC595.writeOutputs", writeOutputs)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("74HC595.handWritten", handWritten)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "74HC595 writeOutputs / hand-written loop",
                               .measured = "74HC595.writeOutputs",
                               .reference = "74HC595.handWritten"});
}
