// SPDX-License-Identifier: MIT
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "tests/varnel/chips/EepromRig.h"
#include "tests/varnel/chips/Waiting.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::EEPROM::C64kByte_At25640B;
using wire::Lines;
using wire::lines;

constexpr char kBus[] = "varnel/common/LinuxSpiBus.cpp executeManagedTransfer";
constexpr char kDevice[] = "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer";
constexpr char kFailed[] = "can't transfer data via CLinuxSpiBus";
constexpr char kReleased[] = "select(chip, false) = 0";

TEST(At25640b, StartsUnboundWithItsRecord) {
  const OpenEeprom eeprom;
  EXPECT_EQ(eeprom.m_Bus, nullptr);
  EXPECT_EQ(eeprom.m_ChipSelect, nullptr);
  EXPECT_EQ(eeprom.m_LatchPin, nullptr);
  const spi_ioc_transfer& transfer = eeprom.m_TransferSettings.ioc_transfer;
  EXPECT_EQ(transfer.tx_buf, reinterpret_cast<uintptr_t>(&eeprom.d_ptr->SPI_TxBuffer));
  EXPECT_EQ(transfer.rx_buf, reinterpret_cast<uintptr_t>(&eeprom.d_ptr->SPI_RxBuffer));
  EXPECT_EQ(transfer.len, 1U);
  EXPECT_EQ(transfer.speed_hz, 1000000U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 8);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(transfer.tx_nbits, 0);
  EXPECT_EQ(transfer.rx_nbits, 0);
  EXPECT_EQ(eeprom.m_TransferSettings.bus_settings.Mode, 0U);
  EXPECT_EQ(eeprom.m_TransferSettings.bus_settings.LSBFirst, 0);
}

TEST(At25640b, AddsOnlyAPointerToTheDevice) {
  const OpenEeprom eeprom;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&eeprom.d_ptr) - reinterpret_cast<uintptr_t>(&eeprom),
            48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(C64kByte_At25640B), sizeof(void*) == 8 ? 96U : 72U);
}

TEST(At25640b, NamesTheInstructions) {
  EXPECT_EQ(Varnel::EEPROM::WRITE_STATUS_REGISTER, 0x01);
  EXPECT_EQ(Varnel::EEPROM::WRITE_DATA, 0x02);
  EXPECT_EQ(Varnel::EEPROM::READ_DATA, 0x03);
  EXPECT_EQ(Varnel::EEPROM::SET_WRITE_DISABLED, 0x04);
  EXPECT_EQ(Varnel::EEPROM::READ_STATUS_REGISTER, 0x05);
  EXPECT_EQ(Varnel::EEPROM::SET_WRITE_ENABLED, 0x06);
}

TEST(At25640b, ReadsTheStatusWithTheFirstReplyAsFilling) {
  EepromRig rig;
  rig.wire.receives({0xA7}).receives({0x02});
  uint8_t status = 0;
  EXPECT_EQ(rig.eeprom.readStatus(status), 0);
  EXPECT_EQ(status, 0x02);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", eepromByte("05"), eepromByte("a7"), kReleased));
}

TEST(At25640b, SetsAndResetsTheWriteEnableLatch) {
  EepromRig rig;
  EXPECT_EQ(rig.eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", eepromByte("06"), kReleased));
  EXPECT_EQ(rig.eeprom.setWriteEnable(false), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", eepromByte("04"), kReleased));
}

TEST(At25640b, WritesAByteInOneSelectAndNothingElse) {
  EepromRig rig;
  EXPECT_EQ(rig.eeprom.writeByte(0x0000, 0xA5), 0);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", eepromByte("02"), eepromByte("00"),
                                      eepromByte("00"), eepromByte("a5"), kReleased));
}

TEST(At25640b, ReadsAByteWithTheLastReplyAsFilling) {
  EepromRig rig;
  rig.wire.receives({0x11}).receives({0x22}).receives({0x33}).receives({0xB6});
  uint8_t byte = 0;
  EXPECT_EQ(rig.eeprom.readByte(0x1234, byte), 0);
  EXPECT_EQ(byte, 0xB6);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = 0", eepromByte("03"), eepromByte("12"),
                                      eepromByte("34"), eepromByte("33"), kReleased));
}

TEST(At25640b, SendsAllSixteenBitsOfTheAddress) {
  EepromRig rig;
  rig.wire.receives({0}).receives({0}).receives({0}).receives({0x44});
  uint8_t byte = 0;
  EXPECT_EQ(rig.eeprom.readByte(0xFEDC, byte), 0);
  EXPECT_EQ(rig.eeprom.writeByte(0xFFFF, 0x5A), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(eepromFrame({"03", "fe", "dc", "00"}), eepromFrame({"02", "ff", "ff", "5a"})));
}

TEST(At25640b, RunsAtOneMegahertzOnABusOfThatSpeed) {
  EepromRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(1000);
  rig.bus.open();
  rig.wire.discard();
  EXPECT_EQ(rig.eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("select(chip, true) = 0", eepromByte("06", "1000000"), kReleased));
}

/// On a faster bus: slow down, settle with this before the byte.
Lines settling() {
  return lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0", "close(7) = 0",
               opening("0", "0", "1000000"),
               "ioctl(7, SPI_IOC_MESSAGE(1), "
               "{tx=[ff] rx=in len=1 speed_hz=1000000 bits_per_word=8}) = 1");
}

TEST(At25640b, OnAFasterBusSettlesBeforeEveryByteAlsoWhileSelected) {
  EepromRig rig;
  rig.bus.close();
  rig.bus.setSpiSpeedKHz(2000);
  rig.bus.open();
  rig.wire.discard();
  rig.wire.receives({0}).receives({0x71}).receives({0}).receives({0x03});
  const std::string restored = "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0";
  uint8_t status = 0;
  EXPECT_EQ(rig.eeprom.readStatus(status), 0);
  EXPECT_EQ(status, 0x03);
  EXPECT_EQ(rig.wire.journal(),
            lines(settling(), "select(chip, true) = 0", eepromByte("05", "1000000"), restored,
                  settling(), eepromByte("71", "1000000"), kReleased, restored));
}

TEST(At25640b, SwitchesTheBusToModeZeroAndMostSignificantBitFirst) {
  EepromRig rig;
  rig.bus.setMode(3);
  rig.bus.setLSBFirst(1);
  rig.wire.discard();
  EXPECT_EQ(rig.eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("ioctl(7, SPI_IOC_WR_MODE, 0) = 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                  "close(7) = 0", opening(),
                  "ioctl(7, SPI_IOC_MESSAGE(1), "
                  "{tx=[ff] rx=in len=1 speed_hz=500000 bits_per_word=8}) = 1",
                  eepromFrame({"06"})));
}

TEST(At25640b, LocksNothing) {
  EepromRig rig;
  uint8_t byte = 0;
  EXPECT_TRUE(finishesWithoutTheBus(rig.mutex(), [&] {
    rig.eeprom.readStatus(byte);
    rig.eeprom.setWriteEnable(true);
    rig.eeprom.writeByte(1, 2);
    rig.eeprom.readByte(1, byte);
  }));
  rig.wire.discard();
  int calls = 0;
  rig.wire.atEachCall([&] {
    ++calls;
    EXPECT_TRUE(wire::isFree(rig.mutex()));
  });
  EXPECT_EQ(rig.eeprom.readByte(1, byte), 0);
  EXPECT_EQ(calls, 6);
  rig.wire.discard();
}

struct Recording : OpenEeprom {
  std::vector<Varnel::eCS_Handling> handlings;
  TErrCode answer = 5;

  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    handlings.push_back(handling);
    return answer;
  }
};

TEST(At25640b, TransfersThroughTheVirtualManagedTransfer) {
  Recording eeprom;
  EXPECT_EQ(eeprom.writeByte(0, 0), 0);
  EXPECT_EQ(eeprom.setWriteEnable(true), 0);
  EXPECT_EQ(eeprom.handlings, (std::vector<Varnel::eCS_Handling>{
                                  Varnel::CS_JUST_SELECT, Varnel::CS_NOTHING, Varnel::CS_NOTHING,
                                  Varnel::CS_JUST_DESELECT, Varnel::CS_SELECT_DESELECT}));
}

TEST(At25640b, OutlivesItsDriverWithItsPrivateObject) {
  Varnel::EEPROM::C64kByte_At25640BPrivate* left = nullptr;
  {
    struct Leaving : C64kByte_At25640B {
      using C64kByte_At25640B::d_ptr;
    } eeprom;
    left = eeprom.d_ptr;
    left->SPI_TxBuffer = 0x5A;
    left->SPI_RxBuffer = 0xA5;
  }
  EXPECT_EQ(left->SPI_TxBuffer, 0x5A);
  EXPECT_EQ(left->SPI_RxBuffer, 0xA5);
  delete left;
}

/// The steps of one operation: a select, its bytes, a release. Every failure is logged by the
/// driver, which then releases the chip.
std::vector<wire::Step> stepsOf(const std::string& function,
                                const std::vector<std::string>& bytes) {
  const Lines driver = {"varnel/chips/memory/EEPROM_64kByte_At25640B.cpp " + function, kReleased};
  std::vector<wire::Step> steps = {{"select(chip, true) = 0", "", lines(kBus, kDevice, driver)}};
  for (const std::string& byte : bytes) {
    steps.push_back({eepromByte(byte), kFailed, lines(kDevice, driver)});
  }
  steps.push_back({"select(chip, false) = 0", "", lines(kBus, kDevice, driver)});
  return steps;
}

uint8_t argument = 0;

void expectReleased(EepromRig& rig, const std::string&) {
  EXPECT_FALSE(rig.selector.selected());
}

void expectReleasedAndByteAsBefore(EepromRig& rig, const std::string&) {
  EXPECT_FALSE(rig.selector.selected());
  EXPECT_EQ(argument, 0x42);
}

TEST(At25640bFaults, ReadStatus) {
  wire::FaultSweep<EepromRig>([](EepromRig& rig) {
    argument = 0x42;
    return rig.eeprom.readStatus(argument);
  })
      .leaves(expectReleasedAndByteAsBefore)
      .run(stepsOf("readStatus", {"05", "ee"}));
}

TEST(At25640bFaults, SetWriteEnable) {
  wire::FaultSweep<EepromRig>([](EepromRig& rig) { return rig.eeprom.setWriteEnable(true); })
      .leaves(expectReleased)
      .run(stepsOf("setWriteEnable", {"06"}));
}

TEST(At25640bFaults, WriteByte) {
  wire::FaultSweep<EepromRig>([](EepromRig& rig) { return rig.eeprom.writeByte(0x1234, 0x56); })
      .leaves(expectReleased)
      .run(stepsOf("writeByte", {"02", "12", "34", "56"}));
}

TEST(At25640bFaults, ReadByte) {
  wire::FaultSweep<EepromRig>([](EepromRig& rig) {
    argument = 0x42;
    return rig.eeprom.readByte(0x1234, argument);
  })
      .leaves(expectReleasedAndByteAsBefore)
      .run(stepsOf("readByte", {"03", "12", "34", "ee"}));
}

TEST(At25640bFaults, AFailingReleaseAfterAFailureIsIgnored) {
  EepromRig rig;
  rig.wire.fails("MESSAGE", EIO).fails("select(chip, false)", ENODEV);
  EXPECT_EQ(rig.eeprom.writeByte(1, 2), -5);
  EXPECT_EQ(rig.wire.journal().back(), "select(chip, false) = -19");
  EXPECT_TRUE(rig.selector.selected());
}

}  // namespace
