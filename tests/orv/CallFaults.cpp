// SPDX-License-Identifier: MIT
#include "tests/orv/CallFaults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <string>

namespace {

struct Fault {
  int left = 0;
  int errorNumber = 0;

  bool hits() {
    if (left == 0 || --left > 0) {
      return false;
    }
    errno = errorNumber;
    return true;
  }
};

/// On 32-bit systems with a 64-bit time the C library's headers give these calls other names.
constexpr bool kHasTime64Names = sizeof(std::time_t) > sizeof(long);

template <typename T>
T next(const char* name) {
  return reinterpret_cast<T>(dlsym(RTLD_NEXT, name));
}

std::string linkPath;
Fault opendirFault;
Fault lineInfoFault;
Fault chipInfoFault;

}  // namespace

void CallFaults::failOpendir(int n, int errorNumber) {
  opendirFault = {n, errorNumber};
}

void CallFaults::failLineInfo(int n, int errorNumber) {
  lineInfoFault = {n, errorNumber};
}

void CallFaults::failChipInfo(int n, int errorNumber) {
  chipInfoFault = {n, errorNumber};
}

void CallFaults::showAsLink(const std::string& path) {
  linkPath = path;
}

void CallFaults::clear() {
  linkPath.clear();
  opendirFault = {};
  lineInfoFault = {};
  chipInfoFault = {};
}

extern "C" {

__attribute__((visibility("default"))) DIR* opendir(const char* path) {
  static const auto real = next<DIR* (*)(const char*)>("opendir");
  return opendirFault.hits() ? nullptr : real(path);
}

__attribute__((visibility("default"))) int lstat(const char* path, struct stat* status) noexcept {
  static const auto real =
      next<int (*)(const char*, struct stat*)>(kHasTime64Names ? "__lstat64_time64" : "lstat");
  const int result = real(path, status);
  if (result == 0 && linkPath == path) {
    status->st_mode = S_IFLNK | 0777;
  }
  return result;
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) noexcept {
  static const auto real =
      next<int (*)(int, unsigned long, ...)>(kHasTime64Names ? "__ioctl_time64" : "ioctl");
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  // The kernel takes 32 bits; callers that keep the number in an int extend its sign.
  const auto number = static_cast<unsigned int>(request);
  const bool lineInfo = number == GPIO_GET_LINEINFO_IOCTL || number == GPIO_V2_GET_LINEINFO_IOCTL;
  if ((lineInfo && lineInfoFault.hits()) ||
      (number == GPIO_GET_CHIPINFO_IOCTL && chipInfoFault.hits())) {
    return -1;
  }
  return real(fd, request, argument);
}

}  // extern "C"
