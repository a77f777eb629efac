// SPDX-License-Identifier: MIT
#include "vboard/chips/Ad529x.h"

#include <gmock/gmock.h>

#include <cmath>

#include "tests/vboard/board/Parts.h"
#include "tests/vboard/chips/Properties.h"
#include "vboard/board/WireLog.h"

namespace {

using boardtest::Hand;
using boardtest::propertyOf;
using boardtest::rulesOf;
using boardtest::setValue;
using boardtest::valueOf;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vboard::Ad5291;
using vboard::Ad5292;
using vboard::Board;
using vboard::Drive;
using vboard::FloatingMiso;
using vboard::Level;
using vboard::PropertyValue;
using vboard::Pull;
using vboard::SpiFormat;
using vboard::Time;

/// One potentiometer on native select 0, with pull-ups, and RESET in a hand.
template <typename Chip>
struct Rig : testing::Test {
  Board board;
  vboard::SpiBus& bus = board.addSpiBus({.floatingMiso = FloatingMiso::Low});
  Chip& pot = board.add<Chip>("pot");
  Hand& reset = board.add<Hand>("reset");
  SpiFormat format{.mode = 1, .bitsPerWord = 16, .speedHz = 1000000};

  void SetUp() override {
    board.attach(pot, bus);
    board.connect(bus.select(0), pot.pin("SYNC"));
    board.connect(reset.p(), pot.pin("RESET"));
    bus.miso().net()->setPull(Pull::Up);
    board.netOf(pot.pin("RDY")).setPull(Pull::Up);
    board.powerUp();
    reset.high();
  }
  void select() {
    bus.setIdle(format.mode);
    bus.driveSelect(0, Level::Low);
  }
  void deselect() { bus.driveSelect(0, Level::High); }
  std::vector<uint32_t> clockOut(const std::vector<uint32_t>& words) {
    std::vector<uint32_t> received(words.size());
    bus.transfer(0, format, words, received);
    return received;
  }
  std::vector<uint32_t> frame(const std::vector<uint32_t>& words) {
    select();
    auto received = clockOut(words);
    deselect();
    board.advance(microseconds(20));
    return received;
  }
  uint32_t send(uint32_t word) { return frame({word}).at(0); }
  /// What a command answers in the next select.
  uint32_t ask(uint32_t word, Time wait = microseconds(20)) {
    send(word);
    board.advance(wait);
    return send(0x0000);
  }
  void store() {
    send(0x0C00);
    board.advance(milliseconds(9));
  }
  bool ready() { return pot.pin("RDY").high(); }
  std::string lastDetails() const { return board.violations().back().details; }
};

using Ad5292Test = Rig<Ad5292>;
using Ad5291Test = Rig<Ad5291>;

constexpr Time kMemoryTime = microseconds(1300);

TEST_F(Ad5292Test, TheSequenceOfTheDataSheetAnswersOneWordLater) {
  send(0x1803);
  EXPECT_EQ(send(0x0500), 0x1803U);
  EXPECT_EQ(send(0x0800), 0x0500U);
  EXPECT_EQ(send(0x0C00), 0x0100U);
  board.advance(milliseconds(8));
  EXPECT_EQ(send(0x1C00), 0x0C00U);
  EXPECT_EQ(send(0x0000), 0x000BU);
  EXPECT_EQ(pot.position(), 0x100);
  EXPECT_EQ(pot.slot(0), 0x100);
  EXPECT_EQ(pot.commands(), 6U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, StartsInTheMiddleWithWiperAndMemoryLocked) {
  EXPECT_EQ(pot.position(), 512);
  EXPECT_EQ(pot.control(), 0);
  send(0x0500);
  EXPECT_EQ(pot.position(), 512);
  ASSERT_THAT(rulesOf(board), ElementsAre("pot wiper-locked"));
  EXPECT_EQ(lastDetails(), "control bit C1 is 0: the wiper stays at 512 instead of 256");
  send(0x0C00);
  EXPECT_TRUE(ready());
  EXPECT_EQ(pot.slotsUsed(), 0);
  ASSERT_THAT(rulesOf(board), ElementsAre("pot wiper-locked", "pot memory-locked"));
  EXPECT_EQ(lastDetails(), "control bit C0 is 0: slot 0 stays empty");
  send(0x1801);
  send(0x0500);
  EXPECT_EQ(pot.position(), 512) << "C0 doesn't unlock the wiper";
  send(0x1802);
  send(0x0500);
  EXPECT_EQ(pot.position(), 256);
}

TEST_F(Ad5291Test, ItsPositionStandsInTheUpperEightOfTheTenBits) {
  EXPECT_EQ(pot.position(), 0x80);
  EXPECT_EQ(pot.positions(), 256);
  send(0x1802);
  send(0x0400 | (0x5A << 2) | 3);
  EXPECT_EQ(pot.position(), 0x5A);
  EXPECT_EQ(ask(0x0800), 0x5AU << 2);
  send(0x0400 | 0x5A);
  EXPECT_EQ(pot.position(), 0x16) << "not shifted: a quarter of it";
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5291Test, MayAnswerNoiseBelowItsEightBits) {
  pot.setNoiseBits(true);
  uint32_t seen = 0;
  uint32_t all = 3;
  for (int i = 0; i < 100; ++i) {
    const uint32_t value = ask(0x0800);
    EXPECT_EQ(value >> 2, 0x80U);
    seen |= value & 3;
    all &= value & 3;
  }
  EXPECT_EQ(seen, 3U);
  EXPECT_EQ(all, 0U);
}

TEST_F(Ad5292Test, NoNoiseBelowItsTenBits) {
  pot.setNoiseBits(true);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(ask(0x0800), 0x200U);
  }
}

TEST_F(Ad5292Test, ModeTwoWritesAndItsFirstAnswerBitIsReported) {
  format.mode = 2;
  send(0x1802);
  send(0x07FF);
  EXPECT_EQ(pot.position(), 0x3FF);
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_EQ(ask(0x0800), 0x3FFU);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot first-bit"));
}

TEST_F(Ad5292Test, TheOtherModesAreWrong) {
  format.mode = 0;
  send(0x1802);
  EXPECT_EQ(send(0x0000) & 0x7FFF, 0x1802U >> 1) << "SDO comes half a clock too late";
  EXPECT_EQ(pot.control(), 2);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot spi-mode", "pot spi-mode"));
  format.mode = 3;
  send(0x1804);
  EXPECT_EQ(pot.control(), 2) << "each bit taken one too early: 0x0C02 is a store";
  EXPECT_THAT(rulesOf(board), Contains("pot memory-locked"));
}

TEST_F(Ad5292Test, AClockAboveFiftyMegahertzAndLsbFirstAreReported) {
  format.speedHz = 50000001;
  send(0x0000);
  format.speedHz = 1000000;
  format.lsbFirst = true;
  send(0x0000);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot clock-too-fast", "pot bit-order"));
}

TEST_F(Ad5292Test, SelectsThatAreNoMultipleOfSixteenClocksAreIgnored) {
  send(0x1802);
  for (const uint8_t bits : {uint8_t{1}, uint8_t{8}, uint8_t{15}, uint8_t{17}, uint8_t{31}}) {
    board.clearViolations();
    format.bitsPerWord = bits;
    send(0x0400);
    EXPECT_EQ(pot.position(), 512) << int{bits};
    EXPECT_THAT(rulesOf(board), ElementsAre("pot frame-length")) << int{bits};
    EXPECT_EQ(lastDetails(),
              std::to_string(bits) +
                  " clocks in one select, a multiple of 16 expected: nothing is decoded");
  }
  format.bitsPerWord = 32;
  send(0x05550401);
  EXPECT_EQ(pot.position(), 1) << "the last 16 bits count";
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ad5292Test, TheBitsOfAnIgnoredSelectHaveStillBeenShifted) {
  send(0x1802);
  format.bitsPerWord = 8;
  EXPECT_EQ(send(0x0A), 0x18U);
  format.bitsPerWord = 16;
  EXPECT_EQ(send(0x0000), 0x020AU);
}

TEST_F(Ad5292Test, TwoBytesInOneSelectAreAWordAndInTwoSelectsNone) {
  format.bitsPerWord = 8;
  frame({0x18, 0x02});
  EXPECT_EQ(pot.control(), 2);
  EXPECT_THAT(board.violations(), IsEmpty());
  frame({0x18});
  frame({0x03});
  EXPECT_EQ(pot.control(), 2);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot frame-length", "pot frame-length"));
}

TEST_F(Ad5292Test, ASelectWithoutAClockIsReported) {
  frame({});
  EXPECT_THAT(rulesOf(board), ElementsAre("pot empty-frame"));
  EXPECT_EQ(pot.commands(), 0U);
}

TEST_F(Ad5292Test, TrafficForOthersIsNotHeard) {
  send(0x1802);
  format.mode = 0;
  clockOut({0x1800});
  format.mode = 1;
  EXPECT_EQ(pot.control(), 2);
  EXPECT_EQ(send(0x0000), 0x1802U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, WordsMustBeFourHundredNanosecondsApart) {
  select();
  clockOut({0x0000});
  deselect();
  board.advance(nanoseconds(399));
  select();
  clockOut({0x0000});
  deselect();
  ASSERT_THAT(rulesOf(board), ElementsAre("pot select-high-too-short"));
  EXPECT_EQ(lastDetails(), "SYNC high for 399 ns between words, at least 400 ns");
  board.advance(nanoseconds(400));
  select();
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ad5292Test, ReadyIsLowAsLongAsTheDataSheetSays) {
  const auto expectBusy = [this](uint32_t word, Time time) {
    select();
    clockOut({word});
    deselect();
    EXPECT_FALSE(ready()) << word;
    EXPECT_TRUE(pot.busy()) << word;
    board.advance(time - Time{1});
    EXPECT_FALSE(ready()) << word;
    board.advance(Time{1});
    EXPECT_TRUE(ready()) << word;
    EXPECT_FALSE(pot.busy()) << word;
    board.advance(microseconds(20));
  };
  send(0x1803);
  expectBusy(0x0500, nanoseconds(2400));
  send(0x1807);
  expectBusy(0x0500, nanoseconds(410));  // without calibration
  expectBusy(0x0800, nanoseconds(450));
  expectBusy(0x1400, microseconds(1300));
  expectBusy(0x0C00, milliseconds(8));
  expectBusy(0x1000, microseconds(1500));
  pot.setProgramTime(milliseconds(6));
  send(0x1803);
  expectBusy(0x0C00, milliseconds(6));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, NothingElseMakesItBusy) {
  for (const uint32_t word : {0x0000U, 0x1803U, 0x1C00U, 0x2001U, 0x2000U}) {
    select();
    clockOut({word});
    deselect();
    EXPECT_TRUE(ready()) << word;
    board.advance(microseconds(20));
  }
}

TEST_F(Ad5292Test, AWordWhileItIsBusyIsIgnoredAndShiftsNothing) {
  pot.setMemory(std::vector<uint16_t>{0x155});
  send(0x1802);
  send(0x1400);
  EXPECT_EQ(send(0x0401), 0U) << "read too early";
  EXPECT_EQ(pot.position(), 512);
  ASSERT_THAT(rulesOf(board), ElementsAre("pot busy"));
  EXPECT_EQ(lastDetails(),
            "a word came while the chip reads its memory, which takes 1300 us: it is ignored");
  board.advance(kMemoryTime);
  EXPECT_EQ(send(0x0000), 0x155U);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ad5292Test, ABusyWiperIgnoresAWordToo) {
  send(0x1802);
  select();
  clockOut({0x0501});
  deselect();
  board.advance(nanoseconds(1890));  // the first clock comes half a microsecond later
  send(0x0502);
  EXPECT_EQ(pot.position(), 0x101);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
  select();
  clockOut({0x0503});
  deselect();
  board.advance(nanoseconds(1900));
  send(0x0504);
  EXPECT_EQ(pot.position(), 0x104);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ad5292Test, ASelectMayBeginWhileItIsBusyAndSendItsWordAfterwards) {
  send(0x1803);
  send(0x0455);
  send(0x0C00);
  select();
  board.advance(milliseconds(8));
  clockOut({0x0466});
  deselect();
  board.advance(microseconds(20));
  EXPECT_EQ(pot.position(), 0x66);
  EXPECT_EQ(pot.slot(0), 0x55);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, AWordWhoseFirstClocksCameTooEarlyIsIgnoredToItsEnd) {
  send(0x1803);
  send(0x1400);
  select();
  format.bitsPerWord = 8;
  clockOut({0x04});
  board.advance(kMemoryTime);
  clockOut({0x66, 0x04, 0x77});
  deselect();
  EXPECT_EQ(pot.position(), 0x200);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
}

TEST_F(Ad5292Test, AResetBetweenSelectAndWordSpoilsNothingOnceItIsOver) {
  select();
  reset.low();
  board.advance(microseconds(1));
  reset.high();
  board.advance(microseconds(1500));
  clockOut({0x1802});
  deselect();
  EXPECT_EQ(pot.control(), 2);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, ItsMemoryMayBeFasterThanTheDataSheetPromises) {
  pot.setMemory(std::vector<uint16_t>{0x155});
  pot.setMemoryReadTime(microseconds(500));
  send(0x1400);
  board.advance(microseconds(470));
  EXPECT_FALSE(ready());
  board.advance(microseconds(10));
  EXPECT_TRUE(ready());
  EXPECT_EQ(send(0x0000), 0x155U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, ASelectThatSendsNothingDoesNoHarmWhileItIsBusy) {
  send(0x1400);
  frame({});
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST(Ad529xTimes, ABoardWithoutCallCostsCantJudgeWhatACallOutlasts) {
  Board board({.callCost = Time{0}});
  auto& bus = board.addSpiBus();
  auto& pot = board.add<Ad5292>("pot");
  board.attach(pot, bus);
  board.connect(bus.select(0), pot.pin("SYNC"));
  bus.miso().net()->setPull(Pull::Up);
  board.powerUp();
  const SpiFormat format{.mode = 1, .bitsPerWord = 16, .speedHz = 1000000};
  uint32_t received = 0;
  const auto send = [&](uint32_t word) {
    bus.driveSelect(0, Level::Low);
    bus.transfer(0, format, {&word, 1}, {&received, 1});
    bus.driveSelect(0, Level::High);
  };
  for (const uint32_t word : {0x1803U, 0x0500U, 0x0800U, 0x0000U}) {
    send(word);
  }
  EXPECT_EQ(received, 0x100U);
  EXPECT_THAT(board.violations(), IsEmpty());
  send(0x0C00);
  send(0x0000);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy")) << "eight milliseconds are no call";
}

TEST_F(Ad5292Test, ControlBitsAreWrittenAndReadAndTheSuccessBitIsNotWritten) {
  send(0x180F);
  EXPECT_EQ(pot.control(), 7);
  EXPECT_EQ(ask(0x1C00), 7U);
  send(0x1800);
  EXPECT_EQ(ask(0x1C00), 0U);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, StoresTheWiperInOneSlotAfterTheOther) {
  send(0x1803);
  for (const uint32_t value : {0x111U, 0x222U, 0x333U}) {
    send(0x0400 | value);
    store();
    EXPECT_EQ(pot.control(), 0xB);
  }
  EXPECT_EQ(pot.slotsUsed(), 3);
  EXPECT_EQ(ask(0x1400, kMemoryTime), 0x111U);
  EXPECT_EQ(ask(0x1401, kMemoryTime), 0x222U);
  EXPECT_EQ(ask(0x1402, kMemoryTime), 0x333U);
  EXPECT_EQ(ask(0x1403, kMemoryTime), 0U) << "empty";
  EXPECT_EQ(pot.slot(2), 0x333);
  EXPECT_EQ(pot.slot(3), std::nullopt);
  EXPECT_EQ(pot.slot(-1), std::nullopt);
  pot.setEmptySlot(0x3FF);
  EXPECT_EQ(ask(0x1403, kMemoryTime), 0x3FFU);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, TheSuccessBitIsLowWhileASlotIsBeingProgrammed) {
  send(0x1803);
  store();
  EXPECT_EQ(pot.control(), 0xB);
  send(0x0C00);
  EXPECT_EQ(pot.control(), 3);
  EXPECT_EQ(pot.slotsUsed(), 1);
  board.advance(milliseconds(8));
  EXPECT_EQ(pot.control(), 0xB);
  EXPECT_EQ(pot.slotsUsed(), 2);
}

TEST_F(Ad5292Test, TwoThermometersCountTheProgrammedSlots) {
  struct {
    size_t slots;
    uint32_t first;
    uint32_t second;
  } const kCases[] = {{0, 0x000, 0x000},  {1, 0x001, 0x000},  {9, 0x1FF, 0x000}, {10, 0x3FF, 0x000},
                      {11, 0x3FF, 0x001}, {18, 0x3FF, 0x0FF}, {20, 0x3FF, 0x3FF}};
  for (const auto& each : kCases) {
    pot.setMemory(std::vector<uint16_t>(each.slots, 7));
    EXPECT_EQ(ask(0x1414, kMemoryTime), each.first) << each.slots;
    EXPECT_EQ(ask(0x1415, kMemoryTime), each.second) << each.slots;
  }
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, BeyondTheThermometersThereIsNothing) {
  pot.setEmptySlot(0x3FF);
  EXPECT_EQ(ask(0x1416, kMemoryTime), 0U);
  ASSERT_THAT(rulesOf(board), ElementsAre("pot memory-address"));
  EXPECT_EQ(lastDetails(), "there is nothing at 0x16, the last is 0x15");
}

TEST_F(Ad5292Test, TheTwentyFirstStoreDoesNothing) {
  pot.setMemory(std::vector<uint16_t>(19, 7));
  send(0x1803);
  send(0x0401);
  store();
  EXPECT_EQ(pot.slotsUsed(), 20);
  EXPECT_EQ(pot.slot(19), 1);
  EXPECT_EQ(pot.control(), 0xB);
  EXPECT_THAT(board.violations(), IsEmpty());
  send(0x0402);
  send(0x0C00);
  EXPECT_TRUE(ready());
  EXPECT_EQ(pot.slot(19), 1);
  EXPECT_EQ(pot.control(), 3);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot memory-full"));
}

TEST_F(Ad5292Test, AFullMemoryMayKeepTheSuccessBit) {
  pot.setFullClearsSuccess(false);
  pot.setMemory(std::vector<uint16_t>(19, 7));
  send(0x1803);
  store();
  send(0x0C00);
  EXPECT_EQ(pot.control(), 0xB);
}

TEST_F(Ad5292Test, WithoutItsCapacitorProgrammingFails) {
  pot.setCapacitor(false);
  send(0x1803);
  store();
  EXPECT_EQ(pot.slotsUsed(), 0);
  EXPECT_EQ(ask(0x1C00), 3U);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot program-failed"));
}

TEST_F(Ad5292Test, PowerLostWhileProgrammingLeavesTheSlotEmpty) {
  send(0x1803);
  send(0x0C00);
  pot.losePower();
  EXPECT_THAT(rulesOf(board), ElementsAre("pot power-lost-while-programming"));
  pot.restorePower();
  board.advance(milliseconds(10));
  EXPECT_EQ(pot.slotsUsed(), 0);
  EXPECT_TRUE(ready());
}

TEST_F(Ad5292Test, PowerUpLoadsTheNewestSlotAndLocksEverything) {
  send(0x1803);
  send(0x0455);
  store();
  send(0x0466);
  store();
  send(0x0477);
  send(0x2001);
  pot.losePower();
  EXPECT_EQ(pot.pin("SDO").driven(), Drive::Floating);
  pot.restorePower();
  EXPECT_EQ(pot.position(), 0x66);
  EXPECT_EQ(pot.control(), 0);
  EXPECT_FALSE(pot.shutDown());
  EXPECT_EQ(pot.slotsUsed(), 2);
}

TEST_F(Ad5292Test, TheResetCommandLoadsTheSlotAndLocksAgain) {
  send(0x1803);
  send(0x0455);
  store();
  send(0x0466);
  send(0x1000);
  EXPECT_EQ(pot.position(), 0x55);
  EXPECT_EQ(pot.control(), 0);
  EXPECT_FALSE(ready());
  board.advance(microseconds(1500));
  EXPECT_TRUE(ready());
  send(0x0466);
  EXPECT_EQ(pot.position(), 0x55);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot wiper-locked"));
}

TEST_F(Ad5292Test, TheSuccessBitMaySurviveAReset) {
  pot.setSuccessSurvivesReset(true);
  send(0x1803);
  store();
  send(0x1000);
  EXPECT_EQ(pot.control(), 8);
}

TEST_F(Ad5292Test, TheResetPinActsWhenItRises) {
  send(0x1802);
  send(0x0455);
  reset.low();
  EXPECT_EQ(pot.position(), 0x55);
  board.advance(nanoseconds(20));
  reset.high();
  EXPECT_EQ(pot.position(), 0x200);
  EXPECT_EQ(pot.control(), 0);
  EXPECT_FALSE(ready());
  board.advance(microseconds(1500));
  EXPECT_TRUE(ready());
  EXPECT_THAT(board.violations(), IsEmpty());
  reset.low();
  board.advance(nanoseconds(19));
  reset.high();
  ASSERT_THAT(rulesOf(board), ElementsAre("pot reset-too-short"));
  EXPECT_EQ(lastDetails(), "RESET low for 19 ns, at least 20 ns");
}

TEST_F(Ad5292Test, AResetInAWordSpoilsTheWord) {
  send(0x1802);
  select();
  format.bitsPerWord = 8;
  clockOut({0x04});
  reset.low();
  board.advance(microseconds(1));
  reset.high();
  clockOut({0x01});
  deselect();
  EXPECT_EQ(pot.position(), 0x200);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
}

TEST_F(Ad5292Test, AResetWhileASlotIsBeingProgrammedIsRefused) {
  send(0x1803);
  send(0x0455);
  send(0x0C00);
  reset.low();
  board.advance(microseconds(1));
  reset.high();
  EXPECT_EQ(pot.position(), 0x55);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot busy"));
  board.advance(milliseconds(8));
  EXPECT_EQ(pot.slotsUsed(), 1);
}

TEST_F(Ad5292Test, UnknownCommandsAndReservedBitsAreReported) {
  send(0x1802);
  send(0x2400);
  send(0x3FFF);
  ASSERT_THAT(rulesOf(board), ElementsAre("pot unknown-command", "pot unknown-command"));
  EXPECT_EQ(lastDetails(), "0x3fff has command 15, which does nothing");
  send(0x4401);
  EXPECT_EQ(pot.position(), 1) << "the bits above the command mean nothing";
  EXPECT_THAT(rulesOf(board), Contains("pot reserved-bits"));
  EXPECT_EQ(lastDetails(), "0x4401 has a bit set above its command");
}

TEST_F(Ad5292Test, SdoHoldsItsWireWithSyncHighUntilItIsTurnedOff) {
  send(0x1802);
  send(0x0000);
  EXPECT_EQ(pot.pin("SDO").driven(), Drive::Low);
  EXPECT_EQ(clockOut({0x0000}).at(0), 0U) << "others can't be read";
  send(0x8001);
  EXPECT_FALSE(pot.outputOff());
  send(0x0000);
  EXPECT_TRUE(pot.outputOff());
  EXPECT_EQ(pot.pin("SDO").driven(), Drive::Floating);
  EXPECT_EQ(clockOut({0x0000}).at(0), 0xFFFFU) << "the pull-up";
  EXPECT_EQ(send(0x0000), 0xFFFFU);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad5292Test, SdoWakesWithTheNextWordThatIsNoNop) {
  send(0x8001);
  send(0x0000);
  send(0x0000);
  EXPECT_TRUE(pot.outputOff());
  EXPECT_EQ(send(0x1C00), 0xFFFFU);
  EXPECT_FALSE(pot.outputOff());
  EXPECT_EQ(send(0x0000), 0U) << "control bits";
  pot.losePower();
  pot.restorePower();
  EXPECT_FALSE(pot.outputOff());
}

TEST_F(Ad5292Test, OnlyANopRightAfterTheSpecialWordTurnsSdoOff) {
  send(0x8001);
  send(0x1802);
  send(0x0000);
  EXPECT_FALSE(pot.outputOff());
}

TEST_F(Ad5292Test, WithoutAPullUpOnesAreLostAndReportedWhenAnAnswerIsRead) {
  bus.miso().net()->setPull(Pull::None);
  send(0x1802);
  EXPECT_EQ(send(0x0000), 0U) << "the wire floats, which reads low here";
  EXPECT_THAT(board.violations(), IsEmpty()) << "nobody asked for the echo";
  send(0x1C00);
  EXPECT_EQ(send(0x0000), 0U);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot no-pull-up"));
}

TEST_F(Ad5292Test, AFastClockReadsOnesTooLateAndIsReported) {
  send(0x1802);
  send(0x0400 | 0x19B);  // 01 1001 1011
  format.speedHz = 1111111;
  EXPECT_EQ(ask(0x0800), 0x19BU);
  EXPECT_THAT(board.violations(), IsEmpty());
  send(0x0800);
  format.speedHz = 1200000;
  // Each 1 after a 0 is read as 0.
  EXPECT_EQ(send(0x0000), 0x089U);
  ASSERT_THAT(rulesOf(board), ElementsAre("pot read-too-fast"));
  EXPECT_THAT(lastDetails(), HasSubstr("while SDO needs up to 450 ns to rise"));
  format.speedHz = 20000000;
  send(0x0500);
  send(0x0501);
  EXPECT_EQ(pot.position(), 0x101);
  EXPECT_EQ(board.violationCount(), 1U) << "writing may be fast";
}

TEST_F(Ad5292Test, ClocksOfASelectThatWasLowAtPowerUpAreIgnoredAndReported) {
  pot.losePower();
  select();
  pot.restorePower();
  clockOut({0x1802});
  deselect();
  EXPECT_EQ(pot.control(), 0);
  EXPECT_THAT(rulesOf(board), ElementsAre("pot select-low-at-power-up"));
  board.advance(microseconds(20));
  send(0x1802);
  EXPECT_EQ(pot.control(), 2);
  EXPECT_EQ(board.violationCount(), 1U);
}

TEST_F(Ad5292Test, ResistancesAndVoltageFollowTheWiper) {
  send(0x1802);
  send(0x0500);
  pot.setWiperResistance(0);
  EXPECT_DOUBLE_EQ(pot.resistanceToB(), 5000);
  EXPECT_DOUBLE_EQ(pot.resistanceToA(), 15000);
  EXPECT_DOUBLE_EQ(pot.wiperVoltage(), 1.25);
  pot.setResistance(100000);
  pot.setWiperResistance(60);
  EXPECT_DOUBLE_EQ(pot.resistanceToB(), 25060);
  pot.setTerminals(-1, 3);
  EXPECT_DOUBLE_EQ(pot.wiperVoltage(), 2);
  send(0x0400);
  EXPECT_DOUBLE_EQ(pot.resistanceToB(), 60);
  EXPECT_DOUBLE_EQ(pot.wiperVoltage(), 3) << "at B";
}

TEST_F(Ad5292Test, ShutdownOpensAAndTiesTheWiperToB) {
  send(0x1802);
  send(0x0500);
  send(0x2001);
  EXPECT_TRUE(pot.shutDown());
  EXPECT_TRUE(std::isinf(pot.resistanceToA()));
  EXPECT_DOUBLE_EQ(pot.resistanceToB(), 60);
  EXPECT_DOUBLE_EQ(pot.wiperVoltage(), 0);
  EXPECT_EQ(ask(0x0800), 0x100U) << "the register keeps its value";
  send(0x2000);
  EXPECT_FALSE(pot.shutDown());
  EXPECT_DOUBLE_EQ(pot.resistanceToB(), 5060);
}

/// Two in a row: SDO of the first feeds the second.
struct Ad529xChain : testing::Test {
  Board board;
  vboard::SpiBus& bus = board.addSpiBus();
  Ad5292& first = board.add<Ad5292>("first");
  Ad5291& second = board.add<Ad5291>("second");
  SpiFormat format{.mode = 1, .bitsPerWord = 16, .speedHz = 1000000};

  void SetUp() override {
    for (vboard::Ad529x* chip :
         {static_cast<vboard::Ad529x*>(&first), static_cast<vboard::Ad529x*>(&second)}) {
      board.connect(chip->clockPin(), bus.sclk());
      board.connect(chip->pin("SYNC"), bus.select(0));
    }
    board.connect(first.pin("DIN"), bus.mosi());
    board.connect(first.pin("SDO"), second.pin("DIN")).setPull(Pull::Up);
    board.connect(second.pin("SDO"), bus.miso()).setPull(Pull::Up);
    board.powerUp();
  }
  std::vector<uint32_t> frame(const std::vector<uint32_t>& words) {
    std::vector<uint32_t> received(words.size());
    bus.setIdle(1);
    bus.driveSelect(0, Level::Low);
    bus.transfer(0, format, words, received);
    bus.driveSelect(0, Level::High);
    board.advance(microseconds(20));
    return received;
  }
};

TEST_F(Ad529xChain, TheFirstWordReachesTheLastChip) {
  frame({0x1802, 0x1802});
  frame({0x0400 | (200 << 2), 0x0400 | 100});
  EXPECT_EQ(first.position(), 100);
  EXPECT_EQ(second.position(), 200);
  frame({0x0800, 0x1C00});
  EXPECT_THAT(frame({0x0000, 0x0000}), ElementsAre(200U << 2, 2U));
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(Ad529xChain, NeedsAPullUpAndASlowClockEvenForWriting) {
  first.pin("SDO").net()->setPull(Pull::None);
  frame({0x1802, 0x1802});
  EXPECT_THAT(rulesOf(board), Contains("first no-pull-up"));
  EXPECT_EQ(first.control(), 2);
  EXPECT_EQ(second.control(), 0);
  first.pin("SDO").net()->setPull(Pull::Up);
  board.clearViolations();
  format.speedHz = 5000000;
  frame({0x1802, 0x1802});
  EXPECT_THAT(rulesOf(board), Contains("first read-too-fast"));
  EXPECT_EQ(second.control(), 0);
}

TEST_F(Ad5292Test, TellsWhatItDoes) {
  vboard::WireLog log(board);
  send(0x1803);
  send(0x0500);
  store();
  EXPECT_THAT(log.lines(), Contains(HasSubstr("wiper at 256 of 1024")));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("slot 0 programmed with 0x100")));
}

TEST_F(Ad5292Test, HasItsKnobsAsProperties) {
  const struct {
    const char* name;
    double initial;
    double other;
  } kNumbers[] = {{"resistance", 20000, 50000},
                  {"wiper_resistance", 60, 100},
                  {"a", 5, 3},
                  {"b", 0, -3},
                  {"program_time", 8, 6.5},
                  {"memory_read_time", 1.3, 0.7},
                  {"empty_slot", 0, 99}};
  for (const auto& each : kNumbers) {
    EXPECT_EQ(valueOf(pot, each.name), PropertyValue(each.initial)) << each.name;
    EXPECT_EQ(setValue(pot, each.name, each.other), std::nullopt) << each.name;
    EXPECT_EQ(valueOf(pot, each.name), PropertyValue(each.other)) << each.name;
    EXPECT_NE(setValue(pot, each.name, 1e9), std::nullopt) << each.name;
  }
  const struct {
    const char* name;
    bool initial;
  } kChoices[] = {{"capacitor", true},
                  {"success_survives_reset", false},
                  {"full_clears_success", true},
                  {"noise_bits", false}};
  for (const auto& each : kChoices) {
    EXPECT_EQ(valueOf(pot, each.name), PropertyValue(each.initial)) << each.name;
    EXPECT_EQ(setValue(pot, each.name, !each.initial), std::nullopt) << each.name;
    EXPECT_EQ(valueOf(pot, each.name), PropertyValue(!each.initial)) << each.name;
  }
}

TEST_F(Ad5292Test, HasItsMetersAsProperties) {
  send(0x1802);
  send(0x0500);
  EXPECT_EQ(valueOf(pot, "position"), PropertyValue(int64_t{256}));
  EXPECT_EQ(valueOf(pot, "wiper_voltage"), PropertyValue(1.25));
  EXPECT_EQ(valueOf(pot, "resistance_to_b"), PropertyValue(5060.0));
  EXPECT_EQ(valueOf(pot, "shutdown"), PropertyValue(false));
  EXPECT_EQ(valueOf(pot, "control"), PropertyValue(int64_t{2}));
  EXPECT_EQ(valueOf(pot, "slots_used"), PropertyValue(int64_t{0}));
  EXPECT_EQ(valueOf(pot, "commands"), PropertyValue(int64_t{2}));
  EXPECT_TRUE(propertyOf(pot, "position").reported);
  EXPECT_FALSE(propertyOf(pot, "position").set);
}

TEST_F(Ad5292Test, ItsMemoryIsATextOfSlots) {
  EXPECT_EQ(setValue(pot, "memory", std::string(" 512  3 ")), std::nullopt);
  EXPECT_EQ(valueOf(pot, "memory"), PropertyValue(std::string("512 3")));
  EXPECT_EQ(pot.slotsUsed(), 2);
  EXPECT_EQ(pot.position(), 512) << "not before a reset";
  board.powerUp();
  EXPECT_EQ(pot.position(), 3);
  std::string twenty = "0";
  for (int i = 1; i < 20; ++i) {
    twenty += " 1023";
  }
  EXPECT_EQ(setValue(pot, "memory", twenty), std::nullopt);
  EXPECT_EQ(pot.slotsUsed(), 20);
  for (const PropertyValue& wrong :
       {PropertyValue(std::string("1024")), PropertyValue(std::string("-1")),
        PropertyValue(std::string("1,2")), PropertyValue(std::string("x")),
        PropertyValue(twenty + " 1"), PropertyValue(int64_t{5})}) {
    EXPECT_EQ(setValue(pot, "memory", wrong),
              "must be up to 20 numbers from 0 to 1023, separated by blanks");
  }
  EXPECT_EQ(pot.slotsUsed(), 20);
  EXPECT_EQ(setValue(pot, "memory", std::string()), std::nullopt);
  EXPECT_EQ(pot.slotsUsed(), 0);
}

}  // namespace
