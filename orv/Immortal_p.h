// SPDX-License-Identifier: MIT
#ifndef ORV_IMMORTAL_P_H
#define ORV_IMMORTAL_P_H

#include <new>

namespace Orv {

/// One T per type, made at the first use and never destroyed, so that destructors of an
/// application's static objects can still use it. Takes no heap memory of its own.
template <typename T>
T& immortal() {
  alignas(T) static unsigned char storage[sizeof(T)];
  static T* const object = new (storage) T();
  return *object;
}

}  // namespace Orv

#endif  // ORV_IMMORTAL_P_H
