// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_WORDS_H
#define VBOARD_LAUNCHER_WORDS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Clock.h"

namespace vboard::launcher {

/// The text in double quotes.
std::string inQuotes(std::string_view text);

/// "a, b, c".
std::string joined(const std::vector<std::string>& words);

/// The word that was probably meant: the nearest one, when it is near enough to be a slip.
std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& words);

/// ` (did you mean "x"?)` or nothing, to put behind what is wrong.
std::string didYouMean(std::string_view word, const std::vector<std::string>& words);

/// Reads "20us", "1.5 ms", "2s", "1 min"; nothing when it isn't a duration of 0 or more.
std::optional<Time> parseDuration(std::string_view text);

/// What `parseDuration` takes, for messages.
inline constexpr std::string_view kDurationForm =
    "a number with ns, us, ms, s or min, such as \"20us\" or \"1.5 s\"";

/// The value with its place in a file, as compilers print it; without a line, only the file.
std::string placed(std::string_view file, unsigned line, unsigned column, std::string_view text);

/// A number the way people write it: shortest form that keeps nine significant digits.
std::string shortNumber(double value);

/// The text as a JSON string, quotes included; bytes that aren't UTF-8 become U+FFFD.
std::string jsonString(std::string_view text);

}  // namespace vboard::launcher

#endif
