// SPDX-License-Identifier: MIT
#include "tool/Interrupt.h"

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <vector>

using tool::Interrupt;
using tool::repeat;
using tool::Repetition;

namespace {

std::vector<uint64_t> rounds(Repetition repetition, uint64_t raiseIn, int signal) {
  const Interrupt interrupt;
  std::vector<uint64_t> seen;
  repeat(repetition, interrupt, [&](uint64_t round) {
    if (round == raiseIn) {
      std::raise(signal);
    }
    seen.push_back(round);
  });
  return seen;
}

TEST(Repetition, RunsAsOftenAsAsked) {
  EXPECT_THAT(rounds({.count = 3}, 0, 0), testing::ElementsAre(1, 2, 3));
}

TEST(Repetition, ASignalEndsItAfterTheRoundAtHand) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // Whoever runs the tests may ignore hangups, which the tool then does too.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    struct sigaction former {};
    sigaction(signal, &standard, &former);
    EXPECT_THAT(rounds({.count = 0}, 2, signal), testing::ElementsAre(1, 2));
    EXPECT_THAT(rounds({.count = 1000}, 2, signal), testing::ElementsAre(1, 2));
    sigaction(signal, &former, nullptr);
  }
}

TEST(Repetition, ASignalCutsThePauseShort) {
  // A day's pause: the test would not end without it.
  EXPECT_THAT(rounds({.count = 0, .intervalMs = 86400000}, 1, SIGINT), testing::ElementsAre(1));
}

TEST(Interrupt, CountsSignalsAndSleepsThroughThoseThatAreKnown) {
  const Interrupt interrupt;
  EXPECT_EQ(interrupt.count(), 0U);
  std::raise(SIGINT);
  std::raise(SIGTERM);
  EXPECT_EQ(interrupt.count(), 2U);
  // A day, unless there is one more than is known.
  interrupt.sleep(86400000, 1);
  const auto before = std::chrono::steady_clock::now();
  interrupt.sleep(60, 2);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(60));
}

TEST(Interrupt, PutsTheFormerHandlersBack) {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction former {};
  sigaction(SIGTERM, &ignore, &former);
  { const Interrupt interrupt; }
  struct sigaction after {};
  sigaction(SIGTERM, &former, &after);
  EXPECT_EQ(after.sa_handler, SIG_IGN);
}

TEST(Interrupt, AHangupThatWasIgnoredStaysIgnored) {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction former {};
  sigaction(SIGHUP, &ignore, &former);
  {
    const Interrupt interrupt;
    std::raise(SIGHUP);
    EXPECT_FALSE(interrupt.requested());
  }
  sigaction(SIGHUP, &former, nullptr);
}

}  // namespace
