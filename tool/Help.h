// SPDX-License-Identifier: MIT
#ifndef TOOL_HELP_H
#define TOOL_HELP_H

#include <CLI/CLI.hpp>
#include <string>

namespace tool {

/// Help pages: each option with argument and default in one layout, whatever the version of CLI11,
/// and the global options on every page.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override;
  std::string make_option(const CLI::Option* option, bool isPositional) const override;
  std::string make_footer(const CLI::App* app) const override;
};

}  // namespace tool

#endif
