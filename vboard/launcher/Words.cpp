// SPDX-License-Identifier: MIT
#include "vboard/launcher/Words.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <utility>

namespace vboard::launcher {

namespace {

char lower(char character) {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}

/// Insertions, deletions, replacements and swaps of neighbours, whatever the case.
size_t distance(std::string_view first, std::string_view second) {
  std::vector<std::vector<size_t>> cost(first.size() + 1,
                                        std::vector<size_t>(second.size() + 1, 0));
  for (size_t i = 0; i <= first.size(); ++i) {
    for (size_t j = 0; j <= second.size(); ++j) {
      if (i == 0 || j == 0) {
        cost[i][j] = i + j;
        continue;
      }
      const bool same = lower(first[i - 1]) == lower(second[j - 1]);
      cost[i][j] =
          std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + (same ? 0 : 1)});
      if (i > 1 && j > 1 && lower(first[i - 1]) == lower(second[j - 2]) &&
          lower(first[i - 2]) == lower(second[j - 1])) {
        cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
      }
    }
  }
  return cost[first.size()][second.size()];
}

/// Length of the UTF-8 sequence that starts here; 0 when it isn't one.
size_t utf8Length(std::string_view text) {
  const auto byte = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
  const size_t length = byte(0) < 0x80                       ? 1
                        : byte(0) >= 0xC2 && byte(0) <= 0xDF ? 2
                        : byte(0) >= 0xE0 && byte(0) <= 0xEF ? 3
                        : byte(0) >= 0xF0 && byte(0) <= 0xF4 ? 4
                                                             : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  const bool overlong = (byte(0) == 0xE0 && byte(1) < 0xA0) || (byte(0) == 0xF0 && byte(1) < 0x90);
  const bool surrogate = byte(0) == 0xED && byte(1) > 0x9F;
  const bool beyond = byte(0) == 0xF4 && byte(1) > 0x8F;
  return overlong || surrogate || beyond ? 0 : length;
}

}  // namespace

std::string inQuotes(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

std::string joined(const std::vector<std::string>& words) {
  std::string all;
  for (const std::string& word : words) {
    all += (all.empty() ? "" : ", ") + word;
  }
  return all;
}

std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& words) {
  std::optional<std::string> best;
  size_t bestDistance = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : words) {
    const size_t found = distance(word, candidate);
    if (found < bestDistance && found < candidate.size()) {
      best = candidate;
      bestDistance = found;
    }
  }
  return best;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& words) {
  const auto meant = nearest(word, words);
  return meant ? " (did you mean " + inQuotes(*meant) + "?)" : "";
}

std::optional<Time> parseDuration(std::string_view text) {
  static constexpr std::array<std::pair<std::string_view, double>, 7> kUnits{{{"ns", 1},
                                                                              {"us", 1e3},
                                                                              {"\u00b5s", 1e3},
                                                                              {"\u03bcs", 1e3},
                                                                              {"ms", 1e6},
                                                                              {"s", 1e9},
                                                                              {"min", 60e9}}};
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || !std::isfinite(number) || number < 0) {
    return std::nullopt;
  }
  std::string_view unit = text.substr(static_cast<size_t>(end - text.data()));
  while (!unit.empty() && unit.front() == ' ') {
    unit.remove_prefix(1);
  }
  for (const auto& [name, nanoseconds] : kUnits) {
    if (unit == name && number * nanoseconds < 9e18) {
      return Time(std::llround(number * nanoseconds));
    }
  }
  return std::nullopt;
}

std::string placed(std::string_view file, unsigned line, unsigned column, std::string_view text) {
  std::string place(file);
  if (line != 0) {
    place += ":" + std::to_string(line) + ":" + std::to_string(column);
  }
  return place + ": " + std::string(text);
}

std::string shortNumber(double value) {
  std::array<char, 40> text{};  // not printf: the program under test may have a decimal comma
  const auto end =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::general, 9);
  return std::string(text.data(), end.ptr);
}

std::string jsonString(std::string_view text) {
  std::string json = "\"";
  for (size_t i = 0; i < text.size();) {
    const char character = text[i];
    const size_t length = utf8Length(text.substr(i));
    if (length == 0) {
      json += "\\ufffd";
      i += 1;
      continue;
    }
    if (character == '"' || character == '\\') {
      json += std::string("\\") + character;
    } else if (static_cast<unsigned char>(character) < 0x20) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x",
                    static_cast<unsigned>(static_cast<unsigned char>(character)));
      json += escape.data();
    } else {
      json += text.substr(i, length);
    }
    i += length;
  }
  return json + "\"";
}

}  // namespace vboard::launcher
