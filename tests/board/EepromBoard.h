// SPDX-License-Identifier: MIT
#ifndef TESTS_BOARD_EEPROMBOARD_H
#define TESTS_BOARD_EEPROMBOARD_H

#include <cstdint>

#include "orv/Thread.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B_p.h"

namespace boardtest {

/// The driver, freeing the private object that it leaves behind.
struct Eeprom : Varnel::EEPROM::C64kByte_At25640B {
  ~Eeprom() override { delete d_ptr; }
};

/// Until the chip's write cycle is over, as an application waits for it.
inline TErrCode awaitWritten(Varnel::EEPROM::C64kByte_At25640B& eeprom) {
  constexpr int kPolls = 20;
  for (int polls = 0; polls < kPolls; ++polls) {
    uint8_t status = 0;
    const TErrCode code = eeprom.readStatus(status);
    if (code < 0 || (status & 1U) == 0) {
      return code;
    }
    Orv::CThread::sleep(1);
  }
  return -110;  // ETIMEDOUT
}

/// Enable, write, poll.
inline TErrCode store(Varnel::EEPROM::C64kByte_At25640B& eeprom, uint16_t address, uint8_t value) {
  TErrCode code = eeprom.setWriteEnable(true);
  if (code >= 0) {
    code = eeprom.writeByte(address, value);
  }
  return code < 0 ? code : awaitWritten(eeprom);
}

}  // namespace boardtest

#endif
