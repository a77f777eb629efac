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
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"
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

/// One driver of each chip, on one bus and one latch pin; the converters at a select of their own.
struct Drivers {
  Drivers() {
    for (Varnel::CLinuxSpiDevice* device : std::initializer_list<Varnel::CLinuxSpiDevice*>{
             &ad529x, &ads1248, &ads1256, &at25640b, &hc595, &icmd, &l6470, &lv165a, &mcp3201,
             &mcp4822, &powerstep01, &tlc5947}) {
      device->setBus(&bus);
      device->setLatchPin(&latch);
    }
    ads1248.configurePins(4, 2, 3);
    ads1248.setChipSelector(&select);
    ads1256.configurePins(3, 2);
    ads1256.setChipSelector(&select);
    mcp4822.configurePins(5);
  }
  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin latch{0, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
  Varnel::CGpioPinChipSelector select{1, Orv::PIN_MODE_INVERT};
  Varnel::CSpiPotentiometer16Bit_AD529x ad529x;
  Varnel::CSpiAnalogIn2x24Bit_ADS1248 ads1248;
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 ads1256;
  Varnel::EEPROM::C64kByte_At25640B at25640b;
  Varnel::CSpiDigOut8Bit_HC595 hc595;
  Varnel::iC_MD::CSpiQuadratureCounter48Bit icmd;
  Varnel::CMotorDriver1ChnL6470 l6470;
  Varnel::CSpiDigIn8Bit_LV165A lv165a;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 mcp3201;
  Varnel::CSpiAnalogOut2x12Bit_MCP4822 mcp4822;
  Varnel::CMotorDriver1ChnPowerSTEP01 powerstep01;
  Varnel::CSpiLedDriver12Bit_TLC5947 tlc5947{24};
};

/// Puts the converter of that name on the board: select on line 1, DRDY 2, RESET 3, START 4. The
/// other drivers' bytes are the same without a chip.
void addConverter(vboard::Board& board, vboard::SpiBus& spi, vboard::GpioChip& gpio,
                  std::string_view chip) {
  vboard::DeltaSigma* converter = nullptr;
  if (chip == "ads1248") {
    auto& adc = board.add<vboard::Ads1248>("adc");
    board.connect(adc.pin("START"), gpio.line(4));
    adc.setReference(1, 2.5);
    adc.setInput(0, 0.1);
    converter = &adc;
  } else if (chip == "ads1256") {
    auto& adc = board.add<vboard::Ads1256>("adc");
    adc.setInput(0, 1.0);
    converter = &adc;
  } else {
    return;
  }
  board.attach(*converter, spi);
  board.connect(converter->pin("CS"), gpio.line(1));
  board.connect(converter->pin("DRDY"), gpio.line(2));
  board.connect(converter->pin("RESET"), gpio.line(3));
}

/// Starts the converter of that name, at its highest rate if it has several.
bool start(vboard::Board& board, Drivers& drivers, std::string_view chip) {
  if (chip != "ads1248" && chip != "ads1256") {
    return true;
  }
  const bool fast = chip == "ads1248";
  if ((fast ? drivers.ads1248.open() : drivers.ads1256.open()) != 0) {
    return false;
  }
  board.advance(std::chrono::milliseconds(20));
  return !fast ||
         drivers.ads1248.setDataRate(Varnel::CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS) == 0;
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

struct ChipOperation {
  std::string_view chip;
  TErrCode (*call)(Drivers& drivers, int number);
};

constexpr ChipOperation kChipOperations[] = {
    {"ad529x",
     [](Drivers& drivers, int number) {
       return drivers.ad529x.writeRDAC(static_cast<uint16_t>(number & 0x3FF));
     }},
    {"ads1248", [](Drivers& drivers, int /*number*/) { return convert(drivers.ads1248); }},
    {"ads1256", [](Drivers& drivers, int /*number*/) { return convert(drivers.ads1256); }},
    {"at25640b",
     [](Drivers& drivers, int number) {
       uint8_t byte = 0;
       return drivers.at25640b.readByte(static_cast<uint16_t>(number), byte);
     }},
    {"hc595",
     [](Drivers& drivers, int number) {
       return drivers.hc595.writeOutputs(static_cast<uint8_t>(number & 0x7F), true);
     }},
    {"icmd",
     [](Drivers& drivers, int /*number*/) {
       int64_t position = 0;
       return drivers.icmd.readPosition64(0, position);
     }},
    {"lv165a", [](Drivers& drivers, int /*number*/) { return drivers.lv165a.readInputs(true); }},
    {"mcp3201",
     [](Drivers& drivers, int /*number*/) {
       uint16_t code = 0;
       return drivers.mcp3201.readInput(&code, true);
     }},
    {"mcp4822",
     [](Drivers& drivers, int number) {
       return drivers.mcp4822.setValue(0, static_cast<uint16_t>(number & 0xFFF), true);
     }},
    {"tlc5947",
     [](Drivers& drivers, int number) {
       return drivers.tlc5947.setPWM(7, static_cast<uint16_t>(number & 0xFFF), true);
     }},
};

const ChipOperation* chipOperation(std::string_view chip) {
  for (const ChipOperation& operation : kChipOperations) {
    if (operation.chip == chip) {
      return &operation;
    }
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view chip = argc >= 3 ? argv[1] : "";
  const bool stepper = chip == "l6470" || chip == "powerstep01";
  const ChipOperation* operation = argc == 3 ? chipOperation(chip) : nullptr;
  const StepperOperation* stepperCall = argc == 4 && stepper ? stepperOperation(argv[3]) : nullptr;
  if (operation == nullptr && stepperCall == nullptr) {
    std::fprintf(
        stderr,
        "usage: varnel_bench_reads ad529x|ads1248|ads1256|at25640b|hc595|icmd|lv165a|mcp3201|"
        "mcp4822|tlc5947 COUNT\n"
        "       varnel_bench_reads l6470|powerstep01 COUNT OPERATION\n");
    return 2;
  }
  // Calls take long enough for the start-up of the converters.
  vboard::Board board({.callCost = std::chrono::microseconds(100)});
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  addConverter(board, spi, board.addGpioChip({.lines = 6}), chip);
  const vboard::Kernel kernel(board);

  Drivers drivers;
  if (drivers.latch.connect() != 0 || drivers.select.connect() != 0 ||
      drivers.mcp4822.open() != 0 ||
      drivers.bus.setSpiSpeedKHz(chip == "ads1256" ? 75 : 500) != 0 || drivers.bus.open() != 0 ||
      !start(board, drivers, chip)) {
    return 1;
  }
  Stepper& motor = chip == "l6470" ? static_cast<Stepper&>(drivers.l6470) : drivers.powerstep01;
  for (int number = std::atoi(argv[2]); number > 0; --number) {
    const TErrCode result =
        operation != nullptr ? operation->call(drivers, number) : stepperCall->call(motor);
    if (result < 0) {
      return 1;
    }
  }
  return drivers.bus.close() == 0 ? 0 : 1;
}
