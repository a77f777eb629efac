// SPDX-License-Identifier: MIT
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/varnel/chips/CounterRig.h"
#include "tests/varnel/chips/Waiting.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using namespace Varnel::iC_MD;  // NOLINT(google-build-using-namespace): the chip's vocabulary
using wire::Lines;
using wire::lines;

constexpr char kBus[] = "varnel/common/LinuxSpiBus.cpp executeManagedTransfer";
constexpr char kDevice[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
constexpr char kFailed[] = "can't transfer data via CLinuxSpiBus";
constexpr char kReleased[] = "select(chip, false) = 0";

/// The driver's place in a log line.
std::string in(const std::string& function) {
  return "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.cpp " + function;
}

/// What connecting an unset counter looks like.
Lines connecting(const std::string& register0 = "00", const std::string& register7 = "00") {
  return lines(counterFrame({"00", register0}), counterFrame({"01", "00"}),
               counterFrame({"02", "00"}), counterFrame({"03", "00"}), counterFrame({"04", "00"}),
               counterFrame({"05", "00"}), counterFrame({"06", "00"}),
               counterFrame({"07", register7}));
}

TEST(IcMd, StartsUnboundWithItsRecord) {
  const OpenCounter counter;
  EXPECT_EQ(counter.m_Bus, nullptr);
  EXPECT_EQ(counter.m_ChipSelect, nullptr);
  EXPECT_EQ(counter.m_LatchPin, nullptr);
  const spi_ioc_transfer& transfer = counter.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, reinterpret_cast<uintptr_t>(&counter.d_ptr->SPI_TxBuffer));
  EXPECT_EQ(transfer.rx_buf, reinterpret_cast<uintptr_t>(&counter.d_ptr->SPI_RxBuffer));
  EXPECT_EQ(transfer.len, 1U);
  EXPECT_EQ(transfer.speed_hz, 1000000U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 8);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(counter.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(counter.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(IcMd, AddsOnlyAPointerToTheDevice) {
  const OpenCounter counter;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&counter.d_ptr) - reinterpret_cast<uintptr_t>(&counter),
            48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(CSpiQuadratureCounter48Bit), sizeof(void*) == 8 ? 96U : 72U);
}

TEST(IcMd, NamesItsConstants) {
  EXPECT_EQ(MAX_COUNT_OF_COUNTERS, 3);
  EXPECT_EQ(MAX_COUNT_OF_INDEX_COUNTERS, 2);
  EXPECT_EQ(MAX_COUNTER_DATA_BYTES, 6);
  EXPECT_EQ(CONFIG_REGISTER_COUNT, 8);
  EXPECT_EQ(WRITE_DUMMY, 0);
  EXPECT_EQ(REG_COUNTER_INPUT_CONFIG, 0x00);
  EXPECT_EQ(REG1_Z_TOUCH_PROBE_CONFIG, 0x01);
  EXPECT_EQ(REG_POSITION_COUNTER_DATA, 0x08);
  EXPECT_EQ(REG_INSTRUCTION_BYTE, 0x30);
  EXPECT_EQ(READ_REGISTER, 0x80);
  EXPECT_EQ(BITMASK_REG0_CNTCFG, 0x07);
  EXPECT_EQ(BIT_REG1_PRIOR, 0);
  EXPECT_EQ(BIT_REG1_CBZ0, 5);
  EXPECT_EQ(BIT_REG1_CBZ1, 6);
  EXPECT_EQ(BIT_REG1_TTL, 7);
  EXPECT_EQ(REG0_CNT0_24BIT, 0);
  EXPECT_EQ(REG0_CNT0_24BIT_CNT1_24BIT, 1);
  EXPECT_EQ(REG0_CNT0_48BIT, 2);
  EXPECT_EQ(REG0_CNT0_16BIT, 3);
  EXPECT_EQ(REG0_CNT0_32BIT, 4);
  EXPECT_EQ(REG0_CNT0_32BIT_CNT1_16BIT, 5);
  EXPECT_EQ(REG0_CNT0_16BIT_CNT1_16BIT, 6);
  EXPECT_EQ(REG0_CNT0_16BIT_CNT1_16BIT_CNT2_16BIT, 7);
}

TEST(IcMd, WritesARegisterInOneSelect) {
  CounterRig rig;
  EXPECT_EQ(rig.counter.writeRegister(0x03, 0x5A), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", counterByte("03"), counterByte("5a"), kReleased));
}

TEST(IcMd, WritesTheAddressAsItIs) {
  CounterRig rig;
  EXPECT_EQ(rig.counter.writeRegister(0x85, 0x11), 0);
  EXPECT_EQ(rig.wire.journal(), counterFrame({"85", "11"}));
}

TEST(IcMd, ReadsARegisterWithZeroAsTheSecondByte) {
  CounterRig rig;
  rig.wire.receives({0x99}).receives({0xC3});
  uint8_t value = 0;
  EXPECT_EQ(rig.counter.readRegister(0x05, value), 0);
  EXPECT_EQ(value, 0xC3);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", counterByte("85"), counterByte("00"), kReleased));
}

TEST(IcMd, DropsTheAddressesTopBitWhenReading) {
  CounterRig rig;
  uint8_t value = 0;
  EXPECT_EQ(rig.counter.readRegister(0x85, value), 0);
  EXPECT_EQ(rig.counter.readRegister(0xFF, value), 0);
  EXPECT_EQ(rig.wire.journal(), lines(counterFrame({"85", "00"}), counterFrame({"ff", "00"})));
}

TEST(IcMd, ConnectsByWritingEightRegistersInOrder) {
  CounterRig rig;
  EXPECT_EQ(rig.counter.connect(), 0);
  EXPECT_EQ(rig.wire.journal(), connecting());
}

TEST(IcMd, SendsWhatTheCopyHolds) {
  CounterRig rig;
  for (uint8_t reg = 0; reg < 8; ++reg) {
    rig.counter.setRegisterValue(reg, 0xFF, static_cast<uint8_t>(0x10 + reg));
  }
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.counter.connect(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(counterFrame({"00", "10"}), counterFrame({"01", "11"}),
                                      counterFrame({"02", "12"}), counterFrame({"03", "13"}),
                                      counterFrame({"04", "14"}), counterFrame({"05", "15"}),
                                      counterFrame({"06", "16"}), counterFrame({"07", "17"})));
}

TEST(IcMd, ChangesOnlyTheBitsOfTheMask) {
  CounterRig rig;
  rig.counter.setRegisterValue(7, 0xFF, 0xA5);
  rig.counter.setRegisterValue(7, 0x0F, 0xFC);
  rig.counter.setRegisterValue(0, 0x07, 0xFF);
  rig.counter.setRegisterValue(0, 0x02, 0x00);
  rig.counter.setRegisterBitValue(0, 7, true);
  rig.counter.setRegisterBitValue(7, 7, false);
  rig.counter.setRegisterBitValue(7, 0, true);
  EXPECT_EQ(rig.counter.connect(), 0);
  EXPECT_EQ(rig.wire.journal(), connecting("85", "2d"));
}

TEST(IcMd, ARegisterOrBitOutsideChangesNothing) {
  CounterRig rig;
  for (const uint8_t reg : std::vector<uint8_t>{8, 9, 16, 255}) {
    rig.counter.setRegisterValue(reg, 0xFF, 0xFF);
    rig.counter.setRegisterBitValue(reg, 0, true);
  }
  for (const uint8_t bit : std::vector<uint8_t>{8, 9, 32, 255}) {
    rig.counter.setRegisterBitValue(0, bit, true);
    rig.counter.setRegisterBitValue(7, bit, true);
  }
  EXPECT_EQ(rig.counter.connect(), 0);
  EXPECT_EQ(rig.wire.journal(), connecting());
}

TEST(IcMd, WritingARegisterLeavesTheCopyAlone) {
  CounterRig rig;
  EXPECT_EQ(rig.counter.writeRegister(0, 0xFF), 0);
  rig.wire.discard();
  EXPECT_EQ(rig.counter.connect(), 0);
  EXPECT_EQ(rig.wire.journal(), connecting());
}

/// One configuration: what is clocked out, what came in, what the counters then are.
struct Layout {
  uint8_t configuration;
  std::vector<uint8_t> data;
  std::vector<int64_t> counters;
};

TEST(IcMd, SplitsTheDataAsTheConfigurationSays) {
  const std::vector<Layout> layouts = {
      {0, {0x12, 0x34, 0x56}, {0x123456, 0, 0}},
      {1, {0x91, 0x23, 0x45, 0x86, 0x78, 0x9A}, {0x86789A, 0x912345, 0}},
      {2, {0x91, 0x23, 0x45, 0x86, 0x78, 0x9A}, {0x91234586789A, 0, 0}},
      {3, {0x91, 0x23}, {0x9123, 0, 0}},
      {4, {0x91, 0x23, 0x45, 0x86}, {0x91234586, 0, 0}},
      {5, {0x91, 0x23, 0x45, 0x86, 0x78, 0x9A}, {0x4586789A, 0x9123, 0}},
      {6, {0x91, 0x23, 0x45, 0x86}, {0x4586, 0x9123, 0}},
      {7, {0x91, 0x23, 0x45, 0x86, 0x78, 0x9A}, {0x789A, 0x4586, 0x9123}},
  };
  for (const Layout& layout : layouts) {
    SCOPED_TRACE(int{layout.configuration});
    CounterRig rig;
    rig.counter.setRegisterValue(0, 0xFF, static_cast<uint8_t>(0xF8 | layout.configuration));
    const std::vector<std::string> zeros(layout.data.size(), "00");
    std::vector<std::string> bytes = {"88"};
    bytes.insert(bytes.end(), zeros.begin(), zeros.end());
    for (uint8_t counter = 0; counter < 3; ++counter) {
      rig.receivesData(layout.data);
      int64_t position = -1;
      EXPECT_EQ(rig.counter.readPosition64(counter, position), 0);
      EXPECT_EQ(position, layout.counters[counter]);
      EXPECT_EQ(rig.wire.journal(), counterFrame(bytes));
    }
  }
}

TEST(IcMd, ReadsACounterOf24BitsIn4Bytes) {
  CounterRig rig;
  rig.receivesData({0x12, 0x34, 0x56});
  int32_t position = 0;
  EXPECT_EQ(rig.counter.readPosition32(0, position), 0);
  EXPECT_EQ(position, 0x123456);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", counterByte("88"), counterByte("00"), counterByte("00"),
                  counterByte("00"), kReleased));
}

TEST(IcMd, GivesTheSecondCounterFromTheFirstBytes) {
  CounterRig rig;
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_24BIT_CNT1_24BIT);
  int32_t position = 0;
  rig.receivesData({0x00, 0x00, 0x01, 0x00, 0x00, 0x02});
  EXPECT_EQ(rig.counter.readPosition32(0, position), 0);
  EXPECT_EQ(position, 2);
  rig.receivesData({0x00, 0x00, 0x01, 0x00, 0x00, 0x02});
  EXPECT_EQ(rig.counter.readPosition32(1, position), 0);
  EXPECT_EQ(position, 1);
  rig.wire.discard();
}

TEST(IcMd, ExtendsNoSign) {
  CounterRig rig;
  int64_t position64 = 0;
  int32_t position32 = 0;
  rig.receivesData({0xFF, 0xFF, 0xFF});
  EXPECT_EQ(rig.counter.readPosition64(0, position64), 0);
  EXPECT_EQ(position64, 16777215);
  rig.receivesData({0xFF, 0xFF, 0xFF});
  EXPECT_EQ(rig.counter.readPosition32(0, position32), 0);
  EXPECT_EQ(position32, 16777215);
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_48BIT);
  rig.receivesData({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(rig.counter.readPosition64(0, position64), 0);
  EXPECT_EQ(position64, 281474976710655);
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_16BIT);
  rig.receivesData({0xFF, 0xFF});
  EXPECT_EQ(rig.counter.readPosition64(0, position64), 0);
  EXPECT_EQ(position64, 65535);
  rig.wire.discard();
}

TEST(IcMd, CutsToTheWidthOfTheResult) {
  CounterRig rig;
  int32_t position32 = 0;
  int16_t position16 = 0;
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_16BIT);
  rig.receivesData({0xFF, 0xFE});
  EXPECT_EQ(rig.counter.readPosition16(0, position16), 0);
  EXPECT_EQ(position16, -2);
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_32BIT);
  rig.receivesData({0xFF, 0xFF, 0xFF, 0xFD});
  EXPECT_EQ(rig.counter.readPosition32(0, position32), 0);
  EXPECT_EQ(position32, -3);
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_48BIT);
  rig.receivesData({0x12, 0x34, 0x80, 0x00, 0x80, 0x01});
  EXPECT_EQ(rig.counter.readPosition32(0, position32), 0);
  EXPECT_EQ(position32, -2147450879);
  rig.receivesData({0x12, 0x34, 0x80, 0x00, 0x80, 0x01});
  EXPECT_EQ(rig.counter.readPosition16(0, position16), 0);
  EXPECT_EQ(position16, -32767);
  rig.wire.discard();
}

TEST(IcMd, CountersOutsideTheConfigurationKeepTheirValues) {
  CounterRig rig;
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_16BIT_CNT1_16BIT_CNT2_16BIT);
  int64_t position = 0;
  rig.receivesData({0x00, 0x03, 0x00, 0x02, 0x00, 0x01});
  EXPECT_EQ(rig.counter.readPosition64(2, position), 0);
  EXPECT_EQ(position, 3);
  rig.counter.setRegisterValue(0, 0x07, REG0_CNT0_16BIT);
  rig.receivesData({0x00, 0x09});
  EXPECT_EQ(rig.counter.readPosition64(2, position), 0);
  EXPECT_EQ(position, 3);
  rig.receivesData({0x00, 0x09});
  EXPECT_EQ(rig.counter.readPosition64(1, position), 0);
  EXPECT_EQ(position, 2);
  rig.receivesData({0x00, 0x09});
  EXPECT_EQ(rig.counter.readPosition64(0, position), 0);
  EXPECT_EQ(position, 9);
  rig.wire.discard();
}

TEST(IcMd, RefusesACounterThatIsNotThere) {
  CounterRig rig;
  int64_t position64 = 5;
  int32_t position32 = 5;
  int16_t position16 = 5;
  for (const uint8_t counter : std::vector<uint8_t>{3, 4, 255}) {
    EXPECT_EQ(rig.counter.readPosition64(counter, position64), -22);
    EXPECT_EQ(rig.counter.readPosition32(counter, position32), -22);
    EXPECT_EQ(rig.counter.readPosition16(counter, position16), -22);
    EXPECT_EQ(rig.counter.clearCounter(counter), -22);
    EXPECT_EQ(rig.counter.setClearCounterOnIndex(counter, true), -22);
  }
  EXPECT_EQ(rig.counter.setClearCounterOnIndex(2, true), -22);
  EXPECT_EQ(position64, 5);
  EXPECT_EQ(position32, 5);
  EXPECT_EQ(position16, 5);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.counter.connect(), 0);
  EXPECT_EQ(rig.wire.journal(), connecting()) << "the copy is as it was";
}

TEST(IcMd, ClearsACounterThroughTheInstructionByte) {
  CounterRig rig;
  EXPECT_EQ(rig.counter.clearCounter(0), 0);
  EXPECT_EQ(rig.counter.clearCounter(1), 0);
  EXPECT_EQ(rig.counter.clearCounter(2), 0);
  EXPECT_EQ(rig.wire.journal(), lines(counterFrame({"30", "01"}), counterFrame({"30", "02"}),
                                      counterFrame({"30", "04"})));
}

TEST(IcMd, SendsRegisterOneToClearOnTheIndex) {
  CounterRig rig;
  EXPECT_EQ(rig.counter.setClearCounterOnIndex(1, true), 0);
  EXPECT_EQ(rig.wire.journal(), counterFrame({"01", "40"}));
  rig.counter.setRegisterBitValue(1, BIT_REG1_TTL, true);
  EXPECT_EQ(rig.counter.setClearCounterOnIndex(0, true), 0);
  EXPECT_EQ(rig.counter.setClearCounterOnIndex(1, false), 0);
  EXPECT_EQ(rig.counter.setClearCounterOnIndex(0, false), 0);
  EXPECT_EQ(rig.wire.journal(), lines(counterFrame({"01", "e0"}), counterFrame({"01", "a0"}),
                                      counterFrame({"01", "80"})));
}

TEST(IcMd, RunsAtOneMegahertzOnABusOfThatSpeed) {
  CounterRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(1000);
  rig.bus.open();
  rig.wire.discard();
  EXPECT_EQ(rig.counter.writeRegister(1, 2), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", counterByte("01", "1000000"),
                                      counterByte("02", "1000000"), kReleased));
}

/// On a faster bus: slow down, settle with this before the byte.
Lines settling() {
  return lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0", "close(7) = 0",
               opening("0", "0", "1000000"),
               "ioctl(7, SPI_IOC_MESSAGE(1), "
               "{tx=[ff] rx=in len=1 speed_hz=1000000 bits_per_word=8}) = 1");
}

TEST(IcMd, OnAFasterBusSettlesBeforeEveryByteAlsoWhileSelected) {
  CounterRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(2000);
  rig.bus.open();
  rig.wire.discard();
  const std::string restored = "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0";
  EXPECT_EQ(rig.counter.writeRegister(1, 2), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(settling(), "select(chip, true) = 0", counterByte("01", "1000000"), restored,
                  settling(), counterByte("02", "1000000"), kReleased, restored));
}

TEST(IcMd, SwitchesTheBusToModeZeroAndMostSignificantBitFirst) {
  CounterRig rig;
  rig.bus.setMode(3);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.counter.writeRegister(1, 2), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 0) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                  "close(7) = 0", opening(),
                  "ioctl(7, SPI_IOC_MESSAGE(1), "
                  "{tx=[ff] rx=in len=1 speed_hz=500000 bits_per_word=8}) = 1",
                  counterFrame({"01", "02"})));
}

/// Every operation that talks to the chip, and how many calls it makes.
struct Exchange {
  const char* name;
  std::function<TErrCode(OpenCounter&)> run;
  int calls;
};

std::vector<Exchange> exchanges() {
  return {{"writeRegister", [](OpenCounter& counter) { return counter.writeRegister(0, 0); }, 4},
          {"readRegister",
           [](OpenCounter& counter) {
             uint8_t value = 0;
             return counter.readRegister(0, value);
           },
           4},
          {"connect", [](OpenCounter& counter) { return counter.connect(); }, 32},
          {"readPosition64",
           [](OpenCounter& counter) {
             int64_t position = 0;
             return counter.readPosition64(0, position);
           },
           6},
          {"readPosition32",
           [](OpenCounter& counter) {
             int32_t position = 0;
             return counter.readPosition32(0, position);
           },
           6},
          {"readPosition16",
           [](OpenCounter& counter) {
             int16_t position = 0;
             return counter.readPosition16(0, position);
           },
           6},
          {"clearCounter", [](OpenCounter& counter) { return counter.clearCounter(0); }, 4},
          {"setClearCounterOnIndex",
           [](OpenCounter& counter) { return counter.setClearCounterOnIndex(0, true); }, 4}};
}

TEST(IcMd, HoldsTheBusForItsWholeExchange) {
  for (const Exchange& exchange : exchanges()) {
    SCOPED_TRACE(exchange.name);
    CounterRig rig;
    int calls = 0;
    rig.wire.atEachCall([&] {
      ++calls;
      EXPECT_FALSE(wire::isFree(rig.mutex()));
    });
    EXPECT_EQ(exchange.run(rig.counter), 0);
    EXPECT_EQ(calls, exchange.calls);
    EXPECT_TRUE(wire::isFree(rig.mutex()));
    rig.wire.discard();
  }
}

TEST(IcMd, WaitsForTheBusToClearButNotToRefuseARead) {
  CounterRig rig;
  int64_t position = 0;
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&] { rig.counter.readPosition64(3, position); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&] {
    rig.counter.setRegisterValue(0, 0xFF, 1);
    rig.counter.setRegisterBitValue(0, 1, true);
  }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&] { rig.counter.clearCounter(3); }));
  EXPECT_FALSE(
      finishesWithoutTheBus(rig.mutex(), [&] { rig.counter.setClearCounterOnIndex(2, true); }));
}

struct Recording : OpenCounter {
  std::vector<Varnel::eCS_Handling> handlings;

  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    handlings.push_back(handling);
    return 0;
  }
};

TEST(IcMd, TransfersThroughTheVirtualManagedTransfer) {
  BusRig rig;
  Recording counter;
  counter.setBus(&rig.bus);
  EXPECT_EQ(counter.writeRegister(0, 0), 0);
  int64_t position = 0;
  EXPECT_EQ(counter.readPosition64(0, position), 0);
  EXPECT_EQ(counter.handlings,
            (std::vector<Varnel::eCS_Handling>{Varnel::CS_JUST_SELECT, Varnel::CS_JUST_DESELECT,
                                               Varnel::CS_JUST_SELECT, Varnel::CS_NOTHING,
                                               Varnel::CS_NOTHING, Varnel::CS_JUST_DESELECT}));
}

/// The steps of a register access that ends by releasing the chip; `outer` logs after that.
std::vector<wire::Step> accessSteps(const std::string& first, const std::string& second,
                                    const std::string& function, const Lines& outer = {}) {
  const Lines driver = lines(in(function), kReleased, outer);
  return {{"select(chip, true) = 0", "", lines(kBus, kDevice, driver)},
          {counterByte(first), kFailed, lines(kDevice, driver)},
          {counterByte(second), kFailed, lines(kDevice, driver)},
          {"select(chip, false) = 0", "", lines(kBus, kDevice, driver)}};
}

void expectReleased(CounterRig& rig, const std::string&) {
  EXPECT_FALSE(rig.selector.selected());
}

TEST(IcMdFaults, WriteRegister) {
  wire::FaultSweep<CounterRig>([](CounterRig& rig) { return rig.counter.writeRegister(2, 0x77); })
      .leaves(expectReleased)
      .run(accessSteps("02", "77", "writeRegister"));
}

TEST(IcMdFaults, ReadRegister) {
  static uint8_t value;
  wire::FaultSweep<CounterRig>([](CounterRig& rig) {
    value = 0x42;
    return rig.counter.readRegister(2, value);
  })
      .leaves([](CounterRig& rig, const std::string& line) {
        expectReleased(rig, line);
        EXPECT_EQ(value, 0x42);
      })
      .run(accessSteps("82", "00", "readRegister"));
}

TEST(IcMdFaults, ClearCounter) {
  wire::FaultSweep<CounterRig>([](CounterRig& rig) { return rig.counter.clearCounter(1); })
      .leaves(expectReleased)
      .run(accessSteps("30", "02", "writeRegister"));
}

TEST(IcMdFaults, SetClearCounterOnIndexKeepsTheChangeInTheCopy) {
  wire::FaultSweep<CounterRig>(
      [](CounterRig& rig) { return rig.counter.setClearCounterOnIndex(0, true); })
      .leaves([](CounterRig& rig, const std::string& line) {
        expectReleased(rig, line);
        EXPECT_EQ(rig.counter.setClearCounterOnIndex(1, true), 0);
        EXPECT_EQ(rig.wire.journal(), counterFrame({"01", "60"}));
      })
      .run(accessSteps("01", "20", "writeRegister"));
}

TEST(IcMdFaults, ConnectWritesNoFurtherRegister) {
  std::vector<wire::Step> steps;
  for (const char* reg : {"00", "01", "02", "03", "04", "05", "06", "07"}) {
    for (const wire::Step& step : accessSteps(reg, "00", "writeRegister", {in("connect")})) {
      steps.push_back(step);
    }
  }
  wire::FaultSweep<CounterRig>([](CounterRig& rig) { return rig.counter.connect(); })
      .leaves(expectReleased)
      .run(steps);
}

TEST(IcMdFaults, AFailingReleaseAfterAFailureIsIgnored) {
  CounterRig rig;
  rig.wire.fails("MESSAGE", EIO).fails("select(chip, false)", ENODEV);
  EXPECT_EQ(rig.counter.writeRegister(1, 2), -5);
  EXPECT_EQ(rig.wire.journal().back(), "select(chip, false) = -19");
}

/// What one failing call of a read leaves in the journal: the calls up to it and three log lines.
Lines failedRead(const std::vector<wire::Step>& steps, size_t failing) {
  Lines expected;
  for (size_t i = 0; i < failing; ++i) {
    expected.push_back(steps[i].line);
  }
  const std::string& line = steps[failing].line;
  const bool isSelect = line.compare(0, 6, "select") == 0;
  expected.push_back(line.substr(0, line.rfind(" = ")) + (isSelect ? " = -5" : " = -1 EIO"));
  if (!isSelect) {
    expected.push_back("perror(\"can't transfer data via CLinuxSpiBus\") EIO");
  }
  for (const std::string& place : steps[failing].places) {
    expected.push_back(wire::logged(EIO, place));
  }
  return expected;
}

TEST(IcMdFaults, SweepOfAReadThatFailsGivesTheLastPositionAndStaysSelected) {
  const Lines driver = {in("transferCounterData"), in("readFromHardware")};
  const std::vector<wire::Step> steps = {
      {"select(chip, true) = 0", "", lines(kBus, kDevice, driver)},
      {counterByte("88"), kFailed, lines(kDevice, driver)},
      {counterByte("00"), kFailed, lines(kDevice, driver)},
      {counterByte("00"), kFailed, lines(kDevice, driver)},
      {counterByte("00"), kFailed, lines(kDevice, driver)},
      {"select(chip, false) = 0", "", lines(kBus, kDevice, driver)}};
  for (size_t failing = 0; failing < steps.size(); ++failing) {
    SCOPED_TRACE(failing);
    CounterRig rig;
    rig.receivesData({0x00, 0x12, 0x34});
    int32_t position = 0;
    EXPECT_EQ(rig.counter.readPosition32(0, position), 0);
    EXPECT_EQ(position, 0x1234);
    rig.wire.discard();
    position = 77;
    rig.wire.failsCall(static_cast<unsigned>(failing) + 1, EIO);
    EXPECT_EQ(rig.counter.readPosition32(0, position), 0) << "not reported";
    EXPECT_EQ(position, 0x1234);
    EXPECT_EQ(rig.wire.journal(), failedRead(steps, failing));
    EXPECT_EQ(rig.selector.selected(), failing > 0);
    EXPECT_TRUE(wire::isFree(rig.mutex()));
    EXPECT_EQ(rig.counter.enableChipSelect(false), 0);
    rig.wire.discard();
    rig.receivesData({0x00, 0x56, 0x78});
    EXPECT_EQ(rig.counter.readPosition32(0, position), 0);
    EXPECT_EQ(position, 0x5678);
    EXPECT_EQ(rig.wire.journal(), counterFrame({"88", "00", "00", "00"}));
  }
}

TEST(IcMdFaults, EveryWidthOfAFailedReadGivesTheLastPosition) {
  CounterRig rig;
  rig.receivesData({0x00, 0x12, 0x34});
  int64_t position64 = 0;
  EXPECT_EQ(rig.counter.readPosition64(0, position64), 0);
  position64 = 0;
  int16_t position16 = 0;
  rig.wire.fails("MESSAGE", EIO).fails("MESSAGE", EIO, 2);
  EXPECT_EQ(rig.counter.readPosition64(0, position64), 0);
  EXPECT_EQ(rig.counter.readPosition16(0, position16), 0);
  EXPECT_EQ(position64, 0x1234);
  EXPECT_EQ(position16, 0x1234);
  rig.wire.discard();
}

}  // namespace
