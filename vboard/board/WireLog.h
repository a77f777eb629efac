// SPDX-License-Identifier: MIT
#ifndef VBOARD_BOARD_WIRELOG_H
#define VBOARD_BOARD_WIRELOG_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Board.h"

namespace vboard {

/// Writes down what happens on a board, for tests and traces: transfers as records, and everything
/// as readable lines in the order it happened:
///
///     spi1 cs0 mode 0 15 bit 1600000 Hz: 0000 -> 3a5c
///     adc: sampled 2.137 V: code 2652
///     adc.CS high
///     violation: adc spi-mode: mode 1, accepts 0, 3 (on spi1)
class WireLog : public Observer {
 public:
  /// One transfer, with copies of its words.
  struct Transfer {
    Time start{0};
    Time end{0};
    std::string bus;
    int select = -1;
    SpiFormat format;
    std::vector<uint32_t> mosi;
    std::vector<uint32_t> miso;
  };

  /// Listens for as long as it lives; the board must live longer.
  explicit WireLog(Board& board);
  ~WireLog() override;
  WireLog(const WireLog&) = delete;
  WireLog& operator=(const WireLog&) = delete;

  /// Writes level changes of a net down too. It goes under this name, or under its own.
  void watch(const Net& net, std::string_view name = {});

  std::vector<Transfer> transfers() const;
  std::vector<std::string> lines() const;
  /// The same lines, each ended by a line feed.
  std::string text() const;
  void clear();

  /// One transfer as a line.
  static std::string format(const SpiRecord& record);

  void onTransfer(const SpiRecord& record) override;
  void onNet(const Net& net, Time time) override;
  void onViolation(const Violation& violation) override;
  void onNote(const Part& part, Time time, std::string_view text) override;

 private:
  struct Watched {
    const Net* net;
    std::string name;
    Level level;
  };
  Board& board_;
  std::vector<Watched> watched_;
  std::vector<Transfer> transfers_;
  std::vector<std::string> lines_;
};

}  // namespace vboard

#endif
