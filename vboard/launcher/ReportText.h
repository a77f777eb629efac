// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_REPORTTEXT_H
#define VBOARD_LAUNCHER_REPORTTEXT_H

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>

namespace vboard::launcher {

/// Reads what the processes of a run left in a directory, in the order they began: reports, and
/// for a process that left none `{"program", "pid", "complete": false}`.
nlohmann::ordered_json collectReports(const std::string& directory);

/// Violations of all processes.
uint64_t violationsIn(const nlohmann::ordered_json& report);

/// Whether a process touched the board and told nothing about it.
bool reportMissing(const nlohmann::ordered_json& report);

/// The report as people read it: `{"board", "processes", …}` as `varnel-board --report json` gives.
std::string reportText(const nlohmann::ordered_json& report);

}  // namespace vboard::launcher

#endif
