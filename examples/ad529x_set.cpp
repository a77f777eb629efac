// SPDX-License-Identifier: MIT
// Moves the wiper of an AD5292 digital potentiometer through its range and reads it back. Nothing
// is stored: at the next power-up the wiper is where it was.
//
//   ad529x_set [NODE [SYNC]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   SYNC  GPIO line of the chip's SYNC, counted through all GPIO chips (default 25)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

// What comes back rises through a pull-up, too slowly for more than about 1 MHz.
constexpr uint16_t kBusSpeedKHz = 1000;
constexpr int kPositions = 1024;
constexpr uint16_t kTargets[] = {0, 256, 512, 768, 1023};
constexpr unsigned int kStepMs = 100;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [memory]
// The driver pauses 1 ms after each word. That is enough for the wiper, but the chip may take 1.3
// ms to read its memory and about 1.5 ms for a reset.
class Potentiometer : public Varnel::CSpiPotentiometer16Bit_AD529x {
 public:
  TErrCode transferData(bool doWrite) override {
    const TErrCode code = CSpiPotentiometer16Bit_AD529x::transferData(doWrite);
    if (doWrite) {
      Orv::CThread::sleep(1);
    }
    return code;
  }
};

bool showMemory(Potentiometer& potentiometer) {
  constexpr TErrCode kNothing = 255;
  const TErrCode address = potentiometer.readLastProgrammedMemoryAddress();
  if (failed("reading the memory", address)) {
    return false;
  }
  if (address == kNothing) {
    std::printf("nothing stored: the wiper powers up in the middle\n");
    return true;
  }
  const TErrCode position = potentiometer.readTpMem(static_cast<uint8_t>(address));
  if (failed("reading the memory", position)) {
    return false;
  }
  std::printf("the wiper powers up at %d, stored in word %d of 0 to 19\n",
              static_cast<int>(position), static_cast<int>(address));
  return true;
}
// [memory]

// [unlock]
// After each power-up and reset the wiper is locked. A refused write shows nowhere, and a chip that
// is not there reads as all ones or zeros: so the control word is read back.
bool unlock(Potentiometer& potentiometer) {
  if (failed("unlocking", potentiometer.writeControlWord(Varnel::CW_BIT_RDAC_WRITE_ENABLE))) {
    return false;
  }
  const TErrCode control = potentiometer.readControlWord();
  if (failed("reading the control word", control)) {
    return false;
  }
  if (control != Varnel::CW_BIT_RDAC_WRITE_ENABLE) {
    std::fprintf(stderr, "the chip does not unlock: control word 0x%x\n",
                 static_cast<unsigned int>(control));
    return false;
  }
  return true;
}

// A read is two frames and gives the position, or a negative code.
bool setWiper(Potentiometer& potentiometer, uint16_t position) {
  if (failed("moving the wiper", potentiometer.writeRDAC(position))) {
    return false;
  }
  const TErrCode actual = potentiometer.readData(Potentiometer::CW_READ_RDAC);
  if (failed("reading the wiper", actual)) {
    return false;
  }
  std::printf("set %4d  read %4d  %5.1f %% from B to A\n", position, static_cast<int>(actual),
              actual * 100.0 / kPositions);
  return actual == position;
}
// [unlock]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto sync = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;

  // [setup]
  // SYNC is the latch: low during a frame, and the chip looks at the word when it rises.
  Orv::CLinuxIoPin latch(sync, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  if (failed("taking SYNC", latch.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Potentiometer potentiometer;
  potentiometer.setBus(&bus);
  potentiometer.setLatchPin(&latch);
  // [setup]

  bool good = showMemory(potentiometer) && unlock(potentiometer);
  for (const uint16_t target : kTargets) {
    good = good && setWiper(potentiometer, target);
    Orv::CThread::sleep(kStepMs);
  }
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
