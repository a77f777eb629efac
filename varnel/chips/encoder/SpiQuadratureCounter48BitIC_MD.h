// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ENCODER_SPIQUADRATURECOUNTER48BITIC_MD_H
#define VARNEL_CHIPS_ENCODER_SPIQUADRATURECOUNTER48BITIC_MD_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

/// Vocabulary and driver of the iC-MD.
namespace iC_MD {

constexpr uint8_t MAX_COUNT_OF_COUNTERS = 3;        ///< position counters
constexpr uint8_t MAX_COUNT_OF_INDEX_COUNTERS = 2;  ///< counters that an index signal can clear
constexpr uint8_t MAX_COUNTER_DATA_BYTES = 6;       ///< bytes of all counters together
constexpr uint8_t CONFIG_REGISTER_COUNT = 8;        ///< registers 0 to 7 hold the configuration
constexpr uint8_t WRITE_DUMMY = 0;                  ///< sent while a byte is read

/// Register addresses.
enum eRegister : uint8_t {
  REG_COUNTER_INPUT_CONFIG = 0x00,   ///< counter configuration, directions
  REG1_Z_TOUCH_PROBE_CONFIG = 0x01,  ///< index signal, touch probe, input level
  REG_POSITION_COUNTER_DATA = 0x08,  ///< all counters as one word, read only
  REG_INSTRUCTION_BYTE = 0x30,       ///< instructions, write only
};

/// What is ORed into an address byte.
enum eCommand : uint8_t {
  READ_REGISTER = 0x80,  ///< reads; an address byte without it writes
};

/// Fields of register 0.
enum eREG0_BITMASK : uint8_t {
  BITMASK_REG0_CNTCFG = 0x07,  ///< counter configuration, an `eREG0_CNTCFG_VALUE`
};

/// Bit numbers in register 1.
enum eREG1_BITS : uint8_t {
  BIT_REG1_PRIOR = 0,  ///< priority of the interfaces
  BIT_REG1_CBZ0 = 5,   ///< the index signal clears counter 0
  BIT_REG1_CBZ1 = 6,   ///< the index signal clears counter 1
  BIT_REG1_TTL = 7,    ///< TTL inputs, needed by two and three counters
};

/// Counter configurations: how the chip splits its 48 bits.
enum eREG0_CNTCFG_VALUE : uint8_t {
  REG0_CNT0_24BIT = 0,                        ///< one counter of 24 bits
  REG0_CNT0_24BIT_CNT1_24BIT = 1,             ///< two counters of 24 bits
  REG0_CNT0_48BIT = 2,                        ///< one counter of 48 bits
  REG0_CNT0_16BIT = 3,                        ///< one counter of 16 bits
  REG0_CNT0_32BIT = 4,                        ///< one counter of 32 bits
  REG0_CNT0_32BIT_CNT1_16BIT = 5,             ///< counter 0 of 32 bits, counter 1 of 16
  REG0_CNT0_16BIT_CNT1_16BIT = 6,             ///< two counters of 16 bits
  REG0_CNT0_16BIT_CNT1_16BIT_CNT2_16BIT = 7,  ///< three counters of 16 bits
};

class CSpiQuadratureCounter48BitPrivate;

/// iC-Haus iC-MD: quadrature counter with one to three counters of 16 to 48 bits.
///
/// Parts:      iC-MD
/// SPI:        mode 0, most significant bit first, words of 8 bits, 1 MHz or the bus speed where
///             that is lower; one transfer per byte
/// Pins:       chip select (active low) through a chip selector on a GPIO: it stays low over
///             several transfers
/// Controller: any; the bus not faster than 1 MHz, or a settling byte gets between the bytes of an
///             exchange
///
/// The driver keeps a copy of the eight configuration registers. Set it up with `setRegisterValue`
/// and `setRegisterBitValue`, at least the counter configuration in register 0, send it with
/// `connect`, then read positions.
///
/// Every operation that talks to the chip blocks until the kernel is done, with the bus locked for
/// its whole exchange.
class VARNEL_EXPORT CSpiQuadratureCounter48Bit : public CLinuxSpiDevice {
 public:
  /// Unbound, everything 0: call `setBus` and `setChipSelector` before `connect`.
  CSpiQuadratureCounter48Bit();
  ~CSpiQuadratureCounter48Bit() override;

  /// Changes the bits of `mask` in the copy of a configuration register. Nothing is sent or locked.
  /// @param reg 0 to 7; others change nothing
  /// @param mask the bits to change
  /// @param value their new values, in place
  void setRegisterValue(uint8_t reg, uint8_t mask, uint8_t value);
  /// Changes one bit in the copy of a configuration register. Nothing is sent or locked.
  /// @param reg 0 to 7; others change nothing
  /// @param bit 0 to 7; others change nothing
  /// @param on its new value
  void setRegisterBitValue(uint8_t reg, uint8_t bit, bool on);

  /// Writes the copy of the configuration registers to the chip, 0 to 7.
  /// @return 0, or what the first failing `writeRegister` returns; later registers aren't written
  TErrCode connect();
  /// Writes a register; the copy of the configuration is not changed.
  /// @param reg its address, sent as it is: with bit 7 set the chip takes it for a read
  /// @param value the byte
  /// @return 0, or the negative code of the chip selector or the bus; the chip is then deselected
  TErrCode writeRegister(uint8_t reg, uint8_t value);
  /// Reads a register.
  /// @param reg its address; bit 7 is ignored
  /// @param value the byte; written on success only
  /// @return 0, or the negative code of the chip selector or the bus; the chip is then deselected
  TErrCode readRegister(uint8_t reg, uint8_t& value);

  /// Reads all counters and gives one of them, without sign extension: a counter of 24 bits comes
  /// as 0 to 16777215, one of 48 bits as 0 to 281474976710655.
  ///
  /// A read that fails is logged, but not reported: `position` is then what the last successful
  /// read gave, and the chip stays selected: release it with `enableChipSelect(false)` before the
  /// next exchange.
  /// @param counter 0 to 2; one that the configuration hasn't keeps its last value, at first 0
  /// @param position always written for a valid counter
  /// @return 0; -22 for a counter above 2, with nothing read
  TErrCode readPosition64(uint8_t counter, int64_t& position);
  /// As `readPosition64`, with the low 32 bits taken as a signed number: a counter of 32 bits comes
  /// out signed, a shorter one does not.
  TErrCode readPosition32(uint8_t counter, int32_t& position);
  /// As `readPosition64`, with the low 16 bits taken as a signed number: a counter of 16 bits comes
  /// out signed, of a longer one only the low bits.
  TErrCode readPosition16(uint8_t counter, int16_t& position);

  /// Sets a counter to 0. The instruction also drops the chip's two actuator outputs.
  /// @param counter 0 to 2
  /// @return 0; -22 for a counter above 2, with nothing sent; or what `writeRegister` returns
  TErrCode clearCounter(uint8_t counter);
  /// Says whether the index signal clears a counter, and sends register 1.
  /// @param counter 0 or 1
  /// @param on whether it does
  /// @return 0; -22 for a counter above 1, with nothing sent; or what `writeRegister` returns. The
  ///     copy of register 1 keeps the change after a failure.
  TErrCode setClearCounterOnIndex(uint8_t counter, bool on);

 protected:
  CSpiQuadratureCounter48BitPrivate* d_ptr;  ///< owned

 private:
  void setupSPITransferSettings();
};

}  // namespace iC_MD

}  // namespace Varnel

#endif
