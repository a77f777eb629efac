// SPDX-License-Identifier: MIT
#ifndef VBOARD_LAUNCHER_TRACE_H
#define VBOARD_LAUNCHER_TRACE_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "vboard/board/Board.h"

namespace vboard::launcher {

/// Writes what happens on a board to stderr, a line at a time.
class Tracer : public Observer {
 public:
  void onTransfer(const SpiRecord& record) override;
  void onNet(const Net& net, Time time) override;
  void onViolation(const Violation& violation) override;
  void onNote(const Part& part, Time time, std::string_view text) override;
  void onCall(std::string_view call, std::string_view node, long result, Time time) override;

  /// A transfer as it is written: "spidev1.0 mode 0, 8 bits, 500 kHz: MOSI 00 00, MISO 0a 5c".
  static std::string describe(const SpiRecord& record);

 protected:
  /// Where lines go.
  virtual void write(const std::string& line);

 private:
  void line(Time time, const std::string& text);

  pid_t announced_ = 0;
};

}  // namespace vboard::launcher

#endif
