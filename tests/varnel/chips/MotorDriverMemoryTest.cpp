// SPDX-License-Identifier: MIT
// What motor drivers take from the heap and what they leave there. The program counts blocks, so
// it has a malloc of its own.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "tests/varnel/chips/MotorDriverRig.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_IS_THE_SANITIZERS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HEAP_IS_THE_SANITIZERS 1
#endif
#endif

namespace {

struct Block {
  const void* address = nullptr;
  size_t size = 0;
};

/// Blocks that were taken while watching and not given back. One thread only.
struct Heap {
  bool watching = false;
  unsigned taken = 0;    ///< ever
  unsigned refused = 0;  ///< counts down to the block that is refused; 0: none
  std::array<Block, 64> blocks = {};

  bool refuses() { return watching && refused > 0 && --refused == 0; }

  void take(const void* address, size_t size) {
    if (!watching || address == nullptr) {
      return;
    }
    ++taken;
    for (Block& block : blocks) {
      if (block.address == nullptr) {
        block = {address, size};
        return;
      }
    }
    std::abort();
  }

  void giveBack(const void* address) {
    for (Block& block : blocks) {
      if (watching && address != nullptr && block.address == address) {
        block = {};
      }
    }
  }
};

Heap heap;

}  // namespace

#ifndef HEAP_IS_THE_SANITIZERS

// operator new gets its memory from malloc, so this sees both.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

__attribute__((visibility("default"))) void* malloc(size_t size) {
  if (heap.refuses()) {
    return nullptr;
  }
  void* block = __libc_malloc(size);
  heap.take(block, size);
  return block;
}

__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
  void* block = __libc_calloc(count, size);
  heap.take(block, count * size);
  return block;
}

__attribute__((visibility("default"))) void* realloc(void* block, size_t size) {
  heap.giveBack(block);
  void* moved = __libc_realloc(block, size);
  heap.take(moved, size);
  return moved;
}

__attribute__((visibility("default"))) void free(void* block) {
  heap.giveBack(block);
  __libc_free(block);
}
}

#endif

namespace {

using Varnel::CMotorDriver1ChnL6470;
using Varnel::CMotorDriver1ChnPowerSTEP01;
using Varnel::CSTMicroSteppingMotorDriver;

/// Counts from here to its end.
class Watch {
 public:
  Watch() {
    heap = Heap{};
    heap.watching = true;
  }
  ~Watch() { heap.watching = false; }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
};

class MotorDriverMemory : public testing::Test {
 protected:
  void SetUp() override {
#ifdef HEAP_IS_THE_SANITIZERS
    GTEST_SKIP() << "the heap is the sanitizer's";
#endif
  }
};

/// What is still taken.
std::vector<Block> leftBlocks() {
  std::vector<Block> left;
  for (const Block& block : heap.blocks) {
    if (block.address != nullptr) {
      left.push_back(block);
    }
  }
  return left;
}

TEST_F(MotorDriverMemory, IsWatched) {
  void* volatile kept = nullptr;
  {
    const Watch watch;
    const auto gone = std::make_unique<volatile int>(1);
    kept = ::operator new(17);
  }
  EXPECT_EQ(heap.taken, 2U);
  const std::vector<Block> left = leftBlocks();
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left[0].address, kept);
  EXPECT_EQ(left[0].size, 17U);
  ::operator delete(kept);
}

/// Makes and destroys a driver: what stays is the table of register lengths.
template <class Driver>
void expectOnlyTheLengthsAreLeft(size_t registers) {
  const uint8_t* lengths = nullptr;
  {
    const Watch watch;
    auto* driver = new OpenMotorDriver<Driver>;
    lengths = driver->registerBitLength().data();
    const CSTMicroSteppingMotorDriver* base = driver;
    delete base;
  }
  EXPECT_GE(heap.taken, 4U) << "driver, its chain, private part, lengths";
  const std::vector<Block> left = leftBlocks();
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left[0].address, lengths);
  EXPECT_EQ(left[0].size, registers);
}

TEST_F(MotorDriverMemory, IsLeftToTheRegisterLengthsOfADestroyedDriver) {
  expectOnlyTheLengthsAreLeft<CMotorDriver1ChnL6470>(25);
  expectOnlyTheLengthsAreLeft<CMotorDriver1ChnPowerSTEP01>(27);
}

TEST_F(MotorDriverMemory, IsLeftToTheRegisterLengthsOfADriverFromTheFactory) {
  for (const char* name :
       {"Varnel::CMotorDriver1ChnL6470", "Varnel::CMotorDriver1ChnPowerSTEP01"}) {
    delete CSTMicroSteppingMotorDriver::create(name);  // fills the registry before counting
    {
      const Watch watch;
      delete CSTMicroSteppingMotorDriver::create(name);
    }
    EXPECT_EQ(leftBlocks().size(), 1U) << name;
  }
}

TEST_F(MotorDriverMemory, RefusedToTheFactoryIsAnException) {
  const std::string name = "Varnel::CMotorDriver1ChnPowerSTEP01";
  delete CSTMicroSteppingMotorDriver::create(name);
  unsigned refusals = 0;
  CSTMicroSteppingMotorDriver* driver = nullptr;
  for (; driver == nullptr && refusals < 20; ++refusals) {
    const Watch watch;
    heap.refused = refusals + 1;
    try {
      driver = CSTMicroSteppingMotorDriver::create(name);
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
  EXPECT_NE(driver, nullptr);
  EXPECT_GE(refusals, 5U) << "driver, its chain, private part and lengths were refused first";
  delete driver;
}

/// What a hundred runs of an operation take, together.
template <class Rig>
unsigned takenBy(Rig& rig, const std::function<TErrCode(Rig&)>& operation, TErrCode code) {
  int failures = 0;
  {
    const Watch watch;
    for (int i = 0; i < 100; ++i) {
      failures += operation(rig) == code ? 0 : 1;
    }
  }
  EXPECT_EQ(failures, 0);
  return heap.taken;
}

template <class Rig>
using Operations = std::vector<std::function<TErrCode(Rig&)>>;

template <class Rig>
void expectNothingTaken(const Operations<Rig>& operations, TErrCode code) {
  Rig rig;
  rig.wire.pause();
  for (size_t i = 0; i < operations.size(); ++i) {
    EXPECT_EQ(takenBy(rig, operations[i], code), 0U) << "operation " << i;
  }
  EXPECT_GE(rig.wire.pausedMessages(), 100 * operations.size());
}

/// What works on both chips.
template <class Driver>
Operations<MotorRig<Driver>> commands() {
  using Rig = MotorRig<Driver>;
  return {[](Rig& r) { return r.driver.softStop(); },
          [](Rig& r) { return r.driver.hardStop(); },
          [](Rig& r) { return r.driver.resetDevice(); },
          [](Rig& r) { return r.driver.goHome(); },
          [](Rig& r) { return r.driver.goMark(); },
          [](Rig& r) { return r.driver.resetPosition(); },
          [](Rig& r) { return r.driver.softHiZ(); },
          [](Rig& r) { return r.driver.hardHiZ(); },
          [](Rig& r) { return r.driver.run(100.0F, 1); },
          [](Rig& r) { return r.driver.move(100, 1); },
          [](Rig& r) { return r.driver.goTo(100); },
          [](Rig& r) { return r.driver.goToDirection(100, 1); },
          [](Rig& r) { return r.driver.clearStatus(); }};
}

TEST_F(MotorDriverMemory, IsNotNeededByCommands) {
  expectNothingTaken<MotorRig<CMotorDriver1ChnL6470>>(commands<CMotorDriver1ChnL6470>(), 0);
  expectNothingTaken<MotorRig<CMotorDriver1ChnPowerSTEP01>>(commands<CMotorDriver1ChnPowerSTEP01>(),
                                                            0);
}

TEST_F(MotorDriverMemory, IsNotNeededByRegisters) {
  using Rig = MotorRig<CMotorDriver1ChnPowerSTEP01>;
  expectNothingTaken<Rig>({[](Rig& r) { return r.driver.setParameter(1, 1); },
                           [](Rig& r) { return r.driver.getParameter(1, r.word); },
                           [](Rig& r) { return r.driver.setAcceleration(1000.0F); },
                           [](Rig& r) { return r.driver.setDeceleration(1000.0F); },
                           [](Rig& r) { return r.driver.setMaximumVelocity(1000.0F); },
                           [](Rig& r) { return r.driver.setMinimumVelocity(10.0F); },
                           [](Rig& r) { return r.driver.writePosition(1); },
                           [](Rig& r) { return r.driver.getMaximumVelocity(r.number); },
                           [](Rig& r) { return r.driver.getPosition(r.position); },
                           [](Rig& r) { return r.driver.getSpeed(r.number); },
                           [](Rig& r) { return r.driver.readStatus(); }},
                          0);
}

TEST_F(MotorDriverMemory, IsNotNeededByARefusedRegisterThatNobodyLogs) {
  using Rig = MotorRig<CMotorDriver1ChnL6470>;
  expectNothingTaken<Rig>({[](Rig& r) { return r.driver.setParameter(1, 1); },
                           [](Rig& r) { return r.driver.getParameter(1, r.word); },
                           [](Rig& r) { return r.driver.writePosition(1); }},
                          -22);
}

}  // namespace
