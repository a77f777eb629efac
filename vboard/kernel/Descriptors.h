// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_DESCRIPTORS_H
#define VBOARD_KERNEL_DESCRIPTORS_H

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "vboard/kernel/Node.h"

namespace vboard::kernel {

/// What one open(2) made, as duplicated descriptors share it.
struct Description {
  std::shared_ptr<OpenFile> file;
  int accessMode = 0;  ///< O_RDONLY, O_WRONLY or O_RDWR
  int references = 0;
};

/// Descriptors at or above this number can't be emulated: opening answers EMFILE.
constexpr int kMaxDescriptors = 65536;

/// The emulated descriptors of this process by number. Every number in here is backed by a real
/// descriptor (of /dev/null, or what its node chose), so numbers never collide with real files and
/// close-on-exec, poll and exec behave.
///
/// Written with the board's lock held; looking whether a slot is empty needs no lock.
///
/// A child of fork(2) keeps working with a copy of board and descriptors of its own. A child of
/// vfork(2) shares this memory until it executes something, but its descriptors are its own: what
/// it closes must stay open for the parent, so the table is left alone there (`frozen`).
class DescriptorTable {
 public:
  /// Whether a number is ours. One load.
  bool contains(int descriptor) const {
    return descriptor >= 0 && descriptor < kMaxDescriptors &&
           slots_[static_cast<size_t>(descriptor)].load(std::memory_order_relaxed) != nullptr;
  }
  /// Null for a number that is not ours.
  Description* find(int descriptor) const {
    return descriptor >= 0 && descriptor < kMaxDescriptors
               ? slots_[static_cast<size_t>(descriptor)].load(std::memory_order_relaxed)
               : nullptr;
  }

  /// Keeps what a number names while a call is inside it, also when it is closed meanwhile; null
  /// for a number that is not ours. Give it back with `drop`.
  Description* hold(int descriptor);
  void drop(Description* description);

  void add(int descriptor, std::shared_ptr<OpenFile> file, int flags);
  /// `descriptor` is one more name of what `original` names.
  void share(int original, int descriptor);
  /// Forgets a number; the last of an open file ends it. The real descriptor is the caller's
  /// business.
  void release(int descriptor);
  void releaseRange(unsigned first, unsigned last);
  void clear();
  int count() const;

  /// Whether this is a child of vfork(2).
  bool frozen() const;
  /// The process whose table this is.
  pid_t owner() const { return owner_; }
  /// Called in the child of a fork(2), and before the first use.
  void own();

 private:
  void set(int descriptor, Description* description);

  std::array<std::atomic<Description*>, kMaxDescriptors> slots_{};
  int end_ = 0;  // numbers in use are below
  pid_t owner_ = 0;
};

extern DescriptorTable descriptors __attribute__((visibility("hidden")));

/// The path of the node behind a descriptor of this process; empty for others. Takes the board's
/// lock.
std::string nodePathOf(int descriptor);

}  // namespace vboard::kernel

#endif
