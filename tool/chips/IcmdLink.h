// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_ICMDLINK_H
#define TOOL_CHIPS_ICMDLINK_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tool/Session.h"
#include "tool/Trouble.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"

namespace tool {

constexpr unsigned int kCounters = Varnel::iC_MD::MAX_COUNT_OF_COUNTERS;

/// How a counter configuration splits the chip's 48 bits.
struct CounterLayout {
  std::string_view widths;                   ///< "32,16", counter 0 first
  std::array<unsigned int, kCounters> bits;  ///< 0: no such counter

  unsigned int counters() const;
};

/// That of a counter configuration, 0 to 7.
const CounterLayout& counterLayout(uint8_t config);
/// The counter configuration with these widths. Throws std::invalid_argument, which lists them.
uint8_t counterConfigOf(std::string_view widths);

/// A counter's content as a number with a sign.
int64_t signedCount(int64_t content, unsigned int bits);
/// How far a counter went, the short way round.
int64_t countsBetween(int64_t before, int64_t after, unsigned int bits);
/// The flags of status byte 0, 1 or 2 in words, "none" where there are none.
std::string counterFlags(unsigned int counter, uint8_t status);
/// Whether the count of the status byte's counter can't be relied on.
bool countUnreliable(uint8_t status);

/// The eight configuration registers.
struct CounterSetup {
  std::array<uint8_t, Varnel::iC_MD::CONFIG_REGISTER_COUNT> registers{};

  bool operator==(const CounterSetup&) const = default;
  uint8_t config() const;
  void setConfig(uint8_t config);
  const CounterLayout& layout() const { return counterLayout(config()); }
  /// "TTL", "RS-422" or "LVDS".
  std::string_view levels() const;
  void setLevels(std::string_view levels);
  /// Bit n: counter n counts the other way round.
  unsigned int reversed() const;
  void setReversed(unsigned int counters);
  /// Bit n: an index pulse clears counter n.
  unsigned int indexClears() const;
  void setIndexClears(unsigned int counters);
};

/// A chip in an open session. What fails on the way to the chip throws DeviceError, a chip that
/// doesn't answer, or not as it was set up, throws ChipError.
class IcmdLink {
 public:
  /// Finds out whether the chip answers, and how it is set up.
  explicit IcmdLink(Session& session);

  const CounterSetup& setup() const { return setup_; }
  /// Writes the registers and reads them back.
  void write(const CounterSetup& setup);
  /// Finds out whether the chip is still the one it was.
  void check();
  int64_t position(unsigned int counter);
  void clear(unsigned int counter);
  /// Reads a counter's status byte, which clears the flags in it.
  uint8_t status(unsigned int counter);

 private:
  /// A position is given also when reading it failed: that is noted here.
  class Driver : public Watched<Varnel::iC_MD::CSpiQuadratureCounter48Bit> {
   public:
    explicit Driver(Trouble& trouble) : Watched(trouble), noted_(trouble) {}
    using Watched::executeManagedTransfer;
    TErrCode executeManagedTransfer(Varnel::eCS_Handling handling) override;

   private:
    Trouble& noted_;
  };

  void run(const std::function<TErrCode()>& operation);
  uint8_t read(uint8_t reg);
  CounterSetup readSetup();
  void checkIdentity();

  Session& session_;
  Driver driver_;
  CounterSetup setup_;
};

}  // namespace tool

#endif
