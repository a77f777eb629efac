// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_PROBE_H
#define VBOARD_KERNEL_PROBE_H

namespace vboard::kernel {

/// An ioctl of this number on this descriptor, which no kernel has, sets the bool it is given: so
/// `interposed()` learns whether calls arrive here.
constexpr int kProbeDescriptor = -7719;
constexpr unsigned long kProbeRequest = 0x7B0A;

}  // namespace vboard::kernel

#endif
