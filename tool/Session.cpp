// SPDX-License-Identifier: MIT
#include "tool/Session.h"

#include <fmt/format.h>

#include <cerrno>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace tool {
namespace {

constexpr std::string_view kSelectOption = "--cs";

}  // namespace

TErrCode SelectPin::enable(bool select) {
  const TErrCode code = selector_.enable(select);
  if (code < 0) {
    failure_ = {select ? Step::Select : Step::Deselect, code};
  }
  return code;
}

std::optional<std::pair<Step, TErrCode>> SelectPin::takeFailure() {
  return std::exchange(failure_, std::nullopt);
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

Failure Session::failure(Step step, TErrCode code) const {
  Failure failure;
  failure.step = step;
  failure.code = code;
  failure.node = options_.node;
  failure.pin = options_.selectPin ? options_.selectPin->text : "";
  failure.option = kSelectOption;
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
  if (const TErrCode code = pin.connect(); code < 0) {
    Failure failed = failure(Step::ConnectPin, code);
    failed.pin = spec.text;
    failed.option = option;
    throw DeviceError(std::move(failed));
  }
  return pin;
}

void Session::open() {
  // Before the bus, so that nothing the node does when it is opened reaches a selected chip.
  if (options_.selectPin) {
    const Orv::ePinMode mode = options_.selectActiveLow ? Orv::PIN_MODE_INVERT : Orv::PIN_MODE_HW;
    select_ = std::make_unique<SelectPin>(
        connectPin(*options_.selectPin, kSelectOption, Orv::OUTPUT_PIN, mode));
  }
  bus_.setSPIDevice(options_.node);
  bus_.setSpiSpeedKHz(options_.speedKHz);
  if (const TErrCode code = bus_.open(); code < 0) {
    throw DeviceError(failure(bus_.isOpen() ? Step::SetUpNode : Step::OpenNode, code));
  }
}

void Session::bind(Varnel::CLinuxSpiDevice& device) {
  // A transfer on a closed bus would work on descriptor 0.
  if (!bus_.isOpen()) {
    throw std::logic_error("the bus is not open");
  }
  device.setBus(&bus_);
  device.setChipSelector(select_.get());
}

void Session::check(TErrCode code) {
  if (code >= 0) {
    return;
  }
  const auto selecting = select_ ? select_->takeFailure() : std::nullopt;
  throw DeviceError(selecting ? failure(selecting->first, selecting->second)
                              : failure(Step::Transfer, code));
}

std::vector<Failure> Session::close() {
  if (std::exchange(closed_, true)) {
    return {};
  }
  // Everything is released first, then talked about. A failed transfer left the chip selected.
  const TErrCode deselected = select_ ? select_->enable(false) : 0;
  const TErrCode closed = bus_.isOpen() ? bus_.close() : 0;
  select_.reset();
  if (mappedPins_ > 0) {
    Orv::CPinMap::uninstall();
  }
  std::vector<Failure> failures;
  if (deselected < 0) {
    failures.push_back(failure(Step::Deselect, deselected));
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
