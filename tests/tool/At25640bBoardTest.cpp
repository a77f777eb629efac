// SPDX-License-Identifier: MIT
// An EEPROM, as a user of the tool sees it.
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/tool/ImageFiles.h"
#include "tests/tool/ToolRun.h"
#include "vboard/vboard.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using vboard::Call;

namespace {

constexpr const char* kSelect = " --cs 25 --cs-active-low";
constexpr size_t kSize = vboard::At25640b::kSize;

/// Counts transfers and keeps the fastest clock.
class Watcher : public vboard::Observer {
 public:
  unsigned transfers = 0;
  uint32_t fastestHz = 0;

  void onTransfer(const vboard::SpiRecord& record) override {
    ++transfers;
    fastestHz = std::max(fastestHz, record.format.speedHz);
  }
};

/// A memory selected by line 25.
class ToolWithAt25640b : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    vboard::SpiBus& bus = board.addSpiBus({.number = 1});
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
    board.attach(chip, bus);
    board.connect(chip.pin("CS"), gpio.line(25)).setPull(vboard::Pull::Up);
    board.addObserver(watcher);
    kernel = std::make_unique<vboard::Kernel>(board);
  }
  void TearDown() override {
    EXPECT_TRUE(chip.pin("CS").high()) << "still selected";
    EXPECT_FALSE(chip.busy());
    EXPECT_EQ(kernel->openDescriptors(), 0);
  }

  static ToolRun run(const std::string& words) { return runLine("at25640b " + words + kSelect); }
  /// Does something when so many milliseconds of the board's time have passed.
  void after(int milliseconds, std::function<void()> action) {
    const std::lock_guard guard(board.mutex());
    board.clock().after(std::chrono::milliseconds(milliseconds), std::move(action));
  }
  /// The memory as it came, but for every so manieth byte.
  static std::vector<uint8_t> imageWithEvery(size_t distance) {
    std::vector<uint8_t> image(kSize, 0xFF);
    for (size_t address = 0; address < kSize; address += distance) {
      image[address] = static_cast<uint8_t>(address / distance);
    }
    return image;
  }
  /// Protects the upper quarter.
  void protectUpperQuarter() {
    std::vector<uint8_t> image(kSize + 1, 0xFF);
    image.back() = 0x04;
    EXPECT_EQ(chip.setImage(files.make("protected.bin", image)), std::nullopt);
  }

  ImageFiles files;
  Watcher watcher;
  vboard::Board board;
  vboard::At25640b& chip = board.add<vboard::At25640b>("memory");
  std::unique_ptr<vboard::Kernel> kernel;
};

TEST_F(ToolWithAt25640b, PrintsTheStatus) {
  EXPECT_EQ(chip.status(), 0x00);
  const ToolRun fresh = run("status");
  EXPECT_EQ(fresh.status, 0);
  EXPECT_EQ(fresh.out, "status 0x00  enabled no  protected nothing  wp ignored\n");
  EXPECT_THAT(fresh.err, IsEmpty());
  EXPECT_EQ(chip.status(), 0x00) << "the latch is reset again";
  protectUpperQuarter();
  EXPECT_EQ(run("status --output json").out,
            "{\"chip\":\"at25640b\",\"reading\":1,\"status\":4,\"enabled\":\"no\","
            "\"protected\":\"0x1800 to 0x1fff\",\"wp\":\"ignored\"}\n");
  EXPECT_EQ(chip.writes(), 0U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, ReadsRowsOfSixteen) {
  const std::string text = "Hello, memory! 12\x7F\x1F.";
  chip.setContents(0x0FF, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  const ToolRun read = run("read 0xff --bytes 19");
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.out,
            "address 0x00ff  data 48 65 6c 6c 6f 2c 20 6d 65 6d 6f 72 79 21 20 31  text Hello, "
            "memory! 1\n"
            "address 0x010f  data 32 7f 1f  text 2..\n");
  EXPECT_EQ(run("read 0xff --bytes 2 --output csv").out, "address,data\n255,48 65\n");
  EXPECT_EQ(run("read 8191").out, "address 0x1fff  data ff  text .\n");
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, WritesAcrossPagesAndOnlyWhatChanges) {
  const ToolRun write = run("write 0x1e 1 0x02 0b11 255");
  EXPECT_EQ(write.status, 0) << write.err;
  EXPECT_EQ(write.out, "wrote 4 bytes at 0x001e: 3 written, 1 unchanged\n");
  EXPECT_EQ(chip.byteAt(0x1E), 1);
  EXPECT_EQ(chip.byteAt(0x1F), 2);
  EXPECT_EQ(chip.byteAt(0x20), 3);
  EXPECT_EQ(chip.byteAt(0x00), 0xFF) << "no wrap in the page";
  EXPECT_EQ(chip.writes(), 3U);
  EXPECT_EQ(run("write 0x1e 1 --output json").out,
            "{\"chip\":\"at25640b\",\"address\":30,\"written\":0,\"unchanged\":1}\n");
  EXPECT_EQ(chip.writes(), 3U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, WaitsForAWriteCycleUnderWay) {
  chip.setWriteTime(std::chrono::milliseconds(40));
  EXPECT_EQ(run("write 5 6").status, 0);
  EXPECT_EQ(chip.byteAt(5), 6);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, GivesUpOnAMemoryThatStaysBusy) {
  chip.setWriteTime(std::chrono::milliseconds(150));
  const ToolRun stuck = run("write 5 6");
  EXPECT_EQ(stuck.status, 1);
  EXPECT_EQ(stuck.err,
            "varnel: no answer from the AT25640B: its status stays 0xff, which is busy, for 100 "
            "ms\n  try: whether it has power, HOLD is high, its SO is at MISO, and --cs is its "
            "select, with --cs-active-low; a lower --speed\n"
            "varnel: note: 0x0005 was being written: it holds 0xff as before, 0x06, or neither; "
            "varnel at25640b read 0x0005 tells\n");
  EXPECT_EQ(run("read 5").out, "address 0x0005  data 06  text .\n") << "waits for the rest";
}

TEST_F(ToolWithAt25640b, SaysThatAByteWasNotWritten) {
  chip.setWriteTime(std::chrono::milliseconds(5));
  const uint8_t old = 0xFF;
  after(4, [this, old] { chip.setContents(5, {&old, 1}); });
  const ToolRun failed = run("write 5 6");
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.out, IsEmpty());
  EXPECT_THAT(failed.err, StartsWith("varnel: 0x0005 reads 0xff after 0x06 was written: the chip "
                                     "ignored the write\n  try: varnel at25640b status"));
  EXPECT_THAT(failed.err, Not(HasSubstr("note:"))) << "no doubt is left";
}

TEST_F(ToolWithAt25640b, RefusesProtectedBytesBeforeItWritesAny) {
  protectUpperQuarter();
  const ToolRun refused = run("write 0x17ff 1 2");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err,
            "varnel: 0x1800 is protected and holds 0xff, not 0x02: the status protects 0x1800 and "
            "above; nothing was written\n  try: a program that clears the bits BP0 and BP1 of the "
            "status register: this tool's driver doesn't write it\n");
  EXPECT_EQ(chip.writes(), 0U);
  EXPECT_EQ(run("write 0x17ff 1 255").status, 0) << "there already";
  EXPECT_EQ(run("write 0x17fe 3").status, 0) << "below";
  EXPECT_EQ(chip.writes(), 2U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, LoadsAnImageAndWritesNothingTwice) {
  const std::vector<uint8_t> image = imageWithEvery(512);
  const std::string file = files.make("image.bin", image);
  const ToolRun load = run("load " + file);
  EXPECT_EQ(load.status, 0) << load.err;
  EXPECT_EQ(load.out, "loaded " + file + ": 16 bytes written, 8176 unchanged, all compared\n");
  EXPECT_THAT(load.err, IsEmpty()) << "no bar where there is no terminal";
  EXPECT_EQ(chip.contents(), image);
  EXPECT_EQ(chip.writes(), 16U);
  EXPECT_EQ(run("load " + file + " --output csv").out,
            "file,written,unchanged\n" + file + ",0,8192\n");
  EXPECT_EQ(chip.writes(), 16U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, AnInterruptedLoadEndsBetweenTwoBytesAndGoesOn) {
  std::vector<uint8_t> image = imageWithEvery(512);
  std::fill(image.begin(), image.begin() + 64, 0x5A);
  const std::string file = files.make("image.bin", image);
  // In the middle of the write cycle of one of the first bytes.
  after(102, [] { std::raise(SIGINT); });
  const ToolRun load = run("load " + file);
  EXPECT_EQ(load.status, 1) << "it is not done";
  EXPECT_THAT(load.out, IsEmpty());
  const uint64_t written = chip.writes();
  ASSERT_GT(written, 5U);
  ASSERT_LT(written, 64U);
  char where[16];
  std::snprintf(where, sizeof where, "0x%04x", static_cast<unsigned>(written));
  EXPECT_EQ(load.err, std::string("varnel: interrupted: below ") + where +
                          " everything is written, from there on nothing; no byte is half written\n"
                          "  try: the same command again: it goes on where it stopped\n");
  const std::vector<uint8_t> contents = chip.contents();
  for (size_t address = 0; address < 64; ++address) {
    EXPECT_EQ(contents[address], address < written ? 0x5A : 0xFF) << address;
  }
  EXPECT_EQ(run("load " + file).status, 0);
  EXPECT_EQ(chip.contents(), image);
  EXPECT_EQ(chip.writes(), 64U + 15) << "each byte once";
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, ALoadThatDidNotLastIsAFailure) {
  const std::string file = files.make("image.bin", imageWithEvery(4096));
  const uint8_t other = 0x77;
  after(1500, [this, other] { chip.setContents(3, {&other, 1}); });
  const ToolRun load = run("load " + file);
  EXPECT_EQ(load.status, 1);
  EXPECT_THAT(load.out, IsEmpty());
  EXPECT_THAT(load.err, StartsWith("varnel: 1 of 8192 bytes differ from " + file +
                                   ", the first at 0x0003: 0x77 in the memory, 0xff in the file\n"
                                   "  try: whether the chip is an AT25640B: a smaller one"));
}

TEST_F(ToolWithAt25640b, EachFailingTransferOfAWriteIsReportedWithTheByteInDoubt) {
  ASSERT_EQ(run("write 7 1").status, 0);
  watcher.transfers = 0;
  ASSERT_EQ(run("write 7 2").status, 0);
  const unsigned total = watcher.transfers;
  // Status; latch and status, twice; the byte before; the latch.
  constexpr unsigned kBefore = 2 + 3 + 3 + 4 + 1;
  uint8_t held = 2;
  for (unsigned message = 1; message <= total; ++message) {
    SCOPED_TRACE(message);
    const auto wanted = static_cast<uint8_t>(message + 10);
    kernel->failCall(Call::Message, message, EIO);
    const ToolRun failed = run("write 7 " + std::to_string(wanted));
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.out, IsEmpty());
    EXPECT_THAT(failed.err, StartsWith("varnel: can't transfer with the AT25640B on "
                                       "/dev/spidev1.0: Input/output error (-5)\n  try: "));
    EXPECT_EQ(failed.err.find("varnel: note: 0x0007 was being written") != std::string::npos,
              message > kBefore);
    EXPECT_TRUE(chip.pin("CS").high());
    EXPECT_EQ(run("status").status, 0) << "waits for the end of the write cycle";
    // Four bytes write it: before all of them have gone out nothing happens.
    held = message > kBefore + 4 ? wanted : held;
    EXPECT_EQ(chip.byteAt(7), held);
  }
}

TEST_F(ToolWithAt25640b, VerifiesAFile) {
  std::vector<uint8_t> image = imageWithEvery(100);
  chip.setContents(0, image);
  const std::string file = files.make("image.bin", image);
  const ToolRun same = run("verify " + file);
  EXPECT_EQ(same.status, 0);
  EXPECT_EQ(same.out, "verified " + file + ": the memory holds the same\n");
  image[0x123] = 0x42;
  image[0x1FFF] = 0x43;
  files.make("image.bin", image);
  const ToolRun different = run("verify " + file + " --output csv");
  EXPECT_EQ(different.status, 1);
  EXPECT_EQ(different.out, "file,different\n" + file + ",2\n");
  EXPECT_EQ(different.err, "varnel: 2 of 8192 bytes differ from " + file +
                               ", the first at 0x0123: 0xff in the memory, 0x42 in the file\n"
                               "  try: varnel at25640b load " +
                               file + ", which writes what differs\n");
  EXPECT_EQ(chip.writes(), 0U);
}

TEST_F(ToolWithAt25640b, DumpsToAFileThatAppearsWhenAllIsThere) {
  const std::vector<uint8_t> image = imageWithEvery(3);
  chip.setContents(0, image);
  const std::string file = files.path("image.bin");
  const ToolRun dump = run("dump " + file);
  EXPECT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.out, "dumped 8192 bytes to " + file + ", read twice\n");
  EXPECT_THAT(dump.err, IsEmpty());
  EXPECT_EQ(files.bytesOf("image.bin"), image);
  EXPECT_FALSE(files.has("image.bin.part"));
  EXPECT_EQ(chip.writes(), 0U);
  EXPECT_EQ(board.violationCount(), 0U);
}

TEST_F(ToolWithAt25640b, AnInterruptedDumpGoesOnWhereItStopped) {
  const std::vector<uint8_t> image = imageWithEvery(5);
  chip.setContents(0, image);
  const std::string file = files.path("image.bin");
  after(300, [] { std::raise(SIGTERM); });
  const ToolRun stopped = run("dump " + file);
  EXPECT_EQ(stopped.status, 1);
  const std::vector<uint8_t> part = files.bytesOf("image.bin.part");
  ASSERT_GT(part.size(), 100U);
  ASSERT_LT(part.size(), kSize);
  EXPECT_TRUE(std::equal(part.begin(), part.end(), image.begin()));
  EXPECT_EQ(stopped.err,
            "varnel: interrupted: the dump is not complete\n"
            "  try: the same command with --resume\n"
            "varnel: note: " +
                file + ".part has the first " + std::to_string(part.size()) +
                " of 8192 bytes; the same command with --resume goes on there\n");
  EXPECT_FALSE(files.has("image.bin"));
  watcher.transfers = 0;
  const ToolRun resumed = run("dump " + file + " --resume --output json");
  EXPECT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(resumed.out, "{\"chip\":\"at25640b\",\"file\":\"" + file + "\",\"size\":8192}\n");
  EXPECT_EQ(files.bytesOf("image.bin"), image);
  // Whether it answers, the rest, and all once more.
  EXPECT_EQ(watcher.transfers, 8 + 4 * (kSize - part.size()) + 4 * kSize);
}

TEST_F(ToolWithAt25640b, ADumpThatWasResumedOnOtherContentsIsAFailure) {
  std::vector<uint8_t> part(kSize - 10, 0xFF);
  part[9] = 1;
  files.make("image.bin.part", part);
  const ToolRun dump = run("dump " + files.path("image.bin") + " --resume");
  EXPECT_EQ(dump.status, 1);
  EXPECT_THAT(dump.err,
              AllOf(StartsWith("varnel: 1 bytes read differently the second time, the first at "
                               "0x0009: 0xff, before 0x01; "),
                    HasSubstr("try: the same command without --resume")));
  EXPECT_FALSE(files.has("image.bin"));
}

TEST_F(ToolWithAt25640b, AFailedDumpKeepsWhatItHasAndAnEarlierOneWhenNothingAnswers) {
  files.make("image.bin.part", {1, 2, 3});
  kernel->failCallsFromNow(Call::Message, EIO);
  EXPECT_EQ(run("dump " + files.path("image.bin")).status, 1);
  EXPECT_EQ(files.bytesOf("image.bin.part"), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(run("dump " + files.path("other.bin")).status, 1);
  EXPECT_FALSE(files.has("other.bin.part"));
}

TEST_F(ToolWithAt25640b, AFasterBusIsSlowedDownSoThatNothingGetsIntoAnExchange) {
  EXPECT_EQ(run("write 0 0x42 --speed 20000").status, 0);
  EXPECT_EQ(run("read 0 --speed 20000").out, "address 0x0000  data 42  text B\n");
  EXPECT_EQ(watcher.fastestHz, 1000000U);
  EXPECT_EQ(board.violationCount(), 0U);
}

/// A bus without a chip, whose MISO has a level.
std::string errorWithoutChip(vboard::FloatingMiso level, const std::string& words) {
  vboard::Board board;
  board.addSpiBus({.number = 1, .floatingMiso = level});
  board.addGpioChip({.lines = 32});
  const vboard::Kernel kernel(board);
  const ToolRun run = runLine("at25640b " + words + kSelect);
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.out, IsEmpty());
  return run.err;
}

TEST(ToolWithoutAt25640b, SaysThatNothingAnswers) {
  const ImageFiles files;
  const std::string image = files.make("image.bin", std::vector<uint8_t>(kSize));
  for (const std::string& words :
       {std::string("status"), std::string("read 0"), std::string("write 0 1"), "load " + image,
        "verify " + image, "dump " + files.path("new.bin")}) {
    EXPECT_THAT(errorWithoutChip(vboard::FloatingMiso::Low, words),
                StartsWith("varnel: no answer from the AT25640B: after the write-enable latch was "
                           "set its status reads 0x00\n  try: whether it has power"));
    EXPECT_THAT(errorWithoutChip(vboard::FloatingMiso::High, words),
                StartsWith("varnel: no answer from the AT25640B: its status stays 0xff, which is "
                           "busy, for 100 ms\n"));
  }
  EXPECT_FALSE(files.has("new.bin.part"));
}

}  // namespace
