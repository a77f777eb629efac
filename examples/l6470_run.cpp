// SPDX-License-Identifier: MIT
// Lets a motor at an L6470 run, stops it, and turns it back by two turns, with what this chip's
// driver can do: commands and the fetched status.
//
//   l6470_run [NODE [PIN [STBY]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
//   STBY  GPIO line of the chip's STBY/RST (default 24)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

namespace ST = Varnel::ST;
using Driver = Varnel::CMotorDriver1ChnL6470;

// The driver's own speed. On a faster bus every single byte costs 15 system calls instead of 3.
constexpr uint16_t kBusSpeedKHz = 1000;
// What the chip has after a reset: 128 microsteps, at most 991.8 steps/s, 2008 steps/s².
constexpr uint32_t kMicrosteps = 128;
constexpr uint32_t kStepsPerTurn = 200;
constexpr unsigned int kPollMs = 10;
constexpr int kMaxPolls = 1000;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [reset]
// Whatever an earlier program left unfinished, the chip forgets when STBY goes low, and all its
// registers have their reset values. Connecting the pin drives the line high, awake.
bool reset(Orv::CLinuxIoPin& standby) {
  if (failed("resetting the chip", standby.write(Orv::HIGH))) {
    return false;
  }
  Orv::CThread::sleep(1);
  if (failed("waking the chip", standby.write(Orv::LOW))) {
    return false;
  }
  Orv::CThread::sleep(1);
  return true;
}
// [reset]

// [healthy]
// This fetch clears what it shows: whoever fetches the status must look at all of it.
bool healthy(Driver& driver) {
  if (failed("fetching the status", driver.clearStatus())) {
    return false;
  }
  const ST::CStatus& status = driver.status();
  const char* trouble = status.commandError()          ? "the chip refused a command"
                        : status.overCurrentDetected() ? "over-current"
                        : status.stepLossDetected()    ? "the motor lost steps"
                        : status.thermalStatus() == ST::THERMAL_STATUS_SHUTDOWN ? "too hot"
                                                                                : nullptr;
  if (trouble != nullptr) {
    std::fprintf(stderr, "%s: status 0x%04x\n", trouble, static_cast<unsigned int>(status.m_Data));
  }
  return trouble == nullptr;
}
// [healthy]

// [follow]
const char* nameOf(uint8_t motion) {
  switch (motion) {
    case 0x20: return "accelerating";
    case 0x40: return "slowing down";
    case 0x60: return "at constant speed";
    default: return "at standstill";
  }
}

// Prints each new state of the motor until no command is being carried out any more.
bool follow(Driver& driver) {
  int shown = -1;
  for (int poll = 0; poll < kMaxPolls; ++poll) {
    if (!healthy(driver)) {
      return false;
    }
    const uint8_t motion = driver.status().motionStatus();
    if (motion != shown) {
      std::printf("  %s\n", nameOf(motion));
      shown = motion;
    }
    if (!driver.status().isBusy()) {
      return true;
    }
    Orv::CThread::sleep(kPollMs);
  }
  std::fprintf(stderr, "still busy\n");
  return false;
}
// [follow]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto pin = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;
  const auto stby = argc > 3 ? static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)) : 24U;

  // [setup]
  Varnel::CGpioPinChipSelector select(pin, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin standby(stby, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  if (failed("taking the select line", select.connect()) ||
      failed("taking the standby line", standby.connect()) || !reset(standby)) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Driver driver;
  driver.setBus(&bus);
  driver.setChipSelector(&select);
  // [setup]

  // [run]
  // The first status tells of the reset as of an undervoltage; fetching it clears that.
  bool good = !failed("clearing the status", driver.clearStatus());
  std::printf("status 0x%04x\n", static_cast<unsigned int>(driver.status().m_Data));

  std::printf("run forward\n");
  good = good && !failed("running", driver.run(400, ST::DIRECTION_FORWARD)) && follow(driver);
  Orv::CThread::sleep(500);
  std::printf("stop\n");
  good = good && !failed("stopping", driver.softStop()) && follow(driver);
  std::printf("two turns back\n");
  good = good &&
         !failed("moving", driver.move(2 * kStepsPerTurn * kMicrosteps, ST::DIRECTION_REVERSE)) &&
         follow(driver);
  // [run]

  // [close]
  // Bridges off. After a failure only STBY is sure to be understood.
  good = good && !failed("switching off", driver.softHiZ()) && healthy(driver);
  std::printf("status 0x%04x\n", static_cast<unsigned int>(driver.status().m_Data));
  if (!good) {
    failed("switching off", standby.write(Orv::HIGH));
  }
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
  // [close]
}
