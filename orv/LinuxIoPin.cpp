// SPDX-License-Identifier: MIT
#include "orv/LinuxIoPin.h"

#include <cerrno>
#include <utility>

#include "orv/GpioLookup_p.h"
#include "orv/Immortal_p.h"
#include "orv/LinuxIoPin_p.h"

namespace Orv {
namespace {

/// Stands for the private part of a pin when there is no memory for one. It is never connected.
struct stNoMemory {
  CLinuxIoPinPrivate Pin;
};

std::shared_ptr<CLinuxIoPinPrivate> makePrivate(unsigned int pin, ePinDirection direction,
                                                ePinMode mode) {
  try {
    return std::make_shared<CLinuxIoPinPrivate>(pin, direction, mode);
  } catch (...) {
    // Owns nothing, so this takes no memory either.
    return {std::shared_ptr<void>(), &immortal<stNoMemory>().Pin};
  }
}

/// Why a pin without a line has none, as far as its object knows.
TErrCode missingPrivate(const CLinuxIoPinPrivate* pin, TErrCode movedFrom) {
  if (pin == nullptr) {
    return movedFrom;
  }
  return pin == &immortal<stNoMemory>().Pin ? -ENOMEM : 0;
}

TErrCode requestLine(CLinuxIoPinPrivate& pin) {
  CGpioLine chip;
  unsigned int line = 0;
  TErrCode error = openChipOfPin(pin.Pin, chip, line);
  if (error == 0) {
    error = chip.request(line, pin.Direction == OUTPUT_PIN, pin.Mode == PIN_MODE_INVERT);
  }
  if (error == 0) {
    pin.Line = std::move(chip);
  }
  return error;
}

}  // namespace

CLinuxIoPin::CLinuxIoPin(unsigned int pin, ePinDirection direction, ePinMode mode)
    : d(makePrivate(pin, direction, mode)) {
}

CLinuxIoPin::CLinuxIoPin(const CLinuxIoPin& other) = default;
CLinuxIoPin::CLinuxIoPin(CLinuxIoPin&& other) noexcept = default;
CLinuxIoPin& CLinuxIoPin::operator=(const CLinuxIoPin& other) = default;
CLinuxIoPin& CLinuxIoPin::operator=(CLinuxIoPin&& other) noexcept = default;
CLinuxIoPin::~CLinuxIoPin() = default;

void CLinuxIoPin::configure(unsigned int pin, ePinDirection direction, ePinMode mode) {
  d = makePrivate(pin, direction, mode);
}

TErrCode CLinuxIoPin::connect() {
  if (const TErrCode error = missingPrivate(d.get(), -EINVAL); error < 0) {
    return error;
  }
  const std::lock_guard<std::mutex> lock(d->Mutex);
  if (d->Line.isOpen() && !d->IsFaulty) {
    return 0;
  }
  d->Line.close();
  d->IsFaulty = false;
  try {
    return requestLine(*d);
  } catch (...) {
    return -ENOMEM;
  }
}

TErrCode CLinuxIoPin::write(ePinValue value) {
  if (const TErrCode error = missingPrivate(d.get(), -EBADF); error < 0) {
    return error;
  }
  const std::lock_guard<std::mutex> lock(d->Mutex);
  if (!d->Line.isOpen()) {
    return -EBADF;
  }
  if (d->Direction != OUTPUT_PIN) {
    return -EPERM;
  }
  const TErrCode error = d->Line.write(value != LOW);
  d->IsFaulty = error < 0;
  return error;
}

int CLinuxIoPin::read() {
  if (const TErrCode error = missingPrivate(d.get(), -EBADF); error < 0) {
    return error;
  }
  const std::lock_guard<std::mutex> lock(d->Mutex);
  if (!d->Line.isOpen()) {
    return -EBADF;
  }
  const int value = d->Line.read();
  d->IsFaulty = value < 0;
  return value;
}

}  // namespace Orv
