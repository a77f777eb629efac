// SPDX-License-Identifier: MIT
#ifndef ORV_LINUXIOPIN_P_H
#define ORV_LINUXIOPIN_P_H

#include <mutex>

#include "orv/GpioLine_p.h"
#include "orv/LinuxIoPin.h"

namespace Orv {

/// The line that all copies of one pin share. What the pin is never changes: configuring a pin
/// gives it another of these.
class CLinuxIoPinPrivate {
 public:
  CLinuxIoPinPrivate() = default;
  CLinuxIoPinPrivate(unsigned int pin, ePinDirection direction, ePinMode mode)
      : Pin(pin), Direction(direction), Mode(mode) {}

  const unsigned int Pin = 0;
  const ePinDirection Direction = INPUT_PIN;
  const ePinMode Mode = PIN_MODE_HW;

  /// Held by connect(), write() and read() for their whole run.
  std::mutex Mutex;
  /// Open while the pin is connected, and then holding the requested line.
  CGpioLine Line;
  /// The last write or read failed, so connecting again must not keep the line.
  bool IsFaulty = false;
};

}  // namespace Orv

#endif  // ORV_LINUXIOPIN_P_H
