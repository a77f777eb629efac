// SPDX-License-Identifier: MIT
#include "vboard/launcher/Program.h"

#include <elf.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

namespace vboard::launcher {

namespace {

constexpr int kNotRunnable = 126;
constexpr int kNotFound = 127;
constexpr int kMaxScriptLevels = 5;  // as the kernel

/// What decides whether a library can be preloaded.
struct Image {
  unsigned char elfClass = 0;
  unsigned char byteOrder = 0;
  uint16_t machine = 0;
  bool executable = false;
  std::string loader;  ///< empty: static
};

template <typename Type>
bool readAt(std::ifstream& file, std::streamoff offset, Type& value) {
  file.clear();
  file.seekg(offset);
  return static_cast<bool>(file.read(reinterpret_cast<char*>(&value), sizeof value));
}

template <typename Header, typename Segment>
void readLoader(std::ifstream& file, Image& image) {
  Header header;
  if (!readAt(file, 0, header)) {
    return;
  }
  image.machine = header.e_machine;
  image.executable = header.e_type == ET_EXEC || header.e_type == ET_DYN;
  for (int i = 0; i < header.e_phnum; ++i) {
    Segment segment;
    const auto offset = static_cast<std::streamoff>(header.e_phoff) + i * header.e_phentsize;
    if (!readAt(file, offset, segment)) {
      return;
    }
    if (segment.p_type == PT_INTERP && segment.p_filesz > 1 && segment.p_filesz < 4096) {
      image.loader.resize(static_cast<size_t>(segment.p_filesz - 1));
      file.seekg(static_cast<std::streamoff>(segment.p_offset));
      file.read(image.loader.data(), static_cast<std::streamsize>(image.loader.size()));
    }
  }
}

/// Nothing for a file that is no ELF program. One of another byte order keeps its loader unread.
std::optional<Image> readImage(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::array<unsigned char, EI_NIDENT> identity{};
  if (!readAt(file, 0, identity) || std::memcmp(identity.data(), ELFMAG, SELFMAG) != 0) {
    return std::nullopt;
  }
  Image image;
  image.elfClass = identity[EI_CLASS];
  image.byteOrder = identity[EI_DATA];
  if (image.elfClass == ELFCLASS32) {
    readLoader<Elf32_Ehdr, Elf32_Phdr>(file, image);
  } else {
    readLoader<Elf64_Ehdr, Elf64_Phdr>(file, image);
  }
  return image;
}

std::string baseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string describe(const Image& image) {
  struct Machine {
    uint16_t number;
    const char* name;
  };
  static constexpr Machine kMachines[] = {
      {EM_X86_64, "x86-64"}, {EM_386, "x86"},       {EM_ARM, "ARM"},   {EM_AARCH64, "ARM64"},
      {EM_RISCV, "RISC-V"},  {EM_PPC64, "PowerPC"}, {EM_MIPS, "MIPS"}, {EM_S390, "S/390"}};
  std::string name = "machine " + std::to_string(image.machine);
  for (const Machine& machine : kMachines) {
    name = machine.number == image.machine ? machine.name : name;
  }
  return std::string(image.elfClass == ELFCLASS32 ? "32" : "64") + "-bit " + name;
}

bool isRunnable(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

/// The path as a shell finds it; status and error when it doesn't.
Program locate(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    struct stat status {};
    if (::stat(name.c_str(), &status) != 0) {
      const int status127 = errno == EACCES ? kNotRunnable : kNotFound;
      return {name, status127, name + ": " + std::strerror(errno)};
    }
    if (!isRunnable(name)) {
      return {name, kNotRunnable,
              name + (S_ISDIR(status.st_mode) ? ": is a directory" : ": is not executable")};
    }
    return {name, 0, ""};
  }
  const char* value = std::getenv("PATH");
  const std::string folders = value != nullptr ? value : "/usr/bin:/bin";
  std::string found;
  for (size_t begin = 0; begin <= folders.size() && !name.empty();) {
    const size_t end = std::min(folders.find(':', begin), folders.size());
    const std::string folder = folders.substr(begin, end - begin);
    const std::string path = (folder.empty() ? "." : folder) + "/" + name;
    if (isRunnable(path)) {
      return {path, 0, ""};
    }
    struct stat status {};
    if (found.empty() && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      found = path;
    }
    begin = end + 1;
  }
  if (!found.empty()) {
    return {found, kNotRunnable, found + ": is not executable"};
  }
  return {name, kNotFound, name + ": there is no such program"};
}

/// What makes the loader ignore LD_PRELOAD (AT_SECURE), or nothing.
std::string privilege(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return "";
  }
  if ((status.st_mode & S_ISUID) != 0 && status.st_uid != ::getuid()) {
    return "is set-user-id";
  }
  if ((status.st_mode & (S_ISGID | S_IXGRP)) == (S_ISGID | S_IXGRP) &&
      status.st_gid != ::getgid()) {
    return "is set-group-id";
  }
  if (::getuid() != 0 && ::getxattr(path.c_str(), "security.capability", nullptr, 0) > 0) {
    return "has file capabilities";
  }
  return "";
}

/// The interpreter of a script, or nothing.
std::string interpreterOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::array<char, 2> magic{};
  std::string line;
  if (!file.read(magic.data(), magic.size()) || magic[0] != '#' || magic[1] != '!' ||
      !std::getline(file, line)) {
    return "";
  }
  const size_t begin = line.find_first_not_of(" \t");
  if (begin == std::string::npos) {
    return "";
  }
  return line.substr(begin, line.find_first_of(" \t\r", begin) - begin);
}

std::string refusal(const std::string& path, const Image& image, const Image& own) {
  if (!image.executable) {
    return "is no program";
  }
  if (image.elfClass != own.elfClass || image.machine != own.machine ||
      image.byteOrder != own.byteOrder) {
    return "is a " + describe(image) + " program; this virtual board serves " + describe(own) +
           " programs";
  }
  if (image.loader.empty()) {
    return "is statically linked, so the virtual board's library can't be loaded into it; link it "
           "dynamically";
  }
  if (baseName(image.loader) != baseName(own.loader)) {
    return "is loaded by " + image.loader + ", a different C library than the virtual board's (" +
           own.loader + ")";
  }
  const std::string reason = privilege(path);
  return reason.empty() ? ""
                        : reason +
                              ", so the system loads no other library into it; run a copy "
                              "without the privilege";
}

}  // namespace

Program findProgram(const std::string& name, const std::string& self) {
  Program program = locate(name);
  if (program.status != 0) {
    return program;
  }
  const std::optional<Image> own = readImage(self);
  std::string path = program.path;
  std::string chain = program.path;
  for (int level = 0; level < kMaxScriptLevels; ++level) {
    if (const std::optional<Image> image = readImage(path)) {
      const std::string reason = own ? refusal(path, *image, *own) : "";
      if (!reason.empty()) {
        program.status = kNotRunnable;
        program.error = chain + " " + reason;
      }
      return program;
    }
    const std::string interpreter = interpreterOf(path);
    if (interpreter.empty()) {
      break;
    }
    if (!isRunnable(interpreter)) {
      program.status = kNotRunnable;
      program.error = chain + ": its interpreter " + interpreter + " can't be run";
      return program;
    }
    path = interpreter;
    chain = program.path + ": its interpreter " + interpreter;
  }
  program.status = kNotRunnable;
  program.error = program.path + " is neither a program nor a script that begins with #!";
  return program;
}

}  // namespace vboard::launcher
