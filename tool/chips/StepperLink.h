// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_STEPPERLINK_H
#define TOOL_CHIPS_STEPPERLINK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tool/App.h"
#include "tool/ChipError.h"
#include "tool/Session.h"
#include "tool/chips/StepperStatus.h"
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"

namespace tool {

using StepperDriver = Varnel::CSTMicroSteppingMotorDriver;

/// What sets the stepper controllers apart, as far as the tool is concerned.
struct StepperChip {
  ChipInfo info;
  std::unique_ptr<StepperDriver> (*make)(Trouble& trouble);
  StepperStatus (*decode)(uint16_t word);
  /// Whether the driver reads and writes registers, and so the status without clearing flags.
  bool registers;
};

/// A chip in an open session. What fails on the way to the chip throws DeviceError, a chip that
/// doesn't answer throws ChipError.
class StepperLink {
 public:
  StepperLink(const StepperChip& chip, Session& session);

  const StepperChip& chip() const { return chip_; }
  const Interrupt& interrupt() const { return session_.interrupt(); }
  /// "varnel powerstep01 stop --wait", for messages.
  std::string commandLine(std::string_view operation) const;

  /// Carries out a driver's operation of so many bytes; 0: the driver reports each that fails. It
  /// lets a command byte that failed pass, in the commands that have arguments or an answer.
  void send(const std::function<int32_t(StepperDriver&)>& operation, unsigned int bytes = 0);
  /// The status; on chips without registers this clears the latched flags.
  StepperStatus status();
  /// Clears the latched flags and returns the status before that.
  StepperStatus clearStatus();
  uint32_t get(uint8_t address);
  void set(uint8_t address, uint32_t value);
  int32_t position();
  double speed();

  /// A motion was started and has not been seen to end.
  bool mayTurn = false;

 private:
  /// Counts the bytes that got through: each is a select of its own, which a failed one leaves on.
  class Frames : public Varnel::ILinuxSpiChipSelector {
   public:
    TErrCode enable(bool select) override;
    Varnel::ILinuxSpiChipSelector* inner = nullptr;  ///< none at the node's own select
    unsigned int completed = 0;
  };

  StepperStatus decoded();

  const StepperChip& chip_;
  Session& session_;
  Frames frames_;
  std::unique_ptr<StepperDriver> driver_;
};

/// Opens a session with a chip and runs `body` in it; reports failures. Returns the exit status.
int runStepper(const Context& context, const StepperChip& chip,
               const std::function<void(StepperLink&)>& body);

}  // namespace tool

#endif
