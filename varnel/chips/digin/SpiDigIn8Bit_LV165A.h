// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_DIGIN_SPIDIGIN8BIT_LV165A_H
#define VARNEL_CHIPS_DIGIN_SPIDIGIN8BIT_LV165A_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

/// 74LV165A: eight digital inputs on a parallel-in, serial-out shift register.
///
/// Parts:      74LV165A, 74HC165 and their kin
/// SPI:        mode 0, most significant bit first, one word of 8 bits, at the bus speed; no MOSI
/// Pins:       load (SH/LD) through `setLatchPin`, required. The driver writes LOW, HIGH, LOW and
///             then shifts; the chip shifts while its load input is high, so take a pin of
///             `Orv::PIN_MODE_INVERT`. A chip selector is optional
/// Controller: any
///
/// Input H is bit 7, input A bit 0. The chip drives MISO all the time.
class VARNEL_EXPORT CSpiDigIn8Bit_LV165A : public CLinuxSpiDevice {
 public:
  /// Unbound: call `setBus` and `setLatchPin` before the first read.
  CSpiDigIn8Bit_LV165A();
  ~CSpiDigIn8Bit_LV165A() override;

  /// Loads and reads the inputs.
  /// @param doTransfer `DO_TRANSFER` reads now; `NO_TRANSFER` gives the last read value (0 before
  ///     the first) without touching the bus
  /// @return the inputs, 0 to 255 (bit 0 is A, bit 7 is H), or the negative code of the chip
  ///     selector, the latch pin or the bus
  /// Blocks for one transfer, with the bus locked. The chip selector stays enabled.
  int32_t readInputs(bool doTransfer);

  /// Enables the chip selector, pulses the latch pin (LOW, HIGH, LOW) and runs the chained
  /// transfer; with `NO_TRANSFER` nothing. The selector stays enabled, also after a success. Locks
  /// the bus for it.
  TErrCode transferData(bool doWrite) override;

 protected:
  uint8_t m_Register = 0;  ///< the byte last read
};

}  // namespace Varnel

#endif
