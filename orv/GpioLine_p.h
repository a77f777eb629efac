// SPDX-License-Identifier: MIT
#ifndef ORV_GPIOLINE_P_H
#define ORV_GPIOLINE_P_H

#include <memory>
#include <string>

#include "orv/ErrorCode.h"

namespace Orv {

/// What this library needs of libgpiod, whose two generations share no API: GpioLineV1.cpp and
/// GpioLineV2.cpp each implement it, and the build picks one.
///
/// An open GPIO chip and at most one line requested from it; closing the chip gives the line back.
/// Every operation but open() and isOpen() needs an open chip, write() and read() a line.
class CGpioLine {
 public:
  CGpioLine();
  CGpioLine& operator=(CGpioLine&& other) noexcept;
  ~CGpioLine();

  /// Opens the chip at @p path for queries and one request.
  TErrCode open(const std::string& path);
  bool isOpen() const;
  void close();

  unsigned int lineCount() const;
  std::string chipLabel() const;
  /// Empty for a line without a name.
  TErrCode lineName(unsigned int line, std::string& name) const;

  /// Outputs start at logical low.
  TErrCode request(unsigned int line, bool output, bool activeLow);
  TErrCode write(bool high);
  /// 0, 1 or a negative code.
  int read();

 private:
  struct stHandles;
  std::unique_ptr<stHandles> m_Handles;
};

/// The code for an `errno` of a GPIO call: -19 for everything that says "not there, or not a GPIO
/// device", -13 for both kinds of missing permission (so that -1 stays "wrong direction").
TErrCode gpioErrorCode(int errorNumber);

}  // namespace Orv

#endif  // ORV_GPIOLINE_P_H
