// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MEMORY_EEPROM_64KBYTE_AT25640B_P_H
#define VARNEL_CHIPS_MEMORY_EEPROM_64KBYTE_AT25640B_P_H

#include <cstdint>

#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"
#include "varnel/common/TransferInfo.h"

namespace Varnel::EEPROM {

class C64kByte_At25640BPrivate {
 public:
  explicit C64kByte_At25640BPrivate(C64kByte_At25640B* driver) : q_ptr(driver) {}

  /// The byte in the buffer, with chip select as its position asks; -22 for no such position.
  TErrCode executeTransfer(eTransferInfo dataInfo);
  /// One byte; `rxByte` is written on success only.
  TErrCode spiTransferByte(uint8_t txByte, uint8_t& rxByte, eTransferInfo dataInfo);
  /// Two bytes, the high one first. With `DATA_SINGLE` neither selects nor deselects.
  TErrCode spiTransferWord(uint16_t txData, uint16_t& rxData, eTransferInfo dataInfo);

  /// Logs a failure as the caller's, deselects the chip and returns the code.
  TErrCode logAndDeselect(TErrCode code, const char* file = __builtin_FILE(),
                          int line = __builtin_LINE(), const char* function = __builtin_FUNCTION());

  C64kByte_At25640B* q_ptr;
  uint8_t SPI_RxBuffer = 0;
  uint8_t SPI_TxBuffer = 0;
};

}  // namespace Varnel::EEPROM

#endif
