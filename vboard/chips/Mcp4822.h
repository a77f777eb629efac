// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_MCP4822_H
#define VBOARD_CHIPS_MCP4822_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"
#include "vboard/chips/Timing.h"

namespace vboard {

/// Microchip MCP4822: two 12-bit voltage outputs with a 2.048 V reference inside, edge by edge.
///
/// Pins: "CS" (active low), "SCK", "SDI", "LDAC" (active low; high, so without any effect, unless
/// connected). Nothing can be read back: it has no data output. The outputs are the bench.
///
/// Of a select the first 16 rising clocks count. The rise of CS writes them to the input register
/// of the channel that they name, or nothing when there were fewer. While LDAC is low both input
/// registers show at the outputs. At power-up both outputs are off.
///
/// Violations besides those of every SPI chip ("spi-mode", "clock-too-fast" …): "frame-length",
/// "empty-frame", "select-high-too-short", "select-low-at-power-up", "ldac-open",
/// "ldac-too-early", "ldac-pulse-too-short", "output-clips".
class Mcp4822 : public SpiChip {
 public:
  static constexpr std::string_view kType = "MCP4822";

  enum class Channel : uint8_t { A, B };

  explicit Mcp4822(std::string name);

  // Bench face.

  /// VOUTA or VOUTB in volts once it has settled, clipped at 10 mV and 40 mV below the supply; 0
  /// while the channel is off: 500 kohm to ground.
  double voltage(Channel channel) const;
  /// The same at this moment: outputs wake and slew.
  double voltageNow(Channel channel) const;
  /// Whether the channel drives its output.
  bool active(Channel channel) const;
  /// What the channel shows, 0 to 4095; also while it is off.
  int code(Channel channel) const;
  /// 1 (2.048 V full scale) or 2 (4.096 V).
  int gain(Channel channel) const;
  /// The last word written for the channel: what a low LDAC shows.
  int inputRegister(Channel channel) const;
  /// Words written to an input register.
  uint64_t writes() const;
  /// How often the input registers went to the outputs, from the first word after power-up on.
  uint64_t updates() const;
  /// VDD in volts, 2.7 to 5.5; 5 unless set. The outputs stay below it.
  void setSupply(double volts);
  /// How long a channel takes from shutdown to a moving output; 10 µs unless set.
  void setWakeTime(Time time);
  /// Whether gain and shutdown wait for LDAC as the value does (unless set), or act at the rise of
  /// CS.
  void setBuffersControl(bool buffers);

  // Bus face.
  Pin& clockPin() override { return sck_; }
  Pin* dataInPin() override { return &sdi_; }
  bool listening() const override { return selected_; }
  const SpiLimits& limits() const override { return limits_; }
  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  /// One channel's output stage.
  struct Output {
    uint16_t word = 0;      // the register behind LDAC
    double from = 0;        // volts when the output began to move
    Time movesAt{0};        // it does from then on
    double target() const;  // volts, before the supply's limits
  };

  void addProperties();
  void select();
  void deselect();
  void clockRose();
  void ldacFell();
  void ldacRose();
  void update();
  void show(size_t channel, uint16_t word);
  double clipped(double volts) const;
  double settled(const Output& output) const;
  double present(const Output& output) const;
  const Output& outputOf(Channel channel) const { return outputs_[static_cast<size_t>(channel)]; }

  Pin& cs_;
  Pin& sck_;
  Pin& sdi_;
  Pin& ldac_;
  SpiLimits limits_;

  double supply_ = 5.0;
  Time wakeTime_ = std::chrono::microseconds(10);
  bool buffersControl_ = true;

  bool seenHigh_ = false;  // CS has been high since power came
  bool selected_ = false;
  bool openTold_ = false;  // the missing LDAC was reported
  uint32_t clocks_ = 0;    // since the select
  uint16_t shift_ = 0;
  uint16_t inputs_[2] = {};
  Output outputs_[2];
  Time deselectedAt_ = kNever;
  Time writtenAt_ = kNever;
  Time ldacFellAt_ = kNever;
  uint64_t writes_ = 0;
  uint64_t updates_ = 0;
};

}  // namespace vboard

#endif
