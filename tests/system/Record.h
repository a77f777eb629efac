// SPDX-License-Identifier: MIT
#ifndef TESTS_SYSTEM_RECORD_H
#define TESTS_SYSTEM_RECORD_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "orv/ErrorCode.h"

namespace checks {

/// What was seen, one line per check: "bus: open => 0". The same lines come from a real kernel and
/// from the virtual board, so nothing in them may depend on the machine or on chance.
class Record {
 public:
  explicit Record(std::string section) : section_(std::move(section)) {}

  /// Names are unique within a section.
  void note(const std::string& name, const std::string& seen);
  /// Notes the outcome of an operation.
  void run(const std::string& name, const std::function<TErrCode()>& operation);

 private:
  std::string section_;
  std::set<std::string> names_;
};

/// The code an operation returns, followed by what it wrote to stderr and to the library's log:
/// "-22; can't set spi mode: Invalid argument; log transferData: Return code …".
std::string outcome(const std::function<TErrCode()>& operation);

/// "ee 00 5a"
std::string hex(const std::vector<uint8_t>& bytes);

}  // namespace checks

#endif
