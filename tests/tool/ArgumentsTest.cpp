// SPDX-License-Identifier: MIT
// Everything about the command line that needs no board.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

#include "tests/tool/ToolRun.h"
#include "tool/chips/Mcp3201.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct BadLine {
  const char* line;
  const char* message;
};

class BadArguments : public testing::TestWithParam<BadLine> {};

TEST_P(BadArguments, EndWithStatusTwoAndOneClearText) {
  const ToolRun run = runLine(GetParam().line);
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, GetParam().message);
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_THAT(run.systemLines, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Tool, BadArguments,
    testing::Values(
        BadLine{"", "varnel: a subcommand is missing: mcp3201\n  try: varnel --help\n"},
        BadLine{"mcp3201", "varnel: a subcommand is missing: read\n  try: varnel mcp3201 --help\n"},
        BadLine{"bogus",
                "varnel: 'bogus' is no subcommand here; subcommands: mcp3201\n"
                "  try: varnel --help\n"},
        BadLine{"mcp3201 raed",
                "varnel: 'raed' is no subcommand here; subcommands: read\n"
                "  try: varnel mcp3201 --help\n"},
        BadLine{"mcp3201 --bogus",
                "varnel: '--bogus' is no option here; subcommands: read\n"
                "  try: varnel mcp3201 --help\n"},
        BadLine{"mcp3201 read --speed 0",
                "varnel: --speed: '0' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"--speed 65536 mcp3201 read",
                "varnel: --speed: '65536' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --speed 5x",
                "varnel: --speed: '5x' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --speed -1",
                "varnel: --speed: '-1' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --cs gpiochip1",
                "varnel: --cs: 'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --cs-active-low",
                "varnel: --cs-active-low requires --cs\n  try: varnel mcp3201 read --help\n"},
        BadLine{
            "mcp3201 read --vref 0",
            "varnel: --vref: '0' is not a voltage above 0\n  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --vref 3,3",
                "varnel: --vref: '3,3' is not a voltage above 0\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --vref nan",
                "varnel: --vref: 'nan' is not a voltage above 0\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --count -1",
                "varnel: --count: '-1' is not a count from 0 to 18446744073709551615\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --interval 86400001",
                "varnel: --interval: '86400001' is not a time in ms from 0 to 86400000\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --log loud",
                "varnel: --log: 'loud' is none of off, fatal, error, warn, info, debug, trace, "
                "all\n  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --output xml",
                "varnel: --output: 'xml' is none of text, csv, json\n"
                "  try: varnel mcp3201 read --help\n"}));

TEST(Arguments, AnUnknownOptionOrAWordTooMuchIsRefused) {
  EXPECT_EQ(runLine("mcp3201 read --bogus").status, 2);
  EXPECT_THAT(runLine("mcp3201 read --bogus").err, HasSubstr("--bogus"));
  EXPECT_EQ(runLine("mcp3201 read surplus").status, 2);
  EXPECT_THAT(runLine("mcp3201 read surplus").err, HasSubstr("surplus"));
  EXPECT_EQ(runLine("mcp3201 read --vref").status, 2);
  EXPECT_THAT(runLine("mcp3201 read --vref").err, HasSubstr("--vref"));
  EXPECT_EQ(runLine("mcp3201 read --speed 1 --speed 2").status, 2);
}

TEST(Help, IsPrintedWithStatusZero) {
  for (const char* line : {"--help", "-h", "mcp3201 --help", "mcp3201 read --help"}) {
    const ToolRun run = runLine(line);
    EXPECT_EQ(run.status, 0) << line;
    EXPECT_THAT(run.out, HasSubstr("--spi NODE")) << line;
    EXPECT_THAT(run.err, IsEmpty()) << line;
  }
}

TEST(Help, ShowsUnitsDefaultsAndExamples) {
  const std::string help = runLine("mcp3201 read --help").out;
  EXPECT_THAT(help, HasSubstr("(default: /dev/spidev1.0)"));
  EXPECT_THAT(help, HasSubstr("bus clock in kHz, 1 to 65535"));
  EXPECT_THAT(help, HasSubstr("(default: 500)"));
  EXPECT_THAT(help, HasSubstr("reference voltage in volts"));
  EXPECT_THAT(help, HasSubstr("(default: 3.3)"));
  EXPECT_THAT(help, HasSubstr("Examples:\n  varnel mcp3201 read"));
  EXPECT_THAT(runLine("--help").out, HasSubstr("Exit status: 0 done, 1 the device failed, 2"));
}

TEST(Help, EveryExampleIsAcceptedAsItStands) {
  const std::regex example("\n  varnel ([^\n]*)");
  int examples = 0;
  for (const char* page : {"--help", "mcp3201 read --help"}) {
    const std::string help = runLine(page).out;
    for (std::sregex_iterator i(help.begin(), help.end(), example), end; i != end; ++i) {
      // Asked for help as well, the line is read without a board being needed.
      const ToolRun run = runLine((*i)[1].str() + " --help");
      EXPECT_EQ(run.status, 0) << (*i)[1] << '\n' << run.err;
      ++examples;
    }
  }
  EXPECT_GE(examples, 6);
}

TEST(Version, IsPrintedWithStatusZero) {
  const ToolRun run = runLine("--version");
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, testing::MatchesRegex("varnel [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_THAT(run.err, IsEmpty());
}

/// The options of all help pages, or of the manual page, without their dashes.
std::set<std::string> optionsIn(const std::string& text, const char* pattern) {
  const std::regex option(pattern);
  std::set<std::string> options;
  for (std::sregex_iterator i(text.begin(), text.end(), option), end; i != end; ++i) {
    options.insert((*i)[1]);
  }
  return options;
}

std::string manualPage() {
  std::ifstream file(TOOL_MANUAL_PAGE);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(ManualPage, HasExactlyTheOptionsOfTheHelpPages) {
  const std::string help =
      runLine("--help").out + runLine("mcp3201 --help").out + runLine("mcp3201 read --help").out;
  const auto inHelp = optionsIn(help, "\n  (?:-h,)?--([a-z0-9-]+)");
  EXPECT_EQ(inHelp.size(), 11U);
  EXPECT_EQ(optionsIn(manualPage(), "\n\\.It (?:Fl h , )?Fl -([a-z0-9-]+)"), inHelp);
}

TEST(ManualPage, NamesTheMembersOfJsonObjects) {
  const std::string page = manualPage();
  for (const char* key : {"chip", "reading", "code", "volts"}) {
    EXPECT_THAT(page, HasSubstr(std::string("\n.It Li ") + key + '\n'));
  }
}

TEST(Mcp3201, VoltsAreCodeTimesReferenceOver4096) {
  EXPECT_DOUBLE_EQ(tool::mcp3201Volts(0, 3.3), 0.0);
  EXPECT_DOUBLE_EQ(tool::mcp3201Volts(2048, 5.0), 2.5);
  EXPECT_DOUBLE_EQ(tool::mcp3201Volts(4095, 4.096), 4.095);
}

}  // namespace
