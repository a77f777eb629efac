// SPDX-License-Identifier: MIT
#ifndef TESTS_VBOARD_CHIPS_PROPERTIES_H
#define TESTS_VBOARD_CHIPS_PROPERTIES_H

#include <optional>
#include <stdexcept>
#include <string>

#include "vboard/board/Part.h"

namespace boardtest {

inline vboard::Property& propertyOf(vboard::Part& part, const std::string& name) {
  for (vboard::Property& property : part.properties()) {
    if (property.name == name) {
      return property;
    }
  }
  throw std::logic_error(part.type() + " has no property " + name);
}

inline vboard::PropertyValue valueOf(vboard::Part& part, const std::string& name) {
  return propertyOf(part, name).get();
}

/// What is wrong with the value, or nothing.
inline std::optional<std::string> setValue(vboard::Part& part, const std::string& name,
                                           const vboard::PropertyValue& value) {
  return propertyOf(part, name).set(value);
}

}  // namespace boardtest

#endif
