// SPDX-License-Identifier: MIT
#ifndef TESTS_ORV_ALLOCATIONFAULTS_H
#define TESTS_ORV_ALLOCATIONFAULTS_H

/// While it lives, the n-th `new` of this thread from now on fails (1 = the next, 0 = none), once.
/// The program that contains it replaces the global operator new. They nest: the innermost counts.
class AllocationFault {
 public:
  explicit AllocationFault(int n);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;

  /// Whether it has failed one.
  bool hit() const;

 private:
  friend struct AllocationCounter;
  int left_;
  bool hit_ = false;
  AllocationFault* outer_;
};

#endif  // TESTS_ORV_ALLOCATIONFAULTS_H
