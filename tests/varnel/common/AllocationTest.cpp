// SPDX-License-Identifier: MIT
// Successful transfers must not touch the heap: real-time threads run them.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

#include "tests/varnel/chips/EepromRig.h"
#include "tests/wire/Selector.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_IS_THE_SANITIZERS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HEAP_IS_THE_SANITIZERS 1
#endif
#endif

namespace {

std::atomic<unsigned long> allocations{0};
/// Blocks of this size are refused.
std::atomic<size_t> refusedSize{0};

}  // namespace

#ifndef HEAP_IS_THE_SANITIZERS

// operator new gets its memory from malloc, so this counts both.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

__attribute__((visibility("default"))) void* malloc(size_t size) {
  ++allocations;
  return size == refusedSize ? nullptr : __libc_malloc(size);
}

__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void* realloc(void* block, size_t size) {
  ++allocations;
  return __libc_realloc(block, size);
}
}

#endif

namespace {

using Varnel::CLinuxSpiDevice;

/// What each of a hundred runs of an operation allocates, together.
unsigned long allocationsOf(const std::function<TErrCode()>& operation) {
  int failures = 0;
  const unsigned long before = allocations;
  for (int i = 0; i < 100; ++i) {
    failures += operation() == 0 ? 0 : 1;
  }
  const unsigned long count = allocations - before;
  EXPECT_EQ(failures, 0);
  return count;
}

class Allocation : public testing::Test {
 protected:
  void SetUp() override {
#ifdef HEAP_IS_THE_SANITIZERS
    GTEST_SKIP() << "the heap is the sanitizer's";
#endif
    bus_.open();
    latch_.connect();
    wire_.discard();
    wire_.pause();
  }

  wire::Wire wire_;
  Varnel::CLinuxSpiBus bus_;
  wire::Selector selector_{"chip"};
  Orv::CLinuxIoPin latch_{9, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  CLinuxSpiDevice device_{&bus_, &selector_, &latch_};
  CLinuxSpiDevice second_{&bus_, nullptr, nullptr};
};

TEST_F(Allocation, IsCounted) {
  EXPECT_EQ(allocationsOf([] {
              const auto block = std::make_unique<volatile int>(1);
              return *block - 1;
            }),
            100U);
  EXPECT_EQ(allocationsOf([] {
              void* volatile block = std::malloc(1);
              std::free(block);
              return 0;
            }),
            100U);
}

TEST_F(Allocation, IsNotNeededByTransfersOfADevice) {
  device_.setDeviceChain(std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&device_, &second_}));
  EXPECT_EQ(allocationsOf([this] { return device_.executeTransfer(); }), 0U);
  EXPECT_EQ(allocationsOf([this] { return device_.executeChainedDataTransfer(); }), 0U);
  EXPECT_EQ(allocationsOf([this] { return device_.transferData(CLinuxSpiDevice::DO_TRANSFER); }),
            0U);
  EXPECT_EQ(
      allocationsOf([this] { return device_.executeManagedTransfer(Varnel::CS_SELECT_DESELECT); }),
      0U);
  EXPECT_EQ(wire_.pausedMessages(), 600U);
}

TEST_F(Allocation, IsNotNeededBySettlingUpToThePageThatTheKernelTakes) {
  std::vector<uint8_t> buffer(4096);
  Varnel::stSpiTransferSettings settings;
  settings.ioc_transfer.rx_buf = reinterpret_cast<uintptr_t>(buffer.data());
  settings.ioc_transfer.len = 4096;
  settings.ioc_transfer.speed_hz = 100000;
  EXPECT_EQ(allocationsOf([&] {
              return bus_.executeManagedTransfer(&device_, settings, Varnel::CS_SELECT_DESELECT);
            }),
            0U);
  EXPECT_EQ(wire_.pausedMessages(), 200U) << "one settling transfer each";
}

TEST_F(Allocation, RefusedToALongSettlingFailsTheTransfer) {
  constexpr uint32_t kLength = 123457;
  Varnel::stSpiTransferSettings settings;
  settings.ioc_transfer.len = kLength;
  bus_.setSpiSpeedKHz(1000);
  wire_.resume();
  refusedSize = kLength;
  EXPECT_EQ(bus_.executeManagedTransfer(&device_, settings, Varnel::CS_JUST_SELECT), -12);
  refusedSize = 0;
  EXPECT_FALSE(selector_.selected());
  EXPECT_EQ(wire_.journal().back(), "perror(\"can't transfer data via CLinuxSpiBus\") ENOMEM");
}

TEST_F(Allocation, IsNotNeededBySeveralTransfers) {
  spi_ioc_transfer transfers[2] = {};
  Varnel::stSpiMultipleTransferSettings settings;
  settings.ioc_transfer = transfers;
  settings.transfer_count = 2;
  EXPECT_EQ(allocationsOf([&] { return device_.executeTransfer(settings); }), 0U);
  EXPECT_EQ(allocationsOf([&] {
              return device_.executeManagedTransfer(settings, Varnel::CS_SELECT_DESELECT);
            }),
            0U);
}

TEST_F(Allocation, IsNotNeededByAConversion) {
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 adc;
  adc.setBus(&bus_);
  adc.setChipSelector(&selector_);
  uint16_t value = 0;
  EXPECT_EQ(allocationsOf([&] { return adc.readInput(&value, CLinuxSpiDevice::DO_TRANSFER); }), 0U);
  EXPECT_EQ(value, 0xEEE);
}

TEST_F(Allocation, IsNotNeededByConversionsOfTwoChannels) {
  Varnel::CSpiAnalogIn2x24Bit_ADS1248 adc;
  adc.setBus(&bus_);
  adc.setChipSelector(&selector_);
  adc.configurePins(17, 27, 22);
  EXPECT_EQ(adc.open(), -201) << "the pins are connected, the registers read as nothing";
  EXPECT_EQ(allocationsOf([&adc] { return adc.doConversion(); }), 0U);
  EXPECT_EQ(adc.readChannel(1), 0xEEEEEE);
}

TEST_F(Allocation, IsNotNeededByConversionsOfFourChannels) {
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 adc;
  adc.setBus(&bus_);
  adc.setChipSelector(&selector_);
  EXPECT_EQ(allocationsOf([&adc] { return adc.doConversion(); }), 0U);
  EXPECT_EQ(adc.readChannel(3), 0xEEEEEE);
}

TEST_F(Allocation, IsNotNeededToWriteAnalogOutputs) {
  Varnel::CSpiAnalogOut2x12Bit_MCP4822 dac;
  dac.setBus(&bus_);
  dac.setChipSelector(&selector_);
  dac.configurePins(10);
  dac.open();
  EXPECT_EQ(allocationsOf([&] { return dac.setValue(1, 1000, true); }), 0U);
  EXPECT_EQ(wire_.pausedMessages(), 201U) << "two words each, and one to settle in mode 3";
}

TEST_F(Allocation, IsNotNeededToSendATableOfPulseWidths) {
  Varnel::CSpiLedDriver12Bit_TLC5947 leds(72);
  leds.setBus(&bus_);
  leds.setLatchPin(&latch_);
  EXPECT_EQ(allocationsOf([&] { return leds.setPWMs(0, 71, 4095, true); }), 0U);
  EXPECT_EQ(wire_.pausedMessages(), 100U);
}

TEST_F(Allocation, IsNotNeededToReadACounter) {
  Varnel::iC_MD::CSpiQuadratureCounter48Bit counter;
  counter.setBus(&bus_);
  counter.setChipSelector(&selector_);
  int32_t position = 0;
  EXPECT_EQ(allocationsOf([&] { return counter.readPosition32(0, position); }), 0U);
  EXPECT_EQ(position, 0xEEEEEE);
  EXPECT_EQ(allocationsOf([&] { return counter.connect(); }), 0U);
}

TEST_F(Allocation, IsNotNeededToReadAndWriteAMemory) {
  OpenEeprom eeprom;
  eeprom.setBus(&bus_);
  eeprom.setChipSelector(&selector_);
  uint8_t byte = 0;
  EXPECT_EQ(allocationsOf([&] { return eeprom.readByte(0x123, byte); }), 0U);
  EXPECT_EQ(byte, 0xEE);
  EXPECT_EQ(allocationsOf([&] { return eeprom.writeByte(0x123, 1); }), 0U);
  EXPECT_EQ(wire_.pausedMessages(), 800U);
}

TEST_F(Allocation, IsNotNeededToSetAPotentiometer) {
  Varnel::CSpiPotentiometer16Bit_AD529x pot;
  pot.setBus(&bus_);
  pot.setLatchPin(&latch_);
  uint16_t value = 0;
  EXPECT_EQ(allocationsOf([&] { return pot.writeRDAC(++value); }), 0U);
  EXPECT_EQ(allocationsOf([&] { return pot.readTpMem(0) - 0x2EE; }), 0U);
  EXPECT_EQ(wire_.pausedMessages(), 300U);
}

}  // namespace
