// SPDX-License-Identifier: MIT
#include "tool/chips/Icmd.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "tool/App.h"
#include "tool/ChipError.h"
#include "tool/LiveWriter.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "tool/chips/IcmdLink.h"

namespace tool {
namespace icmd {
namespace {

constexpr unsigned int kAllCounters = kCounters;
constexpr unsigned int kIndexCounters = Varnel::iC_MD::MAX_COUNT_OF_INDEX_COUNTERS;
constexpr std::string_view kMixed = "32,16";

constexpr ChipInfo kChip = {
    .name = "icmd",
    .title = "iC-MD",
    .about = "counters for one to three quadrature encoders",
    .selectActiveLow = true,
    .behindExpander = {.reason = "what is sent to the expander to deselect it would be written to "
                                 "its next registers"},
    .highestKHz = 1000,
    .needsSelectPin = true};

constexpr Column kReadColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "counter"},
    {.name = "position", .unit = "edges", .textWidth = 10},
    {.name = "width", .unit = "bits"},
};

constexpr Column kStatusColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "counter"},
    {.name = "position", .unit = "edges", .textWidth = 10},
    {.name = "width", .unit = "bits"},
    {.name = "flags"},
};

constexpr Column kWatchColumns[] = {
    {.name = "time", .unit = "s", .textWidth = 8, .textDecimals = 3, .dataDecimals = 6},
    {.name = "counter"},
    {.name = "position", .unit = "edges", .textWidth = 10},
    {.name = "rate", .unit = "edges/s", .textWidth = 10, .textDecimals = 1, .dataDecimals = 3},
};

constexpr Column kClearColumns[] = {
    {.name = "cleared", .inData = false},
    {.name = "counter", .inText = false},
};

constexpr Column kConfigColumns[] = {
    {.name = "counters"},
    {.name = "levels"},
    {.name = "reversed"},
    {.name = "index clears", .inData = false},
    {.name = "index_clears", .inText = false},
    {.name = "registers"},
};

struct ReadOptions {
  unsigned int counter = kAllCounters;
  bool status = false;
  Repetition repetition;
};

/// Register 0 to 7 and what to put there.
struct RegisterValue {
  uint8_t reg;
  uint8_t value;
};

struct ConfigOptions {
  std::optional<uint8_t> counters;
  std::optional<std::string> levels;
  std::optional<unsigned int> reversed;
  std::optional<unsigned int> indexClears;
  std::vector<RegisterValue> registers;

  bool any() const { return counters || levels || reversed || indexClears || !registers.empty(); }
};

/// The counters meant, of those that the configuration makes.
std::vector<unsigned int> countersOf(unsigned int counter, const IcmdLink& link) {
  const CounterLayout& layout = link.setup().layout();
  if (counter != kAllCounters) {
    if (counter >= layout.counters()) {
      throw ChipError(fmt::format("the iC-MD has no counter {} as it is configured: its counters "
                                  "have {} bits",
                                  counter, layout.widths),
                      "varnel icmd config --counters 16,16,16, or another counter");
    }
    return {counter};
  }
  std::vector<unsigned int> all;
  for (unsigned int existing = 0; existing < layout.counters(); ++existing) {
    all.push_back(existing);
  }
  return all;
}

std::string unreliableNote(unsigned int counter) {
  return fmt::format(
      "note: A and B of counter {0} changed together: its position is unreliable until it is "
      "cleared, with varnel icmd clear --counter {0}; check the encoder's wires and supply",
      counter);
}

void readCounters(const Context& context, const ReadOptions& options, Session& session) {
  IcmdLink link(session);
  const std::vector<unsigned int> counters = countersOf(options.counter, link);
  RecordWriter plain(context.out, context.options.format, kChip.name, kReadColumns);
  RecordWriter withFlags(context.out, context.options.format, kChip.name, kStatusColumns);
  repeat(options.repetition, session.interrupt(), [&](uint64_t round) {
    if (round > 1) {
      link.check();
    }
    for (const unsigned int counter : counters) {
      const int64_t position = link.position(counter);
      const int64_t width = link.setup().layout().bits[counter];
      if (!options.status) {
        plain.write({round, int64_t{counter}, position, width});
        continue;
      }
      const uint8_t status = link.status(counter);
      withFlags.write({round, int64_t{counter}, position, width, counterFlags(counter, status)});
      if (countUnreliable(status)) {
        report(context.err, unreliableNote(counter));
      }
    }
  });
}

void watchCounter(const Context& context, const ReadOptions& options, Session& session) {
  using Clock = std::chrono::steady_clock;
  IcmdLink link(session);
  const unsigned int counter = countersOf(options.counter, link).front();
  const unsigned int bits = link.setup().layout().bits[counter];
  LiveWriter writer(context.out, context.options.format, kChip.name, kWatchColumns,
                    isTerminal(context.out));
  std::optional<int64_t> before;
  double timeBefore = 0;
  const Clock::time_point start = Clock::now();
  try {
    repeat(options.repetition, session.interrupt(), [&](uint64_t round) {
      if (round > 1) {
        link.check();
      }
      const double time = std::chrono::duration<double>(Clock::now() - start).count();
      const int64_t position = link.position(counter);
      const auto way =
          static_cast<double>(before ? countsBetween(*before, position, bits) : int64_t{0});
      const double rate = time > timeBefore ? way / (time - timeBefore) : 0;
      writer.write({time, int64_t{counter}, position, rate});
      before = position;
      timeBefore = time;
    });
  } catch (const std::exception&) {
    writer.finish();
    throw;
  }
  writer.finish();
}

void clearCounters(const Context& context, const ReadOptions& options, Session& session) {
  IcmdLink link(session);
  RecordWriter writer(context.out, context.options.format, kChip.name, kClearColumns);
  for (const unsigned int counter : countersOf(options.counter, link)) {
    link.clear(counter);
    writer.write({fmt::format("counter {}", counter), int64_t{counter}});
  }
}

std::string counterList(unsigned int counters) {
  std::string list;
  for (unsigned int counter = 0; counter < kCounters; ++counter) {
    if (((counters >> counter) & 1U) != 0) {
      list += fmt::format("{}{}", list.empty() ? "" : ",", counter);
    }
  }
  return list.empty() ? "none" : list;
}

void writeConfig(const Context& context, const CounterSetup& setup) {
  std::string registers;
  for (const uint8_t value : setup.registers) {
    registers += fmt::format("{}{:02x}", registers.empty() ? "" : " ", value);
  }
  const std::string clears = counterList(setup.indexClears());
  RecordWriter writer(context.out, context.options.format, kChip.name, kConfigColumns);
  writer.write({std::string(setup.layout().widths), std::string(setup.levels()),
                counterList(setup.reversed()), clears, clears, registers});
}

CounterSetup changed(CounterSetup setup, const ConfigOptions& options) {
  for (const RegisterValue& set : options.registers) {
    setup.registers[set.reg] = set.value;
  }
  if (options.counters) {
    setup.setConfig(*options.counters);
  }
  if (options.levels) {
    setup.setLevels(*options.levels);
  } else if (options.counters && setup.layout().counters() > 1) {
    setup.setLevels("TTL");
  }
  if (options.reversed) {
    setup.setReversed(*options.reversed);
  }
  if (options.indexClears) {
    setup.setIndexClears(*options.indexClears);
  }
  if (setup.layout().counters() > 1 && setup.levels() != "TTL") {
    throw ChipError(fmt::format("{} counters need TTL levels, not {}: nothing was written",
                                setup.layout().counters(), setup.levels()),
                    "--levels ttl, or one counter with --counters 24");
  }
  return setup;
}

void configure(const Context& context, const ConfigOptions& options, Session& session) {
  IcmdLink link(session);
  if (options.any()) {
    const CounterSetup before = link.setup();
    link.write(changed(before, options));
    if (link.setup().config() != before.config()) {
      for (const unsigned int counter : countersOf(kAllCounters, link)) {
        link.clear(counter);
      }
      report(context.err,
             "note: the counters were cleared: after a change of their widths they hold anything");
    }
  }
  if (link.setup().layout().widths == kMixed) {
    report(context.err,
           "note: descriptions of the chip differ about which of these two counters has 32 bits: "
           "the tool takes counter 0; turn one encoder to find out what yours does");
  }
  writeConfig(context, link.setup());
}

CLI::Option* addCounter(CLI::App& command, unsigned int& counter, const std::string& otherwise) {
  return addWhole(command, "--counter", counter, 0, kCounters - 1, "a counter",
                  "which counter, 0 to 2")
      ->type_name("COUNTER")
      ->default_str(otherwise);
}

void addRead(App& app, CLI::App& chip) {
  const auto options = std::make_shared<ReadOptions>();
  CLI::App& read = app.addOperation(
      chip, "read",
      "Print the positions in edges of A and B, four per line of an encoder, with their sign. The\n"
      "chip is asked how wide its counters are. Each is read in an exchange of its own.",
      "  varnel icmd read --cs 25 --cs-active-low\n"
      "  varnel icmd read --status --cs GPIO25 --cs-active-low\n"
      "  varnel icmd read --counter 1 --count 100 --interval 10 --output csv --cs 25 "
      "--cs-active-low",
      [options](const Context& context) {
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { readCounters(context, *options, session); });
      });
  addCounter(read, options->counter, "all");
  read.add_flag("--status", options->status,
                "print the flags of each counter, too: reading them clears them");
  addRepetition(read, options->repetition);
}

void addWatch(App& app, CLI::App& chip) {
  const auto options = std::make_shared<ReadOptions>();
  options->counter = 0;
  options->repetition = {.count = 0, .intervalMs = 100};
  CLI::App& watch = app.addOperation(
      chip, "watch",
      "Print the position of a counter and how fast it changes, until Ctrl-C; on a terminal one\n"
      "line that changes.",
      "  varnel icmd watch --cs 25 --cs-active-low\n"
      "  varnel icmd watch --counter 1 --interval 10 --output csv --cs 25 --cs-active-low",
      [options](const Context& context) {
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { watchCounter(context, *options, session); });
      });
  addCounter(watch, options->counter, "0");
  addRepetition(watch, options->repetition);
}

void addClear(App& app, CLI::App& chip) {
  const auto options = std::make_shared<ReadOptions>();
  CLI::App& clear = app.addOperation(
      chip, "clear", "Set counters to 0. The chip's outputs ACT0 and ACT1 become low by this, too.",
      "  varnel icmd clear --cs 25 --cs-active-low\n"
      "  varnel icmd clear --counter 1 --cs 25 --cs-active-low",
      [options](const Context& context) {
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { clearCounters(context, *options, session); });
      });
  addCounter(clear, options->counter, "all");
}

unsigned int parseCounters(const std::string& option, const std::string& text,
                           unsigned int counters) {
  if (text == "none") {
    return 0;
  }
  unsigned int chosen = 0;
  for (size_t i = 0; i < text.size() || i == 0; i += 2) {
    const unsigned int counter = i < text.size() ? static_cast<unsigned int>(text[i] - '0') : 9;
    const bool divided = i + 1 >= text.size() || (text[i + 1] == ',' && i + 2 < text.size());
    if (counter >= counters || !divided) {
      throw CLI::ValidationError(option, fmt::format("'{}' is no list of counters from 0 to {}, "
                                                     "such as 0,1, and not none",
                                                     text, counters - 1));
    }
    chosen |= 1U << counter;
  }
  return chosen;
}

RegisterValue parseRegister(const std::string& text) {
  const size_t equals = std::min(text.find('='), text.size());
  const auto reg = parseWhole(text.substr(0, equals));
  const auto value = parseWhole(text.substr(std::min(equals + 1, text.size())));
  if (!reg || !value || *reg >= Varnel::iC_MD::CONFIG_REGISTER_COUNT || *value > 0xFF) {
    throw CLI::ValidationError(
        "--register",
        fmt::format("'{}' is no register from 0 to 7 and its byte, such as 1=0x80", text));
  }
  return {static_cast<uint8_t>(*reg), static_cast<uint8_t>(*value)};
}

std::string parseLevels(const std::string& text) {
  constexpr std::pair<std::string_view, std::string_view> kNames[] = {
      {"ttl", "TTL"}, {"rs422", "RS-422"}, {"lvds", "LVDS"}};
  std::string word = text;
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const auto& [name, levels] : kNames) {
    if (word == name) {
      return std::string(levels);
    }
  }
  throw CLI::ValidationError("--levels", fmt::format("'{}' is none of ttl, rs422, lvds", text));
}

void addConfigOptions(CLI::App& config, const std::shared_ptr<ConfigOptions>& options) {
  const auto add = [&](const char* name, const char* type, const char* about, auto take) {
    return config.add_option_function<std::string>(name, take, about)->type_name(type);
  };
  add("--counters", "WIDTHS",
      "widths of the counters in bits, counter 0 first: 24 24,24 48 16 32\n"
      "32,16 16,16 or 16,16,16; more than one need TTL levels, which are\n"
      "chosen then; the counters are cleared",
      [options](const std::string& text) {
        try {
          options->counters = counterConfigOf(text);
        } catch (const std::invalid_argument& error) {
          throw CLI::ValidationError("--counters", error.what());
        }
      });
  add("--levels", "KIND", "at the inputs: ttl (single lines), rs422 or lvds (pairs)",
      [options](const std::string& text) { options->levels = parseLevels(text); });
  add("--reverse", "COUNTERS", "counters that count the other way round, such as 0,2, or none",
      [options](const std::string& text) {
        options->reversed = parseCounters("--reverse", text, kCounters);
      });
  add("--index-clears", "COUNTERS",
      "counters that each index pulse clears, 0 and 1, or none; the first two\n"
      "after power-up clear anyway",
      [options](const std::string& text) {
        options->indexClears = parseCounters("--index-clears", text, kIndexCounters);
      });
  config
      .add_option_function<std::vector<std::string>>(
          "--register",
          [options](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              options->registers.push_back(parseRegister(text));
            }
          },
          "a register from 0 to 7 and its byte, such as 1=0x80; the other options\n"
          "change it further; may be repeated")
      ->type_name("REG=BYTE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void addConfig(App& app, CLI::App& chip) {
  const auto options = std::make_shared<ConfigOptions>();
  CLI::App& config = app.addOperation(
      chip, "config",
      "Print how the chip is configured, after changing what the options say and reading it back.\n"
      "It stays so until its supply is switched off.",
      "  varnel icmd config --cs 25 --cs-active-low\n"
      "  varnel icmd config --counters 32 --levels ttl --reverse 0 --cs 25 --cs-active-low\n"
      "  varnel icmd config --counters 16,16,16 --cs GPIO25 --cs-active-low",
      [options](const Context& context) {
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { configure(context, *options, session); });
      });
  addConfigOptions(config, options);
}

void addOperations(App& app, CLI::App& chip) {
  addRead(app, chip);
  addClear(app, chip);
  addConfig(app, chip);
  addWatch(app, chip);
}

}  // namespace
}  // namespace icmd

void registerIcmd(App& app) {
  app.addChip(icmd::kChip, icmd::addOperations);
}

}  // namespace tool
