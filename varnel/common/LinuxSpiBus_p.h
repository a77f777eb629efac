// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_LINUXSPIBUS_P_H
#define VARNEL_COMMON_LINUXSPIBUS_P_H

#include <map>
#include <mutex>
#include <string>

#include "varnel/common/LinuxSpiBus.h"

namespace Varnel {

class CLinuxSpiBusPrivate {
 public:
  explicit CLinuxSpiBusPrivate(CLinuxSpiBus* bus) : q_ptr(bus) {}

  TErrCode setSpiSpeedHz(uint32_t speedHz);
  /// Not nestable: a second temporary change overwrites the saved speed.
  TErrCode temporarilySetSPISpeed(uint32_t speedHz);
  TErrCode restoreSPISpeed();

  /// Mode, bit order and speed of a message, in this order; rewrites the entries' speeds.
  TErrCode applySettings(const stBusSettings& settings, spi_ioc_transfer* transfers,
                         uint16_t count);
  TErrCode sendMessage(spi_ioc_transfer* transfers, uint16_t count);
  TErrCode sendSettlingTransfer(const spi_ioc_transfer& first);

  /// The bodies of the transfer operations; `function` is the operation that log lines name.
  TErrCode transfer(const stBusSettings& settings, spi_ioc_transfer* transfers, uint16_t count,
                    const char* function);
  TErrCode managedTransfer(CLinuxSpiDevice* device, const stBusSettings& settings,
                           spi_ioc_transfer* transfers, uint16_t count, eCS_Handling handling,
                           const char* function);

  CLinuxSpiBus* q_ptr;
  std::string DeviceName = "/dev/spidev1.0";
  int FileDescriptor = 0;
  stBusSettings TransferSettings;
  uint8_t DataBits = 8;
  uint32_t SpeedHz = 500000;
  uint32_t SpeedHz_TemporaryBuffer = 500000;
  std::recursive_mutex Mutex;
  /// Mode, bit order or speed changed on the open node since the last settling transfer.
  bool TransferSettingsChanged = false;

  static std::map<std::string, CLinuxSpiBus*> Registry;
};

}  // namespace Varnel

#endif
