// SPDX-License-Identifier: MIT
// Directory streams and what libc builds on them. A stream on a directory with emulated or hidden
// names is an object of ours with a listing taken when it was opened or rewound; every other one
// stays libc's. scandir and glob are redone on top, since libc's call its own streams inside.
#include "vboard/kernel/Interpose.h"
// The order matters: the switches above come before every system header.
#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "vboard/kernel/EmulatedFiles.h"
#include "vboard/kernel/Running.h"

namespace vboard::kernel {
namespace {

constinit Next<DIR*(const char*)> nextOpendir("opendir");
constinit Next<DIR*(int)> nextFdopendir("fdopendir");
constinit Next<int(DIR*)> nextClosedir("closedir");
constinit Next<dirent64*(DIR*)> nextReaddir64("readdir64");

struct Name {
  std::string name;
  uint64_t inode = 1;
  unsigned char type = DT_UNKNOWN;
};

/// A directory stream of ours.
struct Listing {
  std::string path;
  int descriptor = -1;
  std::mutex mutex;
  std::vector<Name> names;
  size_t position = 0;
  dirent entry{};
  dirent64 entry64{};
};

/// The streams of ours that are open: the rest are libc's. Never destroyed, since programs close
/// directories in their last destructors.
struct OpenListings {
  std::mutex mutex;
  std::unordered_set<const void*> open;
};

OpenListings& openListings() {
  static OpenListings* const listings = new OpenListings;
  return *listings;
}

std::atomic<int> openCount{0};

Listing* listingOf(DIR* stream) {
  if (openCount.load(std::memory_order_acquire) == 0) {
    return nullptr;
  }
  OpenListings& listings = openListings();
  const std::lock_guard lock(listings.mutex);
  const bool ours = listings.open.count(stream) != 0;
  return ours ? reinterpret_cast<Listing*>(stream) : nullptr;
}

unsigned char typeOf(Entry::Kind kind) {
  switch (kind) {
    case Entry::Kind::Device: return DT_CHR;
    case Entry::Kind::Directory: return DT_DIR;
    case Entry::Kind::Link: return DT_LNK;
    default: return DT_REG;
  }
}

/// Names the real file system has in a directory, without those that must stay hidden.
std::vector<Name> realNames(const std::string& path) {
  std::vector<Name> names;
  DIR* const stream = nextOpendir(path.c_str());
  if (stream == nullptr) {
    names.push_back({".", 1, DT_DIR});
    names.push_back({"..", 1, DT_DIR});
    return names;
  }
  while (const dirent64* entry = nextReaddir64(stream)) {
    if (!FileTree::isHidden(path + "/" + entry->d_name)) {
      names.push_back({entry->d_name, entry->d_ino, entry->d_type});
    }
  }
  nextClosedir(stream);
  return names;
}

void takeListing(Listing& listing) {
  const ErrnoGuard guard;
  listing.names = realNames(listing.path);
  listing.position = 0;
  const RunningScope scope;
  const FileTree* const tree = scope ? fileTree() : nullptr;
  if (tree == nullptr) {
    return;
  }
  for (const std::string& name : tree->namesIn(listing.path)) {
    const std::string path = (listing.path == "/" ? "" : listing.path) + "/" + name;
    const Entry* const entry = tree->findNoFollow(path);
    const Name found{name, attributesOf(path, *entry).inode, typeOf(entry->kind)};
    const auto same = std::ranges::find(listing.names, name, &Name::name);
    if (same == listing.names.end()) {
      listing.names.push_back(found);
    } else if (entry->kind != Entry::Kind::Directory) {
      *same = found;
    }
  }
}

/// A stream of ours on a descriptor it takes over.
DIR* openListing(const std::string& path, int descriptor) {
  auto listing = std::make_unique<Listing>();
  listing->path = path;
  listing->descriptor = descriptor;
  takeListing(*listing);
  OpenListings& listings = openListings();
  const std::lock_guard lock(listings.mutex);
  listings.open.insert(listing.get());
  openCount.fetch_add(1, std::memory_order_release);
  return reinterpret_cast<DIR*>(listing.release());
}

int closeListing(Listing* listing) {
  {
    OpenListings& listings = openListings();
    const std::lock_guard lock(listings.mutex);
    listings.open.erase(listing);
    openCount.fetch_sub(1, std::memory_order_release);
  }
  const std::unique_ptr<Listing> owned(listing);
  return close(owned->descriptor);
}

DIR* failDirectory(int error) {
  errno = error;
  return nullptr;
}

bool needsListing(const Lookup& found) {
  return found.found(Entry::Kind::Directory) ||
         (found.answer == Lookup::Answer::Real && FileTree::hidesNamesIn(found.path));
}

/// opendir relative to a directory descriptor, or what `real` answers.
template <typename Real>
DIR* openDirectory(int directory, const char* path, Real real) {
  const Lookup found = lookUp(directory, path);
  if (found.answer == Lookup::Answer::Missing) {
    return failDirectory(ENOENT);
  }
  if (found.answer == Lookup::Answer::Found && found.entry.kind != Entry::Kind::Directory) {
    return failDirectory(ENOTDIR);
  }
  if (!needsListing(found)) {
    return real();
  }
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  const std::optional<Result> emulated = openEmulatedFile(found, kFlags);
  const int descriptor = emulated ? static_cast<int>(*emulated) : openReal(found.path, kFlags);
  if (descriptor < 0) {
    return failDirectory(emulated ? static_cast<int>(-*emulated) : errno);
  }
  return openListing(found.path, descriptor);
}

/// The next name into an entry of either width, null at the end.
template <typename Dirent>
Dirent* nextName(Listing& listing, Dirent& entry) {
  const std::lock_guard lock(listing.mutex);
  if (listing.position >= listing.names.size()) {
    return nullptr;
  }
  const Name& name = listing.names[listing.position++];
  entry.d_ino = static_cast<decltype(entry.d_ino)>(name.inode);
  entry.d_off = static_cast<decltype(entry.d_off)>(listing.position);
  entry.d_reclen = sizeof(Dirent);
  entry.d_type = name.type;
  const size_t length = std::min(name.name.size(), sizeof(entry.d_name) - 1);
  std::memcpy(entry.d_name, name.name.data(), length);
  entry.d_name[length] = '\0';
  return &entry;
}

template <typename Dirent>
int nextNameInto(Listing& listing, Dirent* entry, Dirent** result) {
  *result = nextName(listing, *entry);
  return 0;
}

template <typename Dirent>
Dirent* readNext(DIR* stream);
template <>
dirent* readNext<dirent>(DIR* stream) {
  return readdir(stream);
}
template <>
[[maybe_unused]] dirent64* readNext<dirent64>(DIR* stream) {
  return readdir64(stream);
}

template <typename Dirent>
using Selector = int (*)(const Dirent*);
template <typename Dirent>
using Comparator = int (*)(const Dirent**, const Dirent**);

/// scandir over an open stream, which it closes. The list is malloc's, as callers free it.
template <typename Dirent>
int scanStream(DIR* stream, Dirent*** list, Selector<Dirent> select, Comparator<Dirent> compare) {
  std::vector<Dirent*> kept;
  while (const Dirent* entry = readNext<Dirent>(stream)) {
    if (select != nullptr && select(entry) == 0) {
      continue;
    }
    auto* const copy = static_cast<Dirent*>(std::malloc(sizeof(Dirent)));
    if (copy != nullptr) {
      std::memcpy(copy, entry, std::min<size_t>(entry->d_reclen, sizeof(Dirent)));
      kept.push_back(copy);
    }
  }
  closedir(stream);
  if (compare != nullptr) {
    std::ranges::sort(kept, [compare](const Dirent* first, const Dirent* second) {
      return compare(&first, &second) < 0;
    });
  }
  *list = static_cast<Dirent**>(std::malloc(std::max<size_t>(1, kept.size()) * sizeof(Dirent*)));
  if (*list == nullptr) {
    std::ranges::for_each(kept, [](Dirent* entry) { std::free(entry); });
    errno = ENOMEM;
    return -1;
  }
  std::ranges::copy(kept, *list);
  return static_cast<int>(kept.size());
}

template <typename Dirent, typename Real>
int scan(int directory, const char* path, Dirent*** list, Selector<Dirent> select,
         Comparator<Dirent> compare, Real real) {
  const Lookup found = lookUp(directory, path);
  if (found.answer == Lookup::Answer::Real && !needsListing(found)) {
    return real();
  }
  DIR* const stream = openDirectory(directory, path, [] { return failDirectory(ENOENT); });
  return stream == nullptr ? -1 : scanStream(stream, list, select, compare);
}

/// glob through the streams and stats of this process. Its result is freed by globfree as ever.
template <typename Glob, typename Dirent, typename Stat>
int globThrough(const char* pattern, int flags, int (*onError)(const char*, int), Glob* result,
                int (*real)(const char*, int, int (*)(const char*, int), Glob*),
                int (*statOf)(const char*, Stat*), int (*linkStatOf)(const char*, Stat*)) {
  if (!running() || (flags & GLOB_ALTDIRFUNC) != 0) {
    return real(pattern, flags, onError, result);
  }
  result->gl_opendir = [](const char* path) -> void* { return opendir(path); };
  result->gl_readdir = [](void* stream) { return readNext<Dirent>(static_cast<DIR*>(stream)); };
  result->gl_closedir = [](void* stream) { closedir(static_cast<DIR*>(stream)); };
  result->gl_stat = statOf;
  result->gl_lstat = linkStatOf;
  const int answer = real(pattern, flags | GLOB_ALTDIRFUNC, onError, result);
  result->gl_flags &= ~GLOB_ALTDIRFUNC;
  return answer;
}

}  // namespace
}  // namespace vboard::kernel

using namespace vboard::kernel;  // NOLINT: the names below are libc's, outside of any namespace

VBOARD_INTERPOSED DIR* opendir(const char* path) {
  return openDirectory(AT_FDCWD, path, [path] { return nextOpendir(path); });
}

VBOARD_INTERPOSED DIR* fdopendir(int descriptor) {
  const Lookup found = lookUp(descriptor, ".");
  if (found.answer == Lookup::Answer::Missing || !needsListing(found)) {
    return nextFdopendir(descriptor);
  }
  return openListing(found.path, descriptor);
}

VBOARD_INTERPOSED int closedir(DIR* stream) {
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? closeListing(listing) : nextClosedir(stream);
}

VBOARD_INTERPOSED dirent* readdir(DIR* stream) {
  static constinit Next<dirent*(DIR*)> next("readdir");
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? nextName(*listing, listing->entry) : next(stream);
}

VBOARD_INTERPOSED dirent64* readdir64(DIR* stream) {
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? nextName(*listing, listing->entry64) : nextReaddir64(stream);
}

VBOARD_INTERPOSED int readdir_r(DIR* stream, dirent* entry, dirent** result) {
  static constinit Next<int(DIR*, dirent*, dirent**)> next("readdir_r");
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? nextNameInto(*listing, entry, result) : next(stream, entry, result);
}

VBOARD_INTERPOSED int readdir64_r(DIR* stream, dirent64* entry, dirent64** result) {
  static constinit Next<int(DIR*, dirent64*, dirent64**)> next("readdir64_r");
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? nextNameInto(*listing, entry, result) : next(stream, entry, result);
}

VBOARD_INTERPOSED void rewinddir(DIR* stream) noexcept {
  static constinit Next<void(DIR*)> next("rewinddir");
  Listing* const listing = listingOf(stream);
  if (listing == nullptr) {
    next(stream);
    return;
  }
  const std::lock_guard lock(listing->mutex);
  takeListing(*listing);
}

VBOARD_INTERPOSED long telldir(DIR* stream) noexcept {
  static constinit Next<long(DIR*)> next("telldir");
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? static_cast<long>(listing->position) : next(stream);
}

VBOARD_INTERPOSED void seekdir(DIR* stream, long position) noexcept {
  static constinit Next<void(DIR*, long)> next("seekdir");
  Listing* const listing = listingOf(stream);
  if (listing == nullptr) {
    next(stream, position);
    return;
  }
  const std::lock_guard lock(listing->mutex);
  listing->position = static_cast<size_t>(std::max(0L, position));
}

VBOARD_INTERPOSED int dirfd(DIR* stream) noexcept {
  static constinit Next<int(DIR*)> next("dirfd");
  Listing* const listing = listingOf(stream);
  return listing != nullptr ? listing->descriptor : next(stream);
}

VBOARD_INTERPOSED int scandir(const char* path, dirent*** list, int (*select)(const dirent*),
                              int (*compare)(const dirent**, const dirent**)) {
  static constinit Next<int(const char*, dirent***, Selector<dirent>, Comparator<dirent>)> next(
      "scandir");
  return scan<dirent>(AT_FDCWD, path, list, select, compare,
                      [&] { return next(path, list, select, compare); });
}

VBOARD_INTERPOSED int scandir64(const char* path, dirent64*** list, int (*select)(const dirent64*),
                                int (*compare)(const dirent64**, const dirent64**)) {
  static constinit Next<int(const char*, dirent64***, Selector<dirent64>, Comparator<dirent64>)>
      next("scandir64");
  return scan<dirent64>(AT_FDCWD, path, list, select, compare,
                        [&] { return next(path, list, select, compare); });
}

VBOARD_INTERPOSED int scandirat(int directory, const char* path, dirent*** list,
                                int (*select)(const dirent*),
                                int (*compare)(const dirent**, const dirent**)) {
  static constinit Next<int(int, const char*, dirent***, Selector<dirent>, Comparator<dirent>)>
      next("scandirat");
  return scan<dirent>(directory, path, list, select, compare,
                      [&] { return next(directory, path, list, select, compare); });
}

VBOARD_INTERPOSED int scandirat64(int directory, const char* path, dirent64*** list,
                                  int (*select)(const dirent64*),
                                  int (*compare)(const dirent64**, const dirent64**)) {
  static constinit Next<int(int, const char*, dirent64***, Selector<dirent64>,
                            Comparator<dirent64>)>
      next("scandirat64");
  return scan<dirent64>(directory, path, list, select, compare,
                        [&] { return next(directory, path, list, select, compare); });
}

VBOARD_INTERPOSED int glob(const char* pattern, int flags, int (*onError)(const char*, int),
                           glob_t* result) noexcept {
  static constinit Next<int(const char*, int, int (*)(const char*, int), glob_t*)> next("glob");
  return globThrough<glob_t, dirent, struct stat>(pattern, flags, onError, result, next.get(), stat,
                                                  lstat);
}

VBOARD_INTERPOSED int glob64(const char* pattern, int flags, int (*onError)(const char*, int),
                             glob64_t* result) noexcept {
  static constinit Next<int(const char*, int, int (*)(const char*, int), glob64_t*)> next("glob64");
  return globThrough<glob64_t, dirent64, struct stat64>(pattern, flags, onError, result, next.get(),
                                                        stat64, lstat64);
}

#if defined(__arm__)
// Their `struct stat` differs from the one declared here in the times, which glob doesn't look at.
extern "C" int __stat64_time64(const char* path, struct stat64* out);
extern "C" int __lstat64_time64(const char* path, struct stat64* out);

VBOARD_INTERPOSED int __glob64_time64(const char* pattern, int flags,
                                      int (*onError)(const char*, int), glob64_t* result) noexcept {
  static constinit Next<int(const char*, int, int (*)(const char*, int), glob64_t*)> next(
      "__glob64_time64");
  return globThrough<glob64_t, dirent64, struct stat64>(pattern, flags, onError, result, next.get(),
                                                        __stat64_time64, __lstat64_time64);
}
#endif
