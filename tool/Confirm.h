// SPDX-License-Identifier: MIT
#ifndef TOOL_CONFIRM_H
#define TOOL_CONFIRM_H

#include <iosfwd>
#include <string_view>

#include "tool/Interrupt.h"

namespace tool {

/// Whether somebody can answer: standard input is a terminal.
bool canAsk();
/// Writes the question to `err` and reads a line from standard input: whether it is "y" or "yes".
/// The end of the input and a signal are a no.
bool confirm(std::ostream& err, std::string_view question, const Interrupt& interrupt);

}  // namespace tool

#endif
