// SPDX-License-Identifier: MIT
#include "vboard/kernel/KernelState.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <stdexcept>

#include "vboard/kernel/Descriptors.h"
#include "vboard/kernel/SanitizerCalls.h"
#include "vboard/kernel/VirtualTime.h"

namespace vboard::kernel {
namespace {

/// What new calls find.
constinit std::atomic<KernelState*> current{nullptr};
/// What calls inside work with: it stays while a kernel that ends waits for them.
constinit std::atomic<KernelState*> inForce{nullptr};
constinit std::atomic<bool> currentVirtualTime{false};
/// Calls inside: a kernel ends when there are none.
constinit std::atomic<int> callsInside{0};

/// Called at the next call on a node.
constinit std::atomic<void (*)()> firstCall{nullptr};

/// How often the board's clock is moved on in real time while nobody calls.
constexpr std::chrono::milliseconds kRealTimeStep{1};

/// Announces a call; the kernel it finds stays until `leave`.
KernelState* announce() {
  callsInside.fetch_add(1, std::memory_order_seq_cst);
  KernelState* state = current.load(std::memory_order_seq_cst);
  if (state == nullptr) {
    callsInside.fetch_sub(1, std::memory_order_release);
  }
  return state;
}

KernelState* enter() {
  KernelState* state = announce();
  if (state != nullptr) {
    state->board.mutex().lock();
    tellLocked(state->board.mutex());
  }
  return state;
}

/// The same without waiting: null also while another thread is inside.
KernelState* tryEnter() {
  KernelState* state = announce();
  if (state == nullptr) {
    return nullptr;
  }
  if (!state->board.mutex().try_lock()) {
    callsInside.fetch_sub(1, std::memory_order_release);
    return nullptr;
  }
  tellLocked(state->board.mutex());
  return state;
}

void unlock(KernelState& state) {
  publishedTime.store(state.board.clock().now().count(), std::memory_order_relaxed);
  tellUnlocking(state.board.mutex());
  state.board.mutex().unlock();
}

void leave(KernelState& state) {
  unlock(state);
  callsInside.fetch_sub(1, std::memory_order_release);
}

// A forked child gets a whole board: nobody else is in the middle of a call when it is copied.

thread_local KernelState* heldForFork __attribute__((tls_model("initial-exec"))) = nullptr;

void beforeFork() {
  heldForFork = enter();
}

void afterForkInParent() {
  if (heldForFork != nullptr) {
    leave(*heldForFork);
  }
}

void afterForkInChild() {
  descriptors.own();
  callsInside.store(0, std::memory_order_relaxed);
  if (heldForFork != nullptr) {
    // It is locked by a thread of the parent's number, which nobody can unlock here.
    new (&heldForFork->board.mutex()) std::recursive_mutex;
    if (heldForFork->realTime != nullptr) {
      heldForFork->realTime->forked();
    }
  }
}

void prepareProcess() {
  static std::once_flag once;
  std::call_once(once, [] {
    descriptors.own();
    pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild);
  });
}

}  // namespace

RealTime::RealTime(Board& board)
    : board_(board), start_(std::chrono::steady_clock::now() - board.clock().now()) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread([this] { run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

RealTime::~RealTime() {
  stopping_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
}

void RealTime::catchUp() {
  board_.clock().advanceTo(std::chrono::steady_clock::now() - start_);
}

void RealTime::waitUntil(Time moment) const {
  std::this_thread::sleep_until(start_ + moment);
}

void RealTime::forked() {
  new (&thread_) std::thread;
}

void RealTime::run() {
  while (!stopping_) {
    std::this_thread::sleep_for(kRealTimeStep);
    const std::lock_guard lock(board_.mutex());
    catchUp();
  }
}

KernelState::KernelState(Board& theBoard, KernelOptions theOptions)
    : board(theBoard), options(theOptions) {
  KernelState* none = nullptr;
  if (!inForce.compare_exchange_strong(none, this)) {
    throw std::logic_error("a vboard::Kernel is running already");
  }
  options.virtualTime = options.virtualTime && !options.realTime;
}

KernelState::~KernelState() {
  inForce = nullptr;
}

KernelState& kernelState() {
  return *inForce.load(std::memory_order_relaxed);
}

void startRunning(KernelState& state) {
  prepareProcess();
  if (state.options.realTime) {
    state.realTime = std::make_unique<RealTime>(state.board);
  }
  if (state.options.virtualTime) {
    startVirtualClocks(state.board);
  }
  setFileTree(&state.tree);
  current = &state;
  currentVirtualTime = state.options.virtualTime;
}

void stopRunning() {
  currentVirtualTime = false;
  current = nullptr;
  while (callsInside.load(std::memory_order_acquire) != 0) {
    std::this_thread::yield();
  }
  setFileTree(nullptr);
}

bool virtualTimeActive() {
  return currentVirtualTime.load(std::memory_order_relaxed);
}

bool running() {
  return current.load(std::memory_order_relaxed) != nullptr;
}

Board* activeBoard() {
  const KernelState* state = current.load(std::memory_order_acquire);
  return state == nullptr ? nullptr : &state->board;
}

void onFirstCall(void (*function)()) {
  firstCall.store(function, std::memory_order_relaxed);
}

RunningScope::RunningScope() {
  KernelState* state = enter();
  board_ = state == nullptr ? nullptr : &state->board;
}

RunningScope::RunningScope(std::try_to_lock_t) {
  KernelState* state = tryEnter();
  board_ = state == nullptr ? nullptr : &state->board;
}

RunningScope::~RunningScope() {
  if (board_ != nullptr) {
    leave(kernelState());
  }
}

CallScope::CallScope() : state_(enter()), savedErrno_(errno) {
  if (state_ != nullptr && state_->realTime != nullptr) {
    state_->realTime->catchUp();
  }
}

CallScope::~CallScope() {
  if (state_ != nullptr) {
    RealTime* const realTime = state_->realTime.get();
    if (realTime != nullptr) {
      const Time end = state_->board.clock().now();
      unlock(*state_);
      realTime->waitUntil(end);
      callsInside.fetch_sub(1, std::memory_order_release);
    } else {
      leave(*state_);
    }
  }
  errno = savedErrno_;
}

CallScope::operator bool() const {
  return state_ != nullptr;
}

int faultFor(Call call, const std::string& nodePath) {
  return kernelState().faults.next(call, nodePath);
}

void chargeCall(std::string_view call, const std::string& nodePath, Result result) {
  if (firstCall.load(std::memory_order_relaxed) != nullptr) [[unlikely]] {
    firstCall.exchange(nullptr)();
  }
  KernelState& state = kernelState();
  // In real time a call costs what it costs this machine.
  if (state.realTime == nullptr) {
    state.board.clock().advance(state.board.options().callCost);
  }
  if (state.board.observed()) {
    for (Observer* observer : state.board.observers()) {
      observer->onCall(call, nodePath, result, state.board.clock().now());
    }
  }
}

}  // namespace vboard::kernel
