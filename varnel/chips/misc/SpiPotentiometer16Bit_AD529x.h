// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_MISC_SPIPOTENTIOMETER16BIT_AD529X_H
#define VARNEL_CHIPS_MISC_SPIPOTENTIOMETER16BIT_AD529X_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

/// Bits of the potentiometer's control word. After a reset all are 0: the wiper can't be written.
enum eControlWordBit {
  CW_BIT_TPMEM_ENABLE = 1,        ///< storing into the memory is allowed
  CW_BIT_RDAC_WRITE_ENABLE = 2,   ///< writing the wiper register is allowed
  CW_BIT_CALIBRATION_ENABLE = 4,  ///< bit C2: 0 is the calibrated mode, whatever the name says
  CW_BIT_TPMEM_SUCCESS = 8        ///< read only: the last store succeeded
};

/// A word to or from the potentiometer:
///
///     bit  15 14  13 ... 10  9 ... 0
///          as is   command    data
///
/// The control word is the low four bits of the data.
class VARNEL_EXPORT CAD529xShiftRegister {
 public:
  /// The whole word, in host order.
  uint16_t m_Data;

  /// Takes a whole word; implicit, so that a plain word can be assigned.
  CAD529xShiftRegister(uint16_t value);  // NOLINT(google-explicit-constructor)

  /// The command, 0 to 15.
  uint8_t commandBits() const;
  /// Replaces the command by the low four bits of `command`.
  void setCommandBits(uint8_t command);
  /// The data, 0 to 1023.
  uint16_t dataBits() const;
  /// Replaces the data by the low ten bits of `data`.
  void setDataBits(uint16_t data);
  /// The control word, 0 to 15.
  uint16_t controlWord() const;
  /// Replaces the control word by the low four bits of `controlWord`.
  void setControlWord(uint16_t controlWord);

  /// Whether the words are equal.
  bool operator==(const CAD529xShiftRegister& other) const;
};

/// Analog Devices AD5291 and AD5292: digital potentiometer with a one-time programmable memory.
///
/// Parts:      AD5292 (1024 positions), AD5291 (256 positions, in data bits 9 to 2)
/// SPI:        mode 1, most significant bit first, one word of 16 bits per frame, at the bus speed
///             (the chip takes 50 MHz, and about 1 MHz to be read)
/// Pins:       SYNC (low during a frame) through `setLatchPin`, required. The driver rests it LOW
///             after the pulse that ends a frame. No chip selector
/// Controller: must take 16-bit words; the Raspberry Pi's own takes 8 only, `spi-gpio` any
///
/// A value that the chip returns comes with the next frame: a read is a command frame and a
/// no-operation frame. Every frame ends with a pause of 1 ms.
///
/// A word equal to the last one sent is not sent again by `setRegister` and the operations built on
/// it: of two `storeRDAC` in a row the second does nothing, unless something else went out between.
///
/// Operations return a negative code of the latch pin or the bus on failure, which they log. They
/// block for one frame, or the frames named there, with the bus locked.
class VARNEL_EXPORT CSpiPotentiometer16Bit_AD529x : public CLinuxSpiDevice {
 public:
  /// The chip's commands.
  enum eCommandWord : uint32_t {
    CW_NOOP = 0,              ///< nothing; brings out the answer to a read
    CW_WRITE_RDAC = 1,        ///< sets the wiper
    CW_READ_RDAC = 2,         ///< asks for the wiper's position
    CW_STORE_RDAC = 3,        ///< stores the wiper's position for good
    CW_RESTORE_RDAC = 4,      ///< resets the chip: the wiper gets the stored position
    CW_READ_TPMEM = 5,        ///< asks for a word of the memory
    CW_WRITE_CTRL_REG = 6,    ///< sets the control word
    CW_READ_CTRL_REG = 7,     ///< asks for the control word
    CW_SOFTWARE_SHUTDOWN = 8  ///< data bit 0 set: disconnects the potentiometer
  };

  /// Unbound: call `setBus` and `setLatchPin` before the first frame.
  CSpiPotentiometer16Bit_AD529x();
  ~CSpiPotentiometer16Bit_AD529x() override;

  /// Sends a word, unless it is the one last sent.
  /// @param value the whole word
  /// @param doWrite `DO_TRANSFER` sends now; `NO_TRANSFER` only stores the word for the next
  ///     transfer, and doesn't count it as sent
  /// @return 0 or a negative code
  TErrCode setRegister(uint16_t value, bool doWrite);
  /// Sets the wiper.
  /// @param value 0 to 1023 from terminal B to A. Not limited: bits 14 and 15 go out as they are,
  ///     bits 10 to 13 are replaced by the command
  /// @return 0 or a negative code
  TErrCode writeRDAC(uint16_t value);
  /// Sets the control word.
  /// @param controlWord an OR of `eControlWordBit` values; the upper four bits are ignored
  /// @return 0 or a negative code
  TErrCode writeControlWord(uint8_t controlWord);
  /// Stores the wiper's position in the next free word of the memory, permanently; there are 20.
  /// The chip needs about 8 ms.
  /// @return 0 or a negative code
  TErrCode storeRDAC();
  /// Resets the chip: the wiper gets the position last stored, the control word becomes 0.
  /// @return 0 or a negative code
  TErrCode loadRdacFromTpMem();

  /// Sends a word, also the one last sent, and reads the answer with a second frame.
  /// @param txRegister the word with the read command
  /// @return the answer's data, 0 to 1023, or a negative code
  TErrCode readData(CAD529xShiftRegister& txRegister);
  /// The same with a command without data.
  TErrCode readData(eCommandWord command);
  /// Reads the control word.
  /// @return an OR of `eControlWordBit` values, 0 to 15, or a negative code
  TErrCode readControlWord();
  /// Reads a word of the memory.
  /// @param address 0 to 19
  /// @return the stored position, 0 to 1023; -513 for an address above 19, with nothing sent; or a
  ///     negative code
  TErrCode readTpMem(uint8_t address);
  /// Reads, in four frames, how far the memory is programmed.
  /// @return the address of the word last programmed, 0 to 19; 255 if there is none; or a negative
  ///     code
  TErrCode readLastProgrammedMemoryAddress();
  /// Reads, in six frames, the word last programmed.
  /// @return the stored position, 0 to 1023; -513 if there is none; or a negative code
  TErrCode readLastProgrammedTpMem();

  /// Latch LOW, chained transfer, latch HIGH, pause of 1 ms, latch LOW; with `NO_TRANSFER` nothing.
  /// A failure ends it with the latch as it is, and the word doesn't count as sent.
  TErrCode transferData(bool doWrite) override;

 protected:
  /// Stores a word, also the one last sent, and transfers it as `transferData` does.
  TErrCode privateSetRegister(uint16_t value, bool doWrite);

  CAD529xShiftRegister m_RegisterTx{0};            ///< the word to send
  CAD529xShiftRegister m_RegisterRx{0x0011};       ///< the word last received
  CAD529xShiftRegister m_RegisterTxCache{0xFFFF};  ///< the word last sent with success
};

}  // namespace Varnel

#endif
