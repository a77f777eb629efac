// SPDX-License-Identifier: MIT
#include "tool/chips/Mcp4822.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <memory>
#include <string>

#include "tool/App.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"

namespace tool {
namespace mcp4822 {
namespace {

using Driver = Varnel::CSpiAnalogOut2x12Bit_MCP4822;

constexpr double kReference = 2.048;
constexpr double kSteps = 4096.0;
constexpr std::string_view kLdacOption = "--ldac";

constexpr ChipInfo kChip = {
    .name = "mcp4822",
    .title = "MCP4822",
    .about = "12-bit digital-to-analog converter, two outputs",
    .wordBits = 16,
    .selectActiveLow = true,
    .behindExpander = {.explicitly = true, .reason = "each of its two words is a select"},
    .openMode = 3};

constexpr Column kColumns[] = {
    {.name = "A", .inData = false, .textWidth = 4},
    {.name = "code_a", .inText = false},
    {.name = "volts_a", .unit = "V", .textWidth = 6, .textDecimals = 4, .dataDecimals = 6},
    {.name = "B", .inData = false, .textWidth = 4},
    {.name = "code_b", .inText = false},
    {.name = "volts_b", .unit = "V", .textWidth = 6, .textDecimals = 4, .dataDecimals = 6},
};

struct SetOptions {
  uint16_t codeA = 0;
  uint16_t codeB = 0;
  std::optional<PinSpec> ldac;
};

/// The driver, whose words are managed transfers.
class Converter : public Driver {
 public:
  explicit Converter(Trouble& trouble) : trouble_(trouble) {}

  using Driver::executeManagedTransfer;
  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    return trouble_.note(Step::Transfer, Driver::executeManagedTransfer(handling));
  }

 private:
  Trouble& trouble_;
};

/// Tells whether opening the driver got as far as to deselect the chip: before that it takes LDAC.
class Progress : public Varnel::ILinuxSpiChipSelector {
 public:
  TErrCode enable(bool select) override {
    ldacTaken = true;
    return inner == nullptr ? 0 : inner->enable(select);
  }

  Varnel::ILinuxSpiChipSelector* inner = nullptr;  ///< none at the node's own select
  bool ldacTaken = false;
};

void openConverter(Converter& converter, Progress& progress, const PinSpec& ldac,
                   Session& session) {
  session.bind(converter);
  progress.inner = converter.chipSelector();
  converter.setChipSelector(&progress);
  converter.configurePins(session.latchNumber(ldac, kLdacOption));
  const TErrCode code = converter.open();
  if (!progress.ldacTaken) {
    session.checkLine(Step::ConnectPin, code, ldac.text, kLdacOption);
  }
  session.run(converter, [code] { return code; });
}

void setOutputs(const Context& context, const SetOptions& options, Session& session) {
  Progress progress;
  Converter converter(session.trouble());
  openConverter(converter, progress, *options.ldac, session);
  session.run(converter, [&] {
    const TErrCode code = converter.setValue(0, options.codeA, Driver::NO_WRITE);
    return code < 0 ? code : converter.setValue(1, options.codeB, Driver::DO_WRITE);
  });
  RecordWriter writer(context.out, context.options.format, kChip.name, kColumns);
  const int64_t a = options.codeA;
  const int64_t b = options.codeB;
  writer.write({a, a, mcp4822Volts(options.codeA), b, b, mcp4822Volts(options.codeB)});
}

void addOutput(CLI::App& command, const std::string& name, uint16_t& code,
               const std::string& about) {
  const auto parse = [&code, name](const std::string& text) {
    const std::optional<uint16_t> parsed = mcp4822Code(text);
    if (!parsed) {
      throw CLI::ValidationError(
          name, fmt::format("'{}' is neither a code from 0 to {} nor a voltage from 0V to {:.4f}V",
                            text, Driver::MAX_VALUE, mcp4822Volts(Driver::MAX_VALUE)));
    }
    code = *parsed;
  };
  command.add_option_function<std::string>(name, parse, about)->required()->type_name("");
}

void addOperations(App& app, CLI::App& chip) {
  const auto options = std::make_shared<SetOptions>();
  CLI::App& set = app.addOperation(
      chip, "set",
      "Set both outputs, which change together. Gain is 1: a code stands for code / 4096 * 2.048 "
      "V.\n"
      "The chip can't be read: what is printed is what was sent.",
      "  varnel mcp4822 set 2048 0 --ldac 24 --cs 25 --cs-active-low\n"
      "  varnel mcp4822 set 1.5V 0.25V --ldac GPIO24 --cs GPIO25 --cs-active-low\n"
      "  varnel mcp4822 set 0xfff 1V --ldac gpiochip1:15 --output json",
      [options](const Context& context) {
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { setOutputs(context, *options, session); });
      });
  addOutput(set, "A", options->codeA,
            "output A: a code, 0 to 4095, decimal, 0x.. or 0b.., or volts with a V, 0V to\n"
            "2.0475V");
  addOutput(set, "B", options->codeB, "output B, the same: both are always written");
  addPinOption(set, std::string(kLdacOption), options->ldac,
               "GPIO line at LDAC, in any form of --cs; low moves the outputs")
      ->required();
}

}  // namespace
}  // namespace mcp4822

double mcp4822Volts(uint16_t code) {
  return code * mcp4822::kReference / mcp4822::kSteps;
}

std::optional<uint16_t> mcp4822Code(std::string_view text) {
  if (!text.ends_with('V') && !text.ends_with('v')) {
    const std::optional<uint64_t> code = parseWhole(text);
    return code && *code <= mcp4822::Driver::MAX_VALUE ? std::optional(static_cast<uint16_t>(*code))
                                                       : std::nullopt;
  }
  double volts = 0;
  const char* const end = text.data() + text.size() - 1;
  const auto result = std::from_chars(text.data(), end, volts, std::chars_format::fixed);
  if (result.ec != std::errc() || result.ptr != end || !std::isfinite(volts) || volts < 0) {
    return std::nullopt;
  }
  const double code = std::round(volts * mcp4822::kSteps / mcp4822::kReference);
  return code <= mcp4822::Driver::MAX_VALUE ? std::optional(static_cast<uint16_t>(code))
                                            : std::nullopt;
}

void registerMcp4822(App& app) {
  app.addChip(mcp4822::kChip, mcp4822::addOperations);
}

}  // namespace tool
