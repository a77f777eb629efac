// SPDX-License-Identifier: MIT
#include "vboard/chips/ByteChip.h"

#include "vboard/chips/Bytes.h"

namespace vboard {

ByteChip::ByteChip(std::string_view type, std::string name, const PinNames& names)
    : SpiChip(std::string(type), std::move(name)),
      select_(addInput(names.select, Level::High)),
      clock_(addInput(names.clock, Level::Low)),
      in_(addQuietInput(names.in, Level::Low)),
      out_(addOutput(names.out)) {
  clock_.setAttentive(false);
}

void ByteChip::resetSerial() {
  selected_ = false;
  sending_ = false;
  paused_ = false;
  shown_ = false;
  clocks_ = 0;
  deselectedAt_ = kNever;
  deaf_ = !select_.high();
  clock_.setAttentive(deaf_);
}

void ByteChip::pinChanged(Pin& pin, Level level) {
  if (&pin == &clock_) {
    if (deaf_) [[unlikely]] {
      violate("select-low-at-power-up", "clocked with " + select_.name() +
                                            " low since power came: nothing starts until it falls");
      clock_.setAttentive(false);
      return;
    }
    if (paused_) {
      return;
    }
    if (level == Level::High) {
      shift_ = shiftedIn(shift_, in_.high());
      if (++clocks_ % 8 == 0) {
        byteCame(shift_);
      }
    } else if (sending_) {
      output_ = clocks_ % 8 == 0 ? nextByte() : shiftedIn(output_, false);
      shown_ = true;
      show();
    }
  } else if (&pin == &select_) {
    level == Level::Low ? select() : deselect();
  } else {
    otherPinChanged(pin, level);
  }
}

void ByteChip::show() {
  const Drive bit = (output_ & 0x80U) != 0 ? Drive::High : Drive::Low;
  out_.drive(shown_ && !paused_ ? bit : Drive::Floating);
}

void ByteChip::setPaused(bool paused) {
  paused_ = paused;
  show();
}

void ByteChip::select() {
  selected_ = true;
  deaf_ = false;
  clocks_ = 0;
  clock_.setAttentive(true);
  if (deselectedAt_ != kNever) {
    const Time high = now() - deselectedAt_;
    if (tooShort(board(), high, selectHigh_)) {
      violate("select-high-too-short", select_.name() + " high for " + nanosecondsText(high) +
                                           " between frames, at least " +
                                           nanosecondsText(selectHigh_));
    }
  }
  frameBegan();
}

void ByteChip::deselect() {
  const bool clocked = selected_ && clocks_ > 0;
  selected_ = false;
  sending_ = false;
  shown_ = false;
  deselectedAt_ = now();
  clock_.setAttentive(false);
  show();
  if (clocked) {
    frameEnded();
  }
}

}  // namespace vboard
