// SPDX-License-Identifier: MIT
#include "vboard/board/Net.h"

#include <gmock/gmock.h>

#include "Parts.h"
#include "vboard/board/TriStateBuffer.h"
#include "vboard/board/WireLog.h"

namespace {

using boardtest::Ear;
using boardtest::Hand;
using boardtest::rulesOf;
using testing::ElementsAre;
using testing::IsEmpty;
using vboard::Board;
using vboard::Drive;
using vboard::Level;
using vboard::Net;
using vboard::Pin;
using vboard::Pull;

struct NetRig : testing::Test {
  Board board;
  Hand& hand = board.add<Hand>("hand");
  Hand& other = board.add<Hand>("other");
  Ear& ear = board.add<Ear>("ear");
  Net& net = board.connect(hand.p(), ear.p());
  void SetUp() override { board.connect(hand.p(), other.p()); }
};

using NetTest = NetRig;

TEST_F(NetTest, ListenersHearOnlyChanges) {
  hand.high();
  hand.high();
  hand.low();
  EXPECT_EQ(ear.heard, "10");
}

TEST_F(NetTest, AnUndrivenWireKeepsItsLastLevel) {
  hand.high();
  hand.release();
  EXPECT_EQ(net.level(), Level::High);
  EXPECT_FALSE(net.driven());
  EXPECT_EQ(ear.heard, "1");
}

TEST_F(NetTest, APullDecidesOnlyWhenNobodyDrives) {
  net.setPull(Pull::Up);
  EXPECT_EQ(net.level(), Level::High);
  EXPECT_TRUE(net.driven());
  hand.low();
  EXPECT_EQ(net.level(), Level::Low);
  hand.release();
  EXPECT_EQ(net.level(), Level::High);
  net.setPull(Pull::Down);
  EXPECT_EQ(ear.heard, "1010");
  net.setPull(Pull::None);
  EXPECT_FALSE(net.driven());
}

TEST_F(NetTest, ABiasInsideAPartYieldsToAPullOnTheWire) {
  ear.p().setBias(Pull::Up);
  EXPECT_EQ(net.level(), Level::High);
  net.setPull(Pull::Down);
  EXPECT_EQ(net.level(), Level::Low);
  net.setPull(Pull::None);
  EXPECT_EQ(net.level(), Level::High);
}

TEST_F(NetTest, TwoOutputsAgainstEachOtherAreOneViolationAndLowWins) {
  hand.high();
  other.low();
  EXPECT_EQ(net.level(), Level::Low);
  other.high();
  other.low();
  EXPECT_THAT(rulesOf(board), ElementsAre("hand.P conflict"));
  EXPECT_EQ(board.violations().at(0).details, "driven high by hand.P and low by other.P");
}

TEST_F(NetTest, AConflictAfterOneSideLetGoIsANewOne) {
  hand.high();
  other.low();
  other.release();
  EXPECT_EQ(net.level(), Level::High);
  other.low();
  EXPECT_THAT(rulesOf(board), ElementsAre("hand.P conflict", "hand.P conflict"));
}

TEST_F(NetTest, TwoOutputsThatAgreeAreNoConflict) {
  hand.high();
  other.high();
  EXPECT_THAT(board.violations(), IsEmpty());
  EXPECT_EQ(net.level(), Level::High);
}

// Lets go of one pin and drives another at the same edge.
struct Changeover : vboard::Part {
  explicit Changeover(std::string name) : Part("changeover", std::move(name)) {
    addInput("IN", Level::Low);
    addOutput("A");
    addOutput("B");
  }
  void pinChanged(Pin& /*pin*/, Level level) override {
    pin("B").drive(level == Level::High ? Drive::Low : Drive::Floating);
    pin("A").drive(level == Level::High ? Drive::Floating : Drive::High);
  }
};

TEST(Net, OneOutputTakingOverFromAnotherAtOneEdgeIsNoConflict) {
  Board board;
  auto& hand = board.add<Hand>("hand");
  auto& changeover = board.add<Changeover>("change");
  board.connect(hand.p(), changeover.pin("IN"));
  Net& net = board.connect(changeover.pin("A"), changeover.pin("B"));
  changeover.pin("A").drive(Drive::High);
  hand.high();
  EXPECT_EQ(net.level(), Level::Low);
  hand.low();
  EXPECT_EQ(net.level(), Level::High);
  EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(NetTest, AStuckWireIgnoresItsOutputsUntilReleased) {
  hand.low();
  net.stick(Level::High);
  EXPECT_EQ(net.level(), Level::High);
  hand.high();
  hand.low();
  EXPECT_EQ(ear.heard, "1");
  net.stick(std::nullopt);
  EXPECT_EQ(net.level(), Level::Low);
  EXPECT_EQ(ear.heard, "10");
}

TEST_F(NetTest, AStuckWireCountsAsDriven) {
  net.stick(Level::Low);
  EXPECT_TRUE(net.driven());
}

TEST(Net, BeforeAnythingDroveItAWireIdlesHighWhenOneOfItsPinsDoes) {
  Board board;
  auto& low = board.add<Ear>("low", Level::Low);
  auto& high = board.add<Ear>("high", Level::High);
  auto& alone = board.add<Ear>("alone", Level::Low);
  EXPECT_EQ(board.connect(low.p(), high.p()).level(), Level::High);
  EXPECT_EQ(board.netOf(alone.p()).level(), Level::Low);
  EXPECT_EQ(low.heard, "");
}

TEST(Net, APinInTheAirShowsWhatItDrivesOrItsIdleLevel) {
  Board board;
  auto& ear = board.add<Ear>("ear", Level::High);
  auto& hand = board.add<Hand>("hand");
  EXPECT_EQ(ear.p().level(), Level::High);
  hand.high();
  EXPECT_TRUE(hand.p().high());
  EXPECT_EQ(board.connect(ear.p(), hand.p()).level(), Level::High);
}

TEST(Net, JoiningTwoWiresKeepsTheOlderOneWithEverythingOnIt) {
  Board board;
  auto& hand = board.add<Hand>("hand");
  auto& first = board.add<Ear>("first");
  auto& second = board.add<Ear>("second");
  auto& third = board.add<Ear>("third");
  Net& older = board.connect(hand.p(), first.p());
  Net& younger = board.connect(second.p(), third.p());
  younger.setPull(Pull::Up);
  EXPECT_EQ(&board.connect(third.p(), first.p()), &older);
  EXPECT_EQ(third.p().net(), &older);
  EXPECT_EQ(older.level(), Level::High);
  EXPECT_THAT(board.nets(), ElementsAre(&older));
  hand.low();
  EXPECT_EQ(second.heard, "10");
  EXPECT_EQ(first.heard, "10");
  younger.stick(Level::High);
  EXPECT_EQ(older.level(), Level::High);
}

TEST(Net, ConnectingTwiceChangesNothing) {
  Board board;
  auto& hand = board.add<Hand>("hand");
  auto& ear = board.add<Ear>("ear");
  board.connect(hand.p(), ear.p());
  Net& net = board.connect(ear.p(), hand.p());
  EXPECT_EQ(net.pins().size(), 2U);
  hand.high();
  EXPECT_EQ(ear.heard, "1");
}

// Copies IN to OUT, inverted.
struct Inverter : vboard::Part {
  explicit Inverter(std::string name) : Part("inverter", std::move(name)) {
    addInput("IN", Level::Low);
    addOutput("OUT");
  }
  void pinChanged(Pin& /*pin*/, Level level) override { pin("OUT").drive(driveOf(!level)); }
};

TEST(Net, AnOutputDrivenDuringAnEdgeShowsOnlyAfterEverybodySawTheEdge) {
  Board board;
  auto& hand = board.add<Hand>("hand");
  auto& inverter = board.add<Inverter>("inverter");
  struct Witness : vboard::Part {
    explicit Witness(Pin& watched) : Part("witness", "witness"), out(watched) {
      addInput("P", Level::Low);
    }
    void pinChanged(Pin& /*pin*/, Level /*level*/) override { seen += out.high() ? '1' : '0'; }
    Pin& out;
    std::string seen;
  };
  auto& witness = board.add<Witness>(inverter.pin("OUT"));
  board.netOf(inverter.pin("OUT"));
  board.connect(hand.p(), inverter.pin("IN"));
  board.connect(hand.p(), witness.pin("P"));
  inverter.pin("OUT").drive(Drive::High);
  hand.high();
  hand.low();
  EXPECT_EQ(witness.seen, "10");
  EXPECT_TRUE(inverter.pin("OUT").high());
}

TEST(Net, WiringThatFeedsBackOnItselfIsAViolationInsteadOfAHang) {
  Board board;
  auto& inverter = board.add<Inverter>("inverter");
  board.connect(inverter.pin("IN"), inverter.pin("OUT"));
  inverter.pin("OUT").drive(Drive::High);
  EXPECT_THAT(rulesOf(board), ElementsAre("inverter.IN oscillation"));
}

TEST_F(NetTest, AnInattentivePinIsNotCalledButStillReads) {
  ear.p().setAttentive(false);
  hand.high();
  EXPECT_EQ(ear.heard, "");
  EXPECT_TRUE(ear.p().high());
  ear.p().setAttentive(true);
  hand.low();
  EXPECT_EQ(ear.heard, "0");
}

TEST(TriStateBuffer, FollowsItsInputWhileEnabledAndLetsGoOtherwise) {
  Board board;
  auto& in = board.add<Hand>("in");
  auto& enable = board.add<Hand>("enable");
  auto& buffer = board.add<vboard::TriStateBuffer>("buffer");
  auto& ear = board.add<Ear>("ear");
  board.connect(in.p(), buffer.pin("A"));
  board.connect(enable.p(), buffer.pin("OE"));
  Net& out = board.connect(buffer.pin("Y"), ear.p());
  board.powerUp();
  EXPECT_FALSE(out.driven());
  in.high();
  EXPECT_FALSE(out.driven());
  enable.low();
  EXPECT_TRUE(out.driven());
  EXPECT_EQ(out.level(), Level::High);
  in.low();
  in.high();
  EXPECT_EQ(ear.heard, "101");
  enable.high();
  EXPECT_FALSE(out.driven());
}

}  // namespace
