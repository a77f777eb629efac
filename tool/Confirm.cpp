// SPDX-License-Identifier: MIT
#include "tool/Confirm.h"

#include <poll.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <optional>
#include <ostream>
#include <string>

namespace tool {
namespace {

/// A line of standard input, without its end; nothing when input or patience ended before it.
std::optional<std::string> readLine(const Interrupt& interrupt) {
  // A read would go on after a signal: so it begins only when there is something to read.
  constexpr int kSliceMs = 50;
  std::string line;
  while (!interrupt.requested()) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&input, 1, kSliceMs);
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
      continue;
    }
    char c = 0;
    if (ready < 0 || read(STDIN_FILENO, &c, 1) != 1) {
      return std::nullopt;
    }
    if (c == '\n') {
      return line;
    }
    line += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return std::nullopt;
}

}  // namespace

bool canAsk() {
  return isatty(STDIN_FILENO) != 0;
}

bool confirm(std::ostream& err, std::string_view question, const Interrupt& interrupt) {
  err << "varnel: " << question << " [y/N] " << std::flush;
  const std::optional<std::string> answer = readLine(interrupt);
  if (!answer) {
    err << '\n' << std::flush;
  }
  return answer == "y" || answer == "yes";
}

}  // namespace tool
