// SPDX-License-Identifier: MIT
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CLinuxSpiDevice;
using Varnel::CSpiAnalogIn1x12Bit_MCP3201;
using wire::Lines;
using wire::lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr char kTransferData[] =
    "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.cpp transferData";
constexpr char kReadInput[] = "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.cpp readInput";

struct OpenAdc : CSpiAnalogIn1x12Bit_MCP3201 {
  using CSpiAnalogIn1x12Bit_MCP3201::m_AnalogIn;
  using CSpiAnalogIn1x12Bit_MCP3201::m_Bus;
  using CSpiAnalogIn1x12Bit_MCP3201::m_ChipSelect;
  using CSpiAnalogIn1x12Bit_MCP3201::m_LatchPin;
  using CSpiAnalogIn1x12Bit_MCP3201::m_TransferBuffer;
  using CSpiAnalogIn1x12Bit_MCP3201::m_TransferSettings;
};

/// A converter on an open bus of 500 kHz.
struct AdcRig : BusRig {
  OpenAdc adc;
  uint16_t value = 0x5555;

  AdcRig() {
    adc.setBus(&bus);
    adc.setChipSelector(&selector);
    wire.name(&adc.m_TransferBuffer, sizeof(adc.m_TransferBuffer), "buffer");
  }
};

const std::string kConversion =
    "ioctl(7, SPI_IOC_MESSAGE(1), "
    "{tx=null rx=buffer len=2 speed_hz=500000 bits_per_word=15}) = 2";

TEST(Mcp3201, StartsUnboundWithItsRecord) {
  const OpenAdc adc;
  EXPECT_EQ(adc.m_Bus, nullptr);
  EXPECT_EQ(adc.m_ChipSelect, nullptr);
  EXPECT_EQ(adc.m_LatchPin, nullptr);
  EXPECT_EQ(adc.m_AnalogIn, 0);
  const spi_ioc_transfer& transfer = adc.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, 0U);
  EXPECT_EQ(transfer.rx_buf, reinterpret_cast<uintptr_t>(&adc.m_TransferBuffer));
  EXPECT_EQ(transfer.len, 2U);
  EXPECT_EQ(transfer.speed_hz, 1600000U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 15);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(adc.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(adc.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(Mcp3201, KeepsItsFieldsBehindTheDevices) {
  const OpenAdc adc;
  const auto offset = [&adc](const void* field) {
    return reinterpret_cast<uintptr_t>(field) - reinterpret_cast<uintptr_t>(&adc);
  };
  // The device's last field ends at 48 + 5 pointers.
  EXPECT_EQ(offset(&adc.m_AnalogIn), 48 + 5 * sizeof(void*));
  EXPECT_EQ(offset(&adc.m_TransferBuffer), 50 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(CSpiAnalogIn1x12Bit_MCP3201), sizeof(void*) == 8 ? 96U : 72U);
  EXPECT_TRUE((std::is_same_v<decltype(adc.m_AnalogIn), uint16_t>));
  EXPECT_TRUE((std::is_same_v<decltype(adc.m_TransferBuffer), uint16_t>));
}

TEST(Mcp3201, ReadsOneWordOfFifteenBitsWhileSelected) {
  AdcRig rig;
  rig.wire.receives({0xBC, 0x0A});  // host order, as the node gives words of 9 to 16 bits
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), 0);
  EXPECT_EQ(rig.value, 0x0ABC);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", kConversion, "select(chip, false) = 0"));
}

TEST(Mcp3201, RunsAt1600KilohertzOnAFasterBus) {
  AdcRig rig;
  rig.bus.setSpiSpeedKHz(2000);
  rig.wire.discard();
  EXPECT_EQ(rig.adc.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1600000) = 0",
                  "ioctl(7, SPI_IOC_MESSAGE(1), "
                  "{tx=null rx=buffer len=2 speed_hz=1600000 bits_per_word=15}) = 2",
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0", "select(chip, false) = 0"));
}

TEST(Mcp3201, SwitchesTheBusToModeZeroAndMostSignificantBitFirst) {
  AdcRig rig;
  rig.bus.setMode(3);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.adc.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", "ioctl(7, SPI_IOC_WR_MODE, 0) = 0",
                  "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", kConversion, "select(chip, false) = 0"));
}

TEST(Mcp3201, KeepsTheLowTwelveBits) {
  struct Case {
    std::vector<uint8_t> word;
    uint16_t code;
  };
  for (const Case& converted : {Case{{0xFF, 0xFF}, 0x0FFF}, Case{{0x00, 0xF0}, 0x0000},
                                Case{{0x01, 0x68}, 0x0801}, Case{{0x34, 0x12}, 0x0234}}) {
    AdcRig rig;
    rig.wire.receives(converted.word);
    EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), 0);
    EXPECT_EQ(rig.value, converted.code);
    rig.wire.discard();
  }
}

TEST(Mcp3201, ClearsItsBufferBeforeTheTransfer) {
  AdcRig rig;
  rig.wire.receives({0xFF, 0xFF}).receives({0x34});
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), 0);
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), 0);
  EXPECT_EQ(rig.value, 0x0034);
  rig.wire.discard();
}

TEST(Mcp3201, WithNoTransferGivesTheLastCode) {
  AdcRig rig;
  EXPECT_EQ(rig.adc.readInput(&rig.value, kNo), 0);
  EXPECT_EQ(rig.value, 0) << "before the first conversion";
  rig.wire.receives({0x23, 0x01});
  EXPECT_EQ(rig.adc.transferData(kDo), 0);
  rig.wire.discard();
  EXPECT_EQ(rig.adc.readInput(&rig.value, kNo), 0);
  EXPECT_EQ(rig.value, 0x0123);
  EXPECT_EQ(rig.adc.transferData(kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Mcp3201, AFailingTransferLeavesTheValueAndTheSelect) {
  AdcRig rig;
  rig.wire.receives({0x23, 0x01});
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), 0);
  rig.value = 0x5555;
  rig.wire.discard();
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), -5);
  EXPECT_EQ(rig.value, 0x5555);
  EXPECT_TRUE(rig.selector.selected());
  EXPECT_EQ(rig.adc.m_AnalogIn, 0x0123) << "the last code stays, too";
  rig.wire.discard();
}

TEST(Mcp3201, AFailingDeselectIsLoggedByReadInputOnly) {
  AdcRig rig;
  rig.wire.receives({0x23, 0x01}).fails("select(chip, false)", EIO);
  EXPECT_EQ(rig.adc.transferData(kDo), -5);
  EXPECT_EQ(rig.adc.m_AnalogIn, 0x0123) << "kept before the chip is deselected";
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", kConversion, "select(chip, false) = -5"));
  rig.wire.fails("select(chip, false)", EIO);
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), -5);
  EXPECT_EQ(rig.value, 0x5555);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", kConversion,
                                      "select(chip, false) = -5", wire::logged(EIO, kReadInput)));
}

TEST(Mcp3201, HoldsTheBusForItsWholeExchange) {
  AdcRig rig;
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_FALSE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.adc.transferData(kDo), 0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(rig.adc.readInput(&rig.value, kDo), 0);
  EXPECT_TRUE(wire::isFree(rig.mutex()));
  rig.wire.discard();
}

TEST(Mcp3201, WaitsForTheBusAlsoWithNoTransfer) {
  AdcRig rig;
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.transferData(kNo); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.adc.readInput(&rig.value, kNo); }));
}

struct Recording : OpenAdc {
  std::recursive_mutex* mutex = nullptr;
  bool wasLocked = false;
  bool flag = false;
  bool chained = false;

  TErrCode transferData(bool doTransfer) override {
    flag = doTransfer;
    wasLocked = !wire::isFree(*mutex);
    return chained ? OpenAdc::transferData(doTransfer) : -7;
  }
  TErrCode executeChainedDataTransfer() override {
    m_TransferBuffer = 0x7ABC;
    return 0;
  }
};

TEST(Mcp3201, ReadInputCallsTheVirtualTransferWithTheBusLocked) {
  AdcRig rig;
  Recording adc;
  adc.setBus(&rig.bus);
  adc.mutex = &rig.mutex();
  EXPECT_EQ(adc.readInput(&rig.value, kDo), -7);
  EXPECT_TRUE(adc.flag);
  EXPECT_TRUE(adc.wasLocked);
  EXPECT_EQ(rig.value, 0x5555);
  adc.readInput(&rig.value, kNo);
  EXPECT_FALSE(adc.flag);
  rig.wire.discard();
}

TEST(Mcp3201, TransfersThroughTheVirtualChainedTransfer) {
  AdcRig rig;
  Recording adc;
  adc.setBus(&rig.bus);
  adc.mutex = &rig.mutex();
  adc.chained = true;
  EXPECT_EQ(adc.readInput(&rig.value, kDo), 0);
  EXPECT_EQ(rig.value, 0x0ABC);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

/// On a faster bus, so that a conversion has every step.
struct FastBusRig : AdcRig {
  FastBusRig() {
    bus.setMode(1);
    bus.setLSBFirst(1);
    bus.setSpiSpeedKHz(2000);
  }
};

/// The steps of a conversion; `outer` logs each failure after everybody else.
std::vector<wire::Step> conversionSteps(const Lines& outer) {
  constexpr char kBus[] = "varnel/common/LinuxSpiBus.cpp transferData";
  const Lines device =
      lines("varnel/common/LinuxSpiDevice.cpp executeTransfer",
            "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer", kTransferData, outer);
  return {{"select(chip, true) = 0", "", lines(kTransferData, outer)},
          {"ioctl(7, SPI_IOC_WR_MODE, 0) = 0", "can't set spi mode", lines(kBus, device)},
          {"ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", "can't set SPI_IOC_WR_LSB_FIRST",
           lines(kBus, device)},
          {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1600000) = 0", "can't set max speed hz",
           lines(kBus, device)},
          {"ioctl(7, SPI_IOC_MESSAGE(1), "
           "{tx=null rx=buffer len=2 speed_hz=1600000 bits_per_word=15}) = 2",
           "can't transfer data via CLinuxSpiBus", device},
          {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0", "can't set max speed hz", device},
          {"select(chip, false) = 0", "", outer}};
}

void expectLeft(FastBusRig& rig, const std::string& line) {
  EXPECT_EQ(rig.selector.selected(), line != "select(chip, true) = 0");
  EXPECT_EQ(rig.value, 0x5555);
}

void recover(FastBusRig& rig) {
  rig.recover(2000);
  rig.wire.discard();
}

TEST(Mcp3201Faults, TransferData) {
  wire::FaultSweep<FastBusRig>([](FastBusRig& rig) { return rig.adc.transferData(kDo); })
      .leaves(expectLeft)
      .recoversBy(recover)
      .run(conversionSteps({}));
}

TEST(Mcp3201Faults, ReadInput) {
  wire::FaultSweep<FastBusRig>([](FastBusRig& rig) { return rig.adc.readInput(&rig.value, kDo); })
      .leaves(expectLeft)
      .recoversBy(recover)
      .run(conversionSteps({kReadInput}));
}

}  // namespace
