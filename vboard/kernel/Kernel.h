// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_KERNEL_H
#define VBOARD_KERNEL_KERNEL_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "vboard/board/Board.h"

namespace vboard {

/// Whether this process's system calls really go through the virtual board: false when a linker
/// dropped the library or the program is static. Tests assert it first.
bool interposed();

struct KernelOptions {
  /// Sleeps, clocks and timed waits of this process follow the board's clock while the kernel runs.
  bool virtualTime = true;
  /// The board's clock follows real time: sleeps really sleep, and a transfer takes as long as its
  /// wires. Excludes virtualTime.
  bool realTime = false;
};

/// The calls that faults can hit.
enum class Call : uint8_t {
  Open,
  Close,
  Read,
  Write,
  WriteMode,  ///< SPI_IOC_WR_MODE, SPI_IOC_WR_MODE32
  ReadMode,
  WriteLsbFirst,
  ReadLsbFirst,
  WriteBits,
  ReadBits,
  WriteSpeed,
  ReadSpeed,
  Message,      ///< SPI_IOC_MESSAGE
  GpioRequest,  ///< either line request, both interface versions
  GpioSet,
  GpioGet,
};

/// The emulated kernel: while it lives, `/dev/spidevB.C` and `/dev/gpiochipN` of the board answer
/// in this process, and real nodes of these kinds are out of reach. One at a time.
///
/// A child of fork(2) goes on with a copy of the board and of the open nodes of its own: what it
/// does shows on no wire of its parent's board. A program that it executes finds /dev/null behind
/// the descriptors it inherits.
class Kernel {
 public:
  /// Powers the board up and puts its nodes in place. Throws std::logic_error when another kernel
  /// lives.
  explicit Kernel(Board& board, KernelOptions options = {});
  ~Kernel();
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;

  Board& board() const;

  /// Fault: the n-th call of a kind from now (1 = the next) fails with an error number, once; on a
  /// node, or on any when `node` is empty. A failed call does nothing else, except that a failed
  /// close closes all the same, as it does on a real kernel.
  void failCall(Call call, unsigned n, int errorNumber, std::string_view node = {});
  /// Fault: every call of a kind fails from now, until cleared.
  void failCallsFromNow(Call call, int errorNumber, std::string_view node = {});
  void clearFaults();

  /// Pulls a node out: open descriptors answer ESHUTDOWN, its path ENOENT. And puts it back, for
  /// new descriptors. Both throw std::invalid_argument for a path that no node of the board has.
  void removeNode(std::string_view path);
  void restoreNode(std::string_view path);
  /// Opening the node fails with EACCES for who isn't allowed.
  void denyNode(std::string_view path, bool denied);

  /// Bytes per word, modes and speed as the kernel holds them for a node, for tests.
  struct SpiSettings {
    uint32_t mode = 0;
    uint8_t bitsPerWord = 8;
    uint32_t speedHz = 0;
  };
  SpiSettings spiSettings(std::string_view path) const;

  /// Descriptors this process holds on emulated nodes.
  int openDescriptors() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vboard

#endif
