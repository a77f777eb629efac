// SPDX-License-Identifier: MIT
#include "tool/Plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace tool {
namespace {

constexpr size_t kMostPoints = 60;
constexpr size_t kFewestPoints = 8;
constexpr size_t kValueWidth = 10;  // "-5.0000000"
constexpr size_t kRangeWidth = 24;  // "  -5.000000 .. -5.000000"

// From low to high.
constexpr std::string_view kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::string_view kCharacters[] = {"_", ".", "-", "~", "=", "+", "*", "#"};
constexpr size_t kLevels = std::size(kBlocks);

}  // namespace

Plot::Plot(std::ostream& out, const Terminal& terminal, std::vector<std::string> names,
           std::string unit)
    : lines_(out),
      terminal_(terminal),
      names_(std::move(names)),
      unit_(std::move(unit)),
      courses_(names_.size()) {
  for (const std::string& name : names_) {
    nameWidth_ = std::max(nameWidth_, name.size());
  }
  // The last column stays free: many terminals begin a new line after it.
  const size_t columns = std::max(terminal_.columns, 1U) - 1;
  const size_t left = nameWidth_ + 2 + kValueWidth + 1 + unit_.size() + 2;
  showsRange_ = columns >= left + kFewestPoints + kRangeWidth;
  const size_t taken = left + (showsRange_ ? kRangeWidth : 0);
  points_ = columns > taken ? std::min(columns - taken, kMostPoints) : 0;
}

void Plot::add(std::span<const double> values) {
  std::vector<std::string> rows;
  for (size_t i = 0; i < courses_.size(); ++i) {
    courses_[i].push_back(values[i]);
    if (courses_[i].size() > std::max<size_t>(points_, 1)) {
      courses_[i].pop_front();
    }
    rows.push_back(row(i));
  }
  lines_.write(rows);
}

std::string Plot::row(size_t index) const {
  const std::deque<double>& values = courses_[index];
  std::string text = fmt::format("{:<{}}  {:>{}.7f} {}", names_[index], nameWidth_, values.back(),
                                 kValueWidth, unit_);
  if (points_ == 0) {
    return text.substr(0, std::max(terminal_.columns, 1U) - 1);
  }
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  text += "  " + course(values, *low, *high);
  if (showsRange_) {
    text += std::string(points_ - values.size(), ' ');
    text += fmt::format("  {:.6f} .. {:.6f}", *low, *high);
  }
  return text;
}

std::string Plot::course(const std::deque<double>& values, double low, double high) const {
  std::string text;
  for (const double value : values) {
    // A course without ups and downs runs in the middle.
    const double share = high > low ? (value - low) / (high - low) : 0.5;
    const auto level = std::min(static_cast<size_t>(share * kLevels), kLevels - 1);
    text += (terminal_.utf8 ? kBlocks : kCharacters)[level];
  }
  return text;
}

}  // namespace tool
