// SPDX-License-Identifier: MIT
// The operations of the companion library and of its logger that the driver library imports.
#include <log4cplus/logger.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include "orv/Diag.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "tests/wire/Journal.h"

namespace {

using wire::EntryKind;
using State = wire::Wire::State;

struct PinState {
  unsigned int number;
  Orv::ePinDirection direction;
  Orv::ePinMode mode;
  bool connected = false;

  std::string prefix() const { return "pin " + std::to_string(number) + ": "; }
  std::string settings() const {
    return std::string(direction == Orv::OUTPUT_PIN ? "OUTPUT_PIN" : "INPUT_PIN") +
           (mode == Orv::PIN_MODE_HW ? " PIN_MODE_HW" : " PIN_MODE_INVERT");
  }
};

/// The private part that the pin's header only declares is a PinState here.
std::shared_ptr<Orv::CLinuxIoPinPrivate> makePin(unsigned int pin, Orv::ePinDirection direction,
                                                 Orv::ePinMode mode) {
  auto state = std::make_shared<PinState>(PinState{pin, direction, mode});
  return {state, reinterpret_cast<Orv::CLinuxIoPinPrivate*>(state.get())};
}

PinState& stateOf(const std::shared_ptr<Orv::CLinuxIoPinPrivate>& pin) {
  return *reinterpret_cast<PinState*>(pin.get());
}

/// What a pin answers that can't do what it is asked.
TErrCode refusal(const PinState& pin, bool writes) {
  if (!pin.connected) {
    return -EBADF;
  }
  return writes && pin.direction != Orv::OUTPUT_PIN ? -EPERM : 0;
}

/// Journals one pin operation and gives its code; `refused` is the code without a script.
TErrCode attempt(const PinState& pin, const std::string& operation, TErrCode refused) {
  const int error = State::active()->attempt(EntryKind::Step, pin.prefix() + operation,
                                             " = " + std::to_string(refused));
  return error != 0 ? -error : refused;
}

log4cplus::Logger& diagnostics() {
  static log4cplus::Logger logger = log4cplus::Logger::getInstance("orv.diag");
  return logger;
}

}  // namespace

namespace Orv {

CLinuxIoPin::CLinuxIoPin(unsigned int pin, ePinDirection direction, ePinMode mode)
    : d(makePin(pin, direction, mode)) {
}

CLinuxIoPin::CLinuxIoPin(const CLinuxIoPin& other) = default;
CLinuxIoPin::CLinuxIoPin(CLinuxIoPin&& other) noexcept = default;
CLinuxIoPin& CLinuxIoPin::operator=(const CLinuxIoPin& other) = default;
CLinuxIoPin& CLinuxIoPin::operator=(CLinuxIoPin&& other) noexcept = default;
CLinuxIoPin::~CLinuxIoPin() = default;

void CLinuxIoPin::configure(unsigned int pin, ePinDirection direction, ePinMode mode) {
  d = makePin(pin, direction, mode);
  if (wire::recording()) {
    State::active()->note(stateOf(d).prefix() + "configure " + stateOf(d).settings());
  }
}

TErrCode CLinuxIoPin::connect() {
  if (d == nullptr || State::active() == nullptr) {
    return -EBADF;
  }
  PinState& pin = stateOf(d);
  if (wire::recording()) {
    const TErrCode code = attempt(pin, "connect " + pin.settings(), 0);
    if (code != 0) {
      return code;
    }
  }
  pin.connected = true;
  return 0;
}

TErrCode CLinuxIoPin::write(ePinValue value) {
  if (d == nullptr || State::active() == nullptr) {
    return -EBADF;
  }
  const PinState& pin = stateOf(d);
  const TErrCode refused = refusal(pin, true);
  if (!wire::recording()) {
    return refused;
  }
  const TErrCode code = attempt(pin, value == HIGH ? "write HIGH" : "write LOW", refused);
  if (code == 0) {
    State::active()->pinWritten(pin.number, value);
  }
  return code;
}

int CLinuxIoPin::read() {
  if (d == nullptr || State::active() == nullptr) {
    return -EBADF;
  }
  const PinState& pin = stateOf(d);
  const TErrCode refused = refusal(pin, false);
  if (refused != 0 || !wire::recording()) {
    return refused;
  }
  const int value = State::active()->pinRead(pin.number);
  State::active()->note(pin.prefix() + "read", " = " + std::to_string(value));
  return value;
}

void CThread::sleep(unsigned int milliseconds) {
  if (wire::recording()) {
    State::active()->note("sleep(" + std::to_string(milliseconds) + ")");
  }
}

log4cplus::Logger& Diag::diagLogger() {
  if (State::active() != nullptr && State::active()->diagLoggerThrows) {
    throw std::bad_alloc();
  }
  return diagnostics();
}

}  // namespace Orv

void log4cplus::Logger::log(LogLevel level, const tstring& message, const char* file, int line,
                            const char* function) const {
  if (!wire::recording()) {
    if (State::active() == nullptr && isEnabledFor(level)) {
      forcedLog(level, message, file, line, function);
    }
    return;
  }
  std::string text = "log " + (level == ERROR_LOG_LEVEL ? "ERROR" : std::to_string(level)) + " \"" +
                     message + "\" " + (file == nullptr ? "no file" : file) + " " +
                     (function == nullptr ? "no function" : function);
  if (line <= 0) {
    text += " line " + std::to_string(line);
  }
  if (getName() != diagnostics().getName()) {
    text += " logger " + getName();
  }
  State::active()->lastLogLine = line;
  State::active()->note(text);
  if (State::active()->logThrows) {
    throw std::runtime_error("the log is full");
  }
}
