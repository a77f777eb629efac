// SPDX-License-Identifier: MIT
#ifndef ORV_LINUXIOPIN_H
#define ORV_LINUXIOPIN_H

#include <memory>

#include "orv/ErrorCode.h"
#include "orv/Export.h"

namespace Orv {

class CLinuxIoPinPrivate;

/// Direction of a pin, as the processor sees it.
enum ePinDirection {
  INPUT_PIN = 0,   ///< the chip drives the line
  OUTPUT_PIN = 1,  ///< the processor drives the line
};

/// Logical value of a pin.
enum ePinValue {
  LOW = 0,   ///< low; with PIN_MODE_INVERT the line is electrically high
  HIGH = 1,  ///< high; with PIN_MODE_INVERT the line is electrically low
};

/// Relation between logical and electrical level.
enum ePinMode {
  PIN_MODE_HW = 0,      ///< logical HIGH is an electrically high line
  PIN_MODE_INVERT = 1,  ///< the line is active low: logical HIGH is an electrically low line
};

/// A GPIO pin of the processor, reached through the kernel's GPIO character devices.
///
/// A pin is a value: constructing, copying and configuring it touch no hardware; connect() takes
/// the line. Copies share one line, which is given back when the last copy is gone or configured
/// anew. What a pin number means is described at CPinMap.
///
/// Copies of one pin may be used from several threads: connect(), write() and read() of one line
/// run one after the other. Configuring, assigning or moving one object while another thread uses
/// the same object is the caller's to prevent. No operation throws. A pin that was moved from is
/// not connected and stays so until it is configured or assigned.
///
/// Codes of all operations, besides the kernel's own as negated `errno`: -9 not connected, -12 out
/// of memory, -13 no permission, -16 line in use, -19 no such GPIO device, -22 unknown pin, -1
/// writing to an input.
class ORV_EXPORT CLinuxIoPin {
 public:
  /// Describes a pin; connect() takes it.
  ///
  /// @param pin        pin number, see CPinMap
  /// @param direction  input or output
  /// @param mode       whether the pin inverts logical values
  CLinuxIoPin(unsigned int pin, ePinDirection direction, ePinMode mode);

  /// Makes a copy that shares the line of @p other, connected or not.
  CLinuxIoPin(const CLinuxIoPin& other);
  /// Takes over the line of @p other, which is left without one.
  CLinuxIoPin(CLinuxIoPin&& other) noexcept;
  /// Lets go of the own line and shares that of @p other.
  CLinuxIoPin& operator=(const CLinuxIoPin& other);
  /// Lets go of the own line and takes over that of @p other.
  CLinuxIoPin& operator=(CLinuxIoPin&& other) noexcept;
  /// Gives the line back if no copy shares it.
  ~CLinuxIoPin();

  /// Describes the pin anew, as the constructor does. The pin is not connected afterwards and
  /// shares nothing with its former copies; they keep the line.
  void configure(unsigned int pin, ePinDirection direction, ePinMode mode);

  /// Requests the line from the kernel, with "varnel" as its consumer. An output starts at logical
  /// LOW.
  ///
  /// A pin that is connected keeps its line and its level, so that connecting once more makes no
  /// pulse; also when the pin map was changed meanwhile. Only after a write() or read() that
  /// failed is the line given back and requested again.
  ///
  /// @return 0; -13 when the GPIO device may not be opened; -16 when the line is in use; -19 when
  ///         there is no GPIO device or not the one that the pin map names; -22 when no line
  ///         belongs to the pin number; -12 out of memory; or another negated `errno`
  TErrCode connect();

  /// Sets an output to @p value.
  ///
  /// @return 0; -9 when not connected; -1 when the pin is an input; or a negated `errno`
  TErrCode write(ePinValue value);

  /// Reads the logical level of the line; of an output, the level it has.
  ///
  /// @return 0 for low, 1 for high, or a negative code: -9 when not connected, or a negated
  ///         `errno`. A failure is thereby nonzero, as a high line is: who waits for an active-low
  ///         ready line runs into its time-out rather than take noise for data.
  int read();

 private:
  std::shared_ptr<CLinuxIoPinPrivate> d;
};

}  // namespace Orv

#endif  // ORV_LINUXIOPIN_H
