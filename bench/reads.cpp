// SPDX-License-Identifier: MIT
// varnel_bench_reads CHIP COUNT: that many readings, for counting instructions under callgrind.
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "vboard/vboard.h"

int main(int argc, char** argv) {
  if (argc != 3 || std::string_view(argv[1]) != "mcp3201") {
    std::fprintf(stderr, "usage: varnel_bench_reads mcp3201 COUNT\n");
    return 2;
  }
  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  auto& adc = board.add<vboard::Mcp3201>("adc");
  board.attach(adc, spi);
  board.connect(adc.pin("CS"), spi.select(0));
  const vboard::Kernel kernel(board);

  Varnel::CLinuxSpiBus bus;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 device;
  device.setBus(&bus);
  if (bus.open() != 0) {
    return 1;
  }
  for (int i = std::atoi(argv[2]); i > 0; --i) {
    uint16_t code = 0;
    if (device.readInput(&code, true) != 0) {
      return 1;
    }
  }
  return bus.close() == 0 ? 0 : 1;
}
