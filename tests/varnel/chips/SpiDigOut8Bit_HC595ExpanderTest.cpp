// SPDX-License-Identifier: MIT
// The 74HC595 as a chip-select expander.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

namespace {

using Varnel::CHC595ChipSelectDevice;
using Varnel::CHC595ChipSelector;
using Varnel::CLinuxSpiDevice;
using wire::Lines;
using wire::lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr auto kExplicit = CHC595ChipSelectDevice::ExplicitTransfer;
constexpr auto kImplicit = CHC595ChipSelectDevice::ImplicitTransfer;
constexpr char kSetChipSelect[] = "varnel/chips/digout/SpiDigOut8Bit_HC595.cpp setChipSelect";

struct OpenExpander : CHC595ChipSelectDevice {
  using CHC595ChipSelectDevice::d;
  using CHC595ChipSelectDevice::m_DeviceChain;
  using CHC595ChipSelectDevice::m_Register;
  using CHC595ChipSelectDevice::m_RegisterCache;
};

struct OpenSelector : CHC595ChipSelector {
  using CHC595ChipSelector::CHC595ChipSelector;
  using CHC595ChipSelector::m_CsAddressDisabled;
  using CHC595ChipSelector::m_CsAdressEnabled;
  using CHC595ChipSelector::m_SpiDeviceHC595;
  using CHC595ChipSelector::m_TransferMode;
};

/// A device that sends one byte of its own.
struct Chip : CLinuxSpiDevice {
  uint8_t byte;

  explicit Chip(uint8_t value) : CLinuxSpiDevice(nullptr, nullptr, nullptr), byte(value) {
    m_TransferSettings.ioc_transfer.tx_buf = reinterpret_cast<uintptr_t>(&byte);
    m_TransferSettings.ioc_transfer.len = 1;
  }
  using CLinuxSpiDevice::m_ChipSelect;
  using CLinuxSpiDevice::m_DeviceChain;
  using CLinuxSpiDevice::m_TransferSettings;
};

/// An expander with its latch on pin 22 on an open bus of 500 kHz, and a chip at address 3.
struct ExpanderRig : BusRig {
  OpenExpander expander;
  Orv::CLinuxIoPin latch{22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Chip chip{0xC3};
  Chip other{0xC5};

  ExpanderRig() {
    expander.setBus(&bus);
    expander.setLatchPin(&latch);
    latch.connect();
    for (Chip* each : {&chip, &other}) {
      each->setBus(&bus);
    }
    wire.name(&expander.m_Register, 1, "address");
    wire.name(&chip.byte, 1, "chip");
    wire.name(&other.byte, 1, "other");
    wire.discard();
  }
};

/// With the none address on its outputs already, as a program starts.
struct IdleRig : ExpanderRig {
  IdleRig() {
    expander.attachSpiDevice(&chip, 3, kExplicit);
    expander.attachSpiDevice(&other, 5, kExplicit);
    expander.writeOutputs(7, kDo);
    wire.discard();
  }
};

/// With the chip at address 3 selected.
struct SelectedRig : IdleRig {
  SelectedRig() {
    expander.setChipSelect(3, kExplicit);
    wire.discard();
  }
};

std::string sent(const std::string& bytes, const std::string& speedHz = "500000") {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=" + bytes + " rx=null len=1 speed_hz=" + speedHz +
         " bits_per_word=8}) = 1";
}

const std::string kLow = "pin 22: write LOW = 0";
const std::string kHigh = "pin 22: write HIGH = 0";

TEST(Expander, IsARegisterWithAPrivatePart) {
  const OpenExpander expander;
  EXPECT_EQ(expander.m_Register, 0x00);
  EXPECT_EQ(expander.m_RegisterCache, 0xFF);
  EXPECT_TRUE(expander.m_DeviceChain->empty());
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&expander.d) - reinterpret_cast<uintptr_t>(&expander),
            48 + 6 * sizeof(void*));
  EXPECT_EQ(sizeof(CHC595ChipSelectDevice), sizeof(void*) == 8 ? 104U : 80U);
  EXPECT_EQ(kExplicit, 0);
  EXPECT_EQ(kImplicit, 1);
  EXPECT_EQ(sizeof(CHC595ChipSelectDevice::eChipSelectTransferMode), 4U);
}

TEST(Expander, ASelectorKeepsWhatItIsGiven) {
  OpenExpander expander;
  OpenExpander second;
  OpenSelector selector(&expander, 3, 6);
  EXPECT_EQ(selector.m_SpiDeviceHC595, &expander);
  EXPECT_EQ(selector.m_CsAdressEnabled, 3);
  EXPECT_EQ(selector.m_CsAddressDisabled, 6);
  EXPECT_EQ(selector.m_TransferMode, kExplicit);
  EXPECT_EQ(selector.HC595Chip(), &expander);
  selector.setHC595Chip(&second);
  EXPECT_EQ(selector.HC595Chip(), &second);
  selector.setTransferMode(kImplicit);
  EXPECT_EQ(selector.m_TransferMode, kImplicit);
  const void* const fields[] = {&selector.m_SpiDeviceHC595, &selector.m_CsAdressEnabled,
                                &selector.m_CsAddressDisabled, &selector.m_TransferMode};
  for (size_t i = 1; i < std::size(fields); ++i) {
    EXPECT_LT(fields[i - 1], fields[i]);
  }
}

TEST(Expander, AttachingGivesSelectorAndChainAndTouchesNothing) {
  ExpanderRig rig;
  EXPECT_EQ(rig.expander.attachSpiDevice(&rig.chip, 3, kImplicit), 0);
  ASSERT_NE(rig.chip.m_ChipSelect, nullptr);
  EXPECT_EQ(*rig.chip.m_DeviceChain, (std::vector<CLinuxSpiDevice*>{&rig.expander, &rig.chip}));
  EXPECT_TRUE(rig.expander.m_DeviceChain->empty());
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_TRUE(finishesWithoutTheBus(
      rig.mutex(), [&rig] { rig.expander.attachSpiDevice(&rig.other, 5, kExplicit); }));
}

TEST(Expander, TheNoneAddressCountsForSelectorsMadeLater) {
  IdleRig rig;
  rig.expander.setCsAddressNone(0x0F);
  Chip late(0);
  late.setBus(&rig.bus);
  rig.expander.attachSpiDevice(&late, 2, kImplicit);
  EXPECT_EQ(late.enableChipSelect(true), 0);
  EXPECT_EQ(rig.expander.m_Register, 2);
  EXPECT_EQ(late.enableChipSelect(false), 0);
  EXPECT_EQ(rig.expander.m_Register, 0x0F);
  EXPECT_EQ(rig.chip.enableChipSelect(true), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, sent("address[03]"), kHigh, kLow))
      << "0x0F counts as none now: the expander alone";
  EXPECT_EQ(rig.chip.enableChipSelect(false), 0);
  EXPECT_EQ(rig.expander.m_Register, 7) << "the address of when it was attached";
  rig.wire.discard();
}

TEST(Expander, FromTheNoneAddressSendsTheAddressAlone) {
  IdleRig rig;
  EXPECT_EQ(rig.expander.setChipSelect(3, kExplicit), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, sent("address[03]"), kHigh, kLow));
  EXPECT_EQ(rig.expander.m_RegisterCache, 3);
}

TEST(Expander, FromADeviceSendsItsTransferAheadOfTheAddress) {
  SelectedRig rig;
  EXPECT_EQ(rig.expander.setChipSelect(5, kExplicit), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, sent("chip[c3]"), sent("address[05]"), kHigh, kLow));
  EXPECT_EQ(rig.expander.setChipSelect(7, kExplicit), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, sent("other[c5]"), sent("address[07]"), kHigh, kLow));
}

TEST(Expander, TheCachedAddressCostsNothing) {
  SelectedRig rig;
  EXPECT_EQ(rig.expander.setChipSelect(3, kExplicit), 0);
  EXPECT_EQ(rig.expander.setChipSelect(3, kImplicit), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_TRUE(
      finishesWithoutTheBus(rig.mutex(), [&rig] { rig.expander.setChipSelect(3, kExplicit); }));
  EXPECT_FALSE(
      finishesWithoutTheBus(rig.mutex(), [&rig] { rig.expander.setChipSelect(4, kImplicit); }));
}

TEST(Expander, ImplicitOnlyStoresTheAddress) {
  IdleRig rig;
  EXPECT_EQ(rig.expander.setChipSelect(3, kImplicit), 0);
  EXPECT_EQ(rig.expander.m_Register, 3);
  EXPECT_EQ(rig.expander.m_RegisterCache, 3);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Expander, AStoredAddressRidesAlongWithTheDevicesChain) {
  ExpanderRig rig;
  rig.expander.attachSpiDevice(&rig.chip, 3, kImplicit);
  rig.expander.writeOutputs(7, kDo);
  rig.wire.discard();
  EXPECT_EQ(rig.chip.enableChipSelect(true), 0);
  EXPECT_EQ(rig.chip.executeChainedDataTransfer(), 0);
  EXPECT_EQ(rig.chip.enableChipSelect(false), 0);
  EXPECT_EQ(rig.wire.journal(), lines(sent("chip[c3]"), sent("address[03]")));
  EXPECT_EQ(rig.expander.m_Register, 7) << "waits for the next transfer";
  EXPECT_EQ(rig.chip.executeChainedDataTransfer(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(sent("chip[c3]"), sent("address[07]")));
}

TEST(Expander, TheFirstExplicitSelectionOfAFreshOneThrowsWithoutADeviceAtAddressZero) {
  ExpanderRig rig;
  rig.expander.attachSpiDevice(&rig.chip, 3, kExplicit);
  try {
    rig.expander.setChipSelect(3, kExplicit);
    FAIL() << "no exception";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "map::at");
  }
  EXPECT_EQ(rig.wire.journal(), lines(kLow));
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  EXPECT_EQ(rig.wire.pinLevel(22), 0);
  EXPECT_EQ(rig.expander.m_Register, 3);
  EXPECT_EQ(rig.expander.m_RegisterCache, 0xFF);
}

TEST(Expander, TheExceptionPassesThroughTheSelector) {
  ExpanderRig rig;
  rig.expander.attachSpiDevice(&rig.chip, 3, kExplicit);
  EXPECT_THROW(rig.chip.enableChipSelect(true), std::out_of_range);
  EXPECT_THROW(rig.chip.executeManagedTransfer(Varnel::CS_SELECT_DESELECT), std::out_of_range);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Expander, AFreshOneTakesTheDeviceAtAddressZeroForSelected) {
  ExpanderRig rig;
  rig.expander.attachSpiDevice(&rig.chip, 0, kExplicit);
  rig.expander.attachSpiDevice(&rig.other, 5, kExplicit);
  EXPECT_EQ(rig.other.enableChipSelect(true), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, sent("chip[c3]"), sent("address[05]"), kHigh, kLow));
}

TEST(Expander, AFreshOneSelects0xFFWithoutDoingAnything) {
  ExpanderRig rig;
  EXPECT_EQ(rig.expander.setChipSelect(0xFF, kExplicit), 0);
  EXPECT_EQ(rig.expander.m_Register, 0x00);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Expander, WriteOutputsBringsAFreshOneToTheNoneAddress) {
  ExpanderRig rig;
  rig.expander.attachSpiDevice(&rig.chip, 3, kExplicit);
  EXPECT_EQ(rig.expander.writeOutputs(7, kDo), 0);
  EXPECT_EQ(rig.chip.enableChipSelect(true), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(kLow, sent("address[07]"), kHigh, kLow, kLow, sent("address[03]"), kHigh, kLow));
}

TEST(Expander, AnAddressWithoutADeviceCanBeSelectedButNotLeft) {
  IdleRig rig;
  EXPECT_EQ(rig.expander.setChipSelect(4, kExplicit), 0);
  rig.wire.discard();
  EXPECT_THROW(rig.expander.setChipSelect(7, kExplicit), std::out_of_range);
  EXPECT_EQ(rig.wire.journal(), lines(kLow));
  EXPECT_EQ(rig.expander.m_RegisterCache, 4);
}

TEST(Expander, ASecondDeviceUnderAnAddressLeavesTheFirstItsPlace) {
  SelectedRig rig;
  EXPECT_EQ(rig.expander.attachSpiDevice(&rig.other, 3, kExplicit), 0);
  EXPECT_EQ(*rig.other.m_DeviceChain, (std::vector<CLinuxSpiDevice*>{&rig.expander, &rig.other}));
  EXPECT_NE(rig.other.m_ChipSelect, nullptr) << "a selector that is gone already: never called";
  EXPECT_EQ(rig.other.m_DeviceChain.use_count(), 1) << "the map keeps no share of it";
  EXPECT_EQ(rig.chip.m_DeviceChain.use_count(), 2);
  EXPECT_EQ(rig.expander.setChipSelect(7, kExplicit), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, sent("chip[c3]"), sent("address[07]"), kHigh, kLow));
}

TEST(Expander, ItsEndReleasesTheChains) {
  wire::Wire wire;
  Chip chip(0);
  {
    OpenExpander expander;
    expander.attachSpiDevice(&chip, 3, kExplicit);
    EXPECT_EQ(chip.m_DeviceChain.use_count(), 2);
  }
  EXPECT_EQ(chip.m_DeviceChain.use_count(), 1);
}

/// A device with another mode and half the speed of the bus, selected inside a managed transfer:
/// its own frame runs in the expander's mode, its frame goes out a second time while it is
/// deselected, and the lower speed stays.
TEST(Expander, InsideAManagedTransferOfAnotherModeAndSpeed) {
  IdleRig rig;
  rig.chip.m_TransferSettings.bus_settings.Mode = 3;
  rig.chip.m_TransferSettings.ioc_transfer.speed_hz = 250000;
  EXPECT_EQ(rig.chip.executeManagedTransfer(Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(
      rig.wire.journal(),
      lines("ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 250000) = 0",
            "close(7) = 0", opening("3", "0", "250000"), sent("[ff]", "250000"),
            // selecting
            kLow, "ioctl(7, SPI_IOC_WR_MODE, 0) = 0", sent("address[03]", "250000"), kHigh, kLow,
            // the device's own transfer, in mode 0
            sent("chip[c3]", "250000"),
            // deselecting
            kLow, "ioctl(7, SPI_IOC_WR_MODE, 3) = 0", sent("chip[c3]", "250000"),
            "ioctl(7, SPI_IOC_WR_MODE, 0) = 0", sent("address[07]", "250000"), kHigh, kLow));
  EXPECT_EQ(rig.wire.nodeSpeedHz(), 250000U);
  EXPECT_EQ(rig.expander.executeTransfer(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(sent("address[07]", "250000")))
      << "the expander's record is pinned to that speed, too";
}

TEST(Expander, AConverterConvertsAgainWhileItIsDeselected) {
  IdleRig rig;
  struct Adc : Varnel::CSpiAnalogIn1x12Bit_MCP3201 {
    using CSpiAnalogIn1x12Bit_MCP3201::m_TransferBuffer;
  } adc;
  adc.setBus(&rig.bus);
  rig.wire.name(&adc.m_TransferBuffer, 2, "buffer");
  rig.expander.attachSpiDevice(&adc, 1, kExplicit);
  const std::string conversion =
      "ioctl(7, SPI_IOC_MESSAGE(1), "
      "{tx=null rx=buffer len=2 speed_hz=500000 bits_per_word=15}) = 2";
  rig.wire.receives({0xBC, 0x0A}).receives({0xFF, 0x0F});
  uint16_t value = 0;
  EXPECT_EQ(adc.readInput(&value, kDo), 0);
  EXPECT_EQ(value, 0x0ABC);
  EXPECT_EQ(rig.wire.journal(),
            lines(kLow, sent("address[01]"), kHigh, kLow, conversion, sent("address[01]"), kLow,
                  conversion, sent("address[07]"), kHigh, kLow));
}

TEST(Expander, InImplicitModeAConverterIsReadBeforeItsAddressIsOut) {
  IdleRig rig;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 adc;
  adc.setBus(&rig.bus);
  rig.expander.attachSpiDevice(&adc, 1, kImplicit);
  uint16_t value = 0;
  EXPECT_EQ(adc.readInput(&value, kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_MESSAGE(1), "
                  "{tx=null rx=unnamed len=2 speed_hz=500000 bits_per_word=15}) = 2",
                  sent("address[01]")))
      << "no latch: the application has to";
}

TEST(Expander, HoldsTheBusForItsWholeChange) {
  SelectedRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.expander.setChipSelect(5, kExplicit), 0);
  EXPECT_EQ(calls, 5);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

struct Recording : OpenExpander {
  int own = 0;
  TErrCode executeTransfer() override {
    ++own;
    return 0;
  }
};

TEST(Expander, SendsTheAddressThroughTheVirtualTransfer) {
  ExpanderRig rig;
  Recording expander;
  expander.setBus(&rig.bus);
  expander.setLatchPin(&rig.latch);
  expander.setCsAddressNone(0);
  EXPECT_EQ(expander.setChipSelect(3, kExplicit), 0) << "a fresh one counts as 0, which is none";
  EXPECT_EQ(expander.own, 1);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, kHigh, kLow));
}

/// Emptied by somebody who kept the chain: nothing is sent, the latch is pulsed.
TEST(Expander, AnEmptiedChainTransfersNothing) {
  SelectedRig rig;
  rig.chip.m_DeviceChain->clear();
  EXPECT_EQ(rig.expander.setChipSelect(7, kExplicit), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kLow, kHigh, kLow));
}

void expectRetried(IdleRig& rig, uint8_t before) {
  EXPECT_EQ(rig.expander.m_Register, 5);
  EXPECT_EQ(rig.expander.m_RegisterCache, before) << "the old address: tried again";
}

TEST(ExpanderFaults, SelectingFromIdle) {
  const Lines device = {"varnel/common/LinuxSpiDevice.cpp executeTransfer", kSetChipSelect};
  wire::FaultSweep<IdleRig>([](IdleRig& rig) { return rig.expander.setChipSelect(5, kExplicit); })
      .leaves([](IdleRig& rig, const std::string&) { expectRetried(rig, 7); })
      .run({{kLow, "", {kSetChipSelect}},
            {sent("address[05]"), "can't transfer data via CLinuxSpiBus", device},
            {kHigh, "", {kSetChipSelect}},
            {kLow, "", {kSetChipSelect}}});
}

TEST(ExpanderFaults, SelectingFromAnotherDevice) {
  const Lines device = {"varnel/common/LinuxSpiDevice.cpp executeTransfer", kSetChipSelect};
  wire::FaultSweep<SelectedRig>(
      [](SelectedRig& rig) { return rig.expander.setChipSelect(5, kExplicit); })
      .leaves([](SelectedRig& rig, const std::string&) { expectRetried(rig, 3); })
      .run({{kLow, "", {kSetChipSelect}},
            {sent("chip[c3]"), "can't transfer data via CLinuxSpiBus", device},
            {sent("address[05]"), "can't transfer data via CLinuxSpiBus", device},
            {kHigh, "", {kSetChipSelect}},
            {kLow, "", {kSetChipSelect}}});
}

TEST(ExpanderFaults, SweepThroughTheSelectorOfADevice) {
  const Lines device = {"varnel/common/LinuxSpiDevice.cpp executeTransfer", kSetChipSelect};
  wire::FaultSweep<SelectedRig>([](SelectedRig& rig) { return rig.chip.enableChipSelect(false); })
      .run({{kLow, "", {kSetChipSelect}},
            {sent("chip[c3]"), "can't transfer data via CLinuxSpiBus", device},
            {sent("address[07]"), "can't transfer data via CLinuxSpiBus", device},
            {kHigh, "", {kSetChipSelect}},
            {kLow, "", {kSetChipSelect}}});
}

}  // namespace
