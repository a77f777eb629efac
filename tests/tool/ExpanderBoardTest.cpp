// SPDX-License-Identifier: MIT
// The tool with chips behind a 74HC595 and a decoder.
#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <string>

#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Call;

namespace {

constexpr int kNone = 7;
constexpr const char* kRead = "mcp3201 read --speed 800 --expander ";

/// Line 22 latches a register whose QA to QC address a decoder; converters at its outputs 0 and 1.
class ToolBehindExpander : public testing::Test, public vboard::Observer {
 protected:
  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    vboard::SpiBus& bus = board.addSpiBus({.number = 1});
    gpio = &board.addGpioChip({.lines = 32, .lineNames = {{22, "LATCH"}}});
    auto& decoder = board.add<vboard::Decoder3to8>("decoder");
    board.attach(*expander, bus);
    board.connect(expander->pin("RCLK"), gpio->line(22));
    board.connect(expander->pin("QA"), decoder.pin("A0"));
    board.connect(expander->pin("QB"), decoder.pin("A1"));
    board.connect(expander->pin("QC"), decoder.pin("A2"));
    for (int i = 0; i < 2; ++i) {
      adcs[i] = &board.add<vboard::Mcp3201>("adc" + std::to_string(i));
      adcs[i]->setInput(i + 1.0006);
      board.attach(*adcs[i], bus);
      board.connect(adcs[i]->pin("CS"), decoder.pin("Y" + std::to_string(i)));
    }
    board.addObserver(*this);
    kernel = std::make_unique<vboard::Kernel>(board);
    // Outputs are noise at power-up: any chip may be selected until the tool has run once.
    EXPECT_EQ(runLine(std::string(kRead) + "22:3").status, 0);
    board.clearViolations();
    transfers = 0;
  }

  void onTransfer(const vboard::SpiRecord& /*record*/) override { ++transfers; }

  void expectReleased() {
    EXPECT_EQ(expander->outputs() & 7, kNone);
    EXPECT_FALSE(adcs[0]->listening());
    EXPECT_FALSE(adcs[1]->listening());
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }

  vboard::Board board;
  vboard::GpioChip* gpio = nullptr;
  vboard::Hc595* expander = &board.add<vboard::Hc595>("expander");
  vboard::Mcp3201* adcs[2] = {};
  std::unique_ptr<vboard::Kernel> kernel;
  int transfers = 0;
};

TEST_F(ToolBehindExpander, ReadsEachConverterExplicitlyAndImplicitly) {
  for (const char* mode : {"", ":implicit"}) {
    for (const char* latch : {"22", "LATCH", "gpiochip0:22", "/dev/gpiochip0:22"}) {
      SCOPED_TRACE(std::string(latch) + mode);
      const ToolRun first = runLine(std::string(kRead) + latch + ":0" + mode + " --vref 5");
      EXPECT_EQ(first.status, 0);
      EXPECT_EQ(first.out, "code  819   0.9998 V\n");
      EXPECT_THAT(first.err, IsEmpty());
      expectReleased();
      const ToolRun second = runLine(std::string(kRead) + latch + ":1" + mode + " --vref 5");
      EXPECT_EQ(second.out, "code 1638   1.9995 V\n") << second.err;
      expectReleased();
    }
  }
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolBehindExpander, EachReadingSelectsAnew) {
  for (const char* mode : {"", ":implicit"}) {
    const uint64_t before = adcs[1]->conversions();
    const ToolRun run = runLine(std::string(kRead) + "22:1" + mode + " --count 3 --vref 5");
    EXPECT_EQ(run.out, "code 1638   1.9995 V\ncode 1638   1.9995 V\ncode 1638   1.9995 V\n");
    EXPECT_EQ(adcs[1]->conversions() - before, 3U) << mode;
    expectReleased();
  }
  EXPECT_EQ(adcs[0]->conversions(), 0U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolBehindExpander, AnotherAddressCanBeTheOneThatSelectsNone) {
  EXPECT_EQ(runLine(std::string(kRead) + "22:1 --expander-none 6 --vref 5").out,
            "code 1638   1.9995 V\n");
  EXPECT_EQ(expander->outputs(), 6);
  EXPECT_EQ(runLine(std::string(kRead) + "22:0:implicit --expander-none 254 --vref 5").out,
            "code  819   0.9998 V\n");
  EXPECT_EQ(expander->outputs(), 254);
}

TEST_F(ToolBehindExpander, ReadsInputsExplicitlyAndReleasesTheSelectThatStaysOn) {
  vboard::Board own;
  vboard::SpiBus& bus = own.addSpiBus({.number = 3});
  vboard::GpioChip& lines = own.addGpioChip({.lines = 32});
  auto& select = own.add<vboard::Hc595>("expander");
  auto& chip = own.add<vboard::Lv165a>("inputs");
  own.attach(select, bus);
  own.connect(select.pin("RCLK"), lines.line(22));
  own.attach(chip, bus);
  own.connect(chip.pin("SH/LD"), lines.line(23));
  // One output per chip, low selects: 0xfe is the chip, 0xfd none.
  own.connect(chip.pin("CLK INH"), select.pin("QA"));
  chip.setInputs(0xA5);
  kernel.reset();
  kernel = std::make_unique<vboard::Kernel>(own);
  const ToolRun run = runLine(
      "lv165a read --spi /dev/spidev3.0 --latch 23 --latch-inverted --expander 22:254 "
      "--expander-none 253 --count 2");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "inputs 0xa5  bits 10100101\ninputs 0xa5  bits 10100101\n") << run.err;
  EXPECT_EQ(select.outputs(), 253);
  kernel.reset();
}

TEST_F(ToolBehindExpander, ALatchLineThatCantBeTakenIsNamedBeforeTheBusIsOpened) {
  kernel->failCall(Call::GpioRequest, 1, EBUSY);
  const ToolRun run = runLine(std::string(kRead) + "LATCH:1 --spi /dev/spidev7.0");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, StartsWith("varnel: can't take GPIO line LATCH (--expander): Device or "
                                  "resource busy (-16)\n  try: another line"));
  EXPECT_THAT(run.systemLines, IsEmpty());
  EXPECT_EQ(transfers, 0);
  expectReleased();
}

TEST_F(ToolBehindExpander, EachFailingWriteToTheLatchIsNamedAndTheChipReleased) {
  constexpr const char* kDeselect =
      "varnel: can't deselect the chips with GPIO line 22, the latch of the expander "
      "(--expander): ";
  constexpr const char* kSelect =
      "varnel: can't select the MCP3201 with GPIO line 22, the latch of the expander "
      "(--expander): ";
  for (const char* mode : {"", ":implicit"}) {
    // Three writes each: deselecting all at the start, selecting, deselecting, and at the end.
    for (unsigned write = 1; write <= 12; ++write) {
      SCOPED_TRACE(std::to_string(write) + mode);
      kernel->failCall(Call::GpioSet, write, EIO);
      const ToolRun run = runLine(std::string(kRead) + "22:1" + mode);
      EXPECT_EQ(run.status, 1);
      EXPECT_THAT(run.err, AllOf(StartsWith(write >= 4 && write <= 6 ? kSelect : kDeselect),
                                 HasSubstr("Input/output error (-5)\n  try: ")));
      if (write < 10) {
        expectReleased();
      }
      EXPECT_EQ(kernel->openDescriptors(), 0);
    }
  }
}

TEST_F(ToolBehindExpander, EachFailingTransferIsNamedAndTheChipReleased) {
  constexpr const char* kSelect =
      "varnel: can't select the MCP3201 with a transfer to the expander (--expander) on "
      "/dev/spidev1.0: ";
  constexpr const char* kTransfer = "varnel: can't transfer with the MCP3201 on /dev/spidev1.0: ";
  constexpr const char* kDeselect =
      "varnel: can't deselect the chips with a transfer to the expander (--expander) on "
      "/dev/spidev1.0: ";
  // Explicitly the device's transfer goes along with the deselection, implicitly it doesn't.
  const struct {
    const char* mode;
    unsigned total;
  } kModes[] = {{"", 7}, {":implicit", 6}};
  for (const auto& mode : kModes) {
    for (unsigned message = 1; message <= mode.total; ++message) {
      SCOPED_TRACE(std::to_string(message) + mode.mode);
      const char* const kExpected[] = {kDeselect, kSelect, kTransfer, kTransfer};
      kernel->failCall(Call::Message, message, EIO);
      const ToolRun run = runLine(std::string(kRead) + "22:0" + mode.mode);
      EXPECT_EQ(run.status, 1);
      EXPECT_THAT(run.err, StartsWith(message <= 4 ? kExpected[message - 1] : kDeselect));
      expectReleased();
    }
    transfers = 0;
    EXPECT_EQ(runLine(std::string(kRead) + "22:0" + mode.mode).status, 0);
    EXPECT_EQ(transfers, static_cast<int>(mode.total));
  }
}

TEST_F(ToolBehindExpander, ALatchThatFailsForGoodIsReportedTwice) {
  kernel->failCallsFromNow(Call::GpioSet, EIO);
  const ToolRun run = runLine(std::string(kRead) + "22:0");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, AllOf(StartsWith("varnel: can't deselect the chips with GPIO line 22"),
                             HasSubstr("\nvarnel: can't deselect the chips with GPIO line 22")));
  EXPECT_EQ(transfers, 0);
  EXPECT_EQ(kernel->openDescriptors(), 0);
}

}  // namespace
