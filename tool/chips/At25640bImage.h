// SPDX-License-Identifier: MIT
#ifndef TOOL_CHIPS_AT25640BIMAGE_H
#define TOOL_CHIPS_AT25640BIMAGE_H

#include <cstdint>
#include <fstream>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "tool/App.h"
#include "tool/LiveWriter.h"
#include "tool/chips/At25640bLink.h"

namespace tool {

/// The contents of a file that holds a whole memory. Throws CLI::ValidationError for any other.
std::vector<uint8_t> readImage(const std::string& path);

/// How many bytes were written, and how many were there already.
struct Written {
  size_t written = 0;
  size_t unchanged = 0;
};

/// Writes the bytes that aren't there yet, each on its own and read back. Protected ones that would
/// change are refused before anything is written. A signal ends it between two bytes, with
/// ChipError.
Written writeBytes(MemoryLink& link, uint8_t status, size_t first, std::span<const uint8_t> bytes,
                   ProgressBar& progress);

/// A place where memory and file differ.
struct Difference {
  size_t address;
  uint8_t inMemory;
  uint8_t inFile;
};

/// Reads from `first` on and returns what differs. A signal ends it with ChipError.
std::vector<Difference> compareBytes(MemoryLink& link, size_t first, std::span<const uint8_t> bytes,
                                     ProgressBar& progress);

/// A file that grows while the memory is read, under the name with ".part" behind: the name itself
/// appears when all is there.
class DumpFile {
 public:
  /// Goes on with the bytes of an earlier dump, or begins anew. Throws CLI::ValidationError where
  /// the file exists already and isn't to be replaced, where there is nothing to go on with, and
  /// where the file can't be written.
  DumpFile(const std::string& path, bool resume, bool replace);

  /// What is there already.
  const std::vector<uint8_t>& bytes() const { return bytes_; }
  const std::string& partPath() const { return partPath_; }
  /// Throws OutputError, here and below.
  void append(uint8_t byte);
  /// Brings what was appended to the file.
  void flush();
  /// Gives the file its name.
  void finish();
  /// Says what a dump that came to no end left behind.
  void noteLeft(std::ostream& err);

 private:
  std::string path_;
  std::string partPath_;
  std::vector<uint8_t> bytes_;
  std::ofstream file_;
  bool finished_ = false;
};

/// Reads the rest of the memory into the file, then all of it once more to compare. A signal ends
/// it with ChipError, as what differs does.
void dumpMemory(MemoryLink& link, DumpFile& file, ProgressBar& progress);

}  // namespace tool

#endif
