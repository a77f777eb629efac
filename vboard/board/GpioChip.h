// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_GPIOCHIP_H
#define VBOARD_BOARD_GPIOCHIP_H

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "vboard/board/Part.h"

namespace vboard {

struct GpioChipOptions {
  std::string label = "vboard-gpio";
  int lines = 32;
  std::map<int, std::string> lineNames{};
  /// Lines that something in the kernel holds: line to consumer. Requests answer EBUSY.
  std::map<int, std::string> reserved{};
};

/// One GPIO controller, `/dev/gpiochipN` in the order they are added. Its pins are named "0", "1" …
/// Every line starts as an input. A line that user space lets go keeps direction and level, as most
/// controllers leave them.
class GpioChip : public Part {
 public:
  GpioChip(std::string name, int number, GpioChipOptions options);

  int number() const { return number_; }
  const GpioChipOptions& options() const { return options_; }
  int lineCount() const { return options_.lines; }
  /// The pin of a line, for wiring.
  Pin& line(int offset);

  /// Kernel side: physical levels, before any active-low inversion.
  bool isOutput(int offset) const;
  void setInput(int offset);
  /// Drives the line; with Drive::Floating it stays an output that lets go (open drain, source).
  void setOutput(int offset, Drive drive);
  Level level(int offset) const;
  /// The controller's own resistor on a line.
  void setBias(int offset, Pull pull);

  /// Kernel side: hears of level changes of lines, for edge events; null to stop.
  using EdgeListener = std::function<void(int offset, Level level, Time time)>;
  void setEdgeListener(EdgeListener listener);

  void powerUp() override;
  void pinChanged(Pin& pin, Level level) override;

 private:
  int number_;
  GpioChipOptions options_;
  std::vector<bool> output_;
  EdgeListener edgeListener_;
};

}  // namespace vboard

#endif
