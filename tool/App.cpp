// SPDX-License-Identifier: MIT
#include "tool/App.h"

#include <fmt/format.h>
#include <log4cplus/loglevel.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <ostream>
#include <stdexcept>

#include "orv/Diag.h"
#include "tool/Help.h"
#include "tool/Session.h"

namespace tool {
namespace {

constexpr int kBadArguments = 2;

struct LogLevelName {
  std::string_view name;
  log4cplus::LogLevel level;
};

constexpr LogLevelName kLogLevels[] = {
    {"off", log4cplus::OFF_LOG_LEVEL},     {"fatal", log4cplus::FATAL_LOG_LEVEL},
    {"error", log4cplus::ERROR_LOG_LEVEL}, {"warn", log4cplus::WARN_LOG_LEVEL},
    {"info", log4cplus::INFO_LOG_LEVEL},   {"debug", log4cplus::DEBUG_LOG_LEVEL},
    {"trace", log4cplus::TRACE_LOG_LEVEL}, {"all", log4cplus::ALL_LOG_LEVEL},
};

struct FormatName {
  std::string_view name;
  Format format;
};

constexpr FormatName kFormats[] = {
    {"text", Format::Text}, {"csv", Format::Csv}, {"json", Format::Json}};

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

/// The entry of that name, or an error that lists all names.
template <typename Table>
const auto& entryOf(const Table& table, const std::string& option, const std::string& text) {
  std::string names;
  for (const auto& entry : table) {
    if (entry.name == lowerCase(text)) {
      return entry;
    }
    names += (names.empty() ? "" : ", ") + std::string(entry.name);
  }
  throw CLI::ValidationError(option, fmt::format("'{}' is none of {}", text, names));
}

/// A whole number between two limits, checked with a message that names the unit.
template <typename Number>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& target, uint64_t lowest,
                       uint64_t highest, const std::string& unit, const std::string& about) {
  const auto parse = [&target, name, lowest, highest, unit](const std::string& text) {
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number < lowest || number > highest) {
      throw CLI::ValidationError(
          name, fmt::format("'{}' is not {} from {} to {}", text, unit, lowest, highest));
    }
    target = static_cast<Number>(number);
  };
  return command.add_option_function<std::string>(name, parse, about)
      ->default_str(std::to_string(target));
}

/// The subcommand that the command line got to.
const CLI::App& deepest(const CLI::App& root) {
  const CLI::App* app = &root;
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
  }
  return *app;
}

/// What is wrong where a subcommand of `app` should stand.
std::string missingSubcommand(const CLI::App& root, const CLI::App& app) {
  std::string names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names += (names.empty() ? "" : ", ") + command->get_name();
  }
  const std::vector<std::string> unknown = root.remaining(true);
  if (unknown.empty()) {
    return fmt::format("a subcommand is missing: {}", names);
  }
  return fmt::format("'{}' is no {} here; subcommands: {}", unknown.front(),
                     unknown.front().starts_with('-') ? "option" : "subcommand", names);
}

std::string argumentsMessage(const CLI::App& root, const CLI::App& app,
                             const CLI::ParseError& error) {
  const bool wantsSubcommand = app.get_require_subcommand_min() > 0;
  const bool isRequired = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
  return wantsSubcommand && isRequired ? missingSubcommand(root, app) : error.what();
}

}  // namespace

App::App() : cli_("Bring-up tool for SPI chips: talks to one chip on a spidev node.", "varnel") {
  cli_.formatter(std::make_shared<HelpFormatter>());
  cli_.set_help_flag("-h,--help", "print this help");
  cli_.set_version_flag("--version", "varnel " VARNEL_VERSION, "print the version");
  cli_.require_subcommand(1);
  cli_.footer(
      "Exit status: 0 done, 1 the device failed, 2 bad arguments.\n\n"
      "Examples:\n"
      "  varnel mcp3201 read --spi /dev/spidev1.0 --cs 25 --cs-active-low --vref 3.3\n"
      "  varnel --spi /dev/spidev0.0 --cs gpiochip1:16 --cs-active-low mcp3201 read --count 10\n"
      "  varnel hc595 write 0xa5 --latch 22\n"
      "  varnel mcp3201 --help");
  addGlobalOptions();
}

void App::addGlobalOptions() {
  cli_.add_option("--spi", options_.node, "spidev node the chip is on")
      ->type_name("NODE")
      ->capture_default_str();
  addNumber(cli_, "--speed", options_.speedKHz, 1, std::numeric_limits<uint16_t>::max(),
            "a speed in kHz", "bus clock in kHz, 1 to 65535; the chip's own limit holds as well")
      ->type_name("KHZ");
  addSelectOptions();
  cli_.add_option_function<std::string>(
          "--log",
          [this](const std::string& text) {
            options_.logLevel = entryOf(kLogLevels, "--log", text).name;
          },
          "library log lines on stderr, from this level up: off, fatal, error,\n"
          "warn, info, debug, trace, all")
      ->type_name("LEVEL")
      ->default_str(options_.logLevel);
  cli_.add_option_function<std::string>(
          "--output",
          [this](const std::string& text) {
            options_.format = entryOf(kFormats, "--output", text).format;
          },
          "text, csv (header and rows) or json (one object per line)")
      ->type_name("FORMAT")
      ->default_str("text");
}

void App::addSelectOptions() {
  CLI::Option* const select =
      addPinOption(cli_, "--cs", options_.selectPin,
                   "GPIO line that selects the chip: a number counted through all\n"
                   "GPIO chips, a line name, or CHIP:LINE such as gpiochip1:15\n"
                   "(default: none, the node's own chip select)");
  cli_.add_flag("--cs-active-low", options_.selectActiveLow,
                "a low line selects, as most chips want it (default: a high one)")
      ->needs(select);
  const auto parse = [this](const std::string& text) {
    try {
      options_.expander = parseExpander(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError("--expander", error.what());
    }
  };
  CLI::Option* const expander =
      cli_.add_option_function<std::string>(
              "--expander", parse,
              "select through a 74HC595 on the same bus: its latch pin in any form\n"
              "of --cs, and the address 0 to 254 that selects the chip, as in 22:3;\n"
              "with :implicit at the end an address is stored and goes out with a\n"
              "later transfer, not by itself")
          ->type_name("PIN:ADDRESS")
          ->excludes(select);
  addNumber(cli_, "--expander-none", options_.expanderNone, 0, kHighestExpanderAddress,
            "an address", "address on the expander that selects no chip, 0 to 254")
      ->type_name("ADDRESS")
      ->needs(expander);
}

void App::addChip(const ChipInfo& chip, const AddOperations& addOperations) {
  CLI::App* const command = cli_.add_subcommand(std::string(chip.name), std::string(chip.about));
  command->require_subcommand(1);
  command->fallthrough();
  command->footer("");
  command->preparse_callback(
      [this, command, addOperations](size_t) { addOperations(*this, *command); });
  chips_.push_back({command, &chip});
}

CLI::App& App::addOperation(CLI::App& chip, const std::string& name, const std::string& about,
                            const std::string& examples, Action action) {
  CLI::App* const command = chip.add_subcommand(name, about);
  command->fallthrough();
  command->footer("Examples:\n" + examples);
  const auto owner = std::find_if(chips_.begin(), chips_.end(),
                                  [&chip](const Chip& known) { return known.command == &chip; });
  operations_.push_back({command, owner->info, std::move(action)});
  return *command;
}

int App::argumentsFailed(const CLI::ParseError& error, std::ostream& out, std::ostream& err) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    return cli_.exit(error, out, err);
  }
  const CLI::App& app = deepest(cli_);
  std::string command = app.get_name();
  for (const CLI::App* parent = app.get_parent(); parent != nullptr;
       parent = parent->get_parent()) {
    command.insert(0, parent->get_name() + ' ');
  }
  report(err, fmt::format("{}\n  try: {} --help", argumentsMessage(cli_, app, error), command));
  return kBadArguments;
}

void App::checkSelect(const ChipInfo& chip) const {
  if (options_.selectPin && !(chip.usesBus && chip.hasSelect)) {
    throw CLI::ValidationError("--cs", fmt::format("the {} has no select line", chip.title));
  }
  if (!options_.expander) {
    if (chip.needsSelectPin && !options_.selectPin) {
      throw CLI::ValidationError(
          "--cs", fmt::format("is required: the {} stays selected over several transfers, and the "
                              "node's own select ends after each",
                              chip.title));
    }
    return;
  }
  const bool implicitly = options_.expander->implicitly;
  if (!(implicitly ? chip.behindExpander.implicitly : chip.behindExpander.explicitly)) {
    throw CLI::ValidationError(
        "--expander",
        fmt::format(
            "the {} can't be selected {}: {}", chip.title,
            implicitly && chip.behindExpander.explicitly ? "implicitly" : "through an expander",
            chip.behindExpander.reason));
  }
  if (options_.expander->address == options_.expanderNone) {
    throw CLI::ValidationError(
        "--expander", fmt::format("address {} is the one that selects no chip; --expander-none "
                                  "names another for that",
                                  options_.expanderNone));
  }
}

int App::runOperation(std::ostream& out, std::ostream& err) {
  for (const Operation& operation : operations_) {
    if (operation.command->parsed()) {
      checkSelect(*operation.chip);
      options_.speedGiven = cli_.get_option("--speed")->count() > 0;
      return operation.action({options_, out, err});
    }
  }
  return kBadArguments;
}

int App::run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  try {
    cli_.parse(argc, argv);
    Orv::Diag::diagLogger().setLogLevel(entryOf(kLogLevels, "--log", options_.logLevel).level);
    return runOperation(out, err);
  } catch (const CLI::ParseError& error) {
    return argumentsFailed(error, out, err);
  }
}

CLI::Option* addPinOption(CLI::App& command, const std::string& name,
                          std::optional<PinSpec>& target, const std::string& about) {
  const auto parse = [&target, name](const std::string& text) {
    try {
      target = parsePin(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(name, error.what());
    }
  };
  return command.add_option_function<std::string>(name, parse, about)->type_name("PIN");
}

CLI::Option* addPositive(CLI::App& command, const std::string& name, double& target,
                         const std::string& quantity, const std::string& about) {
  const auto parse = [&target, name, quantity](const std::string& text) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || !std::isfinite(number) || number <= 0) {
      throw CLI::ValidationError(name, fmt::format("'{}' is not {} above 0", text, quantity));
    }
    target = number;
  };
  return command.add_option_function<std::string>(name, parse, about)
      ->default_str(fmt::format("{}", target));
}

CLI::Option* addWhole(CLI::App& command, const std::string& name, unsigned int& target,
                      unsigned int lowest, unsigned int highest, const std::string& quantity,
                      const std::string& about) {
  return addNumber(command, name, target, lowest, highest, quantity, about);
}

CLI::Option* addValue(CLI::App& command, const std::string& name, uint64_t& target,
                      const std::string& about) {
  const auto parse = [&target, name](const std::string& text) {
    const std::optional<uint64_t> number = parseWhole(text);
    if (!number) {
      throw CLI::ValidationError(
          name, fmt::format("'{}' is not a whole number: decimal, 0x.. or 0b..", text));
    }
    target = *number;
  };
  return command.add_option_function<std::string>(name, parse, about)->required()->type_name("");
}

std::optional<uint64_t> parseWhole(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
  } else if (text.starts_with("0b") || text.starts_with("0B")) {
    base = 2;
  }
  text.remove_prefix(base == 10 ? 0 : 2);
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number, base);
  if (result.ec != std::errc() || result.ptr != end) {
    return std::nullopt;
  }
  return number;
}

uint64_t highestOf(unsigned int bits) {
  return std::numeric_limits<uint64_t>::max() >> (64 - bits);
}

void addRepetition(CLI::App& command, Repetition& repetition) {
  constexpr unsigned int kDayMs = 24 * 60 * 60 * 1000;
  addNumber(command, "--count", repetition.count, 0, std::numeric_limits<uint64_t>::max(),
            "a count", "how many readings; 0: until Ctrl-C")
      ->type_name("N");
  addNumber(command, "--interval", repetition.intervalMs, 0, kDayMs, "a time in ms",
            "pause between readings in ms, 0 to 86400000")
      ->type_name("MS");
}

}  // namespace tool
