// SPDX-License-Identifier: MIT
#ifndef VARNEL_CHIPS_DIGOUT_SPIDIGOUT8BIT_HC595_H
#define VARNEL_CHIPS_DIGOUT_SPIDIGOUT8BIT_HC595_H

#include <cstdint>

#include "varnel/common/Export.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace Varnel {

class HC595ChipSelectDevicePrivate;

/// 74HC595: eight digital outputs on a shift register with output latch.
///
/// Parts:      74HC595, 74HCT595 and their kin
/// SPI:        mode 0, most significant bit first, one word of 8 bits, at the bus speed
/// Pins:       latch (RCLK, outputs change on its rising edge) through `setLatchPin`, required; no
///             select line: the register shifts along with all traffic on the bus
/// Controller: any
///
/// Bit 7 of the byte stands at QH after a write, bit 0 at QA. A cache keeps identical writes off
/// the bus. At power-up the outputs hold anything until the first write.
class VARNEL_EXPORT CSpiDigOut8Bit_HC595 : public CLinuxSpiDevice {
 public:
  /// Unbound: call `setBus` and `setLatchPin` before the first write.
  CSpiDigOut8Bit_HC595();
  ~CSpiDigOut8Bit_HC595() override;

  /// Sets the outputs. A value that the cache holds is neither stored nor sent: also not the very
  /// first 0xFF, and not one that was stored with `NO_TRANSFER` before.
  /// @param value bit 0 is QA, bit 7 is QH
  /// @param doWrite `DO_TRANSFER` shifts and latches now; `NO_TRANSFER` stores the value for the
  ///     next transfer of a chain that this device is in
  /// @return 0, or the negative code of the latch pin or the bus. After a failure the value is not
  ///     cached: writing it again sends it again.
  /// Blocks for one transfer, with the bus locked.
  TErrCode writeOutputs(uint8_t value, bool doWrite);

  /// Latch LOW, chained transfer, latch HIGH, then LOW; with `NO_TRANSFER` nothing. Locks the bus
  /// for it. A failure ends it with the latch as it is.
  TErrCode transferData(bool doWrite) override;

 protected:
  uint8_t m_Register = 0x00;       ///< the byte to shift out, or last shifted out
  uint8_t m_RegisterCache = 0xFF;  ///< what the outputs hold after the last successful write
};

/// A 74HC595 whose outputs select chips: through a decoder, or one output per chip.
///
/// Each device attached under an address gets a chip selector that writes this address when the
/// device is selected, and the none address (7 unless set) when it is deselected. The expander owns
/// the selectors and the device chains, and must outlive the devices attached to it.
///
/// Before the first selection bring the outputs to the none address with `writeOutputs`: on a fresh
/// expander the previous address counts as 0, and selecting throws where no device is attached
/// there. Not to be mixed with `writeOutputs` afterwards.
class VARNEL_EXPORT CHC595ChipSelectDevice : public CSpiDigOut8Bit_HC595 {
 public:
  /// When a new address reaches the outputs.
  enum eChipSelectTransferMode : uint32_t {
    ExplicitTransfer = 0,  ///< a new address is shifted out and latched at once
    ImplicitTransfer = 1   ///< a new address goes out with the next transfer of the device's chain
  };

  /// Unbound, no device attached: call `setBus` and `setLatchPin` before the first selection.
  CHC595ChipSelectDevice();
  ~CHC595ChipSelectDevice() override;

  /// Sets the address that selects no device. Devices attached before keep the one they got.
  void setCsAddressNone(uint8_t address);

  /// Makes a device selectable: sets its chip selector and its chain, which becomes [expander,
  /// device]. Not locked: attach before transfers start.
  /// @param device on the same bus; the expander must outlive it
  /// @param csAddressEnabled an address of its own. The first device under an address keeps it; a
  ///     second one is left with a selector that no longer exists.
  /// @param transferMode when its selection reaches the outputs
  /// @return always 0
  TErrCode attachSpiDevice(CLinuxSpiDevice* device, uint8_t csAddressEnabled,
                           eChipSelectTransferMode transferMode);

  /// Puts an address on the outputs: at once, or with the next transfer of a chain that the
  /// expander is in. While a device is selected, an explicit change shifts the device's prepared
  /// transfer ahead of the address. The address that the cache holds costs nothing.
  /// @return 0, or the negative code of the latch pin or a transfer; the address is then tried
  ///     again by the next call
  /// @throws std::out_of_range if the previous address is neither the none address nor a device's;
  ///     the latch stays LOW, the bus is free
  TErrCode setChipSelect(uint8_t address, eChipSelectTransferMode transferMode);

 protected:
  HC595ChipSelectDevicePrivate* d;  ///< owned
};

/// Selects one device behind an expander.
class VARNEL_EXPORT CHC595ChipSelector : public ILinuxSpiChipSelector {
 public:
  /// Starts with explicit transfers.
  CHC595ChipSelector(CHC595ChipSelectDevice* chip, uint8_t csAddressEnabled,
                     uint8_t csAddressDisabled);
  ~CHC595ChipSelector() override;

  /// Sets the expander, which the selector does not own and must have to `enable`.
  void setHC595Chip(CHC595ChipSelectDevice* chip);
  /// The expander, or null.
  CHC595ChipSelectDevice* HC595Chip();
  /// Sets the mode that `enable` passes on.
  void setTransferMode(CHC595ChipSelectDevice::eChipSelectTransferMode transferMode);

  /// `CHC595ChipSelectDevice::setChipSelect` with the device's address (true) or the none address
  /// that was current when the selector was made (false).
  TErrCode enable(bool select) override;

 protected:
  CHC595ChipSelectDevice* m_SpiDeviceHC595;  ///< not owned
  uint8_t m_CsAdressEnabled;                 ///< written when the device is selected
  uint8_t m_CsAddressDisabled;               ///< written when it is deselected
  /// Passed on by `enable`.
  CHC595ChipSelectDevice::eChipSelectTransferMode m_TransferMode =
      CHC595ChipSelectDevice::ExplicitTransfer;
};

}  // namespace Varnel

#endif
