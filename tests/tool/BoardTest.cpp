// SPDX-License-Identifier: MIT
// The tool as a user runs it, on a board with one converter.
#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <memory>
#include <sstream>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Call;

namespace {

constexpr const char* kRead = "mcp3201 read --cs 25 --cs-active-low";

/// Counts transfers and sends a signal in the middle of one.
class Watcher : public vboard::Observer {
 public:
  int transfers = 0;
  uint32_t speedHz = 0;
  int signalInTransfer = 0;
  int signal = SIGINT;

  void onTransfer(const vboard::SpiRecord& record) override {
    speedHz = record.format.speedHz;
    if (++transfers == signalInTransfer) {
      std::raise(signal);
    }
  }
};

/// 2.137 V at the input, 3.3 V reference: code 2652. Selected by line 25 of the first of two GPIO
/// chips with 32 lines each; line 4 of the second holds something else.
class ToolOnBoard : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(vboard::interposed()); }

  void start(const std::string& profile = "full", int selectLine = 25) {
    vboard::SpiBus& bus = board.addSpiBus({.number = 1, .profile = profile});
    first = &board.addGpioChip({.lines = 32, .lineNames = {{25, "GPIO25"}}});
    second = &board.addGpioChip({.label = "expander", .lines = 32, .reserved = {{4, "spi1 CS0"}}});
    adc = &board.add<vboard::Mcp3201>("adc");
    adc->setReference(3.3);
    adc->setInput(2.137);
    board.attach(*adc, bus);
    vboard::GpioChip& chip = selectLine < 32 ? *first : *second;
    board.connect(adc->pin("CS"), chip.line(selectLine % 32)).setPull(vboard::Pull::Up);
    board.addObserver(watcher);
    kernel = std::make_unique<vboard::Kernel>(board);
  }

  /// What must hold whatever happened.
  void expectReleased() {
    EXPECT_TRUE(adc->pin("CS").high()) << "the chip is still selected";
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }

  Watcher watcher;
  vboard::Board board;
  vboard::GpioChip* first = nullptr;
  vboard::GpioChip* second = nullptr;
  vboard::Mcp3201* adc = nullptr;
  std::unique_ptr<vboard::Kernel> kernel;
};

TEST_F(ToolOnBoard, PrintsCodeAndVolts) {
  start();
  const ToolRun run = runLine(std::string(kRead) + " --vref 3.3");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "code 2652   2.1366 V\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_THAT(run.systemLines, IsEmpty());
  EXPECT_EQ(adc->conversions(), 1U);
  EXPECT_EQ(board.violationCount(), 0U);
  expectReleased();
}

TEST_F(ToolOnBoard, CalculatesVoltsFromTheReferenceGiven) {
  start();
  EXPECT_EQ(runLine(std::string(kRead) + " --vref 4.096").out, "code 2652   2.6520 V\n");
}

TEST_F(ToolOnBoard, TakesThePinInEveryForm) {
  start();
  for (const char* pin : {"25", "GPIO25", "gpiochip0:25", "/dev/gpiochip0:25"}) {
    const ToolRun run = runLine(std::string("mcp3201 read --cs-active-low --cs ") + pin);
    EXPECT_EQ(run.out, "code 2652   2.1366 V\n") << pin << run.err;
    expectReleased();
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolOnBoard, CountsPinNumbersThroughAllChips) {
  start("full", 32 + 15);
  for (const char* pin : {"47", "gpiochip1:15", "expander:15"}) {
    const ToolRun run = runLine(std::string("mcp3201 read --cs-active-low --cs ") + pin);
    EXPECT_EQ(run.out, "code 2652   2.1366 V\n") << pin << run.err;
    expectReleased();
  }
}

TEST_F(ToolOnBoard, TakesGlobalOptionsBeforeTheSubcommandToo) {
  start();
  for (const char* line : {
           "--cs 25 --cs-active-low --output csv --spi /dev/spidev1.0 mcp3201 read",
           "--cs 25 mcp3201 --cs-active-low read --output csv",
           "mcp3201 read --output csv --cs 25 --cs-active-low --spi /dev/spidev1.0",
       }) {
    EXPECT_EQ(runLine(line).out, "reading,code,volts\n1,2652,2.136621\n") << line;
  }
}

TEST_F(ToolOnBoard, WritesJsonLines) {
  start();
  EXPECT_EQ(runLine(std::string(kRead) + " --output json --count 2").out,
            "{\"chip\":\"mcp3201\",\"reading\":1,\"code\":2652,\"volts\":2.136621}\n"
            "{\"chip\":\"mcp3201\",\"reading\":2,\"code\":2652,\"volts\":2.136621}\n");
}

TEST_F(ToolOnBoard, SetsTheBusSpeedAskedFor) {
  start();
  EXPECT_EQ(runLine(kRead).status, 0);
  EXPECT_EQ(watcher.speedHz, 500000U);
  EXPECT_EQ(runLine(std::string(kRead) + " --speed 1200").status, 0);
  EXPECT_EQ(watcher.speedHz, 1200000U);
  // The chip's own limit.
  EXPECT_EQ(runLine(std::string(kRead) + " --speed 65535").status, 0);
  EXPECT_EQ(watcher.speedHz, 1600000U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolOnBoard, ReadsAsOftenAsAskedWithPausesBetween) {
  start();
  const vboard::Time before = board.clock().now();
  EXPECT_EQ(runLine(std::string(kRead) + " --count 4 --interval 250 --output csv").status, 0);
  const vboard::Time took = board.clock().now() - before;
  EXPECT_EQ(adc->conversions(), 4U);
  // The board's own clock: three pauses, and far less than a fourth for all the rest.
  EXPECT_GE(took, std::chrono::milliseconds(750));
  EXPECT_LT(took, std::chrono::milliseconds(1000));
}

TEST_F(ToolOnBoard, AddsAHintWhenTheSelectIsTheWrongWayRound) {
  start();
  const ToolRun run = runLine("mcp3201 read --cs 25");
  EXPECT_THAT(run.err, AllOf(StartsWith("varnel: note: "), HasSubstr("--cs-active-low")));
}

TEST_F(ToolOnBoard, AMissingNodeIsNamed) {
  start();
  const ToolRun run = runLine(std::string(kRead) + " --spi /dev/spidev7.3");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_EQ(run.systemLines, "can't open device: No such file or directory\n");
  EXPECT_THAT(run.err,
              StartsWith("varnel: can't open /dev/spidev7.3: No such file or directory (-2)\n"
                         "  try: ls /dev/spidev*"));
  EXPECT_EQ(watcher.transfers, 0);
  expectReleased();
}

TEST_F(ToolOnBoard, MissingPermissionNamesNodeOrPinAndGroup) {
  start();
  kernel->denyNode("/dev/spidev1.0", true);
  ToolRun run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't open /dev/spidev1.0: Permission denied (-13)\n"
                                  "  try: sudo usermod -aG spi $USER"));
  expectReleased();

  kernel->denyNode("/dev/spidev1.0", false);
  kernel->denyNode("/dev/gpiochip0", true);
  run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "varnel: can't take GPIO line 25 (--cs): Permission denied (-13)\n"
            "  try: sudo usermod -aG gpio $USER, then log in again\n");
  EXPECT_EQ(watcher.transfers, 0);
  expectReleased();
}

TEST_F(ToolOnBoard, ABusyLineIsNamed) {
  start();
  const ToolRun run = runLine("mcp3201 read --cs-active-low --cs gpiochip1:4");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line gpiochip1:4 (--cs): Device or "
                                  "resource busy (-16)\n  try: another line"));
  EXPECT_EQ(watcher.transfers, 0);
  expectReleased();
}

TEST_F(ToolOnBoard, TheSelectLineIsTakenBeforeTheBusIsOpened) {
  start();
  const ToolRun run = runLine("mcp3201 read --spi /dev/spidev7.3 --cs-active-low --cs gpiochip1:4");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line gpiochip1:4"));
  EXPECT_THAT(run.systemLines, IsEmpty());
}

TEST_F(ToolOnBoard, AnUnknownLineOrChipIsNamed) {
  start();
  for (const char* pin : {"64", "GPIO99", "gpiochip1:32"}) {
    const ToolRun run = runLine(std::string("mcp3201 read --cs-active-low --cs ") + pin);
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, StartsWith(std::string("varnel: can't take GPIO line ") + pin +
                                    " (--cs): Invalid argument (-22)\n  try: gpioinfo"));
  }
  const ToolRun run = runLine("mcp3201 read --cs-active-low --cs gpiochip7:1");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line gpiochip7:1 (--cs): No such device "
                                  "(-19)\n  try: ls /dev/gpiochip*"));
  EXPECT_EQ(watcher.transfers, 0);
  expectReleased();
}

TEST_F(ToolOnBoard, ARefusedWordSizeIsExplained) {
  start("bcm2835");
  const ToolRun run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.systemLines, "can't transfer data via CLinuxSpiBus: Invalid argument\n");
  EXPECT_EQ(run.err,
            "varnel: can't transfer with the MCP3201 on /dev/spidev1.0: Invalid argument (-22)\n"
            "  try: a controller that takes 15-bit words, which this chip needs: the Raspberry "
            "Pi's own takes 8 bits only, spi-gpio takes any; or another --speed\n");
  expectReleased();
}

TEST_F(ToolOnBoard, AFailedTransferEndsTheRunAndReleasesTheChip) {
  start();
  kernel->failCall(Call::Message, 3, ETIMEDOUT);
  const ToolRun run = runLine(std::string(kRead) + " --count 5");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "code 2652   2.1366 V\ncode 2652   2.1366 V\n");
  EXPECT_THAT(run.err, StartsWith("varnel: can't transfer with the MCP3201 on /dev/spidev1.0: "
                                  "Connection timed out (-110)\n  try: "));
  EXPECT_EQ(watcher.transfers, 2);
  expectReleased();
}

TEST_F(ToolOnBoard, EveryFailingCallEndsInStatusOneAndAMessage) {
  struct Case {
    Call call;
    const char* message;
  };
  constexpr Case kCases[] = {
      {Call::GpioRequest, "varnel: can't take GPIO line 25 (--cs): "},
      {Call::Open, "varnel: can't"},
      {Call::WriteMode, "varnel: can't set up /dev/spidev1.0: "},
      {Call::ReadMode, "varnel: can't set up /dev/spidev1.0: "},
      {Call::WriteLsbFirst, "varnel: can't set up /dev/spidev1.0: "},
      {Call::WriteBits, "varnel: can't set up /dev/spidev1.0: "},
      {Call::ReadBits, "varnel: can't set up /dev/spidev1.0: "},
      {Call::WriteSpeed, "varnel: can't set up /dev/spidev1.0: "},
      {Call::ReadSpeed, "varnel: can't set up /dev/spidev1.0: "},
      {Call::GpioSet, "varnel: can't select the MCP3201 with GPIO line 25 (--cs): "},
      {Call::Message, "varnel: can't transfer with the MCP3201 on /dev/spidev1.0: "},
  };
  start();
  for (const Case& failing : kCases) {
    SCOPED_TRACE(failing.message);
    kernel->failCall(failing.call, 1, EIO);
    const ToolRun run = runLine(kRead);
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, AllOf(StartsWith(failing.message), HasSubstr(": Input/output error (-5)"),
                               HasSubstr("\n  try: ")));
    EXPECT_EQ(watcher.transfers, 0);
    expectReleased();
  }
  EXPECT_EQ(runLine(kRead).status, 0);
}

TEST_F(ToolOnBoard, AFailedReleaseIsTriedOnceMoreAndReported) {
  start();
  kernel->failCall(Call::GpioSet, 2, EIO);
  ToolRun run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't release the MCP3201 with GPIO line 25 (--cs): "));
  expectReleased();

  // The chip was selected before every write to the line began to fail.
  kernel->failCall(Call::Message, 1, EIO);
  kernel->failCall(Call::GpioSet, 2, EIO);
  run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, AllOf(StartsWith("varnel: can't transfer with the MCP3201"),
                             HasSubstr("\nvarnel: can't release the MCP3201 with GPIO line 25")));
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolOnBoard, AFailedCloseIsReported) {
  start();
  kernel->failCall(Call::Close, 1, EIO, "/dev/spidev1.0");
  const ToolRun run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "code 2652   2.1366 V\n");
  EXPECT_THAT(run.err, StartsWith("varnel: can't close /dev/spidev1.0: Input/output error (-5)\n"));
  EXPECT_TRUE(adc->pin("CS").high());
}

TEST_F(ToolOnBoard, ShowsTheLibrarysLogLinesWhenAsked) {
  start();
  kernel->failCall(Call::Message, 1, EIO);
  EXPECT_THAT(runLine(std::string(kRead) + " --log error").systemLines,
              AllOf(HasSubstr("can't transfer data via CLinuxSpiBus: Input/output error\n"),
                    HasSubstr("Return code  -5 0x0005"), HasSubstr("readInput")));
  kernel->failCall(Call::Message, 1, EIO);
  EXPECT_THAT(runLine(std::string(kRead) + " --log DEBUG").systemLines, HasSubstr("Return code"));
  kernel->failCall(Call::Message, 1, EIO);
  EXPECT_THAT(runLine(kRead).systemLines, testing::Not(HasSubstr("Return code")));
}

TEST_F(ToolOnBoard, ASignalEndsAnEndlessRunAfterTheReadingAtHand) {
  start();
  for (const int signal : {SIGINT, SIGTERM}) {
    watcher.transfers = 0;
    watcher.signalInTransfer = 3;
    watcher.signal = signal;
    const ToolRun run = runLine(std::string(kRead) + " --count 0 --interval 1000");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "code 2652   2.1366 V\ncode 2652   2.1366 V\ncode 2652   2.1366 V\n");
    EXPECT_THAT(run.err, IsEmpty());
    expectReleased();
  }
}

TEST_F(ToolOnBoard, OutputThatCantBeWrittenEndsTheRunAndReleasesTheChip) {
  start();
  const char* const argv[] = {"varnel", "mcp3201",         "read",    "--cs",
                              "25",     "--cs-active-low", "--count", "0"};
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  std::ostringstream err;
  EXPECT_EQ(tool::runTool(static_cast<int>(std::size(argv)), argv, out, err), 1);
  EXPECT_THAT(err.str(), StartsWith("varnel: can't write the output"));
  EXPECT_EQ(adc->conversions(), 1U);
  expectReleased();
}

TEST(ToolWithoutGpio, SaysThatThereIsNoGpioChip) {
  vboard::Board board;
  board.addSpiBus({.number = 1});
  const vboard::Kernel kernel(board);
  const ToolRun run = runLine(kRead);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "varnel: can't take GPIO line 25 (--cs): No such device (-19)\n"
            "  try: ls /dev/gpiochip*; gpiodetect lists the GPIO chips; none: the kernel lacks the "
            "GPIO driver\n");
}

TEST(ToolWithNativeSelect, ReadsWithoutAGpioLine) {
  vboard::Board board;
  vboard::SpiBus& bus = board.addSpiBus({.number = 1});
  auto& adc = board.add<vboard::Mcp3201>("adc");
  adc.setInput(2.5);
  board.attach(adc, bus);
  board.connect(adc.pin("CS"), bus.select(0));
  const vboard::Kernel kernel(board);
  const ToolRun run = runLine("mcp3201 read --vref 5");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "code 2048   2.5000 V\n");
  EXPECT_EQ(board.violationCount(), 0U);
}

}  // namespace
