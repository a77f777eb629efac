// SPDX-License-Identifier: MIT
#include "vboard/launcher/Report.h"

#include <cmath>
#include <variant>

#include "vboard/launcher/Words.h"

namespace vboard::launcher {

namespace {

/// Written by hand: this runs inside the program under test, where every library loaded is one more
/// that could differ from a real board.
class Json {
 public:
  Json& open(char bracket) {
    separate();
    text_ += bracket;
    fresh_ = true;
    return *this;
  }
  Json& close(char bracket) {
    text_ += bracket;
    fresh_ = false;
    return *this;
  }
  Json& key(std::string_view name) {
    separate();
    text_ += jsonString(name) + ":";
    fresh_ = true;
    return *this;
  }
  Json& raw(const std::string& value) {
    separate();
    text_ += value;
    return *this;
  }
  Json& value(std::string_view value) { return raw(jsonString(value)); }
  Json& value(bool value) { return raw(value ? "true" : "false"); }
  Json& value(int64_t value) { return raw(std::to_string(value)); }
  Json& value(uint64_t value) { return raw(std::to_string(value)); }
  Json& value(double value) { return raw(std::isfinite(value) ? shortNumber(value) : "null"); }
  Json& value(Time value) { return raw(std::to_string(value.count())); }
  Json& value(const PropertyValue& value) {
    std::visit([this](const auto& concrete) { write(concrete); }, value);
    return *this;
  }
  const std::string& text() const { return text_; }

 private:
  void write(const std::string& concrete) { value(std::string_view(concrete)); }
  template <typename Concrete>
  void write(const Concrete& concrete) {
    value(concrete);
  }
  void separate() {
    text_ += fresh_ ? "" : ",";
    fresh_ = false;
  }
  std::string text_;
  bool fresh_ = true;
};

void writePart(Json& json, Part& part) {
  json.open('{').key("name").value(std::string_view(part.name()));
  json.key("type").value(std::string_view(part.type())).key("properties").open('{');
  for (const Property& property : part.properties()) {
    if (property.reported && property.get) {
      json.key(property.name).open('{').key("value").value(property.get());
      json.key("unit").value(std::string_view(property.unit)).close('}');
    }
  }
  json.close('}').close('}');
}

bool isChip(const Part& part) {
  return part.type() != "rail" && dynamic_cast<const SpiBus*>(&part) == nullptr &&
         dynamic_cast<const GpioChip*>(&part) == nullptr;
}

void writeBus(Json& json, const SpiBus& bus) {
  const SpiBus::Statistics& statistics = bus.statistics();
  json.open('{').key("name").value(std::string_view(bus.name()));
  json.key("transfers").value(statistics.transfers).key("words").value(statistics.words);
  json.key("clocks").value(statistics.clocks).key("busyNs").value(statistics.busy).close('}');
}

void writeLines(Json& json, const GpioChip& chip) {
  const auto& names = chip.options().lineNames;
  for (int line = 0; line < chip.lineCount(); ++line) {
    if (!chip.isOutput(line)) {
      continue;
    }
    const auto name = names.find(line);
    json.open('{').key("chip").value(std::string_view(chip.name()));
    json.key("line").value(int64_t{line});
    json.key("name").value(std::string_view(name != names.end() ? name->second : ""));
    json.key("level").value(int64_t{chip.level(line) == Level::High}).close('}');
  }
}

void writeViolations(Json& json, const Board& board) {
  json.key("violationCount").value(board.violationCount()).key("violations").open('[');
  for (const Violation& violation : board.violations()) {
    json.open('{').key("timeNs").value(violation.time);
    json.key("part").value(std::string_view(violation.part));
    json.key("rule").value(std::string_view(violation.rule));
    json.key("details").value(std::string_view(violation.details)).close('}');
  }
  json.close(']');
}

}  // namespace

std::string reportJson(const Board& board, std::string_view program, pid_t process) {
  Json json;
  json.open('{').key("program").value(program).key("pid").value(int64_t{process});
  json.key("complete").value(true).key("boardTimeNs").value(board.now());
  json.key("chips").open('[');
  for (const auto& part : board.parts()) {
    if (isChip(*part)) {
      writePart(json, *part);
    }
  }
  json.close(']').key("buses").open('[');
  for (const SpiBus* bus : board.spiBuses()) {
    writeBus(json, *bus);
  }
  json.close(']').key("outputs").open('[');
  for (const GpioChip* chip : board.gpioChips()) {
    writeLines(json, *chip);
  }
  json.close(']');
  writeViolations(json, board);
  return json.close('}').text() + "\n";
}

}  // namespace vboard::launcher
