// SPDX-License-Identifier: MIT
// What both motor drivers do alike.
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/MotorDriverRig.h"
#include "tests/varnel/chips/Waiting.h"
#include "tests/wire/FaultSweep.h"
#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace {

using Varnel::CMotorDriver1ChnL6470;
using Varnel::CMotorDriver1ChnPowerSTEP01;
using Varnel::CSTMicroSteppingMotorDriver;
using wire::Lines;
using wire::lines;

struct ChipNames {
  template <class Driver>
  static std::string GetName(int) {  // NOLINT(readability-identifier-naming): the framework's name
    return std::is_same_v<Driver, CMotorDriver1ChnL6470> ? "L6470" : "PowerSTEP01";
  }
};

template <class Driver>
class MotorDriver : public testing::Test {};

using Chips = testing::Types<CMotorDriver1ChnL6470, CMotorDriver1ChnPowerSTEP01>;
TYPED_TEST_SUITE(MotorDriver, Chips, ChipNames);

TYPED_TEST(MotorDriver, StartsUnboundWithItsRecord) {
  const OpenMotorDriver<TypeParam> driver;
  EXPECT_EQ(driver.m_Bus, nullptr);
  EXPECT_EQ(driver.m_ChipSelect, nullptr);
  EXPECT_EQ(driver.m_LatchPin, nullptr);
  const spi_ioc_transfer& transfer = driver.m_TransferSettings.ioc_transfer;
  EXPECT_NE(transfer.tx_buf, 0U);
  EXPECT_EQ(transfer.rx_buf, transfer.tx_buf + 1);
  EXPECT_EQ(transfer.len, 1U);
  EXPECT_EQ(transfer.speed_hz, 1000000U);
  EXPECT_EQ(transfer.delay_usecs, 0);
  EXPECT_EQ(transfer.bits_per_word, 8);
  EXPECT_EQ(transfer.cs_change, 0);
  EXPECT_EQ(transfer.tx_nbits, 0);
  EXPECT_EQ(transfer.rx_nbits, 0);
  EXPECT_EQ(driver.m_TransferSettings.bus_settings.Mode, 3U);
  EXPECT_EQ(driver.m_TransferSettings.bus_settings.LSBFirst, 0);
  EXPECT_EQ(*static_cast<const uint8_t*>(driver.txBuffer()), 0);
  EXPECT_EQ(*static_cast<const uint8_t*>(driver.rxBuffer()), 0);
}

TYPED_TEST(MotorDriver, AddsOnePointerToTheDevice) {
  // The device's last field ends at 48 + 5 pointers.
  OpenMotorDriver<TypeParam> driver;
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&driver.d_ptr) - reinterpret_cast<uintptr_t>(&driver),
            48 + 5 * sizeof(void*));
  EXPECT_EQ(sizeof(TypeParam), sizeof(CSTMicroSteppingMotorDriver));
  EXPECT_EQ(sizeof(TypeParam), sizeof(void*) == 8 ? 96U : 72U);
}

TYPED_TEST(MotorDriver, TellsItsLimitsWithoutATransfer) {
  const TypeParam driver;
  EXPECT_EQ(driver.maximumPosition(), 2097151);
  EXPECT_EQ(driver.minimumPosition(), -2097152);
  EXPECT_EQ(driver.maximumSpeed(), 15625U);
  EXPECT_EQ(driver.minimumSpeed(), 16U);
  EXPECT_EQ(driver.maximumAcceleration(), 59590.0F);
  EXPECT_EQ(driver.minimumAcceleration(), 14.55F);
}

TYPED_TEST(MotorDriver, StartsWithAnEmptyStatusWord) {
  const TypeParam driver;
  EXPECT_EQ(driver.status().m_Data, 0);
  EXPECT_TRUE(driver.status().isBusy());
  EXPECT_TRUE(driver.status().overCurrentDetected());
  EXPECT_TRUE(driver.status().stepLossDetected());
  EXPECT_FALSE(driver.status().commandError());
  EXPECT_EQ(driver.status().motionStatus(), 0);
}

TYPED_TEST(MotorDriver, SendsCommandsOfOneByte) {
  MotorRig<TypeParam> rig;
  struct Case {
    TErrCode (CSTMicroSteppingMotorDriver::*command)();
    const char* hex;
  };
  using Base = CSTMicroSteppingMotorDriver;
  for (const Case& sent :
       {Case{&Base::softStop, "b0"}, Case{&Base::hardStop, "b8"}, Case{&Base::resetDevice, "c0"},
        Case{&Base::goHome, "70"}, Case{&Base::goMark, "78"}, Case{&Base::resetPosition, "d8"},
        Case{&Base::softHiZ, "a0"}, Case{&Base::hardHiZ, "a8"}}) {
    EXPECT_EQ((rig.driver.*sent.command)(), 0);
    EXPECT_EQ(rig.wire.journal(), frames({sent.hex}));
  }
}

/// An operation and the bytes it sends.
template <class Rig>
struct Sending {
  const char* what;
  std::function<TErrCode(Rig&)> operation;
  std::vector<std::string> bytes;
};

template <class Rig>
void expectSent(const std::vector<Sending<Rig>>& cases) {
  for (const Sending<Rig>& sending : cases) {
    SCOPED_TRACE(sending.what);
    Rig rig;
    EXPECT_EQ(sending.operation(rig), 0);
    EXPECT_EQ(rig.wire.journal(), frames(sending.bytes));
  }
}

TYPED_TEST(MotorDriver, RunsAtASpeedInTheRegistersUnits) {
  using Rig = MotorRig<TypeParam>;
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  // 100 steps/s are 6710.886 units, of which 6710 are 0x1A36; 20 bits are the limit.
  expectSent<Rig>({
      {"forward", [](Rig& r) { return r.driver.run(100.0F, 1); }, {"51", "00", "1a", "36"}},
      {"negative", [](Rig& r) { return r.driver.run(-5.0F, 0); }, {"50", "00", "00", "00"}},
      {"too fast", [](Rig& r) { return r.driver.run(1e9F, 0); }, {"50", "0f", "ff", "ff"}},
      {"zero", [](Rig& r) { return r.driver.run(0.0F, 1); }, {"51", "00", "00", "00"}},
      {"NaN", [](Rig& r) { return r.driver.run(std::nanf(""), 1); }, {"51", "00", "00", "00"}},
      {"infinite", [](Rig& r) { return r.driver.run(kInfinity, 1); }, {"51", "0f", "ff", "ff"}},
      {"-infinite", [](Rig& r) { return r.driver.run(-kInfinity, 1); }, {"51", "00", "00", "00"}},
      {"1.5 steps/s", [](Rig& r) { return r.driver.run(1.5F, 0); }, {"50", "00", "00", "64"}},
      {"7812.5 steps/s", [](Rig& r) { return r.driver.run(7812.5F, 1); }, {"51", "08", "00", "00"}},
  });
}

TYPED_TEST(MotorDriver, MovesByStepsOf21Bits) {
  using Rig = MotorRig<TypeParam>;
  expectSent<Rig>({
      {"none", [](Rig& r) { return r.driver.move(0, 0); }, {"40", "00", "00", "00"}},
      {"some", [](Rig& r) { return r.driver.move(0x123456, 1); }, {"41", "12", "34", "56"}},
      {"most", [](Rig& r) { return r.driver.move(0x1FFFFF, 0); }, {"40", "1f", "ff", "ff"}},
      {"too many", [](Rig& r) { return r.driver.move(0x200000, 0); }, {"40", "1f", "ff", "ff"}},
      {"far", [](Rig& r) { return r.driver.move(0x300000, 1); }, {"41", "1f", "ff", "ff"}},
      {"farthest", [](Rig& r) { return r.driver.move(0xFFFFFFFF, 1); }, {"41", "1f", "ff", "ff"}},
  });
}

TYPED_TEST(MotorDriver, GoesToPositionsInTwosComplementOf22Bits) {
  using Rig = MotorRig<TypeParam>;
  expectSent<Rig>({
      {"0", [](Rig& r) { return r.driver.goTo(0); }, {"60", "00", "00", "00"}},
      {"1", [](Rig& r) { return r.driver.goTo(1); }, {"60", "00", "00", "01"}},
      {"-1", [](Rig& r) { return r.driver.goTo(-1); }, {"60", "3f", "ff", "ff"}},
      {"-2", [](Rig& r) { return r.driver.goTo(-2); }, {"60", "3f", "ff", "fe"}},
      {"maximum", [](Rig& r) { return r.driver.goTo(2097151); }, {"60", "1f", "ff", "ff"}},
      {"over it", [](Rig& r) { return r.driver.goTo(2097152); }, {"60", "1f", "ff", "ff"}},
      {"far over", [](Rig& r) { return r.driver.goTo(3000000); }, {"60", "1f", "ff", "ff"}},
      {"INT32_MAX", [](Rig& r) { return r.driver.goTo(INT32_MAX); }, {"60", "1f", "ff", "ff"}},
      {"over minimum", [](Rig& r) { return r.driver.goTo(-2097151); }, {"60", "20", "00", "01"}},
      {"minimum", [](Rig& r) { return r.driver.goTo(-2097152); }, {"60", "20", "00", "00"}},
      {"under it", [](Rig& r) { return r.driver.goTo(-2097153); }, {"60", "20", "00", "00"}},
      {"far under", [](Rig& r) { return r.driver.goTo(-3000000); }, {"60", "20", "00", "00"}},
      {"INT32_MIN", [](Rig& r) { return r.driver.goTo(INT32_MIN); }, {"60", "20", "00", "00"}},
  });
}

TYPED_TEST(MotorDriver, GoesToPositionsInADirection) {
  using Rig = MotorRig<TypeParam>;
  expectSent<Rig>({
      {"back", [](Rig& r) { return r.driver.goToDirection(-1, 0); }, {"68", "3f", "ff", "ff"}},
      {"on", [](Rig& r) { return r.driver.goToDirection(0x12345, 1); }, {"69", "01", "23", "45"}},
      {"far", [](Rig& r) { return r.driver.goToDirection(3000000, 1); }, {"69", "1f", "ff", "ff"}},
      {"low", [](Rig& r) { return r.driver.goToDirection(-3000000, 0); }, {"68", "20", "00", "00"}},
  });
}

TYPED_TEST(MotorDriver, SendsTheDirectionUnmasked) {
  using Rig = MotorRig<TypeParam>;
  expectSent<Rig>({
      {"run 2", [](Rig& r) { return r.driver.run(100.0F, 2); }, {"52", "00", "1a", "36"}},
      {"run 255", [](Rig& r) { return r.driver.run(0.0F, 255); }, {"ff", "00", "00", "00"}},
      {"move 0x83", [](Rig& r) { return r.driver.move(1, 0x83); }, {"c3", "00", "00", "01"}},
      {"goto 0x14",
       [](Rig& r) { return r.driver.goToDirection(1, 0x14); },
       {"7c", "00", "00", "01"}},
  });
}

TYPED_TEST(MotorDriver, ClearStatusTakesTheWordHighByteFirst) {
  MotorRig<TypeParam> rig;
  rig.wire.receives({0x00}).receives({0x7E}).receives({0x03});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  EXPECT_EQ(rig.driver.status().m_Data, 0x7E03);
  EXPECT_EQ(rig.wire.journal(), frames({"d0", "00", "00"}));
  rig.wire.receives({0x00}).receives({0x01}).receives({0xFE});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  EXPECT_EQ(rig.driver.status().m_Data, 0x01FE);
  rig.wire.discard();
}

TYPED_TEST(MotorDriver, ClearStatusSendsBackWhatCameInDuringTheCommand) {
  MotorRig<TypeParam> rig;
  rig.wire.receives({0xA5}).receives({0x12}).receives({0x34});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  EXPECT_EQ(rig.driver.status().m_Data, 0x1234);
  EXPECT_EQ(rig.wire.journal(), frames({"d0", "a5", "a5"}));
}

TYPED_TEST(MotorDriver, ClearStatusWithoutItsCommandFillsWithZeroAndTakesWhatComes) {
  MotorRig<TypeParam> rig;
  rig.wire.receives({0xA5}).receives({0x11}).receives({0x22});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  rig.wire.discard();
  rig.wire.fails("tx[d0]", EIO).receives({0x12}).receives({0x34});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  EXPECT_EQ(rig.driver.status().m_Data, 0x1234);
  EXPECT_EQ(rig.wire.journal(),
            lines(kSelect,
                  "ioctl(7, SPI_IOC_MESSAGE(1), {tx=tx[d0] rx=rx len=1 speed_hz=1000000 "
                  "bits_per_word=8}) = -1 EIO",
                  "perror(\"can't transfer data via CLinuxSpiBus\") EIO",
                  wire::logged(EIO, kDeviceTransfer), frames({"00", "00"})));
}

TYPED_TEST(MotorDriver, ClearStatusThatFailsInTheMiddleHasTakenTheHighByte) {
  MotorRig<TypeParam> rig;
  rig.wire.receives({0x00}).receives({0x7E}).receives({0x03});
  EXPECT_EQ(rig.driver.clearStatus(), 0);
  rig.wire.receives({0x00}).receives({0xAB}).fails("MESSAGE", EIO, 3);
  EXPECT_EQ(rig.driver.clearStatus(), -5);
  EXPECT_EQ(rig.driver.status().m_Data, 0xAB03);
  rig.wire.receives({0x00}).fails("MESSAGE", EIO, 2);
  EXPECT_EQ(rig.driver.clearStatus(), -5);
  EXPECT_EQ(rig.driver.status().m_Data, 0xAB03);
  rig.wire.receives({0x00}).receives({0x55}).fails("select(chip, false)", EIO, 2);
  EXPECT_EQ(rig.driver.clearStatus(), -5);
  EXPECT_EQ(rig.driver.status().m_Data, 0xAB03) << "a byte that failed to end is none";
  rig.wire.discard();
}

TYPED_TEST(MotorDriver, MotionCommandsGoOnAfterALostCommandByte) {
  using Rig = MotorRig<TypeParam>;
  const std::vector<std::pair<std::function<TErrCode(Rig&)>, const char*>> cases = {
      {[](Rig& r) { return r.driver.run(100.0F, 1); }, "51"},
      {[](Rig& r) { return r.driver.move(0x1A36, 1); }, "41"},
      {[](Rig& r) { return r.driver.goTo(0x1A36); }, "60"},
      {[](Rig& r) { return r.driver.goToDirection(0x1A36, 1); }, "69"}};
  for (const auto& [operation, command] : cases) {
    Rig rig;
    rig.wire.fails("MESSAGE", ENODEV);
    EXPECT_EQ(operation(rig), 0);
    EXPECT_EQ(rig.wire.journal(),
              lines(kSelect,
                    "ioctl(7, SPI_IOC_MESSAGE(1), {tx=tx[" + std::string(command) +
                        "] rx=rx len=1 speed_hz=1000000 bits_per_word=8}) = -1 ENODEV",
                    "perror(\"can't transfer data via CLinuxSpiBus\") ENODEV",
                    "log ERROR \"Return code  -19 0x0013 - No such device\" "
                    "varnel/common/LinuxSpiDevice.cpp executeManagedTransfer",
                    frames({"00", "1a", "36"})));
  }
}

TYPED_TEST(MotorDriver, SwitchesABusOfAnotherModeAndSlowsAFasterOneForEachByte) {
  MotorRig<TypeParam> rig;
  rig.reopen(0, 2000);
  rig.wire.discard();
  EXPECT_EQ(rig.driver.softStop(), 0);
  EXPECT_EQ(
      rig.wire.journal(),
      lines("ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0",
            "close(7) = 0", opening("3", "0", "1000000"),
            "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[ff] rx=rx len=1 speed_hz=1000000 "
            "bits_per_word=8}) = 1",
            kSelect, byteMessage("b0"), kDeselect,
            "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0"));
}

TYPED_TEST(MotorDriver, RunsAtTheSpeedOfASlowerBus) {
  MotorRig<TypeParam> rig;
  rig.reopen(3, 500);
  rig.wire.discard();
  EXPECT_EQ(rig.driver.goTo(-1), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kSelect, byteMessage("60", "500000"), kDeselect,  //
                                      kSelect, byteMessage("3f", "500000"), kDeselect,  //
                                      kSelect, byteMessage("ff", "500000"), kDeselect,  //
                                      kSelect, byteMessage("ff", "500000"), kDeselect));
}

/// Sends its bytes nowhere.
template <class Driver>
struct Recording : OpenMotorDriver<Driver> {
  std::vector<int> sent;
  std::vector<Varnel::eCS_Handling> handlings;
  TErrCode code = 0;

  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    handlings.push_back(handling);
    sent.push_back(*static_cast<const uint8_t*>(this->txBuffer()));
    return code;
  }
};

TYPED_TEST(MotorDriver, SendsEachByteThroughTheVirtualManagedTransfer) {
  Varnel::CLinuxSpiBus bus;
  Recording<TypeParam> driver;
  driver.setBus(&bus);
  EXPECT_EQ(driver.run(100.0F, 1), 0);
  EXPECT_EQ(driver.sent, (std::vector<int>{0x51, 0x00, 0x1A, 0x36}));
  EXPECT_EQ(driver.handlings, std::vector<Varnel::eCS_Handling>(4, Varnel::CS_SELECT_DESELECT));
}

TYPED_TEST(MotorDriver, TellsASuccessAsZeroWhateverTheTransferReturns) {
  Varnel::CLinuxSpiBus bus;
  Recording<TypeParam> driver;
  driver.setBus(&bus);
  driver.code = 1;
  EXPECT_EQ(driver.softStop(), 0);
  EXPECT_EQ(driver.run(1.0F, 0), 0);
  EXPECT_EQ(driver.clearStatus(), 0);
}

/// Every operation that transfers, whatever becomes of it.
template <class Rig>
std::vector<std::pair<const char*, std::function<void(Rig&)>>> everyOperation() {
  return {{"softStop", [](Rig& r) { r.driver.softStop(); }},
          {"hardStop", [](Rig& r) { r.driver.hardStop(); }},
          {"resetDevice", [](Rig& r) { r.driver.resetDevice(); }},
          {"goHome", [](Rig& r) { r.driver.goHome(); }},
          {"goMark", [](Rig& r) { r.driver.goMark(); }},
          {"resetPosition", [](Rig& r) { r.driver.resetPosition(); }},
          {"softHiZ", [](Rig& r) { r.driver.softHiZ(); }},
          {"hardHiZ", [](Rig& r) { r.driver.hardHiZ(); }},
          {"run", [](Rig& r) { r.driver.run(1.0F, 0); }},
          {"move", [](Rig& r) { r.driver.move(1, 0); }},
          {"goTo", [](Rig& r) { r.driver.goTo(1); }},
          {"goToDirection", [](Rig& r) { r.driver.goToDirection(1, 0); }},
          {"setParameter", [](Rig& r) { r.driver.setParameter(Varnel::ST::ACC, 1); }},
          {"getParameter", [](Rig& r) { r.driver.getParameter(Varnel::ST::ACC, r.word); }},
          {"setAcceleration", [](Rig& r) { r.driver.setAcceleration(1.0F); }},
          {"setDeceleration", [](Rig& r) { r.driver.setDeceleration(1.0F); }},
          {"setMaximumVelocity", [](Rig& r) { r.driver.setMaximumVelocity(1.0F); }},
          {"setMinimumVelocity", [](Rig& r) { r.driver.setMinimumVelocity(1.0F); }},
          {"writePosition", [](Rig& r) { r.driver.writePosition(1); }},
          {"getMaximumVelocity", [](Rig& r) { r.driver.getMaximumVelocity(r.number); }},
          {"getPosition", [](Rig& r) { r.driver.getPosition(r.position); }},
          {"getSpeed", [](Rig& r) { r.driver.getSpeed(r.number); }},
          {"clearStatus", [](Rig& r) { r.driver.clearStatus(); }},
          {"readStatus", [](Rig& r) { r.driver.readStatus(); }}};
}

TYPED_TEST(MotorDriver, HoldsTheBusForTheWholeOfEveryOperation) {
  using Rig = MotorRig<TypeParam>;
  for (const auto& [name, operation] : everyOperation<Rig>()) {
    SCOPED_TRACE(name);
    Rig rig;
    int calls = 0;
    rig.wire.atEachCall([&rig, &calls] {
      ++calls;
      EXPECT_FALSE(wire::isFree(rig.mutex()));
    });
    operation(rig);
    EXPECT_GE(calls, 3);
    EXPECT_TRUE(wire::isFree(rig.mutex()));
    rig.wire.discard();
  }
}

TYPED_TEST(MotorDriver, WaitsForTheBusBeforeEveryOperation) {
  using Rig = MotorRig<TypeParam>;
  for (const auto& [name, operation] : everyOperation<Rig>()) {
    SCOPED_TRACE(name);
    Rig rig;
    EXPECT_FALSE(finishesWithoutTheBus(rig.mutex(), [&, act = operation] { act(rig); }));
    EXPECT_FALSE(rig.wire.journal().empty()) << "done once the bus is free";
  }
}

TYPED_TEST(MotorDriver, WorksForAThreadThatHoldsTheBusAlready) {
  using Rig = MotorRig<TypeParam>;
  for (const auto& [name, operation] : everyOperation<Rig>()) {
    SCOPED_TRACE(name);
    Rig rig;
    {
      const std::lock_guard<std::recursive_mutex> lock(rig.mutex());
      operation(rig);
      EXPECT_FALSE(wire::isFree(rig.mutex()));
    }
    EXPECT_TRUE(wire::isFree(rig.mutex()));
    rig.wire.discard();
  }
}

TYPED_TEST(MotorDriver, TalksNeitherToTheLatchPinNorToTheChain) {
  MotorRig<TypeParam> rig;
  Orv::CLinuxIoPin latch{22, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  latch.connect();
  rig.driver.setLatchPin(&latch);
  rig.driver.deviceChain()->push_back(&rig.device);
  rig.wire.discard();
  EXPECT_EQ(rig.driver.hardStop(), 0);
  EXPECT_EQ(rig.wire.journal(), frames({"b8"}));
}

template <class Driver>
class MotorDriverFaults : public MotorDriver<Driver> {};
TYPED_TEST_SUITE(MotorDriverFaults, Chips, ChipNames);

TYPED_TEST(MotorDriverFaults, CommandsOfOneByteReportEveryFailureAndLogNothing) {
  using Rig = MotorRig<TypeParam>;
  const std::vector<std::pair<std::function<TErrCode(Rig&)>, std::string>> cases = {
      {[](Rig& r) { return r.driver.softStop(); }, "b0"},
      {[](Rig& r) { return r.driver.hardStop(); }, "b8"},
      {[](Rig& r) { return r.driver.resetDevice(); }, "c0"},
      {[](Rig& r) { return r.driver.goHome(); }, "70"},
      {[](Rig& r) { return r.driver.goMark(); }, "78"},
      {[](Rig& r) { return r.driver.resetPosition(); }, "d8"},
      {[](Rig& r) { return r.driver.softHiZ(); }, "a0"},
      {[](Rig& r) { return r.driver.hardHiZ(); }, "a8"}};
  for (const auto& [operation, hex] : cases) {
    wire::FaultSweep<Rig>(operation)
        .leaves([](Rig& rig, const std::string& line) {
          EXPECT_EQ(rig.selector.selected(), line != kSelect);
        })
        .recoversBy(recoverMotor<TypeParam>)
        .run(byteSteps(SentByte{hex}));
  }
}

/// On a bus of another mode and more speed, so that a byte has every step.
template <class Driver>
struct OtherBusRig : MotorRig<Driver> {
  OtherBusRig() {
    this->reopen(0, 2000);
    this->wire.discard();
  }
};

TYPED_TEST(MotorDriverFaults, EveryStepOfSwitchingTheBusIsReported) {
  using Rig = OtherBusRig<TypeParam>;
  const auto open = [](const std::string& line, const std::string& text) {
    return wire::Step{line, text, {kBusTransfer, kDeviceTransfer}};
  };
  const Lines onlyDevice = {kDeviceTransfer};
  wire::FaultSweep<Rig>([](Rig& rig) { return rig.driver.softStop(); })
      .recoversBy([](Rig& rig) {
        rig.recover(2000);
        rig.bus.setMode(0);
        rig.wire.discard();
      })
      .run({open("ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "can't set spi mode"),
            open("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0", "can't set max speed hz"),
            open("close(7) = 0", "can't close device"),
            open("open(\"/dev/spidev1.0\", O_RDWR) = 7", "can't open device"),
            open("ioctl(7, SPI_IOC_WR_MODE32, 3) = 0", "can't set spi mode"),
            open("ioctl(7, SPI_IOC_RD_MODE32) = 0 -> 3", "can't get spi mode"),
            open("ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0", "can't set spi mode"),
            open("ioctl(7, SPI_IOC_WR_BITS_PER_WORD, 8) = 0", "can't set bits per word"),
            open("ioctl(7, SPI_IOC_RD_BITS_PER_WORD) = 0 -> 8", "can't get bits per word"),
            open("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 1000000) = 0", "can't set max speed hz"),
            open("ioctl(7, SPI_IOC_RD_MAX_SPEED_HZ) = 0 -> 1000000", "can't get max speed hz"),
            {"ioctl(7, SPI_IOC_MESSAGE(1), {tx=[ff] rx=rx len=1 speed_hz=1000000 "
             "bits_per_word=8}) = 1",
             kTransferText, onlyDevice},
            open(kSelect, ""),
            {byteMessage("b0"), kTransferText, onlyDevice},
            open(kDeselect, ""),
            {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 2000000) = 0", "can't set max speed hz",
             onlyDevice}});
}

/// The bytes of a motion command: its own byte's failure is logged by bus and device only.
std::vector<SentByte> motionBytes(const std::string& command, const std::string& function) {
  const Lines place = {kCore + function};
  return {{command}, {"00", place}, {"1a", place}, {"36", place}};
}

TYPED_TEST(MotorDriverFaults, MotionCommandsReportTheFirstFailingArgumentByte) {
  using Rig = MotorRig<TypeParam>;
  struct Case {
    std::function<TErrCode(Rig&)> operation;
    std::string command;
    std::string function;
  };
  const std::vector<Case> cases = {
      {[](Rig& r) { return r.driver.run(100.0F, 0); }, "50", "run"},
      {[](Rig& r) { return r.driver.move(0x1A36, 0); }, "40", "move"},
      {[](Rig& r) { return r.driver.goTo(0x1A36); }, "60", "goTo"},
      {[](Rig& r) { return r.driver.goToDirection(0x1A36, 1); }, "69", "goToDirection"}};
  for (const Case& motion : cases) {
    MotorSweep<Rig>(motion.operation)
        .losesTheCommandAndSends({"00", "1a", "36"})
        .run(motionBytes(motion.command, motion.function));
  }
}

TYPED_TEST(MotorDriverFaults, ClearStatusReportsItsFillBytes) {
  using Rig = MotorRig<TypeParam>;
  const Lines place = {std::string(kCore) + "clearStatus"};
  MotorSweep<Rig>([](Rig& rig) { return rig.driver.clearStatus(); })
      .losesTheCommandAndSends({"00", "00"})
      .leaves([](Rig& rig, size_t failedByte) {
        // Every byte that comes is 0xEE.
        const uint16_t words[] = {0xEEEE, 0x0000, 0xEE00};
        EXPECT_EQ(rig.driver.status().m_Data, words[failedByte]);
      })
      .run({{"d0"}, {"ee", place}, {"ee", place}});
}

}  // namespace
