// SPDX-License-Identifier: MIT
// Calls that take a path and neither describe nor list it: access, links, real paths and stdio.
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "vboard/kernel/EmulatedFiles.h"
#include "vboard/kernel/Running.h"

namespace vboard::kernel {
namespace {

int fail(int error) {
  errno = error;
  return -1;
}

/// access(2) of a path, or what `real` answers for one that isn't ours.
template <typename Real>
int accessPath(int directory, const char* path, int mode, bool followLast, Real real) {
  const Lookup found = lookUp(directory, path, followLast);
  if (found.answer == Lookup::Answer::Missing) {
    return fail(ENOENT);
  }
  if (found.leftToLibc()) {
    return real();
  }
  switch (found.entry.kind) {
    case Entry::Kind::Device:
      return (mode & X_OK) != 0 || (mode != F_OK && found.entry.node->denied) ? fail(EACCES) : 0;
    case Entry::Kind::Text: return (mode & (W_OK | X_OK)) != 0 ? fail(EACCES) : 0;
    default: return (mode & W_OK) != 0 && geteuid() != 0 ? fail(EACCES) : 0;
  }
}

template <typename Real>
ssize_t readLink(int directory, const char* path, char* buffer, size_t size, Real real) {
  const Lookup found = lookUp(directory, path, false);
  if (found.leftToLibc()) {
    return real();
  }
  if (!found.found(Entry::Kind::Link)) {
    return fail(found.answer == Lookup::Answer::Missing ? ENOENT : EINVAL);
  }
  if (size == 0) {
    return fail(EINVAL);
  }
  const size_t length = std::min(size, found.entry.text.size());
  // As readlink(2) leaves it: without an end mark.
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
  std::memcpy(buffer, found.entry.text.data(), length);
  return static_cast<ssize_t>(length);
}

/// realpath(3); `buffer` null asks for allocated memory.
template <typename Real>
char* realPath(const char* path, char* buffer, Real real) {
  const Lookup found = lookUp(AT_FDCWD, path);
  if (found.answer == Lookup::Answer::Missing) {
    errno = ENOENT;
    return nullptr;
  }
  if (found.leftToLibc()) {
    return real();
  }
  if (buffer == nullptr) {
    return strdup(found.path.c_str());
  }
  if (found.path.size() >= PATH_MAX) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  return std::strcpy(buffer, found.path.c_str());
}

/// open(2) flags of an fopen mode.
int flagsOf(const char* mode) {
  const bool updates = std::strchr(mode, '+') != nullptr;
  int flags = std::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0;
  switch (mode[0]) {
    case 'w': return flags | (updates ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a': return flags | (updates ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default: return flags | (updates ? O_RDWR : O_RDONLY);
  }
}

/// Whether stdio must open the path through the interposed open: devices, texts, and what is
/// hidden.
bool isOurs(const char* path) {
  const Lookup found = lookUp(AT_FDCWD, path);
  return found.answer == Lookup::Answer::Missing || found.found(Entry::Kind::Device) ||
         found.found(Entry::Kind::Text);
}

/// A stream on an emulated name. libc reads and writes a stream's descriptor with calls of its own
/// that nobody can interpose: text reads as it should and ioctl(fileno(stream)) works, but fread
/// and fwrite on a device's stream see the /dev/null behind it. Read devices with read(2).
FILE* openStream(const char* path, const char* mode) {
  const int descriptor = open(path, flagsOf(mode), 0666);
  if (descriptor < 0) {
    return nullptr;
  }
  FILE* const stream = fdopen(descriptor, mode);
  if (stream == nullptr) {
    const ErrnoGuard guard;
    close(descriptor);
  }
  return stream;
}

/// freopen: libc gives the stream a harmless file, and the emulated one takes its descriptor.
template <typename Real>
FILE* reopenStream(const char* path, const char* mode, FILE* stream, Real real) {
  const int descriptor = open(path, flagsOf(mode), 0666);
  if (descriptor < 0) {
    const ErrnoGuard guard;
    fclose(stream);
    return nullptr;
  }
  FILE* const reopened = real("/dev/null", mode, stream);
  if (reopened != nullptr && dup2(descriptor, fileno(reopened)) < 0) {
    const ErrnoGuard guard;
    fclose(reopened);
    close(descriptor);
    return nullptr;
  }
  const ErrnoGuard guard;
  close(descriptor);
  return reopened;
}

}  // namespace
}  // namespace vboard::kernel

using vboard::kernel::accessPath;
using vboard::kernel::isOurs;
using vboard::kernel::Next;
using vboard::kernel::openStream;
using vboard::kernel::readLink;
using vboard::kernel::realPath;
using vboard::kernel::reopenStream;

VBOARD_INTERPOSED int access(const char* path, int mode) noexcept {
  static constinit Next<int(const char*, int)> next("access");
  return accessPath(AT_FDCWD, path, mode, true, [&] { return next(path, mode); });
}

VBOARD_INTERPOSED int eaccess(const char* path, int mode) noexcept {
  static constinit Next<int(const char*, int)> next("eaccess");
  return accessPath(AT_FDCWD, path, mode, true, [&] { return next(path, mode); });
}

VBOARD_INTERPOSED int euidaccess(const char* path, int mode) noexcept {
  static constinit Next<int(const char*, int)> next("euidaccess");
  return accessPath(AT_FDCWD, path, mode, true, [&] { return next(path, mode); });
}

VBOARD_INTERPOSED int faccessat(int directory, const char* path, int mode, int flags) noexcept {
  static constinit Next<int(int, const char*, int, int)> next("faccessat");
  return accessPath(directory, path, mode, (flags & AT_SYMLINK_NOFOLLOW) == 0,
                    [&] { return next(directory, path, mode, flags); });
}

VBOARD_INTERPOSED ssize_t readlink(const char* path, char* buffer, size_t size) noexcept {
  static constinit Next<ssize_t(const char*, char*, size_t)> next("readlink");
  return readLink(AT_FDCWD, path, buffer, size, [&] { return next(path, buffer, size); });
}

VBOARD_INTERPOSED ssize_t readlinkat(int directory, const char* path, char* buffer,
                                     size_t size) noexcept {
  static constinit Next<ssize_t(int, const char*, char*, size_t)> next("readlinkat");
  return readLink(directory, path, buffer, size,
                  [&] { return next(directory, path, buffer, size); });
}

VBOARD_INTERPOSED ssize_t __readlink_chk(const char* path, char* buffer, size_t size,
                                         size_t space) noexcept {
  static constinit Next<ssize_t(const char*, char*, size_t, size_t)> next("__readlink_chk");
  return readLink(AT_FDCWD, path, buffer, std::min(size, space),
                  [&] { return next(path, buffer, size, space); });
}

VBOARD_INTERPOSED ssize_t __readlinkat_chk(int directory, const char* path, char* buffer,
                                           size_t size, size_t space) noexcept {
  static constinit Next<ssize_t(int, const char*, char*, size_t, size_t)> next("__readlinkat_chk");
  return readLink(directory, path, buffer, std::min(size, space),
                  [&] { return next(directory, path, buffer, size, space); });
}

VBOARD_INTERPOSED char* realpath(const char* path, char* buffer) noexcept {
  static constinit Next<char*(const char*, char*)> next("realpath");
  return realPath(path, buffer, [&] { return next(path, buffer); });
}

VBOARD_INTERPOSED char* __realpath_chk(const char* path, char* buffer, size_t space) noexcept {
  static constinit Next<char*(const char*, char*, size_t)> next("__realpath_chk");
  return realPath(path, buffer, [&] { return next(path, buffer, space); });
}

VBOARD_INTERPOSED char* canonicalize_file_name(const char* path) noexcept {
  static constinit Next<char*(const char*)> next("canonicalize_file_name");
  return realPath(path, nullptr, [&] { return next(path); });
}

VBOARD_INTERPOSED FILE* fopen(const char* path, const char* mode) {
  static constinit Next<FILE*(const char*, const char*)> next("fopen");
  return isOurs(path) ? openStream(path, mode) : next(path, mode);
}

VBOARD_INTERPOSED FILE* fopen64(const char* path, const char* mode) {
  static constinit Next<FILE*(const char*, const char*)> next("fopen64");
  return isOurs(path) ? openStream(path, mode) : next(path, mode);
}

VBOARD_INTERPOSED FILE* freopen(const char* path, const char* mode, FILE* stream) {
  static constinit Next<FILE*(const char*, const char*, FILE*)> next("freopen");
  return isOurs(path) ? reopenStream(path, mode, stream, next.get()) : next(path, mode, stream);
}

VBOARD_INTERPOSED FILE* freopen64(const char* path, const char* mode, FILE* stream) {
  static constinit Next<FILE*(const char*, const char*, FILE*)> next("freopen64");
  return isOurs(path) ? reopenStream(path, mode, stream, next.get()) : next(path, mode, stream);
}
