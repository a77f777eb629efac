// SPDX-License-Identifier: MIT
// Building maps; what they mean to a pin is tested on the virtual board.
#include "orv/PinMap.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <utility>

#include "orv/LinuxIoPin.h"
#include "tests/orv/AllocationFaults.h"

namespace {

using Orv::CPinMap;

TEST(PinMap, DisjointEntriesAreTaken) {
  CPinMap map;
  EXPECT_EQ(map.addRange(10, 10, "gpiochip0"), 0);
  EXPECT_EQ(map.addRange(20, 1, "gpiochip1", 7), 0);
  EXPECT_EQ(map.addLine(9, "/dev/gpiochip2", 3), 0);
  EXPECT_EQ(map.addLineName(0, "GPIO17"), 0);
  EXPECT_EQ(map.addLineName(UINT_MAX, "GPIO18"), 0);
}

TEST(PinMap, OverlapsAreRefusedAndChangeNothing) {
  CPinMap map;
  ASSERT_EQ(map.addRange(10, 10, "gpiochip0"), 0);
  EXPECT_EQ(map.addRange(1, 10, "gpiochip1"), -22);
  EXPECT_EQ(map.addRange(19, 5, "gpiochip1"), -22);
  EXPECT_EQ(map.addRange(12, 2, "gpiochip1"), -22);
  EXPECT_EQ(map.addRange(0, 100, "gpiochip1"), -22);
  EXPECT_EQ(map.addLine(10, "gpiochip1", 0), -22);
  EXPECT_EQ(map.addLineName(19, "GPIO17"), -22);
  // The neighbours are still free.
  EXPECT_EQ(map.addRange(0, 10, "gpiochip1"), 0);
  EXPECT_EQ(map.addRange(20, 80, "gpiochip1"), 0);
}

TEST(PinMap, EmptyRangesAndNamesAreRefused) {
  CPinMap map;
  EXPECT_EQ(map.addRange(10, 0, "gpiochip0"), -22);
  EXPECT_EQ(map.addRange(10, 1, ""), -22);
  EXPECT_EQ(map.addLine(10, "", 0), -22);
  EXPECT_EQ(map.addLineName(10, ""), -22);
  EXPECT_EQ(map.addLine(10, "gpiochip0", 0), 0);
}

TEST(PinMap, NumbersMayReachButNotPassTheLargest) {
  CPinMap map;
  EXPECT_EQ(map.addRange(UINT_MAX, 2, "gpiochip0"), -22);
  EXPECT_EQ(map.addRange(2, UINT_MAX, "gpiochip0"), -22);
  EXPECT_EQ(map.addRange(0, 2, "gpiochip0", UINT_MAX), -22);
  EXPECT_EQ(map.addRange(UINT_MAX - 1, 2, "gpiochip0", UINT_MAX - 1), 0);
  EXPECT_EQ(map.addRange(0, UINT_MAX - 1, "gpiochip0"), 0);
}

TEST(PinMap, CopiesAreIndependent) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip0", 1), 0);
  CPinMap copy(map);
  EXPECT_EQ(copy.addLine(1, "gpiochip0", 1), -22);
  EXPECT_EQ(copy.addLine(2, "gpiochip0", 2), 0);
  EXPECT_EQ(map.addLine(2, "gpiochip0", 3), 0);
  copy = map;
  EXPECT_EQ(copy.addLine(2, "gpiochip0", 3), -22);
}

TEST(PinMap, MovingLeavesNoEntriesBehind) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip0", 1), 0);
  CPinMap taken(std::move(map));
  EXPECT_EQ(taken.addLine(1, "gpiochip0", 1), -22);
  EXPECT_EQ(map.addLine(1, "gpiochip0", 1), 0);  // NOLINT(bugprone-use-after-move)
  CPinMap assigned;
  assigned = std::move(taken);
  EXPECT_EQ(assigned.addLine(1, "gpiochip0", 1), -22);
  EXPECT_EQ(taken.addLine(1, "gpiochip0", 1), 0);  // NOLINT(bugprone-use-after-move)
}

TEST(PinMap, PinsOutsideAreUnknownUnlessAskedOtherwise) {
  EXPECT_EQ(CPinMap().unmappedPins(), Orv::UNMAPPED_UNKNOWN);
  CPinMap map(Orv::UNMAPPED_DEFAULT_NUMBER);
  EXPECT_EQ(map.unmappedPins(), Orv::UNMAPPED_DEFAULT_NUMBER);
  EXPECT_EQ(CPinMap(map).unmappedPins(), Orv::UNMAPPED_DEFAULT_NUMBER);
  CPinMap assigned;
  assigned = map;
  EXPECT_EQ(assigned.unmappedPins(), Orv::UNMAPPED_DEFAULT_NUMBER);
}

TEST(PinMap, APinOutsideTheInstalledMapIsUnknownOnAnyMachine) {
  CPinMap map;
  ASSERT_EQ(map.addLine(1, "gpiochip0", 1), 0);
  CPinMap::install(map);
  Orv::CLinuxIoPin pin(2, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
  EXPECT_EQ(pin.connect(), -22);
  CPinMap::uninstall();
}

TEST(PinMap, RunningOutOfMemoryLeavesTheMapAsItWas) {
  const std::string chip = "a chip whose label is too long for a string without heap memory";
  CPinMap map;
  ASSERT_EQ(map.addLine(1, chip, 1), 0);
  int failures = 0;
  for (int n = 1;; ++n) {
    ASSERT_LT(n, 100);
    CPinMap attempt(map);
    const AllocationFault fault(n);
    const TErrCode code = attempt.addLine(2, chip, 2);
    if (!fault.hit()) {
      EXPECT_EQ(code, 0);
      break;
    }
    ++failures;
    EXPECT_EQ(code, -12);
    const AllocationFault none(0);
    EXPECT_EQ(attempt.addLine(2, chip, 2), 0);
  }
  EXPECT_GE(failures, 3);

  for (int n = 1;; ++n) {
    ASSERT_LT(n, 100);
    CPinMap attempt(map);
    const AllocationFault fault(n);
    const TErrCode code = attempt.addLineName(2, chip);
    EXPECT_EQ(code, fault.hit() ? -12 : 0);
    if (!fault.hit()) {
      break;
    }
  }
}

}  // namespace
