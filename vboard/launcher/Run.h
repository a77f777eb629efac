// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_RUN_H
#define VBOARD_LAUNCHER_RUN_H

#include <string>
#include <vector>

#include "vboard/launcher/BoardFile.h"

namespace vboard::launcher {

/// What to run, and on what.
struct RunOptions {
  BoardSource board;
  std::string library;  ///< path of the library to preload
  bool realTime = false;
  bool trace = false;
  std::string path;                    ///< of the program
  std::vector<std::string> arguments;  ///< its argv
  std::string reports;                 ///< directory for reports
};

/// How the program ended.
struct RunResult {
  int status = 0;     ///< exit status; 128 + signal when killed; 126 when it couldn't be started
  int signal = 0;     ///< what killed it, or 0
  std::string error;  ///< why it couldn't be started
};

/// Starts the program with the board's library preloaded and waits for its end. While it runs,
/// SIGINT and SIGQUIT are the program's, and SIGTERM and SIGHUP are handed on to it.
RunResult run(const RunOptions& options);

}  // namespace vboard::launcher

#endif
