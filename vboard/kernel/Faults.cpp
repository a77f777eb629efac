// SPDX-License-Identifier: MIT
#include "vboard/kernel/Faults.h"

namespace vboard::kernel {

void Faults::add(Call call, unsigned n, int errorNumber, std::string_view node) {
  faults_.push_back({call, n, errorNumber, std::string(node)});
}

int Faults::count(Call call, const std::string& nodePath) {
  int errorNumber = 0;
  for (auto fault = faults_.begin(); fault != faults_.end();) {
    const bool matches = fault->call == call && (fault->node.empty() || fault->node == nodePath);
    const bool spent = matches && fault->callsLeft == 1;
    const bool fires = matches && fault->callsLeft <= 1;
    if (matches && fault->callsLeft > 1) {
      --fault->callsLeft;
    }
    if (fires && errorNumber == 0) {
      errorNumber = fault->errorNumber;
    }
    fault = spent ? faults_.erase(fault) : fault + 1;
  }
  return errorNumber;
}

}  // namespace vboard::kernel
