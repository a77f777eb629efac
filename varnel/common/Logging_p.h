// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_LOGGING_P_H
#define VARNEL_COMMON_LOGGING_P_H

#include "orv/ErrorCode.h"

namespace Varnel {

/// Writes one line about a failed call to the diagnostics logger and returns the code, so that a
/// check reads `return logReturnCode(code);`. Never throws. File, line and function are those of
/// the caller.
TErrCode logReturnCode(TErrCode code, const char* file = __builtin_FILE(),
                       int line = __builtin_LINE(),
                       const char* function = __builtin_FUNCTION()) noexcept;

}  // namespace Varnel

#endif
