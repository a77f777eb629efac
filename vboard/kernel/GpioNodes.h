// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_GPIONODES_H
#define VBOARD_KERNEL_GPIONODES_H

#include <memory>
#include <string>

#include "vboard/kernel/FileTree.h"
#include "vboard/kernel/Node.h"

namespace vboard::kernel {

class GpioLines;

/// `/dev/gpiochipN` over one GPIO controller of the board. It answers both user interfaces of
/// `<linux/gpio.h>` the way Linux 6.1 does.
class GpioNode : public Node {
 public:
  explicit GpioNode(GpioChip& chip);
  ~GpioNode() override;

  OpenResult open(int flags) override;
  /// Everything open on the chip answers ENODEV from then on, even after the chip came back.
  void setRemoved(bool removed) override;

 private:
  GpioChip& chip_;
  std::shared_ptr<GpioLines> lines_;
};

/// Adds a node for every GPIO controller of the board.
void addGpioNodes(Board& board, FileTree& tree);

}  // namespace vboard::kernel

#endif
