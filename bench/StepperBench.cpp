// SPDX-License-Identifier: MIT
// L6470 and powerSTEP01: what commands, registers and status cost, byte by byte in selects of their
// own, and on a bus that is faster than the driver.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <initializer_list>

#include "bench/Bench.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace {

using bench::check;
using Varnel::CMotorDriver1ChnL6470;
using Varnel::CMotorDriver1ChnPowerSTEP01;

constexpr unsigned kSelect = 25;
constexpr uint32_t kSpeedHz = 1000000;
constexpr uint8_t kForward = Varnel::ST::DIRECTION_FORWARD;

/// A board with a select line that is taken, and a chip only where it is asked for: planning a
/// motion is work of the model.
struct Fixture {
  explicit Fixture(bool withChip) {
    vboard::SpiBus& spi = board.addSpiBus({.number = 1});
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
    if (withChip) {
      auto& chip = board.add<vboard::Powerstep01>("driver");
      board.attach(chip, spi);
      board.connect(chip.pin("CS"), gpio.line(kSelect));
    }
    kernel = std::make_unique<vboard::Kernel>(board, vboard::KernelOptions{.virtualTime = false});
    check(pin.connect() == 0, "connect the select");
  }
  vboard::Board board;
  std::unique_ptr<vboard::Kernel> kernel;
  Orv::CLinuxIoPin pin{kSelect, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
};

/// Bus and device as an application has them.
template <typename Driver>
struct Library {
  Library(Fixture& fixture, uint32_t busSpeedHz) : select(fixture.pin) {
    check(bus.setSpiSpeedKHz(static_cast<uint16_t>(busSpeedHz / 1000)) == 0 && bus.open() == 0,
          "open the bus");
    driver.setBus(&bus);
    driver.setChipSelector(&select);
  }
  ~Library() { bus.close(); }
  Varnel::CGpioPinChipSelector select;
  Varnel::CLinuxSpiBus bus;
  Driver driver;
};

/// What somebody would write who knows this one chip and nothing else.
struct ByHand {
  explicit ByHand(Fixture& fixture) : select(fixture.pin), node(open("/dev/spidev1.0", O_RDWR)) {
    uint8_t mode = SPI_MODE_3;
    check(node >= 0 && ioctl(node, SPI_IOC_WR_MODE, &mode) == 0, "open the node");
  }
  ~ByHand() { close(node); }
  uint8_t exchange(uint8_t byte) {
    uint8_t received = 0;
    spi_ioc_transfer transfer{};
    transfer.tx_buf = reinterpret_cast<uintptr_t>(&byte);
    transfer.rx_buf = reinterpret_cast<uintptr_t>(&received);
    transfer.len = 1;
    transfer.speed_hz = kSpeedHz;
    transfer.bits_per_word = 8;
    check(select.write(Orv::HIGH) == 0 && ioctl(node, SPI_IOC_MESSAGE(1), &transfer) >= 0 &&
              select.write(Orv::LOW) == 0,
          "a byte by hand");
    return received;
  }
  uint32_t command(std::initializer_list<uint8_t> bytes) {
    uint32_t received = 0;
    for (const uint8_t byte : bytes) {
      received = (received << 8U) | exchange(byte);
    }
    return received;
  }
  Orv::CLinuxIoPin select;
  int node;
};

void getPosition(benchmark::State& state) {
  Fixture fixture(true);
  Library<CMotorDriver1ChnPowerSTEP01> library(fixture, kSpeedHz);
  int32_t position = 0;
  for ([[maybe_unused]] auto _ : state) {
    check(library.driver.getPosition(position) == 0, "getPosition");
    benchmark::DoNotOptimize(position);
  }
}

void getPositionByHand(benchmark::State& state) {
  Fixture fixture(true);
  ByHand chip(fixture);
  for ([[maybe_unused]] auto _ : state) {
    uint32_t position = chip.command({0x21, 0, 0, 0}) & 0x3FFFFFU;
    benchmark::DoNotOptimize(position);
  }
}

void clearStatus(benchmark::State& state) {
  Fixture fixture(true);
  Library<CMotorDriver1ChnPowerSTEP01> library(fixture, kSpeedHz);
  for ([[maybe_unused]] auto _ : state) {
    check(library.driver.clearStatus() == 0, "clearStatus");
  }
}

void clearStatusByHand(benchmark::State& state) {
  Fixture fixture(true);
  ByHand chip(fixture);
  for ([[maybe_unused]] auto _ : state) {
    uint32_t status = chip.command({0xD0, 0, 0}) & 0xFFFFU;
    benchmark::DoNotOptimize(status);
  }
}

void countPowerstep01(bench::Suite& suite) {
  Fixture fixture(false);
  Library<CMotorDriver1ChnPowerSTEP01> library(fixture, kSpeedHz);
  CMotorDriver1ChnPowerSTEP01& driver = library.driver;
  int32_t position = 0;
  float speed = 0;
  const auto add = [&](const char* name, const std::function<void()>& call) {
    suite.operations.push_back(bench::count(name, fixture.board, call));
  };
  add("powerSTEP01 softStop", [&] { driver.softStop(); });
  add("powerSTEP01 run", [&] { driver.run(400, kForward); });
  add("powerSTEP01 move", [&] { driver.move(6400, kForward); });
  add("powerSTEP01 goTo", [&] { driver.goTo(6400); });
  add("powerSTEP01 setAcceleration", [&] { driver.setAcceleration(1000); });
  add("powerSTEP01 getPosition", [&] { driver.getPosition(position); });
  add("powerSTEP01 getSpeed", [&] { driver.getSpeed(speed); });
  add("powerSTEP01 readStatus", [&] { driver.readStatus(); });
  add("powerSTEP01 clearStatus", [&] { driver.clearStatus(); });
}

void countL6470(bench::Suite& suite) {
  Fixture fixture(false);
  Library<CMotorDriver1ChnL6470> library(fixture, kSpeedHz);
  suite.operations.push_back(
      bench::count("L6470 run", fixture.board, [&] { library.driver.run(400, kForward); }));
  suite.operations.push_back(
      bench::count("L6470 clearStatus", fixture.board, [&] { library.driver.clearStatus(); }));
}

// Each byte closes and opens the node; the board allocates for a node that is opened.
void countOnFastBus(bench::Suite& suite) {
  Fixture fixture(false);
  const uint64_t opening = bench::count("open and close", fixture.board, [] {
                             close(open("/dev/spidev1.0", O_RDWR));
                           }).allocations;
  Library<CMotorDriver1ChnPowerSTEP01> library(fixture, 2 * kSpeedHz);
  int32_t position = 0;
  const auto add = [&](const char* name, uint64_t bytes, const std::function<void()>& call) {
    bench::Operation operation = bench::count(name, fixture.board, call);
    operation.boardAllocations = bytes * opening;
    suite.operations.push_back(operation);
  };
  add("powerSTEP01 softStop, bus of 2 MHz", 1, [&] { library.driver.softStop(); });
  add("powerSTEP01 getPosition, bus of 2 MHz", 4, [&] { library.driver.getPosition(position); });
}

}  // namespace

void bench::addStepper(Suite& suite) {
  countPowerstep01(suite);
  countOnFastBus(suite);
  countL6470(suite);
  benchmark::RegisterBenchmark("powerSTEP01.getPosition", getPosition)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("powerSTEP01.getPositionByHand", getPositionByHand)
      ->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("powerSTEP01.clearStatus", clearStatus)->Repetitions(kRepetitions);
  benchmark::RegisterBenchmark("powerSTEP01.clearStatusByHand", clearStatusByHand)
      ->Repetitions(kRepetitions);
  suite.comparisons.push_back({.name = "powerSTEP01 getPosition / hand-written loop",
                               .measured = "powerSTEP01.getPosition",
                               .reference = "powerSTEP01.getPositionByHand"});
  suite.comparisons.push_back({.name = "powerSTEP01 clearStatus / hand-written loop",
                               .measured = "powerSTEP01.clearStatus",
                               .reference = "powerSTEP01.clearStatusByHand"});
}
