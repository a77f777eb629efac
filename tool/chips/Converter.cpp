// SPDX-License-Identifier: MIT
#include "tool/chips/Converter.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "tool/ChipError.h"

namespace tool {
namespace {

constexpr TErrCode kNotVerified = -201;
constexpr int32_t kCodes = 0x1000000;
constexpr int32_t kFirstNegative = 0x800000;
constexpr double kHighestCode = 0x7FFFFF;
/// Two tries, each with a write and a read-back.
constexpr unsigned int kFramesOfARegister = 4;

constexpr Column kColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "channel"},
    {.name = "code", .textWidth = 8},
    {.name = "volts", .unit = "V", .textWidth = 10, .textDecimals = 7, .dataDecimals = 9},
};

}  // namespace

int32_t signedCode(int32_t code) {
  return code >= kFirstNegative ? code - kCodes : code;
}

double converterVolts(int32_t number, double fullScale) {
  return number * fullScale / kHighestCode;
}

TErrCode ConverterLink::Select::enable(bool select) {
  ++calls;
  frames += select ? 1 : 0;
  const TErrCode code = inner == nullptr ? 0 : inner->enable(select);
  // A line that could not be released may still select.
  selected = select || (selected && code < 0);
  return code;
}

void ConverterLink::bind(Varnel::CLinuxSpiDevice& device) {
  session_.bind(device);
  select_.inner = device.chipSelector();
  device.setChipSelector(&select_);
  device_ = &device;
}

unsigned int ConverterLink::line(const ControlLine& line) {
  const unsigned int number = session_.pinNumber(line.pin);
  // As an input, so that nothing moves on the line.
  Orv::CLinuxIoPin probe(number, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
  session_.checkLine(Step::ConnectPin, probe.connect(), line.pin.text, line.option);
  options_ += (options_.empty() ? "" : ", ") + std::string(line.option);
  pins_ += (pins_.empty() ? "" : ", ") + line.pin.text;
  return number;
}

void ConverterLink::open(const std::function<TErrCode()>& operation) {
  select_.calls = 0;
  run([&] {
    const TErrCode code = operation();
    if (select_.calls == 0) {
      session_.checkLine(Step::ControlLines, code, pins_, options_);
    }
    return code;
  });
}

TErrCode ConverterLink::run(const std::function<TErrCode()>& operation) {
  select_.frames = 0;
  TErrCode code = 0;
  session_.run(*device_, [&] {
    code = operation();
    return code == kNotVerified || code == kNotReady ? 0 : code;
  });
  if (code == kNotVerified) {
    notVerified();
  }
  return code;
}

void ConverterLink::notVerified() const {
  if (select_.frames <= kFramesOfARegister) {
    throw ChipError(
        fmt::format("the {} does not answer: the register written first does not read back as it "
                    "was written, also after a second try ({})",
                    chip_.info.title, kNotVerified),
        std::string(chip_.noAnswerHint));
  }
  throw ChipError(
      fmt::format("the {} answers, but one of its registers does not read back as it was written, "
                  "also after a second try ({})",
                  chip_.info.title, kNotVerified),
      "again; a lower --speed; whether the wires are short and nothing else drives MISO");
}

int runConverter(const Context& context, const ConverterChip& chip,
                 const std::function<void(ConverterLink&)>& body) {
  int failed = 0;
  const int status = runSession(context.options, chip.info, context.err, [&](Session& session) {
    ConverterLink link(chip, session);
    try {
      body(link);
      return;
    } catch (const ChipError& error) {
      report(context.err, error.what());
    } catch (const DeviceError& error) {
      report(context.err, error.what());
    }
    failed = 1;
    if (link.selected()) {
      report(context.err, fmt::format("note: that was in the middle of an exchange, which left the "
                                      "{} selected; the tool deselects it now",
                                      chip.info.title));
    }
  });
  return std::max(status, failed);
}

ConverterOutput::ConverterOutput(std::ostream& out, Format format, std::string_view chip,
                                 const std::vector<unsigned int>& channels, bool plot,
                                 const Terminal& terminal)
    : records_(out, format, chip, kColumns) {
  if (plot && terminal.present && format == Format::Text) {
    std::vector<std::string> names;
    names.reserve(channels.size());
    for (const unsigned int channel : channels) {
      names.push_back(fmt::format("channel {}", channel));
    }
    plot_.emplace(out, terminal, std::move(names), "V");
  }
}

void ConverterOutput::write(uint64_t round, std::span<const ConverterReading> readings) {
  if (plot_) {
    std::vector<double> volts;
    for (const ConverterReading& reading : readings) {
      volts.push_back(reading.volts);
    }
    plot_->add(volts);
    return;
  }
  for (const ConverterReading& reading : readings) {
    records_.write({static_cast<int64_t>(round), int64_t{reading.channel}, int64_t{reading.number},
                    reading.volts});
  }
}

void addReference(CLI::App& command, double& volts, const std::string& about) {
  addPositive(command, "--vref", volts, "a voltage", about)->type_name("V");
}

void addPlot(CLI::App& command, bool& plot) {
  command.add_flag("--plot", plot,
                   "on a terminal a row for each channel that shows the course of its\n"
                   "voltage, instead of lines; elsewhere, and for csv and json, lines as\n"
                   "without it");
}

CLI::Option* addChoice(CLI::App& command, const std::string& name, std::optional<uint8_t>& index,
                       std::span<const unsigned int> numbers, const std::string& about) {
  const auto parse = [&index, name, numbers](const std::string& text) {
    for (size_t i = 0; i < numbers.size(); ++i) {
      if (text == std::to_string(numbers[i])) {
        index = static_cast<uint8_t>(i);
        return;
      }
    }
    throw CLI::ValidationError(name,
                               fmt::format("'{}' is none of {}", text, fmt::join(numbers, ", ")));
  };
  return command.add_option_function<std::string>(name, parse, about);
}

}  // namespace tool
