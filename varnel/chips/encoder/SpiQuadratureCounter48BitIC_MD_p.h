// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ENCODER_SPIQUADRATURECOUNTER48BITIC_MD_P_H
#define VARNEL_CHIPS_ENCODER_SPIQUADRATURECOUNTER48BITIC_MD_P_H

#include <cstdint>

#include "orv/HasFlags.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"

namespace Varnel::iC_MD {

class CSpiQuadratureCounter48BitPrivate {
 public:
  explicit CSpiQuadratureCounter48BitPrivate(CSpiQuadratureCounter48Bit* driver) : q_ptr(driver) {}

  /// The counter configuration, 0 to 7, as the copy of register 0 has it.
  uint8_t counterConfig() const;
  /// Data bytes of that configuration: 2 to 6.
  uint8_t numberOfBytes() const;

  /// Exchanges one byte.
  TErrCode transferByte(uint8_t byte, eCS_Handling handling);
  /// Reads the counters' bytes. A failure leaves the chip selected.
  TErrCode transferCounterData();
  /// Unpacks the bytes; counters that the configuration hasn't keep their values.
  void retrieveCounterValuesFromData();
  /// Both, with the bus locked.
  TErrCode readFromHardware();
  /// The counter's low bits after a read that may have failed.
  template <typename T>
  TErrCode readPosition(uint8_t counter, T& position);

  CSpiQuadratureCounter48Bit* q_ptr;
  uint8_t SPI_RxBuffer = 0;
  uint8_t SPI_TxBuffer = 0;
  Orv::CHasFlags<uint8_t> Configuration[CONFIG_REGISTER_COUNT];
  int64_t CounterBytes[MAX_COUNTER_DATA_BYTES] = {};  ///< in the order received
  int64_t Counters[MAX_COUNT_OF_COUNTERS] = {};
};

}  // namespace Varnel::iC_MD

#endif
