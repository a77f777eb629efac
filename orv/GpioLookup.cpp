// SPDX-License-Identifier: MIT
#include "orv/GpioLookup_p.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orv/PinMap_p.h"

namespace Orv {
namespace {

constexpr const char* kDeviceFolder = "/dev/";
constexpr const char* kChipPrefix = "gpiochip";

std::string chipPath(unsigned int number) {
  return kDeviceFolder + (kChipPrefix + std::to_string(number));
}

/// True for "gpiochip" and a number without anything else.
bool parseChipName(const char* name, unsigned int& number) {
  const std::size_t prefix = std::strlen(kChipPrefix);
  if (std::strncmp(name, kChipPrefix, prefix) != 0) {
    return false;
  }
  const char* const end = name + std::strlen(name);
  const auto result = std::from_chars(name + prefix, end, number);
  return result.ec == std::errc() && result.ptr == end;
}

/// Some systems offer a chip under an old name too, by a symbolic link: it must count once.
bool isDevice(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISCHR(status.st_mode);
}

/// Paths of all GPIO chips in the order of their numbers.
TErrCode listChips(std::vector<std::string>& paths) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kDeviceFolder), &closedir);
  if (folder == nullptr) {
    return gpioErrorCode(errno);
  }
  std::vector<unsigned int> numbers;
  while (const dirent* const entry = readdir(folder.get())) {
    unsigned int number = 0;
    if (parseChipName(entry->d_name, number) && isDevice(chipPath(number))) {
      numbers.push_back(number);
    }
  }
  std::sort(numbers.begin(), numbers.end());
  for (const unsigned int number : numbers) {
    paths.push_back(chipPath(number));
  }
  return paths.empty() ? -ENODEV : 0;
}

TErrCode openByCounting(unsigned int pin, CGpioLine& chip, unsigned int& line) {
  std::vector<std::string> paths;
  if (const TErrCode error = listChips(paths); error < 0) {
    return error;
  }
  for (const std::string& path : paths) {
    // A chip that can't be asked how many lines it has leaves the rest of the count unknown.
    if (const TErrCode error = chip.open(path); error < 0) {
      return error;
    }
    if (pin < chip.lineCount()) {
      line = pin;
      return 0;
    }
    pin -= chip.lineCount();
  }
  return -EINVAL;
}

/// Runs @p matches on each chip and keeps the one chip for which it gives a line.
///
/// @param matches    TErrCode(CGpioLine&, std::vector<unsigned int>& lines): adds what it finds
/// @param notFound   code for no match at all, unless a chip could not be looked at
template <typename T>
TErrCode openOnlyMatch(T matches, TErrCode notFound, CGpioLine& chip, unsigned int& line) {
  std::vector<std::string> paths;
  if (const TErrCode error = listChips(paths); error < 0) {
    return error;
  }
  std::vector<unsigned int> lines;
  for (const std::string& path : paths) {
    CGpioLine candidate;
    const std::size_t before = lines.size();
    TErrCode error = candidate.open(path);
    if (error == 0) {
      error = matches(candidate, lines);
    }
    if (error < 0) {
      notFound = error;
    } else if (lines.size() > before) {
      chip = std::move(candidate);
    }
  }
  if (lines.empty()) {
    return notFound;
  }
  // Two of the same name: driving the wrong one may do damage, so neither is taken.
  if (lines.size() > 1) {
    return -EINVAL;
  }
  line = lines.front();
  return 0;
}

TErrCode openByLineName(const std::string& name, CGpioLine& chip, unsigned int& line) {
  const auto matches = [&name](const CGpioLine& candidate, std::vector<unsigned int>& lines) {
    const unsigned int count = candidate.lineCount();
    for (unsigned int i = 0; i < count; ++i) {
      std::string lineName;
      if (const TErrCode error = candidate.lineName(i, lineName); error < 0) {
        return error;
      }
      if (lineName == name) {
        lines.push_back(i);
      }
    }
    return TErrCode{0};
  };
  return openOnlyMatch(matches, -EINVAL, chip, line);
}

TErrCode openByLabel(const std::string& label, CGpioLine& chip) {
  const auto matches = [&label](const CGpioLine& candidate, std::vector<unsigned int>& lines) {
    if (candidate.chipLabel() == label) {
      lines.push_back(0);
    }
    return TErrCode{0};
  };
  unsigned int unused = 0;
  return openOnlyMatch(matches, -ENODEV, chip, unused);
}

TErrCode openChip(const std::string& text, CGpioLine& chip) {
  unsigned int number = 0;
  if (text.find('/') != std::string::npos) {
    return chip.open(text);
  }
  if (parseChipName(text.c_str(), number)) {
    return chip.open(chipPath(number));
  }
  return openByLabel(text, chip);
}

}  // namespace

TErrCode gpioErrorCode(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENXIO:
    case ENOTTY: return -ENODEV;
    case EPERM: return -EACCES;
    default: return -errnoToErrCode(errorNumber);
  }
}

TErrCode openChipOfPin(unsigned int pin, CGpioLine& chip, unsigned int& line) {
  const CPinMap map = stPinMapEntries::installed();
  const stPinMapEntry* const entry = stPinMapEntries::find(map, pin);
  if (entry == nullptr) {
    return map.unmappedPins() == UNMAPPED_DEFAULT_NUMBER ? openByCounting(pin, chip, line)
                                                         : -EINVAL;
  }
  if (!entry->LineName.empty()) {
    return openByLineName(entry->LineName, chip, line);
  }
  if (const TErrCode error = openChip(entry->Chip, chip); error < 0) {
    return error;
  }
  line = entry->FirstLine + (pin - entry->FirstPin);
  return line < chip.lineCount() ? 0 : -EINVAL;
}

}  // namespace Orv
