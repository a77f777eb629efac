// SPDX-License-Identifier: MIT
#include "orv/PinMap.h"

#include <cerrno>
#include <limits>
#include <mutex>
#include <utility>

#include "orv/Immortal_p.h"
#include "orv/PinMap_p.h"

namespace Orv {
namespace {

struct stInstalledMap {
  std::mutex Mutex;
  CPinMap Map{UNMAPPED_DEFAULT_NUMBER};
};

/// True when @p count numbers from @p first on stay within an unsigned int.
bool fits(unsigned int first, unsigned int count) {
  return count - 1 <= std::numeric_limits<unsigned int>::max() - first;
}

}  // namespace

const stPinMapEntry* stPinMapEntries::find(const CPinMap& map, unsigned int pin) {
  if (map.m_Entries != nullptr) {
    for (const stPinMapEntry& entry : map.m_Entries->List) {
      if (pin >= entry.FirstPin && pin <= entry.LastPin) {
        return &entry;
      }
    }
  }
  return nullptr;
}

CPinMap stPinMapEntries::installed() {
  auto& current = immortal<stInstalledMap>();
  const std::lock_guard<std::mutex> lock(current.Mutex);
  return current.Map;
}

TErrCode stPinMapEntries::add(CPinMap& map, const stPinMapEntry& entry) {
  auto entries = std::make_shared<stPinMapEntries>();
  if (map.m_Entries != nullptr) {
    *entries = *map.m_Entries;
  }
  for (const stPinMapEntry& other : entries->List) {
    if (entry.FirstPin <= other.LastPin && other.FirstPin <= entry.LastPin) {
      return -EINVAL;
    }
  }
  entries->List.push_back(entry);
  map.m_Entries = std::move(entries);
  return 0;
}

CPinMap::CPinMap(eUnmappedPins unmapped) : m_Unmapped(unmapped) {
}
CPinMap::CPinMap(const CPinMap& other) = default;
CPinMap::CPinMap(CPinMap&& other) noexcept = default;
CPinMap& CPinMap::operator=(const CPinMap& other) = default;
CPinMap& CPinMap::operator=(CPinMap&& other) noexcept = default;
CPinMap::~CPinMap() = default;

TErrCode CPinMap::addRange(unsigned int firstPin, unsigned int count, const std::string& chip,
                           unsigned int firstLine) {
  if (count == 0 || !fits(firstPin, count) || !fits(firstLine, count) || chip.empty()) {
    return -EINVAL;
  }
  try {
    return stPinMapEntries::add(*this, {firstPin, firstPin + (count - 1), chip, firstLine, {}});
  } catch (...) {
    return -ENOMEM;
  }
}

TErrCode CPinMap::addLine(unsigned int pin, const std::string& chip, unsigned int line) {
  return addRange(pin, 1, chip, line);
}

TErrCode CPinMap::addLineName(unsigned int pin, const std::string& lineName) {
  if (lineName.empty()) {
    return -EINVAL;
  }
  try {
    return stPinMapEntries::add(*this, {pin, pin, {}, 0, lineName});
  } catch (...) {
    return -ENOMEM;
  }
}

eUnmappedPins CPinMap::unmappedPins() const {
  return m_Unmapped;
}

void CPinMap::install(CPinMap map) {
  auto& current = immortal<stInstalledMap>();
  const std::lock_guard<std::mutex> lock(current.Mutex);
  // The former entries are freed with the argument, by the caller and outside the lock.
  std::swap(current.Map, map);
}

void CPinMap::uninstall() {
  install(CPinMap(UNMAPPED_DEFAULT_NUMBER));
}

}  // namespace Orv
