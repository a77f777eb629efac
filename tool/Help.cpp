// SPDX-License-Identifier: MIT
#include "tool/Help.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

namespace tool {
namespace {

constexpr size_t kColumn = 22;

}  // namespace

std::string HelpFormatter::make_help(const CLI::App* app, std::string name,
                                     CLI::AppFormatMode mode) const {
  // The parts of a page bring blank lines of their own, more or fewer with each version of CLI11.
  const std::string page = CLI::Formatter::make_help(app, std::move(name), mode);
  std::string tidy;
  for (const char c : page) {
    if (c != '\n' || !(tidy.empty() || tidy.ends_with("\n\n"))) {
      tidy += c;
    }
  }
  while (tidy.ends_with("\n\n")) {
    tidy.pop_back();
  }
  return tidy;
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const {
  std::string left = "  " + option->get_name(isPositional, true);
  if (option->get_expected_max() > 0 && !option->get_type_name().empty()) {
    left += ' ' + option->get_type_name();
  }
  std::string about = option->get_description();
  if (!option->get_default_str().empty()) {
    about += fmt::format(" (default: {})", option->get_default_str());
  }
  std::string lines = fmt::format("{:<{}}", left, kColumn);
  lines += left.size() < kColumn ? "" : "\n" + std::string(kColumn, ' ');
  for (const char c : about) {
    lines += c;
    lines += c == '\n' ? std::string(kColumn, ' ') : "";
  }
  return lines + '\n';
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
  const CLI::App* root = app;
  while (root->get_parent() != nullptr) {
    root = root->get_parent();
  }
  std::string footer;
  if (root != app) {
    const std::vector<const CLI::Option*> global =
        root->get_options([app](const CLI::Option* option) {
          // What the subcommand calls by the same name stands in front of a global option.
          return !option->check_name("--help") && !option->check_name("--version") &&
                 app->get_option_no_throw("--" + option->get_lnames().front()) == nullptr;
        });
    footer = make_group("Global options, before or after the subcommand", false, global);
  }
  return footer + '\n' + CLI::Formatter::make_footer(app);
}

}  // namespace tool
