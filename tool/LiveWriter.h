// SPDX-License-Identifier: MIT
#ifndef TOOL_LIVEWRITER_H
#define TOOL_LIVEWRITER_H

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

#include "tool/Live.h"
#include "tool/Records.h"

namespace tool {

/// Records of something that changes: one line each, or on a terminal one line that is written
/// again and again.
class LiveWriter {
 public:
  /// `columns` must outlive the writer.
  LiveWriter(std::ostream& out, Format format, std::string_view chip,
             std::span<const Column> columns, bool terminal);
  void write(std::initializer_list<Value> values);
  /// Ends the line that is being written again and again; others may write then.
  void finish() { line_.finish(); }

 private:
  RecordWriter records_;
  LiveLines line_;
  std::span<const Column> columns_;
  bool live_;
};

/// How far something long has come, as a bar on a terminal and as nothing elsewhere.
class ProgressBar {
 public:
  ProgressBar(std::ostream& out, bool terminal) : out_(out), terminal_(terminal) {}
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Shows "WHAT  [####....]  50 %", if that is another line than the one shown.
  void show(std::string_view what, size_t done, size_t total);
  /// Takes the bar away; others may write then.
  void clear();

 private:
  std::ostream& out_;
  bool terminal_;
  std::string shown_;
};

}  // namespace tool

#endif
