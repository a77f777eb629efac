// SPDX-License-Identifier: MIT
// The 24-bit converters, as a user of the tool sees them.
#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using vboard::Call;

namespace {

using namespace std::chrono_literals;

/// One row of CSV output.
struct Row {
  int reading = 0;
  int channel = 0;
  int code = 0;
  double volts = 0;
};

std::vector<Row> rowsOf(const std::string& csv) {
  std::istringstream lines(csv);
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "reading,channel,code,volts");
  std::vector<Row> rows;
  while (std::getline(lines, line)) {
    Row row;
    EXPECT_EQ(std::sscanf(line.c_str(), "%d,%d,%d,%lf", &row.reading, &row.channel, &row.code,
                          &row.volts),
              4)
        << line;
    rows.push_back(row);
  }
  return rows;
}

/// A converter selected by line 25, with DRDY at line 24, RESET at 23 and START at 22. System calls
/// take so long that the chip is ready for its first register after the reset.
template <typename Chip>
class ConverterBoard : public testing::Test, public vboard::Observer {
 protected:
  static constexpr bool kHasStart = std::is_same_v<Chip, vboard::Ads1248>;

  void SetUp() override { ASSERT_TRUE(vboard::interposed()); }
  void TearDown() override {
    if (kernel != nullptr) {
      EXPECT_TRUE(chip.pin("CS").high()) << "the chip is still selected";
      EXPECT_EQ(kernel->openDescriptors(), 0);
    }
  }
  void onTransfer(const vboard::SpiRecord& record) override {
    ++transfers;
    speedHz = record.format.speedHz;
  }

  void start(bool nativeSelect = false) {
    vboard::GpioChip& gpio =
        board.addGpioChip({.lines = 32, .lineNames = {{24, "READY"}}, .reserved = {{4, "wifi"}}});
    board.attach(chip, bus);
    board.connect(chip.pin("CS"), nativeSelect ? bus.select(0) : gpio.line(25))
        .setPull(vboard::Pull::Up);
    board.connect(chip.pin("DRDY"), gpio.line(24));
    board.connect(chip.pin("RESET"), gpio.line(23)).setPull(vboard::Pull::Up);
    if constexpr (kHasStart) {
      board.connect(chip.pin("START"), gpio.line(22)).setPull(vboard::Pull::Down);
    }
    board.addObserver(*this);
    kernel = std::make_unique<vboard::Kernel>(board);
  }

  static std::string command(const std::string& words) {
    return std::string(kHasStart ? "ads1248 " : "ads1256 ") + words + " --drdy 24 --reset 23" +
           (kHasStart ? " --start 22" : "");
  }
  ToolRun run(const std::string& words) {
    return runLine(command(words) + " --cs 25 --cs-active-low");
  }
  /// Does something when so much of the board's time has passed.
  void after(vboard::Time time, std::function<void()> action) {
    const std::lock_guard guard(board.mutex());
    board.clock().after(time, std::move(action));
  }

  vboard::Board board{{.callCost = 60us}};
  vboard::SpiBus& bus = board.addSpiBus({.number = 1});
  Chip& chip = board.add<Chip>("adc");
  std::unique_ptr<vboard::Kernel> kernel;
  int transfers = 0;
  uint32_t speedHz = 0;
};

class ToolWithAds1248 : public ConverterBoard<vboard::Ads1248> {
 protected:
  ToolWithAds1248() {
    chip.setReference(1, 2.0);
    chip.setInput(0, 0.1);
    chip.setInput(7, -0.05);
  }
};

// 0.1 V * 8 / 2.5 V and -0.05 V * 8 / 2 V of 8388607.
TEST_F(ToolWithAds1248, ReadsBothChannelsWithTheirSign) {
  start();
  const ToolRun tool = run("read --vref1 2");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, IsEmpty());
  EXPECT_EQ(tool.out,
            "channel 0  code  2684354   0.1000000 V\n"
            "channel 1  code -1677721  -0.0500000 V\n");
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1248, WritesData) {
  start();
  const ToolRun csv = run("read --vref1 2 --count 2 --output csv");
  EXPECT_EQ(csv.out,
            "reading,channel,code,volts\n1,0,2684354,0.099999991\n1,1,-1677721,-0.049999988\n"
            "2,0,2684354,0.099999991\n2,1,-1677721,-0.049999988\n");
  const ToolRun json = run("read --vref 2 --output json");
  EXPECT_THAT(json.out, StartsWith("{\"chip\":\"ads1248\",\"reading\":1,\"channel\":0,"
                                   "\"code\":2684354,\"volts\":0.0799999"));
  EXPECT_EQ(run("rate 320 --output csv").out, "rate,gain\n320,8\n");
}

TEST_F(ToolWithAds1248, AReadingIsANewResultOfBothChannelsAtEveryRate) {
  chip.setInput(0, vboard::Signal::Ramp{.from = 0, .to = 1.0, .over = 20s});
  chip.setInput(7, vboard::Signal::Ramp{.from = 0, .to = 1.0, .over = 20s});
  start();
  for (const int rate : {5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000}) {
    SCOPED_TRACE(rate);
    const ToolRun tool =
        run("read --gain 1 --count 3 --output csv --vref1 2 --rate " + std::to_string(rate));
    EXPECT_EQ(tool.status, 0) << tool.err;
    const std::vector<Row> rows = rowsOf(tool.out);
    ASSERT_EQ(rows.size(), 6U);
    for (size_t i = 2; i < rows.size(); ++i) {
      EXPECT_EQ(rows[i].channel, static_cast<int>(i % 2));
      EXPECT_GT(rows[i].volts, rows[i - 2].volts);
    }
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1248, EveryGainGivesTheSameVolts) {
  chip.setInput(0, 0.015);
  chip.setInput(7, -0.015);
  start();
  for (const int gain : {1, 2, 4, 8, 16, 32, 64, 128}) {
    SCOPED_TRACE(gain);
    const std::vector<Row> rows =
        rowsOf(run("read --rate 2000 --vref1 2 --output csv --gain " + std::to_string(gain)).out);
    ASSERT_EQ(rows.size(), 2U);
    const double step = 2.5 / gain / 8388607;
    EXPECT_NEAR(rows[0].volts, 0.015, step);
    EXPECT_NEAR(rows[1].volts, -0.015, step);
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1248, SetsRateAndGainAndReadsThemBack) {
  start();
  ToolRun tool = run("rate 640");
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(tool.out, "640 samples/s  gain 8\n");
  EXPECT_EQ(chip.registers()[3], 0x37);
  tool = run("gain 32");
  EXPECT_EQ(tool.out, "80 samples/s  gain 32\n");
  EXPECT_EQ(chip.registers()[3], 0x54);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1248, AConverterThatIsNeverReadyIsATimeOut) {
  chip.setNeverReady(true);
  start();
  const ToolRun tool = run("read");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.out, IsEmpty());
  EXPECT_THAT(tool.err,
              AllOf(StartsWith("varnel: time-out: DRDY of the ADS1248 stayed high for 1"),
                    HasSubstr(" ms, a conversion at 80 samples/s takes 13 ms\n  try: whether line "
                              "24 (--drdy) is at DRDY and --start at START; "),
                    Not(HasSubstr("left the ADS1248 selected"))));
}

TEST_F(ToolWithAds1248, ATimeOutInAnExchangeSaysWhatStayedSelected) {
  start();
  after(500ms, [this] { chip.setNeverReady(true); });
  const ToolRun tool = run("read --count 0");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.out, StartsWith("channel 0  code  2684354"));
  EXPECT_THAT(tool.err, AllOf(StartsWith("varnel: time-out: "),
                              EndsWith("varnel: note: that was in the middle of an exchange, which "
                                       "left the ADS1248 selected; the tool deselects it now\n")));
}

TEST_F(ToolWithAds1248, ARegisterThatDoesNotHoldItsValueIsNamedByItsPlace) {
  start();
  chip.stickRegisterBits(0x00, 0x08, 0x08);
  ToolRun tool = run("read");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.err, StartsWith("varnel: the ADS1248 does not answer: the register written "
                                   "first does not read back as it was written, also after a "
                                   "second try (-201)\n  try: whether the chip has power; "));
  chip.stickRegisterBits(0x00, 0, 0);
  chip.stickRegisterBits(0x03, 0x01, 0x01);
  tool = run("read");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.err,
              StartsWith("varnel: the ADS1248 answers, but one of its registers does not read back "
                         "as it was written, also after a second try (-201)\n  try: "));
  EXPECT_THAT(tool.err, Not(HasSubstr("selected")));
  EXPECT_EQ(run("rate 640").status, 1);
}

TEST_F(ToolWithAds1248, ALineThatCantBeTakenIsNamed) {
  start();
  const ToolRun tool = runLine(
      "ads1248 read --start 22 --drdy 4 --reset 23 --cs 25 "
      "--cs-active-low");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.err, StartsWith("varnel: can't take GPIO line 4 (--drdy): Device or resource "
                                   "busy (-16)\n  try: "));
  EXPECT_EQ(transfers, 0);
  EXPECT_THAT(runLine("ads1248 read --start 22 --drdy READY --reset NOWHERE").err,
              StartsWith("varnel: can't take GPIO line NOWHERE (--reset): "));
}

TEST_F(ToolWithAds1248, TheDriversTroubleWithALineIsNotPutDownToTheBus) {
  start();
  // After the select line, and each of the three for a moment.
  for (const unsigned request : {5U, 6U, 7U}) {
    kernel->failCall(Call::GpioRequest, request, EIO);
    const ToolRun tool = run("read");
    EXPECT_EQ(tool.status, 1);
    EXPECT_THAT(tool.err, StartsWith("varnel: can't drive a GPIO line of the ADS1248, one of 22, "
                                     "24, 23 (--start, --drdy, --reset): Input/output error (-5)"));
  }
  EXPECT_THAT(runLine("ads1248 read --start 22 --drdy 24 --reset 22 --cs 25 --cs-active-low").err,
              HasSubstr("one of 22, 24, 22 (--start, --drdy, --reset): Device or resource busy"));
  EXPECT_EQ(transfers, 0);
}

TEST_F(ToolWithAds1248, ASelectLineThatFailsIsNamed) {
  start();
  // RESET and START go high before it.
  kernel->failCall(Call::GpioSet, 3, EIO);
  EXPECT_THAT(run("read").err,
              StartsWith("varnel: can't release the ADS1248 with GPIO line 25 (--cs): "));
}

TEST_F(ToolWithAds1248, AFailingTransferSaysWhatItLeftSelected) {
  start();
  EXPECT_EQ(run("read --rate 640").status, 0);
  const int all = transfers;
  for (const int before : {0, 1}) {
    kernel->failCall(Call::Message, static_cast<unsigned>(all - before), EIO);
    const ToolRun tool = run("read --rate 640");
    EXPECT_EQ(tool.status, 1);
    EXPECT_THAT(tool.out, IsEmpty());
    EXPECT_THAT(tool.err, AllOf(StartsWith("varnel: can't transfer with the ADS1248 on "
                                           "/dev/spidev1.0: Input/output error (-5)\n  try: "),
                                HasSubstr("left the ADS1248 selected")));
    EXPECT_TRUE(chip.pin("CS").high());
  }
}

TEST_F(ToolWithAds1248, ABusFasterThanTheChipIsNotSetUp) {
  start();
  EXPECT_EQ(run("read --rate 640").status, 0);
  const int all = transfers;
  EXPECT_EQ(speedHz, 100000U);
  EXPECT_EQ(run("read --rate 640 --speed 1500").status, 0);
  EXPECT_EQ(speedHz, 1500000U);
  EXPECT_EQ(transfers, 2 * all);
  EXPECT_EQ(run("read --rate 640 --speed 20000").status, 0);
  EXPECT_EQ(speedHz, 2000000U);
  EXPECT_EQ(transfers, 3 * all) << "nothing settles in between";
}

TEST(ToolOnAFastComputer, GetsThroughToTheConverterAfterItsReset) {
  ASSERT_TRUE(vboard::interposed());
  vboard::Board board{{.callCost = 1us}};
  vboard::SpiBus& bus = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  auto& chip = board.add<vboard::Ads1248>("adc");
  board.attach(chip, bus);
  const std::pair<const char*, int> wires[] = {
      {"CS", 25}, {"DRDY", 24}, {"RESET", 23}, {"START", 22}};
  for (const auto& [pin, line] : wires) {
    board.connect(chip.pin(pin), gpio.line(line));
  }
  chip.setReference(1, 2.5);
  const vboard::Kernel kernel(board);
  const std::string command =
      "ads1248 read --start 22 --drdy 24 --reset 23 --cs 25 --cs-active-low";
  EXPECT_EQ(runLine(command).status, 0);
  const ToolRun fast = runLine(command + " --speed 2000");
  EXPECT_EQ(fast.status, 1);
  EXPECT_THAT(fast.err, HasSubstr("a lower --speed, which also gives the chip more time"));
}

TEST_F(ToolWithAds1248, CtrlCEndsItAfterTheReadingAtHand) {
  start();
  after(300ms, [] { std::raise(SIGINT); });
  const ToolRun tool = run("read --count 0 --output csv");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, IsEmpty());
  const std::vector<Row> rows = rowsOf(tool.out);
  EXPECT_GE(rows.size(), 4U);
  EXPECT_EQ(rows.size() % 2, 0U);
}

TEST_F(ToolWithAds1248, APlotInAPipeIsPlainLines) {
  start();
  EXPECT_EQ(run("read --plot --vref1 2").out,
            "channel 0  code  2684354   0.1000000 V\n"
            "channel 1  code -1677721  -0.0500000 V\n");
}

TEST_F(ToolWithAds1248, WorksAtTheNodesSelect) {
  start(true);
  const ToolRun tool = runLine(command("read --vref1 2"));
  EXPECT_EQ(tool.status, 0) << tool.err;
  EXPECT_THAT(tool.out, EndsWith("channel 1  code -1677721  -0.0500000 V\n"));
}

class ToolWithAds1256 : public ConverterBoard<vboard::Ads1256> {
 protected:
  ToolWithAds1256() {
    const double volts[] = {1.25, 0, 0.5, 1.5, 2.1, 0.1, 1.001, 1.0};
    for (int i = 0; i < 8; ++i) {
      chip.setInput(i, volts[i]);
    }
  }
};

TEST_F(ToolWithAds1256, ReadsAllChannelsWithTheirSign) {
  start();
  const ToolRun tool = run("read");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, IsEmpty());
  EXPECT_EQ(tool.out,
            "channel 0  code  4194304   1.2500001 V\n"
            "channel 1  code -3355443  -1.0000001 V\n"
            "channel 2  code  6710886   2.0000001 V\n"
            "channel 3  code     3355   0.0009999 V\n");
  EXPECT_EQ(speedHz, 75000U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1256, ReadsSomeChannelsInTheOrderGivenAgainAndAgain) {
  start();
  for (const char* channels : {"3,1", "2", "0,1,3", "1,0,3,2"}) {
    SCOPED_TRACE(channels);
    const std::string list = channels;
    const std::vector<Row> rows = rowsOf(run("read --count 5 --output csv --channels " + list).out);
    const size_t used = (list.size() + 1) / 2;
    ASSERT_EQ(rows.size(), 5 * used);
    for (size_t i = 0; i < rows.size(); ++i) {
      const int channel = list[2 * (i % used)] - '0';
      EXPECT_EQ(rows[i].channel, channel);
      constexpr double kVolts[] = {1.25, -1.0, 2.0, 0.001};
      EXPECT_NEAR(rows[i].volts, kVolts[channel], 1e-6);
    }
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1256, MeasuresWithTheCalibrationItStarted) {
  chip.setOffsetError(0.02);
  chip.setGainError(0.05);
  start();
  EXPECT_THAT(rowsOf(run("read --channels 0,1 --output csv").out),
              testing::ElementsAre(testing::Field(&Row::volts, testing::DoubleNear(1.25, 1e-5)),
                                   testing::Field(&Row::volts, testing::DoubleNear(-1, 1e-5))));
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAds1256, AFasterBusIsNotedAndShowsTheGapThatIsMissing) {
  start();
  const ToolRun tool = run("read --speed 5000");
  EXPECT_THAT(tool.err, StartsWith("varnel: note: above 75 kHz a controller that sends bytes "
                                   "without a gap asks for a result before the ADS1256 has it: "
                                   "readings may be noise\n"));
  EXPECT_EQ(speedHz, 200000U);
  EXPECT_GT(board.violationCount(), 0U);
  EXPECT_THAT(run("read --speed 50").err, IsEmpty());
  EXPECT_EQ(speedHz, 50000U);
}

TEST_F(ToolWithAds1256, AFailingTransferSaysWhatItLeftSelected) {
  start();
  EXPECT_EQ(run("read").status, 0);
  // A read-back of a register, of which there are five, is two transfers in a message.
  kernel->failCall(Call::Message, static_cast<unsigned>(transfers - 5), EIO);
  const ToolRun tool = run("read");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.out, IsEmpty());
  EXPECT_THAT(tool.err, AllOf(StartsWith("varnel: can't transfer with the ADS1256 on "),
                              HasSubstr("left the ADS1256 selected")));
}

TEST_F(ToolWithAds1256, ALineThatCantBeTakenIsNamed) {
  start();
  EXPECT_THAT(runLine("ads1256 read --drdy READY --reset 4 --cs 25 --cs-active-low").err,
              StartsWith("varnel: can't take GPIO line 4 (--reset): Device or resource busy"));
  kernel->failCall(Call::GpioRequest, 4, EIO);
  EXPECT_THAT(run("read").err, StartsWith("varnel: can't drive a GPIO line of the ADS1256, one of "
                                          "23, 24 (--reset, --drdy): "));
}

TEST_F(ToolWithAds1256, WorksAtTheNodesSelect) {
  start(true);
  const ToolRun tool = runLine(command("read --channels 2"));
  EXPECT_EQ(tool.status, 0) << tool.err;
  EXPECT_EQ(tool.out, "channel 2  code  6710886   2.0000001 V\n");
}

TEST(ToolWithoutAConverter, SaysThatNoChipAnswers) {
  for (const vboard::FloatingMiso floating :
       {vboard::FloatingMiso::Low, vboard::FloatingMiso::High}) {
    vboard::Board board;
    board.addSpiBus({.number = 1, .floatingMiso = floating});
    board.addGpioChip({.lines = 32});
    const vboard::Kernel kernel(board);
    for (const char* line :
         {"ads1248 read --start 22 --drdy 24 --reset 23",
          "ads1248 rate 5 --start 22 --drdy 24 --reset 23", "ads1256 read --drdy 24 --reset 23"}) {
      const ToolRun tool = runLine(line);
      EXPECT_EQ(tool.status, 1) << line;
      EXPECT_THAT(tool.out, IsEmpty());
      EXPECT_THAT(tool.err, AllOf(HasSubstr(" does not answer: the register written first "),
                                  HasSubstr("\n  try: whether the chip has power")));
    }
  }
}

}  // namespace
