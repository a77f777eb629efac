// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vboard/chips/Catalog.h"
#include "vboard/launcher/Program.h"
#include "vboard/launcher/ReportText.h"
#include "vboard/launcher/Run.h"
#include "vboard/launcher/Session.h"

namespace vboard::launcher {
namespace {

constexpr int kUsage = 2;
constexpr int kViolations = 3;

struct Options {
  std::string board;
  std::vector<std::string> settings;
  bool strict = false;
  std::string report = "text";
  std::string reportFile;
  bool realTime = false;
  bool trace = false;
  std::vector<std::string> command;
};

int fail(int status, const std::string& text) {
  std::cerr << "varnel-board: " << text << "\n";
  return status;
}

class Usage : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "Usage: varnel-board BOARD.toml [OPTIONS] -- PROGRAM [ARGUMENTS...]\n";
  }
};

void listChips() {
  for (const std::string_view type : partTypes()) {
    const std::unique_ptr<Part> part = makePart(type, "chip");
    std::cout << type << "\n  pins:";
    for (const Pin& pin : part->pins()) {
      std::cout << " " << pin.name();
    }
    std::cout << "\n";
    for (const Property& property : part->properties()) {
      std::cout << "  " << property.name
                << (property.unit.empty() ? "" : " [" + property.unit + "]")
                << (property.set ? "" : " (reported)") << ": " << property.help << "\n";
    }
  }
}

/// Only the part of the command line before "--" is ours; what follows is the program's.
std::optional<int> parse(int argc, char** argv, Options& options) {
  int own = 1;
  while (own < argc && std::strcmp(argv[own], "--") != 0) {
    ++own;
  }
  options.command.assign(argv + std::min(own + 1, argc), argv + argc);

  CLI::App app{
      "Runs a program, unmodified, on a virtual board: SPI and GPIO nodes with chips "
      "behind them, as a board file describes.",
      "varnel-board"};
  app.formatter(std::make_shared<Usage>());
  app.add_option("board", options.board, "the board file")->required();
  app.add_option("--set", options.settings, "set a property of a chip: CHIP.PROPERTY=VALUE")
      ->expected(1)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--strict", options.strict, "exit with 3 when there were violations");
  app.add_option("--report", options.report, "what the report at the end looks like")
      ->check(CLI::IsMember({"text", "json", "none"}))
      ->capture_default_str();
  app.add_option("--report-file", options.reportFile, "write the report there instead of stderr");
  app.add_flag("--realtime", options.realTime, "sleeps and transfers take their real time");
  app.add_flag("--trace", options.trace, "show each transfer and event on stderr as it happens");
  app.set_version_flag("--version", VARNEL_VERSION);
  app.add_flag_callback(
      "--chips",
      [] {
        listChips();
        throw CLI::Success();
      },
      "list the chips a board can have, with their pins and properties");
  try {
    app.parse(own, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : kUsage;
  }
  if (options.command.empty()) {
    return fail(kUsage, "there is no program; write it behind --: varnel-board " + options.board +
                            " -- ./program");
  }
  return std::nullopt;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file || std::filesystem::is_directory(path)) {
    return std::nullopt;
  }
  return std::string{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The library this launcher itself runs on, so that both are of one build.
std::string libraryPath() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&loadBoard), &info) == 0 || info.dli_fname == nullptr) {
    return "";
  }
  return std::filesystem::canonical(info.dli_fname);
}

/// A directory of its own for a run's reports, gone at its end.
class ReportFolder {
 public:
  ReportFolder() {
    std::error_code error;
    const auto base = std::filesystem::temp_directory_path(error);
    path_ = (error ? std::filesystem::path("/tmp") : base) / "varnel-board-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) {
      path_.clear();
    }
  }
  ~ReportFolder() {
    std::error_code error;
    if (!path_.empty()) {
      std::filesystem::remove_all(path_, error);
    }
  }
  ReportFolder(const ReportFolder&) = delete;
  ReportFolder& operator=(const ReportFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

bool writeReport(const Options& options, const nlohmann::ordered_json& report) {
  if (options.report == "none") {
    return true;
  }
  const std::string text = options.report == "json" ? report.dump(2) + "\n" : reportText(report);
  if (options.reportFile.empty()) {
    std::cerr << text;
    return true;
  }
  std::ofstream file(options.reportFile, std::ios::binary);
  file << text << std::flush;
  return static_cast<bool>(file);
}

nlohmann::ordered_json makeReport(const Options& options, const RunResult& result,
                                  const std::string& folder) {
  nlohmann::ordered_json report;
  report["board"] = options.board;
  report["command"] = options.command;
  report["status"] = result.status;
  report["signal"] = result.signal;
  report["processes"] = collectReports(folder);
  report["violationCount"] = violationsIn(report);
  return report;
}

/// Checks the board file; its mistakes go to stderr.
bool boardIsRight(const BoardSource& source) {
  const LoadedBoard loaded = loadBoard(source);
  for (const BoardProblem& problem : loaded.problems) {
    std::cerr << problem.message() << "\n";
  }
  return loaded.board != nullptr;
}

int start(const Options& options, RunOptions& running) {
  const auto text = readFile(options.board);
  if (!text) {
    return fail(kUsage, options.board + ": can't be read");
  }
  running.board = {options.board, *text, options.settings};
  if (text->size() > kMaxTextSize) {
    return fail(kUsage,
                options.board + ": is longer than " + std::to_string(kMaxTextSize) + " bytes");
  }
  if (!boardIsRight(running.board)) {
    return kUsage;
  }
  const Program program = findProgram(options.command.front());
  if (program.status != 0) {
    return fail(program.status, program.error);
  }
  running.library = libraryPath();
  if (running.library.empty() || running.library.find_first_of(" :") != std::string::npos) {
    return fail(kUsage, "the virtual board's library is at \"" + running.library +
                            "\", which can't be preloaded: no blanks and colons");
  }
  running.realTime = options.realTime;
  running.trace = options.trace;
  running.path = program.path;
  running.arguments = options.command;
  return 0;
}

int runOnBoard(const Options& options) {
  RunOptions running;
  if (const int status = start(options, running); status != 0) {
    return status;
  }
  const ReportFolder folder;
  if (folder.path().empty()) {
    return fail(kUsage,
                std::string("no directory for reports can be made: ") + std::strerror(errno));
  }
  running.reports = folder.path();
  const RunResult result = run(running);
  if (!result.error.empty()) {
    return fail(result.status, result.error);
  }
  const nlohmann::ordered_json report = makeReport(options, result, folder.path());
  if (!writeReport(options, report)) {
    return fail(kUsage, options.reportFile + ": can't be written");
  }
  if (options.strict &&
      (violationsIn(report) != 0 || (result.status == 0 && reportMissing(report)))) {
    return kViolations;
  }
  return result.status;
}

}  // namespace

static int launch(int argc, char** argv) {
  try {
    Options options;
    if (const auto status = parse(argc, argv, options)) {
      return *status;
    }
    return runOnBoard(options);
  } catch (const std::exception& error) {
    return fail(kUsage, error.what());
  }
}

}  // namespace vboard::launcher

int main(int argc, char** argv) {
  return vboard::launcher::launch(argc, argv);
}
