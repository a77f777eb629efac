// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/vboard/gpio/Answers.h"
#include "vboard/vboard.h"

namespace {

// Recorded from Linux 6.1.176 (Debian's armhf kernel) on an emulated machine with a PL061
// controller, by the same function.
constexpr const char* kLinux =
#include "tests/vboard/gpio/LinuxAnswers.inc"
    ;

TEST(GpioNode, AnswersEveryQuestionAsLinuxDoes) {
  ASSERT_TRUE(vboard::interposed());
  vboard::Board board;
  board.addGpioChip({.lines = 8});
  const vboard::Kernel kernel(board);
  EXPECT_EQ(gpioAnswers("/dev/gpiochip0"), kLinux);
}

}  // namespace
