// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGOUT_SPILEDDRIVER12BIT_TLC5947_H
#define VARNEL_CHIPS_ANALOGOUT_SPILEDDRIVER12BIT_TLC5947_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

class LedDriverTLC5947Private;

/// TI TLC5947: 24 LED outputs with 12-bit pulse width, single or in a cascade.
///
/// Parts:      TLC5947 (data sheet SBVS114)
/// SPI:        mode 0, most significant bit first, one word of 12 bits per output in one transfer,
///             at the bus speed (the chip's limit is 30 MHz, 15 MHz in a cascade)
/// Pins:       XLAT through `setLatchPin`, required; BLANK through `outputEnablePin`; the chip has
///             no select, a chip selector is optional
/// Controller: must take 12-bit words; the Raspberry Pi's own takes 8 only, `spi-gpio` any
///
/// The driver keeps a table of pulse widths, 0 (off) to 4095 of 4096, and sends the whole table
/// when it changed. A logical channel is one LED of one or more outputs, for example three of an
/// RGB LED, which get one value. The table goes out from its first value on and is not reordered:
/// in the chips the *last* value is output 0 of the nearest chip, and the first one is the highest
/// output of the farthest. A cascade of n chips takes a table of 24 * n values.
class VARNEL_EXPORT CSpiLedDriver12Bit_TLC5947 : public CLinuxSpiDevice {
 public:
  static constexpr uint16_t MAX_PWM = 4095;  ///< the largest pulse width

  /// A table of `channelCount` zeros, one output per channel, not sent yet. Unbound: call `setBus`
  /// and `setLatchPin`, and configure and connect `outputEnablePin`, before the first write.
  explicit CSpiLedDriver12Bit_TLC5947(uint16_t channelCount);
  ~CSpiLedDriver12Bit_TLC5947() override;

  /// The pin of the chips' BLANK input, GPIO 47 as a plain output unless configured otherwise. The
  /// driver doesn't connect it.
  Orv::CLinuxIoPin& outputEnablePin();
  /// Writes HIGH (true) or LOW (false) to the output-enable pin. A high BLANK switches the outputs
  /// *off*: take a pin of `Orv::PIN_MODE_INVERT` for true to mean on.
  /// @return the pin's result
  TErrCode setOutputEnable(bool enable);

  /// Sets the table's length to `channelCount` * `pwmChannelsPerLed`; new values are 0. Neither
  /// locks nor sends.
  /// @param channelCount number of logical channels
  /// @param pwmChannelsPerLed outputs per logical channel; with 0 there are no channels
  /// @return always 0
  TErrCode setChannelCount(uint16_t channelCount, uint8_t pwmChannelsPerLed);
  /// Number of logical channels.
  uint16_t channelCount();
  /// Number of outputs: the table's length.
  uint16_t pwmChannelCount();
  /// Outputs per logical channel.
  uint8_t channelsPerLed();

  /// Sets all outputs of one logical channel.
  /// @param channel 0 to `channelCount()` - 1
  /// @param pwm 0 to 4095; larger ones become 4095
  /// @param doWrite `DO_TRANSFER` sends the table now, `NO_TRANSFER` leaves it to a later write
  /// @return 0; -22 for a channel that isn't there, before the bus is locked; or what
  ///     `transferData` returns. The value stays in the table after a failure.
  /// Blocks for one transfer, with the bus locked.
  TErrCode setPWM(uint16_t channel, uint16_t pwm, bool doWrite);
  /// Sets all outputs of the logical channels `channelFirst` to `channelLast`, both included, to
  /// one value.
  /// @param channelFirst not above `channelLast`
  /// @param channelLast at most `channelCount()` - 1
  /// @param pwm 0 to 4095; larger ones become 4095
  /// @param doWrite `DO_TRANSFER` sends the table now, `NO_TRANSFER` leaves it to a later write
  /// @return 0; -22 for a range that isn't there as a whole, before the bus is locked and with
  ///     nothing set; or what `transferData` returns. The values stay in the table after a failure.
  /// Blocks for one transfer, with the bus locked.
  TErrCode setPWMs(uint16_t channelFirst, uint16_t channelLast, uint16_t pwm, bool doWrite);

  /// Says whether the table has something to send: true makes the next `transferData` send it.
  /// Does not lock.
  void setDataChanged(bool value);

  using CLinuxSpiDevice::executeTransfer;
  /// Sends the table, whether it changed or not, without chip select and latch.
  /// @return 0 or the negative code of the bus, not logged here
  TErrCode executeTransfer() override;
  /// Sends the table if it changed: selects, latch LOW, chained transfer, latch HIGH, then LOW,
  /// deselects. With `NO_TRANSFER`, or when nothing changed, nothing.
  /// @return 0, or the negative code of the chip selector, the latch pin or the bus. The failure
  ///     ends it: the chip may stay selected, the latch stays as it is, and the next call sends
  ///     again.
  /// Blocks for one transfer, with the bus locked.
  TErrCode transferData(bool doWrite) override;

 protected:
  LedDriverTLC5947Private* d;  ///< owned
};

}  // namespace Varnel

#endif
