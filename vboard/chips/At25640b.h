// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_AT25640B_H
#define VBOARD_CHIPS_AT25640B_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/chips/ByteChip.h"

namespace vboard {

/// Microchip AT25640B: EEPROM of 8192 bytes in pages of 32.
///
/// Pins: "CS", "SCK", "SI", "SO", "WP" (active low, high unless connected), "HOLD" (active low,
/// high unless connected).
///
/// A write takes its time after CS rose, during which the chip answers nothing but its status. With
/// an image file the contents survive the program: the file is replaced as a whole each time
/// contents change, when the write cycle begins, since a chip ends it without its host.
///
/// Violations besides those of every SPI chip: "select-high-too-short", "too-early-after-power-up",
/// "unknown-instruction", "busy", "not-enabled" (no WREN before), "protected" (block), and
/// "status-protected" (WP), "page-wrap", "address-range" (A15 to A13 are ignored), "frame-length",
/// "short-frame", "partial-byte", "hold-while-clock-high", "power-lost-while-writing", "worn-out",
/// "image-not-written".
class At25640b : public ByteChip {
 public:
  static constexpr std::string_view kType = "AT25640B";
  static constexpr size_t kSize = 8192;
  static constexpr size_t kPageSize = 32;
  static constexpr size_t kPages = kSize / kPageSize;

  explicit At25640b(std::string name);

  // Bench face.

  std::vector<uint8_t> contents() const;
  /// 0 to 8191.
  uint8_t byteAt(uint16_t address) const;
  /// Puts bytes into the array, as a programmer would before the chip is soldered; what goes beyond
  /// its end is left out.
  void setContents(uint16_t address, std::span<const uint8_t> bytes);
  /// What RDSR would give now.
  uint8_t status() const;
  bool busy() const;
  /// Write cycles since the start, of the status register too.
  uint64_t writes() const;
  /// Write cycles of a page since the start.
  uint32_t pageCycles(size_t page) const;

  /// The file that keeps the contents: 8192 bytes, and one more with the status register where a
  /// protection bit is set. One that exists is loaded, a new one appears with the first change. An
  /// empty path: no file. Returns what is wrong with it, which changes nothing.
  std::optional<std::string> setImage(const std::string& path);
  std::string image() const;

  /// VCC in volts, 1.8 to 5.5; 3.3 unless set. The highest clock follows it.
  void setSupply(double volts);
  /// How long a write cycle takes, 5 ms unless set.
  void setWriteTime(Time time);
  /// How long CS must be high between two instructions, 100 ns unless set.
  void setSelectHighTime(Time time);
  /// How long after power came the chip begins to listen, 100 µs unless set. When the board starts
  /// it has passed already.
  void setPowerUpTime(Time time);
  /// Whether a write that is refused or cut off leaves the write enable latch set; so unless set.
  void setRefusedKeepsEnable(bool keeps);
  /// Whether every byte of a long RDSR shows the status at its moment; so unless set.
  void setStatusRefreshes(bool refreshes);
  /// Write cycles a page is good for, a million unless set.
  void setEndurance(uint32_t cycles);

  // Bus face.
  void powerUp() override;
  void powerLost() override;

 protected:
  void frameBegan() override;
  void byteCame(uint8_t byte) override;
  uint8_t nextByte() override;
  void frameEnded() override;
  void otherPinChanged(Pin& pin, Level level) override;

 private:
  enum class Instruction : uint8_t {
    Ignored = 0,
    WriteStatus = 1,
    Write = 2,
    Read = 3,
    Disable = 4,
    ReadStatus = 5,
    Enable = 6
  };

  void addProperties();
  uint8_t statusNow() const;
  void begin(uint8_t byte);
  void addressByte(uint8_t byte);
  void load(uint8_t byte);
  void endLatch();
  void endWriteStatus();
  void endWrite();
  bool mayWrite(const char* what);
  void refuse(std::string_view rule, std::string text);
  bool isProtected(uint16_t address) const;
  bool statusProtected() const;
  void startCycle();
  void storePage();
  void saveImage();
  void updateClockLimit();

  Pin& wp_;
  Pin& hold_;

  // Bench.
  double supply_ = 3.3;
  Time writeTime_ = std::chrono::milliseconds(5);
  Time powerUpTime_ = std::chrono::microseconds(100);
  bool refusedKeepsEnable_ = true;
  bool statusRefreshes_ = true;
  uint32_t endurance_ = 1000000;
  std::string image_;
  uint64_t writes_ = 0;
  std::array<uint32_t, kPages> cycles_{};

  // What outlives the power.
  std::array<uint8_t, kSize> array_{};
  uint8_t protection_ = 0;  // WPEN and BP, in their places

  bool enabled_ = false;
  Time readyAt_{0};
  std::optional<Time> busyUntil_;
  std::optional<size_t> pageAtWork_;  // of the write cycle

  // This frame.
  Instruction instruction_ = Instruction::Ignored;
  uint32_t bytes_ = 0;
  uint16_t address_ = 0;
  uint8_t value_ = 0;    // WRSR's, or what RDSR shows
  bool wpFell_ = false;  // while selected
  std::array<uint8_t, kPageSize> page_{};
  uint32_t loaded_ = 0;  // bit n: byte n of the page came
  uint32_t data_ = 0;    // bytes that came, overwritten ones too
};

}  // namespace vboard

#endif
