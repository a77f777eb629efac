// SPDX-License-Identifier: MIT
#ifndef TESTS_TOOL_IMAGEFILES_H
#define TESTS_TOOL_IMAGEFILES_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

/// A folder of its own for files, gone in the end.
class ImageFiles {
 public:
  ImageFiles() : folder_(testing::TempDir() + "imagesXXXXXX") {
    if (::mkdtemp(folder_.data()) == nullptr) {
      ADD_FAILURE() << "no folder " << folder_;
    }
  }
  ~ImageFiles() { std::filesystem::remove_all(folder_); }
  ImageFiles(const ImageFiles&) = delete;
  ImageFiles& operator=(const ImageFiles&) = delete;

  const std::string& folder() const { return folder_; }
  std::string path(const std::string& name) const { return folder_ + '/' + name; }
  std::string make(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::ofstream file(path(name), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path(name);
  }
  std::vector<uint8_t> bytesOf(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  bool has(const std::string& name) const { return std::filesystem::exists(path(name)); }

 private:
  std::string folder_;
};

#endif
