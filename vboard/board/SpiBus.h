// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_SPIBUS_H
#define VBOARD_BOARD_SPIBUS_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Observer.h"
#include "vboard/board/Part.h"

namespace vboard {

/// What one kind of SPI controller can do.
struct ControllerProfile {
  std::string name;
  uint32_t wordSizes = 0xFFFFFFFF;  ///< bit n-1: words of n bits
  bool lsbFirst = true;
  bool noCs = true;
  bool loop = true;
  bool gpioSelects = false;  ///< SPI_CS_HIGH is accepted and has no effect
  uint8_t modes = 0x0F;      ///< bit n: mode n
  uint32_t minSpeedHz = 0;   ///< slower transfers are refused
  uint32_t maxSpeedHz = 125000000;

  /// "full", "imx-ecspi", "spi-gpio", "bcm2835", "bcm2835-aux", "sun6i", "omap2-mcspi"; null for
  /// another name.
  static const ControllerProfile* find(std::string_view name);
  static const std::vector<ControllerProfile>& all();
};

/// What a chip accepts on its SPI pins; a transfer outside is a violation.
struct SpiLimits {
  uint8_t modes = 0x0F;  ///< bit n: mode n
  bool msbFirst = true;
  bool lsbFirst = false;
  uint32_t wordSizes = 0xFFFFFFFF;  ///< bit n-1: words of n bits
  uint32_t minHz = 0;
  uint32_t maxHz = UINT32_MAX;
};

/// A part on an SPI bus. Chips without a select line listen to every clock.
class SpiChip : public Part {
 public:
  using Part::Part;
  virtual Pin& clockPin() = 0;
  /// Null where the chip has none.
  virtual Pin* dataInPin() { return nullptr; }
  virtual Pin* dataOutPin() { return nullptr; }
  /// Whether the chip takes notice of the clock just now.
  virtual bool listening() const = 0;
  virtual const SpiLimits& limits() const = 0;
};

/// What floating MISO reads as.
enum class FloatingMiso : uint8_t { Poison, Low, High };

struct SpiBusOptions {
  int number = 1;   ///< B of /dev/spidevB.C
  int selects = 1;  ///< nodes C = 0 … selects-1, each with a native select (active low)
  std::string profile = "full";
  uint32_t bufsiz = 4096;
  FloatingMiso floatingMiso = FloatingMiso::Poison;
};

/// One controller's wires: pins "MOSI", "MISO", "SCLK", "CS0", "CS1" … on nets of their own.
class SpiBus : public Part {
 public:
  SpiBus(std::string name, SpiBusOptions options);

  const SpiBusOptions& options() const { return options_; }
  const ControllerProfile& profile() const { return *profile_; }

  Pin& mosi() { return *mosi_; }
  Pin& miso() { return *miso_; }
  Pin& sclk() { return *sclk_; }
  Pin& select(int index);

  /// The clock line takes the idle level of a mode. The kernel side calls it at the start of a
  /// message, before the native select.
  void setIdle(uint8_t mode);
  void driveSelect(int index, Level level);

  /// Shifts words out and in, bit by bit, advancing the clock by what the wires take. `miso` may
  /// be shorter than `mosi`. Checks the format against every listening chip first.
  void transfer(int select, const SpiFormat& format, std::span<const uint32_t> mosi,
                std::span<uint32_t> miso);

  /// Totals for the report.
  struct Statistics {
    uint64_t transfers = 0;
    uint64_t words = 0;
    uint64_t clocks = 0;
    Time busy{0};
  };
  const Statistics& statistics() const { return statistics_; }

  /// Fault: invert the n-th bit (from 0, counted from now) that the host samples from MISO.
  void flipMisoBit(uint64_t n);

  void powerUp() override;

 protected:
  void added() override;

 private:
  void findChips();
  void checkFormat(const SpiFormat& format);
  template <bool ShiftsFirst>
  void shiftWords(const SpiFormat& format, std::span<const uint32_t> mosi, std::span<uint32_t> miso,
                  std::span<uint32_t> record);
  bool passUnheard(const SpiFormat& format, std::span<const uint32_t> mosi,
                   std::span<uint32_t> miso);
  uint32_t floatingWord(const SpiFormat& format);
  uint32_t floatingLevel();
  uint32_t takeFlip(uint32_t bit);

  SpiBusOptions options_;
  const ControllerProfile* profile_;
  Pin* mosi_;
  Pin* miso_;
  Pin* sclk_;
  std::vector<Pin*> selects_;
  Statistics statistics_;

  std::vector<SpiChip*> chips_;     // with their clock pin on this bus
  uint64_t chipsVersion_ = 0;       // of the wiring they were found in
  std::vector<uint32_t> seenMiso_;  // kept for observers
  uint64_t sampledBits_ = 0;
  std::vector<uint64_t> flips_;  // bits to invert, last one first
  uint64_t nextFlip_ = UINT64_MAX;
};

}  // namespace vboard

#endif
