// SPDX-License-Identifier: MIT
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include "vboard/kernel/EmulatedFiles.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

#include "vboard/kernel/Descriptors.h"
#include "vboard/kernel/Running.h"

namespace vboard::kernel {
namespace {

constexpr uint32_t kPageSize = 4096;

/// A number that stays the same for a path (FNV-1a, and never 0).
uint32_t inodeOf(std::string_view path) {
  uint32_t hash = 2166136261U;
  for (const char character : path) {
    hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
  }
  return hash | 1U;
}

Result resultOf(int descriptor) {
  return descriptor < 0 ? -errno : descriptor;
}

/// A memfd whose name tells the emulated path, see FileTree::normalise. Opened a second time, so
/// that the descriptor has the access mode and flags the caller asked for.
Result openBacking(const std::string& path, const std::string& contents, int flags) {
  const std::string name = ("vboard:" + path).substr(0, 249);
  const int memory = memfd_create(name.c_str(), MFD_CLOEXEC);
  if (memory < 0) {
    return -errno;
  }
  const char* data = contents.data();
  size_t left = contents.size();
  while (left > 0) {
    const long written = syscall(SYS_write, memory, data, left);
    if (written <= 0) {
      const int error = errno;
      syscall(SYS_close, memory);
      return -error;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
  const int kept = flags & (O_ACCMODE | O_CLOEXEC | O_NONBLOCK);
  const Result opened = resultOf(openReal("/proc/self/fd/" + std::to_string(memory), kept));
  syscall(SYS_close, memory);
  return opened;
}

/// The path of the emulated directory behind a descriptor, or empty.
std::string emulatedDirectoryOf(int descriptor) {
  constexpr std::string_view kPrefix = "/memfd:vboard:";
  char target[kPrefix.size()];
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const long length = syscall(SYS_readlinkat, AT_FDCWD, link.c_str(), target, sizeof(target));
  if (length != static_cast<long>(sizeof(target)) ||
      std::string_view(target, sizeof(target)) != kPrefix) {
    return {};
  }
  return FileTree::normalise(descriptor, ".");
}

}  // namespace

int openReal(const std::string& path, int flags) {
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), flags, 0));
}

bool isRealDirectory(const std::string& path) {
  const ErrnoGuard guard;
  const int descriptor = openReal(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  syscall(SYS_close, descriptor);
  return true;
}

bool Lookup::leftToLibc() const {
  return answer == Answer::Real ||
         (found(Entry::Kind::Directory) && !throughLink && isRealDirectory(path));
}

Lookup lookUp(int directory, const char* path, bool followLast) {
  Lookup lookup;
  if (!running()) {
    return lookup;
  }
  const ErrnoGuard guard;
  const std::string normalised = FileTree::normalise(directory, path);
  if (normalised.empty()) {
    return lookup;
  }
  const RunningScope scope;
  const FileTree* const tree = fileTree();
  if (!scope || tree == nullptr) {
    return lookup;
  }
  lookup.path = tree->resolve(normalised, followLast);
  lookup.throughLink = lookup.path != normalised;
  if (const Entry* entry = tree->findNoFollow(lookup.path); entry != nullptr) {
    lookup.entry = *entry;
    lookup.answer = Lookup::Answer::Found;
  } else if (FileTree::isHidden(lookup.path)) {
    lookup.answer = Lookup::Answer::Missing;
  }
  return lookup;
}

std::optional<Result> openEmulatedFile(const Lookup& found, int flags) {
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
    return -EEXIST;
  }
  if (found.found(Entry::Kind::Text)) {
    if ((flags & O_DIRECTORY) != 0) {
      return -ENOTDIR;
    }
    if (writes || (flags & O_TRUNC) != 0) {
      return -EACCES;
    }
    return openBacking(found.path, found.entry.text, flags);
  }
  if (found.found(Entry::Kind::Link)) {
    return -ELOOP;
  }
  if (!found.found(Entry::Kind::Directory) || found.leftToLibc()) {
    return std::nullopt;
  }
  if (writes || (flags & O_CREAT) != 0) {
    return -EISDIR;
  }
  return isRealDirectory(found.path) ? resultOf(openReal(found.path, flags))
                                     : openBacking(found.path, {}, flags);
}

Attributes attributesOf(const std::string& path, const Entry& entry) {
  Attributes attributes;
  attributes.inode = inodeOf(path);
  switch (entry.kind) {
    case Entry::Kind::Device:
      attributes.mode = S_IFCHR | (entry.node->denied ? 0600 : 0660);
      attributes.device = entry.node->device();
      // A node that isn't denied looks like one the caller has been given the rights to.
      attributes.user = entry.node->denied ? 0 : geteuid();
      attributes.group = entry.node->denied ? 0 : getegid();
      break;
    case Entry::Kind::Directory: attributes.mode = S_IFDIR | 0755; break;
    case Entry::Kind::Link:
      attributes.mode = S_IFLNK | 0777;
      attributes.size = static_cast<uint32_t>(entry.text.size());
      break;
    case Entry::Kind::Text:
      attributes.mode = S_IFREG | 0444;
      attributes.size = kPageSize;  // as every file of sysfs has
      break;
  }
  return attributes;
}

std::optional<Attributes> attributesOf(int descriptor) {
  if (!running() || descriptor < 0) {
    return std::nullopt;
  }
  const ErrnoGuard guard;
  if (const std::string nodePath = nodePathOf(descriptor); !nodePath.empty()) {
    const RunningScope scope;
    const Entry* const entry = scope ? fileTree()->findNode(nodePath) : nullptr;
    return entry != nullptr ? std::optional(attributesOf(nodePath, *entry)) : std::nullopt;
  }
  const std::string path = emulatedDirectoryOf(descriptor);
  if (path.empty()) {
    return std::nullopt;
  }
  const Lookup lookup = lookUp(AT_FDCWD, path.c_str());
  if (lookup.answer != Lookup::Answer::Found) {
    return std::nullopt;
  }
  return attributesOf(lookup.path, lookup.entry);
}

}  // namespace vboard::kernel
