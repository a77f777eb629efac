// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_REPORT_H
#define VBOARD_LAUNCHER_REPORT_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "vboard/board/Board.h"

namespace vboard::launcher {

/// What became of a board in one process, as one JSON object: its parts' reported properties, bus
/// statistics, driven lines, time and violations. Call it with the board's lock held.
std::string reportJson(const Board& board, std::string_view program, pid_t process);

}  // namespace vboard::launcher

#endif
