// SPDX-License-Identifier: MIT
#ifndef TOOL_APP_H
#define TOOL_APP_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/Options.h"
#include "tool/PinSpec.h"

namespace tool {

struct ChipInfo;

/// What a subcommand works with.
struct Context {
  const GlobalOptions& options;
  std::ostream& out;
  std::ostream& err;
};

/// The command line: global options, and the subcommands that chips register.
class App {
 public:
  /// Does the work and returns the exit status.
  using Action = std::function<int(const Context& context)>;

  App();

  /// Adds the operations of a chip to "varnel CHIP".
  using AddOperations = std::function<void(App& app, CLI::App& chip)>;

  /// Adds "varnel CHIP", which needs an operation after it. The operations are added when the
  /// command line names the chip, and not otherwise: there are many, and one is asked for.
  void addChip(const ChipInfo& chip, const AddOperations& addOperations);
  /// Adds "varnel CHIP OPERATION" with its examples, whole command lines.
  CLI::App& addOperation(CLI::App& chip, const std::string& name, const std::string& about,
                         const std::string& examples, Action action);

  /// Reads the command line and does what it says. 0: done, 1: the device failed, 2: bad arguments.
  /// An action, too, may throw CLI::ValidationError for bad arguments, before it does anything.
  int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

 private:
  struct Operation {
    CLI::App* command;
    const ChipInfo* chip;
    Action action;
  };

  struct Chip {
    const CLI::App* command;
    const ChipInfo* info;
  };

  void addGlobalOptions();
  void addSelectOptions();
  int runOperation(std::ostream& out, std::ostream& err);
  void checkSelect(const ChipInfo& chip) const;
  int argumentsFailed(const CLI::ParseError& error, std::ostream& out, std::ostream& err);

  CLI::App cli_;
  GlobalOptions options_;
  std::vector<Chip> chips_;
  std::vector<Operation> operations_;
};

/// Adds an option that takes a pin in any of the forms of `parsePin`.
CLI::Option* addPinOption(CLI::App& command, const std::string& name,
                          std::optional<PinSpec>& target, const std::string& about);
/// Adds an option that takes a finite number above 0; `quantity` as in "'-1' is not a voltage above
/// 0".
CLI::Option* addPositive(CLI::App& command, const std::string& name, double& target,
                         const std::string& quantity, const std::string& about);
/// Adds an option that takes a whole number between two limits; `quantity` as in "'5' is not a
/// length from 1 to 4".
CLI::Option* addWhole(CLI::App& command, const std::string& name, unsigned int& target,
                      unsigned int lowest, unsigned int highest, const std::string& quantity,
                      const std::string& about);
/// Adds a required argument without an option's name, which takes a whole number from 0 on:
/// decimal, 0x and hexadecimal digits, or 0b and binary digits.
CLI::Option* addValue(CLI::App& command, const std::string& name, uint64_t& target,
                      const std::string& about);
/// Reads a whole number from 0 on: decimal, 0x and hexadecimal digits, or 0b and binary digits.
std::optional<uint64_t> parseWhole(std::string_view text);
/// The highest value of so many bits, 1 to 64.
uint64_t highestOf(unsigned int bits);
/// Adds --count and --interval.
void addRepetition(CLI::App& command, Repetition& repetition);

}  // namespace tool

#endif
