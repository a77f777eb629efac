// SPDX-License-Identifier: MIT
#include "vboard/launcher/BoardFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "vboard/chips/Catalog.h"

namespace vboard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

LoadedBoard load(const std::string& text, std::vector<std::string> settings = {}) {
  return loadBoard({"b.toml", text, std::move(settings)});
}

std::vector<std::string> mistakes(const std::string& text, std::vector<std::string> settings = {}) {
  std::vector<std::string> messages;
  for (const BoardProblem& problem : load(text, std::move(settings)).problems) {
    messages.push_back(problem.message());
  }
  return messages;
}

std::string property(Part& part, const std::string& name) {
  for (const Property& candidate : part.properties()) {
    if (candidate.name == name) {
      const PropertyValue value = candidate.get();
      const auto* number = std::get_if<double>(&value);
      return number != nullptr ? std::to_string(*number) : "no number";
    }
  }
  return "no property";
}

constexpr const char* kConverter = R"([spi1]
[gpiochip0]
names = { 25 = "ADC_CS" }
[chips.adc]
type = "MCP3201"
spi = "spi1"
pins = { CS = "ADC_CS" }
)";

TEST(BoardFile, BuildsBusesLinesAndChipsWiredTogether) {
  const LoadedBoard loaded = load(kConverter);
  ASSERT_THAT(loaded.problems, IsEmpty());
  Board& board = *loaded.board;
  Part& adc = *board.findPart("adc");
  EXPECT_EQ(adc.type(), "MCP3201");
  EXPECT_EQ(adc.pin("CS").net(), board.gpioChips().at(0)->line(25).net());
  EXPECT_EQ(adc.pin("CLK").net(), board.spiBuses().at(0)->sclk().net());
  EXPECT_EQ(adc.pin("DOUT").net(), board.spiBuses().at(0)->miso().net());
  EXPECT_NE(adc.pin("DOUT").net(), nullptr);
}

TEST(BoardFile, EveryKeyOfABusReachesIt) {
  const LoadedBoard loaded =
      load("[spi3]\nselects = 2\nprofile = \"bcm2835\"\nbufsiz = 512\nfloating_miso = \"high\"\n");
  ASSERT_THAT(loaded.problems, IsEmpty());
  const SpiBusOptions& options = loaded.board->spiBuses().at(0)->options();
  EXPECT_EQ(options.number, 3);
  EXPECT_EQ(options.selects, 2);
  EXPECT_EQ(options.profile, "bcm2835");
  EXPECT_EQ(options.bufsiz, 512U);
  EXPECT_EQ(options.floatingMiso, FloatingMiso::High);
}

TEST(BoardFile, EveryKeyOfAGpioChipReachesIt) {
  const LoadedBoard loaded = load(
      "[gpiochip1]\nlines = 4\n"
      "[gpiochip0]\nlabel = \"soc\"\nlines = 8\nnames = { 7 = \"LED\" }\nreserved = { 3 = \"wifi\" "
      "}\n");
  ASSERT_THAT(loaded.problems, IsEmpty());
  const GpioChipOptions& options = loaded.board->gpioChips().at(0)->options();
  EXPECT_EQ(options.label, "soc");
  EXPECT_EQ(options.lines, 8);
  EXPECT_EQ(options.lineNames, (std::map<int, std::string>{{7, "LED"}}));
  EXPECT_EQ(options.reserved, (std::map<int, std::string>{{3, "wifi"}}));
  EXPECT_EQ(loaded.board->gpioChips().at(1)->lineCount(), 4);
}

TEST(BoardFile, BoardOptionsAreTakenAndHaveDefaults) {
  const LoadedBoard plain = load("[spi1]\n");
  EXPECT_EQ(plain.board->options().callCost, std::chrono::microseconds(20));
  EXPECT_EQ(plain.board->options().seed, 1U);
  const LoadedBoard set = load("[board]\ncall_cost = \"1.5 ms\"\nseed = 7\n[spi1]\n");
  EXPECT_EQ(set.board->options().callCost, std::chrono::microseconds(1500));
  EXPECT_EQ(set.board->options().seed, 7U);
  EXPECT_EQ(load("[board]\ncall_cost = 0\n[spi1]\n").board->options().callCost, Time(0));
}

TEST(BoardFile, APinMayGoToLinesPartsWiresLevelsAndSeveralAtOnce) {
  const LoadedBoard loaded = load(R"([spi1]
selects = 2
[gpiochip0]
[chips.one]
type = "MCP3201"
spi = "spi1"
pins = { CS = "spi1.CS1" }
[chips.two]
type = "MCP3201"
spi = "spi1"
pins = { CS = ["gpiochip0:3", "gpiochip0:4"], DOUT = "buffer.A" }
[chips.buffer]
type = "tri-state-buffer"
pins = { OE = "ENABLE", Y = "spi1.MISO" }
[chips.always]
type = "tri-state-buffer"
pins = { A = "high", OE = "low", Y = "open" }
[wires]
ENABLE = ["gpiochip0:5", "gpiochip0:6"]
)");
  ASSERT_THAT(loaded.problems, IsEmpty());
  Board& board = *loaded.board;
  GpioChip& gpio = *board.gpioChips().at(0);
  SpiBus& bus = *board.spiBuses().at(0);
  const auto net = [&](const char* part, const char* pin) {
    return board.findPart(part)->pin(pin).net();
  };
  EXPECT_EQ(net("one", "CS"), bus.select(1).net());
  EXPECT_EQ(net("two", "CS"), gpio.line(3).net());
  EXPECT_EQ(net("two", "CS"), gpio.line(4).net());
  EXPECT_EQ(net("two", "DOUT"), net("buffer", "A"));
  EXPECT_NE(net("two", "DOUT"), bus.miso().net()) << "a pin wired by hand stays off the bus";
  EXPECT_EQ(net("two", "CLK"), bus.sclk().net());
  EXPECT_EQ(net("buffer", "Y"), bus.miso().net());
  EXPECT_EQ(net("buffer", "OE"), gpio.line(5).net());
  EXPECT_EQ(net("buffer", "OE"), gpio.line(6).net());
  EXPECT_EQ(net("always", "Y"), nullptr);
  board.powerUp();
  EXPECT_EQ(board.findPart("always")->pin("A").level(), Level::High);
  EXPECT_EQ(board.findPart("always")->pin("OE").level(), Level::Low);
}

TEST(BoardFile, PullsHoldTheirWires) {
  const LoadedBoard loaded = load(
      "[gpiochip0]\nnames = { 2 = \"KEY\" }\n[pulls]\nKEY = \"up\"\n\"gpiochip0:3\" = \"down\"\n");
  ASSERT_THAT(loaded.problems, IsEmpty());
  GpioChip& gpio = *loaded.board->gpioChips().at(0);
  EXPECT_EQ(gpio.line(2).net()->pull(), Pull::Up);
  EXPECT_EQ(gpio.line(3).net()->pull(), Pull::Down);
}

TEST(BoardFile, ALineNameMayLookLikeSomethingElse) {
  const LoadedBoard loaded =
      load("[gpiochip0]\nnames = { 2 = \"PH.03\" }\n[pulls]\n\"PH.03\" = \"up\"\n");
  ASSERT_THAT(loaded.problems, IsEmpty());
  EXPECT_EQ(loaded.board->gpioChips().at(0)->line(2).net()->pull(), Pull::Up);
}

TEST(BoardFile, WholeNumbersServeWhereVoltsAreWanted) {
  const LoadedBoard loaded = load(std::string(kConverter) + "vref = 3\n");
  ASSERT_THAT(loaded.problems, IsEmpty());
  EXPECT_EQ(property(*loaded.board->findPart("adc"), "vref"), "3.000000");
}

TEST(BoardFile, AnInputFollowsItsSignal) {
  const auto inputAt = [](const std::string& signal, Time moment) {
    const LoadedBoard loaded = load(std::string(kConverter) + "in = " + signal + "\n");
    EXPECT_THAT(loaded.problems, IsEmpty());
    loaded.board->advance(moment);
    return property(*loaded.board->findPart("adc"), "in");
  };
  using std::chrono::milliseconds;
  EXPECT_EQ(inputAt("{ ramp = [1, 2.0], over = \"1s\" }", milliseconds(250)), "1.250000");
  EXPECT_EQ(inputAt("{ ramp = [1, 2.0], over = \"1s\" }", milliseconds(3250)), "2.000000");
  EXPECT_EQ(inputAt("{ ramp = [1, 2], over = \"1s\", repeat = true }", milliseconds(3250)),
            "1.250000");
  EXPECT_EQ(inputAt("{ ramp = [1, 2], over = \"1s\", start = \"1s\" }", milliseconds(1500)),
            "1.500000");
  EXPECT_EQ(inputAt("{ sine = 0.5, offset = 1.0, frequency = 1 }", milliseconds(250)), "1.500000");
  EXPECT_EQ(inputAt("{ sine = 0.5, offset = 1.0, frequency = 1, phase = 0.5 }", milliseconds(250)),
            "0.500000");
  EXPECT_EQ(inputAt("{ steps = [[\"0s\", 1], [\"10ms\", 2.0]] }", milliseconds(20)), "2.000000");
  EXPECT_EQ(inputAt("{ steps = [[\"0s\", 1], [\"10ms\", 2.0]], repeat_every = \"20ms\" }",
                    milliseconds(25)),
            "1.000000");
}

TEST(BoardFile, FaultsAreReadAndWireFaultsAreInPlace) {
  const LoadedBoard loaded = load(R"([spi1]
[[faults]]
call = "message"
nth = 3
error = "EIO"
node = "/dev/spidev1.0"
[[faults]]
call = "open"
error = "EACCES"
[[faults]]
stuck = "spi1.MISO"
level = "high"
)");
  ASSERT_THAT(loaded.problems, IsEmpty());
  ASSERT_EQ(loaded.faults.size(), 2U);
  EXPECT_EQ(loaded.faults[0].call, Call::Message);
  EXPECT_EQ(loaded.faults[0].nth, 3U);
  EXPECT_EQ(loaded.faults[0].error, EIO);
  EXPECT_EQ(loaded.faults[0].node, "/dev/spidev1.0");
  EXPECT_EQ(loaded.faults[1].call, Call::Open);
  EXPECT_EQ(loaded.faults[1].nth, 0U) << "without nth, every call fails";
  EXPECT_EQ(loaded.faults[1].error, EACCES);
  EXPECT_EQ(loaded.board->spiBuses().at(0)->miso().level(), Level::High);
}

TEST(BoardFile, AFlippedBitIsFlippedOnce) {
  const LoadedBoard loaded =
      load("[spi1]\nfloating_miso = \"low\"\n[[faults]]\nflip_miso_bit = 6\nbus = \"spi1\"\n");
  ASSERT_THAT(loaded.problems, IsEmpty());
  loaded.board->powerUp();
  const uint32_t sent[2] = {0, 0};
  uint32_t received[2] = {};
  loaded.board->spiBuses().at(0)->transfer(0, {}, sent, received);
  EXPECT_EQ(received[0], 0x02U);
  EXPECT_EQ(received[1], 0x00U);
}

TEST(BoardFile, SettingsReplaceWhatTheFileSays) {
  const LoadedBoard loaded = load(std::string(kConverter) + "vdd = 5.0\nin = 1.0\n",
                                  {"adc.in=2.5", "adc.vref=3", "spi1.profile=sun6i",
                                   "board.call_cost=0", "gpiochip0.label=\"a b\""});
  ASSERT_THAT(loaded.problems, IsEmpty());
  Board& board = *loaded.board;
  EXPECT_EQ(property(*board.findPart("adc"), "in"), "2.500000");
  EXPECT_EQ(property(*board.findPart("adc"), "vref"), "3.000000");
  EXPECT_EQ(board.spiBuses().at(0)->options().profile, "sun6i");
  EXPECT_EQ(board.options().callCost, Time(0));
  EXPECT_EQ(board.gpioChips().at(0)->options().label, "a b");
}

TEST(BoardFile, ASettingMayBeASignal) {
  const LoadedBoard loaded = load(kConverter, {"adc.in={ ramp = [0, 1], over = \"1s\" }"});
  ASSERT_THAT(loaded.problems, IsEmpty());
  loaded.board->advance(std::chrono::milliseconds(500));
  EXPECT_EQ(property(*loaded.board->findPart("adc"), "in"), "0.500000");
}

TEST(BoardFile, AllMistakesOfAFileComeTogetherInItsOrder) {
  EXPECT_THAT(
      mistakes("[board]\nsed = 1\n[spi1]\nprofile = \"imx\"\nbufsiz = 0\n[chips.adc]\n"
               "type = \"MCP3202\"\n[pulls]\n\"adc.CS\" = \"upp\"\n"),
      ElementsAre(HasSubstr("b.toml:2:1: "), HasSubstr("b.toml:4:11: "), HasSubstr("b.toml:5:10: "),
                  HasSubstr("b.toml:7:8: "), HasSubstr("b.toml:9:12: ")));
}

TEST(BoardFile, AWrongPartCausesNoFurtherMistakes) {
  EXPECT_THAT(mistakes("[spi1]\n[chips.adc]\ntype = \"MCP32O1\"\nspi = \"spi9\"\n"
                       "[wires]\nX = [\"adc.CS\", \"spi1.CS0\"]\n"),
              ElementsAre(HasSubstr("b.toml:3:8: ")));
}

struct Mistake {
  const char* name;
  const char* text;
  const char* message;
};

class Mistakes : public testing::TestWithParam<Mistake> {};

TEST_P(Mistakes, SaysWhereWhatAndWhatIsAllowed) {
  EXPECT_THAT(mistakes(GetParam().text), ElementsAre(GetParam().message));
}

#include "Mistakes.inc"

INSTANTIATE_TEST_SUITE_P(BoardFile, Mistakes, testing::ValuesIn(kMistakes),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(BoardFile, AChipWithoutARightTypeIsToldAllTypes) {
  std::string types;
  for (const std::string_view type : partTypes()) {
    types += (types.empty() ? "; types: " : ", ") + std::string(type);
  }
  EXPECT_THAT(mistakes("[spi1]\n[chips.adc]\nspi = \"spi1\"\n"),
              ElementsAre("b.toml:2:8: chip \"adc\" has no type" + types));
  EXPECT_THAT(mistakes("[spi1]\n[chips.adc]\ntype = 3201\n"),
              ElementsAre("b.toml:3:8: type can't be 3201" + types));
  EXPECT_THAT(mistakes("[spi1]\n[chips.adc]\ntype = \"mcp3201\"\n"),
              ElementsAre("b.toml:3:8: there is no chip of type \"mcp3201\" (did you mean "
                          "\"MCP3201\"?)" +
                          types));
}

// The words are toml++'s own and differ between its versions.
TEST(BoardFile, SyntaxErrorsHaveTheirPlace) {
  EXPECT_THAT(mistakes("[spi1]\nselects = = 2\n"), ElementsAre(HasSubstr("b.toml:2:11: ")));
  EXPECT_THAT(mistakes("[spi1]\nselects = 1\nselects = 2\n"), ElementsAre(HasSubstr("b.toml:3:")));
}

struct WrongSetting {
  const char* setting;
  const char* message;
};

TEST(BoardFile, WrongSettingsAreNamedAsTheyWereWritten) {
  const WrongSetting kWrong[] = {
      {"adc", "--set adc: a setting is CHIP.PROPERTY=VALUE, such as adc.in=1.5"},
      {"adc.in", "--set adc.in: a setting is CHIP.PROPERTY=VALUE, such as adc.in=1.5"},
      {"adc=3.3", "--set adc=3.3: a setting is CHIP.PROPERTY=VALUE, such as adc.in=1.5"},
      {"adx.in=1",
       "--set adx.in=1: the board has no \"adx\" (did you mean \"adc\"?); it has: adc, spi1, "
       "gpiochip0"},
      {"adc.in=99", "--set adc.in=99: in can't be 99; it must be a number from -5.5 to 11"},
      {"adc.in=high",
       "--set adc.in=high: in can't be the text \"high\"; it must be a number from -5.5 to 11"},
      {"spi1.selects=0",
       "--set spi1.selects=0: selects can't be 0; it is a whole number from 1 to 16"}};
  for (const WrongSetting& wrong : kWrong) {
    EXPECT_THAT(mistakes(kConverter, {wrong.setting}), ElementsAre(wrong.message));
  }
}

TEST(BoardFile, ASettingOfAnUnknownPropertySaysWhatThereIs) {
  EXPECT_THAT(mistakes(kConverter, {"adc.vreff=1"}),
              ElementsAre(HasSubstr("--set adc.vreff=1: unknown key \"vreff\" in [chips.adc] (did "
                                    "you mean \"vref\"?); MCP3201 has: ")));
}

TEST(BoardFile, TheBoardsThatComeWithItAreRight) {
  for (const char* name : {"demo.toml", "mcp3201.toml"}) {
    const std::string path = std::string(VARNEL_BOARDS) + "/" + name;
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    ASSERT_FALSE(text.empty()) << path;
    const LoadedBoard loaded = loadBoard({path, text, {}});
    EXPECT_THAT(loaded.problems, IsEmpty());
    ASSERT_NE(loaded.board, nullptr);
    EXPECT_NE(loaded.board->findPart("adc"), nullptr);
  }
}

/// The n-th fenced block of the guide, counted from 0.
std::string guideBlock(int n) {
  std::ifstream file(VARNEL_DOCS "/board-files.md");
  std::string line;
  std::string block;
  for (int fences = 0; std::getline(file, line);) {
    if (line.rfind("```", 0) == 0) {
      ++fences;
    } else if (fences == 2 * n + 1) {
      block += line + "\n";
    }
  }
  return block;
}

TEST(BoardFile, TheGuidesFirstBoardIsRight) {
  const LoadedBoard loaded = load(guideBlock(0));
  EXPECT_THAT(loaded.problems, IsEmpty());
  ASSERT_NE(loaded.board, nullptr);
  EXPECT_NE(loaded.board->findPart("adc"), nullptr);
}

TEST(BoardFile, TheMessagesInTheGuideAreReal) {
  constexpr int kWrongBoard = 7;
  std::string messages;
  for (const BoardProblem& problem :
       loadBoard({"my-board.toml", guideBlock(kWrongBoard), {}}).problems) {
    messages += problem.message() + "\n";
  }
  EXPECT_EQ(messages, guideBlock(kWrongBoard + 1));
  EXPECT_THAT(messages, HasSubstr("my-board.toml:16:7: "));
}

}  // namespace
}  // namespace vboard
