// SPDX-License-Identifier: MIT
#ifndef TOOL_LIVE_H
#define TOOL_LIVE_H

#include <iosfwd>
#include <span>
#include <string>

namespace tool {

/// What output appears on.
struct Terminal {
  bool present = false;
  unsigned int columns = 80;
  bool utf8 = false;
};

/// Whether what is written there appears on a terminal.
bool isTerminal(const std::ostream& out);
/// The same, with the terminal's width and whether it shows UTF-8.
Terminal terminalOf(const std::ostream& out);

/// Lines on a terminal that are written again and again in the same place. They must fit its width.
class LiveLines {
 public:
  explicit LiveLines(std::ostream& out) : out_(out) {}
  ~LiveLines() { finish(); }
  LiveLines(const LiveLines&) = delete;
  LiveLines& operator=(const LiveLines&) = delete;

  /// As many lines each time, until `finish`. Throws OutputError.
  void write(std::span<const std::string> lines);
  /// Leaves the lines as they are and goes to the one below; others may write then.
  void finish();

 private:
  std::ostream& out_;
  bool open_ = false;
};

}  // namespace tool

#endif
