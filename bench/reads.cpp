// SPDX-License-Identifier: MIT
// varnel_bench_reads CHIP COUNT: that many operations, for counting instructions under callgrind.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "vboard/vboard.h"

int main(int argc, char** argv) {
  const std::string_view chip = argc == 3 ? argv[1] : "";
  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 1});
  if (chip == "mcp3201") {
    auto& adc = board.add<vboard::Mcp3201>("adc");
    board.attach(adc, spi);
    board.connect(adc.pin("CS"), spi.select(0));
  } else if (chip == "hc595") {
    auto& outputs = board.add<vboard::Hc595>("outputs");
    board.attach(outputs, spi);
    board.connect(outputs.pin("RCLK"), gpio.line(0));
  } else if (chip == "lv165a") {
    auto& inputs = board.add<vboard::Lv165a>("inputs");
    board.attach(inputs, spi);
    board.connect(inputs.pin("SH/LD"), gpio.line(0));
  } else {
    std::fprintf(stderr, "usage: varnel_bench_reads hc595|lv165a|mcp3201 COUNT\n");
    return 2;
  }
  const vboard::Kernel kernel(board);

  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin latch(0, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 adc;
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  for (Varnel::CLinuxSpiDevice* device :
       std::initializer_list<Varnel::CLinuxSpiDevice*>{&adc, &outputs, &inputs}) {
    device->setBus(&bus);
    device->setLatchPin(&latch);
  }
  if (latch.connect() != 0 || bus.open() != 0) {
    return 1;
  }
  for (int i = std::atoi(argv[2]); i > 0; --i) {
    uint16_t code = 0;
    const TErrCode result = chip == "mcp3201" ? adc.readInput(&code, true)
                            : chip == "hc595"
                                ? outputs.writeOutputs(static_cast<uint8_t>(i & 0x7F), true)
                                : inputs.readInputs(true);
    if (result < 0) {
      return 1;
    }
  }
  return bus.close() == 0 ? 0 : 1;
}
