// SPDX-License-Identifier: MIT
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vboard/vboard.h"

namespace bench {

/// One line of the table: what one call of an operation costs.
struct Operation {
  std::string name;
  uint64_t systemCalls = 0;
  uint64_t allocations = 0;
  uint64_t boardAllocations = 0;  ///< how many of them are the virtual board's own
};

/// Two timed benchmarks of the same run whose ratio must stay below a limit (0: only printed).
struct Comparison {
  std::string name;
  std::string measured;   ///< name of the benchmark
  std::string reference;  ///< name of the benchmark it is compared with
  double limit = 0;
};

/// What the chips' files contribute.
struct Suite {
  std::vector<Operation> operations;
  std::vector<Comparison> comparisons;
};

/// Repetitions of every timed benchmark; the fastest counts.
constexpr int kRepetitions = 9;

/// Ends the program with a message where a benchmark can't go on.
inline void check(bool good, const char* what) {
  if (!good) {
    std::perror(what);
    std::exit(1);
  }
}

/// Counts the system calls on the board's nodes, and the heap allocations, of one call.
Operation count(std::string name, vboard::Board& board, const std::function<void()>& call);

void addAd529x(Suite& suite);
void addAt25640b(Suite& suite);
void addDeltaSigma(Suite& suite);
void addHc595(Suite& suite);
void addIcmd(Suite& suite);
void addLv165a(Suite& suite);
void addMcp3201(Suite& suite);
void addMcp4822(Suite& suite);
void addStepper(Suite& suite);
void addTlc5947(Suite& suite);
void addVboard(Suite& suite);

}  // namespace bench

#endif
