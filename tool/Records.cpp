// SPDX-License-Identifier: MIT
#include "tool/Records.h"

#include <fmt/format.h>

#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ostream>

namespace tool {
namespace {

std::string plain(const Value& value, int decimals) {
  if (const auto* integer = std::get_if<int64_t>(&value)) {
    return fmt::format("{}", *integer);
  }
  if (const auto* whole = std::get_if<uint64_t>(&value)) {
    return fmt::format("{}", *whole);
  }
  if (const auto* real = std::get_if<double>(&value)) {
    return fmt::format("{:.{}f}", *real, decimals);
  }
  return std::get<std::string>(value);
}

std::string csvField(const Value& value, int decimals) {
  std::string text = plain(value, decimals);
  if (text.find_first_of(",\"\r\n") == std::string::npos) {
    return text;
  }
  std::string quoted = "\"";
  for (const char c : text) {
    quoted += c;
    if (c == '"') {
      quoted += c;
    }
  }
  return quoted + '"';
}

std::string jsonString(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      quoted += fmt::format("\\u{:04x}", static_cast<unsigned int>(c));
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

std::string jsonValue(const Value& value, int decimals) {
  if (const auto* text = std::get_if<std::string>(&value)) {
    return jsonString(*text);
  }
  // JSON has no word for infinities and not-a-number.
  if (const auto* real = std::get_if<double>(&value); real != nullptr && !std::isfinite(*real)) {
    return "null";
  }
  return plain(value, decimals);
}

}  // namespace

OutputError::OutputError(int errorNumber)
    : std::runtime_error(fmt::format("can't write the output: {}",
                                     errorNumber != 0 ? std::strerror(errorNumber) : "unknown")),
      errorNumber_(errorNumber) {
}

std::string textLine(std::span<const Column> columns, std::span<const Value> values) {
  std::string line;
  for (size_t i = 0; i < columns.size(); ++i) {
    const Column& column = columns[i];
    if (!column.inText) {
      continue;
    }
    const std::string value =
        fmt::format("{:>{}}", plain(values[i], column.textDecimals), column.textWidth);
    line += line.empty() ? "" : "  ";
    line += column.unit.empty() ? fmt::format("{} {}", column.name, value)
                                : fmt::format("{} {}", value, column.unit);
  }
  return line;
}

std::string csvHeader(std::span<const Column> columns) {
  std::string line;
  for (const Column& column : columns) {
    if (column.inData) {
      line += line.empty() ? "" : ",";
      line += column.name;
    }
  }
  return line;
}

std::string csvLine(std::span<const Column> columns, std::span<const Value> values) {
  std::string line;
  std::string_view comma;
  for (size_t i = 0; i < columns.size(); ++i) {
    if (columns[i].inData) {
      line += comma;
      line += csvField(values[i], columns[i].dataDecimals);
      comma = ",";
    }
  }
  return line;
}

std::string jsonLine(std::string_view chip, std::span<const Column> columns,
                     std::span<const Value> values) {
  std::string line = "{\"chip\":" + jsonString(chip);
  for (size_t i = 0; i < columns.size(); ++i) {
    const Column& column = columns[i];
    if (column.inData) {
      line += ',' + jsonString(column.name) + ':' + jsonValue(values[i], column.dataDecimals);
    }
  }
  return line + '}';
}

RecordWriter::RecordWriter(std::ostream& out, Format format, std::string_view chip,
                           std::span<const Column> columns)
    : out_(out), format_(format), chip_(chip), columns_(columns) {
}

std::string RecordWriter::line(std::span<const Value> values) const {
  switch (format_) {
    case Format::Csv: return csvLine(columns_, values);
    case Format::Json: return jsonLine(chip_, columns_, values);
    default: return textLine(columns_, values);
  }
}

void RecordWriter::write(std::initializer_list<Value> values) {
  assert(values.size() == columns_.size() && "a record has one value per column");
  std::string text;
  if (format_ == Format::Csv && !headerWritten_) {
    text = csvHeader(columns_) + '\n';
    headerWritten_ = true;
  }
  text += line({values.begin(), values.size()}) + '\n';
  errno = 0;
  // Flushed line by line, so that a pipe or a log file shows each reading when it is made.
  out_ << text << std::flush;
  if (!out_) {
    throw OutputError(errno);
  }
}

}  // namespace tool
