// SPDX-License-Identifier: MIT
#ifndef TESTS_WIRE_SELECTOR_H
#define TESTS_WIRE_SELECTOR_H

#include <string>

#include "tests/wire/Wire.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace wire {

/// A chip selector that writes `select(name, true) = 0` into the journal and fails on script.
class Selector : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit Selector(std::string name) : name_(std::move(name)) {}

  TErrCode enable(bool select) override {
    const TErrCode code =
        recording() ? step("select(" + name_ + (select ? ", true)" : ", false)")) : 0;
    if (code == 0) {
      selected_ = select;
    }
    return code;
  }

  bool selected() const { return selected_; }

 private:
  std::string name_;
  bool selected_ = false;
};

}  // namespace wire

#endif
