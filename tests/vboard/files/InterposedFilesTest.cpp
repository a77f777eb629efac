// SPDX-License-Identifier: MIT
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vboard/kernel/FileTree.h"
#include "vboard/vboard.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr unsigned kSpidevMajor = 153;

/// A board with /dev/spidev1.0, /dev/spidev1.1 and /dev/gpiochip0 on it.
class InterposedFiles : public testing::Test {
 protected:
  InterposedFiles() {
    board_.addSpiBus({.number = 1, .selects = 2});
    board_.addGpioChip();
    kernel_.emplace(board_);
  }

  vboard::Kernel& kernel() { return *kernel_; }
  void endKernel() { kernel_.reset(); }

 private:
  vboard::Board board_;
  std::optional<vboard::Kernel> kernel_;
};

std::vector<std::string> listing(DIR* stream) {
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(stream)) {
    names.emplace_back(entry->d_name);
  }
  return names;
}

std::vector<std::string> listing(const char* path) {
  DIR* stream = ::opendir(path);
  if (stream == nullptr) {
    return {};
  }
  std::vector<std::string> names = listing(stream);
  EXPECT_EQ(::closedir(stream), 0);
  return names;
}

std::string numbersOf(const char* path) {
  struct stat status {};
  EXPECT_EQ(::stat(path, &status), 0);
  return std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
}

std::string contents(const char* path) {
  std::ifstream file(path);
  std::string text;
  std::getline(file, text, '\0');
  return text;
}

TEST_F(InterposedFiles, TheProgramRunsOnTheBoard) {
  ASSERT_TRUE(vboard::interposed());
}

TEST_F(InterposedFiles, StatOfANodeShowsACharacterDevice) {
  struct stat status {};
  ASSERT_EQ(::stat("/dev/spidev1.0", &status), 0);
  EXPECT_TRUE(S_ISCHR(status.st_mode));
  EXPECT_EQ(major(status.st_rdev), kSpidevMajor);
  EXPECT_EQ(status.st_nlink, 1U);
  struct stat link {};
  ASSERT_EQ(::lstat("/dev/spidev1.0", &link), 0);
  EXPECT_EQ(link.st_mode, status.st_mode);
  EXPECT_EQ(link.st_ino, status.st_ino);
  struct stat other {};
  ASSERT_EQ(::stat("/dev/spidev1.1", &other), 0);
  EXPECT_NE(other.st_rdev, status.st_rdev);
  EXPECT_NE(other.st_ino, status.st_ino);
}

TEST_F(InterposedFiles, EveryKindOfStatAnswersTheSame) {
  struct stat status {};
  ASSERT_EQ(::stat("/dev/gpiochip0", &status), 0);
  struct stat64 status64 {};
  ASSERT_EQ(::stat64("/dev/gpiochip0", &status64), 0);
  EXPECT_EQ(status64.st_rdev, status.st_rdev);
  struct statx statusX {};
  ASSERT_EQ(::statx(AT_FDCWD, "/dev/gpiochip0", 0, STATX_BASIC_STATS, &statusX), 0);
  EXPECT_EQ(makedev(statusX.stx_rdev_major, statusX.stx_rdev_minor), status.st_rdev);
  EXPECT_TRUE(S_ISCHR(statusX.stx_mode));
  const int directory = ::open("/dev", O_RDONLY | O_DIRECTORY);
  ASSERT_GE(directory, 0);
  struct stat relative {};
  ASSERT_EQ(::fstatat(directory, "gpiochip0", &relative, 0), 0);
  EXPECT_EQ(relative.st_rdev, status.st_rdev);
  ::close(directory);
}

TEST_F(InterposedFiles, FstatOfAnOpenNodeShowsTheNode) {
  const int descriptor = ::open("/dev/spidev1.1", O_RDWR | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  struct stat byPath {};
  struct stat byDescriptor {};
  struct stat byEmptyPath {};
  ASSERT_EQ(::stat("/dev/spidev1.1", &byPath), 0);
  ASSERT_EQ(::fstat(descriptor, &byDescriptor), 0);
  ASSERT_EQ(::fstatat(descriptor, "", &byEmptyPath, AT_EMPTY_PATH), 0);
  EXPECT_EQ(byDescriptor.st_rdev, byPath.st_rdev);
  EXPECT_EQ(byDescriptor.st_mode, byPath.st_mode);
  EXPECT_EQ(byEmptyPath.st_rdev, byPath.st_rdev);
  ::close(descriptor);
}

TEST_F(InterposedFiles, RealFilesKeepTheirStat) {
  struct stat status {};
  ASSERT_EQ(::stat("/dev/null", &status), 0);
  EXPECT_EQ(status.st_rdev, makedev(1, 3));
  const int descriptor = ::open("/dev/null", O_RDWR);
  ASSERT_EQ(::fstat(descriptor, &status), 0);
  EXPECT_EQ(status.st_rdev, makedev(1, 3));
  ::close(descriptor);
}

TEST_F(InterposedFiles, ANodeTheBoardLacksIsMissingEverywhere) {
  struct stat status {};
  errno = 0;
  EXPECT_EQ(::stat("/dev/spidev0.0", &status), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(::access("/dev/gpiochip9", F_OK), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(::realpath("/dev/gpiochip9", nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(std::fopen("/dev/gpiochip9", "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(InterposedFiles, ARemovedNodeLeavesItsDirectory) {
  kernel().removeNode("/dev/spidev1.0");
  EXPECT_EQ(::access("/dev/spidev1.0", F_OK), -1);
  EXPECT_THAT(listing("/dev"), AllOf(Contains("spidev1.1"), Not(Contains("spidev1.0"))));
  kernel().restoreNode("/dev/spidev1.0");
  EXPECT_EQ(::access("/dev/spidev1.0", F_OK), 0);
  EXPECT_THAT(listing("/dev"), Contains("spidev1.0"));
}

TEST_F(InterposedFiles, AccessAnswersByKind) {
  EXPECT_EQ(::access("/dev/spidev1.0", R_OK | W_OK), 0);
  EXPECT_EQ(::access("/dev/spidev1.0", X_OK), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(::faccessat(AT_FDCWD, "/sys/class/spidev/spidev1.0/dev", R_OK, 0), 0);
  EXPECT_EQ(::eaccess("/sys/class/spidev/spidev1.0/dev", W_OK), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(::euidaccess("/sys/class/spidev", R_OK | X_OK), 0);
}

TEST_F(InterposedFiles, ADeniedNodeExistsButIsOutOfReach) {
  kernel().denyNode("/dev/spidev1.0", true);
  EXPECT_EQ(::access("/dev/spidev1.0", F_OK), 0);
  EXPECT_EQ(::access("/dev/spidev1.0", R_OK), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST_F(InterposedFiles, ADirectoryListsItsRealNamesAndTheEmulatedOnes) {
  EXPECT_THAT(listing("/dev"),
              IsSupersetOf({".", "..", "null", "zero", "spidev1.0", "spidev1.1", "gpiochip0"}));
  EXPECT_THAT(listing("/sys/class/spidev"),
              UnorderedElementsAre(".", "..", "spidev1.0", "spidev1.1"));
  EXPECT_THAT(listing("/sys/bus/gpio/devices"), UnorderedElementsAre(".", "..", "gpiochip0"));
}

TEST_F(InterposedFiles, TheCppLibraryListsThemToo) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/dev")) {
    if (entry.path().filename().string().starts_with("spidev")) {
      EXPECT_TRUE(entry.is_character_file());
      names.push_back(entry.path().string());
    }
  }
  EXPECT_THAT(names, UnorderedElementsAre("/dev/spidev1.0", "/dev/spidev1.1"));
}

TEST_F(InterposedFiles, ADirectoryStreamCanBeMovedAndRewound) {
  DIR* stream = ::opendir("/sys/class/spidev");
  ASSERT_NE(stream, nullptr);
  const std::vector<std::string> first = listing(stream);
  EXPECT_EQ(first.size(), 4U);
  EXPECT_EQ(::readdir(stream), nullptr);
  kernel().removeNode("/dev/spidev1.0");
  ::rewinddir(stream);
  EXPECT_THAT(listing(stream), UnorderedElementsAre(".", "..", "spidev1.1"));
  ::rewinddir(stream);
  ASSERT_NE(::readdir(stream), nullptr);
  const long second = ::telldir(stream);
  const std::string name = ::readdir(stream)->d_name;
  ::seekdir(stream, second);
  EXPECT_EQ(::readdir(stream)->d_name, name);
  EXPECT_EQ(::closedir(stream), 0);
}

TEST_F(InterposedFiles, NamesAreFoundRelativeToAnEmulatedDirectory) {
  DIR* stream = ::opendir("/sys/class/spidev");
  ASSERT_NE(stream, nullptr);
  struct stat status {};
  ASSERT_EQ(::fstat(::dirfd(stream), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  const int descriptor = ::openat(::dirfd(stream), "spidev1.1/dev", O_RDONLY);
  ASSERT_GE(descriptor, 0);
  char text[16] = {};
  EXPECT_GT(::read(descriptor, text, sizeof(text) - 1), 0);
  EXPECT_EQ(std::string(text), numbersOf("/dev/spidev1.1") + "\n");
  ::close(descriptor);
  ::closedir(stream);
}

TEST_F(InterposedFiles, FdopendirListsAnOpenDirectory) {
  const int descriptor = ::open("/dev", O_RDONLY | O_DIRECTORY);
  ASSERT_GE(descriptor, 0);
  DIR* stream = ::fdopendir(descriptor);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(::dirfd(stream), descriptor);
  EXPECT_THAT(listing(stream), IsSupersetOf({"null", "gpiochip0"}));
  EXPECT_EQ(::closedir(stream), 0);
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST_F(InterposedFiles, ANodeIsNoDirectory) {
  errno = 0;
  EXPECT_EQ(::opendir("/dev/spidev1.0"), nullptr);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(InterposedFiles, ScandirFiltersAndSorts) {
  dirent** list = nullptr;
  const auto isSpidev = [](const dirent* entry) {
    return std::string_view(entry->d_name).starts_with("spidev") ? 1 : 0;
  };
  const int count = ::scandir("/dev", &list, isSpidev, ::alphasort);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(list[0]->d_name, "spidev1.0");
  EXPECT_STREQ(list[1]->d_name, "spidev1.1");
  EXPECT_EQ(list[0]->d_type, DT_CHR);
  ::free(list[0]);
  ::free(list[1]);
  ::free(list);
  errno = 0;
  EXPECT_EQ(::scandir("/dev/no-such-directory", &list, nullptr, nullptr), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(InterposedFiles, GlobFindsTheNodes) {
  glob_t found{};
  ASSERT_EQ(::glob("/dev/spidev*", 0, nullptr, &found), 0);
  const std::vector<std::string> paths(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  EXPECT_THAT(paths, ElementsAre("/dev/spidev1.0", "/dev/spidev1.1"));
  ::globfree(&found);
}

TEST_F(InterposedFiles, RealpathFollowsTheLinksOfSysfs) {
  const std::string subsystem = "/sys/dev/char/" + numbersOf("/dev/gpiochip0") + "/subsystem";
  char buffer[PATH_MAX];
  ASSERT_NE(::realpath(subsystem.c_str(), buffer), nullptr);
  EXPECT_STREQ(buffer, "/sys/bus/gpio");
  const std::unique_ptr<char, decltype(&::free)> allocated(
      ::canonicalize_file_name(subsystem.c_str()), &::free);
  ASSERT_NE(allocated, nullptr);
  EXPECT_STREQ(allocated.get(), "/sys/bus/gpio");
  EXPECT_EQ(std::filesystem::canonical(subsystem), "/sys/bus/gpio");
}

TEST_F(InterposedFiles, AnEmulatedLinkLeadsToARealDirectory) {
  constexpr const char* kLink = "/sys/devices/vboard-link";
  vboard::kernel::fileTree()->addLink(kLink, "/dev");
  struct stat status {};
  ASSERT_EQ(::stat(kLink, &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(::access(kLink, R_OK), 0);
  EXPECT_THAT(listing(kLink), IsSupersetOf({"null", "spidev1.0"}));
  const int descriptor = ::open(kLink, O_RDONLY | O_DIRECTORY);
  EXPECT_GE(descriptor, 0);
  ::close(descriptor);
}

TEST_F(InterposedFiles, ReadlinkReadsAnEmulatedLinkAndRefusesANode) {
  char target[PATH_MAX] = {};
  const ssize_t length = ::readlink("/sys/class/spidev/spidev1.0", target, sizeof(target));
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::filesystem::path(std::string(target, static_cast<size_t>(length))).filename(),
            "spidev1.0");
  EXPECT_EQ(::readlink("/sys/class/spidev/spidev1.0", target, 4), 4);
  errno = 0;
  EXPECT_EQ(::readlink("/dev/spidev1.0", target, sizeof(target)), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(InterposedFiles, TextFilesOfSysfsTellTheNumbers) {
  const std::string expected = numbersOf("/dev/gpiochip0") + "\n";
  EXPECT_EQ(contents("/sys/bus/gpio/devices/gpiochip0/dev"), expected);
  std::FILE* file = std::fopen("/sys/bus/gpio/devices/gpiochip0/dev", "re");
  ASSERT_NE(file, nullptr);
  char line[32] = {};
  EXPECT_NE(std::fgets(line, sizeof(line), file), nullptr);
  EXPECT_EQ(std::string(line), expected);
  std::fclose(file);
  EXPECT_THAT(contents("/sys/class/spidev/spidev1.0/uevent"), StartsWith("MAJOR=153\nMINOR="));
}

TEST_F(InterposedFiles, TextFilesCannotBeWritten) {
  errno = 0;
  EXPECT_EQ(::open("/sys/bus/gpio/devices/gpiochip0/dev", O_WRONLY), -1);
  EXPECT_EQ(errno, EACCES);
  errno = 0;
  EXPECT_EQ(std::fopen("/sys/bus/gpio/devices/gpiochip0/dev", "w"), nullptr);
  EXPECT_EQ(errno, EACCES);
  const int descriptor = ::open("/sys/bus/gpio/devices/gpiochip0/dev", O_RDONLY);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(::write(descriptor, "x", 1), -1);
  ::close(descriptor);
}

TEST_F(InterposedFiles, FreopenPutsATextFileBehindAStream) {
  std::FILE* stream = std::fopen("/dev/zero", "r");
  ASSERT_NE(stream, nullptr);
  stream = std::freopen("/sys/bus/gpio/devices/gpiochip0/dev", "r", stream);
  ASSERT_NE(stream, nullptr);
  char line[32] = {};
  EXPECT_NE(std::fgets(line, sizeof(line), stream), nullptr);
  EXPECT_EQ(std::string(line), numbersOf("/dev/gpiochip0") + "\n");
  std::fclose(stream);
}

TEST_F(InterposedFiles, LookingAtRealFilesLeavesErrnoAlone) {
  errno = 77;
  struct stat status {};
  ASSERT_EQ(::stat("/dev/null", &status), 0);
  EXPECT_EQ(errno, 77);
  ASSERT_EQ(::access("/dev/null", F_OK), 0);
  EXPECT_EQ(errno, 77);
}

TEST_F(InterposedFiles, NothingIsEmulatedAfterTheKernelEnded) {
  DIR* stream = ::opendir("/dev");
  ASSERT_NE(stream, nullptr);
  endKernel();
  EXPECT_EQ(::access("/sys/class/spidev/spidev1.1", F_OK), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(listing("/dev"), Not(Contains("spidev1.1")));
  EXPECT_EQ(::closedir(stream), 0);
}

/// A plain file in /dev with the name of a device; only a machine's administrator can make one.
class FakeDevice {
 public:
  explicit FakeDevice(const char* path) : path_(path) {
    const int descriptor = ::open(path, O_CREAT | O_EXCL | O_WRONLY, 0600);
    made_ = descriptor >= 0;
    if (made_) {
      ::close(descriptor);
    }
  }
  ~FakeDevice() {
    if (made_) {
      ::unlink(path_);
    }
  }
  FakeDevice(const FakeDevice&) = delete;
  FakeDevice& operator=(const FakeDevice&) = delete;
  bool made() const { return made_; }

 private:
  const char* path_;
  bool made_;
};

TEST(HiddenFiles, DevicesOfTheMachineAreOutOfSightWhileAKernelRuns) {
  constexpr const char* kPath = "/dev/spidev240.7";
  const FakeDevice device(kPath);
  if (!device.made()) {
    GTEST_SKIP() << "can't make a file in /dev";
  }
  EXPECT_THAT(listing("/dev"), Contains("spidev240.7"));
  EXPECT_EQ(::access(kPath, F_OK), 0);
  {
    vboard::Board board;
    vboard::Kernel kernel(board);
    EXPECT_THAT(listing("/dev"), AllOf(Contains("null"), Not(Contains("spidev240.7"))));
    EXPECT_EQ(::access(kPath, F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(::open(kPath, O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(std::fopen(kPath, "r"), nullptr);
  }
  EXPECT_THAT(listing("/dev"), Contains("spidev240.7"));
}

}  // namespace
