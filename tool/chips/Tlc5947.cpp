// SPDX-License-Identifier: MIT
#include "tool/chips/Tlc5947.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tool/App.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"

namespace tool {
namespace tlc5947 {
namespace {

using Driver = Varnel::CSpiLedDriver12Bit_TLC5947;
using Watcher = Watched<Driver>;

constexpr unsigned int kOutputsPerChip = 24;
constexpr unsigned int kMostChips = 64;  // more than 85 would not go into one message
constexpr unsigned int kDayMs = 24 * 60 * 60 * 1000;
constexpr double kSteps = 4096.0;
constexpr std::string_view kLatchOption = "--latch";
constexpr std::string_view kBlankOption = "--blank";
constexpr const char* kHoldOption = "--hold";

constexpr ChipInfo chipInfo(bool usesBus) {
  return {.name = "tlc5947",
          .title = "TLC5947",
          .about = "24 LED outputs with pulse widths, one chip or a cascade",
          .wordBits = 12,
          .usesBus = usesBus,
          .behindExpander = {.reason = "it has no select line"},
          .hasSelect = false};
}

constexpr ChipInfo kChip = chipInfo(true);
constexpr ChipInfo kBlankOnly = chipInfo(false);

constexpr Column kSetColumns[] = {
    {.name = "outputs"},
    {.name = "value", .textWidth = 4},
    {.name = "duty", .unit = "%", .textWidth = 5, .textDecimals = 2, .dataDecimals = 4},
    {.name = "latch", .inText = false},
};

constexpr Column kBlankColumns[] = {
    {.name = "outputs"},
    {.name = "blank", .inText = false},
};

struct Options {
  std::vector<Tlc5947Outputs> outputs;
  uint64_t value = 0;  // of all
  unsigned int chain = 1;
  std::optional<PinSpec> latch;
  std::optional<PinSpec> blank;
  unsigned int holdMs = 0;
  CLI::Option* hold = nullptr;
};

unsigned int wholeOf(std::string_view text) {
  const std::optional<uint64_t> number = parseWhole(text);
  // Whatever is too large is refused as an output or a value.
  constexpr uint64_t kTooLarge = 1000000;
  if (!number) {
    throw std::invalid_argument("not a whole number");
  }
  return static_cast<unsigned int>(std::min(*number, kTooLarge));
}

/// Takes BLANK, which switches the outputs off.
void takeBlank(Driver& leds, const PinSpec& blank, Session& session) {
  // Inverted, so that the driver's "enabled" is a low line.
  leds.outputEnablePin().configure(session.pinNumber(blank), Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  session.checkLine(Step::ConnectPin, leds.outputEnablePin().connect(), blank.text, kBlankOption);
}

void enableOutputs(Driver& leds, const PinSpec& blank, bool enable, Session& session) {
  session.checkLine(Step::WriteLine, leds.setOutputEnable(enable), blank.text, kBlankOption);
}

/// Lasts for so long, or until a signal comes.
void hold(unsigned int milliseconds, const Interrupt& interrupt) {
  if (milliseconds > 0) {
    interrupt.sleep(milliseconds);
    return;
  }
  while (!interrupt.requested()) {
    interrupt.sleep(kDayMs);
  }
}

void send(const Context& context, const Options& options, Session& session) {
  const unsigned int count = kOutputsPerChip * options.chain;
  Watcher leds(session.trouble(), static_cast<uint16_t>(count));
  if (options.blank) {
    takeBlank(leds, *options.blank, session);
  }
  Orv::CLinuxIoPin latch = session.connectLatch(*options.latch, kLatchOption, Orv::PIN_MODE_HW);
  session.bind(leds);
  leds.setLatchPin(&latch);
  session.run(leds, [&] {
    for (const Tlc5947Outputs& outputs : options.outputs) {
      // The driver's table begins with the highest output of the farthest chip.
      leds.setPWMs(static_cast<uint16_t>(count - 1 - outputs.last),
                   static_cast<uint16_t>(count - 1 - outputs.first), outputs.value,
                   Driver::NO_TRANSFER);
    }
    return leds.transferData(Driver::DO_TRANSFER);
  });
  if (options.blank) {
    enableOutputs(leds, *options.blank, true, session);
  }
  RecordWriter writer(context.out, context.options.format, kChip.name, kSetColumns);
  for (const Tlc5947Outputs& outputs : options.outputs) {
    writer.write({outputs.first == outputs.last ? std::to_string(outputs.first)
                                                : fmt::format("{}-{}", outputs.first, outputs.last),
                  int64_t{outputs.value}, outputs.value * 100 / kSteps, options.latch->text});
  }
  if (options.hold->count() > 0) {
    hold(options.holdMs, session.interrupt());
  }
}

int runSend(const Context& context, const Options& options) {
  const unsigned int count = kOutputsPerChip * options.chain;
  for (const Tlc5947Outputs& outputs : options.outputs) {
    if (outputs.last >= count) {
      throw CLI::ValidationError(
          "SETTING", fmt::format("output {} is above {}, the last one of {} {}", outputs.last,
                                 count - 1, options.chain, options.chain == 1 ? "chip" : "chips"));
    }
  }
  return runSession(context.options, kChip, context.err,
                    [&](Session& session) { send(context, options, session); });
}

int runBlank(const Context& context, const Options& options, bool enable) {
  return runSession(context.options, kBlankOnly, context.err, [&](Session& session) {
    Driver leds(kOutputsPerChip);
    takeBlank(leds, *options.blank, session);
    enableOutputs(leds, *options.blank, enable, session);
    RecordWriter writer(context.out, context.options.format, kChip.name, kBlankColumns);
    writer.write({std::string(enable ? "on" : "off"), options.blank->text});
    if (enable || options.hold->count() > 0) {
      hold(options.holdMs, session.interrupt());
    }
  });
}

CLI::Option* addBlankAndHold(CLI::App& command, Options& options, const std::string& holdAbout) {
  CLI::Option* const blank =
      addPinOption(command, std::string(kBlankOption), options.blank,
                   "GPIO line at BLANK, in any form of --cs: high switches the outputs off");
  options.hold =
      addWhole(command, kHoldOption, options.holdMs, 0, kDayMs, "a time in ms",
               "keep the line for so many ms, up to 86400000; 0: until Ctrl-C;\n" + holdAbout)
          ->type_name("MS")
          ->default_str("");
  return blank;
}

void addSendOptions(CLI::App& command, Options& options) {
  addPinOption(command, std::string(kLatchOption), options.latch,
               "GPIO line at XLAT of all chips, in any form of --cs; its rise brings\n"
               "the values to the outputs")
      ->required();
  addWhole(command, "--chain", options.chain, 1, kMostChips, "a number of chips",
           "how many chips are in a row, 1 to 64")
      ->type_name("N");
  CLI::Option* const blank =
      addBlankAndHold(command, options, "without it the line is released at once");
  options.hold->needs(blank);
}

void addSet(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& set = app.addOperation(
      chip, "set",
      "Set outputs to pulse widths of 0 to 4095 / 4096, and all others to 0: the chips can't be\n"
      "read. Outputs count from OUT0 of the chip nearest MOSI. With --blank they are off until "
      "the\n"
      "values are there, then on until the tool ends: a released line may go back.",
      "  varnel tlc5947 set 0=4095 --latch 22\n"
      "  varnel tlc5947 set 0-2=4095 23=0x100 --latch 22 --blank 23 --hold 0\n"
      "  varnel tlc5947 set 71=2048 --chain 3 --latch gpiochip1:15 --output json",
      [options](const Context& context) { return runSend(context, *options); });
  const auto parse = [options](const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      try {
        options->outputs.push_back(parseTlc5947Outputs(text));
      } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError("SETTING", error.what());
      }
    }
  };
  set.add_option_function<std::vector<std::string>>(
         "SETTING", parse,
         "OUTPUT=VALUE, an output or several, as in 0-2=4095, and their value:\ndecimal, 0x.. or "
         "0b..")
      ->required()
      ->type_name("");
  addSendOptions(set, *options);
}

void addAll(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& all = app.addOperation(
      chip, "all",
      "Set all outputs to one pulse width of 0 to 4095 / 4096. With --blank they are off until "
      "the\n"
      "values are there, then on until the tool ends: a released line may go back.",
      "  varnel tlc5947 all 0 --latch 22\n"
      "  varnel tlc5947 all 2048 --latch XLAT --blank BLANK --hold 5000\n"
      "  varnel tlc5947 all 0xfff --chain 3 --latch 22",
      [options](const Context& context) {
        if (options->value > Driver::MAX_PWM) {
          throw CLI::ValidationError("VALUE", fmt::format("{} is above {}, the largest pulse width",
                                                          options->value, Driver::MAX_PWM));
        }
        options->outputs = {
            {0, kOutputsPerChip * options->chain - 1, static_cast<uint16_t>(options->value)}};
        return runSend(context, *options);
      });
  addValue(all, "VALUE", options->value, "0 to 4095: decimal, 0x.. or 0b..");
  addSendOptions(all, *options);
}

void addOperations(App& app, CLI::App& chip) {
  addSet(app, chip);
  addAll(app, chip);
  const auto blankOptions = std::make_shared<Options>();
  CLI::App& blank = app.addOperation(
      chip, "blank",
      "Switch all outputs off: BLANK goes high. The chips keep their values; the bus is not "
      "opened.\n"
      "The line is released when the tool ends: a released line may go back.",
      "  varnel tlc5947 blank --blank 23\n"
      "  varnel tlc5947 blank --blank gpiochip1:15 --hold 2000",
      [blankOptions](const Context& context) { return runBlank(context, *blankOptions, false); });
  addBlankAndHold(blank, *blankOptions, "without it the line is released at once")->required();
  const auto showOptions = std::make_shared<Options>();
  CLI::App& show = app.addOperation(
      chip, "show",
      "Switch the outputs on, at the values that they have: BLANK goes low. The bus is not "
      "opened.\n"
      "A chip that no value was sent to since power-up shows noise. The line is released when the\n"
      "tool ends, and may go back.",
      "  varnel tlc5947 show --blank 23\n"
      "  varnel tlc5947 show --blank GPIO23 --hold 5000",
      [showOptions](const Context& context) { return runBlank(context, *showOptions, true); });
  addBlankAndHold(show, *showOptions, "as without it")->required();
}

}  // namespace
}  // namespace tlc5947

Tlc5947Outputs parseTlc5947Outputs(std::string_view text) {
  const size_t equals = text.find('=');
  const std::string_view outputs = text.substr(0, equals);
  const size_t dash = outputs.find('-');
  Tlc5947Outputs parsed{};
  unsigned int value = 0;
  try {
    parsed.first = tlc5947::wholeOf(outputs.substr(0, dash));
    parsed.last = dash == outputs.npos ? parsed.first : tlc5947::wholeOf(outputs.substr(dash + 1));
    value = tlc5947::wholeOf(equals == text.npos ? "" : text.substr(equals + 1));
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument(
        fmt::format("'{}' is not OUTPUT=VALUE, such as 5=2048 or 0-2=4095", text));
  }
  if (parsed.first > parsed.last) {
    throw std::invalid_argument(
        fmt::format("'{}': {} comes after {}", text, parsed.first, parsed.last));
  }
  if (value > tlc5947::Driver::MAX_PWM) {
    throw std::invalid_argument(fmt::format("'{}': the value is above {}, the largest pulse width",
                                            text, tlc5947::Driver::MAX_PWM));
  }
  parsed.value = static_cast<uint16_t>(value);
  return parsed;
}

void registerTlc5947(App& app) {
  app.addChip(tlc5947::kChip, tlc5947::addOperations);
}

}  // namespace tool
