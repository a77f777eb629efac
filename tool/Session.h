// SPDX-License-Identifier: MIT
#ifndef TOOL_SESSION_H
#define TOOL_SESSION_H

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "orv/PinMap.h"
#include "tool/Failure.h"
#include "tool/Interrupt.h"
#include "tool/Options.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace tool {

/// What the tool has to know of a chip to talk about it.
struct ChipInfo {
  std::string_view name;   ///< subcommand and "chip" of JSON records: "mcp3201"
  std::string_view title;  ///< in messages: "MCP3201"
  std::string_view about;  ///< one line for the help
  int wordBits = 8;        ///< of its transfers
  bool selectActiveLow = true;
};

/// A chip select pin that remembers its own failures, so that they can be told from the bus's.
class SelectPin : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit SelectPin(const Orv::CLinuxIoPin& pin) : selector_(pin) {}
  TErrCode enable(bool select) override;
  /// The step that failed last, with its code; reading it forgets it.
  std::optional<std::pair<Step, TErrCode>> takeFailure();

 private:
  Varnel::CGpioPinChipSelector selector_;
  std::optional<std::pair<Step, TErrCode>> failure_;
};

/// One visit to a chip: pins taken, bus opened as the options say, and all of it released on every
/// way out.
class Session {
 public:
  Session(const GlobalOptions& options, const ChipInfo& chip);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Takes the select line, deselected, then sets the speed and opens the bus. Throws DeviceError.
  void open();
  /// Gives an open session's bus and selector to a driver. The driver may be used until `close`,
  /// and no more after a failure.
  void bind(Varnel::CLinuxSpiDevice& device);
  /// Takes another line for the chip; `option` is what the user called it. Throws DeviceError.
  Orv::CLinuxIoPin connectPin(const PinSpec& spec, std::string_view option,
                              Orv::ePinDirection direction, Orv::ePinMode mode);
  /// Passes the result of a driver's operation, or throws DeviceError for a negative one.
  void check(TErrCode code);

  /// Signals are held back as long as the session lives.
  const Interrupt& interrupt() const { return interrupt_; }

  /// Releases the select, closes the bus, gives the lines back; returns what failed. The second
  /// time it does nothing.
  std::vector<Failure> close();

 private:
  unsigned int pinNumber(const PinSpec& spec);
  Failure failure(Step step, TErrCode code) const;

  Interrupt interrupt_;
  const GlobalOptions& options_;
  const ChipInfo& chip_;
  Varnel::CLinuxSpiBus bus_;
  std::unique_ptr<SelectPin> select_;
  Orv::CPinMap pinMap_{Orv::UNMAPPED_DEFAULT_NUMBER};
  unsigned int mappedPins_ = 0;
  bool closed_ = false;
};

/// Opens a session, runs `body` in it and closes it, whatever happens; reports failures to `err`.
/// Returns the exit status.
int runSession(const GlobalOptions& options, const ChipInfo& chip, std::ostream& err,
               const std::function<void(Session&)>& body);

/// Every message of the tool, with its name in front.
void report(std::ostream& err, std::string_view message);

}  // namespace tool

#endif
