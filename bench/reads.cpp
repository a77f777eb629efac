// SPDX-License-Identifier: MIT
// varnel_bench_reads CHIP COUNT [OPERATION]: that many operations, for counting instructions under
// callgrind. The stepper controllers have several.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"
#include "vboard/vboard.h"

namespace {

using Stepper = Varnel::CSTMicroSteppingMotorDriver;

struct StepperOperation {
  std::string_view name;
  TErrCode (*call)(Stepper& driver);
};

constexpr StepperOperation kStepperOperations[] = {
    {"softStop", [](Stepper& driver) { return driver.softStop(); }},
    {"run", [](Stepper& driver) { return driver.run(400, 1); }},
    {"move", [](Stepper& driver) { return driver.move(6400, 1); }},
    {"goTo", [](Stepper& driver) { return driver.goTo(-6400); }},
    {"goToDirection", [](Stepper& driver) { return driver.goToDirection(-6400, 1); }},
    {"setParameter", [](Stepper& driver) { return driver.setParameter(Varnel::ST::MARK, 6400); }},
    {"setAcceleration", [](Stepper& driver) { return driver.setAcceleration(1000); }},
    {"getParameter",
     [](Stepper& driver) {
       uint32_t value = 0;
       return driver.getParameter(Varnel::ST::MARK, value);
     }},
    {"getPosition",
     [](Stepper& driver) {
       int32_t position = 0;
       return driver.getPosition(position);
     }},
    {"getSpeed",
     [](Stepper& driver) {
       float speed = 0;
       return driver.getSpeed(speed);
     }},
    {"readStatus", [](Stepper& driver) { return driver.readStatus(); }},
    {"clearStatus", [](Stepper& driver) { return driver.clearStatus(); }},
};

const StepperOperation* stepperOperation(std::string_view name) {
  for (const StepperOperation& operation : kStepperOperations) {
    if (operation.name == name) {
      return &operation;
    }
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view chip = argc >= 3 ? argv[1] : "";
  const StepperOperation* operation = argc == 4 ? stepperOperation(argv[3]) : nullptr;
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
  } else if ((chip != "l6470" && chip != "powerstep01") || operation == nullptr) {
    // The stepper controllers' bytes are the same without a chip, and no motion is planned.
    std::fprintf(stderr,
                 "usage: varnel_bench_reads hc595|lv165a|mcp3201 COUNT\n"
                 "       varnel_bench_reads l6470|powerstep01 COUNT OPERATION\n");
    return 2;
  }
  const vboard::Kernel kernel(board);

  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin latch(0, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 adc;
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  Varnel::CMotorDriver1ChnL6470 l6470;
  Varnel::CMotorDriver1ChnPowerSTEP01 powerstep01;
  for (Varnel::CLinuxSpiDevice* device : std::initializer_list<Varnel::CLinuxSpiDevice*>{
           &adc, &outputs, &inputs, &l6470, &powerstep01}) {
    device->setBus(&bus);
    device->setLatchPin(&latch);
  }
  if (latch.connect() != 0 || bus.open() != 0) {
    return 1;
  }
  Stepper& stepper = chip == "l6470" ? static_cast<Stepper&>(l6470) : powerstep01;
  for (int i = std::atoi(argv[2]); i > 0; --i) {
    uint16_t code = 0;
    const TErrCode result = operation != nullptr ? operation->call(stepper)
                            : chip == "mcp3201"  ? adc.readInput(&code, true)
                            : chip == "hc595"
                                ? outputs.writeOutputs(static_cast<uint8_t>(i & 0x7F), true)
                                : inputs.readInputs(true);
    if (result < 0) {
      return 1;
    }
  }
  return bus.close() == 0 ? 0 : 1;
}
