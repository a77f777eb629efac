// SPDX-License-Identifier: MIT
// Every call of every operation of the device failing once.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"

namespace {

using Varnel::CLinuxSpiDevice;
using wire::FaultSweep;
using wire::Lines;
using wire::Step;

constexpr char kMessageText[] = "can't transfer data via CLinuxSpiBus";
constexpr char kExecuteTransfer[] = "varnel/common/LinuxSpiDevice.cpp executeTransfer";
constexpr char kExecuteManaged[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
constexpr char kChained[] = "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer";
constexpr char kTransferData[] = "varnel/common/LinuxSpiDevice.cpp transferData";

struct SlowDevice : CLinuxSpiDevice {
  explicit SlowDevice(Varnel::CLinuxSpiBus* bus, uint8_t bits) : CLinuxSpiDevice(bus, {}, {}) {
    m_TransferSettings.ioc_transfer.speed_hz = 100000;
    m_TransferSettings.ioc_transfer.bits_per_word = bits;
  }
};

/// A slow device with a latch pin, and a second device in its chain.
struct DeviceRig : BusRig {
  SlowDevice near{&bus, 1};
  SlowDevice far{&bus, 2};
  Orv::CLinuxIoPin latch{9, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  spi_ioc_transfer transfers[1] = {};
  Varnel::stSpiMultipleTransferSettings several;

  DeviceRig() {
    near.setChipSelector(&selector);
    latch.connect();
    transfers[0].speed_hz = 100000;
    transfers[0].bits_per_word = 1;
    several.ioc_transfer = transfers;
    several.transfer_count = 1;
  }

  void chain() {
    near.setDeviceChain(std::make_shared<std::vector<CLinuxSpiDevice*>>(
        std::vector<CLinuxSpiDevice*>{&near, &far}));
  }
};

/// The steps of one plain transfer; `outer` log each of its failures after the bus and the device.
std::vector<Step> plainSteps(const std::string& bits, const std::string& busFunction,
                             const Lines& outer) {
  const std::string message =
      "ioctl(7, SPI_IOC_MESSAGE(1), {tx=null rx=null len=0 "
      "speed_hz=100000 bits_per_word=" +
      bits + "}) = 0";
  return {{"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0", "can't set max speed hz",
           wire::lines("varnel/common/LinuxSpiBus.cpp " + busFunction, kExecuteTransfer, outer)},
          {message, kMessageText, wire::lines(kExecuteTransfer, outer)},
          {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0", "can't set max speed hz",
           wire::lines(kExecuteTransfer, outer)}};
}

void append(std::vector<Step>& steps, const std::vector<Step>& more) {
  steps.insert(steps.end(), more.begin(), more.end());
}

void recover(DeviceRig& rig) {
  rig.selector.enable(false);
  if (rig.bus.isOpen()) {
    rig.bus.close();
  }
  rig.bus.setSpiSpeedKHz(500);
  rig.bus.open();
}

TEST(DeviceFaults, ExecuteTransfer) {
  FaultSweep<DeviceRig>([](DeviceRig& rig) { return rig.near.executeTransfer(); })
      .recoversBy(recover)
      .run(plainSteps("1", "transferData", {}));
}

TEST(DeviceFaults, ExecuteTransferOfSeveral) {
  FaultSweep<DeviceRig>([](DeviceRig& rig) {
    return static_cast<CLinuxSpiDevice&>(rig.near).executeTransfer(rig.several);
  })
      .recoversBy(recover)
      .run(plainSteps("1", "transferMultipleData", {}));
}

/// The steps of a managed transfer of a slow device.
std::vector<Step> managedSteps(const std::string& busFunction) {
  const Lines both = wire::lines("varnel/common/LinuxSpiBus.cpp " + busFunction, kExecuteManaged);
  const Lines device = {kExecuteManaged};
  const std::string rest = " rx=null len=0 speed_hz=100000 bits_per_word=1}) = 0";
  std::vector<Step> steps = {
      {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0", "can't set max speed hz", both},
      {"close(7) = 0", "can't close device", both}};
  const Lines open = opening("0", "0", "100000");
  const char* const texts[] = {"can't open device",       "can't set spi mode",
                               "can't get spi mode",      "can't set spi mode",
                               "can't set bits per word", "can't get bits per word",
                               "can't set max speed hz",  "can't get max speed hz"};
  for (size_t i = 0; i < open.size(); ++i) {
    steps.push_back({open[i], texts[i], both});
  }
  append(steps,
         {{"ioctl(7, SPI_IOC_MESSAGE(1), {tx=[]" + rest, kMessageText, device},
          {"select(chip, true) = 0", "", both},
          {"ioctl(7, SPI_IOC_MESSAGE(1), {tx=null" + rest, kMessageText, device},
          {"select(chip, false) = 0", "", both},
          {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0", "can't set max speed hz", device}});
  return steps;
}

TEST(DeviceFaults, ExecuteManagedTransfer) {
  FaultSweep<DeviceRig>(
      [](DeviceRig& rig) { return rig.near.executeManagedTransfer(Varnel::CS_SELECT_DESELECT); })
      .recoversBy(recover)
      .run(managedSteps("executeManagedTransfer"));
}

TEST(DeviceFaults, ExecuteManagedTransferOfSeveral) {
  FaultSweep<DeviceRig>([](DeviceRig& rig) {
    return static_cast<CLinuxSpiDevice&>(rig.near).executeManagedTransfer(
        rig.several, Varnel::CS_SELECT_DESELECT);
  })
      .recoversBy(recover)
      .run(managedSteps("executeManagedTransferMultipleData"));
}

TEST(DeviceFaults, ExecuteChainedDataTransferWithoutChain) {
  FaultSweep<DeviceRig>([](DeviceRig& rig) { return rig.near.executeChainedDataTransfer(); })
      .recoversBy(recover)
      .run(plainSteps("1", "transferData", {kChained}));
}

TEST(DeviceFaults, ExecuteChainedDataTransfer) {
  std::vector<Step> steps = plainSteps("2", "transferData", {kChained});
  append(steps, plainSteps("1", "transferData", {kChained}));
  FaultSweep<DeviceRig>([](DeviceRig& rig) {
    rig.chain();
    return rig.near.executeChainedDataTransfer();
  })
      .recoversBy(recover)
      .run(steps);
}

TEST(DeviceFaults, LatchedTransferOfAChain) {
  const Lines places = {kChained, kTransferData};
  std::vector<Step> steps = {{"pin 9: write LOW = 0", "", {kTransferData}}};
  append(steps, plainSteps("2", "transferData", places));
  append(steps, plainSteps("1", "transferData", places));
  append(steps, {{"pin 9: write HIGH = 0", "", {kTransferData}},
                 {"pin 9: write LOW = 0", "", {kTransferData}}});
  FaultSweep<DeviceRig>([](DeviceRig& rig) {
    rig.chain();
    rig.near.setLatchPin(&rig.latch);
    return rig.near.transferData(CLinuxSpiDevice::DO_TRANSFER);
  })
      .leaves([](DeviceRig& rig, const std::string& line) {
        if (line.find("ioctl") == 0) {
          EXPECT_EQ(rig.wire.pinLevel(9), 0) << "not pulsed";
        }
      })
      .recoversBy(recover)
      .run(steps);
}

TEST(DeviceFaults, TransferWithoutLatchPin) {
  FaultSweep<DeviceRig>(
      [](DeviceRig& rig) { return rig.near.transferData(CLinuxSpiDevice::DO_TRANSFER); })
      .recoversBy(recover)
      .run(plainSteps("1", "transferData", {kChained, kTransferData}));
}

}  // namespace
