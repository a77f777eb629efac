// SPDX-License-Identifier: MIT
#include "tool/Session.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "tool/ChipError.h"

namespace tool {
namespace {

constexpr std::string_view kSelectOption = "--cs";
constexpr std::string_view kExpanderOption = "--expander";

uint16_t busSpeedKHz(const GlobalOptions& options, const ChipInfo& chip) {
  const bool own = !options.speedGiven && chip.ownKHz != 0;
  return std::min(own ? chip.ownKHz : options.speedKHz, chip.highestKHz);
}

}  // namespace

TErrCode SelectPin::enable(bool select) {
  return trouble_.note(select ? Step::Select : Step::Deselect, selector_.enable(select));
}

Session::Session(const GlobalOptions& options, const ChipInfo& chip)
    : options_(options), chip_(chip) {
}

Session::~Session() {
  try {
    close();
  } catch (...) {
    // Out of memory while describing a failure: everything that could be released is.
  }
}

Session::Line Session::lineOf(Step step) const {
  switch (step) {
    case Step::Latch: return latch_.value_or(Line{});
    case Step::ExpanderSelectLatch:
    case Step::ExpanderSelectTransfer:
    case Step::ExpanderDeselectLatch:
    case Step::ExpanderDeselectTransfer:
      return {options_.expander ? options_.expander->latch.text : "", std::string(kExpanderOption)};
    default:
      return {options_.selectPin ? options_.selectPin->text : "", std::string(kSelectOption)};
  }
}

Failure Session::failure(Step step, TErrCode code) const {
  Failure failure;
  failure.step = step;
  failure.code = code;
  failure.node = options_.node;
  Line line = lineOf(step);
  failure.pin = std::move(line.pin);
  failure.option = std::move(line.option);
  failure.chip = chip_.title;
  failure.wordBits = chip_.wordBits;
  return failure;
}

unsigned int Session::pinNumber(const PinSpec& spec) {
  if (const auto* number = std::get_if<PinNumber>(&spec.pin)) {
    return number->number;
  }
  const unsigned int pin = kFirstMappedPin + mappedPins_++;
  if (const auto* line = std::get_if<PinChipLine>(&spec.pin)) {
    pinMap_.addLine(pin, line->chip, line->line);
  } else {
    pinMap_.addLineName(pin, std::get<PinLineName>(spec.pin).name);
  }
  // Should an entry have been refused, connecting the pin says that there is no such line.
  Orv::CPinMap::install(pinMap_);
  return pin;
}

Orv::CLinuxIoPin Session::connectPin(const PinSpec& spec, std::string_view option,
                                     Orv::ePinDirection direction, Orv::ePinMode mode) {
  Orv::CLinuxIoPin pin(pinNumber(spec), direction, mode);
  checkLine(Step::ConnectPin, pin.connect(), spec.text, option);
  return pin;
}

Orv::CLinuxIoPin Session::connectLatch(const PinSpec& spec, std::string_view option,
                                       Orv::ePinMode mode) {
  latch_ = {spec.text, std::string(option)};
  return connectPin(spec, option, Orv::OUTPUT_PIN, mode);
}

unsigned int Session::latchNumber(const PinSpec& spec, std::string_view option) {
  latch_ = {spec.text, std::string(option)};
  return pinNumber(spec);
}

void Session::checkLine(Step step, TErrCode code, std::string_view pin,
                        std::string_view option) const {
  if (code < 0) {
    Failure failed = failure(step, code);
    failed.pin = pin;
    failed.option = option;
    throw DeviceError(std::move(failed));
  }
}

void Session::open() {
  if (!chip_.usesBus) {
    return;
  }
  // Before the bus, so that nothing the node does when it is opened reaches a selected chip.
  if (options_.selectPin) {
    const Orv::ePinMode mode = options_.selectActiveLow ? Orv::PIN_MODE_INVERT : Orv::PIN_MODE_HW;
    select_ = std::make_unique<SelectPin>(
        connectPin(*options_.selectPin, kSelectOption, Orv::OUTPUT_PIN, mode), trouble_);
  }
  std::optional<Orv::CLinuxIoPin> expanderLatch;
  if (options_.expander) {
    expanderLatch =
        connectPin(options_.expander->latch, kExpanderOption, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  }
  bus_.setSPIDevice(options_.node);
  bus_.setSpiSpeedKHz(busSpeedKHz(options_, chip_));
  if (chip_.openMode && !options_.selectPin && !options_.expander) {
    bus_.setMode(*chip_.openMode);
  }
  if (const TErrCode code = bus_.open(); code < 0) {
    throw DeviceError(failure(bus_.isOpen() ? Step::SetUpNode : Step::OpenNode, code));
  }
  if (expanderLatch) {
    expander_ = std::make_unique<Expander>(*options_.expander, options_.expanderNone,
                                           *expanderLatch, bus_, trouble_);
    // At power-up the outputs hold anything.
    check(expander_->deselectAll());
  }
}

void Session::bind(Varnel::CLinuxSpiDevice& device) {
  // A transfer on a closed bus would work on descriptor 0.
  if (!bus_.isOpen()) {
    throw std::logic_error("the bus is not open");
  }
  device.setBus(&bus_);
  if (expander_) {
    expander_->attach(device);
  } else {
    device.setChipSelector(select_.get());
  }
}

int32_t Session::run(Varnel::CLinuxSpiDevice& device, const std::function<int32_t()>& operation) {
  if (!expander_ || !expander_->implicitly()) {
    return check(operation());
  }
  // An implicit selection only stores the address; the drivers don't know of the latch.
  check(device.enableChipSelect(true));
  check(expander_->latchStored(true));
  const int32_t result = check(operation());
  check(expander_->latchStored(false));
  return result;
}

int32_t Session::check(int32_t code) {
  const auto noted = trouble_.take();
  if (code >= 0) {
    return code;
  }
  // Transfers and selects are noted: what else can fail in a driver is the chip's latch line.
  const Step otherwise = latch_ ? Step::Latch : Step::Transfer;
  throw DeviceError(failure(noted ? noted->first : otherwise, code));
}

std::vector<Failure> Session::close() {
  if (std::exchange(closed_, true)) {
    return {};
  }
  // Everything is released first, then talked about. A failed transfer left the chip selected.
  trouble_.take();
  if (select_) {
    select_->enable(false);
  }
  // A transfer on a closed bus would work on descriptor 0.
  if (expander_ && bus_.isOpen()) {
    expander_->deselectAll();
  }
  const auto deselecting = trouble_.take();
  const TErrCode closed = bus_.isOpen() ? bus_.close() : 0;
  select_.reset();
  expander_.reset();
  if (mappedPins_ > 0) {
    Orv::CPinMap::uninstall();
  }
  std::vector<Failure> failures;
  if (deselecting) {
    failures.push_back(failure(deselecting->first, deselecting->second));
  }
  if (closed < 0) {
    failures.push_back(failure(Step::CloseNode, closed));
  }
  return failures;
}

void report(std::ostream& err, std::string_view message) {
  err << "varnel: " << message << '\n' << std::flush;
}

int runSession(const GlobalOptions& options, const ChipInfo& chip, std::ostream& err,
               const std::function<void(Session&)>& body) {
  if (options.selectPin && chip.selectActiveLow && !options.selectActiveLow) {
    report(err, fmt::format("note: {} selects with a high line, the {} is selected by a low one: "
                            "without an inverter between them add --cs-active-low",
                            kSelectOption, chip.title));
  }
  Session session(options, chip);
  int status = 0;
  try {
    session.open();
    body(session);
  } catch (const DeviceError& error) {
    report(err, error.what());
    status = 1;
  } catch (const ChipError& error) {
    report(err, error.what());
    status = 1;
  } catch (const OutputError& error) {
    // Who reads through a pipe has seen enough, as head(1) does.
    if (error.errorNumber() != EPIPE) {
      report(err, error.what());
    }
    status = 1;
  }
  for (const Failure& failure : session.close()) {
    report(err, describe(failure));
    status = 1;
  }
  return status;
}

}  // namespace tool
