// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGOUT_SPIANALOGOUT2X12BIT_MCP4822_P_H
#define VARNEL_CHIPS_ANALOGOUT_SPIANALOGOUT2X12BIT_MCP4822_P_H

#include <cstdint>

#include "orv/LinuxIoPin.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"

namespace Varnel {

class CSpiAnalogOut2x12Bit_MCP4822Private {
 public:
  Orv::CLinuxIoPin LDACPin{0, Orv::INPUT_PIN, Orv::PIN_MODE_HW};
  // The chip's settings for the record: the prepared transfer is what counts.
  uint8_t SPIMode = 3;
  uint8_t SPILSBFirst = 0;
  uint8_t SPIWReadLSBFirst = 0;
  uint8_t SPIDataBits = 16;
  uint16_t WriteChannelCommand = 0;  ///< the word to send, in host order
  uint16_t OutputBuffer[2] = {0, 0};
};

}  // namespace Varnel

#endif
