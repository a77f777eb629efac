// SPDX-License-Identifier: MIT
// The 74HC595 drivers against the model of the chip: outputs, chains, and converters behind an
// expander.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "vboard/vboard.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Varnel::CHC595ChipSelectDevice;
using Varnel::CLinuxSpiDevice;
using Varnel::CSpiDigOut8Bit_HC595;
using vboard::Level;

constexpr bool kDo = CLinuxSpiDevice::DO_TRANSFER;
constexpr bool kNo = CLinuxSpiDevice::NO_TRANSFER;
constexpr auto kExplicit = CHC595ChipSelectDevice::ExplicitTransfer;
constexpr auto kImplicit = CHC595ChipSelectDevice::ImplicitTransfer;
constexpr unsigned kLatch = 22;
constexpr uint8_t kNone = 7;

/// A bus of 800 kHz and the latch of whatever hangs on it at line 22.
class LatchedBoard : public testing::Test {
 protected:
  LatchedBoard() : spi(board.addSpiBus({.number = 1})), gpio(board.addGpioChip({.lines = 32})) {}

  void start() {
    ASSERT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    ASSERT_EQ(latch.connect(), 0);
    ASSERT_EQ(bus.setSpiSpeedKHz(800), 0);
    ASSERT_EQ(bus.open(), 0);
  }
  void TearDown() override { bus.close(); }

  std::vector<std::string> violations() const {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    return rules;
  }

  vboard::Board board;
  vboard::SpiBus& spi;
  vboard::GpioChip& gpio;
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Orv::CLinuxIoPin latch{kLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
};

/// Three registers in a row, the first at MOSI.
class Hc595Board : public LatchedBoard {
 protected:
  void SetUp() override {
    for (int i = 0; i < 3; ++i) {
      chips.push_back(&board.add<vboard::Hc595>("u" + std::to_string(i)));
      board.connect(chips.back()->clockPin(), spi.sclk());
      board.connect(chips.back()->pin("SER"),
                    i == 0 ? spi.mosi() : chips[static_cast<size_t>(i) - 1]->pin("QH'"));
      board.connect(chips.back()->pin("RCLK"), gpio.line(kLatch));
    }
    start();
    for (CSpiDigOut8Bit_HC595& device : devices) {
      device.setBus(&bus);
      device.setLatchPin(&latch);
    }
  }

  std::vector<int> outputs() const {
    std::vector<int> bytes;
    for (const vboard::Hc595* chip : chips) {
      bytes.push_back(chip->outputs());
    }
    return bytes;
  }

  /// All three as one chain, nearest first.
  void chain() {
    const auto members = std::make_shared<std::vector<CLinuxSpiDevice*>>();
    for (CSpiDigOut8Bit_HC595& device : devices) {
      members->push_back(&device);
      device.setDeviceChain(members);
    }
  }

  std::vector<vboard::Hc595*> chips;
  CSpiDigOut8Bit_HC595 devices[3];
};

TEST_F(Hc595Board, ABytesBitsComeOutAtTheirPins) {
  ASSERT_EQ(devices[0].writeOutputs(0x81, kDo), 0);
  EXPECT_EQ(chips[0]->outputs(), 0x81);
  EXPECT_EQ(chips[0]->pin("QA").level(), Level::High);
  EXPECT_EQ(chips[0]->pin("QB").level(), Level::Low);
  EXPECT_EQ(chips[0]->pin("QH").level(), Level::High);
  ASSERT_EQ(devices[0].writeOutputs(0x02, kDo), 0);
  EXPECT_EQ(chips[0]->pin("QA").level(), Level::Low);
  EXPECT_EQ(chips[0]->pin("QB").level(), Level::High);
}

TEST_F(Hc595Board, TheLatchRestsLow) {
  EXPECT_EQ(devices[0].writeOutputs(0x81, kDo), 0);
  EXPECT_EQ(gpio.level(kLatch), Level::Low);
}

TEST_F(Hc595Board, AFirst0xFFLeavesTheOutputsAsTheyCameUp) {
  const int before = chips[0]->outputs();
  EXPECT_EQ(devices[0].writeOutputs(0xFF, kDo), 0);
  EXPECT_EQ(chips[0]->outputs(), before);
  EXPECT_EQ(spi.statistics().transfers, 0U);
}

TEST_F(Hc595Board, AChainOfThreeKeepsEachByteInItsChip) {
  chain();
  EXPECT_EQ(devices[1].writeOutputs(0x22, kNo), 0);
  EXPECT_EQ(devices[2].writeOutputs(0x33, kNo), 0);
  EXPECT_EQ(devices[0].writeOutputs(0x11, kDo), 0);
  EXPECT_THAT(outputs(), ElementsAre(0x11, 0x22, 0x33));
  EXPECT_EQ(devices[1].writeOutputs(0x44, kDo), 0);
  EXPECT_THAT(outputs(), ElementsAre(0x11, 0x44, 0x33));
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(Hc595Board, OtherTrafficShiftsThroughButIsNotLatched) {
  chain();
  devices[1].writeOutputs(0x22, kNo);
  devices[2].writeOutputs(0x33, kNo);
  devices[0].writeOutputs(0x11, kDo);
  CSpiDigOut8Bit_HC595 other;
  other.setBus(&bus);
  EXPECT_EQ(other.executeTransfer(), 0);
  EXPECT_THAT(outputs(), ElementsAre(0x11, 0x22, 0x33));
  EXPECT_EQ(devices[0].transferData(kDo), 0);
  EXPECT_THAT(outputs(), ElementsAre(0x11, 0x22, 0x33));
}

TEST_F(Hc595Board, AFailedTransferIsNeverLatchedAndCanBeRepeated) {
  ASSERT_EQ(devices[0].writeOutputs(0x11, kDo), 0);
  kernel->failCall(vboard::Call::Message, 1, EIO);
  EXPECT_EQ(devices[0].writeOutputs(0x99, kDo), -5);
  EXPECT_EQ(chips[0]->outputs(), 0x11);
  EXPECT_EQ(devices[0].writeOutputs(0x99, kDo), 0);
  EXPECT_EQ(chips[0]->outputs(), 0x99);
}

/// An expander whose outputs QA to QC are the address of a decoder; Y0 and Y1 select converters
/// that see 1 V and 2 V of 5.
class ExpanderBoard : public LatchedBoard {
 protected:
  void SetUp() override {
    auto& decoder = board.add<vboard::Decoder3to8>("decoder");
    board.attach(chip, spi);
    board.connect(chip.pin("RCLK"), gpio.line(kLatch));
    const char* const names[][2] = {{"QA", "A0"}, {"QB", "A1"}, {"QC", "A2"}};
    for (const auto& name : names) {
      board.connect(chip.pin(name[0]), decoder.pin(name[1]));
    }
    for (int i = 0; i < 2; ++i) {
      adcs[i] = &board.add<vboard::Mcp3201>("adc" + std::to_string(i));
      adcs[i]->setInput(i + 1.0006);
      board.attach(*adcs[i], spi);
      board.connect(adcs[i]->pin("CS"), decoder.pin("Y" + std::to_string(i)));
    }
    start();
    expander.setBus(&bus);
    expander.setLatchPin(&latch);
    for (auto& device : devices) {
      device.setBus(&bus);
    }
  }

  /// What a program does first; what happened before doesn't count.
  void bringToNone() {
    ASSERT_EQ(expander.writeOutputs(kNone, kDo), 0);
    board.clearViolations();
  }

  void attach(CHC595ChipSelectDevice::eChipSelectTransferMode mode) {
    for (int i = 0; i < 2; ++i) {
      expander.attachSpiDevice(&devices[i], static_cast<uint8_t>(i), mode);
    }
  }

  uint16_t read(int i) {
    uint16_t code = 0xFFFF;
    EXPECT_EQ(devices[i].readInput(&code, kDo), 0);
    return code;
  }

  /// Which converters see their select low.
  std::string selected() const {
    std::string list;
    for (int i = 0; i < 2; ++i) {
      list += adcs[i]->listening() ? std::to_string(i) : "";
    }
    return list;
  }

  vboard::Hc595& chip = board.add<vboard::Hc595>("expander");
  vboard::Mcp3201* adcs[2] = {};
  CHC595ChipSelectDevice expander;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 devices[2];
};

TEST_F(ExpanderBoard, ConvertersAtTwoAddressesAreReadExplicitly) {
  bringToNone();
  attach(kExplicit);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(read(0), 819);
    EXPECT_EQ(selected(), "");
    EXPECT_EQ(read(1), 1638);
    EXPECT_EQ(selected(), "");
  }
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(ExpanderBoard, EachExplicitStepStandsOnTheWires) {
  bringToNone();
  attach(kExplicit);
  EXPECT_EQ(devices[1].enableChipSelect(true), 0);
  EXPECT_EQ(chip.outputs(), 1);
  EXPECT_EQ(selected(), "1");
  EXPECT_EQ(devices[1].enableChipSelect(false), 0);
  EXPECT_EQ(chip.outputs(), kNone);
  EXPECT_EQ(selected(), "");
  EXPECT_EQ(adcs[1]->conversions(), 1U) << "deselecting runs the converter's transfer";
  EXPECT_EQ(adcs[0]->conversions(), 0U);
}

TEST_F(ExpanderBoard, ADeselectedConverterHasConvertedTwice) {
  bringToNone();
  attach(kExplicit);
  read(0);
  EXPECT_EQ(adcs[0]->conversions(), 1U) << "one select: the second word only repeats the first";
}

TEST_F(ExpanderBoard, ImplicitlyNothingIsSelectedUntilSomebodyLatches) {
  bringToNone();
  attach(kImplicit);
  read(0);
  EXPECT_EQ(adcs[0]->conversions(), 0U);
  EXPECT_EQ(chip.outputs(), kNone);
}

TEST_F(ExpanderBoard, ImplicitlyAConverterIsReadBetweenTwoLatches) {
  bringToNone();
  attach(kImplicit);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(devices[i].enableChipSelect(true), 0);
    EXPECT_EQ(selected(), "") << "only stored";
    EXPECT_EQ(expander.transferData(kDo), 0);
    EXPECT_EQ(selected(), std::to_string(i));
    EXPECT_EQ(read(i), i == 0 ? 819 : 1638);
    EXPECT_EQ(selected(), std::to_string(i)) << "the none address waits";
    EXPECT_EQ(expander.transferData(kDo), 0);
    EXPECT_EQ(selected(), "");
  }
  EXPECT_THAT(violations(), IsEmpty());
}

TEST_F(ExpanderBoard, AFreshOneThrowsOnItsFirstSelectionWithoutADeviceAtAddressZero) {
  expander.attachSpiDevice(&devices[1], 1, kExplicit);
  uint16_t code = 0;
  EXPECT_THROW(devices[1].readInput(&code, kDo), std::out_of_range);
  EXPECT_EQ(gpio.level(kLatch), Level::Low);
  EXPECT_TRUE(bus.transferMutex().try_lock());
  bus.transferMutex().unlock();
  EXPECT_EQ(spi.statistics().transfers, 0U);
}

TEST_F(ExpanderBoard, AFreshOneWithADeviceAtAddressZeroReadsTheOther) {
  attach(kExplicit);
  EXPECT_EQ(devices[1].enableChipSelect(true), 0);
  EXPECT_EQ(chip.outputs(), 1);
}

TEST_F(ExpanderBoard, TheFirstDeviceKeepsAnAddressThatIsAttachedTwice) {
  bringToNone();
  attach(kExplicit);
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 late;
  late.setBus(&bus);
  EXPECT_EQ(expander.attachSpiDevice(&late, 1, kExplicit), 0);
  EXPECT_EQ(read(1), 1638);
  EXPECT_EQ(read(0), 819);
}

/// A plain device of another mode and half the speed, in a managed transfer.
struct SlowDevice : CLinuxSpiDevice {
  uint8_t byte = 0x3C;
  SlowDevice() : CLinuxSpiDevice(nullptr, nullptr, nullptr) {
    m_TransferSettings.ioc_transfer.tx_buf = reinterpret_cast<uintptr_t>(&byte);
    m_TransferSettings.ioc_transfer.len = 1;
    m_TransferSettings.ioc_transfer.speed_hz = 400000;
    m_TransferSettings.bus_settings.Mode = 3;
  }
};

/// Mode, speed, first word and selected address of each transfer on the wires.
class TransferList : public vboard::Observer {
 public:
  explicit TransferList(vboard::Board& board, const vboard::Hc595& chip)
      : board_(board), chip_(chip) {
    board_.addObserver(*this);
  }
  ~TransferList() override { board_.removeObserver(*this); }
  void onTransfer(const vboard::SpiRecord& record) override {
    char text[64];
    std::snprintf(text, sizeof(text), "mode %d %u kHz %02x at %d", record.format.mode,
                  record.format.speedHz / 1000, record.mosi[0], chip_.outputs());
    list.emplace_back(text);
  }
  std::vector<std::string> list;

 private:
  vboard::Board& board_;
  const vboard::Hc595& chip_;
};

TEST_F(ExpanderBoard, AManagedTransferOfAnotherModeRunsInTheExpandersAndKeepsTheLowerSpeed) {
  bringToNone();
  SlowDevice slow;
  slow.setBus(&bus);
  expander.attachSpiDevice(&slow, 4, kExplicit);
  const TransferList seen(board, chip);
  EXPECT_EQ(slow.executeManagedTransfer(Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_THAT(seen.list, ElementsAre("mode 3 400 kHz ff at 7",    // settling
                                     "mode 0 400 kHz 04 at 7",    // the address
                                     "mode 0 400 kHz 3c at 4",    // the device, selected
                                     "mode 3 400 kHz 3c at 4",    // once more
                                     "mode 0 400 kHz 07 at 4"));  // the none address
  EXPECT_EQ(chip.outputs(), kNone);
}

/// An input register whose CLK INH is its select, behind an expander.
class InputsBehindExpander : public LatchedBoard {
 protected:
  void SetUp() override {
    auto& chip = board.add<vboard::Hc595>("expander");
    auto& decoder = board.add<vboard::Decoder3to8>("decoder");
    board.connect(chip.clockPin(), spi.sclk());
    board.connect(chip.pin("SER"), spi.mosi());
    board.connect(chip.pin("RCLK"), gpio.line(kLatch));
    board.connect(chip.pin("QA"), decoder.pin("A0"));
    board.connect(chip.pin("QB"), decoder.pin("A1"));
    board.connect(chip.pin("QC"), decoder.pin("A2"));
    board.attach(inputs, spi);
    board.connect(inputs.pin("CLK INH"), decoder.pin("Y2"));
    board.connect(inputs.pin("SH/LD"), gpio.line(23));
    start();
    ASSERT_EQ(load.connect(), 0);
    expander.setBus(&bus);
    expander.setLatchPin(&latch);
    ASSERT_EQ(expander.writeOutputs(kNone, kDo), 0);
    board.clearViolations();
    device.setBus(&bus);
    device.setLatchPin(&load);
  }
  vboard::Lv165a& inputs = board.add<vboard::Lv165a>("inputs");
  Orv::CLinuxIoPin load{23, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT};
  CHC595ChipSelectDevice expander;
  Varnel::CSpiDigIn8Bit_LV165A device;
};

TEST_F(InputsBehindExpander, AreReadExplicitlyAndStaySelectedUntilDeselected) {
  expander.attachSpiDevice(&device, 2, kExplicit);
  for (const uint8_t byte : {uint8_t{0xA5}, uint8_t{0x5A}}) {
    inputs.setInputs(byte);
    EXPECT_EQ(device.readInputs(kDo), byte);
    EXPECT_FALSE(inputs.pin("CLK INH").high());
  }
  EXPECT_THAT(violations(), IsEmpty());
  EXPECT_EQ(device.enableChipSelect(false), 0);
  EXPECT_TRUE(inputs.pin("CLK INH").high());
  EXPECT_THAT(violations(), ElementsAre("inhibit-while-clock-low"))
      << "one clock too many, which the next load makes good";
}

TEST_F(InputsBehindExpander, AreNotClockedImplicitly) {
  expander.attachSpiDevice(&device, 2, kImplicit);
  inputs.setInputs(0xA5);
  EXPECT_EQ(device.readInputs(kDo), 0xFF) << "eight times input H";
}

/// Selects straight from the outputs, active low: no decoder.
TEST_F(LatchedBoard, OneOutputPerChipSelectsAsWell) {
  auto& chip = board.add<vboard::Hc595>("expander");
  board.attach(chip, spi);
  board.connect(chip.pin("RCLK"), gpio.line(kLatch));
  vboard::Mcp3201* adcs[2];
  const char* const outputs[] = {"QA", "QB"};
  for (int i = 0; i < 2; ++i) {
    adcs[i] = &board.add<vboard::Mcp3201>("adc" + std::to_string(i));
    adcs[i]->setInput(i + 1.0006);
    board.attach(*adcs[i], spi);
    board.connect(adcs[i]->pin("CS"), chip.pin(outputs[i]));
  }
  start();
  CHC595ChipSelectDevice expander;
  expander.setBus(&bus);
  expander.setLatchPin(&latch);
  expander.setCsAddressNone(0x03);
  ASSERT_EQ(expander.writeOutputs(0x03, kDo), 0);
  board.clearViolations();
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 devices[2];
  const uint8_t addresses[] = {0x02, 0x01};
  const uint16_t codes[] = {819, 1638};
  for (int i = 0; i < 2; ++i) {
    devices[i].setBus(&bus);
    expander.attachSpiDevice(&devices[i], addresses[i], kExplicit);
  }
  for (int i = 0; i < 2; ++i) {
    uint16_t code = 0;
    EXPECT_EQ(devices[i].readInput(&code, kDo), 0);
    EXPECT_EQ(code, codes[i]);
  }
  EXPECT_THAT(violations(), IsEmpty());
}

}  // namespace
