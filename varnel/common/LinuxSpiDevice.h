// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_LINUXSPIDEVICE_H
#define VARNEL_COMMON_LINUXSPIDEVICE_H

#include <memory>
#include <mutex>
#include <vector>

#include "orv/LinuxIoPin.h"
#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiBus.h"

namespace Varnel {

/// Selects one chip on a bus.
class VARNEL_EXPORT ILinuxSpiChipSelector {
 public:
  virtual ~ILinuxSpiChipSelector();
  /// Selects (true) or deselects (false) the chip; 0 or a negative code.
  virtual TErrCode enable(bool select) = 0;
};

/// A chip select that is one GPIO pin. For the usual active-low select take a pin of
/// `Orv::PIN_MODE_INVERT`: selecting writes HIGH, and the pin's mode makes the line low.
class VARNEL_EXPORT CGpioPinChipSelector : public ILinuxSpiChipSelector {
 public:
  /// Takes a pin that is configured as an output and connected; the two share the line.
  explicit CGpioPinChipSelector(const Orv::CLinuxIoPin& pin);
  /// Takes a pin number and configures it as an output; `connect` before the first use.
  CGpioPinChipSelector(unsigned int pin, Orv::ePinMode mode);
  ~CGpioPinChipSelector() override;

  /// Requests the line, deselected. The pin's code on failure, for example -16 for a line that
  /// something else holds.
  TErrCode connect();
  /// Writes HIGH (true) or LOW (false) to the pin and returns its result.
  TErrCode enable(bool select) override;

 private:
  Orv::CLinuxIoPin m_IoPin;
};

/// Base of every chip driver: one chip on one bus, with its prepared transfer.
///
/// The application creates and owns bus, chip selector and latch pin, and wires them to the device
/// before the first transfer; they must outlive their use. A device without a bus must not be
/// transferred or locked.
///
/// Operations return 0 or the negative code of what failed, which they log; they block until the
/// kernel is done. `transferData(bool)` locks the bus for its whole exchange; the other operations
/// expect the caller to hold `transferMutex()` where threads share the bus.
class VARNEL_EXPORT CLinuxSpiDevice {
 public:
  static constexpr bool DO_TRANSFER = true;        ///< transfer now
  static constexpr bool NO_TRANSFER = false;       ///< only store, for a later transfer
  static constexpr int USE_DEFAULT_BUS_SPEED = 0;  ///< as `speed_hz`: the speed of the bus

  /// Binds the device; each pointer may be null and set later.
  CLinuxSpiDevice(CLinuxSpiBus* bus, ILinuxSpiChipSelector* chipSelector,
                  Orv::CLinuxIoPin* latchPin);
  CLinuxSpiDevice(const CLinuxSpiDevice&) = delete;
  CLinuxSpiDevice& operator=(const CLinuxSpiDevice&) = delete;

  /// Binds the device to a bus, which it does not own.
  void setBus(CLinuxSpiBus* bus);
  /// Sets the chip selector, which the device does not own; null for a chip without select.
  void setChipSelector(ILinuxSpiChipSelector* chipSelector);
  /// The chip selector, or null.
  ILinuxSpiChipSelector* chipSelector() const;
  /// Sets the latch pin, which the device does not own; null for a chip without latch.
  void setLatchPin(Orv::CLinuxIoPin* latchPin);
  /// The latch pin; one must have been set.
  Orv::CLinuxIoPin& latchPin();
  /// Sets this device's chain. Give every member of a daisy chain the same vector, nearest chip
  /// first; a device takes part in its own chain only as an element of the vector.
  void setDeviceChain(std::shared_ptr<std::vector<CLinuxSpiDevice*>> deviceChain);
  /// The chain this device is transferred with; empty on a fresh device.
  std::shared_ptr<std::vector<CLinuxSpiDevice*>> deviceChain() const;
  /// The mutex of the bus.
  std::recursive_mutex& transferMutex();

  /// Selects or deselects the chip; 0 without a selector. Not logged.
  TErrCode enableChipSelect(bool select);
  /// Several transfers in one message, without chip select.
  TErrCode executeTransfer(stSpiMultipleTransferSettings& settings);
  /// Several transfers in one message, with chip select as asked.
  TErrCode executeManagedTransfer(stSpiMultipleTransferSettings& settings, eCS_Handling handling);

  /// Drops this device's reference to the chain, nothing else.
  virtual ~CLinuxSpiDevice();
  /// The prepared transfer, without chip select.
  virtual TErrCode executeTransfer();
  /// The prepared transfer, with chip select as asked.
  virtual TErrCode executeManagedTransfer(eCS_Handling handling);
  /// The prepared transfers of the whole chain, last member first, each as a transfer of its own;
  /// without a chain, this device's. The first failure ends it.
  virtual TErrCode executeChainedDataTransfer();
  /// With `DO_TRANSFER`: latch pin LOW, chained transfer, latch pin HIGH, then LOW (without latch
  /// pin just the transfer). A failed transfer leaves the latch pin LOW and unpulsed. With
  /// `NO_TRANSFER`: nothing, 0.
  virtual TErrCode transferData(bool doTransfer);

 protected:
  stSpiTransferSettings m_TransferSettings;  ///< the chip's prepared transfer, 8 bits per word
  CLinuxSpiBus* m_Bus;                       ///< not owned
  ILinuxSpiChipSelector* m_ChipSelect;       ///< may be null, not owned
  Orv::CLinuxIoPin* m_LatchPin;              ///< may be null, not owned
  /// Never null after construction.
  std::shared_ptr<std::vector<CLinuxSpiDevice*>> m_DeviceChain;
};

}  // namespace Varnel

#endif
