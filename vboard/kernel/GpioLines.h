// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_GPIOLINES_H
#define VBOARD_KERNEL_GPIOLINES_H

#include <linux/gpio.h>
#include <time.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vboard/board/Board.h"
#include "vboard/kernel/Node.h"

namespace vboard::kernel {

class GpioLines;

/// An open chip or a line request. It hears of what happens to the chip's lines.
class GpioFile : public OpenFile {
 public:
  explicit GpioFile(std::shared_ptr<GpioLines> lines);
  ~GpioFile() override;
  GpioFile(const GpioFile&) = delete;
  GpioFile& operator=(const GpioFile&) = delete;

  const std::string& nodePath() const override;
  std::string requestName(unsigned long request) const override;
  /// Answers ENODEV once the chip is gone, and lets faults in before `answer`.
  Result ioctl(unsigned long request, void* argument) final;

  /// A line that this file holds changed its physical level.
  virtual void lineLevelChanged(uint32_t /*offset*/, Level /*level*/, Time /*time*/) {}
  /// Someone requested, released or reconfigured a line (GPIO_V2_LINE_CHANGED_…).
  virtual void lineUseChanged(uint32_t /*offset*/, uint32_t /*change*/) {}
  /// The chip went away.
  virtual void hangUp() {}

 protected:
  /// Answers one request; the chip is there.
  virtual Result answer(uint32_t request, void* argument) = 0;
  GpioLines& lines() const { return *lines_; }
  const std::shared_ptr<GpioLines>& sharedLines() const { return lines_; }

 private:
  std::shared_ptr<GpioLines> lines_;
};

/// What the kernel knows about the lines of one chip: who holds them, and with which settings.
/// Flags are GPIO_V2_LINE_FLAG_… throughout; errors are negated errno values. It outlives its chip
/// as long as a descriptor refers to it. Guarded by the board's lock.
class GpioLines {
 public:
  GpioLines(GpioChip& chip, std::string path);
  ~GpioLines();
  GpioLines(const GpioLines&) = delete;
  GpioLines& operator=(const GpioLines&) = delete;

  bool alive() const { return chip_ != nullptr; }
  /// The chip, which must be there.
  GpioChip& chip() const { return *chip_; }
  const std::string& path() const { return path_; }
  uint32_t count() const { return static_cast<uint32_t>(lines_.size()); }
  /// The chip goes away: files hear of it and the lines are nobody's.
  void detach();

  void addFile(GpioFile& file) { files_.push_back(&file); }
  void removeFile(GpioFile& file);

  /// Takes a line: EINVAL for one the chip doesn't have, EBUSY for one that is held.
  int request(uint32_t offset, const std::string& consumer, GpioFile& owner);
  /// Lets a line go. Direction and level stay.
  void release(uint32_t offset);
  /// Tells everybody who watches the line (GPIO_V2_LINE_CHANGED_…).
  void announce(uint32_t offset, uint32_t change);

  void setFlags(uint32_t offset, uint64_t flags) { lines_[offset].flags = flags; }
  /// The same from GPIOHANDLE_REQUEST_… flags.
  void setFlagsOfVersion1(uint32_t offset, uint32_t handleFlags);
  uint64_t flags(uint32_t offset) const { return lines_[offset].flags; }
  void setDebounce(uint32_t offset, uint32_t microseconds) {
    lines_[offset].debounceMicroseconds = microseconds;
  }

  /// Direction and values with active-low, drive and bias of the line's flags applied.
  void makeInput(uint32_t offset);
  void makeOutput(uint32_t offset, bool active);
  bool isOutput(uint32_t offset) const;
  bool get(uint32_t offset) const;
  /// What a physical level means on a line.
  bool isActive(uint32_t offset, Level level) const;
  /// Lines that are inputs keep quiet.
  void set(uint32_t offset, bool active);

  gpio_v2_line_info info(uint32_t offset) const;

  /// What CLOCK_MONOTONIC or CLOCK_REALTIME of this process read, or would have read, at a moment
  /// of the board's clock.
  uint64_t timestamp(Time moment, clockid_t clock) const;

 private:
  struct Line {
    bool held = false;
    std::string consumer;
    GpioFile* owner = nullptr;
    uint64_t flags = 0;
    uint32_t debounceMicroseconds = 0;
  };

  void applyBias(uint32_t offset);
  void drive(uint32_t offset, bool active);

  GpioChip* chip_;
  std::string path_;
  std::vector<Line> lines_;
  std::vector<GpioFile*> files_;
  int64_t monotonicOffset_;  // to the board's clock, where that goes its own way
  int64_t realtimeOffset_;
};

/// Copies a name into a fixed field, cut and terminated.
void copyGpioName(char (&field)[GPIO_MAX_NAME_SIZE], const std::string& name);
/// The text in a fixed field, terminated or not.
std::string gpioNameIn(const char (&field)[GPIO_MAX_NAME_SIZE]);

}  // namespace vboard::kernel

#endif
