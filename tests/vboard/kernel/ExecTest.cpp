// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include "tests/vboard/kernel/SpiBench.h"

using bench::SpiBench;

namespace {

/// Whether a descriptor is open in a program that this one starts.
bool openInAnotherProgram(int descriptor) {
  const std::string command = "test -e /proc/self/fd/" + std::to_string(descriptor);
  std::string shell = "sh";
  std::string option = "-c";
  std::string text = command;
  char* arguments[] = {shell.data(), option.data(), text.data(), nullptr};
  pid_t child = 0;
  if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ) != 0) {
    ADD_FAILURE() << "can't start a program";
    return false;
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Exec, HonoursTheCloseOnExecOfNodes) {
  const SpiBench bench;
  const int inherited = open("/dev/spidev1.0", O_RDWR);
  const int cut = open("/dev/spidev1.0", O_RDWR | O_CLOEXEC);
  const int copy = fcntl(inherited, F_DUPFD_CLOEXEC, 0);
  EXPECT_TRUE(openInAnotherProgram(inherited));
  EXPECT_FALSE(openInAnotherProgram(cut));
  EXPECT_FALSE(openInAnotherProgram(copy));
  EXPECT_EQ(fcntl(inherited, F_SETFD, FD_CLOEXEC), 0);
  EXPECT_FALSE(openInAnotherProgram(inherited));
  EXPECT_EQ(bench.kernel.openDescriptors(), 3);
  for (const int descriptor : {inherited, cut, copy}) {
    close(descriptor);
  }
}

}  // namespace
