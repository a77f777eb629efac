// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_ANALOGOUT_SPILEDDRIVER12BIT_TLC5947_P_H
#define VARNEL_CHIPS_ANALOGOUT_SPILEDDRIVER12BIT_TLC5947_P_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"

namespace Varnel {

/// One value per output, in the order of transmission.
using tPwmChannels = std::vector<uint16_t>;

class LedDriverTLC5947Private {
 public:
  explicit LedDriverTLC5947Private(CSpiLedDriver12Bit_TLC5947* driver) : _this(driver) {}

  /// The first output of a logical channel.
  size_t pwmChannelIndex(uint16_t ledChannelIndex) const;
  /// Sets the outputs from `first` on, `end` excluded, and marks the table as changed.
  void setOutputs(size_t first, size_t end, uint16_t pwm);

  CSpiLedDriver12Bit_TLC5947* _this;
  Orv::CLinuxIoPin OutputEnablePin{47, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW};
  tPwmChannels PwmChannels = tPwmChannels(24);     ///< the transmit buffer
  tPwmChannels ShadowChannels = tPwmChannels(24);  ///< as long as the table; its values are unused
  uint8_t PwmChannelsPerLed = 1;
  bool DataChanged = true;  ///< the table holds values that were not sent yet
  // Reserved: nothing uses the mutex and the condition, nothing starts the thread.
  std::mutex DataChangedMutex;
  std::condition_variable DataChangedCondition;
  std::thread DataTransferThread;
  uint32_t TransferCount = 0;  ///< transfers that were tried
};

}  // namespace Varnel

#endif
