// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_FILETREE_H
#define VBOARD_KERNEL_FILETREE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/kernel/Node.h"

namespace vboard::kernel {

/// One name the emulation answers for: a device node, a directory, a symbolic link or a text file.
struct Entry {
  enum class Kind : uint8_t { Device, Directory, Link, Text };
  Kind kind = Kind::Directory;
  std::shared_ptr<Node> node;  ///< of a Device
  std::string text;            ///< contents of a Text, target of a Link
  /// The device whose removal takes this name away too; null for names that stay.
  std::shared_ptr<Node> owner;

  bool present() const { return owner == nullptr || !owner->removed(); }
};

/// The emulated names, laid over the real file system: the nodes in /dev and what libraries look
/// up about them in /sys. Guarded by the board's lock.
class FileTree {
 public:
  /// Adds a node and what the kernel and udev make of one: /dev/char/M:m, /sys/dev/char/M:m and,
  /// for spidevB.C and gpiochipN, its device directory ("dev", "uevent", "subsystem") with the
  /// links to it in /sys/class and /sys/bus. While the node is removed these names are gone as
  /// well.
  void addDevice(const std::shared_ptr<Node>& node);
  /// These make missing parents, as directories that stay.
  void addDirectory(const std::string& path);
  void addLink(const std::string& path, const std::string& target);
  void addText(const std::string& path, const std::string& contents);
  void clear();

  /// The entry of an absolute, already normalised path, following emulated links; null for others.
  const Entry* find(std::string_view path) const;
  /// The same without following a link in the last place.
  const Entry* findNoFollow(std::string_view path) const;
  /// The entry of a device by its exact path, removed or not; null for others.
  const Entry* findNode(std::string_view path) const;
  /// Whether a resolved path names a device of an emulated kind, in /dev or in /sys. When `find`
  /// has no entry for such a path the board doesn't have it, and it must answer ENOENT: real
  /// hardware stays out of reach.
  static bool isHidden(std::string_view path);
  /// Names of emulated entries directly in a directory, sorted.
  std::vector<std::string> namesIn(std::string_view directory) const;
  /// `path` made absolute and free of ".", ".." and doubled slashes, relative to a directory
  /// descriptor (AT_FDCWD allowed); empty when it can't be an emulated one.
  static std::string normalise(int directory, const char* path);
  /// `path` with every emulated link resolved, or every one but that in the last place; empty when
  /// links run in circles.
  std::string resolve(std::string_view path, bool followLast = true) const;
  /// Whether real names may be hidden in a directory, so that listings of it must be filtered.
  static bool hidesNamesIn(std::string_view directory);

 private:
  const Entry* lookUp(std::string_view path) const;
  void add(const std::string& path, Entry entry);
  void addSpiDevice(const std::shared_ptr<Node>& node, const std::string& name);
  void addGpioDevice(const std::shared_ptr<Node>& node, const std::string& name);
  void addDeviceDirectory(const std::shared_ptr<Node>& node, const std::string& directory,
                          const std::string& subsystem);

  std::map<std::string, Entry, std::less<>> entries_;
};

/// The tree of the running kernel, or null when none runs.
FileTree* fileTree();
/// Puts a tree in force, or none. The kernel does it; the tree must outlive its time in force.
void setFileTree(FileTree* tree);

}  // namespace vboard::kernel

#endif
