// SPDX-License-Identifier: MIT
// The tour's inputs and outputs, LEDs, counter and memory.
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "tour.h"

namespace tour {

namespace {

using Counter = Varnel::iC_MD::CSpiQuadratureCounter48Bit;
using Memory = Varnel::EEPROM::C64kByte_At25640B;
using Varnel::CLinuxSpiDevice;

constexpr uint8_t kEdgesPerLine = 4;
constexpr int kLinesPerTurn = 500;

/// Nothing but the status tells whether the chip took anything.
bool statusIs(Memory& memory, uint8_t expected) {
  uint8_t status = 0;
  return !failed("reading the status", memory.readStatus(status)) && status == expected;
}

bool store(Memory& memory, uint16_t address, uint8_t value) {
  constexpr uint8_t kWriteEnabled = 0x02;
  constexpr int kMaxPolls = 10;  // a write takes 5 ms at most
  // No other exchange with this chip may come between.
  const std::lock_guard<std::recursive_mutex> lock(memory.transferMutex());
  if (failed("enabling the write", memory.setWriteEnable(true)) ||
      !expect(statusIs(memory, kWriteEnabled), "the chip does not take a write") ||
      failed("writing", memory.writeByte(address, value))) {
    return false;
  }
  for (int poll = 0; poll < kMaxPolls; ++poll) {
    Orv::CThread::sleep(1);
    if (statusIs(memory, 0)) {
      return true;
    }
  }
  return expect(false, "the chip stays busy");
}

/// One counter of 32 bits, at differential inputs; the first status tells of power-up.
bool start(Counter& counter, uint8_t& status) {
  namespace iC_MD = Varnel::iC_MD;
  constexpr uint8_t kStatus0 = 0x48;
  constexpr uint8_t kPowerWasDown = 0x10;
  constexpr uint8_t kInputError = 0x80;
  counter.setRegisterValue(iC_MD::REG_COUNTER_INPUT_CONFIG, iC_MD::BITMASK_REG0_CNTCFG,
                           iC_MD::REG0_CNT0_32BIT);
  return !failed("configuring", counter.connect()) &&
         !failed("clearing", counter.clearCounter(0)) &&
         !failed("reading the status", counter.readRegister(kStatus0, status)) &&
         expect((status & kPowerWasDown) != 0, "the chip does not tell of its power-up") &&
         !failed("reading the status", counter.readRegister(kStatus0, status)) &&
         expect((status & (kPowerWasDown | kInputError)) == 0, "the chip complains");
}

}  // namespace

bool visitInputsAndOutputs() {
  Orv::CLinuxIoPin latch(OutLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  Orv::CLinuxIoPin load(InLoad, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Varnel::CGpioPinChipSelector gate(InEnable, Orv::PIN_MODE_INVERT);
  Bus bus;
  if (failed("taking the latch", latch.connect()) ||
      failed("taking the load line", load.connect()) || failed("taking the gate", gate.connect()) ||
      !bus.openAt("/dev/spidev1.0", 800)) {
    return false;
  }
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  outputs.setBus(&bus);
  outputs.setLatchPin(&latch);
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  inputs.setBus(&bus);
  inputs.setLatchPin(&load);
  inputs.setChipSelector(&gate);
  for (const int written : {0x0F, 0xA5}) {
    if (failed("writing",
               outputs.writeOutputs(static_cast<uint8_t>(written), CLinuxSpiDevice::DO_TRANSFER))) {
      return false;
    }
    say("74HC595", "outputs 0x%02x", static_cast<unsigned int>(written));
    // A read leaves the gate open.
    const int32_t read = inputs.readInputs(CLinuxSpiDevice::DO_TRANSFER);
    if (failed("closing the gate", gate.enable(false)) || failed("reading", read)) {
      return false;
    }
    say("74LV165A", "reads 0x%02x at its inputs", static_cast<unsigned int>(read));
    if (!expect(read == written, "the inputs are not what is at the outputs")) {
      return false;
    }
  }
  return true;
}

bool visitTlc5947() {
  using Leds = Varnel::CSpiLedDriver12Bit_TLC5947;
  constexpr uint16_t kLeds = 24;
  Leds leds(kLeds);
  // Inverted, so that "enabled" is a low BLANK. Connecting the pin drives it high: all off.
  leds.outputEnablePin().configure(LedBlank, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin latch(LedXlat, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  Bus bus;
  if (failed("taking BLANK", leds.outputEnablePin().connect()) ||
      failed("taking XLAT", latch.connect()) || !bus.openAt("/dev/spidev0.0", 1000)) {
    return false;
  }
  leds.setBus(&bus);
  leds.setLatchPin(&latch);
  // All but the last only change the table. One transfer carries it out.
  for (uint16_t led = 0; led < kLeds; ++led) {
    const auto width = static_cast<uint16_t>((led + 1) * Leds::MAX_PWM / kLeds);
    const bool last = led + 1 == kLeds;
    if (failed("setting", leds.setPWM(led, width, last ? Leds::DO_TRANSFER : Leds::NO_TRANSFER))) {
      return false;
    }
  }
  if (failed("enabling", leds.setOutputEnable(true))) {
    return false;
  }
  say("TLC5947", "%d LEDs, each brighter than the last", leds.pwmChannelCount());
  Orv::CThread::sleep(100);
  return !failed("disabling", leds.setOutputEnable(false));
}

bool visitIcmd() {
  Varnel::CGpioPinChipSelector select(CounterCs, Orv::PIN_MODE_INVERT);
  Bus bus;
  if (failed("taking the select", select.connect()) || !bus.openAt("/dev/spidev0.0", 1000)) {
    return false;
  }
  Counter counter;
  counter.setBus(&bus);
  counter.setChipSelector(&select);
  uint8_t status = 0;
  if (!start(counter, status)) {
    return false;
  }
  say("iC-MD", "configured and cleared, status 0x%02x", status);
  int32_t positions[2] = {};
  std::chrono::steady_clock::time_point times[2];
  for (int i = 0; i < 2; ++i) {
    if (failed("reading the position", counter.readPosition32(0, positions[i]))) {
      return false;
    }
    times[i] = std::chrono::steady_clock::now();
    Orv::CThread::sleep(1000);
  }
  const double turns = double(positions[1] - positions[0]) / (kEdgesPerLine * kLinesPerTurn);
  const std::chrono::duration<double> time = times[1] - times[0];
  say("iC-MD", "the encoder does %.2f turns/s", turns / time.count());
  return expect(turns > 0, "the counter does not count");
}

bool visitAt25640b() {
  Varnel::CGpioPinChipSelector select(MemoryCs, Orv::PIN_MODE_INVERT);
  Bus bus;
  if (failed("taking the select", select.connect()) || !bus.openAt("/dev/spidev0.0", 1000)) {
    return false;
  }
  Memory memory;
  memory.setBus(&bus);
  memory.setChipSelector(&select);
  const std::string text = "tour";
  for (size_t i = 0; i < text.size(); ++i) {
    if (!store(memory, static_cast<uint16_t>(i), static_cast<uint8_t>(text[i]))) {
      return false;
    }
  }
  say("AT25640B", "wrote \"%s\", byte by byte", text.c_str());
  std::string stored;
  for (size_t i = 0; i < text.size(); ++i) {
    uint8_t value = 0;
    if (failed("reading", memory.readByte(static_cast<uint16_t>(i), value))) {
      return false;
    }
    stored += static_cast<char>(value);
  }
  say("AT25640B", "holds \"%s\"", stored.c_str());
  return expect(stored == text, "the memory holds something else");
}

}  // namespace tour
