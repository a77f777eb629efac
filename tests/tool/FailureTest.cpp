// SPDX-License-Identifier: MIT
#include "tool/Failure.h"

#include <gmock/gmock.h>

#include <cerrno>

using testing::HasSubstr;
using testing::StartsWith;
using tool::describe;
using tool::Failure;
using tool::Step;

namespace {

std::string message(Step step, int errorNumber, int wordBits = 15) {
  Failure failure;
  failure.step = step;
  failure.code = -errorNumber;
  failure.node = "/dev/spidev1.0";
  failure.pin = "GPIO25";
  failure.option = "--cs";
  failure.chip = "MCP3201";
  failure.wordBits = wordBits;
  return describe(failure);
}

TEST(Failure, AMissingNodeNamesTheNodeAndHowToFindOne) {
  EXPECT_EQ(
      message(Step::OpenNode, ENOENT),
      "can't open /dev/spidev1.0: No such file or directory (-2)\n"
      "  try: ls /dev/spidev*; enable SPI in the device tree (Raspberry Pi: dtparam=spi=on in "
      "config.txt); another node with --spi");
}

TEST(Failure, MissingPermissionNamesTheGroup) {
  EXPECT_EQ(message(Step::OpenNode, EACCES),
            "can't open /dev/spidev1.0: Permission denied (-13)\n"
            "  try: sudo usermod -aG spi $USER, then log in again; ls -l /dev/spidev1.0");
  EXPECT_EQ(message(Step::ConnectPin, EACCES),
            "can't take GPIO line GPIO25 (--cs): Permission denied (-13)\n"
            "  try: sudo usermod -aG gpio $USER, then log in again");
}

TEST(Failure, ABusyLineSaysWhoMightHoldIt) {
  EXPECT_EQ(message(Step::ConnectPin, EBUSY),
            "can't take GPIO line GPIO25 (--cs): Device or resource busy (-16)\n"
            "  try: another line: this one is in use; gpioinfo shows by whom (often a driver's own "
            "chip select)");
}

TEST(Failure, AMissingGpioChipOrLineSaysHowToListThem) {
  EXPECT_THAT(message(Step::ConnectPin, ENODEV), HasSubstr("ls /dev/gpiochip*"));
  EXPECT_THAT(message(Step::ConnectPin, EINVAL), HasSubstr("gpioinfo"));
}

TEST(Failure, ARefusedTransferNamesTheWordSizeOfTheChip) {
  EXPECT_EQ(
      message(Step::Transfer, EINVAL),
      "can't transfer with the MCP3201 on /dev/spidev1.0: Invalid argument (-22)\n"
      "  try: a controller that takes 15-bit words, which this chip needs: the Raspberry Pi's "
      "own takes 8 bits only, spi-gpio takes any; or another --speed");
}

TEST(Failure, ARefusedTransferOfBytesIsNotPutDownToTheWordSize) {
  EXPECT_EQ(message(Step::Transfer, EINVAL, 8),
            "can't transfer with the MCP3201 on /dev/spidev1.0: Invalid argument (-22)\n"
            "  try: a lower --speed; dmesg shows what the controller's driver says");
}

TEST(Failure, ANodeThatIsNoSpidevIsSaidToBeSomethingElse) {
  EXPECT_EQ(message(Step::SetUpNode, ENOTTY),
            "can't set up /dev/spidev1.0: Inappropriate ioctl for device (-25)\n"
            "  try: a spidev node with --spi: /dev/spidev1.0 is something else");
}

TEST(Failure, EveryStepHasItsOwnCallAndSomethingToTry) {
  EXPECT_THAT(message(Step::ConnectPin, EIO), StartsWith("can't take GPIO line GPIO25"));
  EXPECT_THAT(message(Step::OpenNode, EIO), StartsWith("can't open /dev/spidev1.0"));
  EXPECT_THAT(message(Step::SetUpNode, EIO), StartsWith("can't set up /dev/spidev1.0"));
  EXPECT_THAT(message(Step::Select, EIO), StartsWith("can't select the MCP3201 with GPIO line"));
  EXPECT_THAT(message(Step::Deselect, EIO), StartsWith("can't release the MCP3201 with GPIO line"));
  EXPECT_THAT(message(Step::ControlLines, EIO),
              StartsWith("can't drive a GPIO line of the MCP3201, one of GPIO25 (--cs): "));
  EXPECT_THAT(message(Step::Transfer, EIO), StartsWith("can't transfer with the MCP3201"));
  EXPECT_THAT(message(Step::Latch, EIO),
              StartsWith("can't write GPIO line GPIO25, the latch of the MCP3201"));
  EXPECT_THAT(message(Step::ExpanderSelectLatch, EIO),
              StartsWith("can't select the MCP3201 with GPIO line GPIO25, the latch of the exp"));
  EXPECT_THAT(message(Step::ExpanderSelectTransfer, EIO),
              StartsWith("can't select the MCP3201 with a transfer to the expander"));
  EXPECT_THAT(message(Step::ExpanderDeselectLatch, EIO),
              StartsWith("can't deselect the chips with GPIO line GPIO25, the latch of the exp"));
  EXPECT_THAT(message(Step::ExpanderDeselectTransfer, EIO),
              StartsWith("can't deselect the chips with a transfer to the expander"));
  EXPECT_THAT(message(Step::WriteAddress, EIO), StartsWith("can't write the address to the GPIO"));
  EXPECT_THAT(message(Step::WriteLine, EIO),
              StartsWith("can't write GPIO line GPIO25 of the MCP3201 (--cs)"));
  EXPECT_THAT(message(Step::CloseNode, EIO), StartsWith("can't close /dev/spidev1.0"));
  for (int step = 0; step <= static_cast<int>(Step::CloseNode); ++step) {
    EXPECT_THAT(message(static_cast<Step>(step), EIO),
                testing::ContainsRegex(": Input/output error \\(-5\\)\n  try: [^ ].{10,}"));
  }
}

}  // namespace
