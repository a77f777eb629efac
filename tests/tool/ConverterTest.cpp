// SPDX-License-Identifier: MIT
// What the 24-bit converters share: the sign, and the plot.
#include "tool/chips/Converter.h"

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/tool/ToolRun.h"

using testing::HasSubstr;
using tool::Plot;
using tool::signedCode;
using tool::Terminal;

namespace {

TEST(Converter, CodesFromTheTopBitOnAreNegative) {
  EXPECT_EQ(signedCode(0x000000), 0);
  EXPECT_EQ(signedCode(0x7FFFFF), 8388607);
  EXPECT_EQ(signedCode(0x800000), -8388608);
  EXPECT_EQ(signedCode(0xC00000), -4194304);
  EXPECT_EQ(signedCode(0xFFFFFF), -1);
}

TEST(Converter, TheHighestCodeIsFullScale) {
  EXPECT_DOUBLE_EQ(tool::converterVolts(8388607, 2.5), 2.5);
  EXPECT_DOUBLE_EQ(tool::converterVolts(-8388607, 0.3125), -0.3125);
  EXPECT_DOUBLE_EQ(tool::converterVolts(0, 2.5), 0);
}

TEST(Converter, TheHelpSaysWhereTheSignComesFrom) {
  EXPECT_THAT(runLine("ads1248 read --help").out,
              HasSubstr("the chip sends 0x800000 and above for negative voltages"));
  EXPECT_THAT(runLine("ads1256 read --help").out, HasSubstr("0x800000 and above\n"));
}

constexpr Terminal kAscii = {.present = true, .columns = 80, .utf8 = false};

/// The rows that are on the terminal after the values.
std::string plotted(const Terminal& terminal, const std::vector<double>& values) {
  std::ostringstream out;
  {
    Plot plot(out, terminal, {"channel 0"}, "V");
    for (const double value : values) {
      plot.add(std::vector<double>{value});
    }
  }
  const std::string text = out.str();
  const size_t last = text.rfind('\r') + 1;
  return text.substr(last, text.find('\x1b', last) - last);
}

TEST(Plot, ShowsValueCourseAndRange) {
  EXPECT_EQ(plotted(kAscii, {-0.5, 0, 0.25, 0.5}),
            "channel 0   0.5000000 V  _=*#                            -0.500000 .. 0.500000");
  EXPECT_EQ(plotted({.present = true, .columns = 60, .utf8 = true}, {1, 0, 1}),
            "channel 0   1.0000000 V  █▁█         0.000000 .. 1.000000");
}

TEST(Plot, ACourseWithoutUpsAndDownsRunsInTheMiddle) {
  EXPECT_THAT(plotted(kAscii, {1, 1, 1}), HasSubstr(" V  === "));
}

TEST(Plot, ForgetsWhatDoesNotFit) {
  std::vector<double> values(100, 0);
  values[0] = 9;
  const std::string row = plotted(kAscii, values);
  EXPECT_THAT(row, HasSubstr("  " + std::string(30, '=') + "  0.000000 .. 0.000000"));
}

TEST(Plot, AnyWidthIsEnoughForARow) {
  for (unsigned int columns = 1; columns < 130; ++columns) {
    const std::string row = plotted({.present = true, .columns = columns, .utf8 = false},
                                    std::vector<double>(70, -4.5));
    EXPECT_LT(row.size(), columns);
    if (columns > 58) {
      EXPECT_THAT(row, HasSubstr(" .. "));
    }
  }
}

TEST(Plot, RowsAreWrittenAgainInTheirPlace) {
  std::ostringstream out;
  {
    Plot plot(out, {.present = true, .columns = 30, .utf8 = false}, {"a", "bb"}, "V");
    plot.add(std::vector<double>{1, 2});
    plot.add(std::vector<double>{3, 2});
  }
  EXPECT_EQ(out.str(),
            "\ra    1.0000000 V  =\x1b[K\nbb   2.0000000 V  =\x1b[K"
            "\r\x1b[1Aa    3.0000000 V  _#\x1b[K\nbb   2.0000000 V  ==\x1b[K\n");
}

TEST(Plot, RowsThatCantBeWrittenAreAnError) {
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  Plot plot(out, kAscii, {"a"}, "V");
  EXPECT_THROW(plot.add(std::vector<double>{1}), tool::OutputError);
}

constexpr tool::ConverterReading kReadings[] = {{0, 8388607, 2.5}, {3, -1, -0.0000003}};

std::string written(tool::Format format, bool plot, bool terminal) {
  std::ostringstream out;
  {
    tool::ConverterOutput output(out, format, "chip", {0, 3}, plot,
                                 {.present = terminal, .columns = 80, .utf8 = false});
    output.write(7, kReadings);
  }
  return out.str();
}

TEST(ConverterOutput, APlotIsForATerminalAndText) {
  constexpr const char* kLines =
      "channel 0  code  8388607   2.5000000 V\nchannel 3  code       -1  -0.0000003 V\n";
  EXPECT_THAT(written(tool::Format::Text, true, true), HasSubstr("channel 3  -0.0000003 V  ="));
  EXPECT_EQ(written(tool::Format::Text, true, false), kLines);
  EXPECT_EQ(written(tool::Format::Text, false, true), kLines);
  EXPECT_EQ(written(tool::Format::Csv, true, true),
            "reading,channel,code,volts\n7,0,8388607,2.500000000\n7,3,-1,-0.000000300\n");
  EXPECT_EQ(written(tool::Format::Json, true, true),
            "{\"chip\":\"chip\",\"reading\":7,\"channel\":0,\"code\":8388607,\"volts\":2.500000000}"
            "\n{\"chip\":\"chip\",\"reading\":7,\"channel\":3,\"code\":-1,\"volts\":-0.000000300}"
            "\n");
}

}  // namespace
