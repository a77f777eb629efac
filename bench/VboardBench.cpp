// SPDX-License-Identifier: MIT
// What an emulated system call costs, compared with a real one that does nothing.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bench/Bench.h"

namespace {

constexpr unsigned long kForeignRequest = 0x5600;

void emulatedMessage(benchmark::State& state, bool selected) {
  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 1});
  auto& adc = board.add<vboard::Mcp3201>("adc");
  board.attach(adc, spi);
  board.connect(adc.pin("CS"), gpio.line(0));
  vboard::Kernel kernel(board, {.virtualTime = false});
  gpio.setOutput(0, vboard::Drive::High);
  if (selected) {
    // Throughout: what a program that forgot to deselect gets.
    gpio.setOutput(0, vboard::Drive::Low);
  }
  const int node = open("/dev/spidev1.0", O_RDWR);
  uint8_t byte = 0;
  spi_ioc_transfer transfer{};
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&byte);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&byte);
  transfer.len = 1;
  transfer.speed_hz = 500000;
  for ([[maybe_unused]] auto _ : state) {
    if (ioctl(node, SPI_IOC_MESSAGE(1), &transfer) != 1) {
      state.SkipWithError("the message failed");
    }
  }
  close(node);
}

void foreignIoctl(benchmark::State& state) {
  const int node = open("/dev/null", O_RDWR);
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(ioctl(node, kForeignRequest, nullptr));
  }
  close(node);
}

}  // namespace

void bench::addVboard(Suite& suite) {
  benchmark::RegisterBenchmark("vboard.message", emulatedMessage, false)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("vboard.messageHeard", emulatedMessage, true)
      ->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("kernel.foreignIoctl", foreignIoctl)->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "emulated 1-byte message / ioctl on /dev/null",
                               .measured = "vboard.message",
                               .reference = "kernel.foreignIoctl",
                               .limit = 3.0});
  suite.comparisons.push_back({.name = "the same, MCP3201 selected throughout",
                               .measured = "vboard.messageHeard",
                               .reference = "kernel.foreignIoctl"});
}
