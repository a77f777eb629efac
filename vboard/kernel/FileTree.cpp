// SPDX-License-Identifier: MIT
#include "vboard/kernel/FileTree.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <utility>

namespace vboard::kernel {
namespace {

/// As many links as the kernel follows in one path.
constexpr int kMaxLinks = 40;

/// Emulated directories are backed by memfds of this name, so that a descriptor tells its path.
constexpr std::string_view kBackingPrefix = "/memfd:vboard:";
constexpr std::string_view kBackingSuffix = " (deleted)";

/// Everything in these directories belongs to devices of the emulated kinds.
constexpr std::array<std::string_view, 6> kOwnedDirectories = {
    "/sys/class/spidev/",     "/sys/class/spi_master/", "/sys/bus/spi/devices/",
    "/sys/bus/gpio/devices/", "/sys/class/gpio/",       "/sys/bus/spi/drivers/spidev/",
};

/// Links in these are named after device numbers: only their targets tell the kind.
constexpr std::array<std::string_view, 2> kNumberedDirectories = {"/sys/dev/char/", "/dev/char/"};

std::atomic<FileTree*> treeInForce{nullptr};

std::string numbersOf(const Node& node) {
  return std::to_string(major(node.device())) + ":" + std::to_string(minor(node.device()));
}

std::string_view parentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string_view lastOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

bool isEmulatedKind(std::string_view name) {
  return name.starts_with("spidev") || name.starts_with("gpiochip");
}

/// What a real link points to, past the interposed readlink.
std::string realLinkTarget(const char* path) {
  char target[PATH_MAX];
  const long length = syscall(SYS_readlinkat, AT_FDCWD, path, target, sizeof(target));
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

/// The path of a directory descriptor, emulated directories included.
std::string directoryPath(int directory) {
  if (directory == AT_FDCWD) {
    char path[PATH_MAX];
    const long length = syscall(SYS_getcwd, path, sizeof(path));
    return length > 0 && path[0] == '/' ? std::string(path) : std::string();
  }
  std::string path = realLinkTarget(("/proc/self/fd/" + std::to_string(directory)).c_str());
  if (path.starts_with(kBackingPrefix)) {
    path.erase(0, kBackingPrefix.size());
    if (path.ends_with(kBackingSuffix)) {
      path.resize(path.size() - kBackingSuffix.size());
    }
  }
  return path.starts_with('/') ? path : std::string();
}

/// Appends the components of `path` to a normalised one ("" stands for the root).
void appendComponents(std::string& normalised, std::string_view path) {
  size_t start = 0;
  while (start < path.size()) {
    size_t end = path.find('/', start);
    end = end == std::string_view::npos ? path.size() : end;
    const std::string_view component = path.substr(start, end - start);
    if (component == "..") {
      const size_t slash = normalised.rfind('/');
      normalised.resize(slash == std::string::npos ? 0 : slash);
    } else if (!component.empty() && component != ".") {
      normalised += '/';
      normalised += component;
    }
    start = end + 1;
  }
}

}  // namespace

FileTree* fileTree() {
  return treeInForce.load(std::memory_order_acquire);
}

void setFileTree(FileTree* tree) {
  treeInForce.store(tree, std::memory_order_release);
}

std::string FileTree::normalise(int directory, const char* path) {
  if (path == nullptr || path[0] == '\0') {
    return {};
  }
  std::string normalised;
  if (path[0] != '/') {
    const std::string base = directoryPath(directory);
    if (base.empty()) {
      return {};
    }
    appendComponents(normalised, base);
  }
  appendComponents(normalised, path);
  return normalised.empty() ? "/" : normalised;
}

const Entry* FileTree::lookUp(std::string_view path) const {
  const auto found = entries_.find(path);
  return found != entries_.end() && found->second.present() ? &found->second : nullptr;
}

std::string FileTree::resolve(std::string_view path, bool followLast) const {
  std::string resolved;
  std::string rest(path);
  int links = 0;
  while (!rest.empty()) {
    const size_t start = rest.find_first_not_of('/');
    if (start == std::string::npos) {
      break;
    }
    const size_t end = rest.find('/', start);
    std::string component = rest.substr(start, end == std::string::npos ? end : end - start);
    rest = end == std::string::npos ? std::string() : rest.substr(end);
    const size_t before = resolved.size();
    appendComponents(resolved, component);
    const Entry* entry = lookUp(resolved);
    if (entry == nullptr || entry->kind != Entry::Kind::Link || (rest.empty() && !followLast)) {
      continue;
    }
    if (++links > kMaxLinks) {
      return {};
    }
    rest = entry->text + rest;
    resolved.resize(entry->text.starts_with('/') ? 0 : before);
  }
  return resolved.empty() ? "/" : resolved;
}

const Entry* FileTree::find(std::string_view path) const {
  if (const Entry* entry = lookUp(path); entry != nullptr && entry->kind != Entry::Kind::Link) {
    return entry;
  }
  return lookUp(resolve(path, true));
}

const Entry* FileTree::findNoFollow(std::string_view path) const {
  if (const Entry* entry = lookUp(path); entry != nullptr) {
    return entry;
  }
  return lookUp(resolve(path, false));
}

const Entry* FileTree::findNode(std::string_view path) const {
  const auto found = entries_.find(path);
  const bool isNode = found != entries_.end() && found->second.kind == Entry::Kind::Device;
  return isNode ? &found->second : nullptr;
}

bool FileTree::isHidden(std::string_view path) {
  if (path.starts_with("/dev/") && isEmulatedKind(path.substr(5))) {
    return true;
  }
  for (const std::string_view directory : kOwnedDirectories) {
    if (path.starts_with(directory) && path.size() > directory.size()) {
      return true;
    }
  }
  for (const std::string_view directory : kNumberedDirectories) {
    if (path.starts_with(directory) && path.size() > directory.size()) {
      const size_t end = path.find('/', directory.size());
      const std::string link(path.substr(0, end));
      return isEmulatedKind(lastOf(realLinkTarget(link.c_str())));
    }
  }
  return false;
}

bool FileTree::hidesNamesIn(std::string_view directory) {
  const std::string prefix = std::string(directory) + "/";
  const auto matches = [&prefix](std::string_view owned) { return owned == prefix; };
  return directory == "/dev" || std::ranges::any_of(kOwnedDirectories, matches) ||
         std::ranges::any_of(kNumberedDirectories, matches);
}

std::vector<std::string> FileTree::namesIn(std::string_view directory) const {
  std::string prefix = resolve(directory, true);
  if (prefix != "/") {
    prefix += '/';
  }
  std::vector<std::string> names;
  for (auto at = entries_.lower_bound(prefix); at != entries_.end(); ++at) {
    if (!at->first.starts_with(prefix)) {
      break;
    }
    const std::string_view name = std::string_view(at->first).substr(prefix.size());
    if (!name.empty() && name.find('/') == std::string_view::npos && at->second.present()) {
      names.emplace_back(name);
    }
  }
  return names;
}

void FileTree::add(const std::string& path, Entry entry) {
  if (path != "/") {
    const std::string parent(parentOf(path));
    if (entries_.find(parent) == entries_.end()) {
      add(parent, Entry{});
    }
  }
  entries_.insert_or_assign(path, std::move(entry));
}

void FileTree::addDirectory(const std::string& path) {
  if (lookUp(path) == nullptr) {
    add(path, Entry{});
  }
}

void FileTree::addLink(const std::string& path, const std::string& target) {
  add(path, Entry{Entry::Kind::Link, nullptr, target, nullptr});
}

void FileTree::addText(const std::string& path, const std::string& contents) {
  add(path, Entry{Entry::Kind::Text, nullptr, contents, nullptr});
}

void FileTree::addDeviceDirectory(const std::shared_ptr<Node>& node, const std::string& directory,
                                  const std::string& subsystem) {
  const std::string name(lastOf(node->path()));
  const std::string numbers = numbersOf(*node);
  add(directory, Entry{Entry::Kind::Directory, nullptr, {}, node});
  add(directory + "/dev", Entry{Entry::Kind::Text, nullptr, numbers + "\n", node});
  add(directory + "/uevent",
      Entry{Entry::Kind::Text, nullptr,
            "MAJOR=" + std::to_string(major(node->device())) +
                "\nMINOR=" + std::to_string(minor(node->device())) + "\nDEVNAME=" + name + "\n",
            node});
  add(directory + "/subsystem", Entry{Entry::Kind::Link, nullptr, subsystem, node});
  addDirectory(subsystem);
  add("/sys/dev/char/" + numbers, Entry{Entry::Kind::Link, nullptr, directory, node});
}

void FileTree::addGpioDevice(const std::shared_ptr<Node>& node, const std::string& name) {
  const std::string directory = "/sys/devices/platform/vboard-" + name + "/" + name;
  addDeviceDirectory(node, directory, "/sys/bus/gpio");
  add("/sys/bus/gpio/devices/" + name, Entry{Entry::Kind::Link, nullptr, directory, node});
}

void FileTree::addSpiDevice(const std::shared_ptr<Node>& node, const std::string& name) {
  const std::string address = name.substr(std::string_view("spidev").size());
  const std::string master = "spi" + address.substr(0, address.find('.'));
  const std::string masterDirectory =
      "/sys/devices/platform/vboard-" + master + "/spi_master/" + master;
  const std::string device = masterDirectory + "/spi" + address;
  const std::string directory = device + "/spidev/" + name;
  addDirectory(masterDirectory);
  addLink("/sys/class/spi_master/" + master, masterDirectory);
  add(device, Entry{Entry::Kind::Directory, nullptr, {}, node});
  add(device + "/modalias", Entry{Entry::Kind::Text, nullptr, "spi:spidev\n", node});
  add(device + "/subsystem", Entry{Entry::Kind::Link, nullptr, "/sys/bus/spi", node});
  addDirectory("/sys/bus/spi");
  add("/sys/bus/spi/devices/spi" + address, Entry{Entry::Kind::Link, nullptr, device, node});
  addDeviceDirectory(node, directory, "/sys/class/spidev");
  add(directory + "/device", Entry{Entry::Kind::Link, nullptr, device, node});
  add("/sys/class/spidev/" + name, Entry{Entry::Kind::Link, nullptr, directory, node});
}

void FileTree::addDevice(const std::shared_ptr<Node>& node) {
  const std::string name(lastOf(node->path()));
  add(node->path(), Entry{Entry::Kind::Device, node, {}, node});
  add("/dev/char/" + numbersOf(*node), Entry{Entry::Kind::Link, nullptr, node->path(), node});
  if (name.starts_with("spidev")) {
    addSpiDevice(node, name);
  } else if (name.starts_with("gpiochip")) {
    addGpioDevice(node, name);
  } else {
    addDeviceDirectory(node, "/sys/devices/virtual/vboard/" + name, "/sys/class/vboard");
  }
}

void FileTree::clear() {
  entries_.clear();
}

}  // namespace vboard::kernel
