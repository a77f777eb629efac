// SPDX-License-Identifier: MIT
#ifndef TOOL_SESSION_H
#define TOOL_SESSION_H

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "orv/PinMap.h"
#include "tool/Expander.h"
#include "tool/Failure.h"
#include "tool/Interrupt.h"
#include "tool/Options.h"
#include "tool/Trouble.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace tool {

/// How a chip can be selected through an expander.
struct BehindExpander {
  bool explicitly = false;
  bool implicitly = false;
  std::string_view reason = {};  ///< why not
};

/// What the tool has to know of a chip to talk about it.
struct ChipInfo {
  std::string_view name;   ///< subcommand and "chip" of JSON records: "mcp3201"
  std::string_view title;  ///< in messages: "MCP3201"
  std::string_view about;  ///< one line for the help
  int wordBits = 8;        ///< of its transfers
  bool selectActiveLow = true;
  bool usesBus = true;  ///< false: GPIO lines are all it has, the node stays closed
  BehindExpander behindExpander = {};
  /// SPI mode of a chip at the node's own select that would take the transfer after a change of
  /// mode for a command: the bus is opened in this mode then.
  std::optional<uint8_t> openMode = {};
  /// The bus clock where none is given; 0: the tool's own default.
  uint16_t ownKHz = 0;
  /// No faster clock is set, whatever is given: on a faster bus the driver of a chip that is
  /// selected over several transfers would change the clock between them.
  uint16_t highestKHz = 65535;
  /// An exchange is several transfers in one select, which only a GPIO line holds.
  bool needsSelectPin = false;
  bool hasSelect = true;  ///< false: no select line reaches it, --cs is refused
};

/// A chip select pin whose failures are noted.
class SelectPin : public Varnel::ILinuxSpiChipSelector {
 public:
  SelectPin(const Orv::CLinuxIoPin& pin, Trouble& trouble) : selector_(pin), trouble_(trouble) {}
  TErrCode enable(bool select) override;

 private:
  Varnel::CGpioPinChipSelector selector_;
  Trouble& trouble_;
};

/// One visit to a chip: pins taken, bus opened as the options say, and all of it released on every
/// way out.
class Session {
 public:
  Session(const GlobalOptions& options, const ChipInfo& chip);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Takes the select line, deselected, or the expander's latch line, then sets the speed and opens
  /// the bus, and lets the expander deselect all chips. Throws DeviceError.
  void open();
  /// Gives an open session's bus and selector to a driver. The driver may be used until `close`,
  /// and no more after a failure. Behind an expander one driver can be bound.
  void bind(Varnel::CLinuxSpiDevice& device);
  /// Takes another line for the chip; `option` is what the user called it. Throws DeviceError.
  Orv::CLinuxIoPin connectPin(const PinSpec& spec, std::string_view option,
                              Orv::ePinDirection direction, Orv::ePinMode mode);
  /// Takes the chip's own latch line, an output: what fails in an operation outside the bus and
  /// the select is put down to it.
  Orv::CLinuxIoPin connectLatch(const PinSpec& spec, std::string_view option, Orv::ePinMode mode);
  /// The same for a driver that takes its latch line itself: the pin number to give to it.
  unsigned int latchNumber(const PinSpec& spec, std::string_view option);
  /// The pin number under which the library finds the pin; for drivers that connect it themselves.
  unsigned int pinNumber(const PinSpec& spec);
  /// Passes the result of a step on other lines, or throws DeviceError for a negative one.
  void checkLine(Step step, TErrCode code, std::string_view pin, std::string_view option) const;
  /// Runs an operation of a bound driver, which an implicit expander needs help around. Returns its
  /// result, or throws DeviceError for a negative one.
  int32_t run(Varnel::CLinuxSpiDevice& device, const std::function<int32_t()>& operation);

  /// Where a `Watched` driver notes its transfers.
  Trouble& trouble() { return trouble_; }

  /// Signals are held back as long as the session lives.
  const Interrupt& interrupt() const { return interrupt_; }

  /// Releases the select, closes the bus, gives the lines back; returns what failed. The second
  /// time it does nothing.
  std::vector<Failure> close();

 private:
  struct Line {
    std::string pin;
    std::string option;
  };

  int32_t check(int32_t code);
  Line lineOf(Step step) const;
  Failure failure(Step step, TErrCode code) const;

  Interrupt interrupt_;
  const GlobalOptions& options_;
  const ChipInfo& chip_;
  Varnel::CLinuxSpiBus bus_;
  Trouble trouble_;
  std::unique_ptr<SelectPin> select_;
  std::unique_ptr<Expander> expander_;
  std::optional<Line> latch_;
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
