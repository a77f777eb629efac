// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "tests/vboard/kernel/SpiBench.h"

// What fortified programs and those with large files call, on every word size.
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int directory, const char* path, int flags);
int __openat64_2(int directory, const char* path, int flags);
ssize_t __read_chk(int descriptor, void* buffer, size_t size, size_t space);
#ifndef __LP64__
int __ioctl_time64(int descriptor, unsigned long request, ...);
int __fcntl_time64(int descriptor, int command, ...);
#endif
}

using bench::answer;
using bench::get;
using bench::set;
using bench::SpiBench;

namespace {

class Descriptors : public ::testing::Test {
 protected:
  void SetUp() override {
    descriptor_ = open("/dev/spidev1.0", O_RDWR);
    ASSERT_GE(descriptor_, 0);
  }
  void TearDown() override { close(descriptor_); }

  static bool isNode(int descriptor) {
    uint8_t mode = 0;
    return ioctl(descriptor, SPI_IOC_RD_MODE, &mode) == 0;
  }

  SpiBench bench_;
  int descriptor_ = -1;
};

/// Runs something in a child process; its exit code.
template <typename Body>
int inChild(pid_t child, Body body) {
  if (child == 0) {
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Descriptors, EveryWayToOpenReachesTheNode) {
  const int directory = open("/dev", O_RDONLY | O_DIRECTORY);
  const std::vector<int> opened = {
      open("/dev/spidev1.0", O_RDWR),
      open64("/dev/spidev1.0", O_RDWR),
      openat(AT_FDCWD, "/dev/spidev1.0", O_RDWR),
      openat64(AT_FDCWD, "/dev/spidev1.0", O_RDWR),
      openat(directory, "spidev1.0", O_RDWR),
      creat("/dev/spidev1.0", 0600),
      creat64("/dev/spidev1.0", 0600),
      __open_2("/dev/spidev1.0", O_RDWR),
      __open64_2("/dev/spidev1.0", O_RDWR),
      __openat_2(AT_FDCWD, "/dev/spidev1.0", O_RDWR),
      __openat64_2(AT_FDCWD, "/dev/spidev1.0", O_RDWR),
      open("/dev/../dev//./spidev1.0", O_RDWR),
  };
  for (size_t i = 0; i < opened.size(); ++i) {
    EXPECT_TRUE(isNode(opened[i])) << i;
  }
  EXPECT_EQ(bench_.kernel.openDescriptors(), static_cast<int>(opened.size()) + 1);
  for (const int descriptor : opened) {
    EXPECT_EQ(close(descriptor), 0);
  }
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
  close(directory);
}

TEST_F(Descriptors, FortifiedReadsReachTheNode) {
  uint8_t byte = 0xFF;
  EXPECT_EQ(__read_chk(descriptor_, &byte, 1, 1), 1);
  EXPECT_EQ(byte, 0);
}

#ifndef __LP64__
TEST_F(Descriptors, CallsWithWideTimeReachTheNode) {
  uint8_t mode = 0xFF;
  EXPECT_EQ(__ioctl_time64(descriptor_, SPI_IOC_RD_MODE, &mode), 0);
  EXPECT_EQ(mode, 0);
  const int copy = __fcntl_time64(descriptor_, F_DUPFD_CLOEXEC, 0);
  EXPECT_TRUE(isNode(copy));
  close(copy);
}
#endif

TEST_F(Descriptors, EveryWayToCopyMakesAnotherNameOfTheSameOpenFile) {
  const std::vector<int> copies = {
      dup(descriptor_),
      dup2(descriptor_, 300),
      dup3(descriptor_, 301, O_CLOEXEC),
      fcntl(descriptor_, F_DUPFD, 302),
      fcntl(descriptor_, F_DUPFD_CLOEXEC, 302),
      fcntl64(descriptor_, F_DUPFD, 302),
  };
  EXPECT_EQ(copies[1], 300);
  EXPECT_EQ(copies[2], 301);
  EXPECT_GE(copies[3], 302);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 4321);
  close(descriptor_);
  for (const int copy : copies) {
    EXPECT_EQ(get<uint32_t>(copy, SPI_IOC_RD_MAX_SPEED_HZ), 4321U) << copy;
    close(copy);
  }
  EXPECT_EQ(bench_.kernel.openDescriptors(), 0);
  EXPECT_NE(bench_.kernel.spiSettings("/dev/spidev1.0").speedHz, 4321U);
  descriptor_ = -1;
}

TEST_F(Descriptors, CopyingOverANodeEndsIt) {
  const int null = open("/dev/null", O_RDWR);
  EXPECT_EQ(dup2(null, descriptor_), descriptor_);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 0);
  EXPECT_FALSE(isNode(descriptor_));
  close(null);
}

TEST_F(Descriptors, CopyingANodeOntoItselfChangesNothing) {
  EXPECT_EQ(dup2(descriptor_, descriptor_), descriptor_);
  EXPECT_TRUE(isNode(descriptor_));
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
}

TEST_F(Descriptors, AFailedCopyChangesNothing) {
  EXPECT_EQ(answer(dup2(-1, descriptor_)), -EBADF);
  EXPECT_TRUE(isNode(descriptor_));
  EXPECT_EQ(answer(dup3(descriptor_, descriptor_, 0)), -EINVAL);
  EXPECT_TRUE(isNode(descriptor_));
}

TEST_F(Descriptors, ClosedNumbersAreFreeForRealFiles) {
  close(descriptor_);
  EXPECT_FALSE(isNode(descriptor_));
  EXPECT_EQ(answer(close(descriptor_)), -EBADF);
  const int real = open("/dev/null", O_RDWR);
  EXPECT_EQ(real, descriptor_);
  EXPECT_FALSE(isNode(real));
}

TEST_F(Descriptors, ANumberThatWasClosedUnseenIsForgottenWhenItIsReused) {
  syscall(SYS_close, descriptor_);
  const int real = open("/dev/null", O_RDWR);
  ASSERT_EQ(real, descriptor_);
  EXPECT_FALSE(isNode(real));
}

TEST_F(Descriptors, RangesAreClosed) {
  const int low = fcntl(descriptor_, F_DUPFD, 400);
  const int high = fcntl(descriptor_, F_DUPFD, 500);
  EXPECT_EQ(close_range(400, 450, 0), 0);
  EXPECT_FALSE(isNode(low));
  EXPECT_TRUE(isNode(high));
  EXPECT_EQ(close_range(500, 500, CLOSE_RANGE_CLOEXEC), 0);
  EXPECT_TRUE(isNode(high));
  closefrom(500);
  EXPECT_FALSE(isNode(high));
  EXPECT_TRUE(isNode(descriptor_));
}

TEST_F(Descriptors, ClosingAStreamClosesTheNodeBehindIt) {
  FILE* const stream = fdopen(dup(descriptor_), "r+");
  ASSERT_NE(stream, nullptr);
  EXPECT_TRUE(isNode(fileno(stream)));
  EXPECT_EQ(bench_.kernel.openDescriptors(), 2);
  EXPECT_EQ(fclose(stream), 0);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
}

TEST_F(Descriptors, CloseOnExecIsTheCallersChoice) {
  const int inherited = open("/dev/spidev1.0", O_RDWR);
  const int cut = open("/dev/spidev1.0", O_RDWR | O_CLOEXEC);
  EXPECT_EQ(fcntl(inherited, F_GETFD), 0);
  EXPECT_EQ(fcntl(cut, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(ioctl(inherited, FIOCLEX), 0);
  EXPECT_EQ(fcntl(inherited, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(inherited, F_GETFL) & O_ACCMODE, O_RDWR);
  close(inherited);
  close(cut);
}

TEST_F(Descriptors, NoDescriptorLeftIsReportedAndNothingStaysOpen) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit tight{static_cast<rlim_t>(descriptor_) + 1, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  const long result = answer(open("/dev/spidev1.1", O_RDWR));
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(result, -EMFILE);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
}

TEST_F(Descriptors, APathOnlyDescriptorReachesNoDriver) {
  const int path = open("/dev/spidev1.0", O_PATH);
  EXPECT_GE(path, 0);
  uint8_t mode = 0;
  EXPECT_TRUE(bench::isForeign(answer(ioctl(path, SPI_IOC_RD_MODE, &mode))));
  close(path);
}

TEST_F(Descriptors, AForkedChildWorksWithItsOwnCopyOfTheBoard) {
  set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_1);
  const int code = inChild(fork(), [this] {
    const bool inherited = get<uint8_t>(descriptor_, SPI_IOC_RD_MODE) == SPI_MODE_1;
    const bool works = set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_3) == 0 &&
                       bench::message(descriptor_, bench::transferOf(nullptr, nullptr, 3)) == 3;
    const int another = open("/dev/spidev1.1", O_RDWR);
    const bool opens = isNode(another) && close(another) == 0;
    const bool closes = close(descriptor_) == 0 && bench_.kernel.openDescriptors() == 0;
    return inherited && works && opens && closes ? 42 : 1;
  });
  EXPECT_EQ(code, 42);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_MODE), SPI_MODE_1);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
}

TEST(EndedKernel, LeavesHarmlessFilesBehind) {
  int left = -1;
  {
    const SpiBench bench;
    left = open("/dev/spidev1.0", O_RDWR);
    ASSERT_GE(left, 0);
  }
  uint8_t byte = 0;
  EXPECT_TRUE(bench::isForeign(answer(ioctl(left, SPI_IOC_RD_MODE, &byte))));
  EXPECT_EQ(answer(write(left, &byte, 1)), 1);
  const SpiBench next;
  EXPECT_EQ(next.kernel.openDescriptors(), 0);
  EXPECT_TRUE(bench::isForeign(answer(ioctl(left, SPI_IOC_RD_MODE, &byte))));
  EXPECT_EQ(close(left), 0);
}

TEST(RunningKernel, IsTheOnlyOne) {
  const SpiBench bench;
  vboard::Board board;
  EXPECT_THROW(vboard::Kernel second(board), std::logic_error);
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  EXPECT_GE(descriptor, 0);
  close(descriptor);
}

// Everything a child of vfork does here is a system call: its descriptors are its own, its memory
// is the parent's.
TEST_F(Descriptors, WhatAVforkedChildClosesStaysOpenForTheParent) {
  const int real = open("/dev/null", O_RDWR);
  const pid_t child = vfork();
  if (child == 0) {
    close(descriptor_);
    dup2(real, descriptor_);
    close_range(3, 1000, 0);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(bench_.kernel.openDescriptors(), 1);
  EXPECT_TRUE(isNode(descriptor_));
  EXPECT_EQ(bench::message(descriptor_, bench::transferOf(nullptr, nullptr, 2)), 2);
  close(real);
}

}  // namespace
