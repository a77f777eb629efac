// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_TRANSFERINFO_H
#define VARNEL_COMMON_TRANSFERINFO_H

#include <cstdint>

namespace Varnel {

/// Position of one transfer in an exchange that keeps the chip selected over several transfers.
enum eTransferInfo : uint32_t {
  DATA_FIRST = 0,   ///< selects the chip and leaves it selected
  DATA_MIDLLE = 1,  ///< leaves the chip select alone (the spelling is part of the interface)
  DATA_LAST = 2,    ///< deselects the chip afterwards
  DATA_SINGLE = 3   ///< selects before and deselects after
};

}  // namespace Varnel

#endif
