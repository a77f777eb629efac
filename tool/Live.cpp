// SPDX-License-Identifier: MIT
#include "tool/Live.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "tool/Records.h"

namespace tool {
namespace {

/// Whether the environment asks for UTF-8: the first of these that is set says so.
bool wantsUtf8() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(variable);
    if (value == nullptr || *value == '\0') {
      continue;
    }
    std::string charset;
    for (const char c : std::string_view(value)) {
      if (c != '-') {
        charset += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      }
    }
    return charset.find(".utf8") != std::string::npos;
  }
  return false;
}

/// The descriptor of a stream that appears on a terminal, or -1.
int terminalDescriptor(const std::ostream& out) {
  const int descriptor = &out == &std::cout   ? STDOUT_FILENO
                         : &out == &std::cerr ? STDERR_FILENO
                                              : -1;
  return descriptor >= 0 && isatty(descriptor) != 0 ? descriptor : -1;
}

}  // namespace

bool isTerminal(const std::ostream& out) {
  return terminalDescriptor(out) >= 0;
}

Terminal terminalOf(const std::ostream& out) {
  Terminal terminal;
  const int descriptor = terminalDescriptor(out);
  if (descriptor < 0) {
    return terminal;
  }
  terminal.present = true;
  terminal.utf8 = wantsUtf8();
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    terminal.columns = size.ws_col;
  }
  return terminal;
}

void LiveLines::write(std::span<const std::string> lines) {
  constexpr const char* kClearToEnd = "\x1b[K";
  std::string text = "\r";
  if (open_ && lines.size() > 1) {
    text += fmt::format("\x1b[{}A", lines.size() - 1);
  }
  for (size_t i = 0; i < lines.size(); ++i) {
    text += (i == 0 ? "" : "\n") + lines[i] + kClearToEnd;
  }
  errno = 0;
  out_ << text << std::flush;
  if (!out_) {
    throw OutputError(errno);
  }
  open_ = true;
}

void LiveLines::finish() {
  if (open_) {
    out_ << '\n' << std::flush;
    open_ = false;
  }
}

}  // namespace tool
