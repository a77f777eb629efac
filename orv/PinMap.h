// SPDX-License-Identifier: MIT
#ifndef ORV_PINMAP_H
#define ORV_PINMAP_H

#include <memory>
#include <string>

#include "orv/ErrorCode.h"
#include "orv/Export.h"

namespace Orv {

struct stPinMapEntries;

/// What a pin number means that is not in the installed pin map.
enum eUnmappedPins {
  UNMAPPED_UNKNOWN = 0,         ///< nothing: connect() returns -22
  UNMAPPED_DEFAULT_NUMBER = 1,  ///< what it means without a map
};

/// Says which GPIO line belongs to which pin number.
///
/// Without a map, pin numbers count the lines of all GPIO chips, in the order of their device
/// numbers: on a board whose `/dev/gpiochip0` and `/dev/gpiochip1` have 32 lines each, pin 47 is
/// line 15 of `/dev/gpiochip1`. Symbolic links among the devices are left out. A map makes pin
/// numbers independent of the order in which the kernel found the chips.
///
/// A chip is named in one of three ways: by device name ("gpiochip1"), by label
/// ("pinctrl-bcm2835") or by path ("/dev/gpiochip1", recognised by its slash). A label that
/// several chips carry names none of them.
///
/// A map is a value; copies are independent. It is looked at by CLinuxIoPin::connect() once it is
/// installed; nothing here touches hardware, so a chip or line that does not exist shows up there.
/// Add operations return -22 and leave the map as it was when a pin number is in it already, when
/// a number would pass `UINT_MAX`, or when a name is empty; -12 when out of memory.
class ORV_EXPORT CPinMap {
 public:
  /// Makes a map without entries.
  explicit CPinMap(eUnmappedPins unmapped = UNMAPPED_UNKNOWN);

  CPinMap(const CPinMap& other);                 ///< Copies entries and option.
  CPinMap(CPinMap&& other) noexcept;             ///< Leaves @p other without entries.
  CPinMap& operator=(const CPinMap& other);      ///< Copies entries and option.
  CPinMap& operator=(CPinMap&& other) noexcept;  ///< Leaves @p other without entries.
  ~CPinMap();

  /// Maps @p count pin numbers from @p firstPin on to as many lines of one chip.
  ///
  /// @param firstPin   first pin number
  /// @param count      how many, at least 1
  /// @param chip       name, label or path of the chip
  /// @param firstLine  line of @p firstPin, counted from 0
  TErrCode addRange(unsigned int firstPin, unsigned int count, const std::string& chip,
                    unsigned int firstLine = 0);

  /// Maps one pin number to line @p line of a chip.
  TErrCode addLine(unsigned int pin, const std::string& chip, unsigned int line);

  /// Maps one pin number to the line called @p lineName, for example "GPIO17", on whatever chip it
  /// is. connect() returns -22 when no line or more than one has that name.
  TErrCode addLineName(unsigned int pin, const std::string& lineName);

  /// What pin numbers mean that are not in this map.
  eUnmappedPins unmappedPins() const;

  /// Makes @p map the process's pin map, instead of an earlier one. Affects pins that connect
  /// later; connected ones keep their lines. Safe from any thread; never throws.
  static void install(CPinMap map);

  /// Goes back to counting lines. Safe from any thread; never throws.
  static void uninstall();

 private:
  friend struct stPinMapEntries;

  std::shared_ptr<const stPinMapEntries> m_Entries;
  eUnmappedPins m_Unmapped;
};

}  // namespace Orv

#endif  // ORV_PINMAP_H
