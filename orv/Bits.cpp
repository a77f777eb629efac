// SPDX-License-Identifier: MIT
#include "orv/Bits.h"

namespace Orv {

unsigned int bitCount(unsigned int value) {
  return static_cast<unsigned int>(__builtin_popcount(value));
}

}  // namespace Orv
