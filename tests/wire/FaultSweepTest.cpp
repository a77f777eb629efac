// SPDX-License-Identifier: MIT
#include "tests/wire/FaultSweep.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "tests/wire/Selector.h"

namespace {

using wire::FaultSweep;

struct Rig {
  wire::Wire wire;
  wire::Selector selector{"chip"};
  std::recursive_mutex busMutex;
  bool stuck = false;

  std::recursive_mutex& mutex() { return busMutex; }
};

/// Selects, opens, and reports a failed open.
TErrCode selectAndOpen(Rig& rig) {
  if (rig.stuck) {
    return -1;
  }
  if (const TErrCode code = rig.selector.enable(true); code != 0) {
    return code;
  }
  if (::open("/dev/spidev0.0", O_RDWR) < 0) {
    const int error = errno;
    std::perror("can't open device");
    return -error;
  }
  return 0;
}

const std::vector<wire::Step> kSteps = {
    {"select(chip, true) = 0"}, {"open(\"/dev/spidev0.0\", O_RDWR) = 7", "can't open device"}};

/// The messages of the failures that a sweep reports.
std::vector<std::string> sweep(FaultSweep<Rig>::Operation operation,
                               const std::vector<wire::Step>& steps,
                               FaultSweep<Rig>::Check check = {}) {
  testing::TestPartResultArray results;
  {
    testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    FaultSweep<Rig>(operation).leaves(check).run(steps);
  }
  std::vector<std::string> messages;
  for (int i = 0; i < results.size(); ++i) {
    messages.emplace_back(results.GetTestPartResult(i).message());
  }
  return messages;
}

size_t failuresAbout(const std::vector<std::string>& messages, const std::string& text) {
  size_t count = 0;
  for (const std::string& message : messages) {
    count += message.find(text) != std::string::npos ? 1U : 0U;
  }
  return count;
}

TEST(FaultSweep, PassesWhenEveryFailureIsHandledAsSaid) {
  int checked = 0;
  FaultSweep<Rig>(selectAndOpen)
      .leaves([&checked](Rig& rig, const std::string& line) {
        ++checked;
        EXPECT_EQ(rig.selector.selected(), line != "select(chip, true) = 0");
      })
      .run(kSteps);
  EXPECT_EQ(checked, 6) << "two calls, three errors";
}

/// Selects without looking at the result, then opens.
TErrCode selectAnywayAndOpen(Rig& rig) {
  rig.selector.enable(true);
  return ::open("/dev/spidev0.0", O_RDWR) < 0 ? -errno : 0;
}

TEST(FaultSweep, PassesWhenAFailureSaidToBeIgnoredIs) {
  FaultSweep<Rig>(selectAnywayAndOpen)
      .run({{"select(chip, true) = 0", "", {}, true}, {"open(\"/dev/spidev0.0\", O_RDWR) = 7"}});
}

TEST(FaultSweep, FailsWhenAFailureSaidToBeIgnoredIsNot) {
  EXPECT_EQ(
      failuresAbout(sweep(selectAndOpen, {{"select(chip, true) = 0", "", {}, true}, kSteps[1]}),
                    "operation_(rig)"),
      3U);
  EXPECT_EQ(
      failuresAbout(sweep(selectAnywayAndOpen, {{"select(chip, true) = 0"}, {kSteps[1].line}}),
                    "-error"),
      3U);
}

TEST(FaultSweep, FailsForAWrongGoodJournal) {
  EXPECT_EQ(sweep(selectAndOpen, {{"select(chip, true) = 0"}}).size(), 1U);
}

TEST(FaultSweep, FailsForAWrongCode) {
  const auto operation = [](Rig& rig) { return selectAndOpen(rig) == 0 ? 0 : -7; };
  EXPECT_EQ(sweep(operation, kSteps).size(), 6U);
}

TEST(FaultSweep, FailsForAStepAfterTheFailure) {
  const auto operation = [](Rig& rig) {
    const TErrCode code = rig.selector.enable(true);
    const TErrCode second = rig.selector.enable(false);
    return code != 0 ? code : second;
  };
  EXPECT_EQ(sweep(operation, {{"select(chip, true) = 0"}, {"select(chip, false) = 0"}}).size(), 3U);
}

TEST(FaultSweep, FailsForAMissingReport) {
  EXPECT_EQ(sweep(selectAndOpen, {{"select(chip, true) = 0", "", {"a.cpp f"}},
                                  {"open(\"/dev/spidev0.0\", O_RDWR) = 7", "can't open device"}})
                .size(),
            3U);
  EXPECT_EQ(sweep(selectAndOpen, {{"select(chip, true) = 0"},
                                  {"open(\"/dev/spidev0.0\", O_RDWR) = 7", "another text"}})
                .size(),
            3U);
}

TEST(FaultSweep, FailsForAMutexLeftLocked) {
  const auto operation = [](Rig& rig) {
    const TErrCode code = selectAndOpen(rig);
    if (code != 0) {
      rig.busMutex.lock();
    }
    return code;
  };
  const auto unlock = [](Rig& rig, const std::string&) { rig.busMutex.unlock(); };
  EXPECT_EQ(failuresAbout(sweep(operation, kSteps, unlock), "isFree"), 6U);
}

TEST(FaultSweep, FailsWhenTheOperationNeverWorksAgain) {
  const auto operation = [](Rig& rig) {
    const TErrCode code = selectAndOpen(rig);
    rig.stuck = code != 0;
    return code;
  };
  EXPECT_EQ(failuresAbout(sweep(operation, kSteps), "after recovery"), 6U);
}

TEST(FaultSweep, FailsWhenWhatIsLeftDiffers) {
  const auto check = [](Rig& rig, const std::string&) { EXPECT_FALSE(rig.selector.selected()); };
  EXPECT_EQ(sweep(selectAndOpen, kSteps, check).size(), 3U);
}

TEST(FaultSweep, FailsWhenNothingCanFail) {
  EXPECT_EQ(sweep([](Rig&) { return 0; }, {}).size(), 1U);
}

}  // namespace
