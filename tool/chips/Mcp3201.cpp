// SPDX-License-Identifier: MIT
#include "tool/chips/Mcp3201.h"

#include <memory>

#include "tool/App.h"
#include "tool/Interrupt.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"

namespace tool {
namespace mcp3201 {
namespace {

constexpr double kSteps = 4096.0;

constexpr ChipInfo kChip = {.name = "mcp3201",
                            .title = "MCP3201",
                            .about = "12-bit analog-to-digital converter, one input",
                            .wordBits = 15,
                            .selectActiveLow = true,
                            .behindExpander = {.explicitly = true, .implicitly = true}};

constexpr Column kColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "code", .textWidth = 4},
    {.name = "volts", .unit = "V", .textWidth = 7, .textDecimals = 4, .dataDecimals = 6},
};

struct ReadOptions {
  double vref = 3.3;
  Repetition repetition;
};

void readInput(const Context& context, const ReadOptions& options, Session& session) {
  Watched<Varnel::CSpiAnalogIn1x12Bit_MCP3201> converter(session.trouble());
  session.bind(converter);
  RecordWriter writer(context.out, context.options.format, kChip.name, kColumns);
  repeat(options.repetition, session.interrupt(), [&](uint64_t round) {
    uint16_t code = 0;
    session.run(converter,
                [&] { return converter.readInput(&code, Varnel::CLinuxSpiDevice::DO_TRANSFER); });
    writer.write({static_cast<int64_t>(round), int64_t{code}, mcp3201Volts(code, options.vref)});
  });
}

void addOperations(App& app, CLI::App& chip) {
  const auto options = std::make_shared<ReadOptions>();
  CLI::App& read = app.addOperation(
      chip, "read", "Convert and print the code (0 to 4095) and the volts, code * vref / 4096.",
      "  varnel mcp3201 read --cs 25 --cs-active-low --vref 5\n"
      "  varnel mcp3201 read --cs GPIO25 --cs-active-low --count 0 --interval 500\n"
      "  varnel mcp3201 read --cs gpiochip1:16 --cs-active-low --count 100 --output csv\n"
      "  varnel mcp3201 read --expander 22:3 --vref 5",
      [options](const Context& context) {
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { readInput(context, *options, session); });
      });
  addPositive(read, "--vref", options->vref, "a voltage",
              "reference voltage in volts, above 0: the chip's VREF pin")
      ->type_name("V");
  addRepetition(read, options->repetition);
}

}  // namespace
}  // namespace mcp3201

double mcp3201Volts(uint16_t code, double vref) {
  return code * vref / mcp3201::kSteps;
}

void registerMcp3201(App& app) {
  app.addChip(mcp3201::kChip, mcp3201::addOperations);
}

}  // namespace tool
