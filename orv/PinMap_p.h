// SPDX-License-Identifier: MIT
#ifndef ORV_PINMAP_P_H
#define ORV_PINMAP_P_H

#include <string>
#include <vector>

#include "orv/PinMap.h"

namespace Orv {

/// Pin numbers FirstPin to LastPin, and either lines of a chip or the name of one line.
struct stPinMapEntry {
  unsigned int FirstPin = 0;
  unsigned int LastPin = 0;
  std::string Chip;
  unsigned int FirstLine = 0;
  std::string LineName;
};

/// The entries of a map; never changed once they belong to one, so copies of maps share them.
struct stPinMapEntries {
  std::vector<stPinMapEntry> List;

  /// The entry of @p map that @p pin belongs to, valid as long as the map; null if there is none.
  static const stPinMapEntry* find(const CPinMap& map, unsigned int pin);

  /// The map that counts now; one without entries that leaves all pins to their default numbers
  /// when none is installed.
  static CPinMap installed();

  /// Puts a copy of the entries with @p entry added into @p map, unless it overlaps one of them.
  static TErrCode add(CPinMap& map, const stPinMapEntry& entry);
};

}  // namespace Orv

#endif  // ORV_PINMAP_P_H
