// SPDX-License-Identifier: MIT
#include "vboard/chips/At25640b.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/vboard/chips/ByteRig.h"
#include "tests/vboard/chips/Properties.h"

namespace {

using namespace std::chrono_literals;
using boardtest::ByteRig;
using boardtest::Hand;
using boardtest::kFloat;
using boardtest::propertyOf;
using boardtest::setValue;
using boardtest::valueOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using vboard::At25640b;
using vboard::PropertyValue;
using vboard::Time;

constexpr uint32_t kWriteStatus = 0x01;
constexpr uint32_t kWrite = 0x02;
constexpr uint32_t kRead = 0x03;
constexpr uint32_t kDisable = 0x04;
constexpr uint32_t kReadStatus = 0x05;
constexpr uint32_t kEnable = 0x06;

struct At25640bTest : ByteRig<At25640b> {
  At25640bTest() : ByteRig("CS") {
    board.connect(wp.p(), chip.pin("WP"));
    board.connect(hold.p(), chip.pin("HOLD"));
    wp.high();
    hold.high();
  }
  void SetUp() override { powerUp(); }

  Hand& wp = board.add<Hand>("wp");
  Hand& hold = board.add<Hand>("hold");

  /// The hands hold their pins after a power-up of the board too.
  void powerUp() {
    board.powerUp();
    wp.high();
    hold.high();
  }
  uint32_t status() { return read({kReadStatus}, 1).front(); }
  Bytes readAt(uint32_t address, size_t bytes) {
    return read({kRead, address >> 8U, address & 0xFFU}, bytes);
  }
  void start(uint32_t address, const Bytes& bytes) {
    Bytes sent = {kWrite, address >> 8U, address & 0xFFU};
    sent.insert(sent.end(), bytes.begin(), bytes.end());
    frame(sent);
  }
  /// As an application does it: enable, write, wait.
  void write(uint32_t address, const Bytes& bytes) {
    frame({kEnable});
    start(address, bytes);
    wait(5ms);
  }
  void writeStatus(uint32_t value) {
    frame({kEnable});
    frame({kWriteStatus, value});
    wait(5ms);
  }
};

using Bytes = At25640bTest::Bytes;

TEST_F(At25640bTest, ANewChipIsErasedAndUnprotected) {
  EXPECT_THAT(frame({kReadStatus, 0}), ElementsAre(kFloat, 0U));
  const std::vector<uint8_t> contents = chip.contents();
  EXPECT_THAT(contents, SizeIs(8192));
  EXPECT_THAT(contents, Each(0xFF));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, TheEnableLatchIsSetAndReset) {
  frame({kEnable});
  EXPECT_EQ(status(), 0x02U);
  frame({kDisable});
  EXPECT_EQ(status(), 0x00U);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, TheLatchMovesWhenTheSelectRises) {
  select();
  transfer({kEnable});
  EXPECT_EQ(chip.status(), 0);
  deselect();
  EXPECT_EQ(chip.status(), 0x02);
}

TEST_F(At25640bTest, BitThreeOfAnInstructionDoesNotMatter) {
  frame({0x0E});
  EXPECT_THAT(frame({0x0D, 0}), ElementsAre(kFloat, 0x02U));
  frame({0x0A, 0x00, 0x10, 0x77});
  wait(5ms);
  EXPECT_THAT(read({0x0B, 0x00, 0x10}, 1), ElementsAre(0x77U));
  frame({0x06});
  frame({0x0C});
  EXPECT_EQ(status(), 0U);
  frame({0x06});
  frame({0x09, 0x04});
  wait(5ms);
  EXPECT_EQ(status(), 0x04U);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, EveryOtherInstructionIsIgnoredUntilTheNextSelect) {
  for (uint32_t code = 0; code < 256; ++code) {
    const uint32_t known = code & ~0x08U;
    if (known >= kWriteStatus && known <= kEnable) {
      continue;
    }
    EXPECT_THAT(frame({code, kReadStatus, 0}), ElementsAre(kFloat, kFloat, kFloat));
    EXPECT_THAT(rules(), ElementsAre("unknown-instruction")) << code;
  }
}

TEST_F(At25640bTest, WritesWhatWasSentAndReadsItBack) {
  write(0x0120, {1, 2, 3});
  EXPECT_THAT(readAt(0x011F, 5), ElementsAre(0xFFU, 1U, 2U, 3U, 0xFFU));
  EXPECT_EQ(chip.byteAt(0x0121), 2);
  EXPECT_EQ(status(), 0U) << "a cycle resets the latch";
  EXPECT_EQ(chip.writes(), 1U);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, BytesThatWereNotSentKeepTheirValue) {
  write(0x0100, {1, 2, 3, 4});
  write(0x0101, {9});
  EXPECT_THAT(readAt(0x0100, 4), ElementsAre(1U, 9U, 3U, 4U));
}

TEST_F(At25640bTest, ReadingRollsOverAtTheEnd) {
  write(0x1FFF, {0xAA});
  write(0x0000, {0x55});
  EXPECT_THAT(readAt(0x1FFE, 4), ElementsAre(0xFFU, 0xAAU, 0x55U, 0xFFU));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, ReadingDoesNotTouchTheLatch) {
  frame({kEnable});
  readAt(0, 2);
  EXPECT_EQ(status(), 0x02U);
}

TEST_F(At25640bTest, AWriteOverThePageEndGoesOnAtItsStart) {
  write(0x001E, {0xAA, 0xBB, 0xCC});
  EXPECT_THAT(frame({kRead, 0x00, 0x1E, 0, 0}), ElementsAre(kFloat, kFloat, kFloat, 0xAAU, 0xBBU));
  EXPECT_THAT(readAt(0x0000, 1), ElementsAre(0xCCU));
  EXPECT_THAT(readAt(0x0020, 1), ElementsAre(0xFFU)) << "the next page stays";
  EXPECT_EQ(lastDetails(),
            "3 bytes from 0x001e pass the end of page 0: the rest went to its start");
  EXPECT_THAT(rules(), ElementsAre("page-wrap"));
}

TEST_F(At25640bTest, AWholePageFitsAndMoreOverwritesItsOwnBytes) {
  Bytes page;
  for (uint32_t i = 0; i < 32; ++i) {
    page.push_back(i);
  }
  write(0x0040, page);
  EXPECT_EQ(readAt(0x0040, 32), page);
  EXPECT_THAT(rules(), IsEmpty());
  page.push_back(0x99);
  write(0x0040, page);
  EXPECT_THAT(readAt(0x0040, 2), ElementsAre(0x99U, 1U)) << "the last byte sent wins";
  EXPECT_THAT(rules(), ElementsAre("page-wrap"));
}

TEST_F(At25640bTest, WithoutEnableAWriteIsIgnored) {
  start(0x0000, {0x55});
  EXPECT_EQ(status(), 0U);
  EXPECT_EQ(chip.byteAt(0), 0xFF);
  frame({kWriteStatus, 0x0C});
  EXPECT_EQ(status(), 0U);
  EXPECT_EQ(chip.writes(), 0U);
  EXPECT_THAT(rules(), ElementsAre("not-enabled", "not-enabled"));
}

TEST_F(At25640bTest, OneEnableIsGoodForOneWrite) {
  write(0x0000, {0x11});
  start(0x0020, {0x22});
  wait(5ms);
  EXPECT_EQ(chip.byteAt(0x20), 0xFF);
  EXPECT_THAT(rules(), ElementsAre("not-enabled"));
}

TEST_F(At25640bTest, EnableAndWriteInOneFrameDoNothing) {
  frame({kEnable, kWrite, 0x00, 0x00, 0x55});
  EXPECT_EQ(status(), 0U);
  EXPECT_EQ(chip.byteAt(0), 0xFF);
  EXPECT_EQ(lastDetails(), "WREN not carried out: 40 clocks in its frame, 8 expected");
  EXPECT_THAT(rules(), ElementsAre("frame-length"));
}

TEST_F(At25640bTest, WhileBusyTheStatusIsAllOnesAndTheRestIsIgnored) {
  frame({kEnable});
  start(0x0000, {0x55});
  EXPECT_TRUE(chip.busy());
  EXPECT_THAT(frame({kReadStatus, 0}), ElementsAre(kFloat, 0xFFU));
  EXPECT_THAT(rules(), IsEmpty());
  EXPECT_THAT(frame({kRead, 0, 0, 0}), Each(kFloat));
  frame({kEnable});
  frame({kDisable});
  start(0x0020, {0x66});
  frame({kWriteStatus, 0x0C});
  EXPECT_THAT(rules(), ElementsAre("busy", "busy", "busy", "busy", "busy"));
  wait(5ms);
  EXPECT_EQ(status(), 0U);
  EXPECT_THAT(readAt(0x0000, 1), ElementsAre(0x55U));
  EXPECT_THAT(readAt(0x0020, 1), ElementsAre(0xFFU));
}

TEST_F(At25640bTest, AWriteTakesItsTime) {
  frame({kEnable});
  start(0x0000, {0x55});
  wait(Time(5ms) - Time(1));
  EXPECT_TRUE(chip.busy());
  wait(Time(1));
  EXPECT_FALSE(chip.busy());
  chip.setWriteTime(3ms);
  frame({kEnable});
  start(0x0000, {0x55});
  wait(1ms);
  frame({kRead, 0, 0, 0});
  EXPECT_EQ(lastDetails(), "READ ignored: the write cycle takes 1991 us more");
  wait(2ms);
  EXPECT_FALSE(chip.busy());
}

TEST_F(At25640bTest, ALongStatusReadIsUpToDateInEveryByte) {
  frame({kEnable});
  start(0x0000, {0x55});
  wait(Time(5ms) - Time(25us));  // the cycle ends in the third byte of the frame
  EXPECT_THAT(frame({kReadStatus, 0, 0, 0}), ElementsAre(kFloat, 0xFFU, 0xFFU, 0U));
  chip.setStatusRefreshes(false);
  frame({kEnable});
  start(0x0000, {0x55});
  wait(Time(5ms) - Time(25us));
  EXPECT_THAT(frame({kReadStatus, 0, 0, 0}), ElementsAre(kFloat, 0xFFU, 0xFFU, 0xFFU));
}

TEST_F(At25640bTest, AWriteCutOffDoesNothingAndKeepsTheLatch) {
  frame({kEnable});
  cutFrame({kWrite, 0, 0, 0x55, 0x66}, 7);
  EXPECT_EQ(lastDetails(), "WRITE not carried out: CS rose after 39 clocks, within a byte");
  EXPECT_FALSE(chip.busy());
  frame({kWrite, 0, 0});
  frame({kWrite, 0});
  frame({kWriteStatus});
  frame({kWriteStatus, 0x0C, 0x0C});
  EXPECT_THAT(rules(), ElementsAre("partial-byte", "short-frame", "short-frame", "frame-length",
                                   "frame-length"));
  EXPECT_EQ(status(), 0x02U);
  EXPECT_EQ(chip.byteAt(0), 0xFF);
  chip.setRefusedKeepsEnable(false);
  frame({kWrite, 0, 0});
  EXPECT_EQ(status(), 0U);
}

TEST_F(At25640bTest, OtherShortFramesAreReported) {
  frame({kReadStatus});
  EXPECT_EQ(lastDetails(), "CS rose after 1 bytes of RDSR");
  frame({kRead, 0});
  EXPECT_EQ(lastDetails(), "CS rose after 2 bytes of READ");
  EXPECT_THAT(rules(), ElementsAre("short-frame", "short-frame"));
  cutFrame({kRead, 0, 0, 0}, 3);
  cutFrame({kEnable}, 7);
  EXPECT_THAT(rules(), ElementsAre("partial-byte", "partial-byte"));
  EXPECT_EQ(status(), 0U);
  select();
  deselect();
  EXPECT_THAT(rules(), IsEmpty()) << "a select without clocks only resets the interface";
}

TEST_F(At25640bTest, AddressAndDataInTwoSelectsAreTwoInstructions) {
  frame({kEnable});
  frame({kWrite, 0x00, 0x40});
  frame({0x55, 0x66});
  EXPECT_THAT(rules(), ElementsAre("short-frame", "unknown-instruction"));
  EXPECT_EQ(chip.byteAt(0x40), 0xFF);
}

TEST_F(At25640bTest, TheUpperAddressBitsAreIgnored) {
  write(0x2000, {0x11});
  EXPECT_THAT(readAt(0xE000, 1), ElementsAre(0x11U));
  EXPECT_EQ(chip.byteAt(0), 0x11);
  EXPECT_EQ(lastDetails(), "address 0xe000 is 0x0000 for the chip: it ignores A15 to A13");
  EXPECT_THAT(rules(), ElementsAre("address-range", "address-range"));
}

TEST_F(At25640bTest, TheProtectionBitsCoverAQuarterAHalfAndAll) {
  const std::pair<uint32_t, uint32_t> kFirsts[] = {{0x04, 0x1800}, {0x08, 0x1000}, {0x0C, 0x0000}};
  for (const auto& [bits, first] : kFirsts) {
    writeStatus(0);
    const std::vector<uint8_t> erased(8192, 0xFF);
    chip.setContents(0, erased);
    writeStatus(bits);
    EXPECT_EQ(status(), bits);
    rules();
    write(first, {0x11});
    EXPECT_EQ(chip.byteAt(static_cast<uint16_t>(first)), 0xFF);
    EXPECT_EQ(status(), bits | 0x02U) << "the latch stays";
    frame({kDisable});
    write(0x1FFF, {0x11});
    EXPECT_EQ(chip.byteAt(0x1FFF), 0xFF);
    EXPECT_THAT(rules(), ElementsAre("protected", "protected"));
    if (first > 0) {
      write(first - 1, {0x11});
      EXPECT_EQ(chip.byteAt(static_cast<uint16_t>(first - 1)), 0x11);
      EXPECT_THAT(rules(), IsEmpty());
    }
  }
}

TEST_F(At25640bTest, OnlyThreeBitsOfTheStatusCanBeWritten) {
  writeStatus(0xFF);
  EXPECT_EQ(status(), 0x8CU);
  writeStatus(0x00);
  EXPECT_EQ(status(), 0x00U);
  EXPECT_EQ(chip.writes(), 2U);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, TheWriteProtectPinGuardsTheStatusOnceItIsEnabled) {
  wp.low();
  writeStatus(0x84);
  EXPECT_EQ(status(), 0x84U) << "WPEN was not set yet";
  writeStatus(0x00);
  EXPECT_EQ(status(), 0x86U);
  EXPECT_EQ(lastDetails(), "WRSR ignored: WPEN is set and WP low");
  EXPECT_THAT(rules(), ElementsAre("status-protected"));
  write(0x0000, {0x11});
  EXPECT_EQ(chip.byteAt(0), 0x11) << "the array is none of its business";
  wp.high();
  writeStatus(0x00);
  EXPECT_EQ(status(), 0x00U);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, AFallingWriteProtectPinInterruptsTheWriteInEntryOnly) {
  writeStatus(0x80);
  frame({kEnable});
  select();
  transfer({kWriteStatus});
  wp.low();
  wp.high();
  transfer({0x0C});
  deselect();
  EXPECT_FALSE(chip.busy());
  EXPECT_THAT(rules(), ElementsAre("status-protected"));
  frame({kWriteStatus, 0x0C});
  wp.low();
  wait(5ms);
  EXPECT_EQ(status(), 0x0CU);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, HoldPausesAFrameWithoutEndingIt) {
  write(0x0000, {0x12, 0x34});
  select();
  transfer({kRead, 0, 0});
  EXPECT_THAT(transfer({0}), ElementsAre(0x12U));
  hold.low();
  EXPECT_THAT(transfer({0xFF, 0xFF}), ElementsAre(kFloat, kFloat));
  hold.high();
  EXPECT_THAT(transfer({0}), ElementsAre(0x34U));
  deselect();
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, HoldPausesAWriteAndAFrameFromItsBegin) {
  frame({kEnable});
  hold.low();
  select();
  transfer({0x05});
  hold.high();
  transfer({kWrite, 0x00, 0x20});
  hold.low();
  transfer({0x99});
  hold.high();
  transfer({0x55});
  deselect();
  EXPECT_EQ(chip.byteAt(0x20), 0x55);
  EXPECT_EQ(chip.byteAt(0x21), 0xFF);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, HoldMustChangeWhileTheClockIsLow) {
  format.mode = 3;  // which idles high
  select();
  hold.low();
  hold.high();
  deselect();
  EXPECT_THAT(rules(), ElementsAre("hold-while-clock-high", "hold-while-clock-high"));
  hold.low();
  hold.high();
  EXPECT_THAT(rules(), IsEmpty()) << "deselected it doesn't matter";
}

TEST_F(At25640bTest, SoFloatsButForData) {
  frame({kEnable});
  EXPECT_THAT(frame({kWrite, 0, 0, 0x55}), Each(kFloat));
  EXPECT_FALSE(spi.miso().net()->driven());
}

TEST_F(At25640bTest, Mode3WorksToo) {
  format.mode = 3;
  write(0x0000, {0xA5});
  EXPECT_THAT(frame({kRead, 0, 0, 0, 0}), ElementsAre(kFloat, kFloat, kFloat, 0xA5U, 0xFFU));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, TheOtherModesAreWrong) {
  for (const uint8_t mode : {uint8_t{1}, uint8_t{2}}) {
    format.mode = mode;
    read({kReadStatus}, 1);
    EXPECT_THAT(rules(), Contains("spi-mode"));
  }
}

TEST_F(At25640bTest, TheHighestClockFollowsTheSupply) {
  const std::pair<double, uint32_t> kClocks[] = {{1.8, 5000000},  {2.49, 5000000},
                                                 {2.5, 10000000}, {4.49, 10000000},
                                                 {4.5, 20000000}, {5.5, 20000000}};
  for (const auto& [volts, hertz] : kClocks) {
    chip.setSupply(volts);
    format.speedHz = hertz;
    read({kReadStatus}, 1);
    EXPECT_THAT(rules(), IsEmpty()) << volts;
    format.speedHz = hertz + 1;
    read({kReadStatus}, 1);
    EXPECT_THAT(rules(), ElementsAre("clock-too-fast")) << volts;
  }
}

TEST_F(At25640bTest, TheSelectMustStandHighForAWhile) {
  frame({kEnable});
  wait(99ns);
  spi.driveSelect(0, vboard::Level::Low);
  deselect();
  EXPECT_EQ(lastDetails(), "CS high for 99 ns between frames, at least 100 ns");
  EXPECT_THAT(rules(), ElementsAre("select-high-too-short"));
  wait(100ns);
  spi.driveSelect(0, vboard::Level::Low);
  deselect();
  EXPECT_THAT(rules(), IsEmpty());
  chip.setSelectHighTime(25ns);
  wait(25ns);
  spi.driveSelect(0, vboard::Level::Low);
  deselect();
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, APowerCycleForgetsTheLatchAndKeepsTheRest) {
  writeStatus(0x84);
  write(0x0000, {0x11});
  frame({kEnable});
  chip.losePower();
  chip.restorePower();
  wait(100us);
  EXPECT_EQ(status(), 0x84U);
  EXPECT_THAT(readAt(0, 1), ElementsAre(0x11U));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, ForAMomentAfterPowerItDoesNotListen) {
  wait(1ms);
  chip.losePower();
  chip.restorePower();
  frame({kEnable});
  EXPECT_EQ(lastDetails(), "instruction 0x06 ignored: the chip listens in 91 us");
  EXPECT_THAT(rules(), ElementsAre("too-early-after-power-up"));
  EXPECT_EQ(chip.status(), 0);
  wait(100us);
  frame({kEnable});
  EXPECT_EQ(chip.status(), 0x02);
  chip.setPowerUpTime(Time(0));
  chip.losePower();
  chip.restorePower();
  frame({kEnable});
  EXPECT_EQ(chip.status(), 0x02);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(At25640bTest, PowerLostWhileWritingRuinsThePageAlone) {
  const std::vector<uint8_t> zeros(8192, 0);
  chip.setContents(0, zeros);
  frame({kEnable});
  start(0x0040, {0});
  wait(1ms);
  chip.losePower();
  chip.restorePower();
  EXPECT_FALSE(chip.busy());
  std::vector<uint8_t> contents = chip.contents();
  const auto page = contents.begin() + 0x40;
  EXPECT_THAT(std::vector<uint8_t>(page, page + 32), Contains(testing::Ne(0)));
  std::fill(page, page + 32, uint8_t{0});
  EXPECT_EQ(contents, zeros);
  EXPECT_EQ(lastDetails(), "page 2 holds who knows what");
  EXPECT_THAT(rules(), ElementsAre("power-lost-while-writing"));
  // The cycle of before does not end a later one.
  wait(100us);
  frame({kEnable});
  start(0x0040, {1});
  wait(4ms);
  EXPECT_TRUE(chip.busy());
}

TEST_F(At25640bTest, PagesWearOut) {
  chip.setEndurance(2);
  for (int i = 0; i < 4; ++i) {
    write(0x0060, {1});
    write(0x0080, {1, 2});
  }
  EXPECT_EQ(chip.pageCycles(3), 4U);
  EXPECT_EQ(chip.pageCycles(5), 0U);
  EXPECT_EQ(chip.pageCycles(256), 0U);
  EXPECT_EQ(lastDetails(), "page 4 written 3 times, good for 2");
  EXPECT_THAT(rules(), ElementsAre("worn-out", "worn-out"));
}

TEST_F(At25640bTest, TheBenchCanProgramIt) {
  const std::vector<uint8_t> bytes = {1, 2, 3};
  chip.setContents(0x1FFE, bytes);
  EXPECT_THAT(readAt(0x1FFE, 3), ElementsAre(1U, 2U, 0xFFU)) << "what goes beyond is left out";
  chip.setContents(0xFFFF, bytes);
  EXPECT_THAT(chip.contents(), SizeIs(8192));
}

TEST_F(At25640bTest, TellsWhatHappens) {
  vboard::WireLog log(board);
  write(0x0120, {1, 2});
  writeStatus(0x0C);
  EXPECT_THAT(log.lines(), Contains(HasSubstr("wrote 2 bytes at 0x0120")));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("status register 0x0c")));
}

TEST_F(At25640bTest, HasItsKnobsAndMetersAsProperties) {
  const std::pair<const char*, PropertyValue> kOptions[] = {
      {"vcc", 5.0},
      {"write_time", 3.5},
      {"select_high", 25.0},
      {"power_up_time", 50.0},
      {"refused_keeps_enable", false},
      {"status_refreshes", false},
      {"endurance", 10.0},
  };
  for (const auto& [name, value] : kOptions) {
    EXPECT_NE(valueOf(chip, name), value) << name;
    EXPECT_EQ(setValue(chip, name, value), std::nullopt) << name;
    EXPECT_EQ(valueOf(chip, name), value) << name;
  }
  EXPECT_EQ(chip.limits().maxHz, 20000000U);
  write(0x0120, {1, 2});
  frame({kEnable});
  EXPECT_EQ(valueOf(chip, "status"), PropertyValue(std::string("0x02")));
  EXPECT_EQ(valueOf(chip, "writes"), PropertyValue(int64_t{1}));
  EXPECT_EQ(valueOf(chip, "most_cycles"), PropertyValue(int64_t{1}));
  EXPECT_TRUE(propertyOf(chip, "writes").reported);
}

/// With a directory for image files.
struct At25640bImage : At25640bTest {
  std::string directory = [] {
    std::string name = testing::TempDir() + "eepromXXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("no directory for the test");
    }
    return name;
  }();
  std::string path = directory + "/image.bin";
  ~At25640bImage() override { std::filesystem::remove_all(directory); }

  static std::vector<uint8_t> fileAt(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  static void put(const std::string& name, size_t size, char byte) {
    std::ofstream(name, std::ios::binary) << std::string(size, byte);
  }
  size_t files() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory),
                                             std::filesystem::directory_iterator()));
  }
};

TEST_F(At25640bImage, ANewFileAppearsWithTheFirstChange) {
  EXPECT_EQ(setValue(chip, "image", path), std::nullopt);
  EXPECT_EQ(files(), 0U);
  write(0x0003, {0x77});
  EXPECT_THAT(fileAt(path), SizeIs(8192));
  EXPECT_EQ(fileAt(path), chip.contents());
  EXPECT_EQ(fileAt(path)[3], 0x77);
  EXPECT_EQ(files(), 1U) << "nothing is left beside it";
}

TEST_F(At25640bImage, TheNextRunFindsContentsAndProtection) {
  chip.setImage(path);
  write(0x0003, {0x77});
  writeStatus(0x8C);
  EXPECT_THAT(fileAt(path), SizeIs(8193));
  vboard::Board second;
  auto& same = second.add<At25640b>("same");
  EXPECT_EQ(setValue(same, "image", path), std::nullopt);
  second.powerUp();
  EXPECT_EQ(same.byteAt(3), 0x77);
  EXPECT_EQ(same.status(), 0x8C);
  writeStatus(0x00);
  EXPECT_THAT(fileAt(path), SizeIs(8192));
}

TEST_F(At25640bImage, TheFileIsThereAsSoonAsTheCycleBegins) {
  chip.setImage(path);
  frame({kEnable});
  start(0x0003, {0x77});
  EXPECT_TRUE(chip.busy());
  EXPECT_EQ(fileAt(path).at(3), 0x77) << "the program may end before the chip is ready";
}

TEST_F(At25640bImage, ALostPageIsLostInTheFileToo) {
  chip.setImage(path);
  frame({kEnable});
  start(0x0003, {0x77});
  chip.losePower();
  EXPECT_EQ(fileAt(path), chip.contents());
}

TEST_F(At25640bImage, TheFileIsReplacedAsAWhole) {
  chip.setImage(path);
  write(0x0003, {0x77});
  // Whoever has the old file open goes on seeing it.
  std::ifstream old(path, std::ios::binary);
  write(0x0003, {0x78});
  old.seekg(3);
  EXPECT_EQ(old.get(), 0x77);
  EXPECT_EQ(fileAt(path)[3], 0x78);
}

TEST_F(At25640bImage, ALinkStaysALink) {
  const std::string real = directory + "/real.bin";
  put(real, 8192, 'a');
  std::filesystem::create_symlink("real.bin", path);
  EXPECT_EQ(chip.setImage(path), std::nullopt);
  EXPECT_EQ(chip.byteAt(0), 'a');
  write(0x0000, {'b'});
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_EQ(fileAt(real)[0], 'b');
}

TEST_F(At25640bImage, ARelativePathStaysWhereItWasMeant) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(directory);
  EXPECT_EQ(chip.setImage("image.bin"), std::nullopt);
  std::filesystem::current_path(before);
  write(0x0000, {0x12});
  EXPECT_EQ(fileAt(path).at(0), 0x12);
}

TEST_F(At25640bImage, OtherFilesAreRefusedAndChangeNothing) {
  const std::string kWrong =
      "must name a file of 8192 bytes, or of 8193 with the status register, or a new file";
  for (const size_t size : {size_t{0}, size_t{8191}, size_t{8194}}) {
    put(path, size, 'a');
    EXPECT_EQ(chip.setImage(path), kWrong) << size;
  }
  EXPECT_EQ(chip.setImage(directory), kWrong);
  EXPECT_EQ(chip.setImage(directory + "/none/image.bin"),
            "must name a file in a directory that exists");
  EXPECT_EQ(setValue(chip, "image", true), "must be a path");
  EXPECT_EQ(chip.image(), "");
  write(0x0000, {0x12});
  EXPECT_THAT(fileAt(path), SizeIs(8194));
}

TEST_F(At25640bImage, AnEmptyPathKeepsNoFile) {
  chip.setImage(path);
  write(0x0000, {0x12});
  EXPECT_EQ(chip.setImage(""), std::nullopt);
  write(0x0000, {0x13});
  EXPECT_EQ(fileAt(path)[0], 0x12);
}

TEST_F(At25640bImage, AFileThatCantBeWrittenIsReportedAndErrnoStays) {
  chip.setImage(path);
  std::filesystem::remove_all(directory);
  errno = 42;
  write(0x0000, {0x12});
  EXPECT_EQ(errno, 42);
  EXPECT_EQ(lastDetails(), path + ": No such file or directory");
  EXPECT_THAT(rules(), ElementsAre("image-not-written"));
  EXPECT_EQ(chip.byteAt(0), 0x12);
}

}  // namespace
