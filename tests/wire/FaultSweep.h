// SPDX-License-Identifier: MIT
#ifndef TESTS_WIRE_FAULTSWEEP_H
#define TESTS_WIRE_FAULTSWEEP_H

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "tests/wire/Locks.h"
#include "tests/wire/Wire.h"

namespace wire {

/// One journal line of a run that succeeds, and how it is reported when it fails instead. What an
/// operation still does on its way out stands among the `places` as the line that it leaves.
struct Step {
  std::string line;             ///< `close(7) = 0`
  std::string perrorText = {};  ///< empty: `perror` isn't called
  Lines places = {};            ///< who logs, innermost first: source file and function
  bool ignored = false;         ///< its failure changes nothing: the operation goes on, silently
};

/// Runs an operation once, then once per fallible call and error with that call failing, each time
/// on a fresh `Rig`. It checks, for every failure: the returned code; the journal, which is the
/// good one up to the failing call plus its reports and nothing else; that the mutex is free; what
/// the test says is left; and that the operation works again after the test's recovery. Where a
/// step is marked as ignored, the operation must instead go on and succeed.
///
/// A `Rig` is default-constructible, prepares what the operation needs, and has a `wire::Wire wire`
/// and a `std::recursive_mutex& mutex()`.
template <class Rig>
class FaultSweep {
 public:
  using Operation = std::function<TErrCode(Rig&)>;
  using Check = std::function<void(Rig&, const std::string& failedLine)>;
  using Recovery = std::function<void(Rig&)>;

  explicit FaultSweep(Operation operation) : operation_(std::move(operation)) {}

  /// What must hold after a failure; `failedLine` is the line of the good run.
  FaultSweep& leaves(Check check) {
    check_ = std::move(check);
    return *this;
  }
  /// What a caller does to go on after a failure.
  FaultSweep& recoversBy(Recovery recovery) {
    recovery_ = std::move(recovery);
    return *this;
  }

  void run(const std::vector<Step>& steps) {
    const std::vector<EntryKind> kinds = goodRun(steps);
    if (kinds.size() != steps.size()) {
      return;
    }
    unsigned number = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
      if (kinds[i] == EntryKind::Note) {
        continue;
      }
      ++number;
      for (const int error : {EIO, EINVAL, ENODEV}) {
        SCOPED_TRACE("failing with " + std::to_string(error) + ": " + steps[i].line);
        if (steps[i].ignored) {
          ignoringRun(steps, i, number, error);
        } else {
          failingRun(steps, i, number, error);
        }
      }
    }
    EXPECT_GT(number, 0U) << "nothing in this operation can fail";
  }

 private:
  /// What the entries are; none if they aren't the expected ones.
  std::vector<EntryKind> goodRun(const std::vector<Step>& steps) {
    Rig rig;
    rig.wire.discard();
    EXPECT_EQ(operation_(rig), 0);
    Lines expected;
    for (const Step& step : steps) {
      expected.push_back(step.line);
    }
    Lines lines;
    std::vector<EntryKind> kinds;
    for (const Entry& entry : rig.wire.entries()) {
      lines.push_back(entry.text());
      kinds.push_back(entry.kind);
    }
    EXPECT_EQ(lines, expected);
    EXPECT_TRUE(isFree(rig.mutex()));
    return lines == expected ? kinds : std::vector<EntryKind>();
  }

  void failingRun(const std::vector<Step>& steps, size_t failing, unsigned number, int error) {
    Rig rig;
    rig.wire.discard();
    rig.wire.failsCall(number, error);
    EXPECT_EQ(operation_(rig), -error);
    EXPECT_EQ(rig.wire.journal(), expectedJournal(steps, failing, error));
    EXPECT_TRUE(isFree(rig.mutex()));
    if (check_) {
      check_(rig, steps[failing].line);
    }
    if (recovery_) {
      recovery_(rig);
    }
    EXPECT_EQ(operation_(rig), 0) << "after recovery";
    rig.wire.discard();
  }

  void ignoringRun(const std::vector<Step>& steps, size_t failing, unsigned number, int error) {
    Rig rig;
    rig.wire.discard();
    rig.wire.failsCall(number, error);
    EXPECT_EQ(operation_(rig), 0);
    Lines expected = expectedJournal(steps, failing, error);
    for (size_t i = failing + 1; i < steps.size(); ++i) {
      expected.push_back(steps[i].line);
    }
    EXPECT_EQ(rig.wire.journal(), expected);
    EXPECT_TRUE(isFree(rig.mutex()));
  }

  static Lines expectedJournal(const std::vector<Step>& steps, size_t failing, int error) {
    static constexpr const char* kNames[][2] = {
        {"EIO", "-5"}, {"EINVAL", "-22"}, {"ENODEV", "-19"}};
    const auto& name = kNames[error == EIO ? 0 : error == EINVAL ? 1 : 2];
    Lines lines;
    for (size_t i = 0; i < failing; ++i) {
      lines.push_back(steps[i].line);
    }
    const Step& step = steps[failing];
    const std::string call = step.line.substr(0, step.line.rfind(" = "));
    const bool isStep = call.compare(0, 4, "pin ") == 0 || call.compare(0, 7, "select(") == 0 ||
                        call.compare(0, 5, "step ") == 0;
    lines.push_back(call +
                    (isStep ? std::string(" = ") + name[1] : std::string(" = -1 ") + name[0]));
    if (!step.perrorText.empty()) {
      lines.push_back("perror(\"" + step.perrorText + "\") " + name[0]);
    }
    for (const std::string& place : step.places) {
      lines.push_back(place.find(".cpp ") == std::string::npos ? place : logged(error, place));
    }
    return lines;
  }

  Operation operation_;
  Check check_;
  Recovery recovery_;
};

}  // namespace wire

#endif
