// SPDX-License-Identifier: MIT
// Turns a motor at a powerSTEP01 by two turns and back, and shows position and speed on the way.
//
//   powerstep01_move [NODE [PIN [STBY]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
//   STBY  GPIO line of the chip's STBY/RESET (default 24)
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

namespace ST = Varnel::ST;
using Driver = Varnel::CMotorDriver1ChnPowerSTEP01;

// The driver's own speed. On a faster bus every single byte costs 15 system calls instead of 3.
constexpr uint16_t kBusSpeedKHz = 1000;
constexpr uint32_t kMicrosteps = 16;
constexpr uint32_t kStepsPerTurn = 200;
constexpr unsigned int kIntervalMs = 100;
constexpr int kMaxReadings = 50;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [reset]
// Whatever an earlier program left unfinished, the chip forgets when STBY goes low; the bridges go
// off. Connecting the pin drives the line high, awake.
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

// [configure]
// The gate drive first. Its values hang on the supply and the wiring of a board: put in yours.
bool configure(Driver& driver) {
  struct Setting {
    const char* name;
    uint8_t address;
    uint32_t value;
  };
  constexpr Setting kSettings[] = {
      {"GATECFG1", ST::powerSTEP01::GATECFG1, 0x0E4},  // 96 mA for 625 ns
      {"GATECFG2", ST::powerSTEP01::GATECFG2, 0x40},   // blanking 375 ns, dead time 125 ns
      {"STEP_MODE", ST::STEP_MODE, 0x04},              // 16 microsteps, voltage mode
      {"OCD_TH", ST::OCD_TH, 0x0F},                    // 500 mV
      {"KVAL_RUN", ST::KVAL_RUN, 0x40},                // a quarter of the supply
      {"KVAL_ACC", ST::KVAL_ACC, 0x40},
      {"KVAL_DEC", ST::KVAL_DEC, 0x40},
  };
  for (const Setting& setting : kSettings) {
    if (failed(setting.name, driver.setParameter(setting.address, setting.value))) {
      return false;
    }
  }
  return !failed("acceleration", driver.setAcceleration(1000)) &&
         !failed("deceleration", driver.setDeceleration(1000)) &&
         !failed("highest speed", driver.setMaximumVelocity(500)) &&
         !failed("lowest speed", driver.setMinimumVelocity(20));
}
// [configure]

// [healthy]
// A refused write or command shows here and nowhere else: the calls themselves succeed.
bool healthy(Driver& driver) {
  if (failed("reading the status", driver.readStatus())) {
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

// [watch]
bool watch(Driver& driver) {
  const auto start = std::chrono::steady_clock::now();
  for (int reading = 0; reading < kMaxReadings; ++reading) {
    int32_t position = 0;
    float speed = 0;
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    if (!healthy(driver) || failed("reading the position", driver.getPosition(position)) ||
        failed("reading the speed", driver.getSpeed(speed))) {
      return false;
    }
    std::printf("%5.2f s  position %5d  %5.1f steps/s%s\n", time.count(),
                static_cast<int>(position), static_cast<double>(speed),
                driver.status().isBusy() ? "" : "  there");
    if (!driver.status().isBusy()) {
      return true;
    }
    Orv::CThread::sleep(kIntervalMs);
  }
  std::fprintf(stderr, "still not there\n");
  return false;
}
// [watch]

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

  // [move]
  // The first status tells of the reset as of an undervoltage; reading it so clears that.
  bool good =
      !failed("clearing the status", driver.clearStatus()) && configure(driver) && healthy(driver);
  good = good &&
         !failed("moving", driver.move(2 * kStepsPerTurn * kMicrosteps, ST::DIRECTION_FORWARD)) &&
         watch(driver);
  good = good && !failed("moving back", driver.goHome()) && watch(driver);
  // [move]

  // [close]
  // Bridges off. After a failure only STBY is sure to be understood.
  good = good && !failed("switching off", driver.softHiZ());
  if (!good) {
    failed("switching off", standby.write(Orv::HIGH));
  }
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
  // [close]
}
