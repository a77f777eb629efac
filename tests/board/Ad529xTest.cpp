// SPDX-License-Identifier: MIT
// The AD529x driver against the models of the chips: words in, volts out, slots used up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "orv/Thread.h"
#include "tests/vboard/board/Parts.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"
#include "vboard/vboard.h"

namespace {

using boardtest::rulesOf;
using std::chrono::microseconds;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr unsigned kSync = 22;
constexpr uint8_t kWiperEnable = Varnel::CW_BIT_RDAC_WRITE_ENABLE;
constexpr uint8_t kAllEnable = Varnel::CW_BIT_RDAC_WRITE_ENABLE | Varnel::CW_BIT_TPMEM_ENABLE;
constexpr bool kDo = Varnel::CLinuxSpiDevice::DO_TRANSFER;

struct Driver : Varnel::CSpiPotentiometer16Bit_AD529x {
  using CSpiPotentiometer16Bit_AD529x::m_RegisterRx;
};

/// The store takes 8 ms and 1 ms has gone by in the driver.
void awaitStored() {
  Orv::CThread::sleep(8);
}

/// One chip on /dev/spidev1.0 with pull-ups, SYNC at line 22, 5 V across it.
template <typename Chip>
class PotentiometerBoard : public testing::Test {
 protected:
  void SetUp() override {
    board.attach(chip, spi);
    board.connect(chip.pin("SYNC"), gpio.line(kSync));
    board.netOf(spi.miso()).setPull(vboard::Pull::Up);
    board.netOf(chip.pin("RDY")).setPull(vboard::Pull::Up);
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(bus.setSpiSpeedKHz(1000), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(sync.connect(), 0);
    device.setBus(&bus);
    device.setLatchPin(&sync);
  }
  void TearDown() override { bus.close(); }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  Chip& chip = board.add<Chip>("pot");
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin sync{kSync, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  Driver device;
};

using Ad5292Board = PotentiometerBoard<vboard::Ad5292>;
using Ad5291Board = PotentiometerBoard<vboard::Ad5291>;

TEST_F(Ad5292Board, EveryPositionIsSetAndReadBack) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  for (int position = 0; position < 1024; position += 3) {
    ASSERT_EQ(device.writeRDAC(static_cast<uint16_t>(position)), 0);
    ASSERT_EQ(chip.position(), position);
    ASSERT_DOUBLE_EQ(chip.wiperVoltage(), 5.0 * position / 1024);
    ASSERT_EQ(device.readData(Driver::CW_READ_RDAC), position);
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Ad5292Board, AWordIsAFrameInMode1AndSyncRestsLow) {
  vboard::WireLog log(board);
  log.watch(board.netOf(chip.pin("SYNC")), "SYNC");
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(log.transfers().size(), 1U);
  const vboard::WireLog::Transfer frame = log.transfers()[0];
  EXPECT_EQ(frame.format.mode, 1);
  EXPECT_EQ(frame.format.bitsPerWord, 16);
  EXPECT_THAT(frame.mosi, ElementsAre(0x1802U));
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 3U) << log.text();
  EXPECT_EQ(lines[1], "SYNC high");
  EXPECT_EQ(lines[2], "SYNC low");
  EXPECT_EQ(chip.control(), kWiperEnable);
}

TEST_F(Ad5292Board, WithoutItsControlBitTheWiperStaysInTheMiddle) {
  ASSERT_EQ(device.writeRDAC(100), 0);
  EXPECT_EQ(chip.position(), 512);
  EXPECT_EQ(device.readData(Driver::CW_READ_RDAC), 512);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot wiper-locked"));
}

TEST_F(Ad5292Board, TheControlWordIsReadBack) {
  EXPECT_EQ(device.readControlWord(), 0);
  ASSERT_EQ(device.writeControlWord(0xFF), 0);
  EXPECT_EQ(device.readControlWord(), 7) << "success can't be written";
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  EXPECT_EQ(device.readControlWord(), kWiperEnable);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Ad5292Board, BitsAboveTheCommandGoOutAndTheChipMindsThem) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(device.writeRDAC(0x3C55), 0);
  EXPECT_EQ(chip.position(), 0x055) << "the command's place is the driver's";
  EXPECT_THAT(rulesOf(board), IsEmpty());
  ASSERT_EQ(device.writeRDAC(0xFFFF), 0);
  EXPECT_EQ(chip.position(), 0x3FF);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot reserved-bits"));
}

TEST_F(Ad5292Board, PositionsAreStoredUntilTheMemoryIsFull) {
  ASSERT_EQ(device.writeControlWord(kAllEnable), 0);
  for (int slot = 0; slot < 20; ++slot) {
    ASSERT_EQ(device.writeRDAC(static_cast<uint16_t>(50 * slot + 3)), 0);
    ASSERT_EQ(device.storeRDAC(), 0);
    awaitStored();
    ASSERT_EQ(chip.slotsUsed(), slot + 1);
    ASSERT_EQ(chip.slot(slot), 50 * slot + 3);
  }
  EXPECT_EQ(device.readControlWord(), kAllEnable | Varnel::CW_BIT_TPMEM_SUCCESS);
  EXPECT_THAT(rulesOf(board), IsEmpty());
  ASSERT_EQ(device.writeRDAC(1000), 0);
  ASSERT_EQ(device.storeRDAC(), 0) << "the driver doesn't know";
  awaitStored();
  EXPECT_EQ(chip.slot(19), 953);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot memory-full"));
  EXPECT_EQ(device.readControlWord(), kAllEnable) << "no success";

  ASSERT_EQ(device.loadRdacFromTpMem(), 0);
  EXPECT_EQ(chip.position(), 953);
  EXPECT_EQ(chip.control(), 0) << "locked again";
}

TEST_F(Ad5292Board, ASecondStoreInARowSendsNothing) {
  ASSERT_EQ(device.writeControlWord(kAllEnable), 0);
  ASSERT_EQ(device.storeRDAC(), 0);
  awaitStored();
  const uint64_t transfers = spi.statistics().transfers;
  ASSERT_EQ(device.storeRDAC(), 0);
  awaitStored();
  EXPECT_EQ(spi.statistics().transfers, transfers);
  EXPECT_EQ(chip.slotsUsed(), 1);
  // Anything between makes it another store.
  device.readControlWord();
  ASSERT_EQ(device.storeRDAC(), 0);
  awaitStored();
  EXPECT_EQ(chip.slotsUsed(), 2);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Ad5292Board, WithoutItsControlBitNothingIsStored) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(device.storeRDAC(), 0);
  awaitStored();
  EXPECT_EQ(chip.slotsUsed(), 0);
  EXPECT_EQ(device.readControlWord(), kWiperEnable);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot memory-locked"));
}

TEST_F(Ad5292Board, WhatIsSentBeforeAStoreIsOverIsLostWithResult0) {
  ASSERT_EQ(device.writeControlWord(kAllEnable), 0);
  ASSERT_EQ(device.storeRDAC(), 0);
  ASSERT_EQ(device.writeRDAC(100), 0);
  EXPECT_EQ(chip.position(), 512);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
  awaitStored();
  ASSERT_EQ(device.writeRDAC(100), 0);
  EXPECT_EQ(chip.position(), 512) << "equal to the word last sent: not sent again";
  ASSERT_EQ(device.writeRDAC(101), 0);
  EXPECT_EQ(chip.position(), 101);
  EXPECT_EQ(board.violationCount(), 1U);
}

// A reset takes the chip 1.5 ms, longer than the driver's pause.
TEST_F(Ad5292Board, TheWordAfterAResetNeedsAPauseOfTheApplication) {
  ASSERT_EQ(device.loadRdacFromTpMem(), 0);
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  EXPECT_EQ(chip.control(), 0);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
  board.clearViolations();
  ASSERT_EQ(device.loadRdacFromTpMem(), 0);
  Orv::CThread::sleep(1);
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  EXPECT_EQ(chip.control(), kWiperEnable);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

// Reading the memory may take a chip 1.3 ms, longer than the driver's pause.
TEST_F(Ad5292Board, OfASlowChipTheMemoryIsReadTooEarly) {
  chip.setMemory(std::vector<uint16_t>{0x155});
  ASSERT_EQ(device.writeControlWord(kAllEnable), 0);
  EXPECT_NE(device.readTpMem(0), 0x155);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
  EXPECT_NE(device.readLastProgrammedMemoryAddress(), 0);
  EXPECT_THAT(rulesOf(board), AllOf(SizeIs(3), Each("pot busy")));
}

TEST_F(Ad5292Board, WithAPauseBetweenItsFramesTheMemoryOfASlowChipIsRead) {
  chip.setMemory(std::vector<uint16_t>{0x155, 0x2AA});
  for (const int slot : {0, 1}) {
    ASSERT_EQ(device.setRegister(static_cast<uint16_t>(0x1400 + slot), kDo), 0);
    Orv::CThread::sleep(1);
    ASSERT_EQ(device.setRegister(0x0000, kDo), 0);
    EXPECT_EQ(device.m_RegisterRx.dataBits(), slot == 0 ? 0x155 : 0x2AA);
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

/// A chip whose memory is faster than the data sheet promises, so that the driver's pause is
/// enough.
class QuickAd5292Board : public Ad5292Board {
 protected:
  void SetUp() override {
    chip.setMemoryReadTime(microseconds(900));
    Ad5292Board::SetUp();
  }
};

TEST_F(QuickAd5292Board, EverySlotIsReadAndTheLastOneIsFound) {
  std::vector<uint16_t> slots;
  for (int used = 0; used <= 20; ++used) {
    chip.setMemory(slots);
    EXPECT_EQ(device.readLastProgrammedMemoryAddress(), used == 0 ? 255 : used - 1);
    EXPECT_EQ(device.readLastProgrammedTpMem(), used == 0 ? -513 : 40 * (used - 1) + 5);
    slots.push_back(static_cast<uint16_t>(40 * used + 5));
  }
  for (uint8_t slot = 0; slot < 20; ++slot) {
    EXPECT_EQ(device.readTpMem(slot), 40 * slot + 5);
  }
  EXPECT_EQ(device.readTpMem(20), -513);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(QuickAd5292Board, WhatWasStoredIsThereAfterAPowerLoss) {
  ASSERT_EQ(device.writeControlWord(kAllEnable), 0);
  ASSERT_EQ(device.writeRDAC(700), 0);
  ASSERT_EQ(device.storeRDAC(), 0);
  awaitStored();
  ASSERT_EQ(device.writeRDAC(100), 0);
  chip.losePower();
  chip.restorePower();
  EXPECT_EQ(chip.position(), 700);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

// The line kept SYNC low over the power loss: the chip doesn't know where its word begins.
TEST_F(Ad5292Board, TheFirstWordAfterAPowerLossIsLost) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  chip.losePower();
  chip.restorePower();
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0) << "the word last sent: not sent at all";
  EXPECT_THAT(rulesOf(board), IsEmpty());
  ASSERT_EQ(device.writeControlWord(kAllEnable), 0);
  EXPECT_EQ(chip.control(), 0);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot select-low-at-power-up"));
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  EXPECT_EQ(chip.control(), kWiperEnable);
}

TEST_F(Ad5292Board, AFailedWordIsNotCountedAsSent) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  kernel->failCall(vboard::Call::Message, 1, EIO);
  EXPECT_EQ(device.writeRDAC(100), -5);
  EXPECT_EQ(chip.position(), 512);
  ASSERT_EQ(device.writeRDAC(100), 0);
  EXPECT_EQ(chip.position(), 100);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Ad5292Board, AWordWhoseFrameDoesNotEndIsSpoiltByTheNextOne) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  kernel->failCall(vboard::Call::GpioSet, 2, EIO);  // low, then high
  EXPECT_EQ(device.writeRDAC(100), -5);
  EXPECT_EQ(chip.position(), 512);
  ASSERT_EQ(device.writeRDAC(200), 0);
  EXPECT_EQ(chip.position(), 200) << "of two words in a frame the last one counts";
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Ad5292Board, ShutDownPutsTheWiperToB) {
  ASSERT_EQ(device.setRegister(0x2001, kDo), 0);
  EXPECT_TRUE(chip.shutDown());
  EXPECT_DOUBLE_EQ(chip.wiperVoltage(), 0);
  ASSERT_EQ(device.setRegister(0x2000, kDo), 0);
  EXPECT_DOUBLE_EQ(chip.wiperVoltage(), 2.5);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Ad5292Board, ReadingWantsAClockOfAboutAMegahertz) {
  ASSERT_EQ(bus.setSpiSpeedKHz(10000), 0);
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(device.writeRDAC(0x155), 0);
  EXPECT_EQ(chip.position(), 0x155);
  EXPECT_THAT(rulesOf(board), IsEmpty()) << "writing doesn't";
  EXPECT_NE(device.readData(Driver::CW_READ_RDAC), 0x155);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot read-too-fast"));
}

TEST_F(Ad5292Board, WithoutAPullUpAnswersAreNoise) {
  board.netOf(spi.miso()).setPull(vboard::Pull::None);
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(device.writeRDAC(0x2AA), 0);
  device.readData(Driver::CW_READ_RDAC);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot no-pull-up"));
}

TEST_F(Ad5291Board, ItsPositionsStandTwoBitsHigher) {
  EXPECT_EQ(chip.position(), 128);
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  for (int position = 0; position < 256; position += 5) {
    ASSERT_EQ(device.writeRDAC(static_cast<uint16_t>(position << 2)), 0);
    ASSERT_EQ(chip.position(), position);
    ASSERT_EQ(device.readData(Driver::CW_READ_RDAC), position << 2);
  }
  ASSERT_EQ(device.writeRDAC(200), 0);
  EXPECT_EQ(chip.position(), 50) << "not shifted: a quarter of it";
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

/// Neighbours on the same wires. SYNC rests low, so the chip hears their clocks.
class Ad5292WithNeighbours : public Ad5292Board {
 protected:
  void SetUp() override {
    board.attach(adc, spi);
    board.connect(adc.pin("CS"), gpio.line(25));
    board.attach(dac, spi);
    board.connect(dac.pin("CS"), gpio.line(24));
    board.connect(dac.pin("LDAC"), gpio.line(23));
    adc.setInput(2.50061);  // code 2048
    Ad5292Board::SetUp();
    ASSERT_EQ(adcSelector.connect(), 0);
    ASSERT_EQ(dacSelector.connect(), 0);
    reader.setBus(&bus);
    reader.setChipSelector(&adcSelector);
    writer.setBus(&bus);
    writer.setChipSelector(&dacSelector);
    writer.configurePins(23);
    ASSERT_EQ(writer.open(), 0);
  }
  int read() {
    uint16_t code = 0xFFFF;
    EXPECT_EQ(reader.readInput(&code, kDo), 0);
    return code;
  }

  vboard::Mcp3201& adc = board.add<vboard::Mcp3201>("adc");
  vboard::Mcp4822& dac = board.add<vboard::Mcp4822>("dac");
  Varnel::CGpioPinChipSelector adcSelector{25, Orv::PIN_MODE_INVERT};
  Varnel::CGpioPinChipSelector dacSelector{24, Orv::PIN_MODE_INVERT};
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 reader;
  Varnel::CSpiAnalogOut2x12Bit_MCP4822 writer;
};

TEST_F(Ad5292WithNeighbours, ClocksForOthersAddToItsFrame) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  read();
  ASSERT_EQ(device.writeRDAC(100), 0);
  EXPECT_EQ(chip.position(), 512);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot spi-mode", "spi1.MISO conflict", "pot frame-length"))
      << "15 clocks too many";
  ASSERT_EQ(device.writeRDAC(101), 0);
  EXPECT_EQ(chip.position(), 101);
  EXPECT_EQ(board.violationCount(), 3U);
}

// Not even whole words are harmless: where the clock comes to rest at another level, that is an
// edge.
TEST_F(Ad5292WithNeighbours, WordsInAnotherModeAddAClockToItsFrame) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(writer.setValue(0, 1000, kDo), 0);
  EXPECT_EQ(dac.code(vboard::Mcp4822::Channel::A), 1000);
  ASSERT_EQ(device.writeRDAC(100), 0);
  EXPECT_EQ(chip.position(), 512);
  // The converter's two words and the settling word before them.
  EXPECT_THAT(rulesOf(board),
              ElementsAre("pot spi-mode", "pot spi-mode", "pot spi-mode", "pot frame-length"));
  ASSERT_EQ(device.writeRDAC(101), 0);
  EXPECT_EQ(chip.position(), 101);
  EXPECT_EQ(board.violationCount(), 4U);
}

TEST_F(Ad5292WithNeighbours, ItHoldsTheWireOfAChipThatAnswers) {
  ASSERT_EQ(device.writeControlWord(kWiperEnable), 0);
  ASSERT_EQ(device.setRegister(0x0000, kDo), 0);
  EXPECT_NE(read(), 2048);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot spi-mode", "spi1.MISO conflict"));
}

TEST_F(Ad5292WithNeighbours, OnceItsOutputIsOffOthersAreReadAsTheyAre) {
  ASSERT_EQ(device.setRegister(0x8001, kDo), 0);
  ASSERT_EQ(device.setRegister(0x0000, kDo), 0);
  ASSERT_TRUE(chip.outputOff());
  EXPECT_EQ(read(), 2048);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot spi-mode")) << "it still hears the clocks";
}

}  // namespace
