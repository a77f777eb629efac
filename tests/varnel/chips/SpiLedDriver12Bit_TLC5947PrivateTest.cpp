// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947_p.h"

namespace {

using Private = Varnel::LedDriverTLC5947Private;
using Varnel::tPwmChannels;

struct OpenLeds : Varnel::CSpiLedDriver12Bit_TLC5947 {
  using CSpiLedDriver12Bit_TLC5947::CSpiLedDriver12Bit_TLC5947;
  using CSpiLedDriver12Bit_TLC5947::d;
  using CSpiLedDriver12Bit_TLC5947::m_TransferSettings;
};

TEST(Tlc5947Private, StartsWithItsDefaults) {
  const OpenLeds leds(5);
  const Private& d = *leds.d;
  EXPECT_EQ(d._this, &leds);
  EXPECT_EQ(d.PwmChannels, tPwmChannels(5));
  EXPECT_EQ(d.ShadowChannels, tPwmChannels(5));
  EXPECT_EQ(d.PwmChannelsPerLed, 1);
  EXPECT_TRUE(d.DataChanged);
  EXPECT_FALSE(d.DataTransferThread.joinable());
  EXPECT_EQ(d.TransferCount, 0U);
}

TEST(Tlc5947Private, StartsByItselfWithTwentyFourZeros) {
  const Private d(nullptr);
  EXPECT_EQ(d.PwmChannels, tPwmChannels(24));
  EXPECT_EQ(d.PwmChannelsPerLed, 1);
  EXPECT_TRUE(d.DataChanged);
}

TEST(Tlc5947Private, KeepsItsFieldsInOrderWithTheirTypes) {
  const OpenLeds leds(24);
  const Private& d = *leds.d;
  const std::vector<const void*> fields = {&d._this,
                                           &d.OutputEnablePin,
                                           &d.PwmChannels,
                                           &d.ShadowChannels,
                                           &d.PwmChannelsPerLed,
                                           &d.DataChanged,
                                           &d.DataChangedMutex,
                                           &d.DataChangedCondition,
                                           &d.DataTransferThread,
                                           &d.TransferCount};
  EXPECT_EQ(fields.front(), static_cast<const void*>(&d));
  for (size_t i = 1; i < fields.size(); ++i) {
    EXPECT_LT(fields[i - 1], fields[i]) << i;
  }
  EXPECT_TRUE((std::is_same_v<tPwmChannels, std::vector<uint16_t>>));
  EXPECT_TRUE((std::is_same_v<decltype(d.PwmChannels), tPwmChannels>));
  EXPECT_TRUE((std::is_same_v<decltype(d.ShadowChannels), tPwmChannels>));
  EXPECT_TRUE((std::is_same_v<decltype(d.PwmChannelsPerLed), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(d.DataChanged), bool>));
  EXPECT_TRUE((std::is_same_v<decltype(d.DataChangedMutex), std::mutex>));
  EXPECT_TRUE((std::is_same_v<decltype(d.DataChangedCondition), std::condition_variable>));
  EXPECT_TRUE((std::is_same_v<decltype(d.DataTransferThread), std::thread>));
  EXPECT_TRUE((std::is_same_v<decltype(d.TransferCount), uint32_t>));
}

TEST(Tlc5947Private, FindsTheFirstOutputOfALed) {
  const OpenLeds leds(24);
  EXPECT_EQ(leds.d->pwmChannelIndex(7), 7U);
  leds.d->PwmChannelsPerLed = 3;
  EXPECT_EQ(leds.d->pwmChannelIndex(0), 0U);
  EXPECT_EQ(leds.d->pwmChannelIndex(2), 6U);
  EXPECT_EQ(leds.d->pwmChannelIndex(65535), 196605U);
}

TEST(Tlc5947Private, ShadowsFollowTheTablesLengthAndNothingElse) {
  wire::Wire wire;
  Varnel::CLinuxSpiBus bus;
  OpenLeds leds(2);
  leds.setBus(&bus);
  EXPECT_EQ(leds.setPWMs(0, 1, 9, OpenLeds::NO_TRANSFER), 0);
  EXPECT_EQ(leds.d->PwmChannels, (tPwmChannels{9, 9}));
  leds.setChannelCount(1, 3);
  EXPECT_EQ(leds.d->PwmChannels, (tPwmChannels{9, 9, 0}));
  EXPECT_EQ(leds.d->ShadowChannels, tPwmChannels(3));
}

TEST(Tlc5947Private, StoresALimitedValueAndMarksTheTable) {
  BusRig rig;
  OpenLeds leds(2);
  leds.setBus(&rig.bus);
  leds.setDataChanged(false);
  EXPECT_FALSE(leds.d->DataChanged);
  EXPECT_EQ(leds.setPWM(1, 5000, OpenLeds::NO_TRANSFER), 0);
  EXPECT_EQ(leds.d->PwmChannels, (tPwmChannels{0, 4095}));
  EXPECT_TRUE(leds.d->DataChanged);
  EXPECT_EQ(leds.setPWM(2, 1, OpenLeds::NO_TRANSFER), -22);
  EXPECT_EQ(leds.setPWMs(1, 2, 1, OpenLeds::NO_TRANSFER), -22);
  EXPECT_EQ(leds.d->PwmChannels, (tPwmChannels{0, 4095}));
}

TEST(Tlc5947Private, PointsTheRecordAtTheTableAnewForEachTransfer) {
  BusRig rig;
  OpenLeds leds(2);
  leds.setBus(&rig.bus);
  leds.setChannelCount(1000, 2);
  EXPECT_EQ(leds.executeTransfer(), 0);
  const spi_ioc_transfer& transfer = leds.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, reinterpret_cast<uintptr_t>(leds.d->PwmChannels.data()));
  EXPECT_EQ(transfer.len, 4000U);
  rig.wire.discard();
}

TEST(Tlc5947Private, CountsTransfersThatFailToo) {
  BusRig rig;
  OpenLeds leds(2);
  leds.setBus(&rig.bus);
  EXPECT_EQ(leds.executeTransfer(), 0);
  EXPECT_EQ(leds.d->TransferCount, 1U);
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(leds.executeTransfer(), -5);
  EXPECT_EQ(leds.d->TransferCount, 2U);
  EXPECT_TRUE(leds.d->DataChanged) << "only transferData settles that";
  rig.wire.discard();
}

}  // namespace
