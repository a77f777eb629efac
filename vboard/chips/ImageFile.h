// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_IMAGEFILE_H
#define VBOARD_CHIPS_IMAGEFILE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vboard {

/// The path that still names the same file when the program changes its directory, with links
/// followed, so that replacing the file leaves them.
std::string lastingPath(const std::string& path);

/// What a file holds; nothing for one that can't be read, is no plain file, or is larger.
std::optional<std::vector<uint8_t>> readImage(const std::string& path, size_t largest);

/// Replaces a file, or makes it, so that whoever looks sees the old contents or the new ones.
/// Leaves errno alone. Returns 0, or what went wrong as an errno.
int replaceImage(const std::string& path, std::span<const uint8_t> contents);

}  // namespace vboard

#endif
