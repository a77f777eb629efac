// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGIN_SPIANALOGIN4X24BITADS1256_H
#define VARNEL_CHIPS_ANALOGIN_SPIANALOGIN4X24BITADS1256_H

#include <cstdint>
#include <vector>

#include "varnel/chips/analogin/SpiAnalogInDevice.h"
#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

class CSpiAnalogIn4x24Bit_ADS1256Private;

/// Texas Instruments ADS1256: 24-bit delta-sigma converter with eight inputs, used as four
/// differential channels.
///
/// Parts:      ADS1256 (data sheet SBAS288)
/// SPI:        mode 1, most significant bit first, words of 8 bits, 200 kHz or the bus speed if
///             that is lower. Set the bus to 75 kHz or slower, see below; on one faster than 200
///             kHz it settles before every transfer, also in the middle of a conversion.
/// Pins:       chip select (active low) through a chip selector on a GPIO pin, since the chip stays
///             selected over several transfers; RESET as output; DRDY as input, connected but not
///             read
/// Controller: any that has mode 1
///
/// Physical channel n, 0 to 3, is AIN(2n) - AIN(2n+1). `open` sets the input buffer on, a gain of 2
/// and 2,000 samples per second, and starts a self-calibration.
/// Not covered: other gains and rates, continuous reading, standby, the converter's GPIO pins.
///
/// Nothing waits for DRDY: each read starts a conversion and sends 13 bytes of padding, 0.52 ms at
/// 200 kHz, before it fetches the result. The chip settles in 0.68 ms, which takes a bus of 150 kHz
/// or slower, and wants 6.5 us between the command and its data, which takes one of 76 kHz or
/// slower: on a faster bus the sign is not to be trusted, and from 164 kHz on the result is the one
/// before.
///
/// Calling order: bus and chip selector, `configurePins`, `setUsedChannels` if not all four,
/// `open`, then `doConversion`. One thread may convert while others call `readChannel`.
class VARNEL_EXPORT CSpiAnalogIn4x24Bit_ADS1256 : public CLinuxSpiDevice,
                                                  public ISpiAnalogInDevice {
 public:
  /// Unbound, with all four channels: call `setBus`, `setChipSelector` and `configurePins` before
  /// `open`.
  CSpiAnalogIn4x24Bit_ADS1256();
  /// Frees the object; the hardware stays as it is.
  ~CSpiAnalogIn4x24Bit_ADS1256() override;

  /// Names the GPIO pins; `open` connects them.
  /// @param resetPin drives RESET, low for a reset
  /// @param dataReadyPin reads DRDY
  void configurePins(uint32_t resetPin, uint32_t dataReadyPin);
  /// Sets the channels to scan. Meant for the time before `open`: it takes no lock, must not meet a
  /// conversion or a `readChannel` of another thread, and neither reprograms the converter nor
  /// forgets where the scan stands. A list shorter than that position restarts at its first entry.
  /// @param channels physical channel numbers, 0 to 3, in the order of the scan; not empty
  void setUsedChannels(const std::vector<uint16_t>& channels);

  /// Connects RESET and DRDY, resets the converter, writes its registers, each verified by reading
  /// it back, and starts the self-calibration without waiting for its end. The first register
  /// follows the reset pulse at once. The inputs are set to the first used channel; where the scan
  /// stands is not changed.
  /// @return 0; -22 for an empty channel list or a channel above 3, before anything else and not
  ///     logged; -201 when a register doesn't hold its value after two tries; or the negative code
  ///     of a pin, the chip selector or a transfer. The steps after a failure are not run.
  /// Blocks for 10 ms and some twelve transfers, with the bus locked.
  TErrCode open() override;
  /// Four reads with a step to the next used channel between them, however many are used, with the
  /// chip selected throughout. The first read is of the channel that the call before ended with:
  /// four used channels come as 0 1 2 3, then 3 0 1 2, then 2 3 0 1; two come twice each.
  /// @return 0; -22 for an empty channel list or a channel above 3, before anything else and not
  ///     logged; or the negative code of the chip selector or a transfer. A failure of the last
  ///     read is not logged. After any of them the chip is still selected.
  /// Blocks for seven transfers, with the bus locked.
  TErrCode doConversion() override;
  /// The last converted value, from the cache. Neither blocks nor locks.
  /// @param index position in the list of used channels, not the physical channel: with {3, 1}
  ///     index 0 is channel 3
  /// @return the 24-bit code as it came, 0 to 16,777,215, not sign-extended: a negative input gives
  ///     0x800000 and above. 0 before the first conversion, for an index outside the list and for
  ///     a channel above 3.
  int32_t readChannel(uint16_t index) const override;
  /// How many channels are used, 4 unless set.
  uint16_t numberOfChannels() const override;

 private:
  CSpiAnalogIn4x24Bit_ADS1256Private* d_ptr;
};

}  // namespace Varnel

#endif
