// SPDX-License-Identifier: MIT
#ifndef TOOL_FAILURE_H
#define TOOL_FAILURE_H

#include <cstdint>
#include <stdexcept>
#include <string>

#include "orv/ErrorCode.h"

namespace tool {

/// What the tool was doing to the board.
enum class Step : uint8_t {
  ConnectPin,                ///< taking a GPIO line
  OpenNode,                  ///< opening the spidev node
  SetUpNode,                 ///< applying mode, word size and speed to the open node
  Select,                    ///< driving the chip select
  Deselect,                  ///< releasing the chip select
  Latch,                     ///< pulsing the chip's own latch line
  ControlLines,              ///< taking or driving lines that a driver connects by itself
  Transfer,                  ///< exchanging data with the chip
  ExpanderSelectLatch,       ///< writing the expander's latch line to select the chip
  ExpanderSelectTransfer,    ///< shifting the chip's address into the expander
  ExpanderDeselectLatch,     ///< writing the expander's latch line to deselect all chips
  ExpanderDeselectTransfer,  ///< shifting the none address into the expander
  WriteAddress,              ///< writing an address to GPIO lines
  WriteLine,                 ///< writing another line of the chip
  CloseNode,                 ///< closing the node
};

/// A step that failed, with all that its message names.
struct Failure {
  Step step = Step::Transfer;
  TErrCode code = 0;
  std::string node;
  std::string pin;     ///< as the user gave it
  std::string option;  ///< the option that named the pin
  std::string chip;    ///< "MCP3201"
  int wordBits = 8;
};

/// Two lines: what failed, on what, with the system's text and code; and what to try.
std::string describe(const Failure& failure);

/// Carries a failure to where it is reported.
class DeviceError : public std::runtime_error {
 public:
  explicit DeviceError(Failure failure)
      : std::runtime_error(describe(failure)), failure_(std::move(failure)) {}
  const Failure& failure() const { return failure_; }

 private:
  Failure failure_;
};

}  // namespace tool

#endif
