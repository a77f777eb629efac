// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGOUT_SPIANALOGOUT2X12BIT_MCP4822_H
#define VARNEL_CHIPS_ANALOGOUT_SPIANALOGOUT2X12BIT_MCP4822_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

class CSpiAnalogOut2x12Bit_MCP4822Private;

/// Microchip MCP4822: 12-bit digital-to-analog converter with two outputs.
///
/// Parts:      MCP4822 (data sheet DS22249)
/// SPI:        mode 3, most significant bit first, one word of 16 bits per channel, at the bus
///             speed (the chip's limit is 20 MHz)
/// Pins:       chip select (active low) through a chip selector; LDAC (active low) through
///             `configurePins`; no MISO
/// Controller: must take 16-bit words; the Raspberry Pi's own takes 8 only, `spi-gpio` any
///
/// The driver runs both channels active and with gain 1, so a value stands for value / 4096 *
/// 2.048 V. It keeps one value per channel and always writes both, then pulses LDAC: the outputs
/// change together. They are switched off from power-up to the first write.
class VARNEL_EXPORT CSpiAnalogOut2x12Bit_MCP4822 : public CLinuxSpiDevice {
 public:
  /// The chip's gain bit. The driver always sends `GAIN_1`.
  enum eOutputGain {
    GAIN_1 = 1,  ///< full scale 2.048 V
    GAIN_2 = 0   ///< full scale 4.096 V
  };
  /// The chip's shutdown bit. The driver always sends `MODE_ACTIVE`.
  enum eOperationMode {
    MODE_ACTIVE = 1,   ///< the output is driven
    MODE_SHUTDOWN = 0  ///< the output is switched off
  };

  static constexpr uint16_t MAX_VALUE = 4095;  ///< the largest value of a channel
  static constexpr bool DO_WRITE = true;       ///< write both channels now
  static constexpr bool NO_WRITE = false;      ///< only store the value, for a later write

  /// Unbound, both values 0: call `setBus`, `setChipSelector`, `configurePins` and `open` before
  /// the first write.
  CSpiAnalogOut2x12Bit_MCP4822();
  ~CSpiAnalogOut2x12Bit_MCP4822() override;

  /// Says which pin drives LDAC; `open` connects it.
  void configurePins(uint32_t pin);
  /// Connects the LDAC pin, deselects the chip and brings LDAC to its resting level, HIGH. The bus
  /// is neither locked nor opened.
  /// @return 0, or the negative code of the pin or the chip selector
  TErrCode open();

  /// How many channels there are: 2.
  uint8_t channelCount() const;
  /// Sets the value of one channel.
  /// @param channel 0 for output A, 1 for output B
  /// @param value 0 to 4095; larger ones become 4095
  /// @param doWrite `DO_WRITE` writes both channels now, `NO_WRITE` leaves it to a later write
  /// @return 0; -22 for a channel that isn't there, with nothing stored; or what `write` returns.
  ///     The value stays stored after a failure.
  /// Blocks for the write, with the bus locked.
  TErrCode setValue(uint16_t channel, uint16_t value, bool doWrite);
  /// Writes both channels, each word in a select of its own, and pulses LDAC.
  /// @return 0, or the negative code of the chip selector, the bus or the LDAC pin. Without the
  ///     pulse the outputs keep their voltages; a pulse that fails halfway leaves LDAC low. A
  ///     failed word leaves the chip selected: release it with `enableChipSelect(false)` or `open`.
  /// Blocks for two transfers, with the bus locked.
  TErrCode write();

 protected:
  CSpiAnalogOut2x12Bit_MCP4822Private* d_ptr;  ///< owned
};

}  // namespace Varnel

#endif
