// SPDX-License-Identifier: MIT
// An encoder counter and its encoder, as a user of the tool sees them.
#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Call;

namespace {

constexpr const char* kNoAnswer = "varnel: no answer from the iC-MD: its identity reads ";

/// Counts transfers and keeps the fastest clock.
class Watcher : public vboard::Observer {
 public:
  unsigned transfers = 0;
  uint32_t fastestHz = 0;

  void onTransfer(const vboard::SpiRecord& record) override {
    ++transfers;
    fastestHz = std::max(fastestHz, record.format.speedHz);
  }
};

/// A counter selected by line 25, with an encoder on pairs of lines.
class ToolWithIcmd : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    vboard::SpiBus& bus = board.addSpiBus({.number = 1});
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
    board.attach(chip, bus);
    board.connect(chip.pin("NCS"), gpio.line(25)).setPull(vboard::Pull::Up);
    for (const auto& [output, input] :
         {std::pair{"A", "AP"}, {"A_N", "AN"}, {"B", "BP"}, {"B_N", "BN"}}) {
      board.connect(encoder.pin(output), chip.pin(input));
    }
    board.addObserver(watcher);
    kernel = std::make_unique<vboard::Kernel>(board);
  }
  void TearDown() override {
    EXPECT_TRUE(chip.pin("NCS").high()) << "still selected";
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }

  static ToolRun run(const std::string& words) {
    return runLine("icmd " + words + " --cs 25 --cs-active-low");
  }
  /// Does something when so many milliseconds of the board's time have passed.
  void after(int milliseconds, std::function<void()> action) {
    const std::lock_guard guard(board.mutex());
    board.clock().after(std::chrono::milliseconds(milliseconds), std::move(action));
  }

  Watcher watcher;
  vboard::Board board;
  vboard::Icmd& chip = board.add<vboard::Icmd>("counter");
  vboard::Encoder& encoder = board.add<vboard::Encoder>("encoder");
  std::unique_ptr<vboard::Kernel> kernel;
};

TEST_F(ToolWithIcmd, ReadsThePositionWithItsSign) {
  encoder.turn(5);
  const ToolRun forward = run("read");
  EXPECT_EQ(forward.status, 0);
  EXPECT_EQ(forward.out, "counter 0           5 edges  24 bits\n");
  EXPECT_THAT(forward.err, IsEmpty());
  encoder.turn(-12);
  EXPECT_EQ(run("read").out, "counter 0          -7 edges  24 bits\n");
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithIcmd, ReadsAsDataAndAgain) {
  encoder.turn(3);
  EXPECT_EQ(run("read --count 2 --interval 5 --output csv").out,
            "reading,counter,position,width\n1,0,3,24\n2,0,3,24\n");
  EXPECT_EQ(run("read --output json").out,
            "{\"chip\":\"icmd\",\"reading\":1,\"counter\":0,\"position\":3,\"width\":24}\n");
  EXPECT_EQ(run("read --status --output json").out,
            "{\"chip\":\"icmd\",\"reading\":1,\"counter\":0,\"position\":3,\"width\":24,"
            "\"flags\":\"supply dropped\"}\n");
}

TEST_F(ToolWithIcmd, ReadsEveryCounterOfEveryConfiguration) {
  chip.setConfig5(vboard::Icmd::Config5::Counter0Has32);
  const struct {
    const char* widths;
    std::vector<int64_t> counts;
    const char* rows;
  } kCases[] = {
      {"24", {-8388608}, "1,0,-8388608,24\n"},
      {"24,24", {8388607, -2}, "1,0,8388607,24\n1,1,-2,24\n"},
      {"48", {-140737488355328}, "1,0,-140737488355328,48\n"},
      {"16", {-32768}, "1,0,-32768,16\n"},
      {"32", {2147483647}, "1,0,2147483647,32\n"},
      {"32,16", {-70000, 32767}, "1,0,-70000,32\n1,1,32767,16\n"},
      {"16,16", {-1, 300}, "1,0,-1,16\n1,1,300,16\n"},
      {"16,16,16", {1, -2, 3}, "1,0,1,16\n1,1,-2,16\n1,2,3,16\n"},
  };
  for (const auto& layout : kCases) {
    SCOPED_TRACE(layout.widths);
    const ToolRun config = run(std::string("config --counters ") + layout.widths);
    EXPECT_EQ(config.status, 0) << config.err;
    EXPECT_THAT(config.out, StartsWith(std::string("counters ") + layout.widths + "  levels "));
    for (size_t counter = 0; counter < layout.counts.size(); ++counter) {
      chip.setCount(static_cast<int>(counter), layout.counts[counter]);
    }
    EXPECT_EQ(run("read --output csv").out,
              std::string("reading,counter,position,width\n") + layout.rows);
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithIcmd, ReadsOneCounterAndRefusesOneThatIsNotThere) {
  EXPECT_EQ(run("config --counters 16,16").status, 0);
  chip.setCount(1, -9);
  EXPECT_EQ(run("read --counter 1").out, "counter 1          -9 edges  16 bits\n");
  for (const char* words : {"read --counter 2", "clear --counter 2", "watch --counter 2"}) {
    const ToolRun refused = run(words);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.out, IsEmpty());
    EXPECT_EQ(refused.err,
              "varnel: the iC-MD has no counter 2 as it is configured: its counters have 16,16 "
              "bits\n  try: varnel icmd config --counters 16,16,16, or another counter\n");
  }
}

TEST_F(ToolWithIcmd, PrintsFlagsOnceAndWarnsOfAnUnreliableCount) {
  EXPECT_EQ(run("read --status").out,
            "counter 0           0 edges  24 bits  flags supply dropped\n");
  EXPECT_EQ(run("read --status").out, "counter 0           0 edges  24 bits  flags none\n");
  encoder.jump(2);
  const ToolRun jumped = run("read --status");
  EXPECT_EQ(jumped.status, 0);
  EXPECT_THAT(jumped.out, EndsWith("  flags illegal transition\n"));
  EXPECT_EQ(jumped.err,
            "varnel: note: A and B of counter 0 changed together: its position is unreliable until "
            "it is cleared, with varnel icmd clear --counter 0; check the encoder's wires and "
            "supply\n");
  EXPECT_THAT(run("read --status").out, EndsWith("  flags none\n")) << "reading cleared them";
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithIcmd, WithoutStatusTheFlagsStay) {
  EXPECT_EQ(run("read").status, 0);
  EXPECT_EQ(run("watch --count 1").status, 0);
  EXPECT_EQ(chip.status(0), 0x10);
}

TEST_F(ToolWithIcmd, ClearsAllCountersOrOne) {
  EXPECT_EQ(run("config --counters 16,16,16").status, 0);
  for (const int counter : {0, 1, 2}) {
    chip.setCount(counter, 100 + counter);
  }
  EXPECT_EQ(run("clear --counter 1").out, "cleared counter 1\n");
  EXPECT_EQ(chip.count(0), 100);
  EXPECT_EQ(chip.count(1), 0);
  EXPECT_EQ(chip.count(2), 102);
  EXPECT_EQ(run("clear --output csv").out, "counter\n0\n1\n2\n");
  EXPECT_EQ(chip.count(0), 0);
  EXPECT_EQ(chip.count(2), 0);
}

TEST_F(ToolWithIcmd, PrintsTheConfigurationAndChangesNothingUnasked) {
  const ToolRun config = run("config");
  EXPECT_EQ(config.status, 0);
  EXPECT_THAT(config.err, IsEmpty());
  EXPECT_EQ(config.out,
            "counters 24  levels RS-422  reversed none  index clears none  registers 00 00 00 00 "
            "00 00 00 00\n");
  // Identity and eight registers, of two bytes each.
  EXPECT_EQ(watcher.transfers, 2U * 10);
}

TEST_F(ToolWithIcmd, ChangesWhatIsAskedAndKeepsTheRest) {
  EXPECT_EQ(run("config --register 2=0x55 --register 1=0b100").status, 0);
  const ToolRun config =
      run("config --counters 48 --levels LVDS --reverse 0,2 --index-clears 0 --output json");
  EXPECT_EQ(config.status, 0);
  EXPECT_EQ(config.err,
            "varnel: note: the counters were cleared: after a change of their widths they hold "
            "anything\n");
  EXPECT_EQ(config.out,
            "{\"chip\":\"icmd\",\"counters\":\"48\",\"levels\":\"LVDS\",\"reversed\":\"0,2\","
            "\"index_clears\":\"0\",\"registers\":\"2a 24 55 80 00 00 00 00\"}\n");
  EXPECT_EQ(chip.registerValue(0), 0x2A);
  EXPECT_EQ(chip.registerValue(1), 0x24);
  EXPECT_EQ(run("config --reverse none --index-clears none").status, 0);
  EXPECT_EQ(chip.registerValue(0), 0x02);
  EXPECT_EQ(chip.registerValue(1), 0x04);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithIcmd, AReversedCounterCountsTheOtherWayRound) {
  EXPECT_EQ(run("config --reverse 0").status, 0);
  encoder.turn(7);
  EXPECT_EQ(run("read").out, "counter 0          -7 edges  24 bits\n");
}

TEST_F(ToolWithIcmd, SeveralCountersGetTtlInputsOrAreRefused) {
  EXPECT_THAT(run("config --counters 16,16").out, HasSubstr("levels TTL"));
  const ToolRun refused = run("config --levels rs422");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err,
            "varnel: 2 counters need TTL levels, not RS-422: nothing was written\n"
            "  try: --levels ttl, or one counter with --counters 24\n");
  EXPECT_EQ(chip.registerValue(1), 0x80);
}

TEST_F(ToolWithIcmd, SaysThatSourcesDifferAboutTheMixedConfiguration) {
  EXPECT_THAT(run("config --counters 32,16").err,
              HasSubstr("note: descriptions of the chip differ about which of these two counters "
                        "has 32 bits: the tool takes counter 0"));
}

struct Sample {
  double time = 0;
  int counter = -1;
  long position = 0;
  double rate = 0;
};

std::vector<Sample> samplesOf(const std::string& csv) {
  std::istringstream lines(csv);
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "time,counter,position,rate");
  std::vector<Sample> samples;
  while (std::getline(lines, line)) {
    Sample sample;
    EXPECT_EQ(std::sscanf(line.c_str(), "%lf,%d,%ld,%lf", &sample.time, &sample.counter,
                          &sample.position, &sample.rate),
              4)
        << line;
    samples.push_back(sample);
  }
  return samples;
}

TEST_F(ToolWithIcmd, WatchesPositionAndRateOnTheBoardsClock) {
  encoder.setSpeed(-4000);
  const ToolRun watch = run("watch --count 5 --interval 50 --output csv");
  EXPECT_EQ(watch.status, 0);
  const std::vector<Sample> samples = samplesOf(watch.out);
  ASSERT_EQ(samples.size(), 5U);
  EXPECT_EQ(samples[0].rate, 0);
  for (size_t i = 1; i < samples.size(); ++i) {
    EXPECT_NEAR(samples[i].time - samples[i - 1].time, 0.05, 0.005);
    EXPECT_NEAR(samples[i].rate, -4000, 100);
    EXPECT_LT(samples[i].position, samples[i - 1].position);
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithIcmd, TheRateGoesOnThroughAnOverflow) {
  EXPECT_EQ(run("config --counters 16").status, 0);
  chip.setCount(0, 32767);
  encoder.setSpeed(1000);
  const std::vector<Sample> samples =
      samplesOf(run("watch --count 3 --interval 100 --output csv").out);
  ASSERT_EQ(samples.size(), 3U);
  EXPECT_LT(samples[1].position, 0);
  EXPECT_NEAR(samples[1].rate, 1000, 30);
  EXPECT_NEAR(samples[2].rate, 1000, 30);
}

TEST_F(ToolWithIcmd, ASignalEndsTheWatch) {
  after(230, [] { std::raise(SIGINT); });
  const ToolRun watch = run("watch --output csv");
  EXPECT_EQ(watch.status, 0);
  EXPECT_THAT(watch.err, IsEmpty());
  EXPECT_EQ(samplesOf(watch.out).size(), 3U);
}

TEST_F(ToolWithIcmd, AWatchEndsWhenTheChipLostItsConfiguration) {
  EXPECT_EQ(run("config --counters 48").status, 0);
  after(250, [this] { chip.powerUp(); });
  const ToolRun watch = run("watch");
  EXPECT_EQ(watch.status, 1);
  EXPECT_EQ(watch.err,
            "varnel: the iC-MD's register 0 changed from 0x02 to 0x00: its supply dropped, or "
            "something else writes to it\n  try: varnel icmd config, and the configuration "
            "again\n");
}

TEST_F(ToolWithIcmd, AFasterBusIsSlowedDownSoThatNothingGetsIntoAnExchange) {
  encoder.turn(1000);
  const ToolRun fast = run("read --speed 8000");
  EXPECT_EQ(fast.out, "counter 0        1000 edges  24 bits\n");
  EXPECT_EQ(watcher.fastestHz, 1000000U);
  // Identity, registers, and the address with three bytes: none to settle.
  EXPECT_EQ(watcher.transfers, 2U * 10 + 4);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithIcmd, EachFailingTransferIsReportedAndNoPositionMadeUp) {
  encoder.turn(5);
  ASSERT_EQ(run("read").status, 0);
  const unsigned total = watcher.transfers;
  for (unsigned message = 1; message <= total; ++message) {
    SCOPED_TRACE(message);
    kernel->failCall(Call::Message, message, EIO);
    const ToolRun failed = run("read");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.out, IsEmpty());
    EXPECT_THAT(failed.err, StartsWith("varnel: can't transfer with the iC-MD on /dev/spidev1.0: "
                                       "Input/output error (-5)\n  try: "));
    EXPECT_TRUE(chip.pin("NCS").high());
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }
}

TEST_F(ToolWithIcmd, AFailingSelectIsNamed) {
  // For each exchange the line is written twice: identity, eight registers, counters.
  for (const unsigned write : {1U, 2U, 21U, 22U}) {
    kernel->failCall(Call::GpioSet, write, EIO);
    const ToolRun failed = run("read");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.out, IsEmpty());
    EXPECT_THAT(failed.err,
                AllOf(StartsWith("varnel: can't "), HasSubstr("GPIO line 25 (--cs): ")));
  }
}

/// A bus without a chip, whose MISO has a level.
std::string errorWithoutChip(vboard::FloatingMiso level, const std::string& words) {
  vboard::Board board;
  board.addSpiBus({.number = 1, .floatingMiso = level});
  board.addGpioChip({.lines = 32});
  const vboard::Kernel kernel(board);
  const ToolRun run = runLine("icmd " + words + " --cs 25 --cs-active-low");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.out, IsEmpty());
  return run.err;
}

TEST(ToolWithoutIcmd, SaysThatNothingAnswers) {
  for (const char* words : {"read", "watch", "clear", "config", "config --counters 48"}) {
    EXPECT_THAT(errorWithoutChip(vboard::FloatingMiso::High, words),
                StartsWith(std::string(kNoAnswer) + "0xff 0xff, not 0x4d 0x44\n  try: whether it"));
    EXPECT_THAT(errorWithoutChip(vboard::FloatingMiso::Low, words),
                StartsWith(std::string(kNoAnswer) + "0x00 0x00, not 0x4d 0x44\n"));
  }
}

}  // namespace
