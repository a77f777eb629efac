// SPDX-License-Identifier: MIT
#include "tool/LiveWriter.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <utility>

namespace tool {
namespace {

constexpr const char* kClearToEnd = "\x1b[K";
constexpr size_t kBarWidth = 40;

}  // namespace

LiveWriter::LiveWriter(std::ostream& out, Format format, std::string_view chip,
                       std::span<const Column> columns, bool terminal)
    : records_(out, format, chip, columns),
      line_(out),
      columns_(columns),
      live_(terminal && format == Format::Text) {
}

void LiveWriter::write(std::initializer_list<Value> values) {
  if (!live_) {
    records_.write(values);
    return;
  }
  const std::string line[] = {textLine(columns_, {values.begin(), values.size()})};
  line_.write(line);
}

ProgressBar::~ProgressBar() {
  clear();
}

void ProgressBar::show(std::string_view what, size_t done, size_t total) {
  if (!terminal_) {
    return;
  }
  const size_t filled = total == 0 ? kBarWidth : kBarWidth * std::min(done, total) / total;
  const size_t percent = total == 0 ? 100 : 100 * std::min(done, total) / total;
  std::string line =
      fmt::format("{}  [{:.<{}}] {:3} %", what, std::string(filled, '#'), kBarWidth, percent);
  if (line != shown_) {
    out_ << '\r' << line << kClearToEnd << std::flush;
    shown_ = std::move(line);
  }
}

void ProgressBar::clear() {
  if (!shown_.empty()) {
    out_ << '\r' << kClearToEnd << std::flush;
    shown_.clear();
  }
}

}  // namespace tool
