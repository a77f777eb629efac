// SPDX-License-Identifier: MIT
#include "vboard/kernel/Kernel.h"

#include <dlfcn.h>
#include <sys/sysmacros.h>

#include <mutex>
#include <stdexcept>

#include "vboard/kernel/Descriptors.h"
#include "vboard/kernel/GpioNodes.h"
#include "vboard/kernel/KernelState.h"
#include "vboard/kernel/Probe.h"
#include "vboard/kernel/SpidevNode.h"

namespace vboard {

struct Kernel::Impl : kernel::KernelState {
  using KernelState::KernelState;

  std::unique_lock<std::recursive_mutex> lock() const { return std::unique_lock(board.mutex()); }
  /// The node of a path, removed or not; throws std::invalid_argument when there is none.
  kernel::Node& node(std::string_view path) const;
};

namespace {

void addSpidevNodes(Board& board, kernel::FileTree& tree) {
  constexpr unsigned kSpidevMajor = 153;
  unsigned minorNumber = 0;
  for (SpiBus* bus : board.spiBuses()) {
    const auto controller = std::make_shared<kernel::SpiController>(*bus);
    for (int select = 0; select < bus->options().selects; ++select) {
      tree.addDevice(std::make_shared<kernel::SpidevNode>(controller, select,
                                                          makedev(kSpidevMajor, minorNumber)));
      ++minorNumber;
    }
  }
}

}  // namespace

kernel::Node& Kernel::Impl::node(std::string_view path) const {
  const kernel::Entry* entry = tree.findNode(path);
  if (entry == nullptr) {
    throw std::invalid_argument("the board has no node " + std::string(path));
  }
  return *entry->node;
}

bool interposed() {
  // The function an executable's calls reach, which isn't always this library's.
  using Ioctl = int(int, unsigned long, ...);
  bool reached = false;
  if (void* const found = dlsym(RTLD_DEFAULT, "ioctl"); found != nullptr) {
    reinterpret_cast<Ioctl*>(found)(kernel::kProbeDescriptor, kernel::kProbeRequest, &reached);
  }
  return reached;
}

Kernel::Kernel(Board& board, KernelOptions options) : impl_(new Impl(board, options)) {
  const auto lock = impl_->lock();
  board.powerUp();
  addSpidevNodes(board, impl_->tree);
  kernel::addGpioNodes(board, impl_->tree);
  kernel::startRunning(*impl_);
}

Kernel::~Kernel() {
  kernel::stopRunning();
  const auto lock = impl_->lock();
  kernel::descriptors.clear();
  impl_->tree.clear();
}

Board& Kernel::board() const {
  return impl_->board;
}

void Kernel::failCall(Call call, unsigned n, int errorNumber, std::string_view node) {
  const auto lock = impl_->lock();
  if (n > 0) {
    impl_->faults.add(call, n, errorNumber, node);
  }
}

void Kernel::failCallsFromNow(Call call, int errorNumber, std::string_view node) {
  const auto lock = impl_->lock();
  impl_->faults.add(call, 0, errorNumber, node);
}

void Kernel::clearFaults() {
  const auto lock = impl_->lock();
  impl_->faults.clear();
}

void Kernel::removeNode(std::string_view path) {
  const auto lock = impl_->lock();
  impl_->node(path).setRemoved(true);
}

void Kernel::restoreNode(std::string_view path) {
  const auto lock = impl_->lock();
  impl_->node(path).setRemoved(false);
}

void Kernel::denyNode(std::string_view path, bool denied) {
  const auto lock = impl_->lock();
  impl_->node(path).denied = denied;
}

Kernel::SpiSettings Kernel::spiSettings(std::string_view path) const {
  const auto lock = impl_->lock();
  const auto* node = dynamic_cast<const kernel::SpidevNode*>(&impl_->node(path));
  if (node == nullptr) {
    throw std::invalid_argument(std::string(path) + " is no spidev node");
  }
  return node->settings();
}

int Kernel::openDescriptors() const {
  const auto lock = impl_->lock();
  return kernel::descriptors.count();
}

}  // namespace vboard
