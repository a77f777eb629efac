// SPDX-License-Identifier: MIT
// Gives the L6470's driver the lengths of the chip's registers, so that they can be written and
// read, and moves a motor with a speed and an acceleration of its own.
//
//   l6470_registers [NODE [PIN [STBY]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
//   STBY  GPIO line of the chip's STBY/RST (default 24)
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

namespace ST = Varnel::ST;

constexpr uint16_t kBusSpeedKHz = 1000;
constexpr uint32_t kMicrosteps = 16;
constexpr uint32_t kStepsPerTurn = 200;
constexpr unsigned int kPollMs = 10;
constexpr int kMaxPolls = 1000;

// [lengths]
// The library's driver with the register lengths of the chip's data sheet.
class L6470WithRegisters : public Varnel::CMotorDriver1ChnL6470 {
 protected:
  const std::vector<uint8_t>& registerBitLength() const override {
    static const std::vector<uint8_t> lengths = {
        22,      // ABS_POS, address 1
        9,       // EL_POS
        22,      // MARK
        20,      // SPEED
        12, 12,  // ACC, DEC
        10, 13,  // MAX_SPEED, MIN_SPEED
        8,  8,   // KVAL_HOLD, KVAL_RUN
        8,  8,   // KVAL_ACC, KVAL_DEC
        14,      // INT_SPEED
        8,       // ST_SLP
        8,  8,   // FN_SLP_ACC, FN_SLP_DEC
        4,       // K_THERM
        5,       // ADC_OUT
        4,       // OCD_TH
        7,       // STALL_TH
        10,      // FS_SPEED
        8,       // STEP_MODE
        8,       // ALARM_EN
        16, 16,  // CONFIG, STATUS, addresses 24 and 25
    };
    return lengths;
  }
};
// [lengths]

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

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

// [move]
bool move(L6470WithRegisters& driver) {
  if (failed("clearing the status", driver.clearStatus()) ||
      failed("step mode", driver.setParameter(ST::STEP_MODE, 0x04)) ||
      failed("acceleration", driver.setAcceleration(1000)) ||
      failed("deceleration", driver.setDeceleration(1000)) ||
      failed("highest speed", driver.setMaximumVelocity(500)) ||
      failed("moving", driver.move(2 * kStepsPerTurn * kMicrosteps, ST::DIRECTION_FORWARD))) {
    return false;
  }
  float fastest = 0;
  for (int poll = 0; poll < kMaxPolls; ++poll) {
    float speed = 0;
    if (failed("reading the status", driver.readStatus()) ||
        failed("reading the speed", driver.getSpeed(speed))) {
      return false;
    }
    fastest = speed > fastest ? speed : fastest;
    if (!driver.status().isBusy()) {
      int32_t position = 0;
      if (failed("reading the position", driver.getPosition(position))) {
        return false;
      }
      std::printf("position %d, %.1f steps/s on the way, status 0x%04x\n",
                  static_cast<int>(position), static_cast<double>(fastest),
                  static_cast<unsigned int>(driver.status().m_Data));
      return !driver.status().commandError();
    }
    Orv::CThread::sleep(kPollMs);
  }
  std::fprintf(stderr, "still busy\n");
  return false;
}
// [move]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto pin = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;
  const auto stby = argc > 3 ? static_cast<unsigned int>(std::strtoul(argv[3], nullptr, 10)) : 24U;

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
  L6470WithRegisters driver;
  driver.setBus(&bus);
  driver.setChipSelector(&select);

  bool good = move(driver);
  good = !failed("switching off", driver.softHiZ()) && good;
  if (!good) {
    failed("switching off", standby.write(Orv::HIGH));
  }
  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
