// SPDX-License-Identifier: MIT
// Counts and compares; exits with 1 when a limit is broken. Absolute times are printed for
// orientation only: machines are noisy, ratios within one run are not.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>

#include "bench/Bench.h"

namespace {

std::atomic<uint64_t> allocationCount{0};

class CallCounter : public vboard::Observer {
 public:
  void onCall(std::string_view /*call*/, std::string_view /*node*/, long /*result*/,
              vboard::Time /*time*/) override {
    ++calls;
  }
  uint64_t calls = 0;
};

/// Keeps the fastest repetition of every benchmark: noise only ever adds.
class FastestReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) {
        continue;
      }
      const double time = run.GetAdjustedRealTime();
      const std::string name = run.run_name.function_name;
      const auto entry = fastest.find(name);
      if (entry == fastest.end() || time < entry->second) {
        fastest[name] = time;
      }
    }
  }
  std::map<std::string, double> fastest;
};

}  // namespace

void* operator new(size_t size) {
  ++allocationCount;
  if (void* memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept {
  std::free(memory);
}

namespace bench {

Operation count(std::string name, vboard::Board& board, const std::function<void()>& call) {
  call();  // warm up: first-use buffers are not the operation's
  const uint64_t allocationsBefore = allocationCount;
  call();
  const uint64_t allocations = allocationCount - allocationsBefore;
  CallCounter counter;
  board.addObserver(counter);
  call();
  board.removeObserver(counter);
  return {std::move(name), counter.calls, allocations, 0};
}

}  // namespace bench

int main(int argc, char** argv) {
  if (!vboard::interposed()) {
    std::fprintf(stderr, "bench: the virtual board is not in reach\n");
    return 1;
  }
  bench::Suite suite;
  bench::addMcp3201(suite);
  bench::addHc595(suite);
  bench::addLv165a(suite);
  bench::addDeltaSigma(suite);
  bench::addMcp4822(suite);
  bench::addTlc5947(suite);
  bench::addIcmd(suite);
  bench::addAt25640b(suite);
  bench::addAd529x(suite);
  bench::addStepper(suite);
  bench::addVboard(suite);

  int failures = 0;
  std::printf("%-44s %12s %12s\n", "operation", "system calls", "allocations");
  for (const bench::Operation& operation : suite.operations) {
    const bool good = operation.allocations == operation.boardAllocations;
    failures += good ? 0 : 1;
    std::printf("%-44s %12llu %12llu%s\n", operation.name.c_str(),
                static_cast<unsigned long long>(operation.systemCalls),
                static_cast<unsigned long long>(operation.allocations - operation.boardAllocations),
                good ? "" : "  FAILED: must not allocate");
  }

  benchmark::Initialize(&argc, argv);
  FastestReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n%-44s %12s %12s %8s\n", "comparison", "ns", "reference ns", "ratio");
  for (const bench::Comparison& comparison : suite.comparisons) {
    const auto measured = reporter.fastest.find(comparison.measured);
    const auto reference = reporter.fastest.find(comparison.reference);
    if (measured == reporter.fastest.end() || reference == reporter.fastest.end()) {
      std::printf("%-44s FAILED: not measured\n", comparison.name.c_str());
      ++failures;
      continue;
    }
    const double ratio = measured->second / reference->second;
    const bool good = comparison.limit == 0 || ratio <= comparison.limit;
    failures += good ? 0 : 1;
    std::printf("%-44s %12.1f %12.1f %8.2f", comparison.name.c_str(), measured->second,
                reference->second, ratio);
    if (comparison.limit != 0) {
      std::printf("  (limit %.2f%s)", comparison.limit, good ? "" : ", FAILED");
    }
    std::printf("\n");
  }
  return failures == 0 ? 0 : 1;
}
