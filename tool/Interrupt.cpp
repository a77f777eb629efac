// SPDX-License-Identifier: MIT
#include "tool/Interrupt.h"

#include <algorithm>

#include "orv/Thread.h"

namespace tool {
namespace {

volatile std::sig_atomic_t signalCame = 0;

extern "C" void rememberSignal(int /*signal*/) {
  signalCame = 1;
}

}  // namespace

Interrupt::Interrupt() {
  signalCame = 0;
  struct sigaction action {};
  action.sa_handler = rememberSignal;
  sigemptyset(&action.sa_mask);
  // A transfer that a signal cuts short would fail with EINTR.
  action.sa_flags = SA_RESTART;
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    sigaction(kSignals[i], nullptr, &previous_[i]);
    if (kSignals[i] != SIGHUP || previous_[i].sa_handler != SIG_IGN) {
      sigaction(kSignals[i], &action, nullptr);
    }
  }
}

Interrupt::~Interrupt() {
  for (size_t i = 0; i < std::size(kSignals); ++i) {
    sigaction(kSignals[i], &previous_[i], nullptr);
  }
}

bool Interrupt::requested() const {
  return signalCame != 0;
}

void Interrupt::sleep(unsigned int milliseconds) const {
  // In slices, because a sleep goes on after a signal.
  constexpr unsigned int kSliceMs = 50;
  while (milliseconds > 0 && !requested()) {
    const unsigned int slice = std::min(milliseconds, kSliceMs);
    Orv::CThread::sleep(slice);
    milliseconds -= slice;
  }
}

void repeat(const Repetition& repetition, const Interrupt& interrupt,
            const std::function<void(uint64_t round)>& body) {
  for (uint64_t round = 1; repetition.count == 0 || round <= repetition.count; ++round) {
    if (round > 1) {
      interrupt.sleep(repetition.intervalMs);
    }
    if (interrupt.requested()) {
      return;
    }
    body(round);
  }
}

}  // namespace tool
