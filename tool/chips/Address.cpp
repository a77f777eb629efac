// SPDX-License-Identifier: MIT
#include "tool/chips/Address.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

#include "tool/App.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/common/LinuxIoPinAddressDecoder.h"

namespace tool {
namespace address {
namespace {

constexpr size_t kMostPins = 32;
constexpr const char* kPinsOption = "--pins";

constexpr ChipInfo kChip = {.name = "address",
                            .title = "address decoder",
                            .about = "address of an external decoder, on GPIO lines",
                            .usesBus = false,
                            .behindExpander = {.reason = "it is on GPIO lines, not on the bus"}};

constexpr Column kColumns[] = {
    {.name = "wrote", .inData = false},
    {.name = "address", .inText = false},
    {.name = "pins", .inText = false},
};

struct WriteOptions {
  uint64_t address = 0;
  std::vector<PinSpec> pins;  ///< bit 0 first
};

std::vector<PinSpec> parsePins(const std::string& text) {
  std::vector<PinSpec> pins;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(',', begin), text.size());
    PinSpec pin = parsePin(text.substr(begin, end - begin));
    if (std::any_of(pins.begin(), pins.end(),
                    [&pin](const PinSpec& other) { return other.pin == pin.pin; })) {
      throw std::invalid_argument(fmt::format("'{}' stands there twice", pin.text));
    }
    pins.push_back(std::move(pin));
    begin = end + 1;
  }
  if (pins.size() > kMostPins) {
    throw std::invalid_argument(
        fmt::format("{} pins are more than the {} bits of an address", pins.size(), kMostPins));
  }
  return pins;
}

void write(const Context& context, const WriteOptions& options, Session& session) {
  Varnel::CLinuxIoPinAddressDecoder decoder;
  std::vector<std::string> names;
  for (const PinSpec& pin : options.pins) {
    decoder.addPin(session.pinNumber(pin), Orv::PIN_MODE_HW);
    names.push_back(pin.text);
  }
  // One by one, so that a line that fails can be named.
  for (unsigned int i = 0; i < names.size(); ++i) {
    session.checkLine(Step::ConnectPin, decoder.pin(i).connect(), names[i], kPinsOption);
  }
  const std::string pins = fmt::format("{}", fmt::join(names, ","));
  session.checkLine(Step::WriteAddress,
                    decoder.writeAddress(static_cast<uint32_t>(options.address)), pins,
                    kPinsOption);
  RecordWriter writer(context.out, context.options.format, kChip.name, kColumns);
  writer.write({fmt::format("{} to {} {}", options.address, names.size(),
                            names.size() == 1 ? "line" : "lines"),
                options.address, pins});
}

void checkOptions(const WriteOptions& options) {
  const uint64_t highest = highestOf(static_cast<unsigned int>(options.pins.size()));
  if (options.address > highest) {
    throw CLI::ValidationError(
        "N", fmt::format("{} is above {}, the highest address on {} {}", options.address, highest,
                         options.pins.size(), options.pins.size() == 1 ? "pin" : "pins"));
  }
}

void addOperations(App& app, CLI::App& chip) {
  const auto options = std::make_shared<WriteOptions>();
  CLI::App& write = app.addOperation(
      chip, "write",
      "Write an address to GPIO lines, bit 0 first; the bus is not opened. The lines are released\n"
      "when the tool ends: a released line may fall back, and the address with it.",
      "  varnel address write 5 --pins 17,27,22\n"
      "  varnel address write 0b10 --pins GPIO17,gpiochip1:15",
      [options](const Context& context) {
        checkOptions(*options);
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { address::write(context, *options, session); });
      });
  addValue(write, "N", options->address,
           "the address, as far as the pins have bits: decimal, 0x.. or 0b..");
  const auto parse = [options](const std::string& text) {
    try {
      options->pins = parsePins(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(kPinsOption, error.what());
    }
  };
  write
      .add_option_function<std::string>(kPinsOption, parse,
                                        "1 to 32 GPIO lines, the one of bit 0 first, each in any "
                                        "form of\n--cs")
      ->type_name("PIN,...")
      ->required();
}

}  // namespace
}  // namespace address

void registerAddress(App& app) {
  app.addChip(address::kChip, address::addOperations);
}

}  // namespace tool
