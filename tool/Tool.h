// SPDX-License-Identifier: MIT
#ifndef TOOL_TOOL_H
#define TOOL_TOOL_H

#include <iosfwd>

namespace tool {

/// The whole tool: `argv[0]` is the program. Readings and help go to `out`, messages to `err`; the
/// library's own system call messages go to the process's stderr. Returns the exit status: 0 done,
/// 1 the device failed, 2 bad arguments. Throws nothing.
int runTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace tool

#endif
