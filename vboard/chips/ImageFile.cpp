// SPDX-License-Identifier: MIT
#include "vboard/chips/ImageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace vboard {

namespace {

bool writeAll(int file, std::span<const uint8_t> contents) {
  while (!contents.empty()) {
    const ssize_t written = ::write(file, contents.data(), contents.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    contents = contents.subspan(static_cast<size_t>(written));
  }
  return true;
}

bool replace(const std::string& path, std::span<const uint8_t> contents) {
  // Processes of one program may have copies of the board.
  const std::string fresh = path + "." + std::to_string(::getpid()) + ".new";
  const int file = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (file < 0) {
    return false;
  }
  const bool written = writeAll(file, contents);
  const int error = errno;
  const bool closed = ::close(file) == 0;
  if (written && closed && std::rename(fresh.c_str(), path.c_str()) == 0) {
    return true;
  }
  const int renamed = errno;
  ::unlink(fresh.c_str());
  errno = written ? renamed : error;
  return false;
}

}  // namespace

std::string lastingPath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(absolute, error);
  return error ? absolute.string() : resolved.string();
}

std::optional<std::vector<uint8_t>> readImage(const std::string& path, size_t largest) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) {
    return std::nullopt;
  }
  struct stat about {};
  std::optional<std::vector<uint8_t>> contents;
  if (::fstat(file, &about) == 0 && S_ISREG(about.st_mode) &&
      static_cast<uint64_t>(about.st_size) <= largest) {
    contents.emplace(static_cast<size_t>(about.st_size));
    size_t got = 0;
    while (got < contents->size()) {
      const ssize_t part = ::read(file, contents->data() + got, contents->size() - got);
      if (part <= 0) {
        ::close(file);
        return std::nullopt;
      }
      got += static_cast<size_t>(part);
    }
  }
  ::close(file);
  return contents;
}

int replaceImage(const std::string& path, std::span<const uint8_t> contents) {
  const int saved = errno;
  const int error = replace(path, contents) ? 0 : errno;
  errno = saved;
  return error;
}

}  // namespace vboard
