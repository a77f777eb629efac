// SPDX-License-Identifier: MIT
// What a pin number means: counting lines and pin maps, on the virtual board.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "orv/PinMap.h"
#include "tests/orv/CallFaults.h"
#include "vboard/board/Board.h"
#include "vboard/kernel/Kernel.h"

namespace {

using Orv::CLinuxIoPin;
using Orv::CPinMap;
using Orv::OUTPUT_PIN;
using Orv::PIN_MODE_HW;
using vboard::GpioChip;

/// Three chips of 32, 16 and 8 lines; the last two carry one label.
class PinNumber : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(vboard::interposed()); }
  void TearDown() override {
    CPinMap::uninstall();
    CallFaults::clear();
  }

  /// Connects an output, and says where it appeared: "gpiochip1:15", or the code.
  std::string connect(unsigned int number) {
    CLinuxIoPin pin(number, OUTPUT_PIN, PIN_MODE_HW);
    if (const TErrCode code = pin.connect(); code != 0) {
      return std::to_string(code);
    }
    std::string found;
    for (GpioChip* const chip : {&first, &second, &third}) {
      for (int line = 0; line < chip->lineCount(); ++line) {
        if (chip->isOutput(line)) {
          found += chip->name() + ":" + std::to_string(line);
          chip->setInput(line);
        }
      }
    }
    return found;
  }

  vboard::Board board{{.callCost = {}, .seed = 1}};
  GpioChip& first = board.addGpioChip(
      {.label = "soc", .lines = 32, .lineNames = {{4, "GPIO4"}, {9, "TWICE"}}, .reserved = {}});
  GpioChip& second = board.addGpioChip(
      {.label = "expander", .lines = 16, .lineNames = {{15, "CS_ADC"}}, .reserved = {}});
  GpioChip& third = board.addGpioChip(
      {.label = "expander", .lines = 8, .lineNames = {{1, "TWICE"}}, .reserved = {}});
  vboard::Kernel kernel{board};
};

TEST_F(PinNumber, CountsTheLinesOfAllChips) {
  EXPECT_EQ(connect(0), "gpiochip0:0");
  EXPECT_EQ(connect(31), "gpiochip0:31");
  EXPECT_EQ(connect(32), "gpiochip1:0");
  EXPECT_EQ(connect(47), "gpiochip1:15");
  EXPECT_EQ(connect(48), "gpiochip2:0");
  EXPECT_EQ(connect(55), "gpiochip2:7");
  EXPECT_EQ(connect(56), "-22");
}

TEST_F(PinNumber, AChipThatMayNotBeOpenedStopsTheCount) {
  kernel.denyNode("/dev/gpiochip0", true);
  EXPECT_EQ(connect(47), "-13");
  kernel.denyNode("/dev/gpiochip0", false);
  kernel.denyNode("/dev/gpiochip2", true);
  EXPECT_EQ(connect(47), "gpiochip1:15");
}

TEST_F(PinNumber, AMissingChipIsNotCounted) {
  kernel.removeNode("/dev/gpiochip0");
  EXPECT_EQ(connect(15), "gpiochip1:15");
}

TEST_F(PinNumber, ASymbolicLinkIsNotCounted) {
  CallFaults::showAsLink("/dev/gpiochip0");
  EXPECT_EQ(connect(15), "gpiochip1:15");
}

TEST_F(PinNumber, AMapReplacesTheCount) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip1", 15), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "gpiochip1:15");
  EXPECT_EQ(connect(2), "-22");
  EXPECT_EQ(connect(47), "-22");
  CPinMap::uninstall();
  EXPECT_EQ(connect(1), "gpiochip0:1");
}

TEST_F(PinNumber, AMapMayLeaveOtherPinsToTheCount) {
  CPinMap map(Orv::UNMAPPED_DEFAULT_NUMBER);
  ASSERT_EQ(map.addLine(1, "gpiochip1", 15), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "gpiochip1:15");
  EXPECT_EQ(connect(2), "gpiochip0:2");
  EXPECT_EQ(connect(56), "-22");
}

TEST_F(PinNumber, AnEmptyMapKnowsNoPin) {
  CPinMap::install(CPinMap());
  EXPECT_EQ(connect(0), "-22");
}

TEST_F(PinNumber, ARangeCountsFromItsFirstLine) {
  CPinMap map;
  ASSERT_EQ(map.addRange(100, 4, "gpiochip1", 10), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(99), "-22");
  EXPECT_EQ(connect(100), "gpiochip1:10");
  EXPECT_EQ(connect(103), "gpiochip1:13");
  EXPECT_EQ(connect(104), "-22");
}

TEST_F(PinNumber, AChipMayBeNamedByNameLabelOrPath) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip1", 3), 0);
  ASSERT_EQ(map.addLine(2, "soc", 3), 0);
  ASSERT_EQ(map.addLine(3, "/dev/gpiochip2", 3), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "gpiochip1:3");
  EXPECT_EQ(connect(2), "gpiochip0:3");
  EXPECT_EQ(connect(3), "gpiochip2:3");
}

TEST_F(PinNumber, AChipThatIsNotThereIsMissing) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip7", 3), 0);
  ASSERT_EQ(map.addLine(2, "no such label", 3), 0);
  ASSERT_EQ(map.addLine(3, "/dev/nowhere", 3), 0);
  ASSERT_EQ(map.addLine(4, "/dev/null", 3), 0);
  ASSERT_EQ(map.addLine(5, "gpiochip1x", 3), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "-19");
  EXPECT_EQ(connect(2), "-19");
  EXPECT_EQ(connect(3), "-19");
  EXPECT_EQ(connect(4), "-19");
  EXPECT_EQ(connect(5), "-19");
}

TEST_F(PinNumber, ALabelOfTwoChipsNamesNeither) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "expander", 3), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "-22");
}

TEST_F(PinNumber, ALineBeyondItsChipIsUnknown) {
  CPinMap map;
  ASSERT_EQ(map.addRange(0, 10, "gpiochip2"), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(7), "gpiochip2:7");
  EXPECT_EQ(connect(8), "-22");
}

TEST_F(PinNumber, ALineIsFoundByNameOnAnyChip) {
  CPinMap map;
  ASSERT_EQ(map.addLineName(1, "GPIO4"), 0);
  ASSERT_EQ(map.addLineName(2, "CS_ADC"), 0);
  ASSERT_EQ(map.addLineName(3, "CS_"), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "gpiochip0:4");
  EXPECT_EQ(connect(2), "gpiochip1:15");
  EXPECT_EQ(connect(3), "-22");
}

TEST_F(PinNumber, ALineNameThatStandsTwiceNamesNeither) {
  CPinMap map;
  ASSERT_EQ(map.addLineName(1, "TWICE"), 0);
  CPinMap::install(map);
  EXPECT_EQ(connect(1), "-22");
}

TEST_F(PinNumber, AChipThatCannotBeSearchedMattersOnlyWhenNothingIsFound) {
  CPinMap map;
  ASSERT_EQ(map.addLineName(1, "CS_ADC"), 0);
  ASSERT_EQ(map.addLineName(2, "GPIO4"), 0);
  ASSERT_EQ(map.addLine(3, "soc", 1), 0);
  CPinMap::install(map);
  kernel.denyNode("/dev/gpiochip0", true);
  EXPECT_EQ(connect(1), "gpiochip1:15");
  EXPECT_EQ(connect(2), "-13");
  EXPECT_EQ(connect(3), "-13");
  kernel.denyNode("/dev/gpiochip0", false);
  CallFaults::failLineInfo(1, EIO);
  EXPECT_EQ(connect(2), "-5");
}

TEST_F(PinNumber, SearchingFailsWhenDevicesCannotBeListed) {
  CPinMap map;
  ASSERT_EQ(map.addLineName(1, "CS_ADC"), 0);
  CPinMap::install(map);
  CallFaults::failOpendir(1, EACCES);
  EXPECT_EQ(connect(1), "-13");
}

TEST_F(PinNumber, ALineThatCannotBeAskedForFailsToConnect) {
  CallFaults::failLineInfo(1, EIO);
  const std::string code = connect(3);
  // Only one generation of the GPIO library asks before it requests.
  EXPECT_TRUE(code == "-5" || code == "gpiochip0:3") << code;
}

TEST_F(PinNumber, ANewMapLeavesConnectedPinsAlone) {
  CLinuxIoPin pin(1, OUTPUT_PIN, PIN_MODE_HW);
  ASSERT_EQ(pin.connect(), 0);
  ASSERT_EQ(pin.write(Orv::HIGH), 0);
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip1", 15), 0);
  CPinMap::install(map);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_EQ(first.level(1), vboard::Level::High);
  pin.configure(1, OUTPUT_PIN, PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), 0);
  EXPECT_TRUE(second.isOutput(15));
}

TEST_F(PinNumber, MapsMayBeInstalledWhilePinsConnect) {
  std::atomic<bool> done{false};
  std::thread installer([&done] {
    while (!done) {
      CPinMap map(Orv::UNMAPPED_DEFAULT_NUMBER);
      EXPECT_EQ(map.addLine(1, "gpiochip1", 15), 0);
      CPinMap::install(map);
      CPinMap::uninstall();
    }
  });
  for (int round = 0; round < 200; ++round) {
    CLinuxIoPin pin(1, OUTPUT_PIN, PIN_MODE_HW);
    EXPECT_EQ(pin.connect(), 0);
  }
  done = true;
  installer.join();
}

}  // namespace
