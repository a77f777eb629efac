// SPDX-License-Identifier: MIT
// What the tool refuses to do with an AT25640B, without a board.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/tool/ImageFiles.h"
#include "tests/tool/ToolRun.h"
#include "tool/chips/At25640bLink.h"

using testing::IsEmpty;

namespace {

constexpr const char* kSelect = " --cs 25 --cs-active-low";

void expectRefused(const std::string& operation, const std::string& words,
                   const std::string& message) {
  const ToolRun run = runLine("at25640b " + operation + ' ' + words + kSelect);
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "varnel: " + message + "\n  try: varnel at25640b " + operation + " --help\n");
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_THAT(run.systemLines, IsEmpty());
}

TEST(At25640bProtection, BeginsAtAQuarterAHalfOrTheWhole) {
  EXPECT_EQ(tool::firstProtected(0x00), 0x2000U);
  EXPECT_EQ(tool::firstProtected(0x04), 0x1800U);
  EXPECT_EQ(tool::firstProtected(0x08), 0x1000U);
  EXPECT_EQ(tool::firstProtected(0x0C), 0x0000U);
  EXPECT_EQ(tool::firstProtected(0xF3), 0x2000U);
}

TEST(At25640bArguments, AddressesAndBytesMustFit) {
  expectRefused("read", "8192", "ADDRESS: 0x2000 is above 0x1fff, the highest address");
  expectRefused("read", "8191 --bytes 2", "ADDRESS: from 0x1fff on the memory has 1 bytes, not 2");
  expectRefused("read", "0 --bytes 0", "--bytes: '0' is not a number of bytes from 1 to 8192");
  expectRefused("read", "x", "ADDRESS: 'x' is not a whole number: decimal, 0x.. or 0b..");
  expectRefused("write", "0x1fff 1 2", "ADDRESS: from 0x1fff on the memory has 1 bytes, not 2");
  expectRefused("write", "0 256", "BYTE: '256' is not a byte from 0 to 255: decimal, 0x.. or 0b..");
  expectRefused("write", "0", "BYTE is required");
}

TEST(At25640bArguments, AnImageHasTheSizeOfTheMemory) {
  const ImageFiles files;
  const std::string small = files.make("small", std::vector<uint8_t>(8191));
  const std::string large = files.make("large", std::vector<uint8_t>(8193));
  const std::string empty = files.make("empty", {});
  for (const char* operation : {"load", "verify"}) {
    expectRefused(operation, small, "FILE: '" + small + "' has 8191 bytes, the memory 8192");
    expectRefused(operation, empty, "FILE: '" + empty + "' has 0 bytes, the memory 8192");
    expectRefused(operation, large,
                  "FILE: '" + large + "' has more than the 8192 bytes of the memory");
    expectRefused(operation, files.path("none"),
                  "FILE: can't read '" + files.path("none") + "': No such file or directory");
    expectRefused(operation, files.folder(),
                  "FILE: can't read '" + files.folder() + "': Is a directory");
  }
}

TEST(At25640bArguments, ADumpReplacesNoFileUnasked) {
  const ImageFiles files;
  const std::string old = files.make("old", {1, 2, 3});
  expectRefused("dump", old, "FILE: '" + old + "' exists already: another name, or --replace");
  expectRefused("dump", files.folder() + " --replace",
                "FILE: '" + files.folder() + "' exists already: another name, or --replace");
  EXPECT_EQ(files.bytesOf("old"), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_FALSE(files.has("old.part"));
}

TEST(At25640bArguments, ADumpNeedsAPlaceAndSomethingToGoOnWith) {
  const ImageFiles files;
  expectRefused(
      "dump", files.path("none/image"),
      "FILE: can't write '" + files.path("none/image.part") + "': No such file or directory");
  expectRefused("dump", files.path("new") + " --resume",
                "--resume: there is no '" + files.path("new.part") +
                    "' to go on with: the dump begins anew without it");
  const std::string part = files.make("large.part", std::vector<uint8_t>(8193));
  expectRefused("dump", files.path("large") + " --resume",
                "--resume: '" + part +
                    "' has more than the 8192 bytes of the memory: the dump begins anew without "
                    "it");
}

}  // namespace
