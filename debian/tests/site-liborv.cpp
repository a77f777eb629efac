// SPDX-License-Identifier: MIT
// A liborv.so.1 as a site might have one: nothing but what the driver library needs of it, from the
// installed headers alone. It says on stderr that it was used.
#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "orv/Bits.h"
#include "orv/Diag.h"
#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"

TErrCode errnoToErrCode(int errorNumber) {
  return errorNumber;
}

const char* ErrorToString(TErrCode) {
  return "site text";
}

namespace Orv {

// Lines of the first GPIO chip only.
class CLinuxIoPinPrivate {
 public:
  CLinuxIoPinPrivate(unsigned int pin, ePinDirection direction, ePinMode mode)
      : m_Pin(pin), m_Direction(direction), m_Mode(mode) {}
  ~CLinuxIoPinPrivate() {
    if (m_Line >= 0) {
      ::close(m_Line);
    }
  }
  unsigned int m_Pin;
  ePinDirection m_Direction;
  ePinMode m_Mode;
  int m_Line = -1;
};

CLinuxIoPin::CLinuxIoPin(unsigned int pin, ePinDirection direction, ePinMode mode)
    : d(std::make_shared<CLinuxIoPinPrivate>(pin, direction, mode)) {
}
CLinuxIoPin::CLinuxIoPin(const CLinuxIoPin& other) = default;
CLinuxIoPin::CLinuxIoPin(CLinuxIoPin&& other) noexcept = default;
CLinuxIoPin& CLinuxIoPin::operator=(const CLinuxIoPin& other) = default;
CLinuxIoPin& CLinuxIoPin::operator=(CLinuxIoPin&& other) noexcept = default;
CLinuxIoPin::~CLinuxIoPin() = default;

void CLinuxIoPin::configure(unsigned int pin, ePinDirection direction, ePinMode mode) {
  d = std::make_shared<CLinuxIoPinPrivate>(pin, direction, mode);
}

TErrCode CLinuxIoPin::connect() {
  std::fprintf(stderr, "site liborv: connecting pin %u\n", d->m_Pin);
  const int chip = ::open("/dev/gpiochip0", O_RDWR | O_CLOEXEC);
  if (chip < 0) {
    return -errno;
  }
  gpio_v2_line_request request = {};
  request.offsets[0] = d->m_Pin;
  request.num_lines = 1;
  request.config.flags =
      d->m_Direction == OUTPUT_PIN ? GPIO_V2_LINE_FLAG_OUTPUT : GPIO_V2_LINE_FLAG_INPUT;
  if (d->m_Mode == PIN_MODE_INVERT) {
    request.config.flags |= GPIO_V2_LINE_FLAG_ACTIVE_LOW;
  }
  const TErrCode code = ::ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &request) < 0 ? -errno : 0;
  ::close(chip);
  d->m_Line = code == 0 ? request.fd : -1;
  return code;
}

TErrCode CLinuxIoPin::write(ePinValue value) {
  std::fprintf(stderr, "site liborv: pin %u %d\n", d->m_Pin, value);
  gpio_v2_line_values values = {};
  values.mask = 1;
  values.bits = value == HIGH ? 1 : 0;
  return ::ioctl(d->m_Line, GPIO_V2_LINE_SET_VALUES_IOCTL, &values) < 0 ? -errno : 0;
}

int CLinuxIoPin::read() {
  gpio_v2_line_values values = {};
  values.mask = 1;
  return ::ioctl(d->m_Line, GPIO_V2_LINE_GET_VALUES_IOCTL, &values) < 0
             ? -errno
             : static_cast<int>(values.bits & 1);
}

unsigned int bitCount(unsigned int value) {
  unsigned int count = 0;
  for (; value != 0; value &= value - 1) {
    ++count;
  }
  return count;
}

void CThread::sleep(unsigned int milliseconds) {
  ::usleep(milliseconds * 1000);
}

log4cplus::Logger& Diag::diagLogger() {
  static log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("site"));
  return logger;
}

}  // namespace Orv
