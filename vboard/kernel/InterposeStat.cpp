// SPDX-License-Identifier: MIT
// stat(2) in all the shapes the C library offers it: plain and large-file, before and after glibc
// 2.33 made them functions of their own, and with 64-bit time on 32-bit machines.
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "vboard/kernel/EmulatedFiles.h"
#include "vboard/kernel/Running.h"

namespace vboard::kernel {
namespace {

/// What devtmpfs usually has.
constexpr unsigned kDeviceMinor = 5;
constexpr uint32_t kBlockSize = 4096;

#if defined(__arm__)
/// `struct stat` as programs with 64-bit time see it. The padding of a time's nanoseconds is named
/// so that it is cleared too.
struct Time64Moment {
  int64_t tv_sec;
  int32_t tv_nsec;
  int32_t padding;
};
struct StatTime64 {
  uint64_t st_dev;
  uint64_t st_ino;
  uint32_t st_mode;
  uint32_t st_nlink;
  uint32_t st_uid;
  uint32_t st_gid;
  uint64_t st_rdev;
  int64_t st_size;
  int32_t st_blksize;
  int64_t st_blocks;
  Time64Moment st_atim;
  Time64Moment st_mtim;
  Time64Moment st_ctim;
};
static_assert(sizeof(StatTime64) == 112);
#endif

template <typename Stat>
void fill(Stat* out, const Attributes& attributes) {
  std::memset(out, 0, sizeof(*out));
  out->st_dev = makedev(0, kDeviceMinor);
  out->st_ino = attributes.inode;
  out->st_mode = attributes.mode;
  out->st_nlink = 1;
  out->st_uid = attributes.user;
  out->st_gid = attributes.group;
  out->st_rdev = attributes.device;
  out->st_size = static_cast<decltype(out->st_size)>(attributes.size);
  out->st_blksize = kBlockSize;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  for (auto* moment : {&out->st_atim, &out->st_mtim, &out->st_ctim}) {
    moment->tv_sec = now.tv_sec;
    moment->tv_nsec = static_cast<decltype(moment->tv_nsec)>(now.tv_nsec);
  }
}

void fill(struct statx* out, const Attributes& attributes) {
  std::memset(out, 0, sizeof(*out));
  out->stx_mask = STATX_BASIC_STATS;
  out->stx_blksize = kBlockSize;
  out->stx_nlink = 1;
  out->stx_uid = attributes.user;
  out->stx_gid = attributes.group;
  out->stx_mode = static_cast<decltype(out->stx_mode)>(attributes.mode);
  out->stx_ino = attributes.inode;
  out->stx_size = attributes.size;
  out->stx_rdev_major = major(attributes.device);
  out->stx_rdev_minor = minor(attributes.device);
  out->stx_dev_minor = kDeviceMinor;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  for (auto* moment : {&out->stx_atime, &out->stx_mtime, &out->stx_ctime}) {
    moment->tv_sec = now.tv_sec;
    moment->tv_nsec = static_cast<decltype(moment->tv_nsec)>(now.tv_nsec);
  }
}

/// stat of a path, or what `real` answers for one that isn't ours.
template <typename Stat, typename Real>
int statPath(int directory, const char* path, int flags, Stat* out, Real real) {
  if (!running()) {
    return real();
  }
  if ((flags & AT_EMPTY_PATH) != 0 && (path == nullptr || path[0] == '\0')) {
    const std::optional<Attributes> attributes = attributesOf(directory);
    if (!attributes) {
      return real();
    }
    fill(out, *attributes);
    return 0;
  }
  const Lookup found = lookUp(directory, path, (flags & AT_SYMLINK_NOFOLLOW) == 0);
  if (found.answer == Lookup::Answer::Missing) {
    errno = ENOENT;
    return -1;
  }
  if (found.leftToLibc()) {
    return real();
  }
  fill(out, attributesOf(found.path, found.entry));
  return 0;
}

template <typename Stat, typename Real>
int statDescriptor(int descriptor, Stat* out, Real real) {
  const std::optional<Attributes> attributes = attributesOf(descriptor);
  if (!attributes) {
    return real();
  }
  fill(out, *attributes);
  return 0;
}

}  // namespace
}  // namespace vboard::kernel

using vboard::kernel::Next;
using vboard::kernel::statDescriptor;
using vboard::kernel::statPath;

/// The four calls of one family: on a path, on a link, on a descriptor, and at a directory.
#define VBOARD_STAT_FAMILY(Stat, onPath, onLink, onDescriptor, atDirectory)                     \
  VBOARD_INTERPOSED int onPath(const char* path, Stat* out) noexcept {                          \
    static constinit Next<int(const char*, Stat*)> next(#onPath);                               \
    return statPath(AT_FDCWD, path, 0, out, [&] { return next(path, out); });                   \
  }                                                                                             \
  VBOARD_INTERPOSED int onLink(const char* path, Stat* out) noexcept {                          \
    static constinit Next<int(const char*, Stat*)> next(#onLink);                               \
    return statPath(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, out, [&] { return next(path, out); }); \
  }                                                                                             \
  VBOARD_INTERPOSED int onDescriptor(int descriptor, Stat* out) noexcept {                      \
    static constinit Next<int(int, Stat*)> next(#onDescriptor);                                 \
    return statDescriptor(descriptor, out, [&] { return next(descriptor, out); });              \
  }                                                                                             \
  VBOARD_INTERPOSED int atDirectory(int directory, const char* path, Stat* out,                 \
                                    int flags) noexcept {                                       \
    static constinit Next<int(int, const char*, Stat*, int)> next(#atDirectory);                \
    return statPath(directory, path, flags, out,                                                \
                    [&] { return next(directory, path, out, flags); });                         \
  }

/// The same with the version number that programs built before glibc 2.33 pass first.
#define VBOARD_OLD_STAT_FAMILY(Stat, onPath, onLink, onDescriptor, atDirectory)              \
  VBOARD_INTERPOSED int onPath(int version, const char* path, Stat* out) noexcept {          \
    static constinit Next<int(int, const char*, Stat*)> next(#onPath);                       \
    return statPath(AT_FDCWD, path, 0, out, [&] { return next(version, path, out); });       \
  }                                                                                          \
  VBOARD_INTERPOSED int onLink(int version, const char* path, Stat* out) noexcept {          \
    static constinit Next<int(int, const char*, Stat*)> next(#onLink);                       \
    return statPath(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, out,                                \
                    [&] { return next(version, path, out); });                               \
  }                                                                                          \
  VBOARD_INTERPOSED int onDescriptor(int version, int descriptor, Stat* out) noexcept {      \
    static constinit Next<int(int, int, Stat*)> next(#onDescriptor);                         \
    return statDescriptor(descriptor, out, [&] { return next(version, descriptor, out); });  \
  }                                                                                          \
  VBOARD_INTERPOSED int atDirectory(int version, int directory, const char* path, Stat* out, \
                                    int flags) noexcept {                                    \
    static constinit Next<int(int, int, const char*, Stat*, int)> next(#atDirectory);        \
    return statPath(directory, path, flags, out,                                             \
                    [&] { return next(version, directory, path, out, flags); });             \
  }

VBOARD_STAT_FAMILY(struct stat, stat, lstat, fstat, fstatat)
VBOARD_STAT_FAMILY(struct stat64, stat64, lstat64, fstat64, fstatat64)
VBOARD_OLD_STAT_FAMILY(struct stat, __xstat, __lxstat, __fxstat, __fxstatat)
VBOARD_OLD_STAT_FAMILY(struct stat64, __xstat64, __lxstat64, __fxstat64, __fxstatat64)
#if defined(__arm__)
VBOARD_STAT_FAMILY(vboard::kernel::StatTime64, __stat64_time64, __lstat64_time64, __fstat64_time64,
                   __fstatat64_time64)
#endif

VBOARD_INTERPOSED int statx(int directory, const char* path, int flags, unsigned mask,
                            struct statx* out) noexcept {
  static constinit Next<int(int, const char*, int, unsigned, struct statx*)> next("statx");
  return statPath(directory, path, flags, out,
                  [&] { return next(directory, path, flags, mask, out); });
}
