// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_ICMD_H
#define VBOARD_CHIPS_ICMD_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/chips/ByteChip.h"

namespace vboard {

/// iC-Haus iC-MD: 48-bit counter block for incremental encoders, split into one to three counters.
///
/// Pins: "NCS", "SCK", "MOSI", "MISO"; the counter inputs "AP", "AN", "BP", "BN", "CP", "CN" (A, B
/// and index of one counter as differential pairs; or as single lines, A, B, Z of counter 0 on AP,
/// AN, BP and of counter 1 on BN, CP, CN; or A and B of three counters on the three pairs); "TPI"
/// (only its level is seen, in a status bit); "ACT0", "ACT1"; "NERR", "NWARN" (open drain with a
/// pull-up, active low, also inputs). BiSS and SSI are left out.
///
/// A command byte (read bit and address), then data. The counters, UPD, TP1 and TP2 stand at one
/// address each and come as one word, most significant byte first, with two flags behind; all other
/// registers are bytes at rising addresses.
///
/// MASK and NMASK are kept but enable nothing: NERR shows transition errors and NWARN a valid UPD,
/// as after power-up. TPCFG and PRIOR are kept too.
///
/// Violations besides those of every SPI chip: "partial-byte", "short-frame", "short-read",
/// "long-read", "unknown-address", "write-to-read-only", "read-of-write-only", "reserved-bit",
/// "not-reset" (counters read after CNTCFG changed and no reset), "needs-ttl" (more than one
/// counter with differential inputs), "touch-probe-length", "spi-channel-over-counter",
/// "count-too-fast".
class Icmd : public ByteChip {
 public:
  static constexpr std::string_view kType = "iC-MD";

  /// Which of the two counters of configuration 5 has 32 bits; sources differ.
  enum class Config5 : uint8_t { Counter1Has32, Counter0Has32 };
  /// Whether the PDWN bits of the three status bytes are one latch.
  enum class PowerDownBits : uint8_t { PerByte, Shared };
  /// What follows TP1 and TP2 behind the error flag.
  enum class ProbeFlag : uint8_t { Warning, ProbeValid };
  /// Which address of REF has its most significant byte.
  enum class ReferenceOrder : uint8_t { MsbFirst, LsbFirst };
  /// What stands in the counters after CNTCFG changed.
  enum class Regrouped : uint8_t { Kept, Noise };
  enum class Revision : uint8_t { X, Y, Z, Z1 };

  explicit Icmd(std::string name);

  // Bench face. Counters are 0 to 2.

  /// How many counters CNTCFG makes.
  int counters() const;
  /// How many bits a counter has; 0 for one that CNTCFG doesn't make.
  int bits(int counter) const;
  /// 0 for one that CNTCFG doesn't make.
  int64_t count(int counter) const;
  /// Puts a value into a counter, to be near an overflow without a billion turns.
  void setCount(int counter, int64_t value);
  /// The same for the edges since the last index, which become UPD: 24 bits with a sign.
  void setSinceIndex(int32_t edges);
  /// Status byte 0x48, 0x49 or 0x4A as 0 to 2, without clearing it.
  uint8_t status(int byte) const;
  /// A byte register of 0x00 to 0x07.
  uint8_t registerValue(uint8_t address) const;
  bool act(int output) const;
  /// Level of the pin that chooses SSI; low unless set.
  void setSsi(bool enabled);

  /// `Counter1Has32` unless set.
  void setConfig5(Config5 layout);
  /// `PerByte` unless set.
  void setPowerDownBits(PowerDownBits bits);
  /// Whether the ZERO bits are set after power-up; not, unless set.
  void setZeroAtPowerUp(bool zero);
  /// `Warning` unless set.
  void setProbeFlag(ProbeFlag flag);
  /// `MsbFirst` unless set.
  void setReferenceOrder(ReferenceOrder order);
  /// `Kept` unless set.
  void setRegrouped(Regrouped contents);
  /// `X` unless set.
  void setRevision(Revision revision);
  /// Whether mode 3, which works but is in no data sheet, is no violation; it is one unless set.
  void setMode3Allowed(bool allowed);
  /// Highest SPI clock, 10 MHz unless set.
  void setMaxClock(uint32_t hertz);
  /// Highest rate of edges at the inputs, 40 MHz unless set; faster ones are illegal transitions.
  void setMaxCountRate(double hertz);
  /// What a read of the instruction address gives, 0 unless set.
  void setInstructionReadsAs(uint8_t value);

  // Bus face.
  void powerUp() override;

 protected:
  void frameBegan() override;
  void byteCame(uint8_t byte) override;
  uint8_t nextByte() override;
  void frameEnded() override;
  void otherPinChanged(Pin& pin, Level level) override;

 private:
  static constexpr int kCounters = 3;

  struct Field {
    unsigned shift = 0;
    unsigned bits = 0;
  };
  struct Inputs {
    bool a = false;
    bool b = false;
    bool z = false;  // gated by A and B, ready to be used
    bool operator==(const Inputs&) const = default;
  };

  void addProperties();
  void addOptions();
  template <typename Choice>
  void addChoice(const char* name, const char* help, std::vector<std::string_view> words,
                 const Choice& value, void (Icmd::*set)(Choice));

  unsigned config() const { return registers_[0] & 0x07U; }
  bool ttl() const { return (registers_[1] & 0x80U) != 0; }
  void chooseLayout();
  int64_t value(int counter) const;
  void store(int counter, int64_t value);
  void reset(int counter);
  bool exists(int counter) const;

  bool differential(const Pin& positive, const Pin& negative, bool before) const;
  Inputs inputsOf(int counter) const;
  void takeInputs();
  void inputsChanged();
  void countEdge(int counter, const Inputs& before, const Inputs& after);
  void illegalTransition(int counter);
  void step(int counter, bool forward);
  void indexPulse(int counter);
  void referencePulse();

  void beginRead();
  void loadWord(uint64_t value, unsigned bits, bool warning);
  void readCounters();
  uint8_t readByte(uint8_t address) const;
  void byteRead();
  void writeByte(uint8_t value);
  void writeConfiguration(uint8_t value);
  void instruction(uint8_t value);
  void touchProbe();
  void checkWordLength();

  void raise(int byte, uint8_t bits);
  void clear(int byte, uint8_t bits);
  void updatePins();

  std::array<Pin*, 6> in_;  // AP, AN, BP, BN, CP, CN
  Pin& tpi_;
  Pin& act0_;
  Pin& act1_;
  Pin& nerr_;
  Pin& nwarn_;

  // Bench.
  bool ssi_ = false;
  Config5 config5_ = Config5::Counter1Has32;
  PowerDownBits powerDownBits_ = PowerDownBits::PerByte;
  bool zeroAtPowerUp_ = false;
  ProbeFlag probeFlag_ = ProbeFlag::Warning;
  ReferenceOrder referenceOrder_ = ReferenceOrder::MsbFirst;
  Regrouped regrouped_ = Regrouped::Kept;
  Revision revision_ = Revision::X;
  double maxCountRate_ = 40e6;
  uint8_t instructionReadsAs_ = 0;

  // Registers.
  std::array<uint8_t, 8> registers_{};
  std::array<uint8_t, kCounters> latched_{};  // the status bytes but for their live bits
  uint8_t actuators_ = 0;
  uint64_t block_ = 0;  // the 48 bits that the counters share
  std::array<Field, kCounters> fields_{};
  uint32_t update_ = 0;
  uint32_t reference_ = 0;
  bool referenceValid_ = false;
  uint32_t probe1_ = 0;
  uint32_t probe2_ = 0;

  // Counting.
  Time poweredAt_{0};
  std::array<Inputs, kCounters> inputs_{};
  std::array<Time, kCounters> edgeAt_{};
  std::array<bool, kCounters> notReset_{};  // since CNTCFG changed
  std::array<uint8_t, 2> indexPulses_{};    // that counted, up to 2
  int32_t sinceIndex_ = 0;                  // edges, forwards minus backwards

  // Serial interface.
  uint32_t bytes_ = 0;  // of this frame
  uint8_t command_ = 0;
  uint8_t address_ = 0;
  uint8_t loaded_ = 0;  // the register byte going out
  bool wide_ = false;   // reading a word
  std::array<uint8_t, 7> word_{};
  uint32_t wordLength_ = 0;  // in bytes, with the flags
};

}  // namespace vboard

#endif
