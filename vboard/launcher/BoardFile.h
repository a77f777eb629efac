// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_BOARDFILE_H
#define VBOARD_LAUNCHER_BOARDFILE_H

#include <memory>
#include <string>
#include <vector>

#include "vboard/board/Board.h"
#include "vboard/kernel/Kernel.h"

namespace vboard {

/// A board file: its text, the name it goes by in messages, and what `--set` lays over it.
struct BoardSource {
  std::string file;
  std::string text;
  /// Each "CHIP.PROPERTY=VALUE"; the value as in the file, quotes around a text may be left out.
  std::vector<std::string> settings;
};

/// A mistake in a board file. Line 0: it stands in a setting, which `file` then names.
struct BoardProblem {
  std::string file;
  unsigned line = 0;
  unsigned column = 0;
  std::string text;  ///< what is wrong, and what is allowed

  /// "boards/demo.toml:12:5: unknown key …".
  [[gnu::visibility("default")]] std::string message() const;
};

/// A call that is to fail once the kernel runs. `nth` 0: every one.
struct CallFault {
  Call call = Call::Open;
  unsigned nth = 1;
  int error = 0;
  std::string node;  ///< empty: any
};

struct LoadedBoard {
  /// Wired and with its properties set, not yet powered up. Null when there are problems.
  std::unique_ptr<Board> board;
  std::vector<CallFault> faults;
  /// Every mistake found, in the order of the file.
  std::vector<BoardProblem> problems;
};

/// Builds the board that a file describes. Never throws for anything the file says.
[[gnu::visibility("default")]] LoadedBoard loadBoard(const BoardSource& source);

}  // namespace vboard

#endif
