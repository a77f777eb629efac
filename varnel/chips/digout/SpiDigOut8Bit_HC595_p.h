// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_DIGOUT_SPIDIGOUT8BIT_HC595_P_H
#define VARNEL_CHIPS_DIGOUT_SPIDIGOUT8BIT_HC595_P_H

#include <map>
#include <memory>
#include <vector>

#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

namespace Varnel {

/// What an attached device got.
struct tDeviceCsConfig {
  std::shared_ptr<std::vector<CLinuxSpiDevice*>> DeviceChain;  ///< [expander, device]
  std::shared_ptr<CHC595ChipSelector> ChipSelector;
};

/// By chip-select address.
using tDeviceCsConfigMap = std::map<uint8_t, tDeviceCsConfig>;

class HC595ChipSelectDevicePrivate {
 public:
  explicit HC595ChipSelectDevicePrivate(CHC595ChipSelectDevice* expander) : _this(expander) {}

  CHC595ChipSelectDevice* _this;
  uint8_t CsAddressNone = 7;  ///< selects no device
  tDeviceCsConfigMap CsConfigMap;
};

}  // namespace Varnel

#endif
