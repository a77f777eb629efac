// SPDX-License-Identifier: MIT
#ifndef ORV_ERRORCODE_H
#define ORV_ERRORCODE_H

#include <cstdint>

#include "orv/Export.h"

/// Result of an operation that can fail: 0 for success, a negative code for a failure.
///
/// Codes down to about -133 are negated `errno` numbers (-22 is `-EINVAL`); -201 and -513 are the
/// drivers' own. -36 is a converter that did not raise its data-ready line in time.
typedef int32_t TErrCode;

/// Turns an `errno` number into the number that, negated, is the TErrCode of the failure.
///
/// @param errorNumber  `errno` as a failed system call left it.
/// @return always positive: @p errorNumber itself, or the number of `EIO` when @p errorNumber is 0
///         or negative, so that a failure is never mistaken for success.
ORV_EXPORT TErrCode errnoToErrCode(int errorNumber);

/// Describes a code in words, in English whatever the locale.
///
/// @param code  the code as an operation returned it, that is 0 or negative.
/// @return a constant text, never null and never empty, for any @p code; a generic text for one
///         that means nothing. Safe to call from any thread; never throws.
ORV_EXPORT const char* ErrorToString(TErrCode code);

#endif  // ORV_ERRORCODE_H
