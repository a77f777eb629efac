// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGIN_SPIANALOGIN2X24BITADS1248_H
#define VARNEL_CHIPS_ANALOGIN_SPIANALOGIN2X24BITADS1248_H

#include <cstdint>

#include "varnel/chips/analogin/SpiAnalogInDevice.h"
#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

class CSpiAnalogIn2x24Bit_ADS1248Private;

/// Texas Instruments ADS1248: 24-bit delta-sigma converter, used with two differential channels and
/// two excitation currents, as resistance thermometers need them.
///
/// Parts:      ADS1248 (data sheet SBAS426)
/// SPI:        mode 1, most significant bit first, words of 8 bits, 2 MHz or the bus speed if that
///             is lower. Set the bus to 2 MHz or slower: on a faster one it settles before every
///             transfer, also in the middle of a conversion.
/// Pins:       chip select (active low) through a chip selector on a GPIO pin, since the chip stays
///             selected over several transfers; START and RESET as outputs, DRDY as input
/// Controller: any that has mode 1
///
/// Channel 0 is AIN0 - AIN1 against reference input REF0, channel 1 is AIN7 - AIN6 against REF1.
/// `open` sets 750 uA of excitation on IEXC1 and IEXC2, a gain of 8 and 80 samples per second.
/// Not covered: calibration, continuous reading, the converter's own GPIO pins.
///
/// Calling order: bus and chip selector, `configurePins`, `open`, then `doConversion` at the data
/// rate. One thread may convert while others call `readChannel`, `dataRate` and `pGAGain`.
class VARNEL_EXPORT CSpiAnalogIn2x24Bit_ADS1248 : public CLinuxSpiDevice,
                                                  public ISpiAnalogInDevice {
 public:
  /// Codes of `setDataRate`, in samples per second.
  enum DataOutputRate {
    DRATE_5_SPS = 0,     ///< 5
    DRATE_10_SPS = 1,    ///< 10
    DRATE_20_SPS = 2,    ///< 20
    DRATE_40_SPS = 3,    ///< 40
    DRATE_80_SPS = 4,    ///< 80, set by `open` unless changed before
    DRATE_160PS = 5,     ///< 160 (the spelling is part of the interface)
    DRATE_320_SPS = 6,   ///< 320
    DRATE_640_SPS = 7,   ///< 640: the slowest at which one call refreshes both channels
    DRATE_1000_SPS = 8,  ///< 1000
    DRATE_2000_SPS = 9   ///< 2000
  };

  /// Codes of `setPGAGain`.
  enum PGAGain {
    PGA_GAIN_1 = 0,   ///< 1
    PGA_GAIN_2 = 1,   ///< 2
    PGA_GAIN_4 = 2,   ///< 4
    PGA_GAIN_8 = 3,   ///< 8, set by `open` unless changed before
    PGA_GAIN_16 = 4,  ///< 16
    PGA_GAIN_32 = 5,  ///< 32
    PGA_GAIN_64 = 6,  ///< 64
    PGA_GAIN_128 = 7  ///< 128
  };

  /// Unbound: call `setBus`, `setChipSelector` and `configurePins` before `open`.
  CSpiAnalogIn2x24Bit_ADS1248();
  /// Frees the object; the hardware stays as it is.
  ~CSpiAnalogIn2x24Bit_ADS1248() override;

  /// Names the GPIO pins; `open` connects them.
  /// @param startPin drives START, high while converting
  /// @param dataReadyPin reads DRDY, low when a result is ready
  /// @param resetPin drives RESET, low for a reset
  void configurePins(uint32_t startPin, uint32_t dataReadyPin, uint32_t resetPin);

  /// Sets the data rate of both channels and verifies it. Talks to the converter also before
  /// `open`.
  /// @param rate a `DataOutputRate`, 0 to 9
  /// @return 0; -22 for another rate, before anything else and not logged; -201 when the register
  ///     doesn't hold it after two tries; or the negative code of a transfer. After a failure the
  ///     old rate counts as set.
  /// Blocks for up to four transfers, with the bus locked.
  TErrCode setDataRate(uint8_t rate);
  /// The `DataOutputRate` that is set, 0 to 9. Neither blocks nor locks.
  uint8_t dataRate() const;
  /// Sets the gain of both channels and verifies it. Talks to the converter also before `open`.
  /// @param gain a `PGAGain`, 0 to 7
  /// @return 0; -22 for another gain, before anything else and not logged; -201 when the register
  ///     doesn't hold it after two tries; or the negative code of a transfer. After a failure the
  ///     old gain counts as set.
  /// Blocks for up to four transfers, with the bus locked.
  TErrCode setPGAGain(uint8_t gain);
  /// The `PGAGain` that is set, 0 to 7. Neither blocks nor locks.
  uint8_t pGAGain() const;

  /// Connects RESET, START and DRDY, resets the converter, starts it and writes its registers, each
  /// verified by reading it back. The channel that was converting stays the one to be read first.
  /// The first register follows the reset pulse at once, without the recovery time of the chip.
  /// @return 0; -201 when a register doesn't hold its value after two tries; or the negative code
  ///     of a pin, the chip selector or a transfer. The steps after a failure are not run.
  /// Blocks for 10 ms and some twenty transfers, with the bus locked.
  TErrCode open() override;
  /// The last converted value of a channel, from the cache. Neither blocks nor locks.
  /// @param channel 0 or 1
  /// @return the 24-bit code as it came, 0 to 16,777,215, not sign-extended: a negative input gives
  ///     0x800000 and above. 0 before the first conversion and for any other channel.
  int32_t readChannel(uint16_t channel) const override;
  /// Reads the pending result and switches to the other channel, twice, with the chip selected in
  /// between: both channels are refreshed. Each half waits for DRDY by looking twice, 2 ms apart.
  ///
  /// At 320 samples per second and below that is too short for the second half: a call then
  /// refreshes one channel, and the next call the other one.
  /// @return 0; -36 when DRDY stays high; or the negative code of the chip selector or a transfer.
  ///     A failure of the first half is logged. One of the second half isn't, the value of the
  ///     first is stored, and after a time-out the chip is still selected.
  /// Blocks for two transfers and up to 4 ms, with the bus locked.
  TErrCode doConversion() override;
  /// Always 2.
  uint16_t numberOfChannels() const override;

 private:
  friend class CSpiAnalogIn2x24Bit_ADS1248Private;
  CSpiAnalogIn2x24Bit_ADS1248Private* d_ptr;
};

}  // namespace Varnel

#endif
