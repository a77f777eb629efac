// SPDX-License-Identifier: MIT
#ifndef TESTS_TOOL_TOOLRUN_H
#define TESTS_TOOL_TOOLRUN_H

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

#include "tool/Tool.h"

/// What one run of the tool left behind. `systemLines` is what went to the process's stderr past
/// the tool's own streams: the library's messages about system calls, and its log.
struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
  std::string systemLines;
};

inline ToolRun runTool(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv = {"varnel"};
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  std::ostringstream out;
  std::ostringstream err;
  ToolRun run;
  testing::internal::CaptureStderr();
  run.status = tool::runTool(static_cast<int>(argv.size()), argv.data(), out, err);
  run.systemLines = testing::internal::GetCapturedStderr();
  run.out = out.str();
  run.err = err.str();
  return run;
}

/// The words of a command line, divided at blanks.
inline ToolRun runLine(const std::string& line) {
  std::istringstream words(line);
  std::vector<std::string> arguments;
  for (std::string word; words >> word;) {
    arguments.push_back(word);
  }
  return runTool(arguments);
}

#endif
