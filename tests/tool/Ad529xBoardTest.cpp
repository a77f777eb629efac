// SPDX-License-Identifier: MIT
// The potentiometer, as a user of the tool sees it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "orv/Thread.h"
#include "tests/tool/StandardInput.h"
#include "tests/tool/ToolRun.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"
#include "vboard/vboard.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vboard::Call;

namespace {

template <typename Chip>
class PotentiometerBoard : public testing::Test, public vboard::Observer {
 protected:
  void start(vboard::Pull pull = vboard::Pull::Up, const std::string& profile = "full") {
    ASSERT_TRUE(vboard::interposed());
    vboard::SpiBus& bus = board.addSpiBus({.number = 1, .profile = profile});
    vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
    board.attach(pot, bus);
    board.netOf(bus.miso()).setPull(pull);
    board.connect(pot.pin("SYNC"), gpio.line(25)).setPull(vboard::Pull::Up);
    board.addObserver(*this);
    kernel = std::make_unique<vboard::Kernel>(board);
  }

  void onTransfer(const vboard::SpiRecord& record) override {
    ++transfers;
    speedHz = record.format.speedHz;
  }

  /// A run without a complaint of the chip.
  ToolRun good(const std::string& line) {
    ToolRun run = runLine("ad529x " + line + " --sync 25");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(board.violationCount(), 0U) << board.violations().back().details;
    EXPECT_FALSE(pot.listening()) << "SYNC was left low";
    EXPECT_EQ(kernel->openDescriptors(), 0);
    return run;
  }

  vboard::Board board;
  Chip& pot = board.add<Chip>("pot");
  std::unique_ptr<vboard::Kernel> kernel;
  int transfers = 0;
  uint32_t speedHz = 0;
};

using ToolWithAd5292 = PotentiometerBoard<vboard::Ad5292>;
using ToolWithAd5291 = PotentiometerBoard<vboard::Ad5291>;

TEST_F(ToolWithAd5292, MovesTheWiperAndLocksItAgain) {
  start();
  ToolRun run = good("set 256");
  EXPECT_EQ(run.out, "position  256  of 1024   25.00 %\n");
  EXPECT_THAT(run.err, IsEmpty());
  EXPECT_EQ(pot.position(), 256);
  EXPECT_EQ(pot.control(), 0);
  for (const int position : {0, 1, 1023}) {
    good("set " + std::to_string(position));
    EXPECT_EQ(pot.position(), position);
  }
  EXPECT_EQ(pot.slotsUsed(), 0);
}

TEST_F(ToolWithAd5292, AWiperThatWasUnlockedStaysUnlocked) {
  start();
  good("control 2");
  good("set 5");
  EXPECT_EQ(pot.control(), 2);
}

TEST_F(ToolWithAd5292, ReadsTheWiper) {
  start();
  EXPECT_EQ(good("get").out, "position  512  of 1024   50.00 %\n");
  EXPECT_EQ(good("get --count 2 --output csv").out,
            "reading,position,positions,share\n1,512,1024,50.0000\n2,512,1024,50.0000\n");
  EXPECT_EQ(good("set 1 --output json").out,
            "{\"chip\":\"ad529x\",\"position\":1,\"positions\":1024,\"share\":0.0977}\n");
}

TEST_F(ToolWithAd5291, PositionsAreTheUpperBitsOfAWord) {
  start();
  EXPECT_EQ(good("set 128 --part ad5291").out, "position  128  of 256   50.00 %\n");
  EXPECT_EQ(pot.position(), 128);
  EXPECT_EQ(good("get --part AD5291").out, "position  128  of 256   50.00 %\n");
  good("store --yes --part ad5291");
  EXPECT_EQ(good("memory --part ad5291").out, "slot  0  position  128   50.00 %\n");
}

TEST_F(ToolWithAd5291, AnotherPartThanTheOneFittedIsNoticed) {
  start();
  const ToolRun run = runLine("ad529x set 513 --sync 25");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err,
              StartsWith("varnel: the wiper of the AD529x did not move to 513: it stands at 512\n"
                         "  try: the --part that is fitted: ad5292 has 1024 positions"));
  EXPECT_EQ(pot.control(), 0) << "locked again";
}

TEST_F(ToolWithAd5292, PrintsAndSetsTheControlWord) {
  start();
  EXPECT_EQ(good("control").out,
            "control 0x0  wiper locked  memory locked  calibration on  stored no\n");
  EXPECT_EQ(good("control 0b111").out,
            "control 0x7  wiper unlocked  memory unlocked  calibration off  stored no\n");
  EXPECT_EQ(pot.control(), 7);
  EXPECT_EQ(good("control 0 --output json").out,
            "{\"chip\":\"ad529x\",\"control\":0,\"wiper\":\"locked\",\"memory\":\"locked\","
            "\"calibration\":\"on\",\"stored\":\"no\"}\n");
  EXPECT_EQ(pot.control(), 0);
}

TEST_F(ToolWithAd5292, StoresUntilTheMemoryIsFullAndListsIt) {
  start();
  const ToolRun none = good("memory");
  EXPECT_THAT(none.out, IsEmpty());
  EXPECT_THAT(none.err, StartsWith("varnel: note: no slot is programmed"));
  std::string listed;
  for (int slot = 0; slot < 20; ++slot) {
    good("set " + std::to_string(100 + slot));
    EXPECT_EQ(good("store --yes --output csv").out, "slot,position,left\n" + std::to_string(slot) +
                                                        ',' + std::to_string(100 + slot) + ',' +
                                                        std::to_string(19 - slot) + '\n');
    EXPECT_EQ(pot.slot(slot), 100 + slot);
    EXPECT_EQ(pot.control() & 7, 0) << "locked again";
    listed += (slot < 10 ? "slot  " : "slot ") + std::to_string(slot) + "  position  " +
              std::to_string(100 + slot) + "  ";
    std::array<char, 16> share{};
    std::snprintf(share.data(), share.size(), "%6.2f %%\n", (100 + slot) * 100 / 1024.0);
    listed += share.data();
  }
  EXPECT_EQ(good("memory").out, listed);
  EXPECT_EQ(good("control").out,
            "control 0x8  wiper locked  memory locked  calibration on  stored yes\n");

  const ToolRun full = runLine("ad529x store --yes --sync 25");
  EXPECT_EQ(full.status, 1);
  EXPECT_THAT(full.err, StartsWith("varnel: the memory of the AD529x is full: all 20 slots are "
                                   "programmed, and none can be programmed again\n  try: "));
  EXPECT_EQ(board.violationCount(), 0U) << "nothing was sent";
}

TEST_F(ToolWithAd5292, AStoreThatFailsIsNoticed) {
  start();
  pot.setCapacitor(false);
  const ToolRun run = runLine("ad529x store --yes --sync 25");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_THAT(run.err,
              StartsWith("varnel: the AD529x did not store position 512: 0 of 20 slots are "
                         "programmed, 0 before\n  try: whether the capacitor of 1 uF at EXT_CAP"));
  EXPECT_EQ(pot.control(), 0) << "locked again";
}

TEST_F(ToolWithAd5292, WithoutATerminalNothingIsStoredUnlessToldSo) {
  start();
  const StandardInput input(open("/dev/null", O_RDONLY));
  const ToolRun run = runLine("ad529x store --sync 25");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "varnel: --yes: is required here: storing is permanent, and standard input is no "
            "terminal to ask on\n  try: varnel ad529x store --help\n");
  EXPECT_EQ(transfers, 0);
  EXPECT_EQ(pot.slotsUsed(), 0);
}

/// A terminal as standard input, where somebody has typed.
class Typed {
 public:
  explicit Typed(const std::string& text) : terminal_(posix_openpt(O_RDWR | O_NOCTTY)) {
    EXPECT_EQ(grantpt(terminal_), 0);
    EXPECT_EQ(unlockpt(terminal_), 0);
    std::array<char, 64> name{};
    EXPECT_EQ(ptsname_r(terminal_, name.data(), name.size()), 0);
    input_ = std::make_unique<StandardInput>(open(name.data(), O_RDWR | O_NOCTTY));
    EXPECT_EQ(write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  ~Typed() {
    input_.reset();
    close(terminal_);
  }
  Typed(const Typed&) = delete;
  Typed& operator=(const Typed&) = delete;

 private:
  int terminal_;
  std::unique_ptr<StandardInput> input_;
};

TEST_F(ToolWithAd5292, AsksOnATerminal) {
  start();
  {
    const Typed no("n\n");
    const ToolRun run = runLine("ad529x store --sync 25");
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              "varnel: store position 512 of 1024 in slot 0, for good? 20 of 20 slots are left. "
              "[y/N] varnel: nothing was stored\n  try: y at the question, or --yes\n");
  }
  EXPECT_EQ(pot.slotsUsed(), 0);
  EXPECT_EQ(board.violationCount(), 0U);
  {
    const Typed yes("y\n");
    EXPECT_EQ(good("store").out, "slot  0  position  512  left 19\n");
  }
  EXPECT_EQ(pot.slotsUsed(), 1);
}

TEST_F(ToolWithAd5292, TheBusIsNeverFasterThanTheChipCanBeRead) {
  start();
  good("get --speed 65535");
  EXPECT_EQ(speedHz, 1000000U);
  good("get --speed 250");
  EXPECT_EQ(speedHz, 250000U);
}

TEST_F(ToolWithAd5292, AFrameThatOthersBeganDoesNotSpoilTheFirst) {
  start();
  // As a program leaves the chip that ended after a frame, with other traffic in between.
  pot.pin("SYNC").net()->setPull(vboard::Pull::Down);
  EXPECT_EQ(runLine("hc595 write 0x5a").status, 0);
  EXPECT_EQ(runLine("ad529x set 77 --sync 25").out, "position   77  of 1024    7.52 %\n");
  EXPECT_EQ(pot.position(), 77);
}

TEST_F(ToolWithAd5292, AnOutputThatWasSwitchedOffIsSwitchedOn) {
  start();
  {
    // The two words that free MISO for other chips.
    Orv::CLinuxIoPin sync(25, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
    Varnel::CLinuxSpiBus bus;
    bus.setSPIDevice("/dev/spidev1.0");
    ASSERT_EQ(sync.connect(), 0);
    ASSERT_EQ(bus.open(), 0);
    Varnel::CSpiPotentiometer16Bit_AD529x driver;
    driver.setBus(&bus);
    driver.setLatchPin(&sync);
    ASSERT_EQ(driver.setRegister(0x8001, Varnel::CLinuxSpiDevice::DO_TRANSFER), 0);
    ASSERT_EQ(driver.setRegister(0, Varnel::CLinuxSpiDevice::DO_TRANSFER), 0);
    ASSERT_EQ(bus.close(), 0);
  }
  EXPECT_TRUE(pot.outputOff());
  board.clearViolations();
  EXPECT_EQ(good("get").out, "position  512  of 1024   50.00 %\n");
  EXPECT_FALSE(pot.outputOff());
}

TEST_F(ToolWithAd5292, AChipThatIsNotThereIsNotTakenForOne) {
  for (const vboard::Pull pull : {vboard::Pull::Up, vboard::Pull::Down}) {
    vboard::Board empty;
    vboard::SpiBus& bus = empty.addSpiBus({.number = 1});
    empty.addGpioChip({.lines = 32});
    empty.netOf(bus.miso()).setPull(pull);
    const vboard::Kernel own(empty);
    for (const char* line : {"get", "set 5", "memory", "store --yes", "control"}) {
      const ToolRun run = runLine(std::string("ad529x ") + line + " --sync 25");
      EXPECT_EQ(run.status, 1) << line;
      EXPECT_THAT(run.out, IsEmpty()) << line;
      EXPECT_EQ(run.err,
                std::string("varnel: no answer from the AD529x: it gives ") +
                    (pull == vboard::Pull::Up ? "0xffff" : "0x0000") +
                    " back for 0x0155\n  try: whether it has power, --sync is the line at its "
                    "SYNC, and its SDO is at MISO with a pull-up of about 2.2 kohm; a lower "
                    "--speed\n");
    }
  }
}

TEST_F(ToolWithAd5292, EachFailingWriteToSyncIsNamedAndNothingIsStoredTwice) {
  start();
  unsigned int failures = 0;
  for (unsigned int write = 1;; ++write) {
    pot.setMemory({});
    kernel->failCall(Call::GpioSet, write, EIO);
    const ToolRun run = runLine("ad529x store --yes --sync 25");
    EXPECT_LE(pot.slotsUsed(), 1) << write;
    EXPECT_EQ(kernel->openDescriptors(), 0);
    if (run.status == 0) {
      break;
    }
    ++failures;
    EXPECT_EQ(run.status, 1);
    // What was begun before the failure ends.
    Orv::CThread::sleep(20);
    if (pot.slotsUsed() == 0) {
      EXPECT_THAT(run.out, IsEmpty()) << write;
    }
    EXPECT_THAT(run.err, StartsWith("varnel: can't write GPIO line 25, the latch of the AD529x "
                                    "(--sync): Input/output error (-5)\n  try: "))
        << write;
    ASSERT_LT(write, 1000U);
  }
  EXPECT_GT(failures, 30U);
}

TEST_F(ToolWithAd5292, EachFailingTransferIsNamed) {
  start();
  unsigned int failures = 0;
  for (unsigned int message = 1;; ++message) {
    kernel->failCall(Call::Message, message, EIO);
    const ToolRun run = runLine("ad529x set 300 --sync 25");
    EXPECT_EQ(kernel->openDescriptors(), 0);
    EXPECT_FALSE(pot.listening()) << message;
    if (run.status == 0) {
      break;
    }
    ++failures;
    EXPECT_THAT(run.err, StartsWith("varnel: can't transfer with the AD529x on /dev/spidev1.0: "
                                    "Input/output error (-5)\n  try: "))
        << message;
    ASSERT_LT(message, 1000U);
  }
  // Five frames to begin with, one to end with, and the work between.
  EXPECT_GT(failures, 10U);
  kernel->failCall(Call::GpioRequest, 1, EBUSY);
  EXPECT_THAT(runLine("ad529x get --sync 25").err,
              StartsWith("varnel: can't take GPIO line 25 (--sync): "));
}

TEST_F(ToolWithAd5292, AControllerWithoutSixteenBitWordsIsExplained) {
  start(vboard::Pull::Up, "bcm2835");
  const ToolRun run = runLine("ad529x get --sync 25");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("try: a controller that takes 16-bit words"));
}

}  // namespace
