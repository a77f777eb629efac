// SPDX-License-Identifier: MIT
// varnel_bench_reads CHIP COUNT [OPERATION]: that many operations, for counting instructions under
// callgrind. The stepper controllers have several; a converter converts and reads its channels.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"
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

/// All but START of a converter: select on line 1, DRDY 2, RESET 3.
void connectConverter(vboard::Board& board, vboard::DeltaSigma& adc, vboard::SpiBus& spi,
                      vboard::GpioChip& gpio) {
  board.attach(adc, spi);
  board.connect(adc.pin("CS"), gpio.line(1));
  board.connect(adc.pin("DRDY"), gpio.line(2));
  board.connect(adc.pin("RESET"), gpio.line(3));
}

/// Bus, lines, and the chip of that name if there is a model for it.
bool addChip(vboard::Board& board, std::string_view chip) {
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 5});
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
  } else if (chip == "ads1248") {
    auto& adc = board.add<vboard::Ads1248>("adc");
    connectConverter(board, adc, spi, gpio);
    board.connect(adc.pin("START"), gpio.line(4));
    adc.setReference(1, 2.5);
    adc.setInput(0, 0.1);
  } else if (chip == "ads1256") {
    auto& adc = board.add<vboard::Ads1256>("adc");
    connectConverter(board, adc, spi, gpio);
    adc.setInput(0, 1.0);
  } else {
    return false;
  }
  return true;
}

/// Starts a converter, at its highest rate if it has several.
bool start(vboard::Board& board, Varnel::CSpiAnalogIn2x24Bit_ADS1248* ads1248,
           Varnel::ISpiAnalogInDevice& converter) {
  if (converter.open() != 0) {
    return false;
  }
  board.advance(std::chrono::milliseconds(20));
  return ads1248 == nullptr ||
         ads1248->setDataRate(Varnel::CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS) == 0;
}

/// A conversion, and what it brought.
TErrCode convert(Varnel::ISpiAnalogInDevice& converter) {
  const TErrCode code = converter.doConversion();
  int32_t sum = 0;
  for (uint16_t channel = 0; channel < converter.numberOfChannels(); ++channel) {
    sum |= converter.readChannel(channel);
  }
  return code < 0 || sum == 0 ? -1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view chip = argc >= 3 ? argv[1] : "";
  const StepperOperation* operation = argc == 4 ? stepperOperation(argv[3]) : nullptr;
  // Calls take long enough for the start-up of the converters.
  vboard::Board board({.callCost = std::chrono::microseconds(100)});
  if (!addChip(board, chip) &&
      ((chip != "l6470" && chip != "powerstep01") || operation == nullptr)) {
    // The stepper controllers' bytes are the same without a chip, and no motion is planned.
    std::fprintf(stderr,
                 "usage: varnel_bench_reads ads1248|ads1256|hc595|lv165a|mcp3201 COUNT\n"
                 "       varnel_bench_reads l6470|powerstep01 COUNT OPERATION\n");
    return 2;
  }
  const vboard::Kernel kernel(board);

  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin latch(0, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 adc;
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  Varnel::CSpiAnalogIn2x24Bit_ADS1248 ads1248;
  ads1248.configurePins(4, 2, 3);
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 ads1256;
  ads1256.configurePins(3, 2);
  Varnel::CGpioPinChipSelector select(1, Orv::PIN_MODE_INVERT);
  Varnel::CMotorDriver1ChnL6470 l6470;
  Varnel::CMotorDriver1ChnPowerSTEP01 powerstep01;
  for (Varnel::CLinuxSpiDevice* device : std::initializer_list<Varnel::CLinuxSpiDevice*>{
           &adc, &outputs, &inputs, &ads1248, &ads1256, &l6470, &powerstep01}) {
    device->setBus(&bus);
    device->setLatchPin(&latch);
  }
  if (latch.connect() != 0 || select.connect() != 0 ||
      bus.setSpiSpeedKHz(chip == "ads1256" ? 75 : 500) != 0 || bus.open() != 0) {
    return 1;
  }
  ads1248.setChipSelector(&select);
  ads1256.setChipSelector(&select);
  const bool fast = chip == "ads1248";
  Varnel::ISpiAnalogInDevice* converter = fast ? &ads1248 : nullptr;
  converter = chip == "ads1256" ? &ads1256 : converter;
  if (converter != nullptr && !start(board, fast ? &ads1248 : nullptr, *converter)) {
    return 1;
  }
  Stepper& stepper = chip == "l6470" ? static_cast<Stepper&>(l6470) : powerstep01;
  for (int i = std::atoi(argv[2]); i > 0; --i) {
    uint16_t code = 0;
    const TErrCode result = operation != nullptr   ? operation->call(stepper)
                            : converter != nullptr ? convert(*converter)
                            : chip == "mcp3201"    ? adc.readInput(&code, true)
                            : chip == "hc595"
                                ? outputs.writeOutputs(static_cast<uint8_t>(i & 0x7F), true)
                                : inputs.readInputs(true);
    if (result < 0) {
      return 1;
    }
  }
  return bus.close() == 0 ? 0 : 1;
}
