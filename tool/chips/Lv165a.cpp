// SPDX-License-Identifier: MIT
#include "tool/chips/Lv165a.h"

#include <fmt/format.h>

#include <memory>

#include "tool/App.h"
#include "tool/Interrupt.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"

namespace tool {
namespace lv165a {
namespace {

constexpr std::string_view kLatchOption = "--latch";

constexpr ChipInfo kChip = {
    .name = "lv165a",
    .title = "74LV165A",
    .about = "8 digital inputs",
    .selectActiveLow = true,
    .behindExpander = {.explicitly = true,
                       .reason = "it is loaded and read before its address is on the expander's "
                                 "outputs, and its select stays on"}};

constexpr Column kColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "inputs", .inData = false},
    {.name = "inputs", .inText = false},
    {.name = "bits"},
};

struct ReadOptions {
  std::optional<PinSpec> latch;
  bool latchInverted = false;
  Repetition repetition;
};

void readInputs(const Context& context, const ReadOptions& options, Session& session) {
  Orv::CLinuxIoPin latch =
      session.connectLatch(*options.latch, kLatchOption,
                           options.latchInverted ? Orv::PIN_MODE_INVERT : Orv::PIN_MODE_HW);
  Watched<Varnel::CSpiDigIn8Bit_LV165A> chip(session.trouble());
  session.bind(chip);
  chip.setLatchPin(&latch);
  RecordWriter writer(context.out, context.options.format, kChip.name, kColumns);
  repeat(options.repetition, session.interrupt(), [&](uint64_t round) {
    const int32_t inputs =
        session.run(chip, [&] { return chip.readInputs(Varnel::CLinuxSpiDevice::DO_TRANSFER); });
    writer.write({static_cast<int64_t>(round), fmt::format("{:#04x}", inputs), int64_t{inputs},
                  fmt::format("{:08b}", inputs)});
  });
}

void addOperations(App& app, CLI::App& chip) {
  const auto options = std::make_shared<ReadOptions>();
  CLI::App& read = app.addOperation(
      chip, "read", "Load and print the inputs: bit 0 is A, bit 7 is H.",
      "  varnel lv165a read --latch 23 --latch-inverted\n"
      "  varnel lv165a read --latch GPIO23 --latch-inverted --count 0 --interval 100\n"
      "  varnel lv165a read --latch gpiochip1:16 --latch-inverted --expander 22:2 --output json",
      [options](const Context& context) {
        if (!options->latchInverted) {
          report(context.err,
                 fmt::format("note: the {} shifts while its load input is high, the driver leaves "
                             "{} at low: without an inverter between them add --latch-inverted",
                             kChip.title, kLatchOption));
        }
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { readInputs(context, *options, session); });
      });
  addPinOption(read, std::string(kLatchOption), options->latch,
               "GPIO line at SH/LD, the load input, in any form of --cs")
      ->required();
  read.add_flag("--latch-inverted", options->latchInverted,
                "a low line loads: for a line wired straight to SH/LD (default: a\n"
                "high one, which needs an inverter)");
  addRepetition(read, options->repetition);
}

}  // namespace
}  // namespace lv165a

void registerLv165a(App& app) {
  app.addChip(lv165a::kChip, lv165a::addOperations);
}

}  // namespace tool
