// SPDX-License-Identifier: MIT
// The ADS1248 driver against the model of the chip: volts in, codes out, and where the driver's
// sequence meets the chip's timing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "tests/board/ConverterBoard.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"

namespace {

using boardtest::codeOf;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Varnel::CSpiAnalogIn2x24Bit_ADS1248;
using vboard::Level;
using vboard::Time;

constexpr int kStart = 17;
constexpr uint16_t kNominalKHz = 2000;
/// Slow enough for the chip to have recovered from its reset as the first register is written.
constexpr Time kCallCost = microseconds(50);
constexpr double kReference[] = {2.5, 1.25};
constexpr int kTimeOut = -36;
constexpr int kNotVerified = -201;
/// Longer than any conversion.
constexpr Time kLong = milliseconds(250);

constexpr const char* kTimeOutLine =
    "doConversion Return code  -36 0x0024 - Time-out waiting for data ready (or file name too "
    "long)";

struct Ads1248Setup : boardtest::ConverterBoard<CSpiAnalogIn2x24Bit_ADS1248, vboard::Ads1248> {
  explicit Ads1248Setup(Time callCost = kCallCost, uint16_t speedKHz = kNominalKHz)
      : ConverterBoard(callCost, speedKHz) {
    board.connect(chip.pin("START"), gpio.line(kStart));
    board.netOf(gpio.line(kStart)).setPull(vboard::Pull::Down);
    chip.setReference(0, kReference[0]);
    chip.setReference(1, kReference[1]);
    driver.configurePins(kStart, kReady, kReset);
  }

  /// The voltages of both channels, ground in their middle.
  void setInputs(double first, double second) {
    chip.setInput(0, first / 2);
    chip.setInput(1, -first / 2);
    chip.setInput(7, second / 2);
    chip.setInput(6, -second / 2);
  }
  void wait(Time time = kLong) { board.advance(time); }
  /// Open, at another rate than that of `open`, and with results waiting.
  void startAt(uint8_t rate) {
    start();
    ASSERT_EQ(driver.open(), 0);
    ASSERT_EQ(driver.setDataRate(rate), 0);
    wait();
  }
  /// A call in which both channels come.
  void convertBoth() {
    wait();
    ASSERT_EQ(driver.doConversion(), 0);
  }
  /// What goes on while the driver sleeps.
  template <typename Action>
  void after(Time time, Action action) {
    const std::lock_guard<std::recursive_mutex> guard(board.mutex());
    board.clock().after(time, action);
  }
};

class Ads1248Board : public testing::Test, protected Ads1248Setup {};

TEST_F(Ads1248Board, OpenResetsAndProgramsTheChip) {
  start();
  vboard::WireLog log(board);
  log.watch(board.netOf(chip.pin("RESET")), "RESET");
  const Time begin = board.now();
  ASSERT_EQ(driver.open(), 0);
  EXPECT_GE(board.now() - begin, milliseconds(10));
  EXPECT_THAT(log.lines(), testing::IsSupersetOf({"RESET low", "RESET high"}));
  EXPECT_THAT(chip.registers(),
              ElementsAre(0x01, 0, 0x20, 0x34, 0, 0, 0, 0, 0, 0x40, 0x06, 0x89, 0, 0, 0));
  EXPECT_EQ(gpio.level(kStart), Level::High);
  EXPECT_EQ(gpio.level(kReset), Level::High);
  EXPECT_FALSE(selected());
  // The bus settles once, then each register is written and read, and continuous reading ends.
  EXPECT_EQ(transfers(), 1U + 2 * 10 + 1);
  EXPECT_THAT(diag.lines(), IsEmpty());
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, VoltsComeBackAtEveryGain) {
  startAt(CSpiAnalogIn2x24Bit_ADS1248::DRATE_640_SPS);
  for (uint8_t gain = 0; gain < 8; ++gain) {
    ASSERT_EQ(driver.setPGAGain(gain), 0);
    for (const double share : {0.4, -0.4, 0.999, -0.999, 0.0}) {
      const double full = 1.0 / (1U << gain);
      setInputs(share * kReference[0] * full, -share / 2 * kReference[1] * full);
      convertBoth();
      EXPECT_NEAR(driver.readChannel(0), codeOf(share), 1) << int{gain} << ' ' << share;
      EXPECT_NEAR(driver.readChannel(1), codeOf(-share / 2), 1) << int{gain} << ' ' << share;
    }
  }
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, NegativeInputsAreCodesFromTheUpperHalf) {
  startAt(CSpiAnalogIn2x24Bit_ADS1248::DRATE_640_SPS);
  ASSERT_EQ(driver.setPGAGain(CSpiAnalogIn2x24Bit_ADS1248::PGA_GAIN_1), 0);
  setInputs(-1.25, -3.0);
  chip.setSupply(3.0, -3.0);
  convertBoth();
  EXPECT_NEAR(driver.readChannel(0), 0xC00000, 1);
  EXPECT_EQ(driver.readChannel(1), 0x800000) << "beyond full scale";
  setInputs(-2.5 / 0x7FFFFF, 3.0);
  convertBoth();
  EXPECT_EQ(driver.readChannel(0), 0xFFFFFF);
  EXPECT_EQ(driver.readChannel(1), 0x7FFFFF);
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, BeforeAnyConversionAndForOtherChannelsTheCacheIsZero) {
  start();
  setInputs(0.1, 0.1);
  ASSERT_EQ(driver.open(), 0);
  EXPECT_EQ(driver.readChannel(0), 0);
  EXPECT_EQ(driver.readChannel(1), 0);
  wait();
  driver.doConversion();
  EXPECT_NE(driver.readChannel(0), 0);
  EXPECT_EQ(driver.readChannel(2), 0);
}

TEST(Ads1248Rates, From640SamplesPerSecondOneCallRefreshesBothChannels) {
  for (uint8_t rate = 7; rate < 10; ++rate) {
    Ads1248Setup on;
    on.startAt(rate);
    for (const double share : {0.3, -0.7, 0.5}) {
      on.setInputs(share * kReference[0] / 8, share / 3 * kReference[1] / 8);
      on.wait();
      EXPECT_EQ(on.driver.doConversion(), 0) << int{rate};
      EXPECT_NEAR(on.driver.readChannel(0), codeOf(share), 1) << int{rate};
      EXPECT_NEAR(on.driver.readChannel(1), codeOf(share / 3), 1) << int{rate};
      EXPECT_FALSE(on.selected());
    }
    // Without a pause between the calls the first half finds its result after its wait.
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(on.driver.doConversion(), 0) << int{rate};
    }
    EXPECT_THAT(on.diag.lines(), IsEmpty());
    EXPECT_THAT(on.violations(), IsEmpty()) << int{rate};
  }
}

TEST(Ads1248Rates, BelowEachCallRefreshesOneChannelTimesOutSilentlyAndStaysSelected) {
  for (uint8_t rate = 0; rate < 7; ++rate) {
    Ads1248Setup on;
    on.startAt(rate);
    int32_t expected[] = {0, 0};
    for (int call = 0; call < 6; ++call) {
      const double share = 0.8 - 0.3 * call;
      on.setInputs(share * kReference[0] / 8, share * kReference[1] / 8);
      on.wait();
      on.wait();
      EXPECT_EQ(on.driver.doConversion(), kTimeOut) << int{rate};
      expected[call % 2] = codeOf(share);
      EXPECT_NEAR(on.driver.readChannel(0), expected[0], 1) << int{rate} << ' ' << call;
      EXPECT_NEAR(on.driver.readChannel(1), expected[1], 1) << int{rate} << ' ' << call;
      EXPECT_TRUE(on.selected());
    }
    EXPECT_THAT(on.diag.lines(), IsEmpty());
    EXPECT_THAT(on.violations(), IsEmpty()) << int{rate};
    EXPECT_EQ(on.select.enable(false), 0);
    EXPECT_FALSE(on.selected());
  }
}

TEST_F(Ads1248Board, AFirstHalfThatTimesOutIsLoggedAndTouchesNothing) {
  start();
  ASSERT_EQ(driver.open(), 0);
  const uint64_t before = transfers();
  const Time begin = board.now();
  EXPECT_EQ(driver.doConversion(), kTimeOut) << "80 samples per second aren't there yet";
  EXPECT_EQ(board.now() - begin, milliseconds(2) + 2 * kCallCost) << "two looks";
  EXPECT_EQ(transfers(), before);
  EXPECT_FALSE(selected());
  EXPECT_EQ(driver.readChannel(0), 0);
  EXPECT_THAT(diag.lines(), ElementsAre(kTimeOutLine));
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, ASecondHalfThatTimesOutIsNotLoggedAndTheNextCallReleasesTheChip) {
  startAt(CSpiAnalogIn2x24Bit_ADS1248::DRATE_1000_SPS);
  setInputs(0.1, -0.1);
  wait();
  after(kCallCost, [this] { chip.setNeverReady(true); });
  EXPECT_EQ(driver.doConversion(), kTimeOut);
  EXPECT_THAT(diag.lines(), IsEmpty());
  EXPECT_TRUE(selected());
  EXPECT_NEAR(driver.readChannel(0), codeOf(0.1 * 8 / kReference[0]), 1);
  EXPECT_EQ(driver.readChannel(1), 0);
  chip.setNeverReady(false);
  wait();
  EXPECT_EQ(driver.doConversion(), 0);
  EXPECT_FALSE(selected());
  EXPECT_NEAR(driver.readChannel(1), codeOf(-0.1 * 8 / kReference[1]), 1);
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, AConverterThatNeverBecomesReadyTimesOutInEveryCall) {
  startAt(CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS);
  setInputs(0.1, 0.05);
  convertBoth();
  const int32_t before = driver.readChannel(0);
  const uint64_t transfersBefore = transfers();
  chip.setNeverReady(true);
  setInputs(0.2, 0.1);
  for (int i = 0; i < 5; ++i) {
    wait();
    EXPECT_EQ(driver.doConversion(), kTimeOut);
  }
  EXPECT_THAT(diag.lines(),
              ElementsAre(kTimeOutLine, kTimeOutLine, kTimeOutLine, kTimeOutLine, kTimeOutLine));
  EXPECT_EQ(transfers(), transfersBefore);
  EXPECT_EQ(driver.readChannel(0), before);
  chip.setNeverReady(false);
  convertBoth();
  EXPECT_NEAR(driver.readChannel(0), codeOf(0.2 * 8 / kReference[0]), 1);
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, RegisterBitsThatStickFailTheVerificationAfterTwoTries) {
  start();
  chip.stickRegisterBits(0x03, 0x70, 0x20);
  vboard::WireLog log(board);
  EXPECT_EQ(driver.open(), kNotVerified);
  std::vector<uint32_t> commands;
  for (const vboard::WireLog::Transfer& transfer : log.transfers()) {
    commands.push_back(transfer.mosi[0]);
  }
  EXPECT_THAT(commands, ElementsAre(0xFF, 0x40, 0x20, 0x42, 0x22, 0x43, 0x23, 0x43, 0x23));
  EXPECT_THAT(diag.lines(),
              ElementsAre("open Return code  -201 0x00c9 - Register read-back mismatch"));
  EXPECT_EQ(chip.registers()[0x0B], 0xFF) << "as after the reset";

  chip.stickRegisterBits(0x03, 0, 0);
  EXPECT_EQ(driver.setPGAGain(0), 0);
  chip.stickRegisterBits(0x03, 0x70, 0x20);
  diag.clear();
  EXPECT_EQ(driver.setPGAGain(CSpiAnalogIn2x24Bit_ADS1248::PGA_GAIN_128), kNotVerified);
  EXPECT_EQ(driver.pGAGain(), 0);
  EXPECT_EQ(driver.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_5_SPS), kNotVerified);
  EXPECT_EQ(driver.dataRate(), 4);
  EXPECT_THAT(diag.lines(),
              ElementsAre("setPGAGain Return code  -201 0x00c9 - Register read-back mismatch",
                          "setDataRate Return code  -201 0x00c9 - Register read-back mismatch"));
  EXPECT_EQ(driver.setPGAGain(CSpiAnalogIn2x24Bit_ADS1248::PGA_GAIN_4), 0) << "what sticks";
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Ads1248Board, OneWrongReadBackIsForgiven) {
  start();
  ASSERT_EQ(driver.open(), 0);
  const uint64_t before = transfers();
  spi.flipMisoBit(2 * 24 - 1);  // the last bit of the first read-back
  EXPECT_EQ(driver.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_640_SPS), 0);
  EXPECT_EQ(transfers() - before, 4U);
  EXPECT_EQ(driver.dataRate(), 7);
  EXPECT_EQ(chip.registers()[0x03], 0x37);
  EXPECT_THAT(diag.lines(), IsEmpty());
}

TEST(Ads1248StartUp, StopsAtTheTransferThatFails) {
  struct Written {
    size_t address;
    uint8_t value;
  };
  constexpr Written kOrder[] = {{0x00, 0x01}, {0x02, 0x20}, {0x03, 0x34}, {0x04, 0}, {0x05, 0},
                                {0x06, 0},    {0x0A, 0x06}, {0x0B, 0x89}, {0x0C, 0}, {0x0D, 0}};
  constexpr unsigned kMessages = 22;  // one settles, two for each register, the command
  for (unsigned failing = 1; failing <= kMessages; ++failing) {
    Ads1248Setup on;
    on.start();
    on.kernel->failCall(vboard::Call::Message, failing, EIO);
    EXPECT_EQ(on.driver.open(), -EIO) << failing;
    std::vector<uint8_t> expected = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0, 0xFF, 0, 0, 0};
    for (unsigned i = 0; i < (failing - 1) / 2; ++i) {
      expected[kOrder[i].address] = kOrder[i].value;
    }
    EXPECT_EQ(on.chip.registers(), expected) << failing;
    EXPECT_EQ(on.transfers(), failing - 1);
    EXPECT_EQ(on.selected(), failing > 1) << failing;
    EXPECT_EQ(on.diag.linesOf("open").size(), failing < kMessages ? 1U : 0U) << failing;
  }
  Ads1248Setup on;
  on.start();
  on.kernel->failCall(vboard::Call::Message, kMessages + 1, EIO);
  EXPECT_EQ(on.driver.open(), 0) << "there is no other";
}

TEST(Ads1248StartUp, StopsAtThePinThatFails) {
  for (unsigned failing = 1; failing <= 3; ++failing) {
    Ads1248Setup requested;
    requested.start();
    requested.kernel->failCall(vboard::Call::GpioRequest, failing, EBUSY);
    EXPECT_EQ(requested.driver.open(), -EBUSY) << failing;
    EXPECT_THAT(requested.diag.lines(), ElementsAre(StartsWith("open Return code  -16 ")));
    EXPECT_EQ(requested.transfers(), 0U);
  }
  for (unsigned failing = 1; failing <= 3; ++failing) {  // RESET, START, the select
    Ads1248Setup written;
    written.start();
    written.kernel->failCall(vboard::Call::GpioSet, failing, EIO);
    const Time begin = written.board.now();
    EXPECT_EQ(written.driver.open(), -EIO) << failing;
    EXPECT_LT(written.board.now() - begin, milliseconds(10)) << "no reset";
    EXPECT_THAT(written.diag.lines(), ElementsAre(StartsWith("open Return code  -5 ")));
    EXPECT_EQ(written.transfers(), 0U);
  }
}

TEST(Ads1248StartUp, AResetPulseThatFailsIsSeenByTheVerificationOnly) {
  Ads1248Setup noPulse;
  noPulse.start();
  noPulse.kernel->failCall(vboard::Call::GpioSet, 4, EIO);
  EXPECT_EQ(noPulse.driver.open(), 0) << "the chip was in its reset state anyway";
  EXPECT_THAT(noPulse.violations(), IsEmpty());
  noPulse.kernel.reset();

  Ads1248Setup noEnd;
  noEnd.start();
  noEnd.kernel->failCall(vboard::Call::GpioSet, 5, EIO);
  EXPECT_EQ(noEnd.driver.open(), kNotVerified);
  EXPECT_THAT(noEnd.violations(), ElementsAre("in-reset", "in-reset", "in-reset", "in-reset"));
}

TEST_F(Ads1248Board, AHalfThatFailsLeavesTheChipSelectedAndOnlyTheFirstIsLogged) {
  startAt(CSpiAnalogIn2x24Bit_ADS1248::DRATE_1000_SPS);
  setInputs(0.1, -0.1);
  wait();
  kernel->failCall(vboard::Call::Message, 1, EIO);
  EXPECT_EQ(driver.doConversion(), -EIO);
  EXPECT_EQ(diag.linesOf("doConversion").size(), 1U);
  EXPECT_TRUE(selected());
  EXPECT_EQ(driver.readChannel(0), 0);

  diag.clear();
  kernel->failCall(vboard::Call::Message, 2, EIO);
  EXPECT_EQ(driver.doConversion(), -EIO);
  EXPECT_EQ(diag.linesOf("doConversion").size(), 0U);
  EXPECT_TRUE(selected());
  EXPECT_NEAR(driver.readChannel(0), codeOf(0.1 * 8 / kReference[0]), 1);
  EXPECT_EQ(driver.readChannel(1), 0);

  convertBoth();
  EXPECT_FALSE(selected());
  EXPECT_NEAR(driver.readChannel(1), codeOf(-0.1 * 8 / kReference[1]), 1);
  EXPECT_THAT(violations(), IsEmpty());
}

TEST(Ads1248StartUp, BeforeOpenARateCanBeSetOnlyWithStartHigh) {
  Ads1248Setup low;
  low.start();
  EXPECT_EQ(low.driver.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS), kNotVerified);
  EXPECT_EQ(low.driver.dataRate(), 4);
  EXPECT_THAT(low.violations(), ElementsAre("command-in-standby", "command-in-standby",
                                            "command-in-standby", "command-in-standby"));
  low.kernel.reset();

  Ads1248Setup high(kCallCost, 200);  // a bus on which a second start-up works
  high.board.netOf(high.gpio.line(kStart)).setPull(vboard::Pull::Up);
  high.start();
  EXPECT_EQ(high.driver.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_160PS), 0);
  EXPECT_EQ(high.chip.registers()[3], 0x35);
  EXPECT_EQ(high.driver.dataRate(), 5);
  EXPECT_THAT(high.violations(), IsEmpty());
  EXPECT_EQ(high.driver.open(), 0);
  EXPECT_EQ(high.chip.registers()[3], 0x35) << "after the reset";
}

// What a board designer should know.

struct Ads1248Point {
  uint16_t speedKHz;
  int callMicroseconds;
  bool modeSet;  // the bus need not settle before the first register
  int result;
  size_t lost;  // frames that the chip doesn't hear after its reset
};

TEST(Ads1248Nominal, OpenFailsAsTheChipRecoversFromItsResetFor600Microseconds) {
  Ads1248Setup on(microseconds(20), kNominalKHz);
  on.start();
  EXPECT_EQ(on.driver.open(), kNotVerified);
  EXPECT_THAT(on.violations(),
              ElementsAre("reset-recovery", "reset-recovery", "reset-recovery", "reset-recovery"));
  EXPECT_THAT(on.diag.lines(),
              ElementsAre("open Return code  -201 0x00c9 - Register read-back mismatch"));
}

TEST(Ads1248Nominal, ASlowerBusOrSlowerCallsGiveTheChipItsTime) {
  for (const Ads1248Point& point : std::vector<Ads1248Point>{
           {2000, 28, false, 0, 3},
           {2000, 33, false, 0, 2},
           {2000, 40, false, 0, 1},
           {2000, 50, false, 0, 0},
           {500, 20, false, 0, 3},
           {200, 20, false, 0, 1},
           {200, 40, false, 0, 0},
           {100, 10, false, 0, 1},
           {100, 30, false, 0, 0},
           {50, 20, false, 0, 0},
           {2000, 40, true, kNotVerified, 4},
           {2000, 60, true, 0, 3},
           {2000, 150, true, 0, 1},
           {2000, 320, true, 0, 0},
           {200, 100, true, 0, 1},
           {50, 20, true, 0, 1},
       }) {
    Ads1248Setup on(microseconds(point.callMicroseconds), point.speedKHz);
    on.start(point.modeSet);
    EXPECT_EQ(on.driver.open(), point.result)
        << point.speedKHz << " kHz " << point.callMicroseconds << " us";
    EXPECT_THAT(on.violations(), Each("reset-recovery"));
    EXPECT_EQ(on.violations().size(), point.lost)
        << point.speedKHz << " kHz " << point.callMicroseconds << " us";
  }
}

// Up to the end of `open` the chip reads continuously.
TEST(Ads1248Nominal, BeforeOpenResultsOfAFastRateSpoilTheReadBackOnASlowBus) {
  Ads1248Setup on(kCallCost, 50);
  on.board.netOf(on.gpio.line(kStart)).setPull(vboard::Pull::Up);
  on.start();
  EXPECT_EQ(on.driver.setDataRate(CSpiAnalogIn2x24Bit_ADS1248::DRATE_2000_SPS), kNotVerified);
  EXPECT_THAT(on.violations(), ElementsAre("read-across-ready", "read-across-ready"));
  EXPECT_EQ(on.chip.registers()[3], 0x39) << "written all the same";
}

TEST(Ads1248Nominal, OnAFasterBusEachHalfSettlesTheOneBetweenWithTheChipSelected) {
  Ads1248Setup on(kCallCost, 2 * kNominalKHz);
  on.startAt(CSpiAnalogIn2x24Bit_ADS1248::DRATE_640_SPS);
  on.setInputs(0.1, -0.1);
  on.wait();
  vboard::WireLog log(on.board);
  log.watch(on.board.netOf(on.chip.pin("CS")), "CS");
  EXPECT_EQ(on.driver.doConversion(), 0);
  std::string order;
  for (const std::string& line : log.lines()) {
    if (line == "CS low") {
      order += '[';
    } else if (line == "CS high") {
      order += ']';
    } else if (line.find(": ff ff ff ff ff ff ff ff ff ff ->") != std::string::npos) {
      order += 's';
    } else if (line.find(": 12 ff ff ff 40 00 ") != std::string::npos) {
      order += 'd';
    }
  }
  EXPECT_EQ(order, "s[dsd]") << log.text();
  for (const vboard::WireLog::Transfer& transfer : log.transfers()) {
    EXPECT_EQ(transfer.format.speedHz, 2000000U);
  }
  EXPECT_NEAR(on.driver.readChannel(0), codeOf(0.1 * 8 / kReference[0]), 1);
  EXPECT_NEAR(on.driver.readChannel(1), codeOf(-0.1 * 8 / kReference[1]), 1);
  EXPECT_THAT(on.violations(), IsEmpty());
}

}  // namespace
