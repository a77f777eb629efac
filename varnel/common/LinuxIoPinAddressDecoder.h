// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_LINUXIOPINADDRESSDECODER_H
#define VARNEL_COMMON_LINUXIOPINADDRESSDECODER_H

#include <cstdint>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "varnel/common/Export.h"

namespace Varnel {

/// A group of output pins driven as one binary number, for an external address decoder: the pin
/// added first carries bit 0. For use by one thread at a time.
class VARNEL_EXPORT CLinuxIoPinAddressDecoder {
 public:
  /// Without pins.
  CLinuxIoPinAddressDecoder();
  ~CLinuxIoPinAddressDecoder();

  /// Appends an output pin, which `connectPins` connects.
  /// @return 0, or -28 when 32 pins are held already
  TErrCode addPin(unsigned int pin, Orv::ePinMode mode);
  /// Connects the pins in order. The first failure ends it with the pin's code.
  TErrCode connectPins();
  /// Writes one bit of the address to each pin, bit 0 first, one pin after the other: in between a
  /// decoder sees other addresses. Bits above the number of pins are ignored. The first failure
  /// ends it with the pin's code; the pins after it keep their levels.
  TErrCode writeAddress(uint32_t address);
  /// The pin at a position, 0 for the one added first.
  /// @throws std::out_of_range for a position at or beyond the number of pins
  Orv::CLinuxIoPin& pin(unsigned int index);

 protected:
  std::vector<Orv::CLinuxIoPin> m_IoPins;  ///< bit 0 first
};

}  // namespace Varnel

#endif
