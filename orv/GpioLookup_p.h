// SPDX-License-Identifier: MIT
#ifndef ORV_GPIOLOOKUP_P_H
#define ORV_GPIOLOOKUP_P_H

#include "orv/ErrorCode.h"
#include "orv/GpioLine_p.h"

namespace Orv {

/// Finds the line of a pin number, by the installed pin map or by counting, and opens its chip.
///
/// @param pin   pin number
/// @param chip  left open on success
/// @param line  line within the chip
/// @return 0; -22 no such pin; -19 no such chip; -13 no permission; or another negated `errno`
TErrCode openChipOfPin(unsigned int pin, CGpioLine& chip, unsigned int& line);

}  // namespace Orv

#endif  // ORV_GPIOLOOKUP_P_H
