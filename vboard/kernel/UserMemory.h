// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_USERMEMORY_H
#define VBOARD_KERNEL_USERMEMORY_H

#include <cstddef>

#include "vboard/kernel/Node.h"

namespace vboard::kernel {

/// As `copyToUser`, but a destination that is writable only at its start takes what fits. Returns
/// the bytes copied.
size_t copyToUserPartly(void* destination, const void* source, size_t size);

}  // namespace vboard::kernel

#endif
