// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxSpiBus_p.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <type_traits>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CLinuxSpiBus;
using Varnel::CLinuxSpiBusPrivate;
using wire::Lines;
using wire::lines;
using wire::Wire;

/// A bus is its virtual table and the pointer to its private part.
CLinuxSpiBusPrivate& privateOf(const CLinuxSpiBus& bus) {
  void* words[2];
  std::memcpy(words, static_cast<const void*>(&bus), sizeof(words));
  return *static_cast<CLinuxSpiBusPrivate*>(words[1]);
}

TEST(SpiBusPrivate, TheRegistryStartsEmpty) {
  EXPECT_TRUE(CLinuxSpiBusPrivate::Registry.empty());
  EXPECT_TRUE((std::is_same_v<decltype(CLinuxSpiBusPrivate::Registry),
                              std::map<std::string, CLinuxSpiBus*>>));
}

TEST(SpiBusPrivate, StartsWithItsDefaults) {
  const CLinuxSpiBus bus;
  const CLinuxSpiBusPrivate& d = privateOf(bus);
  EXPECT_EQ(d.q_ptr, &bus);
  EXPECT_EQ(d.DeviceName, "/dev/spidev1.0");
  EXPECT_EQ(d.FileDescriptor, 0);
  EXPECT_EQ(d.TransferSettings.Mode, 0U);
  EXPECT_EQ(d.TransferSettings.LSBFirst, 0);
  EXPECT_EQ(d.DataBits, 8);
  EXPECT_EQ(d.SpeedHz, 500000U);
  EXPECT_EQ(d.SpeedHz_TemporaryBuffer, 500000U);
  EXPECT_FALSE(d.TransferSettingsChanged);
}

TEST(SpiBusPrivate, KeepsItsFieldsInOrderWithTheirTypes) {
  CLinuxSpiBus bus;
  CLinuxSpiBusPrivate& d = privateOf(bus);
  const void* const fields[] = {&d.q_ptr,
                                &d.DeviceName,
                                &d.FileDescriptor,
                                &d.TransferSettings,
                                &d.DataBits,
                                &d.SpeedHz,
                                &d.SpeedHz_TemporaryBuffer,
                                &d.Mutex,
                                &d.TransferSettingsChanged};
  EXPECT_EQ(fields[0], &d);
  for (size_t i = 1; i < std::size(fields); ++i) {
    EXPECT_LT(fields[i - 1], fields[i]) << i;
  }
  EXPECT_TRUE((std::is_same_v<decltype(d.DataBits), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.SpeedHz), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.SpeedHz_TemporaryBuffer), uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.Mutex), std::recursive_mutex>));
  EXPECT_EQ(&d.Mutex, &bus.transferMutex());
}

TEST(SpiBusPrivate, MarksEverySuccessfulChangeOnTheOpenNode) {
  BusRig rig;
  CLinuxSpiBusPrivate& d = privateOf(rig.bus);
  const auto marks = [&d](TErrCode code) {
    EXPECT_EQ(code, 0);
    const bool marked = d.TransferSettingsChanged;
    d.TransferSettingsChanged = false;
    return marked;
  };
  EXPECT_TRUE(marks(rig.bus.setMode(1)));
  EXPECT_FALSE(marks(rig.bus.setMode(1)));
  EXPECT_TRUE(marks(rig.bus.setLSBFirst(1)));
  EXPECT_FALSE(marks(rig.bus.setLSBFirst(1)));
  EXPECT_TRUE(marks(rig.bus.setSpiSpeedKHz(1)));
  EXPECT_FALSE(marks(rig.bus.setSpiSpeedKHz(1)));
  EXPECT_FALSE(marks(rig.bus.close()));
  EXPECT_FALSE(marks(rig.bus.setMode(2)));
  EXPECT_FALSE(marks(rig.bus.setSpiSpeedKHz(2)));
  EXPECT_FALSE(marks(rig.bus.open()));
  rig.wire.discard();
}

TEST(SpiBusPrivate, RefusedChangesAreNotMarked) {
  BusRig rig;
  rig.wire.fails("WR_MODE", EIO).fails("WR_LSB", EIO).fails("WR_MAX", EIO);
  EXPECT_EQ(rig.bus.setMode(1), -5);
  EXPECT_EQ(rig.bus.setLSBFirst(1), -5);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(1), -5);
  EXPECT_FALSE(privateOf(rig.bus).TransferSettingsChanged);
  rig.wire.discard();
}

TEST(SpiBusPrivate, OpenNeitherSetsNorClearsTheMark) {
  BusRig rig;
  CLinuxSpiBusPrivate& d = privateOf(rig.bus);
  d.TransferSettingsChanged = true;
  rig.bus.close();
  EXPECT_EQ(rig.bus.open(), 0);
  EXPECT_TRUE(d.TransferSettingsChanged);
  rig.wire.discard();
}

TEST(SpiBusPrivate, AManagedTransferClearsTheMarkWhenItSettled) {
  BusRig rig;
  CLinuxSpiBusPrivate& d = privateOf(rig.bus);
  d.TransferSettingsChanged = true;
  Varnel::stSpiTransferSettings settings;
  rig.wire.fails("tx=[]", EIO);
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), -5);
  EXPECT_TRUE(d.TransferSettingsChanged);
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_FALSE(d.TransferSettingsChanged);
  rig.wire.discard();
}

TEST(SpiBusPrivate, RestoresTheSpeedThatATemporaryOneReplaced) {
  BusRig rig;
  CLinuxSpiBusPrivate& d = privateOf(rig.bus);
  EXPECT_EQ(d.temporarilySetSPISpeed(1000), 0);
  EXPECT_EQ(d.SpeedHz, 1000U);
  EXPECT_EQ(d.SpeedHz_TemporaryBuffer, 500000U);
  EXPECT_EQ(d.restoreSPISpeed(), 0);
  EXPECT_EQ(d.SpeedHz, 500000U);
  EXPECT_EQ(d.restoreSPISpeed(), 0) << "nothing to do";
  EXPECT_EQ(rig.wire.journal(), lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000) = 0",
                                      "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0"));
}

TEST(SpiBusPrivate, ASecondTemporarySpeedReplacesTheSavedOne) {
  BusRig rig;
  CLinuxSpiBusPrivate& d = privateOf(rig.bus);
  EXPECT_EQ(d.temporarilySetSPISpeed(1000), 0);
  EXPECT_EQ(d.temporarilySetSPISpeed(2000), 0);
  EXPECT_EQ(d.restoreSPISpeed(), 0);
  EXPECT_EQ(d.SpeedHz, 1000U);
  rig.wire.discard();
}

TEST(SpiBusPrivate, AClosedBusChangesItsSpeedSilently) {
  Wire wire;
  CLinuxSpiBus bus;
  CLinuxSpiBusPrivate& d = privateOf(bus);
  EXPECT_EQ(d.temporarilySetSPISpeed(1000), 0);
  EXPECT_EQ(d.SpeedHz, 1000U);
  EXPECT_EQ(d.restoreSPISpeed(), 0);
  d.FileDescriptor = -1;
  EXPECT_EQ(d.setSpiSpeedHz(5), 0);
  EXPECT_EQ(bus.setMode(1), 0);
  EXPECT_EQ(wire.journal(), Lines{});
}

TEST(SpiBusPrivate, ARefusedSpeedStaysStored) {
  BusRig rig;
  rig.wire.fails("WR_MAX_SPEED_HZ", EINVAL);
  EXPECT_EQ(privateOf(rig.bus).setSpiSpeedHz(123), -22);
  EXPECT_EQ(privateOf(rig.bus).SpeedHz, 123U);
  EXPECT_EQ(rig.wire.journal(), lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 123) = -1 EINVAL",
                                      "perror(\"can't set max speed hz\") EINVAL"));
}

}  // namespace
