// SPDX-License-Identifier: MIT
#include "vboard/launcher/Report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "vboard/board/Board.h"
#include "vboard/launcher/ReportText.h"

namespace vboard::launcher {
namespace {

using Json = nlohmann::ordered_json;
using testing::HasSubstr;

/// A part with a meter of every kind.
class Meters : public Part {
 public:
  explicit Meters(std::string name) : Part("meters", std::move(name)) {
    meter("volts", "V", 2.137);
    meter("count", "", int64_t{3});
    meter("on", "", true);
    meter("text", "", std::string("a\"b"));
    meter("lost", "V", std::nan(""));
    addProperty({"hidden", "", "", [] { return PropertyValue(true); }, {}, false});
  }
  void complain() { violate("rule", "details"); }

 private:
  void meter(const char* name, const char* unit, PropertyValue value) {
    addProperty({name, unit, "", [value] { return value; }, {}, true});
  }
};

struct BoardWithMeters {
  BoardWithMeters() {
    board.addSpiBus({.number = 1});
    auto& gpio = board.addGpioChip({.lines = 4, .lineNames = {{2, "LED"}}});
    meters = &board.add<Meters>("m");
    board.powerUp();
    gpio.setOutput(2, Drive::High);
    board.advance(Time(1500));
    meters->complain();
  }
  Board board;
  Meters* meters;
};

TEST(Report, HoldsWhatTheBoardShows) {
  BoardWithMeters made;
  const Json report = Json::parse(reportJson(made.board, "prog", 42));
  EXPECT_EQ(report, Json::parse(R"({
    "program": "prog", "pid": 42, "complete": true, "boardTimeNs": 1500,
    "chips": [{"name": "m", "type": "meters", "properties": {
      "volts": {"value": 2.137, "unit": "V"}, "count": {"value": 3, "unit": ""},
      "on": {"value": true, "unit": ""}, "text": {"value": "a\"b", "unit": ""},
      "lost": {"value": null, "unit": "V"}}}],
    "buses": [{"name": "spi1", "transfers": 0, "words": 0, "clocks": 0, "busyNs": 0}],
    "outputs": [{"chip": "gpiochip0", "line": 2, "name": "LED", "level": 1}],
    "violationCount": 1,
    "violations": [{"timeNs": 1500, "part": "m", "rule": "rule", "details": "details"}]})"));
}

Json whole(const Json& processes) {
  Json report;
  report["command"] = {"prog"};
  report["signal"] = 0;
  report["processes"] = processes;
  return report;
}

TEST(Report, ReadsWellAsText) {
  BoardWithMeters made;
  const Json process = Json::parse(reportJson(made.board, "prog", 42));
  EXPECT_EQ(reportText(whole(Json::array({process}))),
            "varnel-board: prog used the board for 1.5 us of its time\n"
            "  m (meters): volts 2.137 V, count 3, on true, text a\"b, lost null V\n"
            "  spi1: 0 transfers, 0 words, 0 clocks, busy 0 ns\n"
            "  gpiochip0:2 LED: driven high\n"
            "  1 violation:\n"
            "    at 1.5 us m: rule: details\n");
}

TEST(Report, ManyViolationsAreCut) {
  BoardWithMeters made;
  for (int i = 0; i < 1200; ++i) {
    made.meters->complain();
  }
  const Json report = whole(Json::array({Json::parse(reportJson(made.board, "prog", 42))}));
  EXPECT_EQ(violationsIn(report), 1201U);
  EXPECT_THAT(reportText(report), HasSubstr("  1201 violations:\n"));
  EXPECT_THAT(reportText(report), HasSubstr("    and 1181 more\n"));
}

TEST(Report, SeveralProcessesAreToldApartAndMissingReportsAreTold) {
  std::string folder = testing::TempDir() + "reportsXXXXXX";
  ASSERT_NE(::mkdtemp(folder.data()), nullptr);
  BoardWithMeters made;
  std::ofstream(folder + "/42-0.begun") << "prog";
  std::ofstream(folder + "/42-0.json") << reportJson(made.board, "prog", 42);
  std::ofstream(folder + "/43-0.begun") << "lost";
  std::ofstream(folder + "/43-0.part") << "{";
  const Json report = whole(collectReports(folder));
  std::filesystem::remove_all(folder);
  ASSERT_EQ(report["processes"].size(), 2U);
  EXPECT_TRUE(reportMissing(report));
  EXPECT_EQ(violationsIn(report), 1U);
  EXPECT_THAT(reportText(report), HasSubstr("varnel-board: prog (process 42) used the board for "));
  EXPECT_THAT(reportText(report),
              HasSubstr("varnel-board: lost (process 43) used the board, but no report came from "
                        "it: it was killed or still runs\n"));
}

TEST(Report, SaysWhenNobodyUsedTheBoardAndWhatKilledTheProgram) {
  Json report = whole(Json::array());
  report["signal"] = 9;
  EXPECT_EQ(reportText(report),
            "varnel-board: prog was killed by signal 9 (Killed)\n"
            "varnel-board: no program used the board: none opened a node of it\n");
}

}  // namespace
}  // namespace vboard::launcher
