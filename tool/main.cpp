// SPDX-License-Identifier: MIT
#include <csignal>
#include <iostream>

#include "tool/Tool.h"

int main(int argc, char** argv) {
  // A reader that went away must not end the process with the chip selected.
  std::signal(SIGPIPE, SIG_IGN);
  return tool::runTool(argc, argv, std::cout, std::cerr);
}
