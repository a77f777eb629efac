// SPDX-License-Identifier: MIT
#include "vboard/launcher/BoardFile.h"

#include <algorithm>
#include <cctype>
#include <limits>

#include "vboard/chips/Catalog.h"
#include "vboard/launcher/BoardLoader.h"
#include "vboard/launcher/Words.h"

namespace vboard {

namespace launcher {

namespace {

bool isPartName(std::string_view name) {
  const auto letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  return !name.empty() && letter(name.front()) &&
         std::all_of(name.begin(), name.end(), [&](char c) {
           return letter(c) || std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '_' ||
                  c == '-';
         });
}

}  // namespace

void Loader::problem(const toml::source_region& where, std::string text) {
  const std::string& path = where.path ? *where.path : source_.file;
  const bool inFile = path == source_.file;
  result_.problems.push_back(
      {path, inFile ? where.begin.line : 0, inFile ? where.begin.column : 0, std::move(text)});
}

bool Loader::parse() {
  toml::parse_result parsed = toml::parse(source_.text, source_.file);
  if (!parsed) {
    problem(parsed.error().source(), std::string(parsed.error().description()));
    return false;
  }
  root_ = std::move(parsed).table();
  return true;
}

void Loader::applySettings() {
  for (const std::string& setting : source_.settings) {
    applySetting(setting);
  }
}

void Loader::applySetting(const std::string& setting) {
  const std::string place = "--set " + setting;
  const auto complain = [&](std::string text) {
    result_.problems.push_back({place, 0, 0, std::move(text)});
  };
  if (setting.find('\n') != std::string::npos) {
    complain("a setting has no line breaks");
    return;
  }
  const size_t equals = setting.find('=');
  const size_t dot = setting.find('.');
  if (equals == std::string::npos || dot == std::string::npos || dot > equals || dot == 0 ||
      dot + 1 == equals) {
    complain("a setting is CHIP.PROPERTY=VALUE, such as adc.in=1.5");
    return;
  }
  const std::string name = setting.substr(0, dot);
  const std::string key = setting.substr(dot + 1, equals - dot - 1);
  const std::string value = setting.substr(equals + 1);

  toml::table* chips = root_["chips"].as_table();
  toml::table* owner = chips != nullptr ? (*chips)[name].as_table() : nullptr;
  if (owner == nullptr && name == "board" && root_.get(name) == nullptr) {
    root_.insert("board", toml::table{});
  }
  const bool settable =
      name == "board" || numberAfter("spi", name) || numberAfter("gpiochip", name);
  if (owner == nullptr && settable) {
    owner = root_[name].as_table();
  }
  if (owner == nullptr) {
    const std::vector<std::string> names = settableNames();
    complain("the board has no " + inQuotes(name) + didYouMean(name, names) +
             "; it has: " + joined(names));
    return;
  }
  toml::parse_result parsed = toml::parse("value = " + value, place);
  toml::node* node = parsed ? parsed.table().get("value") : nullptr;
  if (node != nullptr && parsed.table().size() == 1) {
    node->visit([&](auto& concrete) { owner->insert_or_assign(key, std::move(concrete)); });
    return;
  }
  // Not a value as in the file: a text without its quotes.
  toml::parse_result text = toml::parse("value = " + jsonString(value), place);
  owner->insert_or_assign(key, std::move(*text.table().get_as<std::string>("value")));
}

std::vector<std::string> Loader::settableNames() {
  std::vector<std::string> names;
  if (const toml::table* chips = root_["chips"].as_table()) {
    for (const Item& item : inFileOrder(*chips)) {
      names.emplace_back(item.key->str());
    }
  }
  for (const Item& item : inFileOrder(root_)) {
    const std::string_view name = item.key->str();
    if (name == "board" || numberAfter("spi", name) || numberAfter("gpiochip", name)) {
      names.emplace_back(name);
    }
  }
  return names;
}

void Loader::sortTopLevel() {
  static const std::vector<std::string> kNames = {"board", "chips", "faults", "gpiochip0",
                                                  "pulls", "spi0",  "spi1",   "wires"};
  for (const Item& item : inFileOrder(root_)) {
    const std::string key(item.key->str());
    const auto spi = numberAfter("spi", key);
    const auto gpio = numberAfter("gpiochip", key);
    const bool list = key == "faults";
    if (!spi && !gpio && std::find(kNames.begin(), kNames.end(), key) == kNames.end()) {
      problem(*item.key, *item.node,
              "unknown key " + inQuotes(key) + didYouMean(key, kNames) +
                  "; a board file has: board, chips, faults, gpiochip0, gpiochip1 …, pulls, spi0, "
                  "spi1 …, wires");
    } else if (list ? !item.node->is_array_of_tables() : !item.node->is_table()) {
      problem(*item.key, *item.node,
              key + " can't be " + show(*item.node) + "; it is " +
                  (list ? "a list of tables: [[faults]]" : "a table: [" + key + "]"));
    } else if (spi) {
      spiTables_.push_back(item);
    } else if (gpio) {
      gpioTables_[*gpio] = item;
    }
  }
}

void Loader::readBoard() {
  BoardOptions options;
  if (const toml::table* table = root_["board"].as_table()) {
    Fields fields(*this, *table, "[board]");
    options.callCost = fields.duration("call_cost").value_or(options.callCost);
    options.seed = static_cast<uint64_t>(fields.integer("seed", static_cast<int64_t>(options.seed),
                                                        0, std::numeric_limits<int64_t>::max()));
    fields.refuseOthers();
  }
  result_.board = std::make_unique<Board>(options);
}

void Loader::readSpiBus(const Item& item) {
  const std::string name(item.key->str());
  SpiBusOptions options;
  options.number = *numberAfter("spi", name);
  Fields fields(*this, *item.node->as_table(), "[" + name + "]");
  options.selects = static_cast<int>(fields.integer("selects", options.selects, 1, 16));
  options.bufsiz = static_cast<uint32_t>(fields.integer("bufsiz", options.bufsiz, 1, 1 << 24));
  options.profile =
      fields.choice("profile", namesOf(ControllerProfile::all())).value_or(options.profile);
  const auto floating = fields.choice("floating_miso", {"poison", "low", "high"});
  options.floatingMiso = !floating || *floating == "poison" ? FloatingMiso::Poison
                         : *floating == "low"               ? FloatingMiso::Low
                                                            : FloatingMiso::High;
  fields.refuseOthers();
  if (options.number > 255) {
    problem(*item.key, *item.node, "bus numbers go from 0 to 255");
    return;
  }
  result_.board->addSpiBus(options);
}

void Loader::readGpioChips() {
  int next = 0;
  for (const auto& [number, item] : gpioTables_) {
    if (number != next) {
      problem(*item.key, *item.node,
              std::string(item.key->str()) + " comes without gpiochip" + std::to_string(next) +
                  "; they are numbered from 0 without gaps");
      return;
    }
    readGpioChip(number, *item.node->as_table());
    ++next;
  }
}

void Loader::readGpioChip(int number, const toml::table& table) {
  GpioChipOptions options;
  Fields fields(*this, table, "[gpiochip" + std::to_string(number) + "]");
  options.lines = static_cast<int>(fields.integer("lines", options.lines, 1, 512));
  if (auto label = fields.text("label")) {
    options.label = *label;
    if (label->size() > 31) {
      problem(fields.table().get("label")->source(), "label is longer than 31 bytes");
    }
  }
  options.lineNames = readLines(fields, "names", options.lines);
  options.reserved = readLines(fields, "reserved", options.lines);
  fields.refuseOthers();
  GpioChip& chip = result_.board->addGpioChip(options);
  for (const auto& [line, name] : options.lineNames) {
    lineNames_.emplace(name, &chip.line(line));
  }
}

std::map<int, std::string> Loader::readLines(Fields& fields, std::string_view key, int lines) {
  std::map<int, std::string> texts;
  const toml::table* table = fields.tableAt(key, "a table of lines: { 25 = \"ADC_CS\" }");
  if (table == nullptr) {
    return texts;
  }
  for (const Item& item : inFileOrder(*table)) {
    const auto line = numberAfter("", item.key->str());
    const auto* text = item.node->as_string();
    if (!line || *line >= lines) {
      problem(*item.key, *item.node,
              inQuotes(item.key->str()) + " is no line; the lines of this chip are 0 to " +
                  std::to_string(lines - 1));
    } else if (text == nullptr || text->get().empty() || text->get().size() > 31) {
      problem(item.node->source(), "the name at line " + std::to_string(*line) + " can't be " +
                                       show(*item.node) + "; it is a text of 1 to 31 bytes");
    } else {
      texts[*line] = text->get();
    }
  }
  return texts;
}

void Loader::readChip(const Item& item) {
  const std::string name(item.key->str());
  const toml::table* table = item.node->as_table();
  if (table == nullptr) {
    problem(*item.key, *item.node,
            inQuotes(name) + " can't be " + show(*item.node) + "; a chip is a table: [chips." +
                name + "]");
    return;
  }
  if (!isPartName(name) || name == "high" || name == "low" || numberAfter("gpiochip", name) ||
      numberAfter("spi", name) || name == "board") {
    problem(*item.key, *item.node,
            inQuotes(name) +
                " can't name a chip; a name has letters, digits, - and _, starts with "
                "a letter, and isn't board, high, low, spiN or gpiochipN");
    return;
  }
  const toml::node* typeNode = table->get("type");
  const std::vector<std::string> types(partTypes().begin(), partTypes().end());
  const auto* type = typeNode != nullptr ? typeNode->as_string() : nullptr;
  if (type == nullptr) {
    const std::string allowed = "; types: " + joined(types);
    typeNode == nullptr
        ? problem(*item.key, *item.node, "chip " + inQuotes(name) + " has no type" + allowed)
        : problem(typeNode->source(), "type can't be " + show(*typeNode) + allowed);
    return;
  }
  std::unique_ptr<Part> part = makePart(type->get(), name);
  if (part == nullptr) {
    problem(typeNode->source(), "there is no chip of type " + inQuotes(type->get()) +
                                    didYouMean(type->get(), types) + "; types: " + joined(types));
    return;
  }
  Part& added = result_.board->adopt(std::move(part));
  chips_.emplace_back(&added, item);
  for (const Item& property : inFileOrder(*table)) {
    const std::string_view key = property.key->str();
    if (key != "type" && key != "spi" && key != "pins") {
      readProperty(added, property);
    }
  }
}

std::optional<PropertyValue> Loader::propertyValue(const toml::node& node,
                                                   const Property& property) {
  if (const auto* text = node.as_string()) {
    return text->get();
  }
  if (const auto* flag = node.as_boolean()) {
    return flag->get();
  }
  if (const auto* number = node.as_floating_point()) {
    return number->get();
  }
  if (const auto* number = node.as_integer()) {
    // "vref = 5" means 5.0.
    return property.get && std::holds_alternative<double>(property.get())
               ? PropertyValue(static_cast<double>(number->get()))
               : PropertyValue(number->get());
  }
  problem(node.source(), property.name + " can't be " + show(node) + " (" + property.help + ")");
  return std::nullopt;
}

void Loader::readProperty(Part& part, const Item& item) {
  const std::string key(item.key->str());
  std::vector<std::string> names{"pins", "spi", "type"};
  Property* property = nullptr;
  for (Property& candidate : part.properties()) {
    if (candidate.set) {
      names.push_back(candidate.name);
    }
    property = candidate.name == key ? &candidate : property;
  }
  std::sort(names.begin(), names.end());
  if (property == nullptr) {
    problem(*item.key, *item.node,
            "unknown key " + inQuotes(key) + " in [chips." + part.name() + "]" +
                didYouMean(key, names) + "; " + part.type() + " has: " + joined(names));
    return;
  }
  if (!property->set) {
    problem(*item.key, *item.node,
            key + " can only be read; what can be set of " + part.type() + ": " + joined(names));
    return;
  }
  if (item.node->is_table() && property->setSignal) {
    setSignal(*property, *item.node->as_table());
    return;
  }
  const std::optional<PropertyValue> value = propertyValue(*item.node, *property);
  if (!value) {
    return;
  }
  if (const auto complaint = property->set(*value)) {
    problem(item.node->source(), key + " can't be " + show(*item.node) + "; it " + *complaint);
  }
}

LoadedBoard Loader::load() {
  if (parse()) {
    applySettings();
    sortTopLevel();
    readBoard();
    for (const Item& item : spiTables_) {
      readSpiBus(item);
    }
    readGpioChips();
    if (spiTables_.empty() && gpioTables_.empty() && result_.problems.empty()) {
      problem(root_.source(),
              "the board has nothing a program could open; it needs an [spi1] or a [gpiochip0]");
    }
    if (const toml::table* chips = root_["chips"].as_table()) {
      for (const Item& item : inFileOrder(*chips)) {
        readChip(item);
      }
    }
    wireAll();
    readPulls();
    readFaults();
  }
  std::stable_sort(result_.problems.begin(), result_.problems.end(),
                   [](const BoardProblem& first, const BoardProblem& second) {
                     // Settings, which have no line, come last.
                     return std::pair(first.line - 1, first.column) <
                            std::pair(second.line - 1, second.column);
                   });
  if (!result_.problems.empty()) {
    result_.board.reset();
  }
  return std::move(result_);
}

}  // namespace launcher

std::string BoardProblem::message() const {
  return launcher::placed(file, line, column, text);
}

LoadedBoard loadBoard(const BoardSource& source) {
  return launcher::Loader(source).load();
}

}  // namespace vboard
