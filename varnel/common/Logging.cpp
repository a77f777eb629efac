// SPDX-License-Identifier: MIT
#include "varnel/common/Logging_p.h"

#include <log4cplus/logger.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "orv/Diag.h"

namespace Varnel {

namespace {

constexpr log4cplus::LogLevel LOG_LEVEL = log4cplus::ERROR_LOG_LEVEL;
constexpr size_t MESSAGE_SIZE = 256;

/// The path from the source root on, whatever folder the compiler was called in.
const char* pathInTree(const char* file) {
  constexpr std::string_view ROOM = "/varnel/";
  const size_t position = std::string_view(file).rfind(ROOM);
  return position == std::string_view::npos ? file : file + position + 1;
}

}  // namespace

TErrCode logReturnCode(TErrCode code, const char* file, int line, const char* function) noexcept {
  try {
    // Unsigned, because the most negative code has no positive counterpart.
    const unsigned int negatedCode = 0U - static_cast<unsigned int>(code);
    char message[MESSAGE_SIZE];
    std::snprintf(message, sizeof(message), "%s %d 0x%04x - %s", "Return code ", code, negatedCode,
                  ErrorToString(code));
    Orv::Diag::diagLogger().log(LOG_LEVEL, std::string(message), pathInTree(file), line, function);
  } catch (...) {
    // A failing logger must not hide the failure that it was to report: the code is still returned.
  }
  return code;
}

}  // namespace Varnel
