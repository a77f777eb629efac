// SPDX-License-Identifier: MIT
#include "vboard/board/TriStateBuffer.h"

namespace vboard {

TriStateBuffer::TriStateBuffer(std::string name)
    : Part(std::string(kType), std::move(name)),
      a_(addInput("A", Level::Low)),
      oe_(addInput("OE", Level::High)),
      y_(addOutput("Y")) {
}

void TriStateBuffer::powerUp() {
  pinChanged(oe_, oe_.level());
}

void TriStateBuffer::pinChanged(Pin& /*pin*/, Level /*level*/) {
  y_.drive(oe_.high() ? Drive::Floating : driveOf(a_.level()));
}

}  // namespace vboard
