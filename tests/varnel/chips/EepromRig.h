// SPDX-License-Identifier: MIT
#ifndef TESTS_VARNEL_CHIPS_EEPROMRIG_H
#define TESTS_VARNEL_CHIPS_EEPROMRIG_H

#include <string>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B_p.h"

/// Frees the private object that the driver leaves behind.
struct OpenEeprom : Varnel::EEPROM::C64kByte_At25640B {
  using C64kByte_At25640B::d_ptr;
  using C64kByte_At25640B::m_Bus;
  using C64kByte_At25640B::m_ChipSelect;
  using C64kByte_At25640B::m_LatchPin;
  using C64kByte_At25640B::m_TransferSettings;
  ~OpenEeprom() override { delete d_ptr; }
};

/// A memory on an open bus of 500 kHz.
struct EepromRig : BusRig {
  OpenEeprom eeprom;

  EepromRig() {
    eeprom.setBus(&bus);
    eeprom.setChipSelector(&selector);
    wire.name(&eeprom.d_ptr->SPI_TxBuffer, 1, "out");
    wire.name(&eeprom.d_ptr->SPI_RxBuffer, 1, "in");
  }
};

/// The message of one byte.
inline std::string eepromByte(const std::string& byte, const std::string& speedHz = "500000") {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=out[" + byte + "] rx=in len=1 speed_hz=" + speedHz +
         " bits_per_word=8}) = 1";
}

/// An exchange of several bytes in one select.
inline wire::Lines eepromFrame(const std::vector<std::string>& bytes) {
  wire::Lines lines = {"select(chip, true) = 0"};
  for (const std::string& byte : bytes) {
    lines.push_back(eepromByte(byte));
  }
  lines.push_back("select(chip, false) = 0");
  return lines;
}

#endif
