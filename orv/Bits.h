// SPDX-License-Identifier: MIT
#ifndef ORV_BITS_H
#define ORV_BITS_H

#include "orv/Export.h"

namespace Orv {

/// Counts the bits of @p value that are set: 0 to 32.
ORV_EXPORT unsigned int bitCount(unsigned int value);

}  // namespace Orv

#endif  // ORV_BITS_H
