// SPDX-License-Identifier: MIT
#include "tool/Interrupt.h"

#include <algorithm>

#include "orv/Thread.h"

namespace tool {
namespace {

volatile std::sig_atomic_t signalsCame = 0;

extern "C" void rememberSignal(int /*signal*/) {
  signalsCame = signalsCame + 1;
}

}  // namespace

Interrupt::Interrupt() {
  signalsCame = 0;
  struct sigaction action {};
  action.sa_handler = rememberSignal;
  // One at a time, so that each is counted.
  sigemptyset(&action.sa_mask);
  for (const int signal : kSignals) {
    sigaddset(&action.sa_mask, signal);
  }
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

unsigned int Interrupt::count() const {
  return static_cast<unsigned int>(signalsCame);
}

void Interrupt::sleep(unsigned int milliseconds, unsigned int known) const {
  // In slices, because a sleep goes on after a signal.
  constexpr unsigned int kSliceMs = 50;
  while (milliseconds > 0 && count() <= known) {
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
