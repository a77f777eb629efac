// SPDX-License-Identifier: MIT
// 74LV165A: what a read costs.
#include <cstdio>
#include <cstdlib>

#include "bench/Bench.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"

void bench::addLv165a(Suite& suite) {
  constexpr unsigned kLoad = 23;
  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  auto& chip = board.add<vboard::Lv165a>("inputs");
  board.attach(chip, spi);
  board.connect(chip.pin("SH/LD"), board.addGpioChip({.lines = 32}).line(kLoad));
  const vboard::Kernel kernel(board, {.virtualTime = false});

  Orv::CLinuxIoPin load(kLoad, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Varnel::CLinuxSpiBus bus;
  if (load.connect() != 0 || bus.open() != 0) {
    std::fprintf(stderr, "can't set up the 74LV165A\n");
    std::exit(1);
  }
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  inputs.setBus(&bus);
  inputs.setLatchPin(&load);
  suite.operations.push_back(count("74LV165A readInputs", board, [&] { inputs.readInputs(true); }));
  suite.operations.push_back(
      count("74LV165A readInputs, no transfer", board, [&] { inputs.readInputs(false); }));
  bus.close();
}
