// SPDX-License-Identifier: MIT
#include "tool/LiveWriter.h"

#include <gmock/gmock.h>

#include <sstream>
#include <string>

namespace {

constexpr tool::Column kColumns[] = {{.name = "n", .textWidth = 3}, {.name = "state"}};

std::string written(tool::Format format, bool terminal) {
  std::ostringstream out;
  tool::LiveWriter writer(out, format, "chip", kColumns, terminal);
  writer.write({int64_t{1}, std::string("long words")});
  writer.write({int64_t{2}, std::string("short")});
  writer.finish();
  writer.finish();
  writer.write({int64_t{3}, std::string("last")});
  writer.finish();
  return out.str();
}

TEST(LiveWriter, OnATerminalOneLineIsWrittenAgainAndAgain) {
  EXPECT_EQ(written(tool::Format::Text, true),
            "\rn   1  state long words\x1b[K\rn   2  state short\x1b[K\n"
            "\rn   3  state last\x1b[K\n");
}

TEST(LiveWriter, InAPipeAndAsDataEachRecordIsALine) {
  EXPECT_EQ(written(tool::Format::Text, false),
            "n   1  state long words\nn   2  state short\nn   3  state last\n");
  EXPECT_EQ(written(tool::Format::Csv, true), "n,state\n1,long words\n2,short\n3,last\n");
  EXPECT_THAT(written(tool::Format::Json, true),
              testing::StartsWith("{\"chip\":\"chip\",\"n\":1,\"state\":\"long words\"}\n{"));
}

TEST(LiveWriter, ALiveLineThatCantBeWrittenIsAnError) {
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  tool::LiveWriter writer(out, tool::Format::Text, "chip", kColumns, true);
  EXPECT_THROW(writer.write({int64_t{1}, std::string("x")}), tool::OutputError);
  EXPECT_FALSE(tool::isTerminal(out));
}

TEST(ProgressBar, OnATerminalOneLineGrowsAndIsTakenAway) {
  std::ostringstream out;
  {
    tool::ProgressBar bar(out, true);
    bar.show("reading", 0, 200);
    bar.show("reading", 1, 200);
    bar.show("reading", 100, 200);
    bar.show("reading", 200, 200);
  }
  EXPECT_EQ(out.str(),
            "\rreading  [........................................]   0 %\x1b[K"
            "\rreading  [####################....................]  50 %\x1b[K"
            "\rreading  [########################################] 100 %\x1b[K"
            "\r\x1b[K");
}

TEST(ProgressBar, ElsewhereThereIsNone) {
  std::ostringstream out;
  {
    tool::ProgressBar bar(out, false);
    bar.show("reading", 1, 2);
    bar.clear();
  }
  EXPECT_THAT(out.str(), testing::IsEmpty());
}

}  // namespace
