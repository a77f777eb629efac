// SPDX-License-Identifier: MIT
#ifndef TOOL_RECORDS_H
#define TOOL_RECORDS_H

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

namespace tool {

enum class Format : uint8_t { Text, Csv, Json };

/// One value of a record. Text output shows it as "NAME VALUE" or "VALUE UNIT", CSV and JSON under
/// its name; a column can be for one of them only.
struct Column {
  std::string_view name;
  std::string_view unit = {};
  bool inText = true;
  bool inData = true;
  int textWidth = 0;
  int textDecimals = 0;
  int dataDecimals = 0;
};

using Value = std::variant<int64_t, uint64_t, double, std::string>;

/// Writing a record failed; `errorNumber` is the system's reason, or 0.
class OutputError : public std::runtime_error {
 public:
  explicit OutputError(int errorNumber);
  int errorNumber() const { return errorNumber_; }

 private:
  int errorNumber_;
};

/// Writes records of the same columns, each at once as one line: aligned text, CSV under one
/// header line, or one JSON object per line, whose first member "chip" says who speaks.
class RecordWriter {
 public:
  /// `columns` must outlive the writer.
  RecordWriter(std::ostream& out, Format format, std::string_view chip,
               std::span<const Column> columns);
  /// One value per column, in their order. Throws OutputError.
  void write(std::initializer_list<Value> values);

 private:
  std::string line(std::span<const Value> values) const;

  std::ostream& out_;
  Format format_;
  std::string chip_;
  std::span<const Column> columns_;
  bool headerWritten_ = false;
};

/// The lines, for tests and other outputs.
std::string textLine(std::span<const Column> columns, std::span<const Value> values);
std::string csvHeader(std::span<const Column> columns);
std::string csvLine(std::span<const Column> columns, std::span<const Value> values);
std::string jsonLine(std::string_view chip, std::span<const Column> columns,
                     std::span<const Value> values);

}  // namespace tool

#endif
