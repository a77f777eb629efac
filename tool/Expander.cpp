// SPDX-License-Identifier: MIT
#include "tool/Expander.h"

#include <stdexcept>

namespace tool {

using Varnel::CHC595ChipSelectDevice;
using Varnel::CLinuxSpiDevice;

TErrCode Expander::Selector::enable(bool select) {
  return expander_.noted(select, inner->enable(select));
}

Expander::Expander(const ExpanderSpec& spec, uint8_t noneAddress, const Orv::CLinuxIoPin& latch,
                   Varnel::CLinuxSpiBus& bus, Trouble& trouble)
    : latch_(latch),
      trouble_(trouble),
      address_(spec.address),
      noneAddress_(noneAddress),
      implicitly_(spec.implicitly),
      device_(trouble) {
  device_.setBus(&bus);
  device_.setLatchPin(&latch_);
  device_.setCsAddressNone(noneAddress);
}

void Expander::attach(CLinuxSpiDevice& device) {
  // A second device at an address would be left with a selector that is gone.
  if (selector_.inner != nullptr) {
    throw std::logic_error("the expander has its device already");
  }
  device_.attachSpiDevice(&device, address_,
                          implicitly_ ? CHC595ChipSelectDevice::ImplicitTransfer
                                      : CHC595ChipSelectDevice::ExplicitTransfer);
  selector_.inner = device.chipSelector();
  device.setChipSelector(&selector_);
}

TErrCode Expander::latchStored(bool select) {
  return noted(select, device_.transferData(CLinuxSpiDevice::DO_TRANSFER));
}

TErrCode Expander::deselectAll() {
  // What the driver believes to be on the outputs it doesn't send, though it may only have been
  // stored: something else is stored before. This sends the expander's byte alone, never the chain
  // of an attached device, which may be gone.
  device_.writeOutputs(noneAddress_ ^ 1U, CLinuxSpiDevice::NO_TRANSFER);
  return noted(false, device_.writeOutputs(noneAddress_, CLinuxSpiDevice::DO_TRANSFER));
}

TErrCode Expander::noted(bool select, TErrCode code) {
  if (code >= 0) {
    return code;
  }
  const auto inner = trouble_.take();
  const bool transferFailed = inner && inner->first == Step::Transfer;
  if (select) {
    return trouble_.note(transferFailed ? Step::ExpanderSelectTransfer : Step::ExpanderSelectLatch,
                         code);
  }
  return trouble_.note(
      transferFailed ? Step::ExpanderDeselectTransfer : Step::ExpanderDeselectLatch, code);
}

}  // namespace tool
