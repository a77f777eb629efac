// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPERROR_H
#define TOOL_CHIPERROR_H

#include <stdexcept>
#include <string>

namespace tool {

/// The chip answers, but not as it should: what is wrong, and what to try.
class ChipError : public std::runtime_error {
 public:
  ChipError(const std::string& what, const std::string& tryThis)
      : std::runtime_error(what + "\n  try: " + tryThis) {}
};

}  // namespace tool

#endif
