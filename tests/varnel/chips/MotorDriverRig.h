// SPDX-License-Identifier: MIT
#ifndef TESTS_VARNEL_CHIPS_MOTORDRIVERRIG_H
#define TESTS_VARNEL_CHIPS_MOTORDRIVERRIG_H

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"

/// A driver whose protected parts a test can see.
template <class Driver>
struct OpenMotorDriver : Driver {
  using Driver::d_ptr;
  using Driver::m_Bus;
  using Driver::m_ChipSelect;
  using Driver::m_LatchPin;
  using Driver::m_TransferSettings;
  using Driver::registerBitLength;

  const void* txBuffer() const {
    return reinterpret_cast<const void*>(
        static_cast<uintptr_t>(m_TransferSettings.ioc_transfer.tx_buf));
  }
  const void* rxBuffer() const {
    return reinterpret_cast<const void*>(
        static_cast<uintptr_t>(m_TransferSettings.ioc_transfer.rx_buf));
  }
};

/// A driver on an open bus that has its mode and its clock already: a byte is three calls.
template <class Driver>
struct MotorRig : BusRig {
  OpenMotorDriver<Driver> driver;
  uint32_t word = 0x55555555;
  float number = -1.0F;
  int32_t position = -77;

  MotorRig() {
    reopen(3, 1000);
    driver.setBus(&bus);
    driver.setChipSelector(&selector);
    wire.name(driver.txBuffer(), 1, "tx");
    wire.name(driver.rxBuffer(), 1, "rx");
    wire.discard();
  }

  void reopen(uint8_t mode, uint16_t speedKHz) {
    bus.close();
    bus.setMode(mode);
    bus.setSpiSpeedKHz(speedKHz);
    bus.open();
  }
};

inline const std::string kSelect = "select(chip, true) = 0";
inline const std::string kDeselect = "select(chip, false) = 0";

/// The message that sends one byte.
inline std::string byteMessage(const std::string& hex, const std::string& speedHz = "1000000") {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=tx[" + hex + "] rx=rx len=1 speed_hz=" + speedHz +
         " bits_per_word=8}) = 1";
}

/// The journal of bytes, each in a select of its own.
inline wire::Lines frames(const std::vector<std::string>& bytes) {
  wire::Lines all;
  for (const std::string& hex : bytes) {
    all = wire::lines(all, kSelect, byteMessage(hex), kDeselect);
  }
  return all;
}

inline constexpr char kCore[] = "varnel/chips/motordriver/STMicroSteppingMotorDriver.cpp ";
inline constexpr char kBusTransfer[] = "varnel/common/LinuxSpiBus.cpp executeManagedTransfer";
inline constexpr char kDeviceTransfer[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
inline constexpr char kTransferText[] = "can't transfer data via CLinuxSpiBus";

/// One byte on the wire and who logs its failure after bus and device.
struct SentByte {
  std::string hex;
  wire::Lines loggedBy = {};
};

/// The three calls of one byte, for a sweep.
inline std::vector<wire::Step> byteSteps(const SentByte& byte) {
  const wire::Lines select = wire::lines(kBusTransfer, kDeviceTransfer, byte.loggedBy);
  return {{kSelect, "", select},
          {byteMessage(byte.hex), kTransferText, wire::lines(kDeviceTransfer, byte.loggedBy)},
          {kDeselect, "", select}};
}

inline std::vector<wire::Step> byteSteps(const std::vector<SentByte>& bytes) {
  std::vector<wire::Step> all;
  for (const SentByte& byte : bytes) {
    for (const wire::Step& step : byteSteps(byte)) {
      all.push_back(step);
    }
  }
  return all;
}

/// The command byte and the bytes after it, whose failures are logged by `function`.
inline std::vector<SentByte> bytesOf(const std::vector<std::string>& hex,
                                     const wire::Lines& loggedBy) {
  std::vector<SentByte> bytes;
  for (const std::string& byte : hex) {
    bytes.push_back({byte, loggedBy});
  }
  return bytes;
}

/// A sweep over every call of operations whose outcome isn't simply that of their bytes: those that
/// lose a failure of the command byte, and those that end in a code although all bytes went out.
template <class Rig>
class MotorSweep {
 public:
  using Operation = std::function<TErrCode(Rig&)>;
  using Check = std::function<void(Rig&, size_t failedByte)>;

  explicit MotorSweep(Operation operation) : operation_(std::move(operation)) {}

  /// Code and log lines of a run in which every byte goes out.
  MotorSweep& endsWith(TErrCode code, const wire::Lines& logLines) {
    code_ = code;
    ending_ = logLines;
    return *this;
  }
  /// A failure of the command byte is not reported; these bytes follow it.
  MotorSweep& losesTheCommandAndSends(const std::vector<std::string>& bytes) {
    afterLostCommand_ = frames(bytes);
    return *this;
  }
  MotorSweep& leaves(Check check) {
    check_ = std::move(check);
    return *this;
  }

  void run(const std::vector<SentByte>& bytes) {
    const std::vector<wire::Step> steps = byteSteps(bytes);
    wire::Lines good;
    for (const wire::Step& step : steps) {
      good.push_back(step.line);
    }
    {
      Rig rig;
      EXPECT_EQ(operation_(rig), code_);
      EXPECT_EQ(rig.wire.journal(), wire::lines(good, ending_));
    }
    for (size_t i = 0; i < steps.size(); ++i) {
      for (const int error : {EIO, EINVAL, ENODEV}) {
        SCOPED_TRACE("failing with " + std::to_string(error) + ": " + std::to_string(i / 3) +
                     ". byte, " + steps[i].line);
        wire::Lines expected(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(i));
        failingRun(wire::lines(expected, failure(steps[i], error)), i, error);
      }
    }
  }

 private:
  static wire::Lines failure(const wire::Step& step, int error) {
    const std::string call = step.line.substr(0, step.line.rfind(" = "));
    const std::string name = error == EIO ? "EIO" : error == EINVAL ? "EINVAL" : "ENODEV";
    const std::string code = error == EIO ? "-5" : error == EINVAL ? "-22" : "-19";
    wire::Lines all;
    if (step.perrorText.empty()) {
      all.push_back(call + " = " + code);
    } else {
      all.push_back(call + " = -1 " + name);
      all.push_back("perror(\"" + step.perrorText + "\") " + name);
    }
    for (const std::string& place : step.places) {
      all.push_back(wire::logged(error, place));
    }
    return all;
  }

  void failingRun(const wire::Lines& upToTheFailure, size_t index, int error) {
    const bool lost = index < 3 && !afterLostCommand_.empty();
    Rig rig;
    rig.wire.failsCall(static_cast<unsigned>(index + 1), error);
    EXPECT_EQ(operation_(rig), lost ? code_ : -error);
    EXPECT_EQ(rig.wire.journal(),
              lost ? wire::lines(upToTheFailure, afterLostCommand_, ending_) : upToTheFailure);
    EXPECT_TRUE(wire::isFree(rig.mutex()));
    if (check_) {
      check_(rig, index / 3);
    }
    rig.recover(1000);
    EXPECT_EQ(operation_(rig), code_) << "after recovery";
    rig.wire.discard();
  }

  Operation operation_;
  TErrCode code_ = 0;
  wire::Lines ending_;
  wire::Lines afterLostCommand_;
  Check check_;
};

/// What a caller does after a failed byte.
template <class Driver>
void recoverMotor(MotorRig<Driver>& rig) {
  rig.recover(1000);
  rig.wire.discard();
}

#endif
