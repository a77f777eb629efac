// SPDX-License-Identifier: MIT
#include "orv/ErrorCode.h"

#include <cerrno>
#include <cstring>
#include <limits>

namespace {

struct stErrorText {
  TErrCode Code;
  const char* Text;
};

constexpr stErrorText kOwnTexts[] = {
    {0, "Success"},
    // As an errno the same number is ENAMETOOLONG; nothing tells the two apart here.
    {-36, "Time-out waiting for data ready (or file name too long)"},
    {-201, "Register read-back mismatch"},
    {-513, "Memory address out of range"},
};

constexpr const char* kUnknownText = "Unknown error code";

}  // namespace

TErrCode errnoToErrCode(int errorNumber) {
  return errorNumber > 0 ? errorNumber : EIO;
}

const char* ErrorToString(TErrCode code) {
  for (const stErrorText& own : kOwnTexts) {
    if (own.Code == code) {
      return own.Text;
    }
  }
  // The smallest code has no positive counterpart.
  if (code > 0 || code == std::numeric_limits<TErrCode>::min()) {
    return kUnknownText;
  }
  // Unlike strerror(), this returns constants and touches neither locale nor buffer.
  const char* text = strerrordesc_np(-code);
  return text != nullptr ? text : kUnknownText;
}
