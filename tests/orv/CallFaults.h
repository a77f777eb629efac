// SPDX-License-Identifier: MIT
#ifndef TESTS_ORV_CALLFAULTS_H
#define TESTS_ORV_CALLFAULTS_H

#include <string>

/// Faults of calls that the virtual board serves without faults of its own: looking at what chips
/// and lines there are. Each counts from now on (1 = the next, 0 = none), once. The program that
/// contains it answers for `opendir`, `lstat` and `ioctl` and passes everything else on.
struct CallFaults {
  /// opendir() of any folder.
  static void failOpendir(int n, int errorNumber);
  /// ioctl() that asks for the properties of one GPIO line, of either interface version.
  static void failLineInfo(int n, int errorNumber);
  /// ioctl() that asks for the properties of a GPIO chip.
  static void failChipInfo(int n, int errorNumber);
  /// The node at a path looks like a symbolic link.
  static void showAsLink(const std::string& path);
  static void clear();
};

#endif  // TESTS_ORV_CALLFAULTS_H
