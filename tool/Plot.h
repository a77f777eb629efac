// SPDX-License-Identifier: MIT
#ifndef TOOL_PLOT_H
#define TOOL_PLOT_H

#include <deque>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "tool/Live.h"

namespace tool {

/// A row for each of some values: its name, the latest value, the course of the values before it,
/// and the range that their course spans.
class Plot {
 public:
  Plot(std::ostream& out, const Terminal& terminal, std::vector<std::string> names,
       std::string unit);

  /// The next value of each name, in their order. Throws OutputError.
  void add(std::span<const double> values);

 private:
  std::string row(size_t index) const;
  std::string course(const std::deque<double>& values, double low, double high) const;

  LiveLines lines_;
  Terminal terminal_;
  std::vector<std::string> names_;
  std::string unit_;
  size_t nameWidth_ = 0;
  size_t points_ = 0;  // of a row
  bool showsRange_ = true;
  std::vector<std::deque<double>> courses_;
};

}  // namespace tool

#endif
