// SPDX-License-Identifier: MIT
// The MCP4822 driver against the model of the chip: values in, volts out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/vboard/board/Parts.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "vboard/vboard.h"

namespace {

using boardtest::rulesOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Level;

using Driver = Varnel::CSpiAnalogOut2x12Bit_MCP4822;
constexpr auto kA = vboard::Mcp4822::Channel::A;
constexpr auto kB = vboard::Mcp4822::Channel::B;
constexpr unsigned kSelect = 25;
constexpr unsigned kLdac = 24;
constexpr double kStep = 2.048 / 4096;

/// When each output moved.
class Moves : public vboard::Observer {
 public:
  explicit Moves(vboard::Board& board) : board_(board) { board_.addObserver(*this); }
  ~Moves() override { board_.removeObserver(*this); }
  Moves(const Moves&) = delete;
  Moves& operator=(const Moves&) = delete;

  void onNote(const vboard::Part& /*part*/, vboard::Time time, std::string_view text) override {
    texts.emplace_back(text);
    times.push_back(time);
  }
  std::vector<std::string> texts;
  std::vector<vboard::Time> times;

 private:
  vboard::Board& board_;
};

/// One converter on /dev/spidev1.0, selected by line 25, LDAC at line 24, supply 5 V.
class Mcp4822Board : public testing::Test {
 protected:
  void SetUp() override {
    board.attach(dac, spi);
    board.connect(dac.pin("CS"), gpio.line(kSelect));
    connectLdac();
    start();
  }
  void TearDown() override { bus.close(); }

  virtual void connectLdac() { board.connect(dac.pin("LDAC"), gpio.line(kLdac)); }

  void start() {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(bus.setSpiSpeedKHz(1000), 0);
    ASSERT_EQ(bus.open(), 0);
    ASSERT_EQ(selector.connect(), 0);
    device.setBus(&bus);
    device.setChipSelector(&selector);
    device.configurePins(kLdac);
    ASSERT_EQ(device.open(), 0);
  }

  std::vector<int> codes() const { return {dac.code(kA), dac.code(kB)}; }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  vboard::Mcp4822& dac = board.add<vboard::Mcp4822>("dac");
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector selector{kSelect, Orv::PIN_MODE_INVERT};
  Driver device;
};

TEST_F(Mcp4822Board, BothOutputsAreOffUntilTheFirstWrite) {
  EXPECT_FALSE(dac.active(kA));
  EXPECT_FALSE(dac.active(kB));
  ASSERT_EQ(device.setValue(0, 2048, Driver::NO_WRITE), 0);
  EXPECT_FALSE(dac.active(kA));
  ASSERT_EQ(device.write(), 0);
  EXPECT_TRUE(dac.active(kA));
  EXPECT_TRUE(dac.active(kB)) << "both channels are always written";
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, AValueIsThatManyHalfMillivolts) {
  ASSERT_EQ(device.setValue(0, 2048, Driver::DO_WRITE), 0);
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  EXPECT_EQ(dac.gain(kA), 1);
  ASSERT_EQ(device.setValue(1, 4095, Driver::DO_WRITE), 0);
  EXPECT_DOUBLE_EQ(dac.voltage(kB), 2.0475);
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 1.024);
  ASSERT_EQ(device.setValue(0, 0, Driver::DO_WRITE), 0);
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 0.010) << "as close to ground as the output gets";
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, EveryValueOfEitherChannelComesOut) {
  for (int value = 0; value <= 4095; ++value) {
    ASSERT_EQ(device.setValue(0, static_cast<uint16_t>(value), Driver::NO_WRITE), 0);
    ASSERT_EQ(device.setValue(1, static_cast<uint16_t>(4095 - value), Driver::DO_WRITE), 0);
    ASSERT_THAT(codes(), ElementsAre(value, 4095 - value));
    ASSERT_DOUBLE_EQ(dac.voltage(kA), std::max(value * kStep, 0.010));
  }
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, AValueTooLargeIsFullScaleAndAThirdChannelIsNothing) {
  ASSERT_EQ(device.setValue(0, 5000, Driver::DO_WRITE), 0);
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 2.0475);
  const uint64_t transfers = spi.statistics().transfers;
  EXPECT_EQ(device.setValue(2, 100, Driver::DO_WRITE), -22);
  EXPECT_EQ(spi.statistics().transfers, transfers);
  EXPECT_THAT(codes(), ElementsAre(4095, 0));
}

TEST_F(Mcp4822Board, BothOutputsMoveTogetherWhenLdacFalls) {
  ASSERT_EQ(device.write(), 0);
  Moves moves(board);
  vboard::WireLog log(board);
  log.watch(board.netOf(dac.pin("LDAC")), "LDAC");
  ASSERT_EQ(device.setValue(0, 1000, Driver::NO_WRITE), 0);
  ASSERT_EQ(device.setValue(1, 3000, Driver::DO_WRITE), 0);
  EXPECT_THAT(moves.texts, ElementsAre("VOUTA 0.500 V", "VOUTB 1.500 V"));
  ASSERT_EQ(moves.times.size(), 2U);
  EXPECT_EQ(moves.times[0], moves.times[1]);
  EXPECT_THAT(log.lines(),
              ElementsAre(StartsWith("spi1 cs0 mode 3 16 bit 1000000 Hz: 33e8 "),
                          StartsWith("spi1 cs0 mode 3 16 bit 1000000 Hz: bbb8 "), "LDAC low",
                          "dac: VOUTA 0.500 V", "dac: VOUTB 1.500 V", "LDAC high"));
  EXPECT_EQ(gpio.level(kLdac), Level::High);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, WithoutItsPulseNeitherOutputMoves) {
  ASSERT_EQ(device.setValue(0, 100, Driver::DO_WRITE), 0);
  ASSERT_EQ(device.setValue(0, 200, Driver::NO_WRITE), 0);
  kernel->failCall(vboard::Call::GpioSet, 5, EIO);  // two selects and releases, then LDAC
  EXPECT_EQ(device.setValue(1, 300, Driver::DO_WRITE), -5);
  EXPECT_THAT(codes(), ElementsAre(100, 0));
  EXPECT_EQ(dac.inputRegister(kA) & 0xFFF, 200);
  EXPECT_EQ(dac.inputRegister(kB) & 0xFFF, 300);
  ASSERT_EQ(device.open(), 0);
  EXPECT_THAT(codes(), ElementsAre(200, 300)) << "connecting LDAC again pulses it";
  ASSERT_EQ(device.write(), 0);
  EXPECT_THAT(codes(), ElementsAre(200, 300));
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, APulseThatFailsHalfwayMakesTheNextWriteMoveOneOutputAfterTheOther) {
  ASSERT_EQ(device.write(), 0);
  kernel->failCall(vboard::Call::GpioSet, 6, EIO);
  EXPECT_EQ(device.setValue(0, 1000, Driver::DO_WRITE), -5);
  EXPECT_THAT(codes(), ElementsAre(1000, 0)) << "LDAC fell all the same";
  EXPECT_EQ(gpio.level(kLdac), Level::Low);
  Moves moves(board);
  ASSERT_EQ(device.setValue(0, 2000, Driver::NO_WRITE), 0);
  ASSERT_EQ(device.setValue(1, 3000, Driver::DO_WRITE), 0);
  ASSERT_THAT(moves.texts, ElementsAre("VOUTA 1.000 V", "VOUTB 1.500 V"));
  EXPECT_LT(moves.times[0], moves.times[1]);
  EXPECT_EQ(gpio.level(kLdac), Level::High);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, AFailedSecondWordLeavesTheOutputsAndTheNextWriteMovesBoth) {
  ASSERT_EQ(device.write(), 0);
  ASSERT_EQ(device.setValue(0, 1000, Driver::NO_WRITE), 0);
  kernel->failCall(vboard::Call::Message, 2, EIO);
  EXPECT_EQ(device.setValue(1, 2000, Driver::DO_WRITE), -5);
  EXPECT_THAT(codes(), ElementsAre(0, 0));
  EXPECT_EQ(gpio.level(kSelect), Level::Low) << "the chip stays selected";
  ASSERT_EQ(device.write(), 0);
  EXPECT_THAT(codes(), ElementsAre(1000, 2000)) << "nothing was clocked: the select goes on";
  EXPECT_EQ(gpio.level(kSelect), Level::High);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, OpeningReleasesAChipThatAFailureLeftSelected) {
  ASSERT_EQ(device.write(), 0);
  kernel->failCall(vboard::Call::Message, 1, EIO);
  EXPECT_EQ(device.setValue(0, 1000, Driver::DO_WRITE), -5);
  EXPECT_EQ(gpio.level(kSelect), Level::Low);
  ASSERT_EQ(device.open(), 0);
  EXPECT_EQ(gpio.level(kSelect), Level::High);
  EXPECT_THAT(codes(), ElementsAre(0, 0));
  EXPECT_THAT(rulesOf(board), ElementsAre("dac empty-frame")) << "nothing was clocked in it";
  ASSERT_EQ(device.write(), 0);
  EXPECT_THAT(codes(), ElementsAre(1000, 0));
}

TEST_F(Mcp4822Board, AfterAPowerLossOneWriteBringsBothOutputsBack) {
  ASSERT_EQ(device.setValue(0, 1000, Driver::NO_WRITE), 0);
  ASSERT_EQ(device.setValue(1, 2000, Driver::DO_WRITE), 0);
  dac.losePower();
  EXPECT_DOUBLE_EQ(dac.voltage(kA), 0);
  dac.restorePower();
  EXPECT_FALSE(dac.active(kA));
  ASSERT_EQ(device.write(), 0);
  EXPECT_THAT(codes(), ElementsAre(1000, 2000));
  EXPECT_TRUE(dac.active(kA));
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, TrafficForOthersMovesNothing) {
  ASSERT_EQ(device.setValue(0, 1000, Driver::DO_WRITE), 0);
  Driver other;  // without a selector: its words reach no chip
  other.setBus(&bus);
  other.configurePins(30);
  ASSERT_EQ(other.open(), 0);
  ASSERT_EQ(other.setValue(0, 4000, Driver::DO_WRITE), 0);
  EXPECT_THAT(codes(), ElementsAre(1000, 0));
  EXPECT_EQ(dac.writes(), 2U);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

TEST_F(Mcp4822Board, ABusFasterThanTheChipIsReported) {
  ASSERT_EQ(bus.setSpiSpeedKHz(21000), 0);
  ASSERT_EQ(device.setValue(0, 1000, Driver::DO_WRITE), 0);
  EXPECT_THAT(rulesOf(board), ElementsAre("dac clock-too-fast", "dac clock-too-fast"));
}

/// LDAC tied to ground instead of a line.
class Mcp4822WithLdacLow : public Mcp4822Board {
 protected:
  void connectLdac() override { board.netOf(dac.pin("LDAC")).setPull(vboard::Pull::Down); }
};

TEST_F(Mcp4822WithLdacLow, OutputsMoveOneAfterTheOther) {
  ASSERT_EQ(device.write(), 0);
  Moves moves(board);
  ASSERT_EQ(device.setValue(0, 2000, Driver::NO_WRITE), 0);
  ASSERT_EQ(device.setValue(1, 3000, Driver::DO_WRITE), 0);
  ASSERT_THAT(moves.texts, ElementsAre("VOUTA 1.000 V", "VOUTB 1.500 V"));
  EXPECT_LT(moves.times[0], moves.times[1]);
  EXPECT_THAT(rulesOf(board), IsEmpty());
}

/// LDAC forgotten.
class Mcp4822WithLdacOpen : public Mcp4822Board {
 protected:
  void connectLdac() override {}
};

TEST_F(Mcp4822WithLdacOpen, NoOutputEverMoves) {
  ASSERT_EQ(device.setValue(0, 2000, Driver::DO_WRITE), 0);
  EXPECT_FALSE(dac.active(kA));
  EXPECT_EQ(dac.inputRegister(kA) & 0xFFF, 2000);
  EXPECT_THAT(rulesOf(board), ElementsAre("dac ldac-open"));
}

}  // namespace
