// SPDX-License-Identifier: MIT
// What is the powerSTEP01's own: its registers and its status.
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/MotorDriverRig.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Wire.h"

namespace {

using Varnel::CMotorDriver1ChnPowerSTEP01;
using wire::Lines;
using wire::lines;
namespace ST = Varnel::ST;

using Driver = CMotorDriver1ChnPowerSTEP01;
using Rig = MotorRig<Driver>;
using Status = ST::powerSTEP01::CStatus;

constexpr char kReadStatus[] = "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.cpp readStatus";

TEST(PowerSTEP01, KnowsTheLengthsOfIts27Registers) {
  const OpenMotorDriver<Driver> driver;
  EXPECT_EQ(driver.registerBitLength(),
            (std::vector<uint8_t>{22, 9, 22, 20, 12, 12, 10, 12, 8, 8,  8, 8,  14, 8,
                                  8,  8, 8,  5,  5,  5,  11, 8,  8, 11, 8, 16, 16}));
}

struct Register {
  uint8_t address;
  const char* set;
  const char* get;
  unsigned bytes;
};

/// Every register with its two command bytes and how many bytes follow them.
const std::vector<Register> kRegisters = {{ST::ABS_POS, "01", "21", 3},
                                          {ST::EL_POS, "02", "22", 2},
                                          {ST::MARK, "03", "23", 3},
                                          {ST::SPEED, "04", "24", 3},
                                          {ST::ACC, "05", "25", 2},
                                          {ST::DEC, "06", "26", 2},
                                          {ST::MAX_SPEED, "07", "27", 2},
                                          {ST::MIN_SPEED, "08", "28", 2},
                                          {ST::KVAL_HOLD, "09", "29", 1},
                                          {ST::KVAL_RUN, "0a", "2a", 1},
                                          {ST::KVAL_ACC, "0b", "2b", 1},
                                          {ST::KVAL_DEC, "0c", "2c", 1},
                                          {ST::INT_SPEED, "0d", "2d", 2},
                                          {ST::ST_SLP, "0e", "2e", 1},
                                          {ST::FN_SLP_ACC, "0f", "2f", 1},
                                          {ST::FN_SLP_DEC, "10", "30", 1},
                                          {ST::K_THERM, "11", "31", 1},
                                          {ST::ADC_OUT, "12", "32", 1},
                                          {ST::OCD_TH, "13", "33", 1},
                                          {ST::STALL_TH, "14", "34", 1},
                                          {ST::FS_SPEED, "15", "35", 2},
                                          {ST::STEP_MODE, "16", "36", 1},
                                          {ST::ALARM_EN, "17", "37", 1},
                                          {ST::powerSTEP01::GATECFG1, "18", "38", 2},
                                          {ST::powerSTEP01::GATECFG2, "19", "39", 1},
                                          {ST::powerSTEP01::CONFIG, "1a", "3a", 2},
                                          {ST::powerSTEP01::STATUS, "1b", "3b", 2}};

TEST(PowerSTEP01, WritesAsManyLowBytesAsARegisterHasAndMasksNone) {
  const std::vector<std::vector<std::string>> bytes = {
      {}, {"89"}, {"67", "89"}, {"f5", "67", "89"}};
  Rig rig;
  for (const Register& written : kRegisters) {
    EXPECT_EQ(rig.driver.setParameter(written.address, 0xABF56789), 0);
    EXPECT_EQ(rig.wire.journal(), lines(frames({written.set}), frames(bytes[written.bytes])));
  }
}

TEST(PowerSTEP01, ReadsARegistersBytesAndLeavesTheOthers) {
  const uint32_t words[] = {0, 0xAABBCC11, 0xAABB1122, 0xAA112233};
  const std::vector<std::vector<std::string>> fill = {{}, {"00"}, {"00", "00"}, {"00", "00", "00"}};
  for (const Register& read : kRegisters) {
    Rig rig;
    rig.wire.receives({0xFF});  // during the command
    for (unsigned i = 0; i < read.bytes; ++i) {
      rig.wire.receives({static_cast<uint8_t>(0x11 * (i + 1))});
    }
    uint32_t value = 0xAABBCCDD;
    EXPECT_EQ(rig.driver.getParameter(read.address, value), 0);
    EXPECT_EQ(value, words[read.bytes]) << "register " << int{read.address};
    EXPECT_EQ(rig.wire.journal(), lines(frames({read.get}), frames(fill[read.bytes])));
  }
}

TEST(PowerSTEP01, KeepsTheBytesThatArrivedBeforeAFailure) {
  Rig rig;
  rig.wire.receives({0xFF}).receives({0x11}).fails("MESSAGE", EIO, 3);
  uint32_t value = 0xAABBCCDD;
  EXPECT_EQ(rig.driver.getParameter(ST::ABS_POS, value), -5);
  EXPECT_EQ(value, 0xAA11CCDDU);
  rig.wire.discard();
}

TEST(PowerSTEP01, WritesAPositionOf22Bits) {
  Rig rig;
  EXPECT_EQ(rig.driver.setParameter(ST::ABS_POS, 0x123456), 0);
  EXPECT_EQ(rig.wire.journal(), frames({"01", "12", "34", "56"}));
}

TEST(PowerSTEP01, RefusesNumbersOutsideTheTableAfterTheCommandByte) {
  struct Case {
    uint8_t address;
    const char* set;
    const char* get;
  };
  // The command byte is sent as it comes, a register or not.
  for (const Case& wrong : {Case{0, "00", "20"}, Case{28, "1c", "3c"}, Case{31, "1f", "3f"},
                            Case{0x50, "50", "70"}, Case{255, "ff", "ff"}}) {
    Rig rig;
    EXPECT_EQ(rig.driver.setParameter(wrong.address, 0x123456), -22);
    EXPECT_EQ(rig.wire.journal(), frames({wrong.set})) << "and no log line";
    EXPECT_EQ(rig.driver.getParameter(wrong.address, rig.word), -22);
    EXPECT_EQ(rig.word, 0x55555555U);
    EXPECT_EQ(rig.wire.journal(), frames({wrong.get})) << "and no log line";
  }
}

/// Gives register 1 another length.
struct OtherLengths : OpenMotorDriver<Driver> {
  std::vector<uint8_t> lengths;
  const std::vector<uint8_t>& registerBitLength() const override { return lengths; }
};

TEST(PowerSTEP01, TakesLengthsFromTheVirtualTableAndRoundsThemUpToBytes) {
  struct Case {
    uint8_t length;
    std::vector<std::string> bytes;
    uint32_t word;
  };
  const std::vector<std::string> four = {"ab", "cd", "67", "89"};
  for (const Case& expected :
       {Case{0, {}, 0x55555555}, Case{1, {"89"}, 0x555555EE}, Case{8, {"89"}, 0x555555EE},
        Case{9, {"67", "89"}, 0x5555EEEE}, Case{16, {"67", "89"}, 0x5555EEEE},
        Case{17, {"cd", "67", "89"}, 0x55EEEEEE}, Case{24, {"cd", "67", "89"}, 0x55EEEEEE},
        Case{25, four, 0xEEEEEEEE}, Case{32, four, 0xEEEEEEEE}}) {
    SCOPED_TRACE("length " + std::to_string(expected.length));
    Rig rig;
    OtherLengths driver;
    driver.lengths = {expected.length};
    driver.setBus(&rig.bus);
    driver.setChipSelector(&rig.selector);
    rig.wire.name(driver.txBuffer(), 1, "tx");
    rig.wire.name(driver.rxBuffer(), 1, "rx");
    EXPECT_EQ(driver.setParameter(1, 0xABCD6789), 0);
    EXPECT_EQ(rig.wire.journal(), lines(frames({"01"}), frames(expected.bytes)));
    EXPECT_EQ(driver.getParameter(1, rig.word), 0);
    EXPECT_EQ(rig.word, expected.word);
    rig.wire.discard();
    EXPECT_EQ(driver.setParameter(2, 0), -22) << "beyond a table of one";
    EXPECT_EQ(rig.wire.journal(), frames({"02"}));
  }
}

TEST(PowerSTEP01, RefusesARegisterOfUnknownLengthAmongKnownOnes) {
  Rig rig;
  OtherLengths driver;
  driver.lengths = {8, 255, 8};
  driver.setBus(&rig.bus);
  EXPECT_EQ(driver.setParameter(2, 0), -22);
  EXPECT_EQ(driver.getParameter(2, rig.word), -22);
  EXPECT_EQ(rig.word, 0x55555555U);
  EXPECT_EQ(rig.wire.journal().size(), 2U) << "the command bytes";
  EXPECT_EQ(driver.setParameter(3, 0), 0);
  rig.wire.discard();
}

TEST(PowerSTEP01, SetsSpeedsAndAccelerationsInTheRegistersUnits) {
  struct Case {
    std::function<TErrCode(Rig&)> operation;
    std::vector<std::string> bytes;
  };
  // 1000 steps/s2 are 68.7 units, 991 steps/s 64.9 and 16 steps/s 67.1.
  for (const Case& set :
       {Case{[](Rig& r) { return r.driver.setAcceleration(1000.0F); }, {"05", "00", "44"}},
        Case{[](Rig& r) { return r.driver.setAcceleration(100000.0F); }, {"05", "0f", "ff"}},
        Case{[](Rig& r) { return r.driver.setAcceleration(-1.0F); }, {"05", "00", "00"}},
        Case{[](Rig& r) { return r.driver.setDeceleration(1000.0F); }, {"06", "00", "44"}},
        Case{[](Rig& r) { return r.driver.setDeceleration(100000.0F); }, {"06", "0f", "ff"}},
        Case{[](Rig& r) { return r.driver.setMaximumVelocity(991.0F); }, {"07", "00", "40"}},
        Case{[](Rig& r) { return r.driver.setMaximumVelocity(20000.0F); }, {"07", "03", "ff"}},
        Case{[](Rig& r) { return r.driver.setMinimumVelocity(16.0F); }, {"08", "00", "43"}},
        Case{[](Rig& r) { return r.driver.setMinimumVelocity(1000.0F); }, {"08", "0f", "ff"}},
        Case{[](Rig& r) { return r.driver.writePosition(-1); }, {"01", "3f", "ff", "ff"}},
        Case{[](Rig& r) { return r.driver.writePosition(0x1ABCDE); }, {"01", "1a", "bc", "de"}},
        Case{[](Rig& r) { return r.driver.writePosition(3000000); }, {"01", "1f", "ff", "ff"}},
        Case{[](Rig& r) { return r.driver.writePosition(-3000000); }, {"01", "20", "00", "00"}}}) {
    Rig rig;
    EXPECT_EQ(set.operation(rig), 0);
    EXPECT_EQ(rig.wire.journal(), frames(set.bytes));
  }
}

TEST(PowerSTEP01, ReadsPositions) {
  struct Case {
    std::vector<uint8_t> bytes;
    int32_t position;
  };
  for (const Case& read : {Case{{0x00, 0x00, 0x05}, 5}, Case{{0x1F, 0xFF, 0xFF}, 2097151},
                           Case{{0x3F, 0xFF, 0xFF}, -1}, Case{{0x20, 0x00, 0x01}, -2097151},
                           Case{{0x20, 0x00, 0x00}, 0}, Case{{0x40, 0x00, 0x00}, 0}}) {
    Rig rig;
    rig.wire.receives({0xFF});
    for (const uint8_t byte : read.bytes) {
      rig.wire.receives({byte});
    }
    EXPECT_EQ(rig.driver.getPosition(rig.position), 0);
    EXPECT_EQ(rig.position, read.position);
    EXPECT_EQ(rig.wire.journal(), frames({"21", "00", "00", "00"}));
  }
}

TEST(PowerSTEP01, ReadsSpeeds) {
  Rig rig;
  rig.wire.receives({0xFF}).receives({0x00}).receives({0x1A}).receives({0x36});
  EXPECT_EQ(rig.driver.getSpeed(rig.number), 0);
  EXPECT_EQ(rig.number, 0x1.8ff27ap+6F) << "about 99.99 steps/s";
  EXPECT_EQ(rig.wire.journal(), frames({"24", "00", "00", "00"}));
  rig.wire.receives({0xFF}).receives({0x00}).receives({0x41});
  EXPECT_EQ(rig.driver.getMaximumVelocity(rig.number), 0);
  EXPECT_EQ(rig.number, 0x1.efe92p+9F) << "about 991.8 steps/s";
  EXPECT_EQ(rig.wire.journal(), frames({"27", "00", "00"}));
}

TEST(PowerSTEP01, ReadStatusTakesTheWordHighByteFirst) {
  Rig rig;
  rig.wire.receives({0xFF}).receives({0x7E}).receives({0x03});
  EXPECT_EQ(rig.driver.readStatus(), 0);
  EXPECT_EQ(rig.driver.status().m_Data, 0x7E03);
  EXPECT_EQ(rig.wire.journal(), frames({"3b", "00", "00"}));
}

TEST(PowerSTEP01, ReadStatusThatFailsInTheMiddleLeavesTheStatus) {
  Rig rig;
  rig.wire.receives({0xFF}).receives({0x7E}).receives({0x03});
  EXPECT_EQ(rig.driver.readStatus(), 0);
  rig.wire.receives({0xFF}).receives({0x12}).fails("MESSAGE", EIO, 3);
  EXPECT_EQ(rig.driver.readStatus(), -5);
  EXPECT_EQ(rig.driver.status().m_Data, 0x7E03);
  rig.wire.discard();
}

TEST(PowerSTEP01, ReadStatusAndClearStatusFillTheSameStatus) {
  Rig rig;
  const ST::CStatus& status = rig.driver.status();
  EXPECT_NE(dynamic_cast<const Status*>(&status), nullptr);
  EXPECT_EQ(status.thermalStatus(), ST::THERMAL_STATUS_NORMAL) << "before a reading";
  rig.wire.receives({0x00}).receives({0xFF}).receives({0x02});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  EXPECT_EQ(status.m_Data, 0xFF02);
  rig.wire.receives({0x00}).receives({0x12}).receives({0x34});
  EXPECT_EQ(rig.driver.readStatus(), 0);
  EXPECT_EQ(status.m_Data, 0x1234);
  EXPECT_EQ(&rig.driver.status(), &status);
  rig.wire.discard();
}

TEST(PowerSTEP01Status, ReadsTheWordOfAFreshChip) {
  const Status status(0x7E03);
  EXPECT_FALSE(status.isBusy());
  EXPECT_FALSE(status.overCurrentDetected());
  EXPECT_TRUE(status.stepLossDetected());
  EXPECT_FALSE(status.commandError());
  EXPECT_EQ(status.motionStatus(), 0);
  EXPECT_EQ(status.thermalStatus(), ST::THERMAL_STATUS_SHUTDOWN);
}

TEST(PowerSTEP01Status, BusyIsTheLowBit1) {
  EXPECT_TRUE(Status(0xFFFD).isBusy());
  EXPECT_FALSE(Status(0x0002).isBusy());
}

TEST(PowerSTEP01Status, OverCurrentIsTheLowBit13) {
  EXPECT_TRUE(Status(0xDFFF).overCurrentDetected());
  EXPECT_FALSE(Status(0x2000).overCurrentDetected());
  EXPECT_TRUE(Status(0x1000).overCurrentDetected());
}

TEST(PowerSTEP01Status, EitherBridgeLosesSteps) {
  EXPECT_TRUE(Status(0xBFFF).stepLossDetected());
  EXPECT_TRUE(Status(0x7FFF).stepLossDetected());
  EXPECT_TRUE(Status(0x3FFF).stepLossDetected());
  EXPECT_FALSE(Status(0xC000).stepLossDetected());
}

TEST(PowerSTEP01Status, ACommandErrorIsTheHighBit7) {
  EXPECT_TRUE(Status(0x0080).commandError());
  EXPECT_FALSE(Status(0xFF7F).commandError());
}

TEST(PowerSTEP01Status, MotionIsANumber) {
  EXPECT_EQ(Status(0xFF9F).motionStatus(), 0);
  EXPECT_EQ(Status(0x0020).motionStatus(), 1);
  EXPECT_EQ(Status(0x7E43).motionStatus(), 2);
  EXPECT_EQ(Status(0xFFFF).motionStatus(), 3);
}

TEST(PowerSTEP01Status, AWarningCountsAsNormal) {
  EXPECT_EQ(Status(0xE7FF).thermalStatus(), 0);
  EXPECT_EQ(Status(0x0800).thermalStatus(), 0) << "warm";
  EXPECT_EQ(Status(0xEFFF).thermalStatus(), 0) << "warm";
  EXPECT_EQ(Status(0x1000).thermalStatus(), 2) << "bridges off";
  EXPECT_EQ(Status(0x1800).thermalStatus(), 2) << "all off";
}

TEST(PowerSTEP01, HasTheNumbersOfItsVocabulary) {
  using namespace ST::powerSTEP01;  // NOLINT(google-build-using-namespace): thirty names
  EXPECT_EQ((std::vector<int>{TVAL_HOLD, TVAL_RUN, TVAL_ACC, TVAL_DEC, T_FAST, T_ON_MIN, T_OFF_MIN,
                              GATECFG1, GATECFG2, CONFIG, STATUS, REGISTER_COUNT}),
            (std::vector<int>{9, 10, 11, 12, 14, 15, 16, 24, 25, 26, 27, 27}));
  EXPECT_EQ((std::vector<int>{HiZ, BUSY, SW_F, SW_EVN, DIR, MOT_STATUS, CMD_ERR, STCK_MOD, UVLO,
                              UVLO_ADC, TH_STATUS, OCD, STEP_LOSS_A, STEP_LOSS_B}),
            (std::vector<int>{0x0001, 0x0002, 0x0004, 0x0008, 0x0010, 0x0060, 0x0080, 0x0100,
                              0x0200, 0x0400, 0x1800, 0x2000, 0x4000, 0x8000}));
  EXPECT_EQ((std::vector<int>{NORMAL, WARNING, BRIGDE_SHUTDOWN, DEVICE_SHUTDOWN}),
            (std::vector<int>{0, 1, 2, 3}));
}

TEST(PowerSTEP01, SharesTheNumbersOfTheCommonVocabulary) {
  using namespace ST;  // NOLINT(google-build-using-namespace): forty names
  EXPECT_EQ(
      (std::vector<int>{CMD_NOP, CMD_SET_PARAM, CMD_GET_PARAM, CMD_RUN, CMD_STEP_CLOCK, CMD_MOVE,
                        CMD_GOTO, CMD_GOTO_DIR, CMD_GO_UNTIL, CMD_RELEASE_SW, CMD_GO_HOME,
                        CMD_GO_MARK, CMD_RESET_POS, CMD_RESET_DEVICE, CMD_SOFT_STOP, CMD_HARD_STOP,
                        CMD_SOFT_HIZ, CMD_HARD_HIZ, CMD_GET_STATUS}),
      (std::vector<int>{0x00, 0x00, 0x20, 0x50, 0x58, 0x40, 0x60, 0x68, 0x82, 0x92, 0x70, 0x78,
                        0xD8, 0xC0, 0xB0, 0xB8, 0xA0, 0xA8, 0xD0}));
  EXPECT_EQ((std::vector<int>{ABS_POS,   EL_POS,    MARK,       SPEED,      ACC,      DEC,
                              MAX_SPEED, MIN_SPEED, KVAL_HOLD,  KVAL_RUN,   KVAL_ACC, KVAL_DEC,
                              INT_SPEED, ST_SLP,    FN_SLP_ACC, FN_SLP_DEC, K_THERM,  ADC_OUT,
                              OCD_TH,    STALL_TH,  FS_SPEED,   STEP_MODE,  ALARM_EN}),
            (std::vector<int>{1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                              13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23}));
  EXPECT_EQ((std::vector<int>{DIRECTION_REVERSE, DIRECTION_FORWARD}), (std::vector<int>{0, 1}));
  EXPECT_EQ(
      (std::vector<int>{THERMAL_STATUS_NORMAL, THERMAL_STATUS_WARNING, THERMAL_STATUS_SHUTDOWN}),
      (std::vector<int>{0, 1, 2}));
  EXPECT_TRUE((std::is_same_v<std::remove_cv_t<decltype(INDETERMINED_BITLENGTH)>, uint8_t>));
  EXPECT_EQ(INDETERMINED_BITLENGTH, 255);
}

// The sweeps over its motion and stop commands and clearStatus are those of both chips.
void sweep(const std::function<TErrCode(Rig&)>& operation, const std::vector<SentByte>& bytes) {
  wire::FaultSweep<Rig>(operation)
      .leaves([](Rig& rig, const std::string& line) {
        EXPECT_EQ(rig.selector.selected(), line != kSelect);
        EXPECT_EQ(rig.number, -1.0F);
        EXPECT_EQ(rig.position, -77);
        EXPECT_EQ(rig.driver.status().m_Data, 0);
      })
      .recoversBy(recoverMotor<Driver>)
      .run(byteSteps(bytes));
}

/// The command byte's failure is logged under `function`, that of the others not.
std::vector<SentByte> registerBytes(const std::string& command, const std::string& function,
                                    const std::vector<std::string>& values) {
  std::vector<SentByte> bytes = {{command, {kCore + function}}};
  for (const std::string& value : values) {
    bytes.push_back({value});
  }
  return bytes;
}

TEST(PowerSTEP01Faults, WritingARegisterLogsTheCommandByteOnly) {
  const std::string function = "setParameter";
  sweep([](Rig& r) { return r.driver.setParameter(ST::MARK, 0x123456); },
        registerBytes("03", function, {"12", "34", "56"}));
  sweep([](Rig& r) { return r.driver.setAcceleration(1000.0F); },
        registerBytes("05", function, {"00", "44"}));
  sweep([](Rig& r) { return r.driver.setDeceleration(1000.0F); },
        registerBytes("06", function, {"00", "44"}));
  sweep([](Rig& r) { return r.driver.setMaximumVelocity(991.0F); },
        registerBytes("07", function, {"00", "40"}));
  sweep([](Rig& r) { return r.driver.setMinimumVelocity(16.0F); },
        registerBytes("08", function, {"00", "43"}));
  sweep([](Rig& r) { return r.driver.writePosition(-1); },
        registerBytes("01", function, {"3f", "ff", "ff"}));
}

TEST(PowerSTEP01Faults, ReadingARegisterLogsTheCommandByteOnly) {
  sweep([](Rig& r) { return r.driver.getParameter(ST::MARK, r.word); },
        registerBytes("23", "getParameter", {"00", "00", "00"}));
}

/// Every byte's failure is logged by the getter, the command's by getParameter before.
std::vector<SentByte> getterBytes(const std::string& command, const std::string& place,
                                  const std::vector<std::string>& values) {
  std::vector<SentByte> bytes = {{command, {std::string(kCore) + "getParameter", place}}};
  for (const std::string& value : values) {
    bytes.push_back({value, {place}});
  }
  return bytes;
}

TEST(PowerSTEP01Faults, GettersLogEveryByteUnderTheirName) {
  const std::string core = kCore;
  // A sweep ends with a good run, so what is read goes elsewhere than into the rig.
  sweep(
      [](Rig& r) {
        float speed = r.number;
        const TErrCode code = r.driver.getMaximumVelocity(speed);
        EXPECT_EQ(speed == -1.0F, code != 0);
        return code;
      },
      getterBytes("27", core + "getMaximumVelocity", {"00", "00"}));
  sweep(
      [](Rig& r) {
        int32_t position = r.position;
        const TErrCode code = r.driver.getPosition(position);
        EXPECT_EQ(position == -77, code != 0);
        return code;
      },
      getterBytes("21", core + "getPosition", {"00", "00", "00"}));
  sweep(
      [](Rig& r) {
        float speed = r.number;
        const TErrCode code = r.driver.getSpeed(speed);
        EXPECT_EQ(speed == -1.0F, code != 0);
        return code;
      },
      getterBytes("24", core + "getSpeed", {"00", "00", "00"}));
}

TEST(PowerSTEP01Faults, ReadStatusLogsEveryByteUnderItsName) {
  sweep([](Rig& r) { return r.driver.readStatus(); }, getterBytes("3b", kReadStatus, {"00", "00"}));
}

}  // namespace
