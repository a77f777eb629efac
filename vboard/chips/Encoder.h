// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_ENCODER_H
#define VBOARD_CHIPS_ENCODER_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "vboard/board/Part.h"

namespace vboard {

/// An incremental encoder on a shaft that the bench turns.
///
/// Pins: "A", "B" (a quarter of a period behind A when it turns forwards), "Z" (index, once per
/// turn), and the inverted "A_N", "B_N", "Z_N". Positions count edges of A and B: four per line.
/// At position 0 both are low and the index begins.
///
/// The shaft is not electric: it keeps its place, and goes on turning, without power.
class Encoder : public Part {
 public:
  static constexpr std::string_view kType = "encoder";

  explicit Encoder(std::string name);

  // Bench face.

  /// Lines of one turn, 1000 unless set.
  void setLines(uint32_t lines);
  /// How many edges the index is high, from position 0 on; 4 (a whole line) unless set.
  void setIndexWidth(uint32_t edges);
  /// Turns from now on, in edges per second; backwards when negative, 0 to stop.
  void setSpeed(double edgesPerSecond);
  double speed() const;
  /// Stops, then turns by hand, edge by edge, backwards when negative. The board's time goes on.
  void turn(int64_t edges, Time each = std::chrono::microseconds(1));
  /// A fault: the outputs jump over what lies between. By 2, 6 … edges A and B change together,
  /// which no encoder does.
  void jump(int64_t edges);
  /// In edges since the start.
  int64_t position() const;
  /// In degrees, 0 to below 360.
  double angle() const;

  void powerUp() override;

 private:
  void addProperties();
  void schedule();
  void stop();
  void moveTo(int64_t position);
  int64_t placeInTurn() const;

  Pin& a_;
  Pin& b_;
  Pin& z_;
  Pin& notA_;
  Pin& notB_;
  Pin& notZ_;
  int64_t lines_ = 1000;
  int64_t indexWidth_ = 4;
  int64_t position_ = 0;
  double speed_ = 0;
  Time startedAt_{0};  // turning at this speed
  int64_t edges_ = 0;  // since then
  std::optional<Clock::EventId> event_;
};

}  // namespace vboard

#endif
