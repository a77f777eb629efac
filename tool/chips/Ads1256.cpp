// SPDX-License-Identifier: MIT
#include "tool/chips/Ads1256.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "tool/chips/Converter.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"

namespace tool {
namespace ads1256 {
namespace {

constexpr unsigned int kChannels = 4;
// Between a command and its data the chip needs 6.5 us, and the driver leaves it half a clock.
constexpr uint16_t kWorkingKHz = 75;
// The driver starts the self-calibration and leaves; 2 ms at 7.68 MHz, more with a slower crystal.
constexpr unsigned int kCalibrationMs = 20;

constexpr const char* kChannelsOption = "--channels";
constexpr const char* kReadyOption = "--drdy";
constexpr const char* kResetOption = "--reset";

constexpr ConverterChip kChip = {
    .info = {.name = "ads1256",
             .title = "ADS1256",
             .about = "24-bit analog-to-digital converter, four channels",
             .selectActiveLow = true,
             .behindExpander = {.reason = "it needs SPI mode 1, and the transfer that selects it "
                                          "leaves the bus in mode 0"},
             .ownKHz = kWorkingKHz,
             .highestKHz = 200},
    .noAnswerHint =
        "whether the chip has power and its crystal or clock runs; --reset at RESET, and SYNC/PDWN "
        "high; the wires of DIN, DOUT and SCLK; --cs with --cs-active-low; a lower --speed, which "
        "also gives the chip more time to calibrate after the reset"};

struct Options {
  std::optional<PinSpec> ready;
  std::optional<PinSpec> reset;
  std::vector<unsigned int> channels = {0, 1, 2, 3};
  double vref = 2.5;
  bool plot = false;
  Repetition repetition;
};

std::vector<unsigned int> parseChannels(const std::string& text) {
  std::vector<unsigned int> channels;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(',', begin), text.size());
    const std::string word = text.substr(begin, end - begin);
    if (word.size() != 1 || word[0] < '0' || word[0] >= static_cast<char>('0' + kChannels)) {
      throw CLI::ValidationError(
          kChannelsOption, fmt::format("'{}' is not a channel from 0 to {}", word, kChannels - 1));
    }
    const auto channel = static_cast<unsigned int>(word[0] - '0');
    if (std::find(channels.begin(), channels.end(), channel) != channels.end()) {
      throw CLI::ValidationError(kChannelsOption, fmt::format("'{}' stands there twice", word));
    }
    channels.push_back(channel);
    begin = end + 1;
  }
  return channels;
}

void read(const Context& context, const Options& options, ConverterLink& link) {
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 converter;
  link.bind(converter);
  const unsigned int resetPin = link.line({kResetOption, *options.reset});
  const unsigned int readyPin = link.line({kReadyOption, *options.ready});
  converter.configurePins(resetPin, readyPin);
  converter.setUsedChannels({options.channels.begin(), options.channels.end()});
  link.open([&] { return converter.open(); });
  link.interrupt().sleep(kCalibrationMs, link.interrupt().count());

  ConverterOutput output(context.out, context.options.format, kChip.info.name, options.channels,
                         options.plot, terminalOf(context.out));
  repeat(options.repetition, link.interrupt(), [&](uint64_t round) {
    // Four reads: that is every used channel at least once, wherever the scan stands.
    link.run([&] { return converter.doConversion(); });
    std::vector<ConverterReading> readings;
    for (size_t i = 0; i < options.channels.size(); ++i) {
      const int32_t number = signedCode(converter.readChannel(static_cast<uint16_t>(i)));
      // The chip's full scale is twice the reference, and the driver sets a gain of 2.
      readings.push_back({options.channels[i], number, converterVolts(number, options.vref)});
    }
    output.write(round, readings);
  });
}

void noteSpeed(const Context& context) {
  if (context.options.speedGiven && context.options.speedKHz > kWorkingKHz) {
    report(context.err,
           fmt::format("note: above {} kHz a controller that sends bytes without a gap asks for a "
                       "result before the {} has it: readings may be noise",
                       kWorkingKHz, kChip.info.title));
  }
}

void addOperations(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = app.addOperation(
      chip, "read",
      "Start and calibrate the converter, convert the channels and print codes and volts: channel "
      "n\n"
      "is AIN(2n) - AIN(2n+1). Codes are printed with their sign: the chip sends 0x800000 and "
      "above\n"
      "for negative voltages. Without --speed the bus clock is 75 kHz, at which the chip keeps up\n"
      "with the driver, and above 200 kHz it is 200.",
      "  varnel ads1256 read --cs 25 --cs-active-low --drdy 24 --reset 23\n"
      "  varnel ads1256 read --channels 0,1,3 --count 100 --output csv --cs GPIO25 --cs-active-low "
      "--drdy GPIO24 --reset GPIO23\n"
      "  varnel ads1256 read --plot --count 0 --cs 25 --cs-active-low --drdy 24 --reset 23",
      [options](const Context& context) {
        noteSpeed(context);
        return runConverter(context, kChip,
                            [&](ConverterLink& link) { read(context, *options, link); });
      });
  addPinOption(command, kReadyOption, options->ready, "GPIO line at DRDY, in any form of --cs")
      ->required();
  addPinOption(command, kResetOption, options->reset,
               "GPIO line at RESET; the tool pulls it low for 10 ms at the start")
      ->required();
  command
      .add_option_function<std::string>(
          kChannelsOption,
          [options](const std::string& text) { options->channels = parseChannels(text); },
          "channels to convert, 0 to 3, in this order")
      ->type_name("CHANNEL,...")
      ->default_str("0,1,2,3");
  addReference(command, options->vref,
               "reference voltage in volts, above 0: VREFP - VREFN. With the gain of\n"
               "2 that the driver sets it is also full scale");
  addPlot(command, options->plot);
  addRepetition(command, options->repetition);
}

}  // namespace
}  // namespace ads1256

void registerAds1256(App& app) {
  app.addChip(ads1256::kChip.info, ads1256::addOperations);
}

}  // namespace tool
