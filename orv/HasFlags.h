// SPDX-License-Identifier: MIT
#ifndef ORV_HASFLAGS_H
#define ORV_HASFLAGS_H

namespace Orv {

/// A value of an integer type treated as a set of bit flags. As large as the value; no lock.
///
/// @tparam T  an integer type, for example `uint8_t` for a register image.
template <typename T>
class CHasFlags {
 public:
  /// The value that holds the flags; read and assigned freely.
  T m_Data;

  /// Starts with the flags in @p data; implicit, so that a plain value can be assigned.
  // NOLINTNEXTLINE(google-explicit-constructor)
  CHasFlags(T data = 0) : m_Data(data) {}

  /// True when every bit of @p flag is set; a @p flag without bits is always set.
  bool hasFlag(T flag) const { return (m_Data & flag) == flag; }

  /// Sets every bit of @p flag and leaves the others.
  void setFlag(T flag) { m_Data = static_cast<T>(m_Data | flag); }

  /// Clears every bit of @p flag and leaves the others.
  void clearFlag(T flag) { m_Data = static_cast<T>(m_Data & ~flag); }
};

}  // namespace Orv

#endif  // ORV_HASFLAGS_H
