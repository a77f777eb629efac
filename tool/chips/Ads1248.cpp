// SPDX-License-Identifier: MIT
#include "tool/chips/Ads1248.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "tool/ChipError.h"
#include "tool/chips/Converter.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"

namespace tool {
namespace ads1248 {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned int kChannels = 2;
// The chip hears nothing for 0.6 ms after the reset. At this clock the driver's second try with the
// first register comes later than that, however fast the system calls are.
constexpr uint16_t kWorkingKHz = 100;

// By the code of the driver.
constexpr unsigned int kRates[] = {5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000};
constexpr unsigned int kGains[] = {1, 2, 4, 8, 16, 32, 64, 128};
// From the change of the inputs to the result, rounded up: every result is a settled one.
constexpr milliseconds kConversions[] = {
    milliseconds(201), milliseconds(101), milliseconds(51), milliseconds(26), milliseconds(13),
    milliseconds(7),   milliseconds(4),   milliseconds(2),  milliseconds(2),  milliseconds(1)};

constexpr const char* kStartOption = "--start";
constexpr const char* kReadyOption = "--drdy";
constexpr const char* kResetOption = "--reset";

constexpr ConverterChip kChip = {
    .info = {.name = "ads1248",
             .title = "ADS1248",
             .about = "24-bit analog-to-digital converter, two channels for thermometers",
             .selectActiveLow = true,
             .behindExpander = {.reason = "it needs SPI mode 1, and the transfer that selects it "
                                          "leaves the bus in mode 0"},
             .ownKHz = kWorkingKHz,
             .highestKHz = 2000},
    .noAnswerHint =
        "whether the chip has power; --start at START, which must be high for writing, and --reset "
        "at RESET; the wires of DIN, DOUT and SCLK; --cs with --cs-active-low; a lower --speed, "
        "which also gives the chip more time after the reset"};

constexpr Column kSetColumns[] = {
    {.name = "rate", .unit = "samples/s"},
    {.name = "gain"},
};

struct Options {
  std::optional<PinSpec> start;
  std::optional<PinSpec> ready;
  std::optional<PinSpec> reset;
  std::optional<uint8_t> rate;  ///< a code of the driver, as the gain
  std::optional<uint8_t> gain;
  double vref = 2.5;
  double vref1 = 0;  ///< 0: as `vref`
  bool plot = false;
  Repetition repetition;
};

/// The driver, and how many results it fetched: one call fetches two, one or none, and its code
/// tells only the first apart.
class Converter : public Varnel::CSpiAnalogIn2x24Bit_ADS1248 {
 public:
  using Varnel::CSpiAnalogIn2x24Bit_ADS1248::executeManagedTransfer;
  TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override {
    const TErrCode code = Varnel::CSpiAnalogIn2x24Bit_ADS1248::executeManagedTransfer(handling);
    results += code < 0 ? 0 : 1;
    return code;
  }
  unsigned int results = 0;
};

/// Starts the converter and sets what is asked for.
void start(Converter& converter, ConverterLink& link, const Options& options) {
  link.bind(converter);
  const unsigned int startPin = link.line({kStartOption, *options.start});
  const unsigned int readyPin = link.line({kReadyOption, *options.ready});
  const unsigned int resetPin = link.line({kResetOption, *options.reset});
  converter.configurePins(startPin, readyPin, resetPin);
  link.open([&] { return converter.open(); });
  if (options.rate || options.gain) {
    // The chip stops sending results by itself only with the next one, and a register that is read
    // while a result comes is spoilt.
    link.interrupt().sleep(static_cast<unsigned int>(kConversions[converter.dataRate()].count()),
                           link.interrupt().count());
  }
  if (options.gain) {
    link.run([&] { return converter.setPGAGain(*options.gain); });
  }
  if (options.rate) {
    link.run([&] { return converter.setDataRate(*options.rate); });
  }
}

/// Fetches results until both channels have a new one, whatever one call of the driver brings.
class Scan {
 public:
  Scan(Converter& converter, ConverterLink& link, const PinSpec& readyPin)
      : converter_(converter),
        link_(link),
        readyPin_(readyPin),
        conversion_(kConversions[converter.dataRate()]),
        begun_(Clock::now()) {}

  void run();

 private:
  void waitForResult();
  [[noreturn]] void timedOut();

  Converter& converter_;
  ConverterLink& link_;
  const PinSpec& readyPin_;
  milliseconds conversion_;
  Clock::time_point begun_;  // of the conversion at hand
};

void Scan::waitForResult() {
  // The driver looks for 2 ms itself; asked all the time, it would log each time it sees nothing.
  constexpr milliseconds kDriverWaits(2);
  const auto left = std::chrono::duration_cast<milliseconds>(begun_ + conversion_ - Clock::now());
  if (left > kDriverWaits) {
    link_.interrupt().sleep(static_cast<unsigned int>((left - kDriverWaits).count()),
                            link_.interrupt().count());
  }
}

void Scan::timedOut() {
  const unsigned int rate = kRates[converter_.dataRate()];
  throw ChipError(
      fmt::format("time-out: DRDY of the ADS1248 stayed high for {} ms, a conversion at {} "
                  "samples/s takes {} ms",
                  std::chrono::duration_cast<milliseconds>(Clock::now() - begun_).count(), rate,
                  conversion_.count()),
      fmt::format("whether line {} ({}) is at DRDY and {} at START; whether the external clock "
                  "runs, if CLK is not tied low; gpioinfo shows whether the lines are still there",
                  readyPin_.text, kReadyOption, kStartOption));
}

void Scan::run() {
  // The driver fetches the channels in turn, channel 0 first.
  unsigned int fresh = 0;
  const Clock::time_point asked = Clock::now();
  while (fresh < kChannels) {
    waitForResult();
    converter_.results = 0;
    link_.run([&] { return converter_.doConversion(); });
    if (converter_.results > 0) {
      fresh += converter_.results;
      begun_ = Clock::now();
    } else if (Clock::now() - std::max(begun_, asked) > 3 * conversion_ + milliseconds(100)) {
      timedOut();
    }
  }
}

void read(const Context& context, const Options& options, ConverterLink& link) {
  Converter converter;
  start(converter, link, options);
  Scan scan(converter, link, *options.ready);
  ConverterOutput output(context.out, context.options.format, kChip.info.name, {0, 1}, options.plot,
                         terminalOf(context.out));
  const double gain = kGains[converter.pGAGain()];
  const double fullScales[kChannels] = {options.vref / gain,
                                        (options.vref1 > 0 ? options.vref1 : options.vref) / gain};
  repeat(options.repetition, link.interrupt(), [&](uint64_t round) {
    scan.run();
    ConverterReading readings[kChannels];
    for (unsigned int channel = 0; channel < kChannels; ++channel) {
      const int32_t number = signedCode(converter.readChannel(static_cast<uint16_t>(channel)));
      readings[channel] = {channel, number, converterVolts(number, fullScales[channel])};
    }
    output.write(round, readings);
  });
}

void set(const Context& context, const Options& options, ConverterLink& link) {
  Converter converter;
  start(converter, link, options);
  RecordWriter writer(context.out, context.options.format, kChip.info.name, kSetColumns);
  writer.write({int64_t{kRates[converter.dataRate()]}, int64_t{kGains[converter.pGAGain()]}});
}

CLI::App& addOperation(App& app, CLI::App& chip, const std::string& name, const std::string& about,
                       const std::string& examples, const std::shared_ptr<Options>& options,
                       void (*body)(const Context&, const Options&, ConverterLink&)) {
  CLI::App& operation =
      app.addOperation(chip, name, about, examples, [options, body](const Context& context) {
        return runConverter(context, kChip,
                            [&](ConverterLink& link) { body(context, *options, link); });
      });
  addPinOption(operation, kStartOption, options->start,
               "GPIO line at START, in any form of --cs; the tool keeps it high")
      ->required();
  addPinOption(operation, kReadyOption, options->ready, "GPIO line at DRDY")->required();
  addPinOption(operation, kResetOption, options->reset,
               "GPIO line at RESET; the tool pulls it low for 10 ms at the start")
      ->required();
  return operation;
}

void addSetters(App& app, CLI::App& chip) {
  constexpr const char* kAfterwards =
      "\nIt lasts until the next reset, and every command begins with one: read has options for\n"
      "both.";
  const auto rate = std::make_shared<Options>();
  CLI::App& rateCommand = addOperation(
      app, chip, "rate",
      std::string("Start the converter, set its data rate, read it back and print it.") +
          kAfterwards,
      "  varnel ads1248 rate 640 --cs 25 --cs-active-low --start 22 --drdy 24 --reset 23", rate,
      set);
  addChoice(rateCommand, "RATE", rate->rate, kRates,
            "samples per second: 5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000")
      ->required()
      ->type_name("");

  const auto gain = std::make_shared<Options>();
  CLI::App& gainCommand = addOperation(
      app, chip, "gain",
      std::string("Start the converter, set its gain, read it back and print it.") + kAfterwards,
      "  varnel ads1248 gain 32 --cs 25 --cs-active-low --start 22 --drdy 24 --reset 23", gain,
      set);
  addChoice(gainCommand, "GAIN", gain->gain, kGains, "1, 2, 4, 8, 16, 32, 64, 128")
      ->required()
      ->type_name("");
}

void addRead(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = addOperation(
      app, chip, "read",
      "Start the converter, convert both channels and print codes and volts: channel 0 is AIN0 -\n"
      "AIN1 against REF0, channel 1 is AIN7 - AIN6 against REF1. Codes are printed with their "
      "sign:\n"
      "the chip sends 0x800000 and above for negative voltages. At 320 samples/s and below the\n"
      "chip stays selected from one reading to the next. Without --speed the bus clock is 100 kHz, "
      "slow\n"
      "enough for the chip to wake up from its reset, and above 2 MHz it is 2 MHz.",
      "  varnel ads1248 read --cs 25 --cs-active-low --start 22 --drdy 24 --reset 23\n"
      "  varnel ads1248 read --rate 640 --gain 1 --vref 2.048 --count 100 --output csv --cs GPIO25 "
      "--cs-active-low --start GPIO22 --drdy GPIO24 --reset GPIO23\n"
      "  varnel ads1248 read --plot --count 0 --cs 25 --cs-active-low --start 22 --drdy 24 --reset "
      "23",
      options, read);
  addChoice(command, "--rate", options->rate, kRates,
            "samples per second: 5, 10, 20, 40, 80, 160, 320, 640, 1000 or 2000")
      ->type_name("RATE")
      ->default_str("80");
  addChoice(command, "--gain", options->gain, kGains, "1, 2, 4, 8, 16, 32, 64 or 128")
      ->type_name("GAIN")
      ->default_str("8");
  addReference(command, options->vref,
               "reference voltage in volts, above 0: REF0, and REF1 without\n--vref1");
  addPositive(command, "--vref1", options->vref1, "a voltage",
              "reference voltage in volts at REF1, if it is another")
      ->type_name("V")
      ->default_str("");
  addPlot(command, options->plot);
  addRepetition(command, options->repetition);
}

void addOperations(App& app, CLI::App& chip) {
  addRead(app, chip);
  addSetters(app, chip);
}

}  // namespace
}  // namespace ads1248

void registerAds1248(App& app) {
  app.addChip(ads1248::kChip.info, ads1248::addOperations);
}

}  // namespace tool
