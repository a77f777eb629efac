// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/CounterRig.h"
#include "tests/wire/FaultSweep.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD_p.h"

namespace {

using Private = Varnel::iC_MD::CSpiQuadratureCounter48BitPrivate;
using wire::lines;

constexpr char kBus[] = "varnel/common/LinuxSpiBus.cpp executeManagedTransfer";
constexpr char kDevice[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
constexpr char kFailed[] = "can't transfer data via CLinuxSpiBus";
constexpr char kTransferCounterData[] =
    "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.cpp transferCounterData";
constexpr char kReadFromHardware[] =
    "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.cpp readFromHardware";

TEST(IcMdPrivate, StartsAtZero) {
  const OpenCounter counter;
  const Private& d = *counter.d_ptr;
  EXPECT_EQ(d.q_ptr, &counter);
  EXPECT_EQ(d.SPI_RxBuffer, 0);
  EXPECT_EQ(d.SPI_TxBuffer, 0);
  for (const Orv::CHasFlags<uint8_t>& reg : d.Configuration) {
    EXPECT_EQ(reg.m_Data, 0);
  }
  for (const int64_t byte : d.CounterBytes) {
    EXPECT_EQ(byte, 0);
  }
  for (const int64_t counted : d.Counters) {
    EXPECT_EQ(counted, 0);
  }
}

TEST(IcMdPrivate, KeepsItsFieldsInOrderWithTheirTypes) {
  const size_t pointer = sizeof(void*);
  const size_t bytes = pointer == 8 ? 24 : 16;
  EXPECT_EQ(offsetof(Private, q_ptr), 0U);
  EXPECT_EQ(offsetof(Private, SPI_RxBuffer), pointer);
  EXPECT_EQ(offsetof(Private, SPI_TxBuffer), pointer + 1);
  EXPECT_EQ(offsetof(Private, Configuration), pointer + 2);
  EXPECT_EQ(offsetof(Private, CounterBytes), bytes);
  EXPECT_EQ(offsetof(Private, Counters), bytes + 48);
  EXPECT_EQ(sizeof(Private), bytes + 72);
  EXPECT_TRUE((std::is_same_v<decltype(Private::Configuration), Orv::CHasFlags<uint8_t>[8]>));
  EXPECT_TRUE((std::is_same_v<decltype(Private::CounterBytes), int64_t[6]>));
  EXPECT_TRUE((std::is_same_v<decltype(Private::Counters), int64_t[3]>));
}

TEST(IcMdPrivate, CountsTheBytesOfEachConfiguration) {
  OpenCounter counter;
  const std::vector<int> bytes = {3, 6, 6, 2, 4, 6, 4, 6};
  for (uint8_t configuration = 0; configuration < 8; ++configuration) {
    counter.setRegisterValue(0, 0xFF, static_cast<uint8_t>(0xA8 + configuration));
    EXPECT_EQ(counter.d_ptr->counterConfig(), configuration);
    EXPECT_EQ(counter.d_ptr->numberOfBytes(), bytes[configuration]);
  }
}

TEST(IcMdPrivate, KeepsTheBytesAsReceived) {
  CounterRig rig;
  rig.counter.setRegisterValue(0, 0x07, 4);
  rig.receivesData({0xFF, 0x80, 0x01, 0xFE});
  EXPECT_EQ(rig.counter.d_ptr->transferCounterData(), 0);
  const Private& d = *rig.counter.d_ptr;
  EXPECT_EQ(d.CounterBytes[0], 255);
  EXPECT_EQ(d.CounterBytes[1], 128);
  EXPECT_EQ(d.CounterBytes[2], 1);
  EXPECT_EQ(d.CounterBytes[3], 254);
  EXPECT_EQ(d.CounterBytes[4], 0);
  EXPECT_EQ(d.Counters[0], 0) << "not unpacked yet";
  rig.wire.discard();
}

TEST(IcMdPrivate, UnpacksOnlyTheCountersOfTheConfiguration) {
  OpenCounter counter;
  Private& d = *counter.d_ptr;
  for (int i = 0; i < 6; ++i) {
    d.CounterBytes[i] = i + 1;
  }
  counter.setRegisterValue(0, 0x07, 7);
  d.retrieveCounterValuesFromData();
  EXPECT_EQ(d.Counters[0], 0x0506);
  EXPECT_EQ(d.Counters[1], 0x0304);
  EXPECT_EQ(d.Counters[2], 0x0102);
  counter.setRegisterValue(0, 0x07, 5);
  d.retrieveCounterValuesFromData();
  EXPECT_EQ(d.Counters[0], 0x03040506);
  EXPECT_EQ(d.Counters[1], 0x0102);
  EXPECT_EQ(d.Counters[2], 0x0102);
}

TEST(IcMdPrivate, AnIndexChangeThatCannotBeSentStaysInTheCopy) {
  CounterRig rig;
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.counter.setClearCounterOnIndex(1, true), -5);
  EXPECT_EQ(rig.counter.d_ptr->Configuration[1].m_Data, 0x40);
  rig.wire.discard();
}

std::vector<wire::Step> readingSteps(const wire::Lines& outer) {
  const wire::Lines driver = lines(kTransferCounterData, outer);
  return {{"select(chip, true) = 0", "", lines(kBus, kDevice, driver)},
          {counterByte("88"), kFailed, lines(kDevice, driver)},
          {counterByte("00"), kFailed, lines(kDevice, driver)},
          {counterByte("00"), kFailed, lines(kDevice, driver)},
          {"select(chip, false) = 0", "", lines(kBus, kDevice, driver)}};
}

TEST(IcMdPrivateFaults, ReadFromHardware) {
  wire::FaultSweep<CounterRig>([](CounterRig& rig) {
    rig.counter.setRegisterValue(0, 0x07, 3);
    return rig.counter.d_ptr->readFromHardware();
  })
      .leaves([](CounterRig& rig, const std::string& line) {
        EXPECT_EQ(rig.selector.selected(), line != "select(chip, true) = 0");
        EXPECT_EQ(rig.counter.d_ptr->Counters[0], 0);
      })
      .recoversBy([](CounterRig& rig) { rig.counter.enableChipSelect(false); })
      .run(readingSteps({kReadFromHardware}));
}

TEST(IcMdPrivateFaults, TransferCounterData) {
  wire::FaultSweep<CounterRig>([](CounterRig& rig) {
    rig.counter.setRegisterValue(0, 0x07, 3);
    return rig.counter.d_ptr->transferCounterData();
  }).recoversBy([](CounterRig& rig) {
      rig.counter.enableChipSelect(false);
    }).run(readingSteps({}));
}

}  // namespace
