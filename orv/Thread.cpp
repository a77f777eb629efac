// SPDX-License-Identifier: MIT
#include "orv/Thread.h"

#include <chrono>
#include <thread>

namespace Orv {

void CThread::sleep(unsigned int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace Orv
