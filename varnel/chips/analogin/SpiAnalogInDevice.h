// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGIN_SPIANALOGINDEVICE_H
#define VARNEL_CHIPS_ANALOGIN_SPIANALOGINDEVICE_H

#include <cstdint>

#include "orv/ErrorCode.h"
#include "varnel/common/Export.h"

namespace Varnel {

/// What the 24-bit converters with several channels have in common: results are fetched into a
/// cache by one thread and read from there by any.
class VARNEL_EXPORT ISpiAnalogInDevice {
 public:
  virtual ~ISpiAnalogInDevice() = default;
  /// Connects the pins and programs the converter.
  /// @return 0, or the negative code of the step that failed; the later steps are not run
  /// Blocks for the transfers of the start-up, with the bus locked.
  virtual TErrCode open() = 0;
  /// The last converted value of a channel, from the cache. Neither blocks nor locks.
  /// @param channel 0 to `numberOfChannels()` - 1
  /// @return the 24-bit code as it came, 0 to 16,777,215, not sign-extended: a negative input gives
  ///     0x800000 and above. 0 before the first conversion and for a channel that there isn't.
  virtual int32_t readChannel(uint16_t channel) const = 0;
  /// Fetches new results from the converter into the cache.
  /// @return 0, or the negative code of what failed; a value is stored after its own successful
  ///     transfer only
  /// Blocks for the transfers of the conversion, with the bus locked.
  virtual TErrCode doConversion() = 0;
  /// How many channels `readChannel` knows.
  virtual uint16_t numberOfChannels() const = 0;
};

}  // namespace Varnel

#endif
