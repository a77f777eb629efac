// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <type_traits>
#include <vector>

#include "varnel/chips/digout/SpiDigOut8Bit_HC595_p.h"

namespace {

using Varnel::CHC595ChipSelectDevice;
using Varnel::CHC595ChipSelector;
using Varnel::CLinuxSpiDevice;
using Varnel::HC595ChipSelectDevicePrivate;
using Varnel::tDeviceCsConfig;
using Varnel::tDeviceCsConfigMap;

struct OpenExpander : CHC595ChipSelectDevice {
  using CHC595ChipSelectDevice::d;
};

TEST(ExpanderPrivate, StartsWithItsDefaults) {
  const OpenExpander expander;
  EXPECT_EQ(expander.d->_this, &expander);
  EXPECT_EQ(expander.d->CsAddressNone, 7);
  EXPECT_TRUE(expander.d->CsConfigMap.empty());
}

TEST(ExpanderPrivate, KeepsItsFieldsInOrderWithTheirTypes) {
  const OpenExpander expander;
  const HC595ChipSelectDevicePrivate& d = *expander.d;
  EXPECT_EQ(static_cast<const void*>(&d._this), static_cast<const void*>(&d));
  EXPECT_LT(static_cast<const void*>(&d._this), static_cast<const void*>(&d.CsAddressNone));
  EXPECT_LT(static_cast<const void*>(&d.CsAddressNone), static_cast<const void*>(&d.CsConfigMap));
  EXPECT_TRUE((std::is_same_v<decltype(d._this), CHC595ChipSelectDevice*>));
  EXPECT_TRUE((std::is_same_v<decltype(d.CsAddressNone), uint8_t>));
  EXPECT_TRUE((std::is_same_v<tDeviceCsConfigMap, std::map<uint8_t, tDeviceCsConfig>>));
  const tDeviceCsConfig config;
  EXPECT_EQ(static_cast<const void*>(&config.DeviceChain), static_cast<const void*>(&config));
  EXPECT_TRUE((std::is_same_v<decltype(config.DeviceChain),
                              std::shared_ptr<std::vector<CLinuxSpiDevice*>>>));
  EXPECT_TRUE((std::is_same_v<decltype(config.ChipSelector), std::shared_ptr<CHC595ChipSelector>>));
}

TEST(ExpanderPrivate, OwnsTheSelectorAndSharesTheChain) {
  OpenExpander expander;
  CLinuxSpiDevice device(nullptr, nullptr, nullptr);
  expander.attachSpiDevice(&device, 200, CHC595ChipSelectDevice::ImplicitTransfer);
  ASSERT_EQ(expander.d->CsConfigMap.count(200), 1U);
  const tDeviceCsConfig& config = expander.d->CsConfigMap.at(200);
  EXPECT_EQ(config.ChipSelector.get(), device.chipSelector());
  EXPECT_EQ(config.ChipSelector.use_count(), 1);
  EXPECT_EQ(config.DeviceChain, device.deviceChain());
}

TEST(ExpanderPrivate, ASecondDeviceUnderAnAddressIsDropped) {
  OpenExpander expander;
  CLinuxSpiDevice first(nullptr, nullptr, nullptr);
  CLinuxSpiDevice second(nullptr, nullptr, nullptr);
  expander.attachSpiDevice(&first, 2, CHC595ChipSelectDevice::ExplicitTransfer);
  expander.attachSpiDevice(&second, 2, CHC595ChipSelectDevice::ExplicitTransfer);
  ASSERT_EQ(expander.d->CsConfigMap.size(), 1U);
  EXPECT_EQ(expander.d->CsConfigMap.at(2).ChipSelector.get(), first.chipSelector());
  EXPECT_EQ(expander.d->CsConfigMap.at(2).DeviceChain, first.deviceChain());
}

TEST(ExpanderPrivate, KeepsTheNoneAddress) {
  OpenExpander expander;
  expander.setCsAddressNone(0);
  EXPECT_EQ(expander.d->CsAddressNone, 0);
}

}  // namespace
