// SPDX-License-Identifier: MIT
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include "tests/vboard/gpio/GpioFixture.h"

namespace {

using testing::ElementsAre;
using testing::StrEq;
using vboard::Drive;
using vboard::Level;

using GpioLines = GpioTest;

constexpr uint32_t kIn = GPIOHANDLE_REQUEST_INPUT;
constexpr uint32_t kOut = GPIOHANDLE_REQUEST_OUTPUT;

TEST_F(GpioLines, ChipInfoNamesChipAndLines) {
  gpiochip_info chip = {};
  ASSERT_EQ(ioctl(chip_, GPIO_GET_CHIPINFO_IOCTL, &chip), 0);
  EXPECT_THAT(chip.name, StrEq("gpiochip0"));
  EXPECT_THAT(chip.label, StrEq("bench"));
  EXPECT_EQ(chip.lines, 8U);
  EXPECT_THAT(info(2).name, StrEq("LATCH"));
  EXPECT_THAT(info(3).name, StrEq(""));
}

TEST_F(GpioLines, TheNodeIsACharacterDeviceOfADynamicMajor) {
  struct stat status = {};
  ASSERT_EQ(stat(kPath, &status), 0);
  EXPECT_TRUE(S_ISCHR(status.st_mode));
  EXPECT_EQ(major(status.st_rdev), 254U);
  EXPECT_EQ(minor(status.st_rdev), 0U);
  ASSERT_EQ(stat("/dev/gpiochip1", &status), 0);
  EXPECT_EQ(minor(status.st_rdev), 1U);
}

TEST_F(GpioLines, AnOutputShowsOnItsWire) {
  const Descriptor handle = this->handle({0, 1}, kOut, {0, 1});
  ASSERT_GE(handle, 0);
  EXPECT_EQ(lead(0).level(), Level::Low);
  EXPECT_EQ(lead(1).level(), Level::High);
  ASSERT_EQ(setValues(handle, {1, 0}), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  EXPECT_EQ(lead(1).level(), Level::Low);
}

TEST_F(GpioLines, AnInputReadsWhatTheBenchPutsOnItsWire) {
  const Descriptor handle = this->handle({3, 4}, kIn);
  lead(4).high();
  EXPECT_EQ(values(handle, 2), "01");
  lead(3).high();
  lead(4).low();
  EXPECT_EQ(values(handle, 2), "10");
}

TEST_F(GpioLines, AnOutputIsReadAtALineOfAnotherChip) {
  const Descriptor out = handle({6}, kOut, {1});
  const Descriptor otherChip(open("/dev/gpiochip1", O_RDONLY));
  gpiohandle_request request = {};
  request.lines = 1;
  request.flags = kIn;
  ASSERT_EQ(ioctl(otherChip, GPIO_GET_LINEHANDLE_IOCTL, &request), 0);
  const Descriptor in(request.fd);
  EXPECT_EQ(values(in, 1), "1");
  ASSERT_EQ(setValues(out, {0}), 0);
  EXPECT_EQ(values(in, 1), "0");
}

TEST_F(GpioLines, ActiveLowTurnsValuesRoundBothWays) {
  const Descriptor out = handle({0}, kOut | GPIOHANDLE_REQUEST_ACTIVE_LOW, {1});
  EXPECT_EQ(lead(0).level(), Level::Low);
  EXPECT_EQ(values(out, 1), "1");
  ASSERT_EQ(setValues(out, {0}), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  const Descriptor in = lines({1}, GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_ACTIVE_LOW);
  lead(1).low();
  EXPECT_EQ(bits(in, 1), 1U);
  lead(1).high();
  EXPECT_EQ(bits(in, 1), 0U);
}

TEST_F(GpioLines, AnOpenDrainOutputLetsGoForHigh) {
  const Descriptor out = handle({0}, kOut | GPIOHANDLE_REQUEST_OPEN_DRAIN, {1});
  lead(0).low();
  EXPECT_EQ(values(out, 1), "0") << "the bench holds it low";
  lead(0).high();
  EXPECT_EQ(values(out, 1), "1");
  lead(0).put(Drive::Floating);
  ASSERT_EQ(setValues(out, {0}), 0);
  EXPECT_EQ(lead(0).level(), Level::Low);
  EXPECT_EQ(board_.violationCount(), 0U);
}

TEST_F(GpioLines, AnOpenSourceOutputLetsGoForLow) {
  const Descriptor out = handle({0}, kOut | GPIOHANDLE_REQUEST_OPEN_SOURCE, {0});
  lead(0).high();
  EXPECT_EQ(values(out, 1), "1") << "the bench holds it high";
  lead(0).put(Drive::Floating);
  ASSERT_EQ(setValues(out, {1}), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  EXPECT_EQ(board_.violationCount(), 0U);
}

TEST_F(GpioLines, BiasPullsAnUndrivenLine) {
  Descriptor in = handle({0}, kIn | GPIOHANDLE_REQUEST_BIAS_PULL_UP);
  EXPECT_EQ(values(in, 1), "1");
  in.reset();
  in = handle({0}, kIn | GPIOHANDLE_REQUEST_BIAS_PULL_DOWN);
  EXPECT_EQ(values(in, 1), "0");
  gpiohandle_config config = {};
  config.flags = kIn | GPIOHANDLE_REQUEST_BIAS_PULL_UP;
  ASSERT_EQ(ioctl(in, GPIOHANDLE_SET_CONFIG_IOCTL, &config), 0);
  EXPECT_EQ(values(in, 1), "1");
}

TEST_F(GpioLines, PushPullAgainstTheBenchIsAConflict) {
  lead(0).low();
  const Descriptor out = handle({0}, kOut, {1});
  EXPECT_EQ(values(out, 1), "0");
  ASSERT_EQ(board_.violationCount(), 1U);
  EXPECT_EQ(board_.violations()[0].rule, "conflict");
}

TEST_F(GpioLines, AReservedLineIsBusyAndSaysByWhom) {
  EXPECT_EQ(handle({7}, kIn), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_THAT(info(7).consumer, StrEq("regulator"));
  EXPECT_NE(info(7).flags & GPIO_V2_LINE_FLAG_USED, 0U);
}

TEST_F(GpioLines, ARefusedRequestChangesNothingOnTheLinesItDidNotGet) {
  const Descriptor holder = handle({1}, kOut, {1});
  EXPECT_EQ(handle({1, 2}, kOut, {0, 1}), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(lead(1).level(), Level::High);
  EXPECT_FALSE(gpio_.isOutput(2));
}

TEST_F(GpioLines, ClosingReleasesTheLineAndKeepsItsLevel) {
  Descriptor out = handle({0}, kOut, {1});
  EXPECT_NE(info(0).flags & GPIO_V2_LINE_FLAG_USED, 0U);
  out.reset();
  EXPECT_EQ(info(0).flags, GPIO_V2_LINE_FLAG_OUTPUT);
  EXPECT_EQ(lead(0).level(), Level::High);
  const Descriptor again = handle({0}, 0);
  ASSERT_GE(again, 0);
  EXPECT_EQ(values(again, 1), "1");
}

TEST_F(GpioLines, LinesOutliveTheirChipDescriptor) {
  const Descriptor out = handle({0}, kOut, {0});
  chip_.reset();
  EXPECT_EQ(setValues(out, {1}), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
}

TEST_F(GpioLines, ADuplicateKeepsTheLines) {
  Descriptor first = handle({0}, kOut, {0});
  Descriptor second(dup(first));
  first.reset();
  EXPECT_NE(info(0).flags & GPIO_V2_LINE_FLAG_USED, 0U);
  EXPECT_EQ(setValues(second, {1}), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  second.reset();
  EXPECT_EQ(info(0).flags & GPIO_V2_LINE_FLAG_USED, 0U);
}

TEST_F(GpioLines, AForkedChildUsesTheHandleAndTheParentKeepsIt) {
  const Descriptor out = handle({0}, kOut, {0});
  const pid_t child = fork();
  if (child == 0) {
    const bool works = setValues(out, {1}) == 0 && values(out, 1) == "1";
    close(out);
    _exit(works ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_NE(info(0).flags & GPIO_V2_LINE_FLAG_USED, 0U);
  EXPECT_EQ(setValues(out, {1}), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
}

TEST_F(GpioLines, TheSecondInterfaceMixesDirectionsInOneRequest) {
  gpio_v2_line_request request = requestOf({0, 1, 2}, GPIO_V2_LINE_FLAG_OUTPUT);
  request.config.num_attrs = 2;
  request.config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_FLAGS;
  request.config.attrs[0].attr.flags = GPIO_V2_LINE_FLAG_INPUT;
  request.config.attrs[0].mask = 0b010;
  request.config.attrs[1].attr.id = GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES;
  request.config.attrs[1].attr.values = 0b101;
  request.config.attrs[1].mask = 0b100;
  const Descriptor lines = this->lines(request);
  ASSERT_GE(lines, 0);
  lead(1).high();
  EXPECT_EQ(lead(0).level(), Level::Low) << "the attribute is not for this line";
  EXPECT_EQ(lead(2).level(), Level::High);
  EXPECT_EQ(bits(lines, 0b111), 0b110U);
  gpio_v2_line_values values = {0b001, 0b101};
  ASSERT_EQ(ioctl(lines, GPIO_V2_LINE_SET_VALUES_IOCTL, &values), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  EXPECT_EQ(lead(2).level(), Level::Low);
  values = {0b011, 0b011};
  EXPECT_EQ(ioctl(lines, GPIO_V2_LINE_SET_VALUES_IOCTL, &values), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(GpioLines, RequestsCloseOnExecAndTheChipAsItWasOpened) {
  EXPECT_EQ(fcntl(handle({0}, kIn), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(lines({0}, GPIO_V2_LINE_FLAG_INPUT), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(chip_, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(Descriptor(open(kPath, O_RDONLY)), F_GETFD), 0);
}

TEST_F(GpioLines, ARemovedChipAnswersEnodevForEverMore) {
  const Descriptor out = handle({0}, kOut, {0});
  const Descriptor edge = lines({1}, GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING);
  kernel_->removeNode(kPath);
  const auto allGone = [&] {
    gpiochip_info chip = {};
    gpio_v2_line_event event;
    EXPECT_EQ(ioctl(chip_, GPIO_GET_CHIPINFO_IOCTL, &chip), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(setValues(out, {1}), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(read(edge, &event, sizeof(event)), -1);
    EXPECT_EQ(errno, ENODEV);
    pollfd waiting = {edge, POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 0), 1);
    EXPECT_NE(waiting.revents & POLLHUP, 0);
  };
  allGone();
  EXPECT_EQ(open(kPath, O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
  kernel_->restoreNode(kPath);
  allGone();
  chip_ = Descriptor(open(kPath, O_RDWR));
  const Descriptor again = handle({0}, kOut, {1});
  ASSERT_GE(again, 0);
  EXPECT_EQ(lead(0).level(), Level::High);
}

TEST_F(GpioLines, FaultsHitRequestsGetsAndSets) {
  using vboard::Call;
  kernel_->failCall(Call::GpioRequest, 1, EIO);
  EXPECT_EQ(handle({0}, kOut), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(info(0).flags & GPIO_V2_LINE_FLAG_USED, 0U);
  const Descriptor out = handle({0}, kOut, {0});
  ASSERT_GE(out, 0);
  kernel_->failCall(Call::GpioSet, 2, EIO, kPath);
  EXPECT_EQ(setValues(out, {0}), 0);
  EXPECT_EQ(setValues(out, {1}), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(lead(0).level(), Level::Low);
  kernel_->failCall(Call::GpioGet, 1, ETIMEDOUT);
  gpiohandle_data data = {};
  EXPECT_EQ(ioctl(out, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(values(out, 1), "0");
}

/// Collects the calls an observer hears of.
class CallLog : public vboard::Observer {
 public:
  void onCall(std::string_view call, std::string_view node, long result,
              vboard::Time /*time*/) override {
    calls.push_back(std::string(call) + " " + std::string(node) + " " + std::to_string(result));
  }
  std::vector<std::string> calls;
};

TEST_F(GpioLines, ObserversHearOfTheCalls) {
  CallLog log;
  board_.addObserver(log);
  const Descriptor in = handle({0}, kIn);
  setValues(in, {1});
  board_.removeObserver(log);
  ASSERT_EQ(log.calls.size(), 2U);
  EXPECT_THAT(log.calls, ElementsAre("GPIO_GET_LINEHANDLE /dev/gpiochip0 0",
                                     "GPIOHANDLE_SET_LINE_VALUES /dev/gpiochip0 -1"));
}

TEST(GpioTime, EveryCallCostsTheBoardsCallCost) {
  vboard::Board board({.callCost = 50us});
  board.addGpioChip({.lines = 4});
  const vboard::Kernel kernel(board);
  const Descriptor chip(open("/dev/gpiochip0", O_RDWR));
  const vboard::Time before = board.clock().now();
  gpiochip_info info = {};
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(ioctl(chip, GPIO_GET_CHIPINFO_IOCTL, &info), 0);
  }
  EXPECT_EQ(board.clock().now() - before, 200us);
}

}  // namespace
