// SPDX-License-Identifier: MIT
#ifndef TOOL_TROUBLE_H
#define TOOL_TROUBLE_H

#include <optional>
#include <utility>

#include "tool/Failure.h"

namespace tool {

/// Remembers the step that failed inside a driver's operation: the operation itself returns but a
/// code, whether it came from the bus, a select or a latch line.
class Trouble {
 public:
  using Noted = std::pair<Step, TErrCode>;

  /// Passes the code on, and remembers it if it is the first failure.
  TErrCode note(Step step, TErrCode code) {
    if (code < 0 && !first_) {
      first_ = {step, code};
    }
    return code;
  }
  /// The first failure; reading it forgets it.
  std::optional<Noted> take() { return std::exchange(first_, std::nullopt); }

 private:
  std::optional<Noted> first_;
};

/// A driver whose failing transfers are noted.
template <typename Driver>
class Watched : public Driver {
 public:
  /// `trouble` must outlive the driver, which is made of `arguments`.
  template <typename... Arguments>
  explicit Watched(Trouble& trouble, const Arguments&... arguments)
      : Driver(arguments...), trouble_(trouble) {}

  using Driver::executeTransfer;
  TErrCode executeTransfer() override {
    return trouble_.note(Step::Transfer, Driver::executeTransfer());
  }

 private:
  Trouble& trouble_;
};

}  // namespace tool

#endif
