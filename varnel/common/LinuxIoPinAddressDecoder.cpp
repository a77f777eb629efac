// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxIoPinAddressDecoder.h"

#include <cerrno>

#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr size_t MAX_PINS = 32;  // one for each bit of an address

}  // namespace

CLinuxIoPinAddressDecoder::CLinuxIoPinAddressDecoder() = default;

CLinuxIoPinAddressDecoder::~CLinuxIoPinAddressDecoder() = default;

TErrCode CLinuxIoPinAddressDecoder::addPin(unsigned int pin, Orv::ePinMode mode) {
  if (m_IoPins.size() >= MAX_PINS) {
    return -ENOSPC;
  }
  m_IoPins.emplace_back(pin, Orv::OUTPUT_PIN, mode);
  return 0;
}

TErrCode CLinuxIoPinAddressDecoder::connectPins() {
  for (Orv::CLinuxIoPin& pin : m_IoPins) {
    const TErrCode code = pin.connect();
    if (code < 0) {
      return logReturnCode(code);
    }
  }
  return 0;
}

TErrCode CLinuxIoPinAddressDecoder::writeAddress(uint32_t address) {
  for (Orv::CLinuxIoPin& pin : m_IoPins) {
    const TErrCode code = pin.write((address & 1U) != 0 ? Orv::HIGH : Orv::LOW);
    if (code < 0) {
      return logReturnCode(code);
    }
    address >>= 1U;
  }
  return 0;
}

Orv::CLinuxIoPin& CLinuxIoPinAddressDecoder::pin(unsigned int index) {
  return m_IoPins.at(index);
}

}  // namespace Varnel
