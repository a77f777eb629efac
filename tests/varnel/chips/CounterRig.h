// SPDX-License-Identifier: MIT
#ifndef TESTS_VARNEL_CHIPS_COUNTERRIG_H
#define TESTS_VARNEL_CHIPS_COUNTERRIG_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Wire.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD_p.h"

struct OpenCounter : Varnel::iC_MD::CSpiQuadratureCounter48Bit {
  using CSpiQuadratureCounter48Bit::d_ptr;
  using CSpiQuadratureCounter48Bit::m_Bus;
  using CSpiQuadratureCounter48Bit::m_ChipSelect;
  using CSpiQuadratureCounter48Bit::m_LatchPin;
  using CSpiQuadratureCounter48Bit::m_TransferSettings;
};

/// A counter on an open bus of 500 kHz.
struct CounterRig : BusRig {
  OpenCounter counter;

  CounterRig() {
    counter.setBus(&bus);
    counter.setChipSelector(&selector);
    wire.name(&counter.d_ptr->SPI_TxBuffer, 1, "out");
    wire.name(&counter.d_ptr->SPI_RxBuffer, 1, "in");
  }

  /// Script of a whole counter read: nothing meant during the address, then the data.
  void receivesData(const std::vector<uint8_t>& data) {
    wire.receives({0x99});
    for (const uint8_t byte : data) {
      wire.receives({byte});
    }
  }
};

/// The message of one byte.
inline std::string counterByte(const std::string& byte, const std::string& speedHz = "500000") {
  return "ioctl(7, SPI_IOC_MESSAGE(1), {tx=out[" + byte + "] rx=in len=1 speed_hz=" + speedHz +
         " bits_per_word=8}) = 1";
}

/// An exchange of several bytes in one select.
inline wire::Lines counterFrame(const std::vector<std::string>& bytes) {
  wire::Lines lines = {"select(chip, true) = 0"};
  for (const std::string& byte : bytes) {
    lines.push_back(counterByte(byte));
  }
  lines.push_back("select(chip, false) = 0");
  return lines;
}

#endif
