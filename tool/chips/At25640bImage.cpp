// SPDX-License-Identifier: MIT
#include "tool/chips/At25640bImage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "tool/ChipError.h"
#include "tool/Session.h"

namespace tool {
namespace {

constexpr size_t kPageSize = 32;
constexpr const char* kFile = "FILE";

CLI::ValidationError refused(std::string_view what, const std::string& path) {
  return CLI::ValidationError(kFile,
                              fmt::format("can't {} '{}': {}", what, path, std::strerror(errno)));
}

/// The bytes of a file, no more than one beyond `most`.
std::vector<uint8_t> contentsOf(const std::string& path, size_t most) {
  if (std::filesystem::is_directory(path)) {
    errno = EISDIR;
    throw refused("read", path);
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::vector<uint8_t> bytes(most + 1);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!file && !file.eof()) {
    throw refused("read", path);
  }
  bytes.resize(static_cast<size_t>(file.gcount()));
  return bytes;
}

bool exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

void refuseProtected(MemoryLink& link, uint8_t status, size_t first, std::span<const uint8_t> bytes,
                     ProgressBar& progress) {
  const size_t begin = std::max(first, firstProtected(status));
  if (begin >= first + bytes.size()) {
    return;
  }
  const auto differences = compareBytes(link, begin, bytes.subspan(begin - first), progress);
  if (differences.empty()) {
    return;
  }
  const Difference& at = differences.front();
  throw ChipError(
      fmt::format("{:#06x} is protected and holds {:#04x}, not {:#04x}: the status protects "
                  "{:#06x} and above; nothing was written",
                  at.address, at.inMemory, at.inFile, firstProtected(status)),
      "a program that clears the bits BP0 and BP1 of the status register: this tool's driver "
      "doesn't write it");
}

}  // namespace

std::vector<uint8_t> readImage(const std::string& path) {
  std::vector<uint8_t> image = contentsOf(path, kMemorySize);
  if (image.size() != kMemorySize) {
    throw CLI::ValidationError(
        kFile,
        image.size() > kMemorySize
            ? fmt::format("'{}' has more than the {} bytes of the memory", path, kMemorySize)
            : fmt::format("'{}' has {} bytes, the memory {}", path, image.size(), kMemorySize));
  }
  return image;
}

Written writeBytes(MemoryLink& link, uint8_t status, size_t first, std::span<const uint8_t> bytes,
                   ProgressBar& progress) {
  refuseProtected(link, status, first, bytes, progress);
  Written result;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const size_t address = first + i;
    if (link.interrupted()) {
      throw ChipError(
          fmt::format("interrupted: below {:#06x} everything is written, from there on nothing; no "
                      "byte is half written",
                      address),
          "the same command again: it goes on where it stopped");
    }
    if (i % kPageSize == 0) {
      progress.show("writing", i, bytes.size());
    }
    const uint8_t before = link.read(address);
    if (before == bytes[i]) {
      ++result.unchanged;
    } else {
      link.write(address, before, bytes[i]);
      ++result.written;
    }
  }
  return result;
}

std::vector<Difference> compareBytes(MemoryLink& link, size_t first, std::span<const uint8_t> bytes,
                                     ProgressBar& progress) {
  std::vector<Difference> differences;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const size_t address = first + i;
    if (link.interrupted()) {
      throw ChipError(fmt::format("interrupted: {} of {} bytes were compared, {} differ", i,
                                  bytes.size(), differences.size()),
                      "the same command again");
    }
    if (i % kPageSize == 0) {
      progress.show("comparing", i, bytes.size());
    }
    const uint8_t found = link.read(address);
    if (found != bytes[i]) {
      differences.push_back({address, found, bytes[i]});
    }
  }
  return differences;
}

DumpFile::DumpFile(const std::string& path, bool resume, bool replace)
    : path_(path), partPath_(path + ".part") {
  if (exists(path) && (!replace || std::filesystem::is_directory(path))) {
    throw CLI::ValidationError(
        kFile, fmt::format("'{}' exists already: another name, or --replace", path));
  }
  if (resume && !exists(partPath_)) {
    throw CLI::ValidationError(
        "--resume",
        fmt::format("there is no '{}' to go on with: the dump begins anew without it", partPath_));
  }
  if (resume) {
    bytes_ = contentsOf(partPath_, kMemorySize);
    if (bytes_.size() > kMemorySize) {
      throw CLI::ValidationError(
          "--resume", fmt::format("'{}' has more than the {} bytes of the memory: the dump begins "
                                  "anew without it",
                                  partPath_, kMemorySize));
    }
  }
  errno = 0;
  file_.open(partPath_, std::ios::binary | std::ios::app);
  if (!file_) {
    throw refused("write", partPath_);
  }
}

void DumpFile::append(uint8_t byte) {
  errno = 0;
  if (bytes_.empty()) {
    // Only now that the memory answers is an earlier dump given up.
    file_.close();
    file_.open(partPath_, std::ios::binary | std::ios::trunc);
  }
  bytes_.push_back(byte);
  file_.put(static_cast<char>(byte));
  if (bytes_.size() % kPageSize == 0) {
    flush();
  }
}

void DumpFile::flush() {
  errno = 0;
  if (!file_.flush()) {
    throw OutputError(errno);
  }
}

void DumpFile::finish() {
  flush();
  file_.close();
  if (std::rename(partPath_.c_str(), path_.c_str()) != 0) {
    throw OutputError(errno);
  }
  finished_ = true;
}

void DumpFile::noteLeft(std::ostream& err) {
  file_.close();
  std::error_code error;
  if (finished_) {
    return;
  }
  if (bytes_.empty() && std::filesystem::file_size(partPath_, error) == 0) {
    std::filesystem::remove(partPath_, error);
  } else if (!bytes_.empty() && bytes_.size() < kMemorySize) {
    report(err, fmt::format("note: {} has the first {} of {} bytes; the same command with --resume "
                            "goes on there",
                            partPath_, bytes_.size(), kMemorySize));
  }
}

void dumpMemory(MemoryLink& link, DumpFile& file, ProgressBar& progress) {
  const size_t already = file.bytes().size();
  while (file.bytes().size() < kMemorySize) {
    const size_t address = file.bytes().size();
    if (link.interrupted()) {
      throw ChipError("interrupted: the dump is not complete", "the same command with --resume");
    }
    if (address % kPageSize == 0) {
      progress.show("reading", address, kMemorySize);
    }
    file.append(link.read(address));
  }
  file.flush();
  const auto differences = compareBytes(link, 0, file.bytes(), progress);
  if (!differences.empty()) {
    const Difference& at = differences.front();
    throw ChipError(
        fmt::format("{} bytes read differently the second time, the first at {:#06x}: "
                    "{:#04x}, before {:#04x}; {} is not to be relied on",
                    differences.size(), at.address, at.inMemory, at.inFile, file.partPath()),
        already > 0 ? "the same command without --resume: the memory may have changed since"
                    : "a lower --speed; whether something else writes to the memory");
  }
  file.finish();
}

}  // namespace tool
