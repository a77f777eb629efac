// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_BOARDLOADER_H
#define VBOARD_LAUNCHER_BOARDLOADER_H

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Compiled once, in Toml.cpp.
#define TOML_HEADER_ONLY 0
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include "vboard/board/Signal.h"
#include "vboard/launcher/BoardFile.h"

namespace vboard::launcher {

/// One key of a table and what stands there.
struct Item {
  const toml::key* key;
  const toml::node* node;
};

/// toml++ sorts tables by name; parts are added, and mistakes told, in the order of the file.
std::vector<Item> inFileOrder(const toml::table& table);

/// What kind of value stands there, for messages.
std::string show(const toml::node& node);

/// The N of "gpiochipN", "spiN".
std::optional<int> numberAfter(std::string_view prefix, std::string_view name);

template <typename Table>
std::vector<std::string> namesOf(const Table& table) {
  std::vector<std::string> names;
  for (const auto& entry : table) {
    names.emplace_back(entry.name);
  }
  return names;
}

class Loader;

/// One table of the file. What `take` asks for is what is allowed in it.
class Fields {
 public:
  Fields(Loader& loader, const toml::table& table, std::string name)
      : loader_(loader), table_(table), name_(std::move(name)) {}

  const toml::node* take(std::string_view key) {
    allowed_.emplace_back(key);
    return table_.get(key);
  }
  bool has(std::string_view key) const { return table_.get(key) != nullptr; }
  const toml::table& table() const { return table_; }
  const std::string& name() const { return name_; }

  /// A whole number within limits, `value` unless it is there and right.
  int64_t integer(std::string_view key, int64_t value, int64_t min, int64_t max);
  double number(std::string_view key, double value);
  bool flag(std::string_view key, bool value);
  std::optional<std::string> text(std::string_view key);
  std::optional<std::string> choice(std::string_view key, const std::vector<std::string>& words);
  std::optional<Time> duration(std::string_view key);
  const toml::table* tableAt(std::string_view key, std::string_view what);
  /// Reports what was never asked for.
  void refuseOthers();

 private:
  Loader& loader_;
  const toml::table& table_;
  std::string name_;
  std::vector<std::string> allowed_;
};

class Loader {
 public:
  explicit Loader(const BoardSource& source) : source_(source) {}
  LoadedBoard load();

  void problem(const toml::source_region& where, std::string text);
  void problem(const toml::key& key, const toml::node& node, std::string text) {
    problem(key.source().begin.line != 0 ? key.source() : node.source(), std::move(text));
  }

 private:
  bool parse();
  void applySettings();
  void applySetting(const std::string& setting);
  void sortTopLevel();
  void readBoard();
  void readSpiBus(const Item& item);
  void readGpioChips();
  void readGpioChip(int number, const toml::table& table);
  std::map<int, std::string> readLines(Fields& fields, std::string_view key, int lines);
  void readChip(const Item& item);
  void readProperty(Part& part, const Item& item);
  void wireChip(Part& part, const Item& item);
  void attach(Part& part, const toml::node& node, const toml::table* pins);
  void wirePin(Pin& pin, const toml::node& node);
  std::optional<PropertyValue> propertyValue(const toml::node& node, const Property& property);
  void setSignal(const Property& property, const toml::table& table);
  std::optional<Signal> readSignal(const toml::table& table, const std::string& name);
  Signal::Ramp readRamp(Fields& fields);
  Signal::Steps readSteps(Fields& fields);
  void wireAll();
  void readWires();
  void readPulls();
  void readFaults();
  void readCallFault(Fields& fields);
  void readStuckFault(Fields& fields);
  void readFlipFault(Fields& fields);
  Pin* resolve(const toml::node& node);
  Pin* resolve(const toml::source_region& where, const std::string& text);
  Pin* resolveLine(const toml::source_region& where, const std::string& text);
  Pin* resolvePartPin(const toml::source_region& where, const std::string& text);
  Pin* resolveWord(const toml::source_region& where, const std::string& word);
  Pin& rail(const std::string& level);
  Part* findPart(const toml::source_region& where, const std::string& name);
  SpiBus* findSpiBus(const toml::node& node);
  bool declared(const std::string& name) const;
  std::vector<std::string> settableNames();

  const BoardSource& source_;
  toml::table root_;
  LoadedBoard result_;
  std::vector<Item> spiTables_;
  std::map<int, Item> gpioTables_;
  std::multimap<std::string, Pin*, std::less<>> lineNames_;
  std::map<std::string, Pin*, std::less<>> wires_;
  std::vector<std::pair<Part*, Item>> chips_;
};

}  // namespace vboard::launcher

#endif
