// SPDX-License-Identifier: MIT
#include "vboard/launcher/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace vboard::launcher {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

/// Programs to look at, made of this very test program.
class ProgramTest : public testing::Test {
 protected:
  ProgramTest() {
    std::string path = testing::TempDir() + "programXXXXXX";
    folder_ = ::mkdtemp(path.data());
    std::ifstream self("/proc/self/exe", std::ios::binary);
    image_ = {std::istreambuf_iterator<char>(self), std::istreambuf_iterator<char>()};
  }
  ~ProgramTest() override { std::filesystem::remove_all(folder_); }

  std::string write(const std::string& name, const std::string& contents, mode_t mode = 0755) {
    const std::string path = folder_ + "/" + name;
    std::ofstream(path, std::ios::binary) << contents;
    ::chmod(path.c_str(), mode);
    return path;
  }

  std::string folder_;
  std::string image_;
};

TEST_F(ProgramTest, ADynamicProgramOfThisMachineIsFine) {
  const Program program = findProgram(write("fine", image_));
  EXPECT_EQ(program.status, 0) << program.error;
  EXPECT_EQ(program.path, folder_ + "/fine");
}

TEST_F(ProgramTest, FindsProgramsAsAShellDoes) {
  write("tool", "data", 0644);
  std::filesystem::create_directory(folder_ + "/later");
  write("later/tool", image_);
  const char* before = ::getenv("PATH");
  const std::string saved = before != nullptr ? before : "";
  ::setenv("PATH", (folder_ + ":" + folder_ + "/later").c_str(), 1);
  EXPECT_EQ(findProgram("tool").path, folder_ + "/later/tool");
  const Program missing = findProgram("no-such-tool");
  std::filesystem::remove(folder_ + "/later/tool");
  const Program data = findProgram("tool");
  ::setenv("PATH", saved.c_str(), 1);
  EXPECT_EQ(missing.status, 127);
  EXPECT_EQ(missing.error, "no-such-tool: there is no such program");
  EXPECT_EQ(data.status, 126);
  EXPECT_EQ(data.error, folder_ + "/tool: is not executable");
}

TEST_F(ProgramTest, PathsThatNameNoProgramAreRefused) {
  EXPECT_EQ(findProgram(folder_ + "/none").status, 127);
  EXPECT_THAT(findProgram(folder_ + "/none").error, EndsWith("/none: No such file or directory"));
  EXPECT_EQ(findProgram(folder_).status, 126);
  EXPECT_THAT(findProgram(folder_).error, EndsWith(": is a directory"));
  const Program text = findProgram(write("text", "just text\n"));
  EXPECT_EQ(text.status, 126);
  EXPECT_THAT(text.error, EndsWith(" is neither a program nor a script that begins with #!"));
}

TEST_F(ProgramTest, AScriptIsWhatItsInterpreterIs) {
  const std::string program = write("interpreter", image_);
  EXPECT_EQ(findProgram(write("script", "#! " + program + " -x\n")).status, 0);
  const Program lost = findProgram(write("lost", "#!/no/such/interpreter\n"));
  EXPECT_EQ(lost.status, 126);
  EXPECT_THAT(lost.error, EndsWith("/lost: its interpreter /no/such/interpreter can't be run"));
}

TEST_F(ProgramTest, AProgramOfAnotherMachineIsRefused) {
  std::string other = image_;
  other[18] = static_cast<char>(0xF3);  // e_machine: RISC-V
  other[19] = 0;
  const Program program = findProgram(write("other", other));
  EXPECT_EQ(program.status, 126);
  EXPECT_THAT(program.error, HasSubstr("-bit RISC-V program; this virtual board serves "));
  const Program script = findProgram(write("script", "#!" + folder_ + "/other\n"));
  EXPECT_EQ(script.status, 126);
  EXPECT_THAT(script.error, HasSubstr("/script: its interpreter " + folder_ + "/other is a "));
}

TEST_F(ProgramTest, AProgramWithAnotherLoaderIsRefused) {
  std::string other = image_;
  const size_t loader = other.find("/ld-linux");
  ASSERT_NE(loader, std::string::npos);
  other.replace(loader, 9, "/ld-other");
  const Program program = findProgram(write("other", other));
  EXPECT_EQ(program.status, 126);
  EXPECT_THAT(program.error, HasSubstr("a different C library than the virtual board's"));
}

TEST_F(ProgramTest, APrivilegedProgramIsRefused) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "only root can give a program to another user";
  }
  const std::string path = write("privileged", image_);
  ASSERT_EQ(::chown(path.c_str(), 12345, 12345), 0);
  ASSERT_EQ(::chmod(path.c_str(), 04755), 0);
  EXPECT_EQ(findProgram(path).status, 126);
  EXPECT_THAT(findProgram(path).error, HasSubstr(" is set-user-id, so the system loads no other"));
  ASSERT_EQ(::chmod(path.c_str(), 02755), 0);
  EXPECT_THAT(findProgram(path).error, HasSubstr(" is set-group-id, so the system loads no other"));
  ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
  EXPECT_EQ(findProgram(path).status, 0);
}

}  // namespace
}  // namespace vboard::launcher
