// SPDX-License-Identifier: MIT
// Stepper controllers and their motor, as a user of the tool sees them.
#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::AllOf;
using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using vboard::Call;

namespace {

/// Counts transfers and keeps their bytes. With a GPIO line as select, FF comes first in each run:
/// it settles the clock line before the chip is selected.
class Bytes : public vboard::Observer {
 public:
  std::string text;
  unsigned transfers = 0;

  void onTransfer(const vboard::SpiRecord& record) override {
    ++transfers;
    for (const uint32_t word : record.mosi) {
      char byte[4];
      std::snprintf(byte, sizeof byte, "%02X ", word & 0xFFU);
      text += byte;
    }
  }
};

/// One row of CSV output.
struct Row {
  double time = 0;
  long position = 0;
  double speed = 0;
  std::string state;
};

std::vector<Row> rowsOf(const std::string& csv) {
  std::istringstream lines(csv);
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "time,position,speed,state");
  std::vector<Row> rows;
  while (std::getline(lines, line)) {
    Row row;
    char state[32] = "";
    EXPECT_EQ(std::sscanf(line.c_str(), "%lf,%ld,%lf,%31[^\n]", &row.time, &row.position,
                          &row.speed, state),
              4)
        << line;
    row.state = state;
    rows.push_back(row);
  }
  return rows;
}

/// A controller on the bus, selected by line 25, and a motor with a limit switch on its cable.
template <typename Chip>
class StepperBoard : public testing::Test {
 protected:
  StepperBoard()
      : bus(board.addSpiBus({.number = 1})),
        chip(board.add<Chip>("driver")),
        motor(board.add<vboard::StepperMotor>("motor")) {
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
    board.attach(chip, bus);
    board.connect(chip.pin("CS"), gpio.line(25)).setPull(vboard::Pull::Up);
    board.netOf(chip.pin("STBY")).setPull(vboard::Pull::Up);
    board.connect(motor.pin("PHASES"), chip.pin("OUT"));
    board.connect(motor.pin("LIMIT"), chip.pin("SW"));
    board.addObserver(bytes);
  }

  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    // The undervoltage of the power-up.
    ASSERT_EQ(runLine(command("status") + (kRegisters ? " --clear" : "")).status, 0);
    board.clearViolations();
    bytes = {};
  }
  void TearDown() override {
    if (kernel != nullptr) {
      EXPECT_TRUE(chip.pin("CS").high());
      EXPECT_EQ(kernel->openDescriptors(), 0);
    }
  }

  static constexpr bool kRegisters = std::is_same_v<Chip, vboard::Powerstep01>;

  static std::string command(const std::string& words) {
    return std::string(kRegisters ? "powerstep01 " : "l6470 ") + words + " --cs 25 --cs-active-low";
  }
  ToolRun run(const std::string& words) { return runLine(command(words)); }
  /// Does something when so many milliseconds of the board's time have passed.
  void after(int milliseconds, std::function<void()> action) {
    const std::lock_guard guard(board.mutex());
    board.clock().after(std::chrono::milliseconds(milliseconds), std::move(action));
  }

  Bytes bytes;
  vboard::Board board;
  vboard::SpiBus& bus;
  Chip& chip;
  vboard::StepperMotor& motor;
  std::unique_ptr<vboard::Kernel> kernel;
};

class ToolWithPowerstep01 : public StepperBoard<vboard::Powerstep01> {};
class ToolWithL6470 : public StepperBoard<vboard::L6470> {};

struct Sent {
  const char* words;
  const char* bytes;
  const char* text;
};

// 0x68DB is 400 steps/s: 400 * 67.108864, truncated.
constexpr Sent kSent[] = {
    {"run --speed 400", "51 00 68 DB ", "sent run 400 steps/s forward\n"},
    {"stop", "B0 ", "sent stop soft\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"run --speed 400 --direction reverse", "50 00 68 DB ", "sent run 400 steps/s reverse\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"reset-pos", "D8 ", "sent reset-pos\n"},
    {"move 16", "41 00 00 10 ", "sent move 16 forward\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"move 0x10 --direction REVERSE", "40 00 00 10 ", "sent move 16 reverse\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"goto -2", "60 3F FF FE ", "sent goto -2\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"goto-dir 5 --direction forward", "69 00 00 05 ", "sent goto-dir 5 forward\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"home", "70 ", "sent home\n"},
    {"stop --hard", "B8 ", "sent stop hard\n"},
    {"mark", "78 ", "sent mark\n"},
    {"hiz --soft", "A0 ", "sent hiz soft\n"},
    {"hiz --hard", "A8 ", "sent hiz hard\n"},
    {"reset", "C0 ", "sent reset\n"},
};

TEST_F(ToolWithPowerstep01, EachCommandSendsItsBytesAndSaysSo) {
  for (const Sent& sent : kSent) {
    SCOPED_TRACE(sent.words);
    bytes = {};
    const ToolRun tool = run(sent.words);
    EXPECT_EQ(tool.status, 0) << tool.err;
    EXPECT_EQ(tool.out, sent.text);
    EXPECT_THAT(bytes.text, HasSubstr(sent.bytes));
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithL6470, EachCommandSendsItsBytesAndSaysSo) {
  for (const Sent& sent : kSent) {
    SCOPED_TRACE(sent.words);
    bytes = {};
    const ToolRun tool = run(sent.words);
    EXPECT_EQ(tool.status, 0) << tool.err;
    EXPECT_EQ(tool.out, sent.text);
    EXPECT_THAT(bytes.text, StartsWith(std::string("FF ") + sent.bytes)) << "nothing before it";
    EXPECT_THAT(bytes.text, Not(HasSubstr(" 2"))) << "no register is read";
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithPowerstep01, WaitsUntilThePositionIsReached) {
  const ToolRun forward = run("move 3200 --wait");
  EXPECT_EQ(forward.status, 0);
  EXPECT_THAT(forward.err, IsEmpty());
  EXPECT_THAT(forward.out, EndsWith("    3200 microsteps      0.0 steps/s  state standstill\n"));
  EXPECT_EQ(chip.position(), 3200);
  EXPECT_DOUBLE_EQ(motor.position(), 25);
  EXPECT_EQ(run("goto -640 --wait").status, 0);
  EXPECT_EQ(chip.position(), -640);
  EXPECT_EQ(run("position").out, "    -640 microsteps\n");
  EXPECT_EQ(run("home --wait").status, 0);
  EXPECT_EQ(chip.position(), 0);
  EXPECT_EQ(run("set MARK -100").status, 0);
  EXPECT_EQ(run("mark --wait").status, 0);
  EXPECT_EQ(chip.position(), -100);
  EXPECT_EQ(run("position --output json").out,
            "{\"chip\":\"powerstep01\",\"reading\":1,\"position\":-100}\n");
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithPowerstep01, WatchesAMoveOnTheBoardsClock) {
  const ToolRun tool = run("move 3200 --watch --interval 10 --output csv");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, IsEmpty());
  const std::vector<Row> rows = rowsOf(tool.out);
  ASSERT_GE(rows.size(), 10U);
  double peak = 0;
  for (size_t i = 1; i < rows.size(); ++i) {
    EXPECT_GT(rows[i].time, rows[i - 1].time);
    EXPECT_GE(rows[i].position, rows[i - 1].position);
    peak = std::max(peak, rows[i].speed);
  }
  EXPECT_EQ(rows.front().state, "accelerating");
  EXPECT_EQ(rows.back().state, "standstill");
  EXPECT_EQ(rows.back().position, 3200);
  EXPECT_EQ(rows.back().speed, 0);
  // 25 full steps in two ramps of 2008 steps/s²: 0.223 s, and 224 steps/s where they meet.
  EXPECT_NEAR(rows.back().time, 0.23, 0.015);
  EXPECT_NEAR(peak, 220, 10);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithPowerstep01, WatchesInTextAndJson) {
  const ToolRun text = run("move 1280 --watch");
  EXPECT_THAT(text.out, AllOf(StartsWith("   0.00"), HasSubstr("  state accelerating\n"),
                              EndsWith("1280 microsteps      0.0 steps/s  state standstill\n")));
  EXPECT_THAT(run("move 1280 --watch --output json").out,
              AllOf(StartsWith("{\"chip\":\"powerstep01\",\"time\":0.00"),
                    HasSubstr(",\"position\":2560,\"speed\":0.000,\"state\":\"standstill\"}\n")));
}

TEST_F(ToolWithPowerstep01, ARunGoesOnAfterItsSpeedIsReached) {
  EXPECT_THAT(run("run --speed 500 --wait").out,
              EndsWith("  500.0 steps/s  state constant speed\n"));
  EXPECT_EQ(run("speed").out, "  500.0 steps/s\n");
  EXPECT_EQ(run("speed --output csv --count 2").out, "reading,speed\n1,499.994\n2,499.994\n");
  EXPECT_EQ(run("stop --wait").status, 0);
  EXPECT_EQ(chip.speed(), 0);
  EXPECT_FALSE(chip.highZ());
}

TEST_F(ToolWithPowerstep01, SetsRampsAndLimitsBeforeTheMotion) {
  const ToolRun tool =
      run("run --speed 300 --acceleration 1000 --deceleration 500 --max-speed 200 --min-speed 50 "
          "--wait");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, StartsWith("varnel: note: the chip's maximum limits the speed to 198.4 "
                                   "steps/s: --max-speed changes it\n"));
  EXPECT_THAT(tool.out, EndsWith("  198.4 steps/s  state constant speed\n"));
  EXPECT_EQ(run("get acc dec max_speed min_speed --output csv").out,
            "register,address,value,meaning\n"
            "ACC,5,68,989.5 steps/s2\n"
            "DEC,6,34,494.8 steps/s2\n"
            "MAX_SPEED,7,13,198.4 steps/s\n"
            "MIN_SPEED,8,209,49.8 steps/s\n");
}

TEST_F(ToolWithPowerstep01, RefusesRampsWhileTheMotorTurns) {
  EXPECT_EQ(run("run --speed 400").status, 0);
  for (const char* option : {"--acceleration", "--deceleration", "--min-speed"}) {
    bytes = {};
    const ToolRun tool = run(std::string("run --speed 300 ") + option + " 100");
    EXPECT_EQ(tool.status, 1);
    EXPECT_EQ(tool.err,
              "varnel: the motor is turning: --acceleration, --deceleration and --min-speed need a "
              "standstill; nothing was sent\n  try: varnel powerstep01 stop --wait\n");
    EXPECT_EQ(bytes.text, "FF 3B 00 00 ") << "the status only";
  }
  EXPECT_EQ(run("run --speed 300 --max-speed 100 --wait").status, 0) << "that works";
}

TEST_F(ToolWithPowerstep01, RefusesAMoveWhileTheMotorTurnsAndAGotoWhileBusy) {
  EXPECT_EQ(run("run --speed 900").status, 0);
  bytes = {};
  ToolRun tool = run("move 100");
  EXPECT_EQ(tool.status, 1);
  EXPECT_EQ(tool.err,
            "varnel: the motor is turning, and this command needs a standstill: nothing was sent\n"
            "  try: varnel powerstep01 stop --wait\n");
  for (const char* words : {"goto 1", "goto-dir 1 --direction forward", "home", "mark"}) {
    tool = run(words);
    EXPECT_EQ(tool.status, 1) << words;
    EXPECT_THAT(tool.err, StartsWith("varnel: the command before is still being carried out: "
                                     "nothing was sent\n  try: varnel powerstep01 stop --wait"));
  }
  std::string statusOnly;
  for (int i = 0; i < 5; ++i) {
    statusOnly += "FF 3B 00 00 ";
  }
  EXPECT_EQ(bytes.text, statusOnly);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithPowerstep01, SaysWhyAResetIsRefusedAndWhatToDo) {
  EXPECT_EQ(run("move 100 --wait").status, 0);
  const ToolRun refused = run("reset");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.out, IsEmpty());
  EXPECT_EQ(refused.err,
            "varnel: the powerSTEP01 refused the reset: its bridges are on\n"
            "  try: varnel powerstep01 hiz --wait, then the reset again\n");
  EXPECT_EQ(chip.position(), 100);
  EXPECT_EQ(run("hiz --wait").status, 0);
  const ToolRun done = run("reset");
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.out, "sent reset\n");
  EXPECT_THAT(done.err, HasSubstr("set GATECFG1 and GATECFG2 to your board's values, then varnel "
                                  "powerstep01 status --clear\n"));
  EXPECT_EQ(chip.position(), 0);
}

TEST_F(ToolWithPowerstep01, ACommandErrorFromBeforeIsNotTakenForARefusal) {
  EXPECT_EQ(run("move 100 --wait").status, 0);
  EXPECT_EQ(run("reset").status, 1);
  EXPECT_THAT(run("status").out, EndsWith("alarms: command refused\n"));
  EXPECT_EQ(run("move 100 --wait").status, 0);
  EXPECT_EQ(run("reset-pos").status, 0);
}

TEST_F(ToolWithPowerstep01, StatusLeavesTheLatchedFlagsUnlessTold) {
  chip.setThermal(vboard::StepperChip::Thermal::Warning);
  chip.setThermal(vboard::StepperChip::Thermal::Normal);
  constexpr const char* kHot =
      "status 0xee03  bridges off, not busy, standstill, reverse, switch open; alarms: hot\n";
  EXPECT_EQ(run("status").out, kHot);
  EXPECT_EQ(run("status").out, kHot);
  const ToolRun clearing = run("status --clear");
  EXPECT_EQ(clearing.out, kHot);
  EXPECT_EQ(clearing.err,
            "varnel: note: the alarms shown are cleared now, where their cause is gone\n");
  EXPECT_EQ(run("status --output csv").out,
            "reading,status,bridges,busy,state,direction,switch,alarms\n"
            "1,58883,off,0,standstill,reverse,open,none\n");
}

TEST_F(ToolWithPowerstep01, AfterPowerUpItAdvisesWhatToSet) {
  board.powerUp();
  ToolRun tool = run("status");
  EXPECT_THAT(tool.out, EndsWith("alarms: undervoltage or reset\n"));
  constexpr const char* kAdvice = "after power-up set GATECFG1 and GATECFG2";
  EXPECT_THAT(tool.err, HasSubstr(kAdvice));
  tool = run("move 100");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, HasSubstr(kAdvice));
}

TEST_F(ToolWithPowerstep01, AnAlarmThatKeepsTheBridgesOffIsNamed) {
  chip.setThermal(vboard::StepperChip::Thermal::BridgeShutdown);
  ToolRun tool = run("move 100");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.out, IsEmpty());
  EXPECT_EQ(tool.err,
            "varnel: the powerSTEP01 did not carry out 'move 100 forward': too hot, bridges shut "
            "down\n  try: varnel powerstep01 status --clear, once the cause is gone; it clears the "
            "alarm\n");
  chip.setThermal(vboard::StepperChip::Thermal::Normal);
  EXPECT_EQ(run("status --clear").status, 0);
  chip.setSupply(3);
  tool = run("run --speed 100 --watch");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.err, HasSubstr("whether the motor supply is high enough"));
}

TEST_F(ToolWithPowerstep01, AnOverCurrentEndsTheMotionWithAMessage) {
  after(100, [this] { chip.setOverCurrent(true); });
  const ToolRun tool = run("run --speed 900 --watch");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.err, StartsWith("varnel: the motion ended early: over-current\n  try: varnel "
                                   "powerstep01 status --clear"));
  EXPECT_THAT(tool.out, EndsWith("  0.0 steps/s  state standstill\n"));
}

TEST_F(ToolWithPowerstep01, TheLimitSwitchEndsAMotionEarly) {
  motor.setLimitAbove(20);
  const ToolRun tool = run("move 25600 --wait");
  EXPECT_EQ(tool.status, 1);
  EXPECT_EQ(tool.err,
            "varnel: the motion ended at position 2560 instead of 25600: the switch was closed\n"
            "  try: varnel powerstep01 status, which tells what the chip noticed\n");
  motor.setLimitBelow(-20);
  EXPECT_EQ(run("run --speed 500 --direction reverse --watch").status, 0)
      << "an end as good as any";
  EXPECT_LT(chip.position(), 0);
}

TEST_F(ToolWithPowerstep01, AStallIsNoted) {
  motor.setBlocked(true);
  const ToolRun tool = run("move 3200 --wait");
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(tool.err,
            "varnel: note: noticed during the motion: stall at bridge A, stall at bridge B\n");
}

TEST_F(ToolWithPowerstep01, ASignalStopsTheMotionSoftly) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    bytes = {};
    after(300, [signal] { std::raise(signal); });
    const ToolRun tool = run("run --speed 400 --watch --output csv");
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(tool.err,
              "varnel: interrupted: the motor is being stopped softly; once more stops it at once\n"
              "varnel: the motor stands still at position " +
                  std::to_string(chip.position()) + "\n");
    const std::vector<Row> rows = rowsOf(tool.out);
    EXPECT_EQ(rows.back().state, "standstill");
    EXPECT_EQ(rows.back().position, chip.position());
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(),
                            [](const Row& row) { return row.state == "decelerating"; }));
    EXPECT_THAT(bytes.text, AllOf(HasSubstr("B0 "), Not(HasSubstr("B8 "))));
    EXPECT_EQ(chip.speed(), 0);
  }
}

TEST_F(ToolWithPowerstep01, ASecondSignalStopsAtOnce) {
  after(300, [] { std::raise(SIGINT); });
  after(450, [] { std::raise(SIGINT); });
  const ToolRun tool = run("run --speed 900 --deceleration 100 --watch --output csv");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, AllOf(HasSubstr("interrupted again: the motor is being stopped at once\n"),
                              HasSubstr("the motor stands still at position ")));
  // Softly it would take 6 s more.
  EXPECT_LT(rowsOf(tool.out).back().time, 1);
  EXPECT_LT(bytes.text.find("B0 "), bytes.text.find("B8 "));
  EXPECT_EQ(chip.speed(), 0);
}

TEST_F(ToolWithPowerstep01, AWaitingMoveIsStoppedToo) {
  after(100, [] { std::raise(SIGINT); });
  const ToolRun tool = run("move 256000 --wait");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, HasSubstr("the motor stands still at position "));
  EXPECT_LT(chip.position(), 256000);
  EXPECT_EQ(chip.speed(), 0);
  EXPECT_EQ(std::count(tool.out.begin(), tool.out.end(), '\n'), 1);
}

TEST_F(ToolWithPowerstep01, ASignalDuringHizLeavesTheBridgesOff) {
  EXPECT_EQ(run("run --speed 900 --deceleration 1000 --wait").status, 0);
  after(100, [] { std::raise(SIGINT); });
  EXPECT_EQ(run("hiz --wait").status, 0);
  EXPECT_TRUE(chip.highZ());
}

TEST_F(ToolWithPowerstep01, ASignalBeforeTheCommandKeepsItFromBeingSent) {
  after(0, [] { std::raise(SIGINT); });
  const ToolRun tool = run("run --speed 400 --watch");
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(tool.err, "varnel: interrupted before 'run 400 steps/s forward' was sent\n");
  EXPECT_THAT(bytes.text, Not(HasSubstr("51 ")));
  EXPECT_TRUE(chip.highZ());
}

/// Takes so many lines and then no more, as a pipe whose reader went away.
class BrokenPipe : public std::stringbuf {
 public:
  explicit BrokenPipe(int lines) : left_(lines) {}

 protected:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    if (left_ == 0) {
      errno = EPIPE;
      return 0;
    }
    return std::stringbuf::xsputn(text, size);
  }
  int_type overflow(int_type character) override {
    errno = EPIPE;
    return left_ == 0 ? traits_type::eof() : std::stringbuf::overflow(character);
  }
  int sync() override {
    left_ -= left_ > 0 ? 1 : 0;
    return 0;
  }

 private:
  int left_;
};

TEST_F(ToolWithPowerstep01, AReaderWhoWentAwayStopsTheMotor) {
  const char* const argv[] = {"varnel",  "powerstep01", "run", "--speed",        "400",
                              "--watch", "--cs",        "25",  "--cs-active-low"};
  BrokenPipe pipe(3);
  std::ostream out(&pipe);
  std::ostringstream err;
  EXPECT_EQ(tool::runTool(static_cast<int>(std::size(argv)), argv, out, err), 1);
  EXPECT_THAT(err.str(),
              StartsWith("varnel: the output can't be written: the motor is being stopped softly\n"
                         "varnel: the motor stands still at position "));
  EXPECT_EQ(chip.speed(), 0);
  EXPECT_FALSE(chip.busy());
}

TEST_F(ToolWithPowerstep01, ALostCommandByteIsReportedAlsoWhereTheDriverLetsItPass) {
  // After the settling byte status and MAX_SPEED are three bytes each; the eighth is the command.
  kernel->failCall(Call::Message, 8, EIO);
  const ToolRun tool = run("run --speed 400");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.out, IsEmpty());
  EXPECT_EQ(tool.systemLines, "can't transfer data via CLinuxSpiBus: Input/output error\n");
  EXPECT_EQ(tool.err,
            "varnel: the command byte did not get to the powerSTEP01, what follows it did\n"
            "  try: varnel powerstep01 stop --hard; a lower bus clock; the line above and dmesg "
            "tell the reason\n"
            "varnel: note: the motor may still be turning: varnel powerstep01 stop --hard, or "
            "switch its supply off\n");
}

TEST_F(ToolWithPowerstep01, EachFailingTransferEndsInStatusOneAndAMessage) {
  EXPECT_EQ(run("move 128 --wait --interval 1000").status, 0);
  const unsigned count = bytes.transfers;
  for (unsigned transfer = 1; transfer <= count; ++transfer) {
    SCOPED_TRACE(transfer);
    // The commands before may have left the chip waiting for arguments.
    board.powerUp();
    EXPECT_EQ(run("status --clear").status, 0);
    kernel->failCall(Call::Message, transfer, EIO);
    const ToolRun tool = run("move 128 --wait --interval 1000");
    EXPECT_EQ(tool.status, 1);
    EXPECT_THAT(tool.err,
                AnyOf(HasSubstr("can't transfer with the powerSTEP01 on /dev/spidev1.0: "),
                      HasSubstr("the command byte did not get to the powerSTEP01")));
    EXPECT_THAT(tool.out, IsEmpty());
    const bool begun = transfer > 8;  // settling, status, position
    EXPECT_EQ(tool.err.find("may still be turning") != std::string::npos, begun);
  }
  EXPECT_GT(count, 18U);
}

TEST_F(ToolWithPowerstep01, ReadsAllRegisters) {
  const ToolRun tool = run("get");
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(std::count(tool.out.begin(), tool.out.end(), '\n'), 27);
  EXPECT_THAT(tool.out,
              AllOf(StartsWith("register ABS_POS    0x000000  0 microsteps\n"),
                    HasSubstr("\nregister ACC        0x08a  2008.2 steps/s2\n"),
                    HasSubstr("\nregister GATECFG1   0x000  gate current 4 mA for 125 ns"),
                    HasSubstr("\nregister CONFIG     0x2c88  internal clock, switch stops hard"),
                    HasSubstr("\nregister STATUS     0xe603  bridges off, not busy")));
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithPowerstep01, NamesRegistersAsTheModeHasThem) {
  EXPECT_EQ(run("set step_mode 0x0c").out,
            "register STEP_MODE  0x0c  16 microsteps per step, current mode\n");
  EXPECT_EQ(run("get kval_run 0x1a --output json").out,
            "{\"chip\":\"powerstep01\",\"register\":\"TVAL_RUN\",\"address\":10,\"value\":41,"
            "\"meaning\":\"328.1 mV at the sense resistor\"}\n"
            "{\"chip\":\"powerstep01\",\"register\":\"CONFIG\",\"address\":26,\"value\":11400,"
            "\"meaning\":\"internal clock, switch stops hard, over-current switches off, 7.5 V "
            "gate supply, switching period 44 us\"}\n");
}

TEST_F(ToolWithPowerstep01, WritesARegisterAndReadsItBack) {
  EXPECT_EQ(run("set kval_run 0x40").out, "register KVAL_RUN   0x40  25.0 % of the supply\n");
  EXPECT_EQ(chip.registerValue(0x0A), 0x40U);
  EXPECT_EQ(run("set 0x18 0xFFF").out,
            "register GATECFG1   0xfff  gate current 96 mA for 3750 ns, boost code 7, clock "
            "watchdog on\n");
  EXPECT_EQ(run("set abs_pos -2097152").out, "register ABS_POS    0x200000  -2097152 microsteps\n");
  EXPECT_EQ(run("position").out, "-2097152 microsteps\n");
}

TEST_F(ToolWithPowerstep01, SaysWhenARegisterCanBeWritten) {
  EXPECT_EQ(run("run --speed 500 --wait").status, 0);
  ToolRun tool = run("set acc 0x20");
  EXPECT_EQ(tool.status, 1);
  EXPECT_EQ(tool.err,
            "varnel: the powerSTEP01 did not take 0x20 for ACC: it reads 0x8a\n"
            "  try: varnel powerstep01 stop --wait first: ACC can be written at standstill only\n");
  EXPECT_EQ(run("stop --wait").status, 0);
  EXPECT_EQ(run("set acc 0x20").status, 0);
  tool = run("set step_mode 3");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.err, HasSubstr("\n  try: varnel powerstep01 hiz --wait first: STEP_MODE can be "
                                  "written with the bridges off only\n"));
  EXPECT_EQ(run("hiz").status, 0);
  EXPECT_EQ(run("set step_mode 3").status, 0);
}

TEST_F(ToolWithPowerstep01, AStopSaysThatItSwitchesTheBridgesOn) {
  EXPECT_EQ(run("stop").err,
            "varnel: note: the bridges were off; a stop switches them on, 'varnel powerstep01 hiz' "
            "off again\n");
  EXPECT_FALSE(chip.highZ());
  EXPECT_THAT(run("stop").err, IsEmpty());
}

TEST_F(ToolWithL6470, StatusSaysThatItClearsTheLatchedFlags) {
  board.powerUp();
  const ToolRun first = run("status");
  EXPECT_EQ(first.out,
            "status 0x7c03  bridges off, not busy, standstill, reverse, switch open; alarms: "
            "undervoltage or reset\n");
  EXPECT_EQ(first.err,
            "varnel: note: the alarms shown are cleared now, where their cause is gone\n");
  const ToolRun second = run("status");
  EXPECT_THAT(second.out, EndsWith("alarms: none\n"));
  EXPECT_THAT(second.err, IsEmpty());
}

TEST_F(ToolWithL6470, WatchesAMoveByItsStatus) {
  const ToolRun tool = run("move 3200 --watch --interval 10 --output csv");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, IsEmpty());
  EXPECT_THAT(tool.out, AllOf(StartsWith("time,busy,state\n0.000"), HasSubstr(",1,accelerating\n"),
                              HasSubstr(",1,decelerating\n"), EndsWith(",0,standstill\n")));
  EXPECT_EQ(chip.position(), 3200);
  EXPECT_THAT(run("run --speed 300 --wait").out, EndsWith("busy 0  state constant speed\n"));
  EXPECT_EQ(run("stop --wait").status, 0);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithL6470, ASignalStopsTheMotionSoftlyAndASecondOneAtOnce) {
  after(300, [] { std::raise(SIGINT); });
  ToolRun tool = run("run --speed 400 --watch");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(tool.err, EndsWith("varnel: the motor stands still\n"));
  EXPECT_EQ(chip.speed(), 0);
  EXPECT_THAT(bytes.text, AllOf(HasSubstr("B0 "), Not(HasSubstr("B8 "))));
  after(300, [] {
    std::raise(SIGINT);
    std::raise(SIGINT);
  });
  tool = run("run --speed 400 --watch");
  EXPECT_EQ(tool.status, 0);
  EXPECT_THAT(bytes.text, HasSubstr("B8 "));
  EXPECT_EQ(chip.speed(), 0);
}

TEST_F(ToolWithL6470, SaysThatACommandWasRefused) {
  EXPECT_EQ(run("run --speed 400").status, 0);
  const ToolRun tool = run("move 100");
  EXPECT_EQ(tool.status, 1);
  EXPECT_THAT(tool.out, IsEmpty());
  EXPECT_EQ(
      tool.err,
      "varnel: the L6470 refused 'move 100 forward', or a command before it: command refused\n"
      "  try: again, the status is cleared now; if it is refused again, varnel l6470 stop "
      "--wait first: move needs a standstill, goto, goto-dir, home and mark need the command "
      "before to be done\n");
}

TEST_F(ToolWithL6470, WhatItClearsItTells) {
  board.powerUp();
  const ToolRun tool = run("move 100");
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(tool.err,
            "varnel: note: noticed since the status was last cleared: undervoltage or reset; it is "
            "cleared now\n");
}

TEST_F(ToolWithL6470, TheLimitSwitchIsNoted) {
  motor.setLimitAbove(20);
  const ToolRun tool = run("move 25600 --wait");
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(tool.err, "varnel: note: noticed during the motion: switch was closed\n");
}

TEST_F(ToolWithL6470, WhatNeedsARegisterSendsNothing) {
  for (const char* words : {"position", "speed", "get", "get acc", "set acc 5",
                            "run --speed 100 --max-speed 200", "move 1 --acceleration 100"}) {
    EXPECT_EQ(run(words).status, 2) << words;
  }
  EXPECT_EQ(bytes.transfers, 0U);
}

TEST(ToolWithoutAStepper, SaysThatNoChipAnswers) {
  for (const auto& [floating, word] :
       {std::pair(vboard::FloatingMiso::Low, "0x0000"), {vboard::FloatingMiso::High, "0xffff"}}) {
    vboard::Board board;
    board.addSpiBus({.number = 1, .floatingMiso = floating});
    Bytes bytes;
    board.addObserver(bytes);
    const vboard::Kernel kernel(board);
    for (const char* line :
         {"powerstep01 status", "powerstep01 move 100 --wait", "powerstep01 position",
          "powerstep01 get acc", "powerstep01 set acc 5", "powerstep01 reset", "l6470 status"}) {
      bytes = {};
      const ToolRun run = runLine(line);
      EXPECT_EQ(run.status, 1) << line;
      EXPECT_THAT(run.out, IsEmpty());
      EXPECT_THAT(run.err, AllOf(HasSubstr(" no answer from the "),
                                 HasSubstr(std::string(": its status reads ") + word),
                                 HasSubstr("\n  try: whether it has power and STBY is high")));
      EXPECT_LE(bytes.transfers, 4U) << "the status is asked for first";
    }
  }
}

TEST(ToolWithAStepperAtTheNodesSelect, SendsNoByteThatTheChipWouldTakeForACommand) {
  vboard::Board board;
  vboard::SpiBus& bus = board.addSpiBus({.number = 1});
  auto& chip = board.add<vboard::L6470>("driver");
  board.attach(chip, bus);
  board.connect(chip.pin("CS"), bus.select(0));
  board.netOf(chip.pin("STBY")).setPull(vboard::Pull::Up);
  Bytes bytes;
  board.addObserver(bytes);
  const vboard::Kernel kernel(board);
  EXPECT_EQ(runLine("l6470 status").status, 0);
  EXPECT_EQ(bytes.text, "D0 00 00 ");
  EXPECT_THAT(runLine("l6470 status").out, EndsWith("alarms: none\n"));
  EXPECT_EQ(runLine("l6470 move 1280 --wait").status, 0);
  EXPECT_EQ(chip.position(), 1280);
  EXPECT_EQ(board.violationCount(), 0U);
}

}  // namespace
