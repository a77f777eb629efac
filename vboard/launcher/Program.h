// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_PROGRAM_H
#define VBOARD_LAUNCHER_PROGRAM_H

#include <string>

namespace vboard::launcher {

/// A program to run, found and looked at before it is started.
struct Program {
  std::string path;   ///< what to execute
  int status = 0;     ///< 0, or the exit status: 126 can't be run on the board, 127 not found
  std::string error;  ///< why, and what to do about it
};

/// Finds a program as a shell does and makes sure that the board's library can be loaded into it:
/// a static or privileged one would run without a board and never say so. `self` is a program that
/// the library fits, to compare with.
Program findProgram(const std::string& name, const std::string& self = "/proc/self/exe");

}  // namespace vboard::launcher

#endif
