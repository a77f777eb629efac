// SPDX-License-Identifier: MIT
#ifndef TOOL_EXPANDER_H
#define TOOL_EXPANDER_H

#include "orv/LinuxIoPin.h"
#include "tool/ExpanderSpec.h"
#include "tool/Trouble.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace tool {

/// The 74HC595 in front of a chip. What fails in it is noted as the expander's own failure.
class Expander {
 public:
  /// `latch` is connected, `bus` open; `bus` and `trouble` must outlive the expander.
  Expander(const ExpanderSpec& spec, uint8_t noneAddress, const Orv::CLinuxIoPin& latch,
           Varnel::CLinuxSpiBus& bus, Trouble& trouble);
  Expander(const Expander&) = delete;
  Expander& operator=(const Expander&) = delete;

  /// Makes a device selectable under the address given: one, which the expander outlives.
  void attach(Varnel::CLinuxSpiDevice& device);
  bool implicitly() const { return implicitly_; }
  /// Brings an address to the outputs that an implicit selection only stored.
  TErrCode latchStored(bool select);
  /// Brings the none address to the outputs, whatever came before. Needs no attached device alive.
  TErrCode deselectAll();

 private:
  /// Selects through the selector that the attached device got.
  class Selector : public Varnel::ILinuxSpiChipSelector {
   public:
    explicit Selector(Expander& expander) : expander_(expander) {}
    TErrCode enable(bool select) override;
    Varnel::ILinuxSpiChipSelector* inner = nullptr;

   private:
    Expander& expander_;
  };

  TErrCode noted(bool select, TErrCode code);

  Orv::CLinuxIoPin latch_;
  Trouble& trouble_;
  uint8_t address_;
  uint8_t noneAddress_;
  bool implicitly_;
  Watched<Varnel::CHC595ChipSelectDevice> device_;
  Selector selector_{*this};
};

}  // namespace tool

#endif
