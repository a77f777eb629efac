// SPDX-License-Identifier: MIT
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/Waiting.h"
#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Pot = Varnel::CSpiPotentiometer16Bit_AD529x;
using Varnel::CAD529xShiftRegister;
using Varnel::CLinuxSpiDevice;
using wire::Lines;
using wire::lines;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr char kFailed[] = "can't transfer data via CLinuxSpiBus";

/// The driver's place in a log line.
std::string in(const std::string& function) {
  return "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.cpp " + function;
}

struct OpenPot : Pot {
  using Pot::m_Bus;
  using Pot::m_ChipSelect;
  using Pot::m_LatchPin;
  using Pot::m_RegisterRx;
  using Pot::m_RegisterTx;
  using Pot::m_RegisterTxCache;
  using Pot::m_TransferSettings;
  using Pot::privateSetRegister;
};

/// A potentiometer with SYNC on pin 22, on an open bus that is in mode 1 already.
struct PotRig : BusRig {
  OpenPot pot;
  Orv::CLinuxIoPin latch{22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};

  PotRig() {
    bus.close();
    bus.setMode(1);
    bus.open();
    pot.setBus(&bus);
    pot.setLatchPin(&latch);
    latch.connect();
    wire.name(&pot.m_RegisterTx, 2, "out");
    wire.name(&pot.m_RegisterRx, 2, "in");
    wire.discard();
  }
};

/// The message of one word, low byte first as it stands in memory.
std::string message(const std::string& bytes) {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=out[" + bytes +
         "] rx=in len=2 speed_hz=500000 bits_per_word=16}) = 2";
}

/// What one frame looks like.
Lines frame(const std::string& bytes) {
  return lines("pin 22: write LOW = 0", message(bytes), "pin 22: write HIGH = 0", "sleep(1)",
               "pin 22: write LOW = 0");
}

/// A command frame and the one that brings the answer.
Lines reading(const std::string& bytes) {
  return lines(frame(bytes), frame("00 00"));
}

TEST(Ad529xShiftRegister, TakesAWholeWord) {
  const CAD529xShiftRegister word(0xE7A5);
  EXPECT_EQ(word.m_Data, 0xE7A5);
  EXPECT_EQ(word.commandBits(), 9);
  EXPECT_EQ(word.dataBits(), 0x3A5);
  EXPECT_EQ(word.controlWord(), 5);
  EXPECT_EQ(sizeof(word), 2U);
  const CAD529xShiftRegister plain = 0x1234;
  EXPECT_EQ(plain.m_Data, 0x1234);
}

TEST(Ad529xShiftRegister, ReplacesOnlyTheFieldItIsAskedTo) {
  CAD529xShiftRegister word(0xFFFF);
  word.setCommandBits(0);
  EXPECT_EQ(word.m_Data, 0xC3FF);
  word.setDataBits(0);
  EXPECT_EQ(word.m_Data, 0xC000);
  word.setCommandBits(0xF6);
  EXPECT_EQ(word.m_Data, 0xD800);
  word.setDataBits(0xFE5A);
  EXPECT_EQ(word.m_Data, 0xDA5A);
  word.setControlWord(0xFFF5);
  EXPECT_EQ(word.m_Data, 0xDA55);
  word = 0x0000;
  word.setControlWord(0xFFFF);
  EXPECT_EQ(word.m_Data, 0x000F);
}

TEST(Ad529xShiftRegister, ComparesWholeWords) {
  EXPECT_TRUE(CAD529xShiftRegister(0x8001) == CAD529xShiftRegister(0x8001));
  EXPECT_FALSE(CAD529xShiftRegister(0x8001) == CAD529xShiftRegister(0x0001));
}

TEST(Ad529x, StartsUnboundWithItsRecord) {
  const OpenPot pot;
  EXPECT_EQ(pot.m_Bus, nullptr);
  EXPECT_EQ(pot.m_ChipSelect, nullptr);
  EXPECT_EQ(pot.m_LatchPin, nullptr);
  EXPECT_EQ(pot.m_RegisterTx.m_Data, 0x0000);
  EXPECT_EQ(pot.m_RegisterRx.m_Data, 0x0011);
  EXPECT_EQ(pot.m_RegisterTxCache.m_Data, 0xFFFF);
  const spi_ioc_transfer& transfer = pot.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, reinterpret_cast<uintptr_t>(&pot.m_RegisterTx));
  EXPECT_EQ(transfer.rx_buf, reinterpret_cast<uintptr_t>(&pot.m_RegisterRx));
  EXPECT_EQ(transfer.len, 2U);
  EXPECT_EQ(transfer.speed_hz, 0U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 16);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(pot.m_TransferSettings.bus_settings.Mode, 1U);
  EXPECT_EQ(pot.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(Ad529x, KeepsItsRegistersBehindTheDevicesFields) {
  const OpenPot pot;
  const auto offset = [&pot](const void* field) {
    return reinterpret_cast<uintptr_t>(field) - reinterpret_cast<uintptr_t>(&pot);
  };
  EXPECT_EQ(offset(&pot.m_RegisterTx), 48 + 5 * sizeof(void*));
  EXPECT_EQ(offset(&pot.m_RegisterRx), 50 + 5 * sizeof(void*));
  EXPECT_EQ(offset(&pot.m_RegisterTxCache), 52 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(Pot), sizeof(void*) == 8 ? 96U : 80U);
}

TEST(Ad529x, NamesItsCommands) {
  EXPECT_EQ(Pot::CW_NOOP, 0U);
  EXPECT_EQ(Pot::CW_WRITE_RDAC, 1U);
  EXPECT_EQ(Pot::CW_READ_RDAC, 2U);
  EXPECT_EQ(Pot::CW_STORE_RDAC, 3U);
  EXPECT_EQ(Pot::CW_RESTORE_RDAC, 4U);
  EXPECT_EQ(Pot::CW_READ_TPMEM, 5U);
  EXPECT_EQ(Pot::CW_WRITE_CTRL_REG, 6U);
  EXPECT_EQ(Pot::CW_READ_CTRL_REG, 7U);
  EXPECT_EQ(Pot::CW_SOFTWARE_SHUTDOWN, 8U);
  EXPECT_EQ(sizeof(Pot::eCommandWord), 4U);
  EXPECT_EQ(Varnel::CW_BIT_TPMEM_ENABLE, 1);
  EXPECT_EQ(Varnel::CW_BIT_RDAC_WRITE_ENABLE, 2);
  EXPECT_EQ(Varnel::CW_BIT_CALIBRATION_ENABLE, 4);
  EXPECT_EQ(Varnel::CW_BIT_TPMEM_SUCCESS, 8);
  EXPECT_TRUE(std::is_enum_v<Varnel::eControlWordBit>);
}

TEST(Ad529x, SendsAWordWithTheLatchLowAndPausesAfterItsRise) {
  PotRig rig;
  EXPECT_EQ(rig.pot.setRegister(0x2001, kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", message("01 20"), "pin 22: write HIGH = 0", "sleep(1)",
                  "pin 22: write LOW = 0"));
  EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0x2001);
}

TEST(Ad529x, UsesNoChipSelect) {
  PotRig rig;
  rig.pot.setChipSelector(&rig.selector);
  EXPECT_EQ(rig.pot.setRegister(0x2001, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), frame("01 20"));
}

TEST(Ad529x, SwitchesTheBusToModeOneAndMostSignificantBitFirst) {
  PotRig rig;
  rig.bus.setMode(0);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.pot.transferData(kDo), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0", "ioctl(7, SPI_IOC_WR_MODE, 1) = 0",
                  "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", message("00 00"),
                  "pin 22: write HIGH = 0", "sleep(1)", "pin 22: write LOW = 0"));
}

TEST(Ad529x, DoesNotRepeatAWord) {
  PotRig rig;
  EXPECT_EQ(rig.pot.setRegister(0xFFFF, kDo), 0) << "what the cache starts with";
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.pot.m_RegisterTx.m_Data, 0x0000) << "not even stored";
  EXPECT_EQ(rig.pot.setRegister(0x0000, kDo), 0);
  EXPECT_EQ(rig.pot.setRegister(0x0000, kDo), 0);
  EXPECT_EQ(rig.pot.setRegister(0x0000, kNo), 0);
  EXPECT_EQ(rig.wire.journal(), frame("00 00"));
}

TEST(Ad529x, AWordThatIsOnlyStoredDoesNotCountAsSent) {
  PotRig rig;
  EXPECT_EQ(rig.pot.setRegister(0x0412, kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.pot.m_RegisterTx.m_Data, 0x0412);
  EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0xFFFF);
  EXPECT_EQ(rig.pot.setRegister(0x0412, kDo), 0);
  EXPECT_EQ(rig.wire.journal(), frame("12 04"));
}

TEST(Ad529x, WritesTheWiperWithTheBitsAboveAsGiven) {
  struct Case {
    uint16_t value;
    std::string bytes;
  };
  for (const Case& written :
       {Case{0x0000, "00 04"}, Case{0x0200, "00 06"}, Case{0x03FF, "ff 07"}, Case{0x0400, "00 04"},
        Case{0x3C01, "01 04"}, Case{0x4000, "00 44"}, Case{0xFFFF, "ff c7"}}) {
    PotRig rig;
    EXPECT_EQ(rig.pot.writeRDAC(written.value), 0);
    EXPECT_EQ(rig.wire.journal(), frame(written.bytes)) << written.value;
  }
}

TEST(Ad529x, WritesTheLowFourBitsOfTheControlWord) {
  PotRig rig;
  EXPECT_EQ(rig.pot.writeControlWord(0xFF), 0);
  EXPECT_EQ(rig.pot.writeControlWord(0xF3), 0);
  EXPECT_EQ(rig.pot.writeControlWord(0x03), 0) << "nothing new";
  EXPECT_EQ(rig.pot.writeControlWord(0x00), 0);
  EXPECT_EQ(rig.wire.journal(), lines(frame("0f 18"), frame("03 18"), frame("00 18")));
}

TEST(Ad529x, ASecondStoreSendsNothing) {
  PotRig rig;
  EXPECT_EQ(rig.pot.storeRDAC(), 0);
  EXPECT_EQ(rig.wire.journal(), frame("00 0c"));
  EXPECT_EQ(rig.pot.storeRDAC(), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(Ad529x, AReadInBetweenLetsTheStoreOutAgain) {
  PotRig rig;
  EXPECT_EQ(rig.pot.storeRDAC(), 0);
  EXPECT_GE(rig.pot.readControlWord(), 0);
  EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0x0000);
  EXPECT_EQ(rig.pot.storeRDAC(), 0);
  EXPECT_EQ(rig.wire.journal(), lines(frame("00 0c"), reading("00 1c"), frame("00 0c")));
}

TEST(Ad529x, LoadsTheWiperFromTheMemory) {
  PotRig rig;
  EXPECT_EQ(rig.pot.loadRdacFromTpMem(), 0);
  EXPECT_EQ(rig.wire.journal(), frame("00 10"));
}

TEST(Ad529x, ReadsTheAnswerOfTheSecondFrame) {
  PotRig rig;
  rig.wire.receives({0x11, 0x01}).receives({0x34, 0xFE});
  CAD529xShiftRegister word(0x8801);
  EXPECT_EQ(rig.pot.readData(word), 0x234);
  EXPECT_EQ(rig.wire.journal(), reading("01 88"));
  EXPECT_EQ(word.m_Data, 0x8801);
  EXPECT_EQ(rig.pot.m_RegisterRx.m_Data, 0xFE34);
  EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0x0000);
}

TEST(Ad529x, ReadsByCommand) {
  PotRig rig;
  rig.wire.receives({0, 0}).receives({0xFF, 0x03});
  EXPECT_EQ(rig.pot.readData(Pot::CW_READ_RDAC), 1023);
  EXPECT_EQ(rig.wire.journal(), reading("00 08"));
  EXPECT_GE(rig.pot.readData(Pot::CW_SOFTWARE_SHUTDOWN), 0);
  EXPECT_EQ(rig.wire.journal(), reading("00 20"));
  EXPECT_GE(rig.pot.readData(static_cast<Pot::eCommandWord>(0xFFFFFFFF)), 0);
  EXPECT_EQ(rig.wire.journal(), reading("00 3c"));
}

TEST(Ad529x, ReadsAlsoWhatTheCacheHolds) {
  PotRig rig;
  EXPECT_EQ(rig.pot.setRegister(0x0800, kDo), 0);
  rig.wire.discard();
  EXPECT_GE(rig.pot.readData(Pot::CW_READ_RDAC), 0);
  EXPECT_GE(rig.pot.readData(Pot::CW_NOOP), 0);
  EXPECT_EQ(rig.wire.journal(), lines(reading("00 08"), reading("00 00")));
}

TEST(Ad529x, ReadsTheLowFourBitsOfTheControlWord) {
  PotRig rig;
  rig.wire.receives({0xFF, 0xFF}).receives({0xFB, 0xFF});
  EXPECT_EQ(rig.pot.readControlWord(), 0x0B);
  EXPECT_EQ(rig.wire.journal(), reading("00 1c"));
}

TEST(Ad529x, ReadsTheTwentyWordsOfTheMemory) {
  PotRig rig;
  rig.wire.receives({0, 0}).receives({0x21, 0x03}).receives({0, 0}).receives({0x12, 0x00});
  EXPECT_EQ(rig.pot.readTpMem(0), 0x321);
  EXPECT_EQ(rig.wire.journal(), reading("00 14"));
  EXPECT_EQ(rig.pot.readTpMem(19), 0x012);
  EXPECT_EQ(rig.wire.journal(), reading("13 14"));
}

TEST(Ad529x, RefusesAMemoryAddressThatIsNotThere) {
  PotRig rig;
  for (const uint8_t address : std::vector<uint8_t>{20, 21, 255}) {
    EXPECT_EQ(rig.pot.readTpMem(address), -513);
  }
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

/// Scripts the answers to the two status words of the memory.
void answers(PotRig& rig, const std::vector<uint8_t>& first, const std::vector<uint8_t>& second) {
  rig.wire.receives({0, 0}).receives(first).receives({0, 0}).receives(second);
}

TEST(Ad529x, CountsProgrammedWordsForTheLastAddress) {
  struct Case {
    std::vector<uint8_t> first;
    std::vector<uint8_t> second;
    TErrCode address;
  };
  for (const Case& programmed :
       {Case{{0x00, 0x00}, {0x00, 0x00}, 255}, Case{{0x01, 0x00}, {0x00, 0x00}, 0},
        Case{{0xFF, 0x01}, {0x00, 0x00}, 8}, Case{{0xFF, 0x03}, {0x03, 0x00}, 11},
        Case{{0xFF, 0x03}, {0xFF, 0x00}, 17}, Case{{0xFF, 0x03}, {0xFF, 0x03}, 19},
        Case{{0x00, 0xFC}, {0x00, 0xFC}, 255}}) {
    PotRig rig;
    answers(rig, programmed.first, programmed.second);
    EXPECT_EQ(rig.pot.readLastProgrammedMemoryAddress(), programmed.address);
    EXPECT_EQ(rig.wire.journal(), lines(reading("14 14"), reading("15 14")));
  }
}

TEST(Ad529x, ReadsTheWordLastProgrammed) {
  PotRig rig;
  answers(rig, {0xFF, 0x03}, {0x03, 0x00});
  rig.wire.receives({0, 0}).receives({0x9A, 0x01});
  EXPECT_EQ(rig.pot.readLastProgrammedTpMem(), 0x19A);
  EXPECT_EQ(rig.wire.journal(), lines(reading("14 14"), reading("15 14"), reading("0b 14")));
}

TEST(Ad529x, AnUnprogrammedMemoryHasNoLastWord) {
  PotRig rig;
  answers(rig, {0x00, 0x00}, {0x00, 0x00});
  EXPECT_EQ(rig.pot.readLastProgrammedTpMem(), -513);
  EXPECT_EQ(rig.wire.journal(), lines(reading("14 14"), reading("15 14")));
}

TEST(Ad529x, WithNoTransferTouchesNothing) {
  PotRig rig;
  EXPECT_EQ(rig.pot.transferData(kNo), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
  EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0xFFFF);
}

TEST(Ad529x, SendsAChainFromItsFarEnd) {
  PotRig rig;
  OpenPot far;
  far.setBus(&rig.bus);
  far.setRegister(0x0422, kNo);
  rig.pot.setDeviceChain(std::make_shared<std::vector<CLinuxSpiDevice*>>(
      std::vector<CLinuxSpiDevice*>{&rig.pot, &far}));
  EXPECT_EQ(rig.pot.writeRDAC(0x011), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 22: write LOW = 0",
                  "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[22 04] rx=unnamed len=2 speed_hz=500000 "
                  "bits_per_word=16}) = 2",
                  message("11 04"), "pin 22: write HIGH = 0", "sleep(1)", "pin 22: write LOW = 0"));
}

TEST(Ad529x, HoldsTheBusForItsWholeExchange) {
  struct Exchange {
    std::function<TErrCode(OpenPot&)> run;
    int calls;
  };
  for (const Exchange& exchange :
       {Exchange{[](OpenPot& pot) { return pot.setRegister(0, kDo); }, 4},
        Exchange{[](OpenPot& pot) { return pot.transferData(kDo); }, 4},
        Exchange{[](OpenPot& pot) { return pot.readTpMem(0); }, 8}}) {
    PotRig rig;
    int calls = 0;
    rig.wire.atEachCall([&] {
      ++calls;
      EXPECT_FALSE(wire::isFree(rig.mutex()));
    });
    EXPECT_GE(exchange.run(rig.pot), 0);
    EXPECT_EQ(calls, exchange.calls);
    EXPECT_TRUE(wire::isFree(rig.mutex()));
    rig.wire.discard();
  }
}

TEST(Ad529x, LooksAtTheCacheBeforeItWaitsForTheBus) {
  PotRig rig;
  rig.pot.storeRDAC();
  rig.wire.discard();
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.pot.storeRDAC(); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.pot.transferData(kNo); }));
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.pot.readTpMem(20); }));
  EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&rig] { rig.pot.setRegister(1, kNo); }));
}

struct Recording : OpenPot {
  std::recursive_mutex* mutex = nullptr;
  std::vector<bool> flags;
  std::vector<uint16_t> words;
  int chained = 0;

  TErrCode transferData(bool doWrite) override {
    EXPECT_FALSE(wire::isFree(*mutex));
    flags.push_back(doWrite);
    words.push_back(m_RegisterTx.m_Data);
    return 7;
  }
  TErrCode executeChainedDataTransfer() override {
    ++chained;
    return 3;
  }
};

TEST(Ad529x, SendsThroughTheVirtualTransferWithTheBusLocked) {
  PotRig rig;
  Recording pot;
  pot.setBus(&rig.bus);
  pot.mutex = &rig.mutex();
  EXPECT_EQ(pot.setRegister(0x1000, kDo), 7);
  EXPECT_EQ(pot.setRegister(0x1000, kNo), 7) << "only a real frame settles the cache";
  CAD529xShiftRegister word(0x0800);
  EXPECT_EQ(pot.readData(word), 0x11);
  EXPECT_EQ(pot.flags, (std::vector<bool>{true, false, true, true}));
  EXPECT_EQ(pot.words, (std::vector<uint16_t>{0x1000, 0x1000, 0x0800, 0x0000}));
  rig.wire.discard();
}

TEST(Ad529x, TransfersThroughTheVirtualChainedTransfer) {
  PotRig rig;
  Recording pot;
  pot.setBus(&rig.bus);
  pot.setLatchPin(&rig.latch);
  EXPECT_EQ(pot.OpenPot::transferData(kDo), 0);
  EXPECT_EQ(pot.chained, 1);
  EXPECT_EQ(rig.wire.journal(), lines("pin 22: write LOW = 0", "pin 22: write HIGH = 0", "sleep(1)",
                                      "pin 22: write LOW = 0"));
}

/// The steps of one frame; `outer` logs each failure after the frame.
std::vector<wire::Step> frameSteps(const std::string& bytes, const Lines& outer = {}) {
  const Lines driver = lines(in("transferData"), outer);
  return {{"pin 22: write LOW = 0", "", driver},
          {message(bytes), kFailed,
           lines("varnel/common/LinuxSpiDevice.cpp executeTransfer",
                 "varnel/common/LinuxSpiDevice.cpp executeChainedDataTransfer", driver)},
          {"pin 22: write HIGH = 0", "", lines("sleep(1)", driver)},
          {"sleep(1)"},
          {"pin 22: write LOW = 0", "", driver}};
}

/// The steps of several frames.
std::vector<wire::Step> framesSteps(const std::vector<std::string>& words, const Lines& outer) {
  std::vector<wire::Step> steps;
  for (const std::string& word : words) {
    const std::vector<wire::Step> frame = frameSteps(word, outer);
    steps.insert(steps.end(), frame.begin(), frame.end());
  }
  return steps;
}

void sweepSetting(const std::string& bytes, const std::function<TErrCode(PotRig&)>& operation) {
  wire::FaultSweep<PotRig>(operation)
      .leaves([](PotRig& rig, const std::string&) {
        EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0xFFFF);
      })
      .run(frameSteps(bytes));
}

TEST(Ad529xFaults, SetRegister) {
  sweepSetting("34 12", [](PotRig& rig) { return rig.pot.setRegister(0x1234, kDo); });
}

TEST(Ad529xFaults, TransferData) {
  sweepSetting("00 00", [](PotRig& rig) { return rig.pot.transferData(kDo); });
}

TEST(Ad529xFaults, WriteRDAC) {
  sweepSetting("01 06", [](PotRig& rig) { return rig.pot.writeRDAC(0x201); });
}

TEST(Ad529xFaults, WriteControlWord) {
  sweepSetting("03 18", [](PotRig& rig) { return rig.pot.writeControlWord(3); });
}

TEST(Ad529xFaults, StoreRDAC) {
  sweepSetting("00 0c", [](PotRig& rig) { return rig.pot.storeRDAC(); });
}

TEST(Ad529xFaults, LoadRdacFromTpMem) {
  sweepSetting("00 10", [](PotRig& rig) { return rig.pot.loadRdacFromTpMem(); });
}

/// Reads give what they read, which is above 0 with the unscripted answers 0xEEEE.
void sweepReading(const std::vector<std::string>& words, const Lines& outer,
                  const std::function<TErrCode(PotRig&)>& operation) {
  wire::FaultSweep<PotRig>([&operation](PotRig& rig) {
    return std::min(operation(rig), 0);
  }).run(framesSteps(words, outer));
}

TEST(Ad529xFaults, ReadData) {
  sweepReading({"07 08", "00 00"}, {in("readData")}, [](PotRig& rig) {
    CAD529xShiftRegister word(0x0807);
    return rig.pot.readData(word);
  });
}

TEST(Ad529xFaults, ReadDataByCommand) {
  sweepReading({"00 08", "00 00"}, {in("readData")},
               [](PotRig& rig) { return rig.pot.readData(Pot::CW_READ_RDAC); });
}

TEST(Ad529xFaults, ReadControlWord) {
  sweepReading({"00 1c", "00 00"}, {in("readData"), in("readControlWord")},
               [](PotRig& rig) { return rig.pot.readControlWord(); });
}

TEST(Ad529xFaults, ReadTpMem) {
  sweepReading({"05 14", "00 00"}, {in("readData")},
               [](PotRig& rig) { return rig.pot.readTpMem(5); });
}

TEST(Ad529xFaults, ReadLastProgrammedMemoryAddress) {
  sweepReading({"14 14", "00 00", "15 14", "00 00"},
               {in("readData"), in("readLastProgrammedMemoryAddress")},
               [](PotRig& rig) { return rig.pot.readLastProgrammedMemoryAddress(); });
}

TEST(Ad529xFaults, ReadLastProgrammedTpMem) {
  // 0x2EE twice has 14 bits set.
  std::vector<wire::Step> steps = framesSteps(
      {"14 14", "00 00", "15 14", "00 00"},
      {in("readData"), in("readLastProgrammedMemoryAddress"), in("readLastProgrammedTpMem")});
  const std::vector<wire::Step> word = framesSteps({"0d 14", "00 00"}, {in("readData")});
  steps.insert(steps.end(), word.begin(), word.end());
  wire::FaultSweep<PotRig>([](PotRig& rig) {
    return std::min(rig.pot.readLastProgrammedTpMem(), 0);
  }).run(steps);
}

TEST(Ad529xFaults, ARefusedAnswerLeavesTheCommandInTheCache) {
  PotRig rig;
  rig.wire.fails("MESSAGE", EIO, 2);
  EXPECT_EQ(rig.pot.readData(Pot::CW_READ_RDAC), -5);
  EXPECT_EQ(rig.pot.m_RegisterTxCache.m_Data, 0x0800);
  rig.wire.discard();
}

TEST(Ad529xFaults, TheLatchStaysAsTheFailedStepLeftIt) {
  struct Case {
    const char* call;
    unsigned nth;
    int level;
  };
  for (const Case& failing : {Case{"write LOW", 1, -1}, Case{"MESSAGE", 1, 0},
                              Case{"write HIGH", 1, 0}, Case{"write LOW", 2, 1}}) {
    PotRig rig;
    rig.wire.fails(failing.call, EIO, failing.nth);
    EXPECT_EQ(rig.pot.transferData(kDo), -5);
    EXPECT_EQ(rig.wire.pinLevel(22), failing.level) << failing.call << failing.nth;
    rig.wire.discard();
  }
}

}  // namespace
