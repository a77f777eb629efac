// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxSpiDevice.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Orv::CLinuxIoPin;
using Varnel::CLinuxSpiDevice;
using wire::Lines;
using wire::lines;
using wire::Wire;
using Chain = std::vector<CLinuxSpiDevice*>;

/// Shows what drivers see.
struct OpenDevice : CLinuxSpiDevice {
  using CLinuxSpiDevice::CLinuxSpiDevice;
  using CLinuxSpiDevice::m_Bus;
  using CLinuxSpiDevice::m_ChipSelect;
  using CLinuxSpiDevice::m_DeviceChain;
  using CLinuxSpiDevice::m_LatchPin;
  using CLinuxSpiDevice::m_TransferSettings;
};

/// A chain member whose transfer is one journal entry.
struct Member : CLinuxSpiDevice {
  explicit Member(std::string name) : CLinuxSpiDevice(nullptr, nullptr, nullptr), name_(name) {}
  TErrCode executeTransfer() override { return wire::step("step " + name_); }

 private:
  std::string name_;
};

TEST(SpiDevice, NamesItsFlags) {
  EXPECT_TRUE(CLinuxSpiDevice::DO_TRANSFER);
  EXPECT_FALSE(CLinuxSpiDevice::NO_TRANSFER);
  EXPECT_EQ(CLinuxSpiDevice::USE_DEFAULT_BUS_SPEED, 0);
  EXPECT_TRUE((std::is_same_v<decltype(CLinuxSpiDevice::DO_TRANSFER), const bool>));
  EXPECT_TRUE((std::is_same_v<decltype(CLinuxSpiDevice::NO_TRANSFER), const bool>));
  EXPECT_TRUE((std::is_same_v<decltype(CLinuxSpiDevice::USE_DEFAULT_BUS_SPEED), const int>));
}

TEST(SpiDevice, StartsWithAnEmptyTransferOfEightBits) {
  const OpenDevice device(nullptr, nullptr, nullptr);
  spi_ioc_transfer expected;
  std::memset(&expected, 0, sizeof(expected));
  expected.bits_per_word = 8;
  EXPECT_EQ(std::memcmp(&device.m_TransferSettings.ioc_transfer, &expected, sizeof(expected)), 0);
  EXPECT_EQ(device.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(device.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(SpiDevice, KeepsItsFieldsInOrder) {
  const OpenDevice device(nullptr, nullptr, nullptr);
  const auto offset = [&device](const void* field) {
    return reinterpret_cast<uintptr_t>(field) - reinterpret_cast<uintptr_t>(&device);
  };
  const size_t pointer = sizeof(void*);
  EXPECT_EQ(offset(&device.m_TransferSettings), 8U);
  EXPECT_EQ(offset(&device.m_Bus), 48U);
  EXPECT_EQ(offset(&device.m_ChipSelect), 48 + pointer);
  EXPECT_EQ(offset(&device.m_LatchPin), 48 + 2 * pointer);
  EXPECT_EQ(offset(&device.m_DeviceChain), 48 + 3 * pointer);
  EXPECT_EQ(sizeof(CLinuxSpiDevice), pointer == 8 ? 88U : 72U);
}

struct SlotProbe : CLinuxSpiDevice {
  SlotProbe() : CLinuxSpiDevice(nullptr, nullptr, nullptr) {}
  TErrCode executeTransfer() override { return -2; }
  TErrCode executeManagedTransfer(Varnel::eCS_Handling) override { return -3; }
  TErrCode executeChainedDataTransfer() override { return -4; }
  TErrCode transferData(bool) override { return -5; }
};

TEST(SpiDevice, KeepsItsVirtualOperationsInOrder) {
  SlotProbe probe;
  void** table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&probe), sizeof(table));
  // The destructor takes two slots. A member function takes its object as its first argument.
  const auto call = [&](size_t slot) {
    return reinterpret_cast<TErrCode (*)(SlotProbe*, int)>(table[slot])(&probe, 0);
  };
  EXPECT_EQ(call(2), -2);
  EXPECT_EQ(call(3), -3);
  EXPECT_EQ(call(4), -4);
  EXPECT_EQ(call(5), -5);
  EXPECT_TRUE(std::has_virtual_destructor_v<CLinuxSpiDevice>);
}

TEST(SpiDevice, KeepsWhatItIsBoundTo) {
  Wire wire;
  Varnel::CLinuxSpiBus bus;
  Varnel::CLinuxSpiBus otherBus;
  wire::Selector selector("a");
  wire::Selector otherSelector("b");
  CLinuxIoPin latch(1, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  CLinuxIoPin otherLatch(2, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  OpenDevice device(&bus, &selector, &latch);
  EXPECT_EQ(device.m_Bus, &bus);
  EXPECT_EQ(device.chipSelector(), &selector);
  EXPECT_EQ(&device.latchPin(), &latch);
  EXPECT_EQ(&device.transferMutex(), &bus.transferMutex());
  device.setBus(&otherBus);
  device.setChipSelector(&otherSelector);
  device.setLatchPin(&otherLatch);
  EXPECT_EQ(device.m_Bus, &otherBus);
  EXPECT_EQ(device.chipSelector(), &otherSelector);
  EXPECT_EQ(&device.latchPin(), &otherLatch);
  EXPECT_EQ(&device.transferMutex(), &otherBus.transferMutex());
  device.setChipSelector(nullptr);
  device.setLatchPin(nullptr);
  EXPECT_EQ(device.chipSelector(), nullptr);
  EXPECT_EQ(device.m_LatchPin, nullptr);
  EXPECT_EQ(wire.journal(), Lines{});
}

TEST(SpiDevice, WithoutSelectorSelectsNothingSuccessfully) {
  Wire wire;
  CLinuxSpiDevice device(nullptr, nullptr, nullptr);
  EXPECT_EQ(device.enableChipSelect(true), 0);
  EXPECT_EQ(device.enableChipSelect(false), 0);
  EXPECT_EQ(wire.journal(), Lines{});
}

TEST(SpiDevice, PassesTheSelectorsResultOnWithoutLogging) {
  Wire wire;
  wire::Selector selector("chip");
  CLinuxSpiDevice device(nullptr, &selector, nullptr);
  EXPECT_EQ(device.enableChipSelect(true), 0);
  wire.fails("select", EIO);
  EXPECT_EQ(device.enableChipSelect(false), -5);
  EXPECT_EQ(wire.journal(), lines("select(chip, true) = 0", "select(chip, false) = -5"));
}

TEST(SpiDevice, TransfersItsPreparedRecordWithoutTouchingTheSelect) {
  BusRig rig;
  OpenDevice device(&rig.bus, &rig.selector, nullptr);
  device.m_TransferSettings.bus_settings.Mode = 1;
  device.m_TransferSettings.ioc_transfer.speed_hz = CLinuxSpiDevice::USE_DEFAULT_BUS_SPEED;
  EXPECT_EQ(device.executeTransfer(), 0);
  EXPECT_EQ(device.m_TransferSettings.ioc_transfer.speed_hz, 500000U);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 1) = 0",
                  "ioctl(7, SPI_IOC_MESSAGE(1), "
                  "{tx=null rx=null len=0 speed_hz=500000 bits_per_word=8}) = 0"));
}

TEST(SpiDevice, RunsManagedTransfersWithItsOwnSelectorAndRecord) {
  BusRig rig;
  wire::Selector own("own");
  OpenDevice device(&rig.bus, &own, nullptr);
  device.m_TransferSettings.ioc_transfer.bits_per_word = 9;
  const std::string message =
      "ioctl(7, SPI_IOC_MESSAGE(1), {tx=null rx=null len=0 speed_hz=500000 bits_per_word=9}) = 0";
  EXPECT_EQ(device.executeManagedTransfer(Varnel::CS_JUST_SELECT), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(own, true) = 0", message));
  EXPECT_EQ(device.executeManagedTransfer(Varnel::CS_JUST_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(), lines(message, "select(own, false) = 0"));
}

TEST(SpiDevice, RunsSeveralTransfersInOneMessage) {
  BusRig rig;
  spi_ioc_transfer transfers[2] = {};
  Varnel::stSpiMultipleTransferSettings settings;
  settings.ioc_transfer = transfers;
  settings.transfer_count = 2;
  const std::string message =
      "ioctl(7, SPI_IOC_MESSAGE(2), {tx=null rx=null len=0 speed_hz=500000 bits_per_word=0}, "
      "{tx=null rx=null len=0 speed_hz=500000 bits_per_word=0}) = 0";
  EXPECT_EQ(rig.device.executeTransfer(settings), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{message});
  EXPECT_EQ(rig.device.executeManagedTransfer(settings, Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", message, "select(chip, false) = 0"));
  EXPECT_EQ(rig.device.executeManagedTransfer(settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{message});
}

TEST(DeviceChain, IsEmptyAndOwnOnAFreshDevice) {
  CLinuxSpiDevice device(nullptr, nullptr, nullptr);
  CLinuxSpiDevice other(nullptr, nullptr, nullptr);
  ASSERT_NE(device.deviceChain(), nullptr);
  EXPECT_TRUE(device.deviceChain()->empty());
  EXPECT_EQ(device.deviceChain().use_count(), 2);
  EXPECT_NE(device.deviceChain(), other.deviceChain());
}

TEST(DeviceChain, WithoutMembersSendsTheDevicesOwnTransfer) {
  Wire wire;
  Member device("own");
  EXPECT_EQ(device.executeChainedDataTransfer(), 0);
  device.setDeviceChain(nullptr);
  EXPECT_EQ(device.deviceChain(), nullptr);
  EXPECT_EQ(device.executeChainedDataTransfer(), 0);
  EXPECT_EQ(wire.journal(), lines("step own = 0", "step own = 0"));
}

TEST(DeviceChain, SendsTheLastMemberFirst) {
  Wire wire;
  Member first("first");
  Member middle("middle");
  Member last("last");
  first.setDeviceChain(std::make_shared<Chain>(Chain{&first, &middle, &last}));
  EXPECT_EQ(first.executeChainedDataTransfer(), 0);
  EXPECT_EQ(wire.journal(), lines("step last = 0", "step middle = 0", "step first = 0"));
}

TEST(DeviceChain, EndsAtTheFirstFailure) {
  Wire wire;
  Member first("first");
  Member middle("middle");
  Member last("last");
  first.setDeviceChain(std::make_shared<Chain>(Chain{&first, &middle, &last}));
  wire.fails("middle", EIO);
  EXPECT_EQ(first.executeChainedDataTransfer(), -5);
  EXPECT_EQ(
      wire.journal(),
      lines("step last = 0", "step middle = -5",
            wire::logged(EIO, "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer")));
}

TEST(DeviceChain, SendsADeviceOnlyAsAMember) {
  Wire wire;
  Member device("own");
  Member other("other");
  device.setDeviceChain(std::make_shared<Chain>(Chain{&other}));
  EXPECT_EQ(device.executeChainedDataTransfer(), 0);
  EXPECT_EQ(wire.journal(), Lines{"step other = 0"});
  EXPECT_TRUE(other.deviceChain()->empty()) << "other members keep their chains";
}

TEST(DeviceChain, IsReleasedWithItsLastDevice) {
  auto chain = std::make_shared<Chain>();
  const std::weak_ptr<Chain> watch = chain;
  auto device = std::make_unique<CLinuxSpiDevice>(nullptr, nullptr, nullptr);
  device->setDeviceChain(chain);
  EXPECT_EQ(device->deviceChain(), chain);
  chain.reset();
  EXPECT_FALSE(watch.expired());
  device.reset();
  EXPECT_TRUE(watch.expired());
}

/// A device of one journal entry with a connected latch pin.
struct LatchRig {
  Wire wire;
  Varnel::CLinuxSpiBus bus;
  CLinuxIoPin latch{9, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Member device{"transfer"};

  LatchRig() {
    latch.connect();
    device.setBus(&bus);
    device.setLatchPin(&latch);
    wire.discard();
  }
};

TEST(LatchedTransfer, IsFramedByTheLatchPin) {
  LatchRig rig;
  EXPECT_EQ(rig.device.transferData(CLinuxSpiDevice::DO_TRANSFER), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 9: write LOW = 0", "step transfer = 0",
                                      "pin 9: write HIGH = 0", "pin 9: write LOW = 0"));
}

TEST(LatchedTransfer, WithoutLatchPinIsTheTransferAlone) {
  LatchRig rig;
  rig.device.setLatchPin(nullptr);
  EXPECT_EQ(rig.device.transferData(CLinuxSpiDevice::DO_TRANSFER), 0);
  rig.wire.fails("step", EIO);
  EXPECT_EQ(rig.device.transferData(CLinuxSpiDevice::DO_TRANSFER), -5);
  EXPECT_EQ(rig.wire.journal(),
            lines("step transfer = 0", "step transfer = -5",
                  wire::logged(EIO, "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer"),
                  wire::logged(EIO, "varnel/common/LinuxSpiDevice.cpp transferData")));
}

TEST(LatchedTransfer, WithNoTransferTouchesNothingAndDoesNotLock) {
  LatchRig rig;
  const wire::HeldElsewhere held(rig.bus.transferMutex());
  EXPECT_EQ(rig.device.transferData(CLinuxSpiDevice::NO_TRANSFER), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(LatchedTransfer, WithNoTransferNeedsNoBus) {
  CLinuxSpiDevice device(nullptr, nullptr, nullptr);
  EXPECT_EQ(device.transferData(CLinuxSpiDevice::NO_TRANSFER), 0);
}

TEST(LatchedTransfer, HoldsTheBusFromTheFirstPinWriteToTheLast) {
  LatchRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.bus.transferMutex()));
  });
  EXPECT_EQ(rig.device.transferData(CLinuxSpiDevice::DO_TRANSFER), 0);
  EXPECT_EQ(calls, 4);
  EXPECT_TRUE(wire::isFree(rig.bus.transferMutex()));
  rig.wire.discard();
}

TEST(LatchedTransfer, RunsInsideALockOfTheSameThread) {
  LatchRig rig;
  const std::lock_guard<std::recursive_mutex> lock(rig.device.transferMutex());
  EXPECT_EQ(rig.device.transferData(CLinuxSpiDevice::DO_TRANSFER), 0);
  rig.wire.discard();
}

TEST(LatchedTransfer, UsesTheDriversOwnChainedTransfer) {
  struct Driver : Member {
    Driver() : Member("plain") {}
    TErrCode executeChainedDataTransfer() override { return wire::step("step chained"); }
  };
  Wire wire;
  Varnel::CLinuxSpiBus bus;
  Driver driver;
  driver.setBus(&bus);
  EXPECT_EQ(driver.transferData(CLinuxSpiDevice::DO_TRANSFER), 0);
  EXPECT_EQ(wire.journal(), Lines{"step chained = 0"});
}

TEST(GpioPinChipSelector, WritesHighToSelectAndLowToDeselect) {
  Wire wire;
  CLinuxIoPin pin(4, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  pin.connect();
  Varnel::CGpioPinChipSelector selector(pin);
  EXPECT_EQ(selector.enable(true), 0);
  EXPECT_EQ(selector.enable(false), 0);
  wire.fails("pin 4", EIO);
  EXPECT_EQ(selector.enable(true), -5);
  EXPECT_EQ(wire.journal(),
            lines("pin 4: connect OUTPUT_PIN PIN_MODE_INVERT = 0", "pin 4: write HIGH = 0",
                  "pin 4: write LOW = 0", "pin 4: write HIGH = -5"));
}

TEST(GpioPinChipSelector, MakesItsPinAnOutput) {
  Wire wire;
  Varnel::CGpioPinChipSelector inverted(4, Orv::PIN_MODE_INVERT);
  Varnel::CGpioPinChipSelector plain(5, Orv::PIN_MODE_HW);
  EXPECT_EQ(inverted.connect(), 0);
  EXPECT_EQ(plain.connect(), 0);
  Varnel::ILinuxSpiChipSelector& selector = inverted;
  EXPECT_EQ(selector.enable(true), 0);
  wire.fails("connect", EBUSY);
  EXPECT_EQ(inverted.connect(), -16);
  EXPECT_EQ(wire.journal(),
            lines("pin 4: connect OUTPUT_PIN PIN_MODE_INVERT = 0",
                  "pin 5: connect OUTPUT_PIN PIN_MODE_HW = 0", "pin 4: write HIGH = 0",
                  "pin 4: connect OUTPUT_PIN PIN_MODE_INVERT = -16"));
}

}  // namespace
