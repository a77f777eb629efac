// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_GPIOREQUESTS_H
#define VBOARD_KERNEL_GPIOREQUESTS_H

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "vboard/kernel/GpioLines.h"

namespace vboard::kernel {

/// The requests that make descriptors of their own. Each reads its argument from the caller's
/// memory, takes the lines, and writes the descriptor back; 0 or a negated errno.

/// GPIO_GET_LINEHANDLE
Result makeLineHandle(const std::shared_ptr<GpioLines>& lines, void* argument);
/// GPIO_GET_LINEEVENT
Result makeLineEvent(const std::shared_ptr<GpioLines>& lines, void* argument);
/// GPIO_V2_GET_LINE
Result makeLineRequest(const std::shared_ptr<GpioLines>& lines, void* argument);

/// Hands a request's file to the process and writes the descriptor into the caller's structure.
template <typename Request>
Result giveDescriptor(std::shared_ptr<GpioFile> file, int backingDescriptor, Request& request,
                      void* argument) {
  // Tried before there is a descriptor that would have to be taken back.
  if (!copyToUser(argument, &request, sizeof(request))) {
    if (backingDescriptor >= 0) {
      ::close(backingDescriptor);
    }
    return -EFAULT;
  }
  const Result descriptor =
      installOpenFile(std::move(file), O_RDONLY | O_CLOEXEC, backingDescriptor);
  if (descriptor < 0) {
    return descriptor;
  }
  request.fd = static_cast<int>(descriptor);
  return copyToUser(argument, &request, sizeof(request)) ? 0 : -EFAULT;
}

}  // namespace vboard::kernel

#endif
