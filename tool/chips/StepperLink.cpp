// SPDX-License-Identifier: MIT
#include "tool/chips/StepperLink.h"

#include <fmt/format.h>

#include <algorithm>

#include "tool/chips/StepperRegisters.h"

namespace tool {
namespace {

constexpr unsigned int kStatusBytes = 3;  // GetStatus and its answer

}  // namespace

TErrCode StepperLink::Frames::enable(bool select) {
  const TErrCode code = inner == nullptr ? 0 : inner->enable(select);
  completed += !select && code >= 0 ? 1 : 0;
  return code;
}

StepperLink::StepperLink(const StepperChip& chip, Session& session)
    : chip_(chip), session_(session), driver_(chip.make(session.trouble())) {
  session.bind(*driver_);
  frames_.inner = driver_->chipSelector();
  driver_->setChipSelector(&frames_);
}

std::string StepperLink::commandLine(std::string_view operation) const {
  return fmt::format("varnel {} {}", chip_.info.name, operation);
}

void StepperLink::send(const std::function<int32_t(StepperDriver&)>& operation,
                       unsigned int bytes) {
  frames_.completed = 0;
  session_.run(*driver_, [&] {
    const int32_t code = operation(*driver_);
    const auto noted = session_.trouble().take();
    return noted ? session_.trouble().note(noted->first, noted->second) : code;
  });
  if (bytes != 0 && frames_.completed != bytes) {
    throw ChipError(fmt::format("the command byte did not get to the {}, what follows it did",
                                chip_.info.title),
                    fmt::format("{}; a lower bus clock; the line above and dmesg tell the reason",
                                commandLine("stop --hard")));
  }
}

StepperStatus StepperLink::decoded() {
  StepperStatus status = chip_.decode(driver_->status().m_Data);
  if (!status.answered()) {
    throw ChipError(
        fmt::format("no answer from the {}: its status reads {:#06x}", chip_.info.title,
                    status.word),
        "whether it has power and STBY is high, its SDO is at MISO, and --cs is its select, with "
        "--cs-active-low; a lower --speed");
  }
  return status;
}

StepperStatus StepperLink::status() {
  if (!chip_.registers) {
    return clearStatus();
  }
  send([](StepperDriver& driver) { return driver.readStatus(); });
  return decoded();
}

StepperStatus StepperLink::clearStatus() {
  send([](StepperDriver& driver) { return driver.clearStatus(); }, kStatusBytes);
  return decoded();
}

uint32_t StepperLink::get(uint8_t address) {
  uint32_t value = 0;
  send([&](StepperDriver& driver) {
    value = 0;
    return driver.getParameter(address, value);
  });
  return value;
}

void StepperLink::set(uint8_t address, uint32_t value) {
  send([&](StepperDriver& driver) { return driver.setParameter(address, value); });
}

int32_t StepperLink::position() {
  // Not the driver's own conversion, to which the lowest position is 0.
  return positionOf(get(Varnel::ST::ABS_POS));
}

double StepperLink::speed() {
  float speed = 0;
  send([&](StepperDriver& driver) { return driver.getSpeed(speed); });
  return double{speed};
}

int runStepper(const Context& context, const StepperChip& chip,
               const std::function<void(StepperLink&)>& body) {
  int failed = 0;
  const int status = runSession(context.options, chip.info, context.err, [&](Session& session) {
    StepperLink link(chip, session);
    try {
      body(link);
    } catch (const ChipError& error) {
      report(context.err, error.what());
      failed = 1;
    } catch (const DeviceError& error) {
      report(context.err, error.what());
      failed = 1;
    }
    if (link.mayTurn) {
      report(context.err,
             fmt::format("note: the motor may still be turning: {}, or switch its supply off",
                         link.commandLine("stop --hard")));
    }
  });
  return std::max(status, failed);
}

}  // namespace tool
