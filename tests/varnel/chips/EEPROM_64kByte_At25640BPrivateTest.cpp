// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <type_traits>

#include "tests/varnel/chips/EepromRig.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B_p.h"

namespace {

using Private = Varnel::EEPROM::C64kByte_At25640BPrivate;
using wire::Lines;
using wire::lines;

constexpr char kSelected[] = "select(chip, true) = 0";
constexpr char kReleased[] = "select(chip, false) = 0";

TEST(At25640bPrivate, StartsAtZero) {
  const OpenEeprom eeprom;
  EXPECT_EQ(eeprom.d_ptr->q_ptr, &eeprom);
  EXPECT_EQ(eeprom.d_ptr->SPI_RxBuffer, 0);
  EXPECT_EQ(eeprom.d_ptr->SPI_TxBuffer, 0);
}

TEST(At25640bPrivate, KeepsItsFieldsInOrderAndIsNotPolymorphic) {
  EXPECT_EQ(offsetof(Private, q_ptr), 0U);
  EXPECT_EQ(offsetof(Private, SPI_RxBuffer), sizeof(void*));
  EXPECT_EQ(offsetof(Private, SPI_TxBuffer), sizeof(void*) + 1);
  EXPECT_FALSE(std::is_polymorphic_v<Private>);
}

TEST(At25640bPrivate, SelectsAsThePositionInAnExchangeAsks) {
  EepromRig rig;
  Private& d = *rig.eeprom.d_ptr;
  EXPECT_EQ(d.executeTransfer(Varnel::DATA_FIRST), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kSelected, eepromByte("00")));
  EXPECT_EQ(d.executeTransfer(Varnel::DATA_MIDLLE), 0);
  EXPECT_EQ(rig.wire.journal(), lines(eepromByte("00")));
  EXPECT_EQ(d.executeTransfer(Varnel::DATA_LAST), 0);
  EXPECT_EQ(rig.wire.journal(), lines(eepromByte("00"), kReleased));
  EXPECT_EQ(d.executeTransfer(Varnel::DATA_SINGLE), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kSelected, eepromByte("00"), kReleased));
}

TEST(At25640bPrivate, RefusesAPositionWithoutAName) {
  EepromRig rig;
  Private& d = *rig.eeprom.d_ptr;
  uint8_t byte = 0x42;
  for (const unsigned int value : {4U, 255U}) {
    const auto nameless = static_cast<Varnel::eTransferInfo>(value);
    EXPECT_EQ(d.executeTransfer(nameless), -22);
    EXPECT_EQ(d.spiTransferByte(0x11, byte, nameless), -22);
  }
  EXPECT_EQ(byte, 0x42);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(At25640bPrivate, ExchangesAByte) {
  EepromRig rig;
  rig.wire.receives({0x5C});
  uint8_t byte = 0;
  EXPECT_EQ(rig.eeprom.d_ptr->spiTransferByte(0xC5, byte, Varnel::DATA_SINGLE), 0);
  EXPECT_EQ(byte, 0x5C);
  EXPECT_EQ(rig.wire.journal(), lines(kSelected, eepromByte("c5"), kReleased));
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.eeprom.d_ptr->spiTransferByte(0xC5, byte, Varnel::DATA_FIRST), -5);
  EXPECT_EQ(byte, 0x5C);
  rig.wire.discard();
}

TEST(At25640bPrivate, ExchangesAWordHighByteFirst) {
  struct Case {
    Varnel::eTransferInfo position;
    Lines expected;
  };
  for (const Case& exchange :
       {Case{Varnel::DATA_FIRST, lines(kSelected, eepromByte("be"), eepromByte("ef"))},
        Case{Varnel::DATA_MIDLLE, lines(eepromByte("be"), eepromByte("ef"))},
        Case{Varnel::DATA_LAST, lines(eepromByte("be"), eepromByte("ef"), kReleased)},
        Case{Varnel::DATA_SINGLE, lines(eepromByte("be"), eepromByte("ef"))}}) {
    EepromRig rig;
    rig.wire.receives({0x12}).receives({0x34});
    uint16_t word = 0;
    EXPECT_EQ(rig.eeprom.d_ptr->spiTransferWord(0xBEEF, word, exchange.position), 0);
    EXPECT_EQ(word, 0x1234);
    EXPECT_EQ(rig.wire.journal(), exchange.expected) << exchange.position;
  }
}

TEST(At25640bPrivate, AWordThatFailsGivesWhatCameIn) {
  EepromRig rig;
  uint16_t word = 0x4242;
  rig.wire.fails("MESSAGE", EIO);
  EXPECT_EQ(rig.eeprom.d_ptr->spiTransferWord(0xBEEF, word, Varnel::DATA_MIDLLE), -5);
  EXPECT_EQ(word, 0x4242);
  rig.wire.receives({0x12}).fails("MESSAGE", EIO, 2);
  EXPECT_EQ(rig.eeprom.d_ptr->spiTransferWord(0xBEEF, word, Varnel::DATA_MIDLLE), -5);
  EXPECT_EQ(word, 0x1200);
  rig.wire.discard();
}

}  // namespace
