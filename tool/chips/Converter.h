// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_CONVERTER_H
#define TOOL_CHIPS_CONVERTER_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tool/App.h"
#include "tool/Plot.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace tool {

/// The number that a 24-bit code stands for: the drivers give it as it came, and 0x800000 and above
/// are negative inputs.
int32_t signedCode(int32_t code);
/// Volts between the inputs for such a number; `fullScale` is what 0x7FFFFF stands for.
double converterVolts(int32_t number, double fullScale);

/// What sets the 24-bit converters apart, as far as their errors are concerned.
struct ConverterChip {
  ChipInfo info;
  /// What to try when the first register already doesn't hold what was written.
  std::string_view noAnswerHint;
};

/// A GPIO line of a converter, which its driver connects by itself.
struct ControlLine {
  std::string_view option;
  const PinSpec& pin;
};

/// A converter in an open session, and what of its troubles the driver's code alone doesn't tell.
class ConverterLink {
 public:
  ConverterLink(const ConverterChip& chip, Session& session) : chip_(chip), session_(session) {}

  /// Binds the driver, which may be used until the link ends.
  void bind(Varnel::CLinuxSpiDevice& device);
  /// The pin number of a line for the driver. Takes the line for a moment, since a driver doesn't
  /// say which one it couldn't take. Throws DeviceError.
  unsigned int line(const ControlLine& line);
  /// Carries out the driver's start-up. Throws DeviceError, or ChipError where the chip doesn't
  /// hold what is written to it.
  void open(const std::function<TErrCode()>& operation);
  /// Carries out another operation, with the same errors. Returns 0, or -36 for a result that
  /// wasn't ready.
  TErrCode run(const std::function<TErrCode()>& operation);

  const Interrupt& interrupt() const { return session_.interrupt(); }
  /// Whether a GPIO line selects the chip at the moment.
  bool selected() const { return select_.inner != nullptr && select_.selected; }

  static constexpr TErrCode kNotReady = -36;

 private:
  class Select : public Varnel::ILinuxSpiChipSelector {
   public:
    TErrCode enable(bool select) override;
    Varnel::ILinuxSpiChipSelector* inner = nullptr;  ///< none at the node's own select
    unsigned int calls = 0;
    unsigned int frames = 0;
    bool selected = false;
  };

  [[noreturn]] void notVerified() const;

  const ConverterChip& chip_;
  Session& session_;
  Select select_;
  Varnel::CLinuxSpiDevice* device_ = nullptr;
  std::string options_;  ///< of all lines, for messages
  std::string pins_;
};

/// Opens a session with a converter and runs `body` in it; reports failures, and whether they left
/// the chip selected. Returns the exit status.
int runConverter(const Context& context, const ConverterChip& chip,
                 const std::function<void(ConverterLink&)>& body);

/// One value, and the channel it is of.
struct ConverterReading {
  unsigned int channel = 0;
  int32_t number = 0;
  double volts = 0;
};

/// Writes readings: records, one for each channel, or on a terminal a plot if one is asked for.
class ConverterOutput {
 public:
  ConverterOutput(std::ostream& out, Format format, std::string_view chip,
                  const std::vector<unsigned int>& channels, bool plot, const Terminal& terminal);
  /// One reading of each channel, in their order. Throws OutputError.
  void write(uint64_t round, std::span<const ConverterReading> readings);

 private:
  RecordWriter records_;
  std::optional<Plot> plot_;
};

/// Adds --vref.
void addReference(CLI::App& command, double& volts, const std::string& about);
/// Adds --plot.
void addPlot(CLI::App& command, bool& plot);
/// Adds an option, or an argument without dashes, that takes one of some numbers and gives its
/// index.
CLI::Option* addChoice(CLI::App& command, const std::string& name, std::optional<uint8_t>& index,
                       std::span<const unsigned int> numbers, const std::string& about);

}  // namespace tool

#endif
