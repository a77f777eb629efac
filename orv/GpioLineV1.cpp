// SPDX-License-Identifier: MIT
// For libgpiod 1.x.
#include <gpiod.h>

#include <cerrno>
#include <utility>

#include "orv/GpioLine_p.h"

namespace Orv {

struct CGpioLine::stHandles {
  stHandles() = default;
  stHandles(const stHandles&) = delete;
  stHandles& operator=(const stHandles&) = delete;
  ~stHandles() {
    if (Chip != nullptr) {
      gpiod_chip_close(Chip);  // gives the line back too, which belongs to the chip
    }
  }

  gpiod_chip* Chip = nullptr;
  gpiod_line* Line = nullptr;
};

CGpioLine::CGpioLine() = default;
CGpioLine& CGpioLine::operator=(CGpioLine&& other) noexcept = default;
CGpioLine::~CGpioLine() = default;

TErrCode CGpioLine::open(const std::string& path) {
  close();
  auto handles = std::make_unique<stHandles>();
  handles->Chip = gpiod_chip_open(path.c_str());
  if (handles->Chip == nullptr) {
    return gpioErrorCode(errno);
  }
  m_Handles = std::move(handles);
  return 0;
}

bool CGpioLine::isOpen() const {
  return m_Handles != nullptr;
}

void CGpioLine::close() {
  m_Handles.reset();
}

unsigned int CGpioLine::lineCount() const {
  return gpiod_chip_num_lines(m_Handles->Chip);
}

std::string CGpioLine::chipLabel() const {
  return gpiod_chip_label(m_Handles->Chip);
}

TErrCode CGpioLine::lineName(unsigned int line, std::string& name) const {
  gpiod_line* const handle = gpiod_chip_get_line(m_Handles->Chip, line);
  if (handle == nullptr) {
    return gpioErrorCode(errno);
  }
  const char* const text = gpiod_line_name(handle);
  name = text != nullptr ? text : "";
  return 0;
}

TErrCode CGpioLine::request(unsigned int line, bool output, bool activeLow) {
  gpiod_line* const handle = gpiod_chip_get_line(m_Handles->Chip, line);
  if (handle == nullptr) {
    return gpioErrorCode(errno);
  }
  gpiod_line_request_config config{};
  config.consumer = "varnel";
  config.request_type =
      output ? GPIOD_LINE_REQUEST_DIRECTION_OUTPUT : GPIOD_LINE_REQUEST_DIRECTION_INPUT;
  config.flags = activeLow ? GPIOD_LINE_REQUEST_FLAG_ACTIVE_LOW : 0;
  if (gpiod_line_request(handle, &config, 0) != 0) {
    return gpioErrorCode(errno);
  }
  m_Handles->Line = handle;
  return 0;
}

TErrCode CGpioLine::write(bool high) {
  return gpiod_line_set_value(m_Handles->Line, high ? 1 : 0) == 0 ? 0 : gpioErrorCode(errno);
}

int CGpioLine::read() {
  const int value = gpiod_line_get_value(m_Handles->Line);
  return value >= 0 ? value : gpioErrorCode(errno);
}

}  // namespace Orv
