// SPDX-License-Identifier: MIT
// What is the L6470's own: no register has a known length.
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/MotorDriverRig.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CMotorDriver1ChnL6470;
using wire::Lines;
using wire::lines;
namespace ST = Varnel::ST;

using Rig = MotorRig<CMotorDriver1ChnL6470>;
using Status = ST::L6470::CStatus;

constexpr char kUnknownLength[] = "log ERROR \"Return code  -22 0x0016 - Invalid argument\" ";
constexpr char kReadStatus[] = "varnel/chips/motordriver/MotorDriver1ChnL6470.cpp readStatus";

TEST(L6470, KnowsTheLengthOfNoneOfIts25Registers) {
  const OpenMotorDriver<CMotorDriver1ChnL6470> driver;
  EXPECT_EQ(driver.registerBitLength(), std::vector<uint8_t>(25, 255));
}

TEST(L6470, WritesNoRegister) {
  Rig rig;
  for (unsigned address = 0; address < 256; ++address) {
    char hex[3];
    std::snprintf(hex, sizeof(hex), "%02x", address);
    EXPECT_EQ(rig.driver.setParameter(static_cast<uint8_t>(address), 0x123456), -22);
    EXPECT_EQ(rig.wire.journal(), frames({hex}));
  }
}

TEST(L6470, ReadsNoRegisterAndLeavesTheValue) {
  Rig rig;
  struct Case {
    uint8_t address;
    const char* hex;
  };
  // Above 31 an address changes the command.
  for (const Case& read : {Case{0, "20"}, Case{ST::ABS_POS, "21"}, Case{ST::SPEED, "24"},
                           Case{ST::L6470::CONFIG, "38"}, Case{ST::L6470::STATUS, "39"},
                           Case{26, "3a"}, Case{31, "3f"}, Case{0xC5, "e5"}, Case{255, "ff"}}) {
    EXPECT_EQ(rig.driver.getParameter(read.address, rig.word), -22);
    EXPECT_EQ(rig.word, 0x55555555U);
    EXPECT_EQ(rig.wire.journal(), frames({read.hex}));
  }
}

TEST(L6470, SettersSendTheirCommandAndReturnMinus22) {
  struct Case {
    std::function<TErrCode(Rig&)> operation;
    const char* hex;
  };
  for (const Case& set : {Case{[](Rig& r) { return r.driver.setAcceleration(100000.0F); }, "05"},
                          Case{[](Rig& r) { return r.driver.setDeceleration(1000.0F); }, "06"},
                          Case{[](Rig& r) { return r.driver.setMaximumVelocity(20000.0F); }, "07"},
                          Case{[](Rig& r) { return r.driver.setMinimumVelocity(16.0F); }, "08"},
                          Case{[](Rig& r) { return r.driver.writePosition(-1); }, "01"}}) {
    Rig rig;
    EXPECT_EQ(set.operation(rig), -22);
    EXPECT_EQ(rig.wire.journal(), frames({set.hex})) << "and no log line";
  }
}

TEST(L6470, GettersSendTheirCommandAndLogMinus22) {
  struct Case {
    std::function<TErrCode(Rig&)> operation;
    const char* hex;
    const char* function;
  };
  for (const Case& get :
       {Case{[](Rig& r) { return r.driver.getMaximumVelocity(r.number); }, "27",
             "getMaximumVelocity"},
        Case{[](Rig& r) { return r.driver.getPosition(r.position); }, "21", "getPosition"},
        Case{[](Rig& r) { return r.driver.getSpeed(r.number); }, "24", "getSpeed"}}) {
    Rig rig;
    EXPECT_EQ(get.operation(rig), -22);
    EXPECT_EQ(rig.wire.journal(),
              lines(frames({get.hex}), std::string(kUnknownLength) + kCore + get.function));
    EXPECT_EQ(rig.number, -1.0F);
    EXPECT_EQ(rig.position, -77);
  }
}

TEST(L6470, ReadStatusSendsItsCommandAndLeavesTheStatus) {
  Rig rig;
  rig.wire.receives({0x00}).receives({0x7E}).receives({0x43});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  rig.wire.discard();
  EXPECT_EQ(rig.driver.readStatus(), -22);
  EXPECT_EQ(rig.driver.status().m_Data, 0x7E43);
  EXPECT_EQ(rig.wire.journal(), lines(frames({"39"}), std::string(kUnknownLength) + kReadStatus));
}

TEST(L6470, HasAStatusOfItsOwnKind) {
  Rig rig;
  EXPECT_NE(dynamic_cast<const Status*>(&rig.driver.status()), nullptr);
  EXPECT_EQ(rig.driver.status().thermalStatus(), ST::THERMAL_STATUS_SHUTDOWN) << "before a reading";
  rig.wire.receives({0x00}).receives({0x7E}).receives({0x43});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  EXPECT_EQ(rig.driver.status().motionStatus(), 0x40);
  rig.wire.discard();
}

TEST(L6470Status, BusyIsTheLowBit1) {
  EXPECT_TRUE(Status(0x0000).isBusy());
  EXPECT_TRUE(Status(0xFFFD).isBusy());
  EXPECT_FALSE(Status(0x0002).isBusy());
}

TEST(L6470Status, OverCurrentIsTheLowBit12) {
  EXPECT_TRUE(Status(0xEFFF).overCurrentDetected());
  EXPECT_FALSE(Status(0x1000).overCurrentDetected());
  EXPECT_TRUE(Status(0x2000).overCurrentDetected());
}

TEST(L6470Status, EitherBridgeLosesSteps) {
  EXPECT_TRUE(Status(0xDFFF).stepLossDetected());
  EXPECT_TRUE(Status(0xBFFF).stepLossDetected());
  EXPECT_TRUE(Status(0x9FFF).stepLossDetected());
  EXPECT_FALSE(Status(0x6000).stepLossDetected());
}

TEST(L6470Status, EitherCommandFlagIsAnError) {
  EXPECT_TRUE(Status(0x0080).commandError());
  EXPECT_TRUE(Status(0x0100).commandError());
  EXPECT_TRUE(Status(0x0180).commandError());
  EXPECT_FALSE(Status(0xFE7F).commandError());
}

TEST(L6470Status, MotionStaysInItsPlace) {
  EXPECT_EQ(Status(0xFF9F).motionStatus(), 0x00);
  EXPECT_EQ(Status(0x0020).motionStatus(), 0x20);
  EXPECT_EQ(Status(0x7E43).motionStatus(), 0x40);
  EXPECT_EQ(Status(0xFFFF).motionStatus(), 0x60);
}

TEST(L6470Status, TooHotIsTheLowBit11AndWarmTheLowBit10) {
  EXPECT_EQ(Status(0x0000).thermalStatus(), 2) << "too hot";
  EXPECT_EQ(Status(0xF7FF).thermalStatus(), 2) << "whatever the warning says";
  EXPECT_EQ(Status(0xFBFF).thermalStatus(), 1) << "warm";
  EXPECT_EQ(Status(0x0800).thermalStatus(), 1);
  EXPECT_EQ(Status(0x0C00).thermalStatus(), 0);
}

TEST(L6470Status, IsAWordThatCanBeCopiedAndSet) {
  Status status(0x1234);
  EXPECT_EQ(status.m_Data, 0x1234);
  status = Status(0x0002);
  EXPECT_FALSE(status.isBusy());
  EXPECT_TRUE((std::is_base_of_v<Orv::CHasFlags<uint16_t>, Status>));
}

TEST(L6470, HasTheNumbersOfItsVocabulary) {
  using namespace ST::L6470;  // NOLINT(google-build-using-namespace): thirty names
  EXPECT_EQ((std::vector<int>{CONFIG, STATUS, REGISTER_COUNT}), (std::vector<int>{24, 25, 25}));
  EXPECT_EQ((std::vector<int>{HiZ, BUSY, SW_F, SW_EVN, DIR, MOT_STATUS, NOTPERF_CMD, WRONG_CMD,
                              UVLO, THERM_WRN, THERM_SD, OCD, STEP_LOSS_A, STEP_LOSS_B, SCK_MOD}),
            (std::vector<int>{0x0001, 0x0002, 0x0004, 0x0008, 0x0010, 0x0060, 0x0080, 0x0100,
                              0x0200, 0x0400, 0x0800, 0x1000, 0x2000, 0x4000, 0x8000}));
}

// The sweeps over its motion and stop commands and clearStatus are those of both chips.
TEST(L6470Faults, RegisterOperationsReportALostCommandAndOtherwiseMinus22) {
  struct Case {
    std::function<TErrCode(Rig&)> operation;
    SentByte command;
    Lines ending;
  };
  const auto core = [](const char* function) { return std::string(kCore) + function; };
  const std::string set = core("setParameter");
  const std::string get = core("getParameter");
  const std::vector<Case> cases = {
      {[](Rig& r) { return r.driver.setParameter(ST::L6470::CONFIG, 1); }, {"18", {set}}, {}},
      {[](Rig& r) { return r.driver.setParameter(0, 1); }, {"00", {set}}, {}},
      {[](Rig& r) { return r.driver.getParameter(ST::ABS_POS, r.word); }, {"21", {get}}, {}},
      {[](Rig& r) { return r.driver.setAcceleration(1.0F); }, {"05", {set}}, {}},
      {[](Rig& r) { return r.driver.setDeceleration(1.0F); }, {"06", {set}}, {}},
      {[](Rig& r) { return r.driver.setMaximumVelocity(1.0F); }, {"07", {set}}, {}},
      {[](Rig& r) { return r.driver.setMinimumVelocity(1.0F); }, {"08", {set}}, {}},
      {[](Rig& r) { return r.driver.writePosition(1); }, {"01", {set}}, {}},
      {[](Rig& r) { return r.driver.getMaximumVelocity(r.number); },
       {"27", {get, core("getMaximumVelocity")}},
       {kUnknownLength + core("getMaximumVelocity")}},
      {[](Rig& r) { return r.driver.getPosition(r.position); },
       {"21", {get, core("getPosition")}},
       {kUnknownLength + core("getPosition")}},
      {[](Rig& r) { return r.driver.getSpeed(r.number); },
       {"24", {get, core("getSpeed")}},
       {kUnknownLength + core("getSpeed")}},
      {[](Rig& r) { return r.driver.readStatus(); },
       {"39", {get, kReadStatus}},
       {std::string(kUnknownLength) + kReadStatus}}};
  for (const Case& operation : cases) {
    MotorSweep<Rig>(operation.operation)
        .endsWith(-22, operation.ending)
        .leaves([](Rig& rig, size_t) {
          EXPECT_EQ(rig.word, 0x55555555U);
          EXPECT_EQ(rig.number, -1.0F);
          EXPECT_EQ(rig.position, -77);
          EXPECT_EQ(rig.driver.status().m_Data, 0);
        })
        .run({operation.command});
  }
}

}  // namespace
