// SPDX-License-Identifier: MIT
#ifndef TESTS_TOOL_STANDARDINPUT_H
#define TESTS_TOOL_STANDARDINPUT_H

#include <unistd.h>

/// Makes a descriptor, which it closes, the standard input as long as it lives.
class StandardInput {
 public:
  explicit StandardInput(int descriptor) : before_(dup(STDIN_FILENO)) {
    dup2(descriptor, STDIN_FILENO);
    close(descriptor);
  }
  ~StandardInput() {
    if (before_ < 0) {
      close(STDIN_FILENO);
      return;
    }
    dup2(before_, STDIN_FILENO);
    close(before_);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

 private:
  int before_;
};

#endif
