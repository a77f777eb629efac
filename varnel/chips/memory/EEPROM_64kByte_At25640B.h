// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MEMORY_EEPROM_64KBYTE_AT25640B_H
#define VARNEL_CHIPS_MEMORY_EEPROM_64KBYTE_AT25640B_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

/// Vocabulary and driver of the AT25640B.
namespace EEPROM {

/// Instruction bytes.
enum eCommand : uint8_t {
  WRITE_STATUS_REGISTER = 0x01,  ///< not sent by this driver
  WRITE_DATA = 0x02,             ///< address, data: starts a write cycle
  READ_DATA = 0x03,              ///< address, data
  SET_WRITE_DISABLED = 0x04,     ///< resets the write-enable latch
  READ_STATUS_REGISTER = 0x05,   ///< status
  SET_WRITE_ENABLED = 0x06,      ///< sets the write-enable latch
};

class C64kByte_At25640BPrivate;

/// Atmel AT25640B: EEPROM of 64 kbit, which are 8192 bytes.
///
/// Parts:      AT25640B
/// SPI:        mode 0, most significant bit first, words of 8 bits, 1 MHz or the bus speed where
///             that is lower; one transfer per byte
/// Pins:       chip select (active low) through a chip selector on a GPIO: it stays low over
///             several transfers
/// Controller: any; the bus not faster than 1 MHz, or a settling byte gets between the bytes of an
///             exchange
///
/// A write takes three calls: `setWriteEnable(true)` before *every* byte, `writeByte`, then
/// `readStatus` until bit 0 is clear again (5 ms at most). While the chip writes it ignores
/// everything else; without the write-enable latch it ignores the write. It reports neither.
///
/// Unlike the other drivers, this one locks nothing. Where threads share the bus, hold
/// `transferMutex()` around each call; otherwise other devices get between the bytes of an
/// exchange.
///
/// All operations block until the kernel is done and return 0, or the negative code of the chip
/// selector or the bus. After a failure the rest is not sent, and the chip is deselected.
///
/// The driver's small private object is never freed: it outlives the driver.
class VARNEL_EXPORT C64kByte_At25640B : public CLinuxSpiDevice {
 public:
  /// Unbound: call `setBus` and `setChipSelector` before the first use.
  C64kByte_At25640B();
  ~C64kByte_At25640B() override;

  /// Reads the status register. The byte received with the instruction goes out while the status
  /// comes in.
  /// @param status bit 0: busy writing, bit 1: write-enable latch, bits 2 and 3: block protection,
  ///     bit 7: write protect enable; all ones while busy. Written on success only
  TErrCode readStatus(uint8_t& status);
  /// Sets or resets the write-enable latch.
  TErrCode setWriteEnable(bool writeEnabled);
  /// Sends one byte to write. Neither sets the write-enable latch nor waits for the chip.
  /// @param address all 16 bits are sent; the chip looks at the low 13
  /// @param value the byte
  TErrCode writeByte(uint16_t address, uint8_t value);
  /// Reads one byte. The byte received with the low byte of the address goes out while the data
  /// come in.
  /// @param address all 16 bits are sent; the chip looks at the low 13
  /// @param byte written on success only
  TErrCode readByte(uint16_t address, uint8_t& byte);

 protected:
  C64kByte_At25640BPrivate* d_ptr;  ///< never freed

 private:
  void setupSPITransferSettings();
};

}  // namespace EEPROM

}  // namespace Varnel

#endif
