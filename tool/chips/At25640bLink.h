// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_AT25640BLINK_H
#define TOOL_CHIPS_AT25640BLINK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tool/App.h"
#include "tool/Session.h"
#include "tool/Trouble.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"

namespace tool {

constexpr size_t kMemorySize = 8192;

/// Bits of the status register.
constexpr uint8_t kMemoryBusy = 0x01;
constexpr uint8_t kMemoryEnabled = 0x02;
constexpr uint8_t kMemoryStatusProtect = 0x80;

/// The lowest address that a status protects, or `kMemorySize`.
size_t firstProtected(uint8_t status);

/// A byte of which it isn't known whether it was written.
struct DoubtfulByte {
  uint16_t address;
  uint8_t before;
  uint8_t wanted;
};

/// A memory in an open session. What fails on the way to the chip throws DeviceError, a chip that
/// doesn't answer or doesn't write throws ChipError.
class MemoryLink {
 public:
  /// `doubtful` is set while a byte is being written.
  MemoryLink(Session& session, std::optional<DoubtfulByte>& doubtful);

  /// Waits for a write cycle under way and finds out whether a chip answers. Returns the status
  /// before, with the write-enable latch, which is reset then.
  uint8_t start();
  uint8_t status();
  uint8_t read(size_t address);
  /// Writes a byte that is not there yet, waits for the chip and reads it back. Signals wait for
  /// all that.
  void write(size_t address, uint8_t before, uint8_t value);
  bool interrupted() const { return session_.interrupt().requested(); }

 private:
  uint8_t waitReady();

  Session& session_;
  std::optional<DoubtfulByte>& doubtful_;
  Watched<Varnel::EEPROM::C64kByte_At25640B> driver_;
};

/// Opens a session with the chip and runs `body` in it; reports failures, and a byte that a
/// failure left in doubt. Returns the exit status.
int runMemory(const Context& context, const ChipInfo& chip,
              const std::function<void(MemoryLink&)>& body);

}  // namespace tool

#endif
