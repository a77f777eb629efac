// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_EMULATEDFILES_H
#define VBOARD_KERNEL_EMULATEDFILES_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vboard/kernel/FileTree.h"

namespace vboard::kernel {

/// What a path means while a kernel runs.
struct Lookup {
  enum class Answer : uint8_t {
    Real,     ///< nothing of ours: libc's business
    Found,    ///< `entry` says what it is
    Missing,  ///< a device the board doesn't have: ENOENT, whatever the machine has
  };
  Answer answer = Answer::Real;
  std::string path;          ///< absolute, emulated links resolved
  bool throughLink = false;  ///< resolving changed the path: the real file system can't follow it
  Entry entry;               ///< a copy, valid beyond the board's lock

  bool found(Entry::Kind kind) const { return answer == Answer::Found && entry.kind == kind; }
  /// Whether libc's own call with the path as the caller gave it has the answer: names that
  /// aren't ours, and directories that are there without us.
  bool leftToLibc() const;
};

/// Looks a path up as a system call would, relative to a directory descriptor (AT_FDCWD allowed).
/// Takes the board's lock. Leaves errno alone.
Lookup lookUp(int directory, const char* path, bool followLast = true);

/// Opens an emulated text file or directory as open(2) would with these flags: a descriptor or a
/// negated errno. Nothing for devices and for what is left to libc.
std::optional<Result> openEmulatedFile(const Lookup& found, int flags);

/// What stat(2) says of an emulated name.
struct Attributes {
  mode_t mode = 0;
  dev_t device = 0;
  uint32_t inode = 0;
  uint32_t size = 0;
  uid_t user = 0;
  gid_t group = 0;
};
Attributes attributesOf(const std::string& path, const Entry& entry);
/// The same of an open descriptor: a node's, or that of an emulated directory; nothing for others.
std::optional<Attributes> attributesOf(int descriptor);

/// Whether a path names a directory of the real file system.
bool isRealDirectory(const std::string& path);
/// open(2) past the interposers: a descriptor or -1 and errno.
int openReal(const std::string& path, int flags);

}  // namespace vboard::kernel

#endif
