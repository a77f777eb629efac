// SPDX-License-Identifier: MIT
// Output and input registers and address lines, as a user of the tool sees them.
#include <gmock/gmock.h>

#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Call;
using vboard::Level;

namespace {

/// A bus, a GPIO chip, and a count of transfers.
class RegisterBoard : public testing::Test, public vboard::Observer {
 protected:
  RegisterBoard() : bus(board.addSpiBus({.number = 1})), gpio(board.addGpioChip({.lines = 32})) {
    board.addObserver(*this);
  }

  void onTransfer(const vboard::SpiRecord& /*record*/) override { ++transfers; }

  void start() {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
  }

  vboard::Board board;
  vboard::SpiBus& bus;
  vboard::GpioChip& gpio;
  std::unique_ptr<vboard::Kernel> kernel;
  int transfers = 0;
};

class ToolWithHc595 : public RegisterBoard {
 protected:
  /// So many chips in a row, nearest first, with one wire at all RCLK.
  void start(int count, vboard::Pin& latch) {
    for (int i = 0; i < count; ++i) {
      auto& chip = board.add<vboard::Hc595>("u" + std::to_string(i));
      board.connect(chip.clockPin(), bus.sclk());
      board.connect(chip.pin("SER"), i == 0 ? bus.mosi() : chips.back()->pin("QH'"));
      board.connect(chip.pin("RCLK"), latch);
      chips.push_back(&chip);
    }
    RegisterBoard::start();
  }

  std::vector<int> outputs() const {
    std::vector<int> bytes;
    for (const vboard::Hc595* chip : chips) {
      bytes.push_back(chip->outputs());
    }
    return bytes;
  }

  std::vector<vboard::Hc595*> chips;
};

TEST_F(ToolWithHc595, WritesTheOutputsOfOneChip) {
  start(1, gpio.line(22));
  const ToolRun run = runLine("hc595 write 0xa5 --latch 22");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "wrote 0xa5 to 1 chip\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_THAT(outputs(), ElementsAre(0xA5));
  EXPECT_EQ(chips[0]->latches(), 1U);
  EXPECT_EQ(board.violationCount(), 0U);
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithHc595, WritesEveryByteAlsoAsTheFirst) {
  start(1, gpio.line(22));
  for (const int value : {0xFF, 0x00, 0x01, 0xFF}) {
    EXPECT_EQ(runLine("hc595 write --latch 22 " + std::to_string(value)).status, 0);
    EXPECT_THAT(outputs(), ElementsAre(value));
  }
}

TEST_F(ToolWithHc595, TakesTheValueInThreeNotations) {
  start(1, gpio.line(22));
  for (const char* value : {"202", "0xca", "0XCA", "0b11001010"}) {
    runLine("hc595 write 0 --latch 22");
    EXPECT_EQ(runLine(std::string("hc595 write --latch 22 ") + value).out,
              "wrote 0xca to 1 chip\n");
    EXPECT_THAT(outputs(), ElementsAre(0xCA)) << value;
  }
}

TEST_F(ToolWithHc595, TheLowestByteOfAChainIsTheChipNearestMosi) {
  start(3, gpio.line(22));
  EXPECT_EQ(runLine("hc595 write 0x1234ff --chain 3 --latch 22").out,
            "wrote 0x1234ff to 3 chips\n");
  EXPECT_THAT(outputs(), ElementsAre(0xFF, 0x34, 0x12));
  EXPECT_EQ(chips[0]->latches(), 1U);
  EXPECT_EQ(board.violationCount(), 0U);
  EXPECT_EQ(runLine("hc595 write 0x5 --chain 3 --latch 22").out, "wrote 0x000005 to 3 chips\n");
  EXPECT_THAT(outputs(), ElementsAre(5, 0, 0));
}

TEST_F(ToolWithHc595, WritesEightChipsFromOneValue) {
  start(8, gpio.line(22));
  const ToolRun run = runLine("hc595 write 0xf123456789abcdef --chain 8 --latch 22 --output json");
  EXPECT_EQ(run.out,
            "{\"chip\":\"hc595\",\"value\":17375808098319191535,\"chain\":8,\"latch\":\"22\"}\n");
  EXPECT_THAT(outputs(), ElementsAre(0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0xF1));
}

TEST_F(ToolWithHc595, WithoutALatchPinTheNodesSelectLatches) {
  start(3, bus.select(0));
  const ToolRun run = runLine("hc595 write 0xff3456 --chain 3 --output csv");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "value,chain,latch\n16725078,3,select\n");
  EXPECT_THAT(outputs(), ElementsAre(0x56, 0x34, 0xFF));
  EXPECT_EQ(transfers, 1);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithHc595, WithoutALatchPinAGpioSelectLatches) {
  start(2, gpio.line(25));
  const ToolRun run = runLine("hc595 write 0xff56 --chain 2 --cs 25 --cs-active-low");
  EXPECT_EQ(run.out, "wrote 0xff56 to 2 chips\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_THAT(outputs(), ElementsAre(0x56, 0xFF));
}

TEST_F(ToolWithHc595, EachFailingWriteToTheLatchNamesTheLatchLine) {
  start(1, gpio.line(22));
  for (const unsigned write : {1U, 2U, 3U}) {
    kernel->failCall(Call::GpioSet, write, EIO);
    const ToolRun run = runLine("hc595 write 1 --latch 22");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.out, IsEmpty());
    EXPECT_THAT(run.err,
                StartsWith("varnel: can't write GPIO line 22, the latch of the 74HC595 (--latch): "
                           "Input/output error (-5)\n  try: "));
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }
  kernel->failCall(Call::GpioRequest, 1, EBUSY);
  EXPECT_THAT(runLine("hc595 write 1 --latch 22").err,
              StartsWith("varnel: can't take GPIO line 22 (--latch): Device or resource busy"));
}

TEST_F(ToolWithHc595, AFailingTransferIsTheBuss) {
  start(1, gpio.line(22));
  kernel->failCall(Call::Message, 1, EINVAL);
  ToolRun run = runLine("hc595 write 1 --latch 22");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't transfer with the 74HC595 on /dev/spidev1.0: "
                                  "Invalid argument (-22)\n  try: a lower --speed"));
  kernel->failCall(Call::Message, 1, EIO);
  run = runLine("hc595 write 1");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't transfer with the 74HC595 on /dev/spidev1.0: "));
}

class ToolWithLv165a : public RegisterBoard {
 protected:
  void SetUp() override {
    board.attach(chip, bus);
    board.connect(chip.pin("SH/LD"), gpio.line(23));
    chip.setInputs(0xA5);
    start();
  }

  vboard::Lv165a& chip = board.add<vboard::Lv165a>("inputs");
};

TEST_F(ToolWithLv165a, ReadsTheInputs) {
  const ToolRun run = runLine("lv165a read --latch 23 --latch-inverted");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "inputs 0xa5  bits 10100101\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_EQ(board.violationCount(), 0U);
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithLv165a, WritesNumbersAndBitsAsData) {
  chip.setInputs(0x05);
  EXPECT_EQ(runLine("lv165a read --latch 23 --latch-inverted --count 2 --output csv").out,
            "reading,inputs,bits\n1,5,00000101\n2,5,00000101\n");
  EXPECT_EQ(runLine("lv165a read --latch 23 --latch-inverted --output json").out,
            "{\"chip\":\"lv165a\",\"reading\":1,\"inputs\":5,\"bits\":\"00000101\"}\n");
}

TEST_F(ToolWithLv165a, WithoutTheInversionAStraightLineReadsInputHAndANoteSaysSo) {
  const ToolRun run = runLine("lv165a read --latch 23");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "inputs 0xff  bits 11111111\n");
  EXPECT_THAT(run.err, testing::AllOf(StartsWith("varnel: note: the 74LV165A"),
                                      HasSubstr("add --latch-inverted\n")));
}

TEST_F(ToolWithLv165a, AFailingLatchLineIsNamedAndAFailingTransferIsTheBuss) {
  for (const unsigned write : {1U, 2U}) {
    kernel->failCall(Call::GpioSet, write, EIO);
    const ToolRun run = runLine("lv165a read --latch 23 --latch-inverted");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, StartsWith("varnel: can't write GPIO line 23, the latch of the 74LV165A "
                                    "(--latch): Input/output error (-5)"));
  }
  kernel->failCall(Call::Message, 1, EIO);
  EXPECT_THAT(runLine("lv165a read --latch 23 --latch-inverted").err,
              StartsWith("varnel: can't transfer with the 74LV165A on /dev/spidev1.0: "));
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithLv165a, AFailingSelectIsNotPutDownToTheLatch) {
  // The select is written first.
  kernel->failCall(Call::GpioSet, 1, EIO);
  EXPECT_THAT(runLine("lv165a read --latch 23 --latch-inverted --cs 25 --cs-active-low").err,
              StartsWith("varnel: can't select the 74LV165A with GPIO line 25 (--cs): "));
}

TEST(ToolWithLv165aAndAnInverter, ReadsWithALineThatIsNotInverted) {
  vboard::Board board;
  vboard::SpiBus& bus = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  auto& chip = board.add<vboard::Lv165a>("inputs");
  // Enabled, the output Y0 is low: the line at the active-high enable comes out inverted.
  auto& inverter = board.add<vboard::Decoder3to8>("inverter");
  board.attach(chip, bus);
  for (const char* address : {"A0", "A1", "A2"}) {
    board.connect(inverter.pin(address), gpio.line(0)).setPull(vboard::Pull::Down);
  }
  board.connect(inverter.pin("E3"), gpio.line(23)).setPull(vboard::Pull::Down);
  board.connect(inverter.pin("Y0"), chip.pin("SH/LD"));
  chip.setInputs(0xA5);
  const vboard::Kernel kernel(board);
  EXPECT_EQ(runLine("lv165a read --latch 23 --count 2").out,
            "inputs 0xa5  bits 10100101\ninputs 0xa5  bits 10100101\n");
  EXPECT_EQ(board.violationCount(), 0U);
}

/// Remembers the level that each line had while something drove it.
class ToolWithAddressLines : public RegisterBoard {
 protected:
  void SetUp() override {
    auto& decoder = board.add<vboard::Decoder3to8>("decoder");
    nets[&board.connect(decoder.pin("A0"), gpio.line(17))] = 17;
    nets[&board.connect(decoder.pin("A1"), gpio.line(27))] = 27;
    nets[&board.connect(decoder.pin("A2"), gpio.line(22))] = 22;
    nets[&board.connect(decoder.pin("E3"), gpio.line(5))] = 5;
    start();
  }

  void onNet(const vboard::Net& net, vboard::Time /*time*/) override {
    if (const auto found = nets.find(&net); found != nets.end() && net.driven()) {
      driven[found->second] = net.level();
    }
  }

  std::map<const vboard::Net*, int> nets;
  std::map<int, Level> driven;
};

TEST_F(ToolWithAddressLines, TheFirstPinCarriesBitZero) {
  const ToolRun run = runLine("address write 6 --pins 17,gpiochip0:27,22");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "wrote 6 to 3 lines\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_THAT(driven, ElementsAre(testing::Pair(17, Level::Low), testing::Pair(22, Level::High),
                                  testing::Pair(27, Level::High)));
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithAddressLines, WritesAddressAndPinsAsData) {
  EXPECT_EQ(runLine("address write 0b1 --pins 5 --output json").out,
            "{\"chip\":\"address\",\"address\":1,\"pins\":\"5\"}\n");
  EXPECT_EQ(runLine("address write 1 --pins 5,17 --output csv").out, "address,pins\n1,\"5,17\"\n");
  EXPECT_EQ(driven[5], Level::High);
}

TEST_F(ToolWithAddressLines, TheNodeIsNotOpened) {
  kernel->failCallsFromNow(Call::Open, EACCES, "/dev/spidev1.0");
  EXPECT_EQ(runLine("address write 1 --pins 5").status, 0);
  EXPECT_EQ(runLine("address write 1 --pins 5 --spi /dev/none").status, 0);
  EXPECT_EQ(runLine("hc595 write 1").status, 1) << "the fault was there";
}

TEST_F(ToolWithAddressLines, ALineThatCantBeTakenIsNamed) {
  const ToolRun run = runLine("address write 1 --pins 5,gpiochip0:32,17");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line gpiochip0:32 (--pins): Invalid"));
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

TEST_F(ToolWithAddressLines, AFailingWriteNamesTheLines) {
  kernel->failCall(Call::GpioSet, 2, EIO);
  const ToolRun run = runLine("address write 1 --pins 5,17,22");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_THAT(run.err, StartsWith("varnel: can't write the address to the GPIO lines 5,17,22 "
                                  "(--pins): Input/output error (-5)\n  try: "));
}

}  // namespace
