// SPDX-License-Identifier: MIT
#include "tests/orv/AllocationFaults.h"

#include <cstdlib>
#include <new>

namespace {

thread_local AllocationFault* current = nullptr;

}  // namespace

struct AllocationCounter {
  static bool fails() {
    if (current == nullptr || current->left_ == 0 || --current->left_ > 0) {
      return false;
    }
    current->hit_ = true;
    return true;
  }
};

AllocationFault::AllocationFault(int n) : left_(n), outer_(current) {
  current = this;
}

AllocationFault::~AllocationFault() {
  current = outer_;
}

bool AllocationFault::hit() const {
  return hit_;
}

void* operator new(std::size_t size) {
  void* const memory = AllocationCounter::fails() ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
