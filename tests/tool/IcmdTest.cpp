// SPDX-License-Identifier: MIT
// What the tool knows of the iC-MD, without a board.
#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

#include "tests/tool/ToolRun.h"
#include "tool/chips/IcmdLink.h"

using testing::IsEmpty;

namespace {

TEST(IcmdLayouts, AreFoundByTheirWidths) {
  const struct {
    const char* widths;
    uint8_t config;
    unsigned int counters;
  } kLayouts[] = {{"24", 0, 1}, {"24,24", 1, 2}, {"48", 2, 1},    {"16", 3, 1},
                  {"32", 4, 1}, {"32,16", 5, 2}, {"16,16", 6, 2}, {"16,16,16", 7, 3}};
  for (const auto& layout : kLayouts) {
    EXPECT_EQ(tool::counterConfigOf(layout.widths), layout.config);
    EXPECT_EQ(tool::counterLayout(layout.config).widths, layout.widths);
    EXPECT_EQ(tool::counterLayout(layout.config).counters(), layout.counters);
  }
  EXPECT_EQ(tool::counterLayout(5).bits[0], 32U);
  EXPECT_EQ(tool::counterLayout(5).bits[1], 16U);
  EXPECT_THROW(tool::counterConfigOf("16,32"), std::invalid_argument);
}

TEST(IcmdCounts, HaveASign) {
  EXPECT_EQ(tool::signedCount(0xFFFFFB, 24), -5);
  EXPECT_EQ(tool::signedCount(0x7FFFFF, 24), 8388607);
  EXPECT_EQ(tool::signedCount(0x8000, 16), -32768);
  EXPECT_EQ(tool::signedCount(0x80000000, 32), -2147483648LL);
  EXPECT_EQ(tool::signedCount(0xFFFFFFFFFFFF, 48), -1);
  EXPECT_EQ(tool::signedCount(3, 48), 3);
}

TEST(IcmdCounts, GoTheShortWayRound) {
  EXPECT_EQ(tool::countsBetween(32767, -32768, 16), 1);
  EXPECT_EQ(tool::countsBetween(-32768, 32767, 16), -1);
  EXPECT_EQ(tool::countsBetween(10, -10, 24), -20);
  EXPECT_EQ(tool::countsBetween(140737488355327, -140737488355328, 48), 1);
}

TEST(IcmdFlags, AreWordsOfTheirCounter) {
  EXPECT_EQ(tool::counterFlags(0, 0x00), "none");
  EXPECT_EQ(tool::counterFlags(0, 0xFF),
            "illegal transition, overflow, passed zero, supply dropped, reference found, index "
            "distance measured, index distance too long, touch probe stored");
  EXPECT_EQ(tool::counterFlags(1, 0x8F),
            "illegal transition, external error, external warning, interfaces collided, touch "
            "probe input high");
  EXPECT_EQ(tool::counterFlags(2, 0x41), "overflow, SSI on");
  EXPECT_TRUE(tool::countUnreliable(0x80));
  EXPECT_FALSE(tool::countUnreliable(0x7F));
}

TEST(IcmdSetup, ChangesItsFieldsAndNothingElse) {
  tool::CounterSetup setup;
  setup.registers.fill(0xFF);
  setup.setConfig(2);
  EXPECT_EQ(setup.registers[0], 0xFA);
  EXPECT_EQ(setup.layout().widths, "48");
  setup.setReversed(5);
  EXPECT_EQ(setup.registers[0], 0xEA);
  EXPECT_EQ(setup.reversed(), 5U);
  setup.setIndexClears(1);
  EXPECT_EQ(setup.registers[1], 0xBF);
  EXPECT_EQ(setup.indexClears(), 1U);
  EXPECT_EQ(setup.levels(), "TTL");
  setup.setLevels("LVDS");
  EXPECT_EQ(setup.registers[1], 0x3F);
  EXPECT_EQ(setup.registers[3], 0xFF);
  setup.setLevels("RS-422");
  EXPECT_EQ(setup.registers[3], 0x7F);
  EXPECT_EQ(setup.levels(), "RS-422");
  setup.setLevels("TTL");
  EXPECT_EQ(setup.registers[1], 0xBF);
  for (const size_t untouched : {2U, 4U, 5U, 6U, 7U}) {
    EXPECT_EQ(setup.registers[untouched], 0xFF);
  }
}

TEST(IcmdArguments, AreRefusedWithWhatIsAllowed) {
  const struct {
    const char* words;
    const char* message;
  } kRefused[] = {
      {"read --counter 3", "--counter: '3' is not a counter from 0 to 2"},
      {"config --counters 16,32",
       "--counters: '16,32' is none of 24 24,24 48 16 32 32,16 16,16 16,16,16"},
      {"config --levels cmos", "--levels: 'cmos' is none of ttl, rs422, lvds"},
      {"config --reverse 0,3",
       "--reverse: '0,3' is no list of counters from 0 to 2, such as 0,1, and not none"},
      {"config --reverse 0,",
       "--reverse: '0,' is no list of counters from 0 to 2, such as 0,1, and not none"},
      {"config --reverse 01",
       "--reverse: '01' is no list of counters from 0 to 2, such as 0,1, and not none"},
      {"config --index-clears 2",
       "--index-clears: '2' is no list of counters from 0 to 1, such as 0,1, and not none"},
      {"config --register 8=1",
       "--register: '8=1' is no register from 0 to 7 and its byte, such as 1=0x80"},
      {"config --register 1=256",
       "--register: '1=256' is no register from 0 to 7 and its byte, such as 1=0x80"},
      {"config --register 1",
       "--register: '1' is no register from 0 to 7 and its byte, such as 1=0x80"},
  };
  for (const auto& refused : kRefused) {
    const std::string line = std::string("icmd ") + refused.words;
    const ToolRun run = runLine(line + " --cs 25 --cs-active-low");
    EXPECT_EQ(run.status, 2) << line;
    const std::string operation = line.substr(0, line.find(' ', 5));
    EXPECT_EQ(run.err, std::string("varnel: ") + refused.message + "\n  try: varnel " + operation +
                           " --help\n");
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.systemLines, IsEmpty());
  }
}

}  // namespace
