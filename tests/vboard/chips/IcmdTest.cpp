// SPDX-License-Identifier: MIT
#include "vboard/chips/Icmd.h"

#include <gmock/gmock.h>

#include "tests/vboard/chips/ByteRig.h"
#include "tests/vboard/chips/Properties.h"
#include "vboard/chips/Encoder.h"

namespace {

using namespace std::chrono_literals;
using boardtest::ByteRig;
using boardtest::Hand;
using boardtest::kFloat;
using boardtest::propertyOf;
using boardtest::setValue;
using boardtest::valueOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vboard::Encoder;
using vboard::Icmd;
using vboard::PropertyValue;
using vboard::Time;

constexpr uint32_t kCounters = 0x88;
constexpr uint32_t kUpdate = 0x8A;
constexpr uint32_t kProbe1 = 0x8C;
constexpr uint32_t kProbe2 = 0x8E;
constexpr uint32_t kReference = 0x90;
constexpr uint32_t kStatus = 0xC8;
constexpr uint32_t kInstruction = 0x30;
constexpr uint32_t kTtl = 0x80;

/// The chip without anything at its inputs.
struct IcmdBare : ByteRig<Icmd> {
  IcmdBare() : ByteRig("NCS") {}
  void SetUp() override { board.powerUp(); }

  void wire(Encoder& encoder, const std::vector<const char*>& outputs,
            const std::vector<const char*>& inputs) {
    for (size_t i = 0; i < outputs.size(); ++i) {
      board.connect(encoder.pin(outputs[i]), chip.pin(inputs[i]));
    }
  }
  void write(uint32_t address, uint32_t value) { frame({address, value}); }
  Bytes status() { return read({kStatus}, 3); }
};

/// The chip with a differential encoder on its three pairs.
struct IcmdTest : IcmdBare {
  Encoder& encoder = board.add<Encoder>("encoder");
  void SetUp() override {
    wire(encoder, {"A", "A_N", "B", "B_N", "Z", "Z_N"}, {"AP", "AN", "BP", "BN", "CP", "CN"});
    encoder.setLines(10);
    // One place before the index, so that small movements don't meet it.
    encoder.turn(8);
    board.powerUp();
  }
};

/// The chip with up to three single-ended encoders that have no index.
struct IcmdTtl : IcmdBare {
  Encoder& first = board.add<Encoder>("first");
  Encoder& second = board.add<Encoder>("second");
  Encoder& third = board.add<Encoder>("third");
};

using Bytes = IcmdBare::Bytes;

TEST_F(IcmdBare, TellsItsIdentity) {
  EXPECT_THAT(frame({0xF8, 0, 0}), ElementsAre(kFloat, 0x4DU, 0x44U));
  EXPECT_THAT(frame({0xFE, 0, 0}), ElementsAre(kFloat, 0x69U, 0x43U));
  EXPECT_THAT(frame({0xFA, 0, 0, 0, 0}), ElementsAre(kFloat, 0x58U, 0U, 0U, 0U));
  EXPECT_THAT(frame({0xC2, 0, 0}), ElementsAre(kFloat, 0x33U, 0x18U));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdBare, EveryRevisionHasItsNumber) {
  const auto revision = [this](Icmd::Revision which) {
    chip.setRevision(which);
    return read({0xFA}, 4);
  };
  EXPECT_THAT(revision(Icmd::Revision::Y), ElementsAre(0x59U, 0U, 0U, 0U));
  EXPECT_THAT(revision(Icmd::Revision::Z), ElementsAre(0x5AU, 0U, 0U, 0U));
  EXPECT_THAT(revision(Icmd::Revision::Z1), ElementsAre(0x5AU, 0x31U, 0U, 0U));
  EXPECT_THAT(revision(Icmd::Revision::X), ElementsAre(0x58U, 0U, 0U, 0U));
}

TEST_F(IcmdBare, PowerDownStandsInEveryStatusByteUntilItIsRead) {
  EXPECT_THAT(frame({kStatus, 0, 0, 0}), ElementsAre(kFloat, 0x10U, 0x10U, 0x10U));
  EXPECT_THAT(frame({kStatus, 0, 0, 0}), ElementsAre(kFloat, 0U, 0U, 0U));
  chip.losePower();
  chip.restorePower();
  EXPECT_THAT(frame({0xC9, 0}), ElementsAre(kFloat, 0x10U));
  EXPECT_THAT(status(), ElementsAre(0x10U, 0U, 0x10U));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdBare, APartlyReadStatusByteKeepsItsBits) {
  cutFrame({kStatus, 0}, 7);
  EXPECT_EQ(chip.status(0), 0x10);
  // The byte behind the last one read was never clocked.
  frame({kStatus, 0});
  EXPECT_EQ(chip.status(0), 0);
  EXPECT_EQ(chip.status(1), 0x10);
  EXPECT_THAT(rules(), ElementsAre("partial-byte"));
}

TEST_F(IcmdBare, OptionOnePowerDownLatchForAllBytes) {
  chip.setPowerDownBits(Icmd::PowerDownBits::Shared);
  EXPECT_THAT(read({kStatus}, 1), ElementsAre(0x10U));
  EXPECT_THAT(status(), ElementsAre(0U, 0U, 0U));
}

TEST_F(IcmdBare, OptionZeroFlagsAtPowerUp) {
  chip.setZeroAtPowerUp(true);
  board.powerUp();
  EXPECT_THAT(status(), ElementsAre(0x30U, 0x30U, 0x30U));
}

TEST_F(IcmdBare, PowerUpForgetsConfigurationAndActuators) {
  write(0x00, 0x07);
  write(kInstruction, 0x60);
  chip.losePower();
  EXPECT_FALSE(chip.pin("ACT0").high());
  chip.restorePower();
  EXPECT_EQ(chip.registerValue(0), 0);
  EXPECT_EQ(chip.counters(), 1);
  EXPECT_EQ(chip.bits(0), 24);
  EXPECT_FALSE(chip.act(0));
}

TEST_F(IcmdTest, CountsFourEdgesPerLineBothWays) {
  EXPECT_THAT(frame({kCounters, 0, 0, 0, 0}), ElementsAre(kFloat, 0U, 0U, 0U, 0xC0U));
  encoder.turn(3);
  EXPECT_THAT(frame({kCounters, 0, 0, 0, 0}), ElementsAre(kFloat, 0U, 0U, 3U, 0xC0U));
  encoder.turn(-8);
  EXPECT_THAT(frame({kCounters, 0, 0, 0, 0}), ElementsAre(kFloat, 0xFFU, 0xFFU, 0xFBU, 0xC0U));
  EXPECT_EQ(chip.count(0), -5);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTest, FlagsPassingThroughZero) {
  status();
  encoder.turn(2);
  EXPECT_EQ(chip.status(0), 0);
  encoder.turn(-2);
  EXPECT_THAT(read({kStatus}, 1), ElementsAre(0x20U));
  encoder.turn(-1);
  EXPECT_EQ(chip.status(0), 0);
}

TEST_F(IcmdTest, ExchangeTurnsTheSignAround) {
  write(0x00, 0x08);
  encoder.turn(5);
  EXPECT_EQ(chip.count(0), -5);
}

TEST_F(IcmdTest, TheLevelsAtPowerUpAreNoMovement) {
  for (int place = 0; place < 4; ++place) {
    encoder.turn(1);
    board.powerUp();
    EXPECT_EQ(chip.count(0), 0);
    EXPECT_EQ(chip.status(0), 0x10) << "no transition error";
  }
}

TEST_F(IcmdTest, TwoLinesOfAPairAtOneLevelAreNoSignal) {
  encoder.turn(1);
  chip.pin("AN").net()->stick(vboard::Level::High);
  wait(1us);
  encoder.turn(1);  // A stays high
  EXPECT_EQ(chip.count(0), 2);
  EXPECT_EQ(chip.status(0) & 0x80, 0);
}

TEST_F(IcmdTest, ABothAtOnceTransitionIsAnErrorUntilItsStatusIsRead) {
  status();
  encoder.turn(5);
  wait(1us);
  encoder.jump(2);
  EXPECT_EQ(chip.count(0), 5) << "the jump counts nothing";
  EXPECT_FALSE(chip.pin("NERR").high());
  EXPECT_THAT(read({kCounters}, 4), ElementsAre(0U, 0U, 5U, 0x40U)) << "NERR is active low";
  EXPECT_THAT(read({kStatus}, 1), ElementsAre(0x80U));
  EXPECT_TRUE(chip.pin("NERR").high());
  EXPECT_THAT(read({kCounters}, 4), ElementsAre(0U, 0U, 5U, 0xC0U));
  encoder.jump(1);
  EXPECT_EQ(chip.count(0), 6) << "a jump by one edge is none";
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTest, EdgesFasterThanItCountsAreErrors) {
  encoder.turn(4, 25ns);
  EXPECT_EQ(chip.count(0), 4);
  EXPECT_THAT(rules(), IsEmpty());
  encoder.turn(2, 24ns);
  EXPECT_EQ(chip.count(0), 4);
  EXPECT_EQ(chip.status(0) & 0x80, 0x80);
  EXPECT_EQ(lastDetails(), "edges of counter 0 came 24 ns apart, at least 25 ns");
  EXPECT_THAT(rules(), ElementsAre("count-too-fast", "count-too-fast"));
  chip.setMaxCountRate(1e6);
  encoder.turn(1, 999ns);
  EXPECT_THAT(rules(), ElementsAre("count-too-fast"));
}

struct Configuration {
  uint32_t code;
  std::vector<int> bits;
  Bytes answer;  // with the counters at 0x1234, 0x5678 and 0x9ABC, as far as they exist
};

TEST_F(IcmdTtl, EveryConfigurationHasItsWord) {
  const Configuration kConfigurations[] = {
      {0, {24}, {0x00, 0x12, 0x34, 0xC0}},
      {1, {24, 24}, {0x00, 0x56, 0x78, 0x00, 0x12, 0x34, 0xC0}},
      {2, {48}, {0x00, 0x00, 0x00, 0x00, 0x12, 0x34, 0xC0}},
      {3, {16}, {0x12, 0x34, 0xC0}},
      {4, {32}, {0x00, 0x00, 0x12, 0x34, 0xC0}},
      {5, {16, 32}, {0x00, 0x00, 0x56, 0x78, 0x12, 0x34, 0xC0}},
      {6, {16, 16}, {0x56, 0x78, 0x12, 0x34, 0xC0}},
      {7, {16, 16, 16}, {0x9A, 0xBC, 0x56, 0x78, 0x12, 0x34, 0xC0}},
  };
  for (const Configuration& each : kConfigurations) {
    frame({0x00, each.code, kTtl});  // one frame, address 1 follows
    frame({kInstruction, 0x07});
    EXPECT_EQ(chip.counters(), static_cast<int>(each.bits.size()));
    const int64_t values[] = {0x1234, 0x5678, 0x9ABC};
    for (size_t counter = 0; counter < each.bits.size(); ++counter) {
      EXPECT_EQ(chip.bits(static_cast<int>(counter)), each.bits[counter]);
      chip.setCount(static_cast<int>(counter), values[counter]);
    }
    EXPECT_EQ(read({kCounters}, each.answer.size()), each.answer) << "CNTCFG " << each.code;
    EXPECT_THAT(rules(), IsEmpty()) << "CNTCFG " << each.code;
    // Without the flags, and with a byte too few or too many.
    read({kCounters}, each.answer.size() - 1);
    EXPECT_THAT(rules(), IsEmpty());
    read({kCounters}, each.answer.size() - 2);
    EXPECT_THAT(rules(), ElementsAre("short-read"));
    EXPECT_EQ(read({kCounters}, each.answer.size() + 1).back(), 0U);
    EXPECT_THAT(rules(), ElementsAre("long-read"));
  }
  EXPECT_EQ(chip.bits(3), 0);
  EXPECT_EQ(chip.count(-1), 0);
}

TEST_F(IcmdTtl, OptionTheOtherCounterOfConfiguration5Has32Bits) {
  chip.setConfig5(Icmd::Config5::Counter0Has32);
  frame({0x00, 5, kTtl});
  frame({kInstruction, 0x07});
  chip.setCount(0, 0x1234);
  chip.setCount(1, 0x5678);
  EXPECT_THAT(read({kCounters}, 7), ElementsAre(0x56U, 0x78U, 0x00U, 0x00U, 0x12U, 0x34U, 0xC0U));
}

TEST_F(IcmdTtl, EveryWidthOverflowsAtItsEnds) {
  for (const uint32_t code : {0U, 2U, 3U, 4U}) {
    wire(first, {"A", "B"}, {"AP", "AN"});
    frame({0x00, code, kTtl});
    status();
    const int64_t most = (int64_t{1} << (chip.bits(0) - 1)) - 1;
    chip.setCount(0, most);
    first.turn(1);
    EXPECT_EQ(chip.count(0), -most - 1);
    EXPECT_THAT(read({kStatus}, 1), ElementsAre(0x40U));
    first.turn(-1);
    EXPECT_EQ(chip.count(0), most);
    EXPECT_THAT(status(), ElementsAre(0x40U, 0U, 0U));
    first.turn(-1);
    EXPECT_THAT(status(), ElementsAre(0U, 0U, 0U));
  }
}

TEST_F(IcmdTtl, TwoCountersHaveTheirOwnInputsAndFlags) {
  wire(first, {"A", "B"}, {"AP", "AN"});
  wire(second, {"A", "B"}, {"BN", "CP"});
  board.powerUp();
  frame({0x00, 0x01, kTtl});
  frame({kInstruction, 0x03});
  status();
  first.turn(3);
  second.turn(-2);
  EXPECT_THAT(read({kCounters}, 7), ElementsAre(0xFFU, 0xFFU, 0xFEU, 0U, 0U, 3U, 0xC0U));
  second.jump(2);
  EXPECT_THAT(status(), ElementsAre(0U, 0x80U, 0U));
  second.turn(2);
  first.turn(-3);
  EXPECT_EQ(chip.count(1), 0);
  EXPECT_THAT(status(), ElementsAre(0x20U, 0x20U, 0U));
  frame({0x00, 0x11});  // EXCH1
  second.turn(4);
  EXPECT_EQ(chip.count(1), -4);
  frame({kInstruction, 0x02});
  EXPECT_EQ(chip.count(1), 0);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTtl, ThreeCountersHaveTheirOwnPairs) {
  wire(first, {"A", "B"}, {"AP", "AN"});
  wire(second, {"A", "B"}, {"BP", "BN"});
  wire(third, {"A", "B"}, {"CP", "CN"});
  board.powerUp();
  frame({0x00, 0x27, kTtl});  // EXCH2
  frame({kInstruction, 0x07});
  first.turn(1);
  second.turn(2);
  third.turn(3);
  EXPECT_THAT(read({kCounters}, 7), ElementsAre(0xFFU, 0xFDU, 0U, 2U, 0U, 1U, 0xC0U));
  chip.setCount(2, -0x8000);
  status();
  third.turn(1);
  third.jump(2);
  EXPECT_THAT(status(), ElementsAre(0U, 0U, 0xC0U));
  frame({kInstruction, 0x04});
  EXPECT_THAT(read({kCounters}, 6), ElementsAre(0U, 0U, 0U, 2U, 0U, 1U));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTtl, TheWordIsASnapshotOfOneMoment) {
  wire(first, {"A", "B"}, {"AP", "AN"});
  board.powerUp();
  frame({0x00, 0x02, kTtl});
  frame({kInstruction, 0x01});
  chip.setCount(0, 0xFFFF);
  select();
  transfer({kCounters});
  first.turn(1);
  EXPECT_THAT(transfer({0, 0, 0, 0, 0, 0}), ElementsAre(0U, 0U, 0U, 0U, 0xFFU, 0xFFU));
  deselect();
  EXPECT_EQ(chip.count(0), 0x10000);
}

TEST_F(IcmdTtl, WithoutTtlASingleEndedEncoderCountsNothingSensible) {
  wire(first, {"A", "B"}, {"AP", "AN"});
  board.powerUp();
  first.turn(40);
  EXPECT_LT(std::abs(chip.count(0)), 2);
  frame({0x01, kTtl});
  frame({kInstruction, 0x01});
  first.turn(40);
  EXPECT_EQ(chip.count(0), 40);
}

TEST_F(IcmdTtl, SeveralCountersNeedTtlInputs) {
  frame({0x00, 0x06});
  frame({kInstruction, 0x03});
  read({kCounters}, 5);
  EXPECT_EQ(lastDetails(), "CNTCFG 6 has more than one counter, which needs TTL inputs");
  EXPECT_THAT(rules(), ElementsAre("needs-ttl"));
  frame({0x01, kTtl});
  read({kCounters}, 5);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTtl, ANewConfigurationWantsEveryCounterReset) {
  frame({0x00, 0x07, kTtl});
  read({kCounters}, 7);
  EXPECT_EQ(lastDetails(),
            "CNTCFG changed to 7 and counter 0, 1, 2 was not reset since: its content is "
            "undefined");
  frame({kInstruction, 0x05});
  read({kCounters}, 7);
  EXPECT_THAT(lastDetails(), HasSubstr("counter 1 was"));
  EXPECT_THAT(rules(), ElementsAre("not-reset", "not-reset"));
  frame({kInstruction, 0x02});
  frame({0x00, 0x07});
  read({kCounters}, 7);
  EXPECT_THAT(rules(), IsEmpty()) << "the same configuration again changes nothing";
}

TEST_F(IcmdTtl, ANewConfigurationRegroupsTheContents) {
  frame({0x00, 0x02, kTtl});
  chip.setCount(0, 0x123456789ABC);
  frame({0x00, 0x07});
  EXPECT_EQ(chip.count(0), int64_t{0x9ABC} - 0x10000);
  EXPECT_EQ(chip.count(1), 0x5678);
  EXPECT_EQ(chip.count(2), 0x1234);
  chip.setRegrouped(Icmd::Regrouped::Noise);
  frame({0x00, 0x02});
  EXPECT_NE(chip.count(0), 0x123456789ABC);
}

TEST_F(IcmdTest, AResetZeroesAndActLevelsFollowEveryInstruction) {
  encoder.turn(5);
  write(kInstruction, 0x60);
  EXPECT_TRUE(chip.pin("ACT0").high());
  EXPECT_TRUE(chip.pin("ACT1").high());
  EXPECT_EQ(chip.count(0), 5);
  write(kInstruction, 0x21);
  EXPECT_EQ(chip.count(0), 0);
  EXPECT_TRUE(chip.pin("ACT0").high());
  EXPECT_FALSE(chip.pin("ACT1").high());
  write(kInstruction, 0x01);
  EXPECT_FALSE(chip.pin("ACT0").high()) << "a reset alone drops the outputs";
  EXPECT_THAT(rules(), IsEmpty());
  write(kInstruction, 0x80);
  EXPECT_THAT(rules(), ElementsAre("reserved-bit"));
}

TEST_F(IcmdTest, TheFirstTwoIndexPulsesClearWhateverTheConfigurationSays) {
  encoder.turn(32);
  EXPECT_EQ(chip.count(0), 32);
  encoder.turn(2);  // the index, where A and B are high
  EXPECT_EQ(chip.count(0), 0);
  EXPECT_EQ(chip.status(0) & 0x0C, 0);
  encoder.turn(39);
  EXPECT_EQ(chip.count(0), 39);
  encoder.turn(1);
  EXPECT_EQ(chip.count(0), 0);
  EXPECT_EQ(chip.status(0) & 0x0C, 0x0C) << "RVAL and UPDVAL";
  encoder.turn(40);
  EXPECT_EQ(chip.count(0), 40) << "the third one doesn't";
  write(0x01, 0x20);  // CBZ0
  encoder.turn(40);
  EXPECT_EQ(chip.count(0), 0);
}

TEST_F(IcmdTest, TheSameIndexBackAndForthDoesNotEndTheSearch) {
  encoder.turn(34);
  encoder.turn(3);
  encoder.turn(-3);
  encoder.turn(-3);
  encoder.turn(3);
  EXPECT_EQ(chip.status(0) & 0x08, 0);
  EXPECT_EQ(chip.count(0), 0);
  encoder.turn(-40);
  EXPECT_EQ(chip.status(0) & 0x08, 0x08);
  EXPECT_THAT(read({kReference}, 3), ElementsAre(0xFFU, 0xFFU, 0xD8U));
}

TEST_F(IcmdTest, ReferenceAndUpdateHoldTheEdgesBetweenIndexPulses) {
  encoder.turn(34 + 40);
  EXPECT_THAT(read({kReference}, 3), ElementsAre(0U, 0U, 40U));
  EXPECT_FALSE(chip.pin("NWARN").high());
  EXPECT_THAT(read({kCounters}, 4), ElementsAre(0U, 0U, 0U, 0x80U)) << "NWARN is active low";
  EXPECT_THAT(read({kUpdate}, 4), ElementsAre(0U, 0U, 40U, 0x80U));
  EXPECT_TRUE(chip.pin("NWARN").high()) << "reading UPD clears UPDVAL";
  EXPECT_THAT(read({kUpdate}, 4), ElementsAre(0U, 0U, 40U, 0xC0U));
  encoder.turn(-40);
  EXPECT_THAT(read({kUpdate}, 4), ElementsAre(0xFFU, 0xFFU, 0xD8U, 0x80U));
  EXPECT_THAT(read({kReference}, 3), ElementsAre(0U, 0U, 40U)) << "stays from the search";
  chip.setReferenceOrder(Icmd::ReferenceOrder::LsbFirst);
  EXPECT_THAT(read({kReference}, 3), ElementsAre(40U, 0U, 0U));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTest, ReadingTheStatusHidesUpdateValidAndKeepsReferenceValid) {
  encoder.turn(34 + 40);
  EXPECT_EQ(read({kStatus}, 1).front() & 0x0C, 0x0CU);
  EXPECT_EQ(read({kStatus}, 1).front() & 0x0C, 0x08U);
  EXPECT_THAT(read({kUpdate}, 4).back(), 0xC0U);
}

TEST_F(IcmdTest, AnInstructionStartsTheSearchAgain) {
  encoder.turn(34 + 40 + 40);
  EXPECT_EQ(chip.count(0), 40);
  write(kInstruction, 0x08);
  EXPECT_EQ(chip.status(0) & 0x08, 0);
  encoder.turn(40);
  EXPECT_EQ(chip.count(0), 0) << "clears again";
  encoder.turn(40);
  EXPECT_EQ(chip.status(0) & 0x08, 0x08);
}

TEST_F(IcmdTest, TooManyEdgesBetweenPulsesOverflowTheReference) {
  encoder.turn(34 + 5);
  status();
  chip.setSinceIndex(0x7FFFFF);
  encoder.turn(1);
  EXPECT_THAT(status(), ElementsAre(0x02U, 0U, 0U));
  encoder.turn(-1);
  EXPECT_THAT(status(), ElementsAre(0x02U, 0U, 0U));
  encoder.turn(-5);
  EXPECT_THAT(read({kUpdate}, 3), ElementsAre(0x7FU, 0xFFU, 0xFAU));
}

TEST_F(IcmdTest, TheIndexCountsWhereItsGateSays) {
  encoder.turn(28);  // to place 36, four before the index
  struct Gate {
    uint32_t code;
    int64_t place;
  };
  for (const Gate& gate : {Gate{0, 2}, Gate{1, 1}, Gate{2, 3}, Gate{3, 0}}) {
    board.powerUp();
    write(0x01, gate.code << 3U);
    encoder.turn(8);
    EXPECT_EQ(chip.count(0), 3 - gate.place + 1) << "gate " << gate.code;
    encoder.turn(-8);
  }
}

TEST_F(IcmdTest, TheIndexCanBeActiveLow) {
  board.netOf(encoder.pin("Z"));
  write(0x00, 0x40);  // INVZ0
  encoder.turn(2);    // place 10: A and B are high, and no index
  EXPECT_EQ(chip.count(0), 0);
}

TEST_F(IcmdTtl, TheSecondCounterHasAnIndexOfItsOwn) {
  wire(second, {"A", "B", "Z"}, {"BN", "CP", "CN"});
  second.setLines(10);
  second.turn(8);
  board.powerUp();
  frame({0x00, 0x01, kTtl});
  frame({kInstruction, 0x03});
  second.turn(34);
  EXPECT_EQ(chip.count(1), 0);
  second.turn(40);
  EXPECT_EQ(chip.count(1), 0);
  second.turn(40);
  EXPECT_EQ(chip.count(1), 40);
  frame({0x01, kTtl | 0x40});  // CBZ1
  second.turn(40);
  EXPECT_EQ(chip.count(1), 0);
  frame({0x00, 0x81});  // INVZ1
  second.turn(39);
  chip.setCount(1, 7);
  second.turn(1);
  EXPECT_EQ(chip.count(1), 8) << "an index that is low now";
  EXPECT_EQ(chip.status(0) & 0x0C, 0) << "reference and UPD are counter 0's";
}

TEST_F(IcmdTest, TheTouchProbeKeepsTheLastTwoCounts) {
  encoder.turn(5);
  write(kInstruction, 0x10);
  encoder.turn(1);
  write(kInstruction, 0x10);
  EXPECT_THAT(status(), ElementsAre(0x11U, 0x10U, 0x10U));
  EXPECT_THAT(read({kProbe1}, 4), ElementsAre(0U, 0U, 6U, 0xC0U));
  EXPECT_THAT(read({kProbe2}, 4), ElementsAre(0U, 0U, 5U, 0xC0U));
  chip.setProbeFlag(Icmd::ProbeFlag::ProbeValid);
  write(kInstruction, 0x10);
  EXPECT_THAT(read({kProbe2}, 4).back(), 0x80U);
  EXPECT_THAT(read({kProbe1}, 4).back(), 0x80U);
  EXPECT_THAT(read({kProbe1}, 4).back(), 0xC0U) << "reading TP1 clears TPVAL";
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTest, TheTouchProbeNeeds24Bits) {
  write(0x00, 0x02);
  write(kInstruction, 0x10);
  EXPECT_EQ(lastDetails(), "touch probe with a counter of 48 bits: it needs 24");
  EXPECT_THAT(rules(), ElementsAre("touch-probe-length"));
  EXPECT_EQ(chip.status(0) & 0x01, 0);
}

TEST_F(IcmdBare, PinsShowInTheStatus) {
  auto& hand = board.add<Hand>("hand");
  auto& error = board.add<Hand>("error");
  auto& warning = board.add<Hand>("warning");
  board.connect(hand.p(), chip.pin("TPI"));
  board.connect(error.p(), chip.pin("NERR"));
  board.connect(warning.p(), chip.pin("NWARN"));
  board.powerUp();
  status();
  hand.high();
  EXPECT_THAT(status(), ElementsAre(0U, 0x01U, 0U));
  EXPECT_THAT(status(), ElementsAre(0U, 0x01U, 0U)) << "a live level";
  hand.low();
  chip.setSsi(true);
  EXPECT_THAT(status(), ElementsAre(0U, 0U, 0x01U));
  chip.setSsi(false);
  error.low();
  EXPECT_THAT(status(), ElementsAre(0U, 0x08U, 0x08U));
  error.release();
  warning.low();
  EXPECT_THAT(status(), ElementsAre(0U, 0x04U, 0x04U));
}

TEST_F(IcmdTest, WhatItPullsLowItselfIsNoMessageFromOutside) {
  board.netOf(chip.pin("NERR"));
  board.netOf(chip.pin("NWARN"));
  encoder.turn(34 + 40);
  encoder.jump(2);
  EXPECT_FALSE(chip.pin("NERR").high());
  EXPECT_FALSE(chip.pin("NWARN").high());
  EXPECT_EQ(chip.status(1) & 0x0C, 0);
}

TEST_F(IcmdTest, ConfigurationIsReadBackAtRisingAddresses) {
  frame({0x00, 0x07, 0x80, 0x55, 0xAA, 0x04, 1, 2, 3});
  EXPECT_THAT(read({0x80}, 8), ElementsAre(0x07U, 0x80U, 0x55U, 0xAAU, 0x04U, 1U, 2U, 3U));
  EXPECT_EQ(chip.registerValue(2), 0x55);
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdTest, WithTheSpiChannelOnNothingCounts) {
  write(0x04, 0x08);
  encoder.turn(34);
  EXPECT_EQ(chip.count(0), 0);
  frame({0x20, 1, 2, 3, 4, 5, 6});
  EXPECT_THAT(read({0xA0}, 6), ElementsAre(1U, 2U, 3U, 4U, 5U, 6U));
  EXPECT_EQ(chip.count(0), 0x040506) << "one register for both";
  EXPECT_THAT(rules(), IsEmpty());
  write(0x04, 0x00);
  encoder.turn(1);
  EXPECT_EQ(chip.count(0), 0x040507);
  write(0x25, 0);
  EXPECT_THAT(rules(), ElementsAre("spi-channel-over-counter"));
}

TEST_F(IcmdTest, AWordIsNoRowOfBytes) {
  encoder.turn(3);
  // As somebody would who takes 0x08 to 0x0A for the three bytes of the counter.
  EXPECT_THAT(read({0x88}, 1), ElementsAre(0U));
  EXPECT_THAT(read({0x89}, 1), ElementsAre(0U));
  EXPECT_THAT(read({0x8A}, 1), ElementsAre(0U));
  EXPECT_THAT(rules(), ElementsAre("short-read", "unknown-address", "short-read"));
}

TEST_F(IcmdTest, MisusedAddressesAreReported) {
  EXPECT_THAT(read({0xB0}, 1), ElementsAre(0U));
  EXPECT_THAT(rules(), ElementsAre("read-of-write-only"));
  chip.setInstructionReadsAs(0x5A);
  EXPECT_THAT(read({0xB0}, 1), ElementsAre(0x5AU));
  EXPECT_THAT(rules(), ElementsAre("read-of-write-only"));
  for (const uint32_t address :
       {0x08U, 0x0AU, 0x0CU, 0x0EU, 0x10U, 0x42U, 0x48U, 0x4AU, 0x78U, 0x7FU}) {
    write(address, 0x12);
    EXPECT_THAT(rules(), ElementsAre("write-to-read-only")) << address;
  }
  for (const uint32_t address : {0x09U, 0x13U, 0x26U, 0x31U, 0x44U, 0x4BU, 0x77U}) {
    write(address, 0x12);
    EXPECT_THAT(rules(), ElementsAre("unknown-address")) << address;
    EXPECT_THAT(read({0x80 | address}, 1), ElementsAre(0U));
    EXPECT_THAT(rules(), ElementsAre("unknown-address")) << address;
  }
  read({kStatus}, 4);
  EXPECT_THAT(rules(), ElementsAre("unknown-address"));
}

TEST_F(IcmdBare, UnfinishedBytesAndFramesAreDroppedAndReported) {
  cutFrame({0x00, 0x07}, 5);
  EXPECT_EQ(chip.registerValue(0), 0);
  EXPECT_EQ(lastDetails(), "NCS rose after 13 clocks: the last 5 bits are dropped");
  EXPECT_THAT(rules(), ElementsAre("partial-byte"));
  frame({0x88});
  EXPECT_EQ(lastDetails(), "nothing followed the command 0x88");
  EXPECT_THAT(rules(), ElementsAre("short-frame"));
  select();
  deselect();
  EXPECT_THAT(rules(), IsEmpty()) << "a select without clocks is none";
}

TEST_F(IcmdBare, AFrameEndsWithItsSelect) {
  select();
  transfer({0x01});
  deselect();
  rules();
  // A new frame begins with a command: 0x80 is a read of address 0.
  EXPECT_THAT(frame({0x80, 0x00}), ElementsAre(kFloat, 0U));
  EXPECT_EQ(chip.registerValue(1), 0);
}

TEST_F(IcmdBare, MisoFloatsInTheCommandAndInWrites) {
  EXPECT_THAT(frame({0x02, 0x00, 0x00}), ElementsAre(kFloat, kFloat, kFloat));
  EXPECT_THAT(frame({0x82, 0}), ElementsAre(kFloat, 0U));
  EXPECT_FALSE(spi.miso().net()->driven());
}

TEST_F(IcmdBare, Mode3HasTheSameEdgesAndIsUndocumented) {
  format.mode = 3;
  EXPECT_THAT(frame({0xF8, 0, 0}), ElementsAre(kFloat, 0x4DU, 0x44U));
  EXPECT_THAT(rules(), ElementsAre("spi-mode"));
  chip.setMode3Allowed(true);
  EXPECT_THAT(frame({0xF8, 0, 0}), ElementsAre(kFloat, 0x4DU, 0x44U));
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdBare, TheOtherModesAreWrongAndShiftTheAnswer) {
  format.mode = 2;
  EXPECT_THAT(frame({0xF8, 0, 0}), testing::Not(ElementsAre(kFloat, 0x4DU, 0x44U)));
  EXPECT_THAT(rules(), Contains("spi-mode"));
}

TEST_F(IcmdBare, AClockTooFastIsReported) {
  format.speedHz = 10000001;
  frame({0xF8, 0});
  EXPECT_THAT(rules(), ElementsAre("clock-too-fast"));
  chip.setMaxClock(20000000);
  frame({0xF8, 0});
  EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(IcmdBare, WithTheSelectLowAtPowerUpNothingStartsUntilItFalls) {
  chip.losePower();
  select();
  chip.restorePower();
  EXPECT_THAT(transfer({0xF8, 0}), ElementsAre(kFloat, kFloat));
  deselect();
  EXPECT_THAT(rules(), ElementsAre("select-low-at-power-up"));
  EXPECT_THAT(frame({0xF8, 0}), ElementsAre(kFloat, 0x4DU));
}

TEST_F(IcmdTest, TellsWhatHappens) {
  vboard::WireLog log(board);
  encoder.turn(3);
  read({kCounters}, 4);
  write(kInstruction, 0x01);
  encoder.jump(2);
  EXPECT_THAT(log.lines(), Contains(HasSubstr("counters read: CNT0 = 3")));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("instruction 0x01")));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("illegal transition at counter 0")));
}

TEST_F(IcmdBare, HasItsKnobsAndMetersAsProperties) {
  EXPECT_EQ(setValue(chip, "config_5", std::string("cnt0")), std::nullopt);
  frame({0x00, 0x05, kTtl});
  EXPECT_EQ(chip.bits(0), 32);
  EXPECT_EQ(setValue(chip, "count_0", int64_t{-7}), std::nullopt);
  EXPECT_EQ(setValue(chip, "count_1", int64_t{9}), std::nullopt);
  EXPECT_EQ(valueOf(chip, "count_0"), PropertyValue(-7.0));
  EXPECT_EQ(valueOf(chip, "count_2"), PropertyValue(0.0));
  EXPECT_EQ(valueOf(chip, "counters"), PropertyValue(std::string("-7 9")));
  EXPECT_EQ(valueOf(chip, "status"), PropertyValue(std::string("0x10 0x10 0x10")));
  EXPECT_TRUE(propertyOf(chip, "counters").reported);
  frame({kInstruction, 0x40});
  EXPECT_EQ(valueOf(chip, "act_0"), PropertyValue(false));
  EXPECT_EQ(valueOf(chip, "act_1"), PropertyValue(true));
}

TEST_F(IcmdBare, PropertiesTurnEveryOption) {
  const std::pair<const char*, PropertyValue> kOptions[] = {
      {"config_5", std::string("cnt0")},
      {"power_down_bits", std::string("shared")},
      {"probe_flag", std::string("ntpval")},
      {"reference_order", std::string("lsb-first")},
      {"regrouped", std::string("noise")},
      {"revision", std::string("Z1")},
      {"zero_at_power_up", true},
      {"ssi", true},
      {"mode_3", true},
      {"max_clock", 5e6},
      {"max_count_rate", 1e6},
      {"instruction_reads_as", 255.0},
  };
  for (const auto& [name, value] : kOptions) {
    EXPECT_NE(valueOf(chip, name), value) << name;
    EXPECT_EQ(setValue(chip, name, value), std::nullopt) << name;
    EXPECT_EQ(valueOf(chip, name), value) << name;
  }
  EXPECT_EQ(setValue(chip, "revision", std::string("A")),
            "must be one of \"X\" \"Y\" \"Z\" \"Z1\"");
}

}  // namespace
