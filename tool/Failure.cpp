// SPDX-License-Identifier: MIT
#include "tool/Failure.h"

#include <fmt/format.h>

#include <cerrno>
#include <string_view>

namespace tool {
namespace {

struct StepText {
  Step step;
  std::string_view call;
  std::string_view otherwise;  ///< what to try when no hint fits
};

constexpr StepText kSteps[] = {
    {Step::ConnectPin, "can't take GPIO line {pin} ({option})",
     "gpioinfo lists the lines and who holds them"},
    {Step::OpenNode, "can't open {node}", "ls -l {node}; another node with --spi"},
    {Step::SetUpNode, "can't set up {node}",
     "whether {node} is a spidev node, and another --speed"},
    {Step::Select, "can't select the {chip} with GPIO line {pin} ({option})",
     "gpioinfo shows whether the line is still there"},
    {Step::Deselect, "can't release the {chip} with GPIO line {pin} ({option})",
     "gpioinfo shows whether the line is still there; the chip may still be selected"},
    {Step::Latch, "can't write GPIO line {pin}, the latch of the {chip} ({option})",
     "gpioinfo shows whether the line is still there"},
    {Step::ControlLines, "can't drive a GPIO line of the {chip}, one of {pin} ({option})",
     "gpioinfo shows whether the lines are still there, and whether one is given twice"},
    {Step::Transfer, "can't transfer with the {chip} on {node}",
     "a lower --speed; dmesg shows what the controller's driver says"},
    {Step::ExpanderSelectLatch,
     "can't select the {chip} with GPIO line {pin}, the latch of the expander ({option})",
     "gpioinfo shows whether the line is still there"},
    {Step::ExpanderSelectTransfer,
     "can't select the {chip} with a transfer to the expander ({option}) on {node}",
     "a lower --speed; dmesg shows what the controller's driver says"},
    {Step::ExpanderDeselectLatch,
     "can't deselect the chips with GPIO line {pin}, the latch of the expander ({option})",
     "gpioinfo shows whether the line is still there; a chip may be selected"},
    {Step::ExpanderDeselectTransfer,
     "can't deselect the chips with a transfer to the expander ({option}) on {node}",
     "a lower --speed; dmesg shows what the controller's driver says; a chip may be selected"},
    {Step::WriteAddress, "can't write the address to the GPIO lines {pin} ({option})",
     "gpioinfo shows whether the lines are still there; some may have changed already"},
    {Step::WriteLine, "can't write GPIO line {pin} of the {chip} ({option})",
     "gpioinfo shows whether the line is still there"},
    {Step::CloseNode, "can't close {node}", "dmesg shows what the controller's driver says"},
};

struct Hint {
  Step step;
  int errorNumber;
  std::string_view text;
  bool oddWordsOnly = false;  ///< for chips whose words have other than 8 bits
};

constexpr Hint kHints[] = {
    {Step::ConnectPin, ENODEV,
     "ls /dev/gpiochip*; gpiodetect lists the GPIO chips; none: the kernel lacks the GPIO driver"},
    {Step::ConnectPin, EACCES, "sudo usermod -aG gpio $USER, then log in again"},
    {Step::ConnectPin, EBUSY,
     "another line: this one is in use; gpioinfo shows by whom (often a driver's own chip select)"},
    {Step::ConnectPin, EINVAL,
     "gpioinfo lists the lines: none is called so, or several are; gpiochipN:LINE is unambiguous"},
    {Step::OpenNode, ENOENT,
     "ls /dev/spidev*; enable SPI in the device tree (Raspberry Pi: dtparam=spi=on in config.txt); "
     "another node with --spi"},
    {Step::OpenNode, EACCES, "sudo usermod -aG spi $USER, then log in again; ls -l {node}"},
    {Step::OpenNode, EPERM, "sudo usermod -aG spi $USER, then log in again; ls -l {node}"},
    {Step::OpenNode, EBUSY, "end the program that uses the node: fuser -v {node}"},
    {Step::OpenNode, EISDIR, "a node such as /dev/spidev1.0 with --spi: {node} is a directory"},
    {Step::SetUpNode, ENOTTY, "a spidev node with --spi: {node} is something else"},
    {Step::SetUpNode, EINVAL,
     "another --speed, from 1 kHz up: the controller refuses a setting (the line above says "
     "which)"},
    {Step::Transfer, EINVAL,
     "a controller that takes {bits}-bit words, which this chip needs: the Raspberry Pi's own "
     "takes 8 bits only, spi-gpio takes any; or another --speed",
     true},
    {Step::Transfer, ESHUTDOWN, "again when the node is back: the device was removed"},
    {Step::Transfer, ETIMEDOUT, "a higher --speed; dmesg shows what the controller's driver says"},
};

std::string_view hintFor(const Failure& failure, std::string_view otherwise) {
  for (const Hint& hint : kHints) {
    if (hint.step == failure.step && hint.errorNumber == -failure.code &&
        (failure.wordBits != 8 || !hint.oddWordsOnly)) {
      return hint.text;
    }
  }
  return otherwise;
}

const StepText& textOf(Step step) {
  for (const StepText& text : kSteps) {
    if (text.step == step) {
      return text;
    }
  }
  return kSteps[0];
}

}  // namespace

std::string describe(const Failure& failure) {
  const StepText& text = textOf(failure.step);
  const std::string_view hint = hintFor(failure, text.otherwise);
  const auto fill = [&failure](std::string_view pattern) {
    return fmt::format(fmt::runtime(pattern), fmt::arg("node", failure.node),
                       fmt::arg("pin", failure.pin), fmt::arg("option", failure.option),
                       fmt::arg("chip", failure.chip), fmt::arg("bits", failure.wordBits));
  };
  return fmt::format("{}: {} ({})\n  try: {}", fill(text.call), ErrorToString(failure.code),
                     failure.code, fill(hint));
}

}  // namespace tool
