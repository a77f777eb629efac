// SPDX-License-Identifier: MIT
#ifndef ORV_THREAD_H
#define ORV_THREAD_H

#include "orv/Export.h"

namespace Orv {

/// Helpers for the calling thread.
class ORV_EXPORT CThread {
 public:
  /// Blocks the calling thread for at least @p milliseconds; a signal does not cut it short. 0
  /// returns at once without a system call.
  static void sleep(unsigned int milliseconds);
};

}  // namespace Orv

#endif  // ORV_THREAD_H
