// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

#include "tests/vboard/kernel/SpiBench.h"

using bench::message;
using bench::SpiBench;
using bench::transferOf;

namespace {

constexpr int kRounds = 200;

TEST(KernelThreads, OneNodeServesSeveralThreads) {
  SpiBench bench;
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  std::atomic<int> wrong{0};
  const auto work = [&](uint8_t seed) {
    for (int i = 0; i < kRounds; ++i) {
      // On a thread's heap and on its stack.
      std::vector<uint8_t> sent(5, static_cast<uint8_t>(seed + i));
      uint8_t received[5] = {};
      const bool right = message(descriptor, transferOf(sent.data(), received, 5)) == 5 &&
                         std::equal(sent.begin(), sent.end(), received);
      wrong += right ? 0 : 1;
    }
  };
  {
    const std::jthread first(work, uint8_t{0});
    const std::jthread second(work, uint8_t{100});
    const std::jthread third(work, uint8_t{200});
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(bench.bus.statistics().transfers, 3U * kRounds);
  close(descriptor);
}

TEST(KernelThreads, ClosingDuringUseIsSafe) {
  SpiBench bench;
  std::atomic<int> current{-1};
  std::atomic<bool> stop{false};
  std::atomic<int> strange{0};
  std::jthread user([&] {
    uint8_t byte = 0x11;
    while (!stop) {
      // While the number is being opened again it is no node's yet.
      const long result = message(current.load(), transferOf(&byte, &byte, 1));
      strange += result == 1 || bench::isForeign(result) ? 0 : 1;
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    const int descriptor = open("/dev/spidev1.0", O_RDWR);
    current = descriptor;
    const int copy = dup(descriptor);
    close(descriptor);
    close(copy);
  }
  stop = true;
  user.join();
  EXPECT_EQ(strange, 0);
  EXPECT_EQ(bench.kernel.openDescriptors(), 0);
}

TEST(KernelThreads, AKernelEndsWhileThreadsCall) {
  std::atomic<bool> stop{false};
  std::atomic<int> strange{0};
  std::jthread user([&] {
    while (!stop) {
      const int descriptor = open("/dev/spidev77.0", O_RDWR);
      if (descriptor >= 0) {
        // Once the kernel ended the descriptor is a real file's.
        const long result = message(descriptor, transferOf(nullptr, nullptr, 1));
        strange += result == 1 || bench::isForeign(result) ? 0 : 1;
        close(descriptor);
      }
    }
  });
  for (int i = 0; i < 20; ++i) {
    const SpiBench bench({.number = 77});
    std::this_thread::yield();
  }
  stop = true;
  user.join();
  EXPECT_EQ(strange, 0);
}

TEST(KernelThreads, BuffersOfAnyThreadAndKindAreReached) {
  SpiBench bench;
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  static uint8_t variable = 0x77;
  static thread_local uint8_t ofThread = 0x66;
  std::atomic<int> wrong{0};
  const auto work = [&] {
    auto onHeap = std::make_unique<uint8_t>(uint8_t{0x55});
    uint8_t onStack = 0x44;
    ofThread = 0x66;
    for (const auto& [from, to] : {std::pair<uint8_t*, uint8_t*>{&variable, &onStack},
                                   {&ofThread, onHeap.get()},
                                   {&onStack, &ofThread}}) {
      const uint8_t expected = *from;
      wrong += message(descriptor, transferOf(from, to, 1)) == 1 && *to == expected ? 0 : 1;
    }
  };
  work();
  std::thread(work).join();
  EXPECT_EQ(wrong, 0);
  close(descriptor);
}

TEST(KernelThreads, AChildIsForkedWhileOthersCall) {
  SpiBench bench;
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  std::atomic<bool> stop{false};
  std::jthread user([&] {
    while (!stop) {
      message(descriptor, transferOf(nullptr, nullptr, 1));
    }
  });
  for (int i = 0; i < 10; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      _exit(message(descriptor, transferOf(nullptr, nullptr, 4)) == 4 ? 42 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 42);
  }
  stop = true;
  user.join();
  close(descriptor);
}

}  // namespace
