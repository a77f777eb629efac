// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_SESSION_H
#define VBOARD_LAUNCHER_SESSION_H

// What `varnel-board` and the library preloaded into its programs tell each other.

namespace vboard::launcher {

/// The board's description travels as text, so that it reaches every process of a run whatever
/// becomes of the file.
inline constexpr const char* kFileVariable = "VARNEL_BOARD_FILE";
inline constexpr const char* kTextVariable = "VARNEL_BOARD_TEXT";
/// One setting per line.
inline constexpr const char* kSettingsVariable = "VARNEL_BOARD_SETTINGS";
/// Words: "realtime", "trace".
inline constexpr const char* kOptionsVariable = "VARNEL_BOARD_OPTIONS";
/// A directory. A process that touches a node leaves `PID-IMAGE.begun` there, which holds its name,
/// and when it ends `PID-IMAGE.json`.
inline constexpr const char* kReportsVariable = "VARNEL_BOARD_REPORTS";

/// What one environment string holds at most (MAX_ARG_STRLEN, with the variable's name and room to
/// spare).
inline constexpr unsigned kMaxTextSize = 130000;

/// Writes this process's report, if it has one to give. Called before the process ends or becomes
/// another program.
void reportBeforeLeaving() noexcept;

}  // namespace vboard::launcher

#endif
