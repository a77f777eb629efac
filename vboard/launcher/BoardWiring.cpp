// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cerrno>

#include "vboard/launcher/BoardLoader.h"
#include "vboard/launcher/Words.h"

namespace vboard::launcher {

namespace {

/// A supply rail, so that a pin can be tied to a level: `G1 = "high"`.
class Rail : public Part {
 public:
  Rail(const std::string& level, Drive drive) : Part("rail", level), drive_(drive) {
    addOutput("OUT");
  }
  void powerUp() override { pin("OUT").drive(drive_); }

 private:
  Drive drive_;
};

struct ErrorName {
  std::string_view name;
  int number;
};

constexpr ErrorName kErrors[] = {
    {"EACCES", EACCES}, {"EAGAIN", EAGAIN}, {"EBADF", EBADF},         {"EBUSY", EBUSY},
    {"EFAULT", EFAULT}, {"EINTR", EINTR},   {"EINVAL", EINVAL},       {"EIO", EIO},
    {"EMFILE", EMFILE}, {"ENFILE", ENFILE}, {"EMSGSIZE", EMSGSIZE},   {"ENODEV", ENODEV},
    {"ENOENT", ENOENT}, {"ENOMEM", ENOMEM}, {"ENOTTY", ENOTTY},       {"ENXIO", ENXIO},
    {"EPERM", EPERM},   {"EPROTO", EPROTO}, {"ESHUTDOWN", ESHUTDOWN}, {"ETIMEDOUT", ETIMEDOUT}};

struct CallName {
  std::string_view name;
  Call call;
};

constexpr CallName kCalls[] = {{"open", Call::Open},
                               {"close", Call::Close},
                               {"read", Call::Read},
                               {"write", Call::Write},
                               {"write-mode", Call::WriteMode},
                               {"read-mode", Call::ReadMode},
                               {"write-lsb-first", Call::WriteLsbFirst},
                               {"read-lsb-first", Call::ReadLsbFirst},
                               {"write-bits", Call::WriteBits},
                               {"read-bits", Call::ReadBits},
                               {"write-speed", Call::WriteSpeed},
                               {"read-speed", Call::ReadSpeed},
                               {"message", Call::Message},
                               {"gpio-request", Call::GpioRequest},
                               {"gpio-set", Call::GpioSet},
                               {"gpio-get", Call::GpioGet}};

constexpr const char* kPinForms =
    "a pin is \"gpiochip0:25\", the name of a line or wire, \"chip.PIN\", \"spi1.CS0\", \"high\" "
    "or "
    "\"low\"";

std::vector<std::string> pinNames(Part& part) {
  std::vector<std::string> names;
  for (const Pin& pin : part.pins()) {
    names.push_back(pin.name());
  }
  return names;
}

}  // namespace

void Loader::wireAll() {
  readWires();
  for (const auto& [part, item] : chips_) {
    wireChip(*part, item);
  }
}

void Loader::readWires() {
  const toml::table* table = root_["wires"].as_table();
  if (table == nullptr) {
    return;
  }
  for (const Item& item : inFileOrder(*table)) {
    const std::string name(item.key->str());
    const toml::array* ends = item.node->as_array();
    if (ends == nullptr || ends->size() < 2) {
      problem(item.node->source(),
              "a wire can't be " + show(*item.node) + "; it is a list of two or more pins");
      continue;
    }
    if (lineNames_.find(name) != lineNames_.end() || name == "high" || name == "low") {
      problem(*item.key, *item.node, inQuotes(name) + " is already the name of a line or level");
      continue;
    }
    Pin* first = nullptr;
    for (const toml::node& end : *ends) {
      Pin* pin = resolve(end);
      if (pin != nullptr && first != nullptr) {
        result_.board->connect(*first, *pin);
      }
      first = first != nullptr ? first : pin;
    }
    wires_[name] = first;
  }
}

void Loader::wireChip(Part& part, const Item& item) {
  const toml::table& table = *item.node->as_table();
  const toml::node* pinsNode = table.get("pins");
  const toml::table* pins = pinsNode != nullptr ? pinsNode->as_table() : nullptr;
  if (pinsNode != nullptr && pins == nullptr) {
    problem(pinsNode->source(),
            "pins can't be " + show(*pinsNode) + "; it is a table: { CS = \"gpiochip0:25\" }");
  }
  if (const toml::node* bus = table.get("spi")) {
    attach(part, *bus, pins);
  }
  for (const Item& entry : pins != nullptr ? inFileOrder(*pins) : std::vector<Item>()) {
    const std::string name(entry.key->str());
    Pin* pin = part.findPin(name);
    if (pin == nullptr) {
      const auto names = pinNames(part);
      problem(*entry.key, *entry.node,
              part.name() + " has no pin " + inQuotes(name) + didYouMean(name, names) + "; " +
                  part.type() + " has: " + joined(names));
      continue;
    }
    wirePin(*pin, *entry.node);
  }
  auto* chip = dynamic_cast<SpiChip*>(&part);
  if (chip != nullptr && table.get("spi") == nullptr && chip->clockPin().net() == nullptr &&
      (pins == nullptr || pins->get(chip->clockPin().name()) == nullptr)) {
    problem(*item.key, *item.node,
            "the clock of " + inQuotes(part.name()) +
                " is wired to nothing; write spi = \"spi1\", or "
                "wire " +
                chip->clockPin().name() + " under pins");
  }
}

void Loader::wirePin(Pin& pin, const toml::node& node) {
  if (const auto* text = node.as_string(); text != nullptr && text->get() == "open") {
    return;
  }
  const toml::array* ends = node.as_array();
  if (ends == nullptr) {
    if (Pin* end = resolve(node)) {
      result_.board->connect(pin, *end);
    }
    return;
  }
  for (const toml::node& element : *ends) {
    if (Pin* end = resolve(element)) {
      result_.board->connect(pin, *end);
    }
  }
}

void Loader::attach(Part& part, const toml::node& node, const toml::table* pins) {
  auto* chip = dynamic_cast<SpiChip*>(&part);
  if (chip == nullptr) {
    problem(node.source(), part.type() + " has no SPI pins; wire it under pins");
    return;
  }
  SpiBus* bus = findSpiBus(node);
  if (bus == nullptr) {
    return;
  }
  // A pin wired by hand stays off the bus: the data input of the second chip in a chain.
  const auto byHand = [&](const Pin* pin) {
    return pin != nullptr && pins != nullptr && pins->get(pin->name()) != nullptr;
  };
  if (!byHand(&chip->clockPin()) && !byHand(chip->dataInPin()) && !byHand(chip->dataOutPin())) {
    result_.board->attach(*chip, *bus);
    return;
  }
  const auto join = [&](Pin* pin, Pin& wire) {
    if (pin != nullptr && !byHand(pin)) {
      result_.board->connect(*pin, wire);
    }
  };
  join(&chip->clockPin(), bus->sclk());
  join(chip->dataInPin(), bus->mosi());
  join(chip->dataOutPin(), bus->miso());
}

void Loader::readPulls() {
  const toml::table* table = root_["pulls"].as_table();
  if (table == nullptr) {
    return;
  }
  for (const Item& item : inFileOrder(*table)) {
    const auto* text = item.node->as_string();
    const std::string pull = text != nullptr ? text->get() : "";
    if (pull != "up" && pull != "down") {
      problem(item.node->source(), "a pull can't be " + show(*item.node) + "; it is up or down");
    }
    if (Pin* pin = resolve(item.key->source(), std::string(item.key->str()))) {
      result_.board->netOf(*pin).setPull(pull == "up" ? Pull::Up : Pull::Down);
    }
  }
}

void Loader::readFaults() {
  const toml::array* faults = root_["faults"].as_array();
  if (faults == nullptr || !faults->is_array_of_tables()) {
    return;
  }
  for (const toml::node& node : *faults) {
    Fields fields(*this, *node.as_table(), "[[faults]]");
    if (fields.has("call")) {
      readCallFault(fields);
    } else if (fields.has("stuck")) {
      readStuckFault(fields);
    } else if (fields.has("flip_miso_bit")) {
      readFlipFault(fields);
    } else {
      problem(node.source(), "this fault has none of call, stuck, flip_miso_bit");
    }
  }
}

void Loader::readCallFault(Fields& fields) {
  const auto call = fields.choice("call", namesOf(kCalls));
  const auto error = fields.choice("error", namesOf(kErrors));
  const auto node = fields.text("node");
  const int64_t nth = fields.integer("nth", 0, 1, 1000000000);
  fields.refuseOthers();
  if (!fields.has("error")) {
    problem(fields.table().source(),
            "this fault has no error; errors: " + joined(namesOf(kErrors)));
  }
  if (!call || !error) {
    return;
  }
  const auto named = [](const auto& table, const std::string& name) {
    return *std::find_if(std::begin(table), std::end(table),
                         [&](const auto& entry) { return entry.name == name; });
  };
  result_.faults.push_back({named(kCalls, *call).call, static_cast<unsigned>(nth),
                            named(kErrors, *error).number, node.value_or("")});
}

void Loader::readStuckFault(Fields& fields) {
  Pin* pin = resolve(*fields.take("stuck"));
  const auto level = fields.choice("level", {"low", "high"});
  fields.refuseOthers();
  if (!fields.has("level")) {
    problem(fields.table().source(), "this fault has no level; it is low or high");
  }
  if (pin != nullptr && level) {
    result_.board->netOf(*pin).stick(levelOf(*level == "high"));
  }
}

void Loader::readFlipFault(Fields& fields) {
  const int64_t bit = fields.integer("flip_miso_bit", 0, 0, INT64_MAX);
  const toml::node* node = fields.take("bus");
  fields.refuseOthers();
  if (node == nullptr) {
    problem(fields.table().source(), "this fault has no bus, such as bus = \"spi1\"");
    return;
  }
  if (SpiBus* bus = findSpiBus(*node)) {
    bus->flipMisoBit(static_cast<uint64_t>(bit));
  }
}

Pin* Loader::resolve(const toml::node& node) {
  const auto* text = node.as_string();
  if (text == nullptr) {
    problem(node.source(), "a pin can't be " + show(node) + "; " + kPinForms);
    return nullptr;
  }
  return resolve(node.source(), text->get());
}

Pin* Loader::resolve(const toml::source_region& where, const std::string& text) {
  // Names of lines first: real ones have dots and colons in them.
  const auto lines = lineNames_.equal_range(text);
  if (lines.first != lines.second) {
    if (std::next(lines.first) != lines.second) {
      problem(where, "several lines are named " + inQuotes(text) + "; write gpiochipN:LINE");
      return nullptr;
    }
    return lines.first->second;
  }
  if (text == "high" || text == "low") {
    return &rail(text);
  }
  if (text.find(':') != std::string::npos) {
    return resolveLine(where, text);
  }
  return text.find('.') != std::string::npos ? resolvePartPin(where, text)
                                             : resolveWord(where, text);
}

Pin* Loader::resolveWord(const toml::source_region& where, const std::string& word) {
  const auto wire = wires_.find(word);
  if (wire != wires_.end()) {
    return wire->second;
  }
  std::vector<std::string> names;
  for (const auto& [name, pin] : lineNames_) {
    names.push_back(name);
  }
  for (const auto& [name, pin] : wires_) {
    names.push_back(name);
  }
  problem(where, "there is no line or wire " + inQuotes(word) + didYouMean(word, names) + "; " +
                     (names.empty() ? "" : "named are: " + joined(names) + "; ") + kPinForms);
  return nullptr;
}

Pin* Loader::resolveLine(const toml::source_region& where, const std::string& text) {
  const size_t colon = text.find(':');
  const std::string chipName = text.substr(0, colon);
  const auto line = numberAfter("", text.substr(colon + 1));
  if (!numberAfter("gpiochip", chipName)) {
    problem(where, inQuotes(text) + " is no pin; " + kPinForms);
    return nullptr;
  }
  auto* chip = dynamic_cast<GpioChip*>(findPart(where, chipName));
  if (chip != nullptr && (!line || *line >= chip->lineCount())) {
    problem(where, inQuotes(text.substr(colon + 1)) + " is no line of " + chipName +
                       "; its lines are 0 to " + std::to_string(chip->lineCount() - 1));
    return nullptr;
  }
  return chip != nullptr ? &chip->line(*line) : nullptr;
}

Pin* Loader::resolvePartPin(const toml::source_region& where, const std::string& text) {
  const size_t dot = text.find('.');
  const std::string pinName = text.substr(dot + 1);
  if (numberAfter("gpiochip", text.substr(0, dot))) {
    problem(where, inQuotes(text) + " is no pin; a line is written " +
                       inQuotes(text.substr(0, dot) + ":" + pinName));
    return nullptr;
  }
  Part* part = findPart(where, text.substr(0, dot));
  Pin* pin = part != nullptr ? part->findPin(pinName) : nullptr;
  if (part != nullptr && pin == nullptr) {
    const auto names = pinNames(*part);
    problem(where, part->name() + " has no pin " + inQuotes(pinName) + didYouMean(pinName, names) +
                       "; " + part->type() + " has: " + joined(names));
  }
  return pin;
}

Pin& Loader::rail(const std::string& level) {
  Part* part = result_.board->findPart(level);
  if (part == nullptr) {
    part = &result_.board->add<Rail>(level, level == "high" ? Drive::High : Drive::Low);
  }
  return part->pin("OUT");
}

bool Loader::declared(const std::string& name) const {
  const toml::table* chips = root_["chips"].as_table();
  return root_.get(name) != nullptr || (chips != nullptr && chips->get(name) != nullptr);
}

Part* Loader::findPart(const toml::source_region& where, const std::string& name) {
  Part* part = result_.board->findPart(name);
  // One that is declared but wrong was already told about.
  if (part == nullptr && !declared(name)) {
    std::vector<std::string> names;
    for (const auto& candidate : result_.board->parts()) {
      names.push_back(candidate->name());
    }
    problem(where, "the board has no " + inQuotes(name) + didYouMean(name, names) +
                       "; it has: " + joined(names));
  }
  return part;
}

SpiBus* Loader::findSpiBus(const toml::node& node) {
  const auto* text = node.as_string();
  const std::string name = text != nullptr ? text->get() : "";
  std::vector<std::string> names;
  for (SpiBus* bus : result_.board->spiBuses()) {
    names.push_back(bus->name());
    if (bus->name() == name) {
      return bus;
    }
  }
  if (!(numberAfter("spi", name) && declared(name))) {
    problem(node.source(),
            "there is no SPI bus " + (text != nullptr ? inQuotes(name) : "like " + show(node)) +
                didYouMean(name, names) + "; " +
                (names.empty() ? "a bus is a table: [spi1]" : "buses: " + joined(names)));
  }
  return nullptr;
}

}  // namespace vboard::launcher
