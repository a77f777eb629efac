// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_FAULTS_H
#define VBOARD_KERNEL_FAULTS_H

#include <string>
#include <string_view>
#include <vector>

#include "vboard/kernel/Kernel.h"

namespace vboard::kernel {

/// Which emulated calls fail. Guarded by the board's lock.
class Faults {
 public:
  /// The n-th matching call from now (1 = the next), once; n = 0: every one.
  void add(Call call, unsigned n, int errorNumber, std::string_view node);
  void clear() { faults_.clear(); }

  /// Counts one call: 0, or the errno it fails with.
  int next(Call call, const std::string& nodePath) {
    return faults_.empty() ? 0 : count(call, nodePath);
  }

 private:
  struct Fault {
    Call call;
    unsigned callsLeft;  ///< 0: for ever
    int errorNumber;
    std::string node;  ///< empty: any
  };

  int count(Call call, const std::string& nodePath);

  std::vector<Fault> faults_;
};

}  // namespace vboard::kernel

#endif
