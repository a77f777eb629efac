// SPDX-License-Identifier: MIT
// The tour's motors.
#include <cstdint>

#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "tour.h"

namespace tour {

namespace {

namespace ST = Varnel::ST;

constexpr unsigned int kPollMs = 10;
constexpr int kMaxPolls = 500;

/// Whatever an earlier program left unfinished, the chip forgets while STBY is low.
bool reset(Orv::CLinuxIoPin& standby) {
  if (failed("resetting", standby.write(Orv::HIGH))) {
    return false;
  }
  Orv::CThread::sleep(1);
  if (failed("waking", standby.write(Orv::LOW))) {
    return false;
  }
  Orv::CThread::sleep(1);
  return true;
}

/// A refused command shows in the status and nowhere else.
bool healthy(const ST::CStatus& status) {
  return expect(!status.commandError(), "the chip refused a command") &&
         expect(!status.overCurrentDetected(), "over-current") &&
         expect(!status.stepLossDetected(), "the motor lost steps") &&
         expect(status.thermalStatus() != ST::THERMAL_STATUS_SHUTDOWN, "too hot");
}

/// Waits for BUSY, which is low while a motion command is carried out.
bool waitUntilDone(Orv::CLinuxIoPin& busy) {
  for (int poll = 0; poll < kMaxPolls; ++poll) {
    const int level = busy.read();
    if (level != Orv::LOW) {
      return !failed("reading BUSY", level);
    }
    Orv::CThread::sleep(kPollMs);
  }
  return expect(false, "the motor is still busy");
}

/// The gate drive first. Its values hang on the supply and the wiring of a board.
bool configure(Varnel::CMotorDriver1ChnPowerSTEP01& driver) {
  struct Setting {
    uint8_t address;
    uint32_t value;
  };
  constexpr Setting kSettings[] = {
      {ST::powerSTEP01::GATECFG1, 0xE4},
      {ST::powerSTEP01::GATECFG2, 0x40},
      {ST::STEP_MODE, 0x04},  // 16 microsteps
      {ST::KVAL_RUN, 0x40},
      {ST::KVAL_ACC, 0x40},
      {ST::KVAL_DEC, 0x40},
  };
  for (const Setting& setting : kSettings) {
    uint32_t value = 0;
    if (failed("writing a register", driver.setParameter(setting.address, setting.value)) ||
        failed("reading a register", driver.getParameter(setting.address, value)) ||
        !expect(value == setting.value, "a register does not hold its value")) {
      return false;
    }
  }
  return !failed("acceleration", driver.setAcceleration(1000)) &&
         !failed("deceleration", driver.setDeceleration(1000)) &&
         !failed("highest speed", driver.setMaximumVelocity(500));
}

/// Moves to a position and looks at the speed on the way.
bool turnTo(Varnel::CMotorDriver1ChnPowerSTEP01& driver, Orv::CLinuxIoPin& busy, int32_t target) {
  float speed = 0;
  int32_t position = 0;
  if (failed("moving", driver.goTo(target))) {
    return false;
  }
  Orv::CThread::sleep(600);
  if (failed("reading the speed", driver.getSpeed(speed)) || !waitUntilDone(busy) ||
      failed("reading the position", driver.getPosition(position)) ||
      failed("reading the status", driver.readStatus())) {
    return false;
  }
  say("powerSTEP01", "turned to %d with %.1f steps/s", static_cast<int>(position),
      static_cast<double>(speed));
  return healthy(driver.status()) && expect(position == target, "the motor is elsewhere") &&
         expect(speed > 0, "the motor did not turn");
}

/// Fetches the status until the motor turns at constant speed.
bool waitForSpeed(Varnel::CMotorDriver1ChnL6470& driver) {
  for (int poll = 0; poll < kMaxPolls; ++poll) {
    if (failed("fetching the status", driver.clearStatus()) || !healthy(driver.status())) {
      return false;
    }
    if (driver.status().motionStatus() == ST::L6470::MOT_STATUS) {
      return true;
    }
    Orv::CThread::sleep(kPollMs);
  }
  return expect(false, "the motor does not come to its speed");
}

/// Bridges off. After a failure only STBY is sure to be understood.
bool switchOff(Varnel::CSTMicroSteppingMotorDriver& driver, Orv::CLinuxIoPin& standby, bool good) {
  if (!good) {
    failed("switching off", standby.write(Orv::HIGH));
    return false;
  }
  return !failed("switching off", driver.softHiZ()) &&
         !failed("fetching the status", driver.clearStatus()) && healthy(driver.status());
}

bool runAndStop(Varnel::CMotorDriver1ChnL6470& driver, Orv::CLinuxIoPin& busy) {
  if (failed("running", driver.run(400, ST::DIRECTION_FORWARD)) || !waitUntilDone(busy) ||
      !waitForSpeed(driver)) {
    return false;
  }
  say("L6470", "runs forward at constant speed");
  if (failed("stopping", driver.softStop()) || !waitUntilDone(busy) ||
      failed("fetching the status", driver.clearStatus())) {
    return false;
  }
  say("L6470", "stopped");
  return healthy(driver.status()) &&
         expect(driver.status().motionStatus() == 0, "the motor still turns");
}

}  // namespace

bool visitPowerStep01() {
  constexpr int32_t kTwoTurns = 2 * 200 * 16;
  Varnel::CGpioPinChipSelector select(PowerCs, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin standby(PowerStby, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin busy(PowerBusy, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
  Bus bus;
  if (failed("taking the select", select.connect()) || failed("taking STBY", standby.connect()) ||
      failed("taking BUSY", busy.connect()) || !reset(standby) ||
      !bus.openAt("/dev/spidev0.0", 1000)) {
    return false;
  }
  Varnel::CMotorDriver1ChnPowerSTEP01 driver;
  driver.setBus(&bus);
  driver.setChipSelector(&select);
  // The first status tells of the reset as of an undervoltage; fetching it clears that.
  if (failed("clearing the status", driver.clearStatus()) || !configure(driver)) {
    return false;
  }
  say("powerSTEP01", "configured, registers read back");
  const bool good = turnTo(driver, busy, kTwoTurns) && turnTo(driver, busy, 0);
  if (!switchOff(driver, standby, good)) {
    return false;
  }
  say("powerSTEP01", "bridges off, status 0x%04x", unsigned{driver.status().m_Data});
  return true;
}

bool visitL6470() {
  Varnel::CGpioPinChipSelector select(MotorCs, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin standby(MotorStby, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  Orv::CLinuxIoPin busy(MotorBusy, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
  Bus bus;
  if (failed("taking the select", select.connect()) || failed("taking STBY", standby.connect()) ||
      failed("taking BUSY", busy.connect()) || !reset(standby) ||
      !bus.openAt("/dev/spidev0.0", 1000)) {
    return false;
  }
  Varnel::CMotorDriver1ChnL6470 driver;
  driver.setBus(&bus);
  driver.setChipSelector(&select);
  // The first status tells of the reset as of an undervoltage; fetching it clears that.
  const bool good =
      !failed("clearing the status", driver.clearStatus()) && runAndStop(driver, busy);
  if (!switchOff(driver, standby, good)) {
    return false;
  }
  say("L6470", "bridges off, status 0x%04x", unsigned{driver.status().m_Data});
  return true;
}

}  // namespace tour
