// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxSpiBus.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"
#include "varnel/common/TransferInfo.h"

namespace {

using Varnel::CLinuxSpiBus;
using Varnel::stSpiMultipleTransferSettings;
using Varnel::stSpiTransferSettings;
using wire::Lines;
using wire::lines;
using wire::Wire;

TEST(SpiNames, HaveTheirValues) {
  EXPECT_EQ(Varnel::SPI_CLOCK_IDLE_LOW, 0);
  EXPECT_EQ(Varnel::SPI_CLOCK_IDLE_HIGH, 1);
  EXPECT_EQ(Varnel::SPI_CAPTURE_FIRST_TRANSITION, 0);
  EXPECT_EQ(Varnel::SPI_CAPTURE_SECOND_TRANSITION, 2);
  EXPECT_EQ(Varnel::CS_SELECT_DESELECT, 0);
  EXPECT_EQ(Varnel::CS_JUST_SELECT, 1);
  EXPECT_EQ(Varnel::CS_JUST_DESELECT, 2);
  EXPECT_EQ(Varnel::CS_NOTHING, 3);
  EXPECT_EQ(Varnel::DATA_FIRST, 0);
  EXPECT_EQ(Varnel::DATA_MIDLLE, 1);
  EXPECT_EQ(Varnel::DATA_LAST, 2);
  EXPECT_EQ(Varnel::DATA_SINGLE, 3);
}

TEST(SpiRecords, HaveTheirLayout) {
  EXPECT_EQ(sizeof(Varnel::stBusSettings), 8U);
  EXPECT_EQ(offsetof(Varnel::stBusSettings, Mode), 0U);
  EXPECT_EQ(offsetof(Varnel::stBusSettings, LSBFirst), 4U);
  EXPECT_EQ(sizeof(stSpiTransferSettings), 40U);
  EXPECT_EQ(offsetof(stSpiTransferSettings, ioc_transfer), 0U);
  EXPECT_EQ(offsetof(stSpiTransferSettings, bus_settings), 32U);
  EXPECT_EQ(sizeof(stSpiMultipleTransferSettings), sizeof(void*) == 8 ? 24U : 16U);
  EXPECT_EQ(offsetof(stSpiMultipleTransferSettings, ioc_transfer), 0U);
  EXPECT_EQ(offsetof(stSpiMultipleTransferSettings, transfer_count), sizeof(void*));
  EXPECT_EQ(offsetof(stSpiMultipleTransferSettings, bus_settings), sizeof(void*) + 4U);
  EXPECT_TRUE((std::is_same_v<decltype(Varnel::stBusSettings::Mode), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(Varnel::stBusSettings::LSBFirst), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(stSpiMultipleTransferSettings::transfer_count), uint16_t>));
}

TEST(SpiRecords, StartAtZero) {
  const auto settings = std::make_unique<Varnel::stBusSettings>();
  EXPECT_EQ(settings->Mode, 0U);
  EXPECT_EQ(settings->LSBFirst, 0);
}

TEST(SpiBus, IsOnePointerBehindItsVirtualDestructor) {
  EXPECT_EQ(sizeof(CLinuxSpiBus), 2 * sizeof(void*));
  EXPECT_TRUE(std::has_virtual_destructor_v<CLinuxSpiBus>);
}

TEST(SpiBus, OpensNothingWhenConstructed) {
  Wire wire;
  const CLinuxSpiBus bus;
  EXPECT_FALSE(bus.isOpen());
  EXPECT_EQ(bus.fileDescriptor(), 0);
  EXPECT_EQ(bus.busSettings().Mode, 0U);
  EXPECT_EQ(bus.busSettings().LSBFirst, 0);
  EXPECT_EQ(wire.journal(), Lines{});
}

TEST(SpiBus, ClosesNothingWhenDestroyed) {
  Wire wire;
  {
    CLinuxSpiBus bus;
    bus.open();
    wire.discard();
  }
  EXPECT_EQ(wire.journal(), Lines{});
}

TEST(SpiBus, OpenAppliesAndReadsBackItsSettingsInOrder) {
  Wire wire;
  CLinuxSpiBus bus;
  EXPECT_EQ(bus.open(), 0);
  EXPECT_TRUE(bus.isOpen());
  EXPECT_EQ(bus.fileDescriptor(), 7);
  EXPECT_EQ(wire.journal(), opening());
}

TEST(SpiBus, TheDeviceNameTakesEffectAtTheNextOpen) {
  BusRig rig;
  rig.bus.setSPIDevice("/dev/spidev0.1");
  EXPECT_TRUE(rig.bus.isOpen());
  EXPECT_EQ(rig.wire.journal(), Lines{});
  rig.bus.open();
  EXPECT_EQ(rig.wire.journal().front(), "open(\"/dev/spidev0.1\", O_RDWR) = 8");
}

TEST(SpiBus, OpenKeepsWhatTheNodeReadsBack) {
  Wire wire;
  CLinuxSpiBus bus;
  wire.answers("RD_MODE32", 0x103).answers("RD_BITS", 16).answers("RD_MAX_SPEED", 400000);
  EXPECT_EQ(bus.open(), 0);
  EXPECT_EQ(bus.busSettings().Mode, 0x103U);
  EXPECT_EQ(bus.close(), 0);
  wire.discard();
  EXPECT_EQ(bus.open(), 0);
  EXPECT_EQ(wire.journal(),
            lines("open(\"/dev/spidev1.0\", O_RDWR) = 7", "ioctl(7, SPI_IOC_WR_MODE32, 259) = 0",
                  "ioctl(7, SPI_IOC_RD_MODE32) = 0 -> 259", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                  "ioctl(7, SPI_IOC_WR_BITS_PER_WORD, 16) = 0",
                  "ioctl(7, SPI_IOC_RD_BITS_PER_WORD) = 0 -> 16",
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 400000) = 0",
                  "ioctl(7, SPI_IOC_RD_MAX_SPEED_HZ) = 0 -> 400000"));
}

TEST(SpiBus, AFailedOpenLeavesANegativeDescriptor) {
  Wire wire;
  CLinuxSpiBus bus;
  wire.fails("open", ENOENT);
  EXPECT_EQ(bus.open(), -2);
  EXPECT_FALSE(bus.isOpen());
  EXPECT_EQ(bus.fileDescriptor(), -1);
  EXPECT_EQ(wire.journal(), lines("open(\"/dev/spidev1.0\", O_RDWR) = -1 ENOENT",
                                  "perror(\"can't open device\") ENOENT"));
}

TEST(SpiBus, AFailedBitOrderInOpenIsReportedAsTheMode) {
  Wire wire;
  CLinuxSpiBus bus;
  wire.fails("WR_LSB_FIRST", EINVAL);
  EXPECT_EQ(bus.open(), -22);
  EXPECT_TRUE(bus.isOpen()) << "the node stays open";
  EXPECT_EQ(wire.journal().back(), "perror(\"can't set spi mode\") EINVAL");
}

TEST(SpiBus, CloseForgetsTheDescriptor) {
  BusRig rig;
  EXPECT_EQ(rig.bus.close(), 0);
  EXPECT_FALSE(rig.bus.isOpen());
  EXPECT_EQ(rig.bus.fileDescriptor(), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{"close(7) = 0"});
}

TEST(SpiBus, AFailedCloseKeepsTheDescriptor) {
  BusRig rig;
  rig.wire.fails("close", EIO);
  EXPECT_EQ(rig.bus.close(), -5);
  EXPECT_EQ(rig.bus.fileDescriptor(), 7);
  EXPECT_EQ(rig.wire.journal(), lines("close(7) = -1 EIO", "perror(\"can't close device\") EIO"));
}

TEST(SpiBus, CloseOfAClosedBusClosesDescriptorZero) {
  Wire wire;
  CLinuxSpiBus bus;
  EXPECT_EQ(bus.close(), 0);
  EXPECT_EQ(wire.journal(), Lines{"close(0) = 0"});
}

TEST(SpiBus, TheModeOfAClosedBusIsAppliedByTheNextOpen) {
  Wire wire;
  CLinuxSpiBus bus;
  EXPECT_EQ(bus.setMode(3), 0);
  EXPECT_EQ(bus.busSettings().Mode, 3U);
  EXPECT_EQ(wire.journal(), Lines{});
  EXPECT_EQ(bus.open(), 0);
  EXPECT_EQ(wire.journal(), opening("3"));
}

TEST(SpiBus, WritingTheSameModeTwiceSendsOneRequestOfEightBits) {
  BusRig rig;
  EXPECT_EQ(rig.bus.setMode(3), 0);
  EXPECT_EQ(rig.bus.setMode(3), 0);
  EXPECT_EQ(rig.bus.busSettings().Mode, 3U);
  EXPECT_EQ(rig.wire.journal(), Lines{"ioctl(7, SPI_IOC_WR_MODE, 3) = 0"});
}

TEST(SpiBus, TheModeByteIsComparedWithTheWholeModeReadBack) {
  Wire wire;
  CLinuxSpiBus bus;
  wire.answers("RD_MODE32", 0x100);
  bus.open();
  wire.discard();
  EXPECT_EQ(bus.setMode(0), 0);
  EXPECT_EQ(bus.setMode(0), 0);
  EXPECT_EQ(bus.busSettings().Mode, 0U);
  EXPECT_EQ(wire.journal(), Lines{"ioctl(7, SPI_IOC_WR_MODE, 0) = 0"});
}

TEST(SpiBus, ARefusedModeStaysStored) {
  BusRig rig;
  rig.wire.fails("WR_MODE", EINVAL);
  EXPECT_EQ(rig.bus.setMode(2), -22);
  EXPECT_EQ(rig.bus.busSettings().Mode, 2U);
  EXPECT_EQ(rig.bus.setMode(2), 0) << "stored, so not sent again";
  EXPECT_EQ(rig.wire.journal(), lines("ioctl(7, SPI_IOC_WR_MODE, 2) = -1 EINVAL",
                                      "perror(\"can't set spi mode\") EINVAL"));
}

TEST(SpiBus, ABitOrderIsSentOnceAndStored) {
  BusRig rig;
  EXPECT_EQ(rig.bus.setLSBFirst(0), 0);
  EXPECT_EQ(rig.bus.setLSBFirst(1), 0);
  EXPECT_EQ(rig.bus.setLSBFirst(1), 0);
  EXPECT_EQ(rig.bus.busSettings().LSBFirst, 1);
  EXPECT_EQ(rig.wire.journal(), Lines{"ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0"});
}

TEST(SpiBus, TheBitOrderOfAClosedBusIsTriedOnDescriptorZero) {
  Wire wire;
  CLinuxSpiBus bus;
  EXPECT_EQ(bus.setLSBFirst(0), 0);
  EXPECT_EQ(bus.setLSBFirst(1), -25);
  EXPECT_EQ(bus.busSettings().LSBFirst, 0) << "a refused order isn't stored";
  EXPECT_EQ(wire.journal(), lines("ioctl(0, SPI_IOC_WR_LSB_FIRST, 1) = -1 ENOTTY",
                                  "perror(\"can't set SPI_IOC_WR_LSB_FIRST\") ENOTTY"));
}

TEST(SpiBus, TheSpeedOfAClosedBusIsAppliedByTheNextOpen) {
  Wire wire;
  CLinuxSpiBus bus;
  EXPECT_EQ(bus.setSpiSpeedKHz(65535), 0);
  EXPECT_EQ(wire.journal(), Lines{});
  EXPECT_EQ(bus.open(), 0);
  EXPECT_EQ(wire.journal(), opening("0", "0", "65535000"));
}

TEST(SpiBus, ASpeedIsSentOnceInHertz) {
  BusRig rig;
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(500), 0);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(1000), 0);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(1000), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0"});
}

TEST(SpiBus, ARefusedSpeedStaysStored) {
  BusRig rig;
  rig.wire.fails("WR_MAX_SPEED_HZ", EINVAL);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(0), -22);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(0), 0) << "stored, so not sent again";
  EXPECT_EQ(rig.wire.journal(), lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 0) = -1 EINVAL",
                                      "perror(\"can't set max speed hz\") EINVAL"));
}

TEST(SpiBus, WritesFourBytesWhateverTheData) {
  BusRig rig;
  const uint8_t data[] = {0x11, 0x00, 0x33, 0x44, 0x55};
  EXPECT_EQ(rig.bus.writeData(data), 0);
  rig.wire.fails("write", EIO);
  EXPECT_EQ(rig.bus.writeData(data), -5);
  EXPECT_EQ(rig.wire.journal(),
            lines("write(7, [11 00 33 44]) = 4", "write(7, [11 00 33 44]) = -1 EIO",
                  "perror(\"Writing data to CLinuxSpiBus\") EIO"));
}

TEST(SpiBus, ATransferWithTheSettingsOfTheBusIsOneMessage) {
  BusRig rig;
  uint8_t tx[] = {0x9F, 0x00};
  uint8_t rx[2] = {};
  rig.wire.name(tx, sizeof(tx), "tx");
  rig.wire.name(rx, sizeof(rx), "rx");
  stSpiTransferSettings settings;
  settings.ioc_transfer.tx_buf = reinterpret_cast<uintptr_t>(tx);
  settings.ioc_transfer.rx_buf = reinterpret_cast<uintptr_t>(rx);
  settings.ioc_transfer.len = 2;
  settings.ioc_transfer.bits_per_word = 12;
  settings.ioc_transfer.delay_usecs = 3;
  settings.ioc_transfer.cs_change = 1;
  rig.wire.receives({0x01, 0x02});
  EXPECT_EQ(rig.bus.transferData(settings), 0);
  EXPECT_EQ(rx[1], 0x02);
  EXPECT_EQ(rig.wire.journal(),
            Lines{"ioctl(7, SPI_IOC_MESSAGE(1), {tx=tx[9f 00] rx=rx len=2 speed_hz=500000 "
                  "delay_usecs=3 bits_per_word=12 cs_change=1}) = 2"});
}

TEST(SpiBus, ATransferSwitchesModeThenBitOrderThenSpeed) {
  BusRig rig;
  stSpiTransferSettings settings;
  settings.bus_settings.Mode = 0x103;
  settings.bus_settings.LSBFirst = 1;
  settings.ioc_transfer.speed_hz = 100000;
  EXPECT_EQ(rig.bus.transferData(settings), 0);
  EXPECT_EQ(rig.bus.busSettings().Mode, 3U) << "the low byte counts";
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0",
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0", emptyMessage("100000"),
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0"));
}

TEST(SpiBus, ATransferNeverRunsFasterThanTheBusAndItsRecordIsRewrittenForGood) {
  BusRig rig;
  stSpiTransferSettings fast;
  fast.ioc_transfer.speed_hz = 500001;
  stSpiTransferSettings unsaid;
  EXPECT_EQ(rig.bus.transferData(fast), 0);
  EXPECT_EQ(rig.bus.transferData(unsaid), 0);
  EXPECT_EQ(fast.ioc_transfer.speed_hz, 500000U);
  EXPECT_EQ(unsaid.ioc_transfer.speed_hz, 500000U);
  EXPECT_EQ(rig.wire.journal(), lines(emptyMessage(), emptyMessage()));
  rig.bus.setSpiSpeedKHz(1000);
  rig.wire.discard();
  EXPECT_EQ(rig.bus.transferData(unsaid), 0);
  EXPECT_EQ(unsaid.ioc_transfer.speed_hz, 500000U);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0", emptyMessage(),
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0"));
}

TEST(SpiBus, AFailedTransferLeavesTheLoweredSpeed) {
  BusRig rig;
  stSpiTransferSettings settings;
  settings.ioc_transfer.speed_hz = 100000;
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.bus.transferData(settings), -5);
  EXPECT_EQ(rig.wire.nodeSpeedHz(), 100000U);
  rig.wire.discard();
  stSpiTransferSettings next;
  EXPECT_EQ(rig.bus.transferData(next), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{emptyMessage("100000")}) << "it is the bus speed now";
}

TEST(SpiBus, ATransferNeverSettles) {
  BusRig rig;
  rig.bus.setSpiSpeedKHz(1000);
  rig.wire.discard();
  stSpiTransferSettings settings;
  EXPECT_EQ(rig.bus.transferData(settings), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{emptyMessage("1000000")});
}

TEST(SpiBus, SeveralTransfersAreOneMessageAtTheSpeedOfTheFirst) {
  BusRig rig;
  uint8_t rx[2] = {};
  rig.wire.name(rx, sizeof(rx), "rx");
  spi_ioc_transfer transfers[3] = {};
  transfers[0].speed_hz = 100000;
  transfers[1].speed_hz = 9000000;
  transfers[1].rx_buf = reinterpret_cast<uintptr_t>(rx);
  transfers[1].len = 2;
  stSpiMultipleTransferSettings settings;
  settings.ioc_transfer = transfers;
  settings.transfer_count = 3;
  settings.bus_settings.Mode = 0x301;
  settings.bus_settings.LSBFirst = 1;
  EXPECT_EQ(rig.bus.transferMultipleData(settings), 0);
  EXPECT_EQ(transfers[0].speed_hz, 100000U);
  EXPECT_EQ(transfers[1].speed_hz, 500000U) << "compared with the speed before the switch";
  EXPECT_EQ(transfers[2].speed_hz, 500000U);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 1) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0",
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0",
                  "ioctl(7, SPI_IOC_MESSAGE(3), "
                  "{tx=null rx=null len=0 speed_hz=100000 bits_per_word=0}, "
                  "{tx=null rx=rx len=2 speed_hz=500000 bits_per_word=0}, "
                  "{tx=null rx=null len=0 speed_hz=500000 bits_per_word=0}) = 2",
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0"));
}

TEST(SpiBus, LocksNothingItself) {
  BusRig rig;
  const wire::HeldElsewhere held(rig.bus.transferMutex());
  stSpiTransferSettings settings;
  spi_ioc_transfer transfer{};
  stSpiMultipleTransferSettings several;
  several.ioc_transfer = &transfer;
  several.transfer_count = 1;
  EXPECT_EQ(rig.bus.setMode(1), 0);
  EXPECT_EQ(rig.bus.setLSBFirst(1), 0);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(1), 0);
  EXPECT_EQ(rig.bus.transferData(settings), 0);
  EXPECT_EQ(rig.bus.transferMultipleData(several), 0);
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.bus.executeManagedTransferMultipleData(&rig.device, several, Varnel::CS_NOTHING),
            0);
  EXPECT_EQ(rig.bus.writeData("1234"), 0);
  EXPECT_EQ(rig.bus.close(), 0);
  EXPECT_EQ(rig.bus.open(), 0);
  rig.wire.discard();
}

TEST(SpiBus, HasOneRecursiveMutexOfItsOwn) {
  CLinuxSpiBus bus;
  CLinuxSpiBus other;
  EXPECT_EQ(&bus.transferMutex(), &bus.transferMutex());
  EXPECT_NE(&bus.transferMutex(), &other.transferMutex());
  const std::lock_guard<std::recursive_mutex> lock(bus.transferMutex());
  EXPECT_TRUE(bus.transferMutex().try_lock());
  bus.transferMutex().unlock();
  EXPECT_FALSE(wire::isFree(bus.transferMutex()));
}

TEST(SpiBusRegistry, KeepsTheFirstBusOfAName) {
  CLinuxSpiBus first;
  CLinuxSpiBus second;
  EXPECT_EQ(CLinuxSpiBus::getBus("registry test"), nullptr);
  CLinuxSpiBus::addBus("registry test", &first);
  CLinuxSpiBus::addBus("registry test", &second);
  CLinuxSpiBus::addBus("registry test 2", &second);
  EXPECT_EQ(CLinuxSpiBus::getBus("registry test"), &first);
  EXPECT_EQ(CLinuxSpiBus::getBus("registry test 2"), &second);
  EXPECT_EQ(CLinuxSpiBus::getBus("registry"), nullptr);
}

TEST(SpiBusRegistry, KeepsABusThatWasDestroyed) {
  auto bus = std::make_unique<CLinuxSpiBus>();
  CLinuxSpiBus* const address = bus.get();
  CLinuxSpiBus::addBus("destroyed bus", address);
  bus.reset();
  EXPECT_EQ(CLinuxSpiBus::getBus("destroyed bus"), address);
}

}  // namespace
