// SPDX-License-Identifier: MIT
// For libgpiod 2.x.
#include <gpiod.h>

#include <cerrno>
#include <utility>

#include "orv/GpioLine_p.h"

namespace Orv {
namespace {

template <typename T, void (*Free)(T*)>
struct stFree {
  void operator()(T* object) const { Free(object); }
};
template <typename T, void (*Free)(T*)>
using tHandle = std::unique_ptr<T, stFree<T, Free>>;

using tChip = tHandle<gpiod_chip, gpiod_chip_close>;
using tChipInfo = tHandle<gpiod_chip_info, gpiod_chip_info_free>;
using tLineInfo = tHandle<gpiod_line_info, gpiod_line_info_free>;
using tLineSettings = tHandle<gpiod_line_settings, gpiod_line_settings_free>;
using tLineConfig = tHandle<gpiod_line_config, gpiod_line_config_free>;
using tRequestConfig = tHandle<gpiod_request_config, gpiod_request_config_free>;
using tLineRequest = tHandle<gpiod_line_request, gpiod_line_request_release>;

}  // namespace

struct CGpioLine::stHandles {
  tChip Chip;
  tChipInfo Info;
  tLineRequest Request;
  unsigned int Line = 0;
};

CGpioLine::CGpioLine() = default;
CGpioLine& CGpioLine::operator=(CGpioLine&& other) noexcept = default;
CGpioLine::~CGpioLine() = default;

TErrCode CGpioLine::open(const std::string& path) {
  close();
  auto handles = std::make_unique<stHandles>();
  handles->Chip.reset(gpiod_chip_open(path.c_str()));
  if (handles->Chip == nullptr) {
    return gpioErrorCode(errno);
  }
  handles->Info.reset(gpiod_chip_get_info(handles->Chip.get()));
  if (handles->Info == nullptr) {
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
  return static_cast<unsigned int>(gpiod_chip_info_get_num_lines(m_Handles->Info.get()));
}

std::string CGpioLine::chipLabel() const {
  return gpiod_chip_info_get_label(m_Handles->Info.get());
}

TErrCode CGpioLine::lineName(unsigned int line, std::string& name) const {
  const tLineInfo info(gpiod_chip_get_line_info(m_Handles->Chip.get(), line));
  if (info == nullptr) {
    return gpioErrorCode(errno);
  }
  const char* const text = gpiod_line_info_get_name(info.get());
  name = text != nullptr ? text : "";
  return 0;
}

TErrCode CGpioLine::request(unsigned int line, bool output, bool activeLow) {
  const tLineSettings settings(gpiod_line_settings_new());
  const tLineConfig lineConfig(gpiod_line_config_new());
  const tRequestConfig requestConfig(gpiod_request_config_new());
  if (settings == nullptr || lineConfig == nullptr || requestConfig == nullptr) {
    return gpioErrorCode(errno);
  }
  gpiod_line_settings_set_direction(
      settings.get(), output ? GPIOD_LINE_DIRECTION_OUTPUT : GPIOD_LINE_DIRECTION_INPUT);
  gpiod_line_settings_set_active_low(settings.get(), activeLow);
  gpiod_line_settings_set_output_value(settings.get(), GPIOD_LINE_VALUE_INACTIVE);
  gpiod_request_config_set_consumer(requestConfig.get(), "varnel");
  if (gpiod_line_config_add_line_settings(lineConfig.get(), &line, 1, settings.get()) != 0) {
    return gpioErrorCode(errno);
  }
  m_Handles->Request.reset(
      gpiod_chip_request_lines(m_Handles->Chip.get(), requestConfig.get(), lineConfig.get()));
  if (m_Handles->Request == nullptr) {
    return gpioErrorCode(errno);
  }
  m_Handles->Line = line;
  return 0;
}

TErrCode CGpioLine::write(bool high) {
  const gpiod_line_value value = high ? GPIOD_LINE_VALUE_ACTIVE : GPIOD_LINE_VALUE_INACTIVE;
  const int result = gpiod_line_request_set_value(m_Handles->Request.get(), m_Handles->Line, value);
  return result == 0 ? 0 : gpioErrorCode(errno);
}

int CGpioLine::read() {
  const gpiod_line_value value =
      gpiod_line_request_get_value(m_Handles->Request.get(), m_Handles->Line);
  return value >= GPIOD_LINE_VALUE_INACTIVE ? static_cast<int>(value) : gpioErrorCode(errno);
}

}  // namespace Orv
