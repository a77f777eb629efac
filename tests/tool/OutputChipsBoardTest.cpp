// SPDX-License-Identifier: MIT
// The converter and the LED driver, as a user of the tool sees them.
#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Call;

namespace {

class OutputBoard : public testing::Test, public vboard::Observer {
 protected:
  void onTransfer(const vboard::SpiRecord& record) override {
    speedHz = record.format.speedHz;
    bits = record.format.bitsPerWord;
  }

  void start() {
    ASSERT_TRUE(vboard::interposed());
    board.addObserver(*this);
    kernel = std::make_unique<vboard::Kernel>(board);
  }

  vboard::Board board;
  vboard::GpioChip* gpio = nullptr;
  std::unique_ptr<vboard::Kernel> kernel;
  uint32_t speedHz = 0;
  uint32_t bits = 0;
};

class ToolWithMcp4822 : public OutputBoard {
 protected:
  void start(const std::string& profile = "full", bool ownSelect = false) {
    bus = &board.addSpiBus({.number = 1, .profile = profile});
    gpio = &board.addGpioChip({.lines = 32});
    board.attach(dac, *bus);
    board.connect(dac.pin("CS"), ownSelect ? bus->select(0) : gpio->line(25))
        .setPull(vboard::Pull::Up);
    board.connect(dac.pin("LDAC"), gpio->line(24)).setPull(vboard::Pull::Up);
    OutputBoard::start();
  }

  void expectVolts(double a, double b) const {
    EXPECT_NEAR(dac.voltage(vboard::Mcp4822::Channel::A), a, 1e-9);
    EXPECT_NEAR(dac.voltage(vboard::Mcp4822::Channel::B), b, 1e-9);
  }

  vboard::SpiBus* bus = nullptr;
  vboard::Mcp4822& dac = board.add<vboard::Mcp4822>("dac");
};

constexpr const char* kSet = "mcp4822 set --ldac 24 --cs 25 --cs-active-low ";

TEST_F(ToolWithMcp4822, SetsBothOutputsAtOnce) {
  start();
  const ToolRun run = runLine(std::string(kSet) + "2048 0.25V");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "A 2048  1.0240 V  B  500  0.2500 V\n");
  EXPECT_THAT(run.err, IsEmpty());
  expectVolts(1.024, 0.25);
  EXPECT_EQ(dac.updates(), 1U);
  EXPECT_EQ(dac.writes(), 2U);
  EXPECT_EQ(bits, 16U);
  EXPECT_EQ(board.violationCount(), 0U);
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithMcp4822, AnOutputThatIsSetToNothingIsSetToNothing) {
  start();
  EXPECT_EQ(runLine(std::string(kSet) + "4095 4095").status, 0);
  EXPECT_EQ(runLine(std::string(kSet) + "0 4095").status, 0);
  EXPECT_EQ(dac.code(vboard::Mcp4822::Channel::A), 0);
  EXPECT_EQ(dac.code(vboard::Mcp4822::Channel::B), 4095);
  EXPECT_TRUE(dac.active(vboard::Mcp4822::Channel::A));
}

TEST_F(ToolWithMcp4822, WritesCodesAndVoltsAsData) {
  start();
  EXPECT_EQ(runLine(std::string(kSet) + "0x800 2.0475V --output csv").out,
            "code_a,volts_a,code_b,volts_b\n2048,1.024000,4095,2.047500\n");
  EXPECT_EQ(runLine(std::string(kSet) + "1 0b10 --output json").out,
            "{\"chip\":\"mcp4822\",\"code_a\":1,\"volts_a\":0.000500,\"code_b\":2,"
            "\"volts_b\":0.001000}\n");
}

TEST_F(ToolWithMcp4822, WorksAtTheNodesOwnSelect) {
  start("full", true);
  EXPECT_EQ(runLine("mcp4822 set 1000 2000 --ldac 24").status, 0);
  expectVolts(0.5, 1.0);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithMcp4822, EachFailingStepIsNamedAndTheChipReleased) {
  start();
  // Selecting and releasing two words, with what takes and ends the session, and the latch pulse.
  const char* kLatch = "varnel: can't write GPIO line 24, the latch of the MCP4822 (--ldac): ";
  const char* kSelect = "varnel: can't select the MCP4822 with GPIO line 25 (--cs): ";
  const char* kRelease = "varnel: can't release the MCP4822 with GPIO line 25 (--cs): ";
  const char* const kExpected[] = {kRelease, kLatch, kSelect, kRelease, kSelect,
                                   kRelease, kLatch, kLatch,  kRelease};
  unsigned int write = 0;
  for (const char* expected : kExpected) {
    kernel->failCall(Call::GpioSet, ++write, EIO);
    const ToolRun run = runLine(std::string(kSet) + "1 2");
    EXPECT_EQ(run.status, 1) << write;
    EXPECT_THAT(run.err, StartsWith(expected)) << write;
    EXPECT_THAT(run.err, HasSubstr("Input/output error (-5)\n  try: ")) << write;
    EXPECT_FALSE(dac.listening()) << write;
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }
  // The settling transfer of the first change of mode, and the two words.
  for (unsigned int message = 1; message <= 3; ++message) {
    kernel->failCall(Call::Message, message, EIO);
    const ToolRun run = runLine(std::string(kSet) + "1 2");
    EXPECT_EQ(run.status, 1) << message;
    EXPECT_THAT(run.err, StartsWith("varnel: can't transfer with the MCP4822 on /dev/spidev1.0: "))
        << message;
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_FALSE(dac.listening()) << message;
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }
  EXPECT_EQ(runLine(std::string(kSet) + "1 2").status, 0);
}

TEST_F(ToolWithMcp4822, ALdacLineThatCantBeTakenIsNamed) {
  start();
  kernel->failCall(Call::GpioRequest, 2, EBUSY);
  ToolRun run = runLine(std::string(kSet) + "1 2");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line 24 (--ldac): Device or resource "
                                  "busy (-16)\n  try: another line"));
  run = runLine("mcp4822 set 1 2 --ldac GPIO99");
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line GPIO99 (--ldac): Invalid"));
  EXPECT_EQ(dac.writes(), 0U);
}

TEST_F(ToolWithMcp4822, AControllerWithoutSixteenBitWordsIsExplained) {
  start("bcm2835");
  const ToolRun run = runLine(std::string(kSet) + "1 2");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("try: a controller that takes 16-bit words"));
}

TEST_F(ToolWithMcp4822, IsSetBehindAnExpanderThatSelectsExplicitly) {
  bus = &board.addSpiBus({.number = 1});
  gpio = &board.addGpioChip({.lines = 32});
  auto& expander = board.add<vboard::Hc595>("expander");
  auto& decoder = board.add<vboard::Decoder3to8>("decoder");
  board.attach(expander, *bus);
  board.connect(expander.pin("RCLK"), gpio->line(22));
  board.connect(expander.pin("QA"), decoder.pin("A0"));
  board.connect(expander.pin("QB"), decoder.pin("A1"));
  board.connect(expander.pin("QC"), decoder.pin("A2"));
  board.attach(dac, *bus);
  board.connect(dac.pin("CS"), decoder.pin("Y3"));
  board.connect(dac.pin("LDAC"), gpio->line(24)).setPull(vboard::Pull::Up);
  OutputBoard::start();
  // Outputs are noise at power-up.
  EXPECT_EQ(runLine("mcp4822 set 0 0 --ldac 24 --expander 22:3").status, 0);
  const ToolRun run = runLine("mcp4822 set 2048 1000 --ldac 24 --expander 22:3");
  EXPECT_EQ(run.status, 0) << run.err;
  expectVolts(1.024, 0.5);
  EXPECT_EQ(expander.outputs() & 7, 7);
}

class ToolWithTlc5947 : public OutputBoard {
 protected:
  void start(unsigned int count = 1, const std::string& profile = "full") {
    vboard::SpiBus& bus = board.addSpiBus({.number = 1, .profile = profile});
    gpio = &board.addGpioChip({.lines = 32});
    for (unsigned int i = 0; i < count; ++i) {
      auto& chip = board.add<vboard::Tlc5947>("leds" + std::to_string(i));
      board.connect(chip.pin("SCLK"), bus.sclk());
      board.connect(chip.pin("SIN"), i == 0 ? bus.mosi() : chips.back()->pin("SOUT"));
      board.connect(chip.pin("XLAT"), gpio->line(22)).setPull(vboard::Pull::Down);
      board.connect(chip.pin("BLANK"), gpio->line(23)).setPull(vboard::Pull::Up);
      chips.push_back(&chip);
    }
    OutputBoard::start();
  }

  /// The values of all outputs that are not 0, nearest chip first.
  std::vector<std::pair<unsigned int, int>> lit() const {
    std::vector<std::pair<unsigned int, int>> values;
    for (unsigned int i = 0; i < 24 * chips.size(); ++i) {
      if (const int value = chips[i / 24]->value(static_cast<int>(i % 24)); value != 0) {
        values.emplace_back(i, value);
      }
    }
    return values;
  }

  std::vector<vboard::Tlc5947*> chips;
};

using testing::ElementsAre;
using testing::Pair;

TEST_F(ToolWithTlc5947, SetsOutputsAndAllOthersToZero) {
  start();
  const ToolRun run = runLine("tlc5947 set 0=4095 5=0x100 21-23=1 --latch 22");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out,
            "outputs 0  value 4095  99.98 %\n"
            "outputs 5  value  256   6.25 %\n"
            "outputs 21-23  value    1   0.02 %\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_THAT(lit(),
              ElementsAre(Pair(0U, 4095), Pair(5U, 256), Pair(21U, 1), Pair(22U, 1), Pair(23U, 1)));
  EXPECT_EQ(bits, 12U);
  EXPECT_EQ(runLine("tlc5947 set 7=9 --latch 22").status, 0);
  EXPECT_THAT(lit(), ElementsAre(Pair(7U, 9)));
  EXPECT_EQ(chips[0]->latches(), 2U);
  EXPECT_EQ(board.violationCount(), 0U);
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithTlc5947, OutputsOfACascadeCountFromTheChipNearestMosi) {
  start(3);
  EXPECT_EQ(runLine("tlc5947 set 0=1 23-24=2 71=3 --chain 3 --latch 22").status, 0);
  EXPECT_THAT(lit(), ElementsAre(Pair(0U, 1), Pair(23U, 2), Pair(24U, 2), Pair(71U, 3)));
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithTlc5947, TheLastOfSeveralValuesOfAnOutputCounts) {
  start();
  EXPECT_EQ(runLine("tlc5947 set 0-3=5 1-2=7 --latch 22").status, 0);
  EXPECT_THAT(lit(), ElementsAre(Pair(0U, 5), Pair(1U, 7), Pair(2U, 7), Pair(3U, 5)));
}

TEST_F(ToolWithTlc5947, SetsAllOutputsAndWritesData) {
  start(2);
  EXPECT_EQ(runLine("tlc5947 all 2048 --chain 2 --latch 22 --output json").out,
            "{\"chip\":\"tlc5947\",\"outputs\":\"0-47\",\"value\":2048,\"duty\":50.0000,"
            "\"latch\":\"22\"}\n");
  EXPECT_EQ(lit().size(), 48U);
  EXPECT_EQ(runLine("tlc5947 all 0 --chain 2 --latch gpiochip0:22 --output csv").out,
            "outputs,value,duty,latch\n0-47,0,0.0000,gpiochip0:22\n");
  EXPECT_THAT(lit(), IsEmpty());
}

TEST_F(ToolWithTlc5947, OutputsGoOnOnlyWithTheirValuesAndStayForAsLongAsAsked) {
  start();
  const ToolRun run = runLine("tlc5947 all 2048 --latch 22 --blank 23 --hold 500");
  EXPECT_EQ(run.status, 0);
  // Half of the time the line was held. A blank that lights nothing, or noise, would be far off.
  for (const int output : {0, 11, 23}) {
    const double on = std::chrono::duration<double>(chips[0]->onTime(output)).count();
    EXPECT_NEAR(on, 0.25, 0.005) << output;
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithTlc5947, WithoutAHoldTheLineIsReleasedAtOnce) {
  start();
  const vboard::Time before = board.clock().now();
  EXPECT_EQ(runLine("tlc5947 all 2048 --latch 22 --blank 23").status, 0);
  EXPECT_LT(board.clock().now() - before, std::chrono::milliseconds(50));
}

TEST_F(ToolWithTlc5947, ShowLastsUntilASignal) {
  start();
  EXPECT_EQ(runLine("tlc5947 all 1024 --latch 22").status, 0);
  EXPECT_EQ(chips[0]->onTime(3).count(), 0);
  board.clock().after(std::chrono::seconds(2), [] { std::raise(SIGINT); });
  const ToolRun run = runLine("tlc5947 show --blank 23 --output json");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "{\"chip\":\"tlc5947\",\"outputs\":\"on\",\"blank\":\"23\"}\n");
  EXPECT_NEAR(std::chrono::duration<double>(chips[0]->onTime(3)).count(), 0.5, 0.05);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithTlc5947, BlankSwitchesOffWithoutTheBus) {
  start();
  gpio->line(23).net()->setPull(vboard::Pull::Down);
  EXPECT_FALSE(chips[0]->blanked());
  kernel->failCallsFromNow(Call::Open, EACCES, "/dev/spidev1.0");
  bool blanked = false;
  board.clock().after(std::chrono::milliseconds(150), [&] { blanked = chips[0]->blanked(); });
  const ToolRun run = runLine("tlc5947 blank --blank 23 --hold 300");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "outputs off\n");
  EXPECT_TRUE(blanked);
}

TEST_F(ToolWithTlc5947, EachFailingStepIsNamed) {
  start();
  // Latch low, high and low, and BLANK.
  constexpr const char* kLatch = "varnel: can't write GPIO line 22, the latch of the TLC5947 (--l";
  constexpr const char* kBlank = "varnel: can't write GPIO line 23 of the TLC5947 (--blank): ";
  unsigned int write = 0;
  for (const char* expected : {kLatch, kLatch, kLatch, kBlank}) {
    kernel->failCall(Call::GpioSet, ++write, EIO);
    const ToolRun run = runLine("tlc5947 all 1 --latch 22 --blank 23");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.err, StartsWith(expected)) << write;
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }
  kernel->failCall(Call::Message, 1, EIO);
  EXPECT_THAT(runLine("tlc5947 all 1 --latch 22").err,
              StartsWith("varnel: can't transfer with the TLC5947 on /dev/spidev1.0: "));
  kernel->failCall(Call::GpioRequest, 1, EBUSY);
  EXPECT_THAT(runLine("tlc5947 all 1 --latch 22 --blank 23").err,
              StartsWith("varnel: can't take GPIO line 23 (--blank): "));
  kernel->failCall(Call::GpioRequest, 2, EBUSY);
  EXPECT_THAT(runLine("tlc5947 all 1 --latch 22 --blank 23").err,
              StartsWith("varnel: can't take GPIO line 22 (--latch): "));
  kernel->failCall(Call::GpioSet, 1, EIO);
  EXPECT_THAT(runLine("tlc5947 show --blank 23").err, StartsWith(kBlank));
}

TEST_F(ToolWithTlc5947, AControllerWithoutTwelveBitWordsIsExplained) {
  start(1, "bcm2835");
  const ToolRun run = runLine("tlc5947 all 1 --latch 22");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("try: a controller that takes 12-bit words"));
}

}  // namespace
