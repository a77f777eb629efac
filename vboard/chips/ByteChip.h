// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_BYTECHIP_H
#define VBOARD_CHIPS_BYTECHIP_H

#include <cstdint>
#include <string>
#include <string_view>

#include "vboard/board/SpiBus.h"
#include "vboard/chips/Timing.h"

namespace vboard {

/// The serial side of a chip that takes and gives bytes, MSB first, one command per select: data in
/// is sampled at rising clock edges, data out changes at falling ones, as modes 0 and 3 want it.
/// Data out floats until the chip has something to say.
///
/// A frame starts with a falling select, so a chip that finds it low when power comes waits for the
/// next one.
///
/// Violations besides those of every SPI chip: "select-low-at-power-up", and
/// "select-high-too-short" for chips that say how long they need.
class ByteChip : public SpiChip {
 public:
  Pin& clockPin() override { return clock_; }
  Pin* dataInPin() override { return &in_; }
  Pin* dataOutPin() override { return &out_; }
  bool listening() const override { return selected_; }
  const SpiLimits& limits() const override { return limits_; }
  void pinChanged(Pin& pin, Level level) final;

 protected:
  /// As the data sheet calls them.
  struct PinNames {
    const char* select;
    const char* clock;
    const char* in;
    const char* out;
  };

  ByteChip(std::string_view type, std::string name, const PinNames& names);

  virtual void frameBegan() = 0;
  /// The eighth bit of a byte came; while the chip is sending, one of its bytes has gone out.
  virtual void byteCame(uint8_t byte) = 0;
  /// The byte to send next. Asked for at the edge that shows its first bit, so the last byte that
  /// is asked for may never be clocked.
  virtual uint8_t nextByte() = 0;
  /// The select rose after some clocks.
  virtual void frameEnded() = 0;
  /// A pin that isn't one of the four changed.
  virtual void otherPinChanged(Pin& pin, Level level) = 0;

  /// From `byteCame`: data out drives from the next falling edge on.
  void startSending() { sending_ = true; }
  /// Whether clocks pass by unnoticed and data out floats, in the middle of a frame.
  void setPaused(bool paused);
  /// Forgets everything; for `powerUp`.
  void resetSerial();

  bool selected() const { return selected_; }
  bool clockHigh() const { return clock_.high(); }
  /// Since the select fell.
  uint32_t clocks() const { return clocks_; }
  bool wholeBytes() const { return clocks_ % 8 == 0; }
  /// How long the select must stand high between two frames; 0: no matter.
  void setSelectHigh(Time time) { selectHigh_ = time; }
  Time selectHigh() const { return selectHigh_; }

  SpiLimits limits_;

 private:
  void select();
  void deselect();
  void show();

  Pin& select_;
  Pin& clock_;
  Pin& in_;
  Pin& out_;
  bool selected_ = false;
  bool sending_ = false;
  bool paused_ = false;
  bool shown_ = false;  // whether a bit stands on data out, or would but for the pause
  uint8_t shift_ = 0;
  uint8_t output_ = 0;  // the byte going out, its next bit topmost
  uint32_t clocks_ = 0;
  Time selectHigh_{0};
  bool deaf_ = false;  // the select was low when power came
  Time deselectedAt_ = kNever;
};

}  // namespace vboard

#endif
