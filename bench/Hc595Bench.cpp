// SPDX-License-Identifier: MIT
// 74HC595: what a write costs, and a selection through it.
#include <cstdio>
#include <cstdlib>

#include "bench/Bench.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

namespace {

using Varnel::CHC595ChipSelectDevice;

constexpr unsigned kLatch = 22;

void check(bool good, const char* what) {
  if (!good) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
  }
}

/// A board with one register, and a bus opened on it.
struct Fixture {
  Fixture() {
    vboard::SpiBus& spi = board.addSpiBus({.number = 1});
    auto& chip = board.add<vboard::Hc595>("outputs");
    board.attach(chip, spi);
    board.connect(chip.pin("RCLK"), board.addGpioChip({.lines = 32}).line(kLatch));
  }
  vboard::Board board;
};

struct Bus {
  Bus() {
    check(latch.connect() == 0, "connect the latch");
    check(bus.open() == 0, "open the bus");
  }
  ~Bus() { bus.close(); }
  Orv::CLinuxIoPin latch{kLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Varnel::CLinuxSpiBus bus;
};

}  // namespace

void bench::addHc595(Suite& suite) {
  Fixture fixture;
  const vboard::Kernel kernel(fixture.board, {.virtualTime = false});
  Bus on;

  Varnel::CSpiDigOut8Bit_HC595 outputs;
  outputs.setBus(&on.bus);
  outputs.setLatchPin(&on.latch);
  uint8_t value = 0;
  suite.operations.push_back(count("74HC595 writeOutputs", fixture.board,
                                   [&] { outputs.writeOutputs(++value & 0x7FU, true); }));
  suite.operations.push_back(count("74HC595 writeOutputs, same value", fixture.board,
                                   [&] { outputs.writeOutputs(value, true); }));

  CHC595ChipSelectDevice expander;
  expander.setBus(&on.bus);
  expander.setLatchPin(&on.latch);
  check(expander.writeOutputs(7, true) == 0, "write the none address");
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 device;
  device.setBus(&on.bus);
  expander.attachSpiDevice(&device, 1, CHC595ChipSelectDevice::ExplicitTransfer);
  suite.operations.push_back(count("74HC595 expander, select and deselect", fixture.board, [&] {
    device.enableChipSelect(true);
    device.enableChipSelect(false);
  }));
}
