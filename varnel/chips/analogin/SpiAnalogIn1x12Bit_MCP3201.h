// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGIN_SPIANALOGIN1X12BIT_MCP3201_H
#define VARNEL_CHIPS_ANALOGIN_SPIANALOGIN1X12BIT_MCP3201_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

/// Microchip MCP3201: 12-bit analog-to-digital converter with one input.
///
/// Parts:      MCP3201-B, MCP3201-C (data sheet DS21290)
/// SPI:        mode 0, most significant bit first, one word of 15 bits per conversion, 1.6 MHz at
///             5 V supply (the chip's limit is 0.8 MHz at 2.7 V: set a slower bus there)
/// Pins:       chip select (active low) through a chip selector; no MOSI
/// Controller: must take 15-bit words; the Raspberry Pi's own takes 8 only, `spi-gpio` any
///
/// Each selection is one conversion: the input is sampled during the first two clocks, and the
/// value read is the one of that moment.
class VARNEL_EXPORT CSpiAnalogIn1x12Bit_MCP3201 : public CLinuxSpiDevice {
 public:
  /// Unbound: call `setBus` and `setChipSelector` before the first conversion.
  CSpiAnalogIn1x12Bit_MCP3201();

  /// Converts and reads the input.
  /// @param value the code, 0 to 4095 (4096 would be the reference voltage); written on success
  ///     only
  /// @param doTransfer `DO_TRANSFER` converts now; `NO_TRANSFER` gives the last converted value (0
  ///     before the first) without touching the bus
  /// @return 0, or the negative code of the chip selector or the bus. After a failed transfer the
  ///     chip is still selected: the next successful read releases it.
  /// Blocks for one transfer, with the bus locked.
  int32_t readInput(uint16_t* value, bool doTransfer);

  /// Selects the chip, converts, keeps the code, deselects; with `NO_TRANSFER` nothing. Locks the
  /// bus either way.
  TErrCode transferData(bool doTransfer) override;

 protected:
  uint16_t m_AnalogIn = 0;        ///< last converted code, 0 to 4095
  uint16_t m_TransferBuffer = 0;  ///< received word, in host order
};

}  // namespace Varnel

#endif
