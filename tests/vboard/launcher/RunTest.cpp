// SPDX-License-Identifier: MIT
// `varnel-board` from outside, with programs that know nothing of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kBoards = VARNEL_BOARDS;
const std::string kDemo = kBoards + "/demo.toml";
const std::string kConverter = kBoards + "/mcp3201.toml";

struct Outcome {
  int status = 0;
  std::string out;
  std::string err;
};

std::string contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class VarnelBoard : public testing::Test {
 protected:
  VarnelBoard() {
    std::string path = testing::TempDir() + "runXXXXXX";
    folder_ = ::mkdtemp(path.data());
  }
  ~VarnelBoard() override { std::filesystem::remove_all(folder_); }

  /// As a shell runs it: `arguments` behind the launcher's path.
  Outcome run(const std::string& arguments, const std::string& before = "") {
    const std::string command = before + " " + VARNEL_BOARD + " " + arguments + " >" + folder_ +
                                "/out 2>" + folder_ + "/err </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(folder_ + "/out"),
            contents(folder_ + "/err")};
  }

  std::string write(const std::string& name, const std::string& text) {
    const std::string path = folder_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  static bool have(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null").c_str()) == 0;
  }

  json report(const std::string& arguments) {
    const Outcome outcome = run("--report json " + arguments);
    const json parsed = json::parse(outcome.err, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << outcome.err;
    return parsed;
  }

  std::string folder_;
};

/// What stands there in a report, or null.
json at(const json& report, const std::string& place) {
  const json::json_pointer pointer(place);
  return report.contains(pointer) ? report.at(pointer) : json();
}

const std::string kClient = std::string(" -- ") + CLIENT + " ";

TEST_F(VarnelBoard, ReportsWhatHappenedAndPassesTheStatusOn) {
  const Outcome outcome = run(kDemo + kClient + "_exit");
  EXPECT_EQ(outcome.status, 5);
  EXPECT_THAT(outcome.err,
              AllOf(StartsWith("varnel-board: vboard_client used the board for "),
                    HasSubstr("\n  adc (MCP3201): "),
                    HasSubstr("\n  spi1: 1 transfer, 2 words, 16 clocks, busy 32 us\n"),
                    HasSubstr("\n  no violations\n")));
  EXPECT_THAT(outcome.out, IsEmpty());
}

TEST_F(VarnelBoard, PassesArgumentsOnAsTheyAre) {
  const Outcome outcome = run(kDemo + " -- printf '<%s>' --strict -- 'a b' ''");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "<--strict><--><a b><>");
  EXPECT_EQ(outcome.err, "varnel-board: no program used the board: none opened a node of it\n");
}

TEST_F(VarnelBoard, EveryWayToEndGivesAReport) {
  for (const char* how : {"return", "_exit", "_Exit", "quick_exit", "exec", "vfork", "thread"}) {
    const json found = report(kDemo + kClient + how);
    ASSERT_EQ(at(found, "/processes").size(), 1U) << how;
    EXPECT_EQ(at(found, "/processes/0/complete"), true) << how;
    EXPECT_EQ(at(found, "/processes/0/program"), "vboard_client") << how;
    EXPECT_EQ(at(found, "/processes/0/buses/0/transfers"), how == std::string("thread") ? 2 : 1)
        << how;
  }
}

TEST_F(VarnelBoard, TheReportComesAfterEveryDestructor) {
  EXPECT_EQ(at(report(kDemo + kClient + "late"), "/processes/0/buses/0/transfers"), 2);
}

TEST_F(VarnelBoard, AFailedExecDoesNotEndTheReport) {
  EXPECT_EQ(at(report(kDemo + kClient + "execfail"), "/processes/0/buses/0/transfers"), 2);
}

TEST_F(VarnelBoard, AForkedChildGoesOnWithACopy) {
  const json found = report(kDemo + kClient + "fork");
  ASSERT_EQ(at(found, "/processes").size(), 2U);
  EXPECT_EQ(at(found, "/status"), 0);
  EXPECT_EQ(at(found, "/processes/0/buses/0/transfers"), 1);
  EXPECT_EQ(at(found, "/processes/1/buses/0/transfers"), 2);
  EXPECT_EQ(at(report(kDemo + kClient + "forkidle"), "/processes").size(), 1U)
      << "a child that never touched it has nothing to report";
}

TEST_F(VarnelBoard, AKilledProgramLeavesItsSignalAndNoReport) {
  const Outcome killed = run(kDemo + kClient + "kill");
  EXPECT_EQ(killed.status, 128 + 9);
  EXPECT_EQ(killed.err,
            "varnel-board: vboard_client used the board, but no report came from it: it was killed "
            "or still runs\nvarnel-board: " CLIENT " was killed by signal 9 (Killed)\n");
  EXPECT_EQ(run(kDemo + kClient + "abort").status, 128 + 6);
}

TEST_F(VarnelBoard, AKilledGrandchildIsMissedByStrict) {
  const std::string command = " -- sh -c '" CLIENT " kill; exit 0'";
  EXPECT_EQ(run(kDemo + command).status, 0);
  EXPECT_EQ(run(kDemo + " --strict" + command).status, 3);
}

TEST_F(VarnelBoard, StrictExitsWith3AfterViolations) {
  const std::string board = write("fast.toml",
                                  "[spi1]\n[chips.adc]\ntype = \"MCP3201\"\nspi = \"spi1\"\n"
                                  "pins = { CS = \"spi1.CS0\" }\nin = 1.0\n");
  const Outcome loose = run(board + kClient + "fast");
  EXPECT_EQ(loose.status, 0);
  EXPECT_THAT(loose.err, HasSubstr(" adc: clock-too-fast: "));
  EXPECT_EQ(run(board + " --strict" + kClient + "fast").status, 3);
  EXPECT_EQ(run(board + " --strict" + kClient + "return").status, 0);
}

TEST_F(VarnelBoard, SleepsTakeNoTimeUnlessAsked) {
  const auto begin = std::chrono::steady_clock::now();
  const json found = report(kDemo + kClient + "sleep");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(500));
  EXPECT_GT(at(found, "/processes/0/boardTimeNs"), 1000'000'000'000);
}

TEST_F(VarnelBoard, RealTimeFollowsTheClockOnTheWall) {
  const auto begin = std::chrono::steady_clock::now();
  const Outcome outcome = run(kDemo + " --realtime -- sh -c '" CLIENT "; sleep 0.3'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(VarnelBoard, TraceShowsTransfersAmongTheProgramsOwnLines) {
  const Outcome outcome =
      run(kDemo + " --trace --report none -- sh -c 'echo before >&2; " CLIENT "; echo after >&2'");
  EXPECT_THAT(outcome.err,
              testing::MatchesRegex(
                  "before\n\\[   0\\.000000000\\] board powered up for vboard_client \\(process "
                  "[0-9]+\\)\n\\[   0\\.0000[0-9]+\\] spidev1\\.0 mode 0, 8 bits, 500 kHz: MOSI 12 "
                  "34, MISO [0-9a-f ]+\nafter\n"));
}

TEST_F(VarnelBoard, EachProgramOfAShellReportsUnderItsName) {
  const Outcome outcome = run(kDemo + " -- sh -c '" CLIENT "; cp " CLIENT " " + folder_ +
                              "/other; " + folder_ + "/other'");
  EXPECT_THAT(outcome.err,
              AllOf(HasSubstr("varnel-board: vboard_client (process "),
                    HasSubstr("varnel-board: other (process "), Not(HasSubstr("cp (process"))));
}

TEST_F(VarnelBoard, KeepsWhatIsPreloadedAlready) {
  const Outcome outcome =
      run(kDemo + " --report none -- sh -c 'echo $LD_PRELOAD'", "LD_PRELOAD=libm.so.6");
  EXPECT_THAT(outcome.out, StartsWith("libm.so.6:/"));
  EXPECT_THAT(outcome.out, HasSubstr("/libvarnel-vboard.so"));
}

TEST_F(VarnelBoard, MistakesInTheBoardFileEndIt) {
  const std::string board = write("bad.toml", "[spi1]\nprofil = \"full\"\nbufsiz = -1\n");
  const Outcome outcome = run(board + " -- true");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err,
            board +
                ":2:1: unknown key \"profil\" in [spi1] (did you mean \"profile\"?); allowed: "
                "bufsiz, floating_miso, profile, selects\n" +
                board + ":3:10: bufsiz can't be -1; it is a whole number from 1 to 16777216\n");
}

TEST_F(VarnelBoard, WrongArgumentsExitWith2) {
  EXPECT_EQ(run("").status, 2);
  EXPECT_EQ(run(kDemo).status, 2);
  EXPECT_THAT(run(kDemo).err, HasSubstr("there is no program; write it behind --"));
  EXPECT_EQ(run(kDemo + " --").status, 2);
  EXPECT_EQ(run(kDemo + " --nonsense -- true").status, 2);
  EXPECT_EQ(run(kDemo + " --report xml -- true").status, 2);
  EXPECT_EQ(run(kDemo + " --set adc.in=99 -- true").status, 2);
  EXPECT_EQ(run("/no/such/board.toml -- true").status, 2);
  EXPECT_EQ(run("--help").status, 0);
  EXPECT_EQ(run("--version").status, 0);
}

TEST_F(VarnelBoard, ListsItsChips) {
  EXPECT_THAT(run("--chips").out, HasSubstr("MCP3201\n  pins: CS CLK DOUT\n"));
}

TEST_F(VarnelBoard, ProgramsItCannotServeAreRefusedInsteadOfRunningWithoutABoard) {
  const Outcome missing = run(kDemo + " -- no-such-program");
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.err, "varnel-board: no-such-program: there is no such program\n");
  const Outcome fixed = run(kDemo + " -- " STATIC_CLIENT);
  EXPECT_EQ(fixed.status, 126);
  EXPECT_EQ(fixed.err, "varnel-board: " STATIC_CLIENT
                       " is statically linked, so the virtual board's library can't be loaded into "
                       "it; link it dynamically\n");
}

TEST_F(VarnelBoard, TheJsonReportIsWholeAndGoesWhereItIsAsked) {
  const std::string file = folder_ + "/report.json";
  const Outcome outcome = run(kConverter + " --report json --report-file " + file + kClient);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.err, IsEmpty());
  const json found = json::parse(contents(file));
  EXPECT_EQ(at(found, "/board"), kConverter);
  EXPECT_EQ(at(found, "/command"), json({CLIENT}));
  EXPECT_EQ(at(found, "/status"), 0);
  EXPECT_EQ(at(found, "/signal"), 0);
  EXPECT_EQ(at(found, "/violationCount"), 0);
  const json process = at(found, "/processes/0");
  EXPECT_EQ(at(process, "/chips/0/name"), "adc");
  EXPECT_EQ(at(process, "/chips/0/type"), "MCP3201");
  EXPECT_EQ(
      at(process, "/buses/0"),
      json({{"name", "spi1"}, {"transfers", 1}, {"words", 2}, {"clocks", 16}, {"busyNs", 32000}}));
  EXPECT_EQ(at(process, "/violations"), json::array());
}

TEST_F(VarnelBoard, FaultsOfTheFileReachTheProgram) {
  const std::string board =
      write("fault.toml", "[spi1]\n[[faults]]\ncall = \"message\"\nnth = 1\nerror = \"EIO\"\n");
  const Outcome outcome = run(board + " --report none" + kClient);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "client: Input/output error\n");
}

// What follows runs clients as they come from the distribution.

TEST_F(VarnelBoard, SpiConfigSetsAndShowsANode) {
  ASSERT_TRUE(have("spi-config")) << "install the package spi-tools";
  const Outcome outcome =
      run(kDemo + " --report none -- spi-config -d /dev/spidev1.0 -m 3 -b 12 -s 250000 -q");
  EXPECT_EQ(outcome.status, 0);
  const Outcome asked = run(kDemo + " --report none -- spi-config -d /dev/spidev1.0 -q");
  EXPECT_THAT(asked.out, StartsWith("/dev/spidev1.0: mode=0, lsb=0, bits=8, speed="));
  EXPECT_NE(run(kDemo + " --report none -- spi-config -d /dev/spidev7.0 -q").status, 0);
}

TEST_F(VarnelBoard, SpiPipeReadsTheConverter) {
  ASSERT_TRUE(have("spi-pipe")) << "install the package spi-tools";
  // 2.137 V of 3.3 V is code 2652 = a5c: two bits of noise, a zero, then 1 0100 1011 1100 and B1.
  const std::string board =
      write("native.toml",
            "[spi1]\nfloating_miso = \"low\"\n[chips.adc]\ntype = \"MCP3201\"\n"
            "spi = \"spi1\"\npins = { CS = \"spi1.CS0\" }\nvdd = 3.3\n"
            "vref = 3.3\nin = 2.137\n");
  const Outcome outcome = run(board +
                              " --strict -- sh -c 'printf \"\\0\\0\" | spi-pipe -d "
                              "/dev/spidev1.0 -s 500000 -b 2 -n 1 | od -An -tx1'");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, " 14 b8\n");
  EXPECT_THAT(outcome.err, HasSubstr("conversions 1"));
}

TEST_F(VarnelBoard, PythonReadsTheConverter) {
  ASSERT_EQ(std::system("/usr/bin/python3 -c 'import spidev'"), 0)
      << "install the package python3-spidev";
  const std::string script = write("read.py",
                                   "import spidev\n"
                                   "spi = spidev.SpiDev()\n"
                                   "spi.open(1, 0)\n"
                                   "spi.max_speed_hz = 500000\n"
                                   "high, low = spi.xfer2([0, 0])\n"
                                   "print(((high & 0x1f) << 7) | (low >> 1))\n");
  const std::string board =
      write("native.toml",
            "[spi1]\n[chips.adc]\ntype = \"MCP3201\"\nspi = \"spi1\"\n"
            "pins = { CS = \"spi1.CS0\" }\nvdd = 3.3\nvref = 3.3\nin = 2.137\n");
  const Outcome outcome = run(board + " --strict -- /usr/bin/python3 " + script);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "2652\n");
  EXPECT_EQ(run(board + " --set adc.in=1.65 -- /usr/bin/python3 " + script).out, "2048\n");
}

TEST_F(VarnelBoard, TheGpioToolsSeeTheLinesOfTheBoard) {
  ASSERT_TRUE(have("gpiodetect")) << "install the package gpiod";
  EXPECT_EQ(run(kDemo + " --report none -- gpiodetect").out, "gpiochip0 [demo-gpio] (32 lines)\n");
  EXPECT_THAT(run(kDemo + " --report none -- gpioinfo").out, HasSubstr("ADC_CS"));
  const bool version2 = std::system("gpioget --version | grep -q ') v2'") == 0;
  const std::string line = version2 ? "-c gpiochip0 --numeric 25" : "gpiochip0 25";
  EXPECT_EQ(run(kDemo + " --report none -- gpioget " + line).out, "1\n");
  const std::string set = version2 ? "-t 0 -c gpiochip0 25=0" : "gpiochip0 25=0";
  const Outcome outcome = run(kDemo + " -- gpioset " + set);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.err, HasSubstr("\n  gpiochip0:25 ADC_CS: driven low\n"));
}

TEST_F(VarnelBoard, TheToolReadsTheConverter) {
  const std::string tool = VARNEL_TOOL;
  if (tool.empty()) {
    GTEST_SKIP() << "built without the tool";
  }
  const Outcome outcome =
      run(kConverter + " --strict -- " + tool + " mcp3201 read --cs ADC_CS --cs-active-low");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("2652"));
}

}  // namespace
