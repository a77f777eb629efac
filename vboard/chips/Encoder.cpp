// SPDX-License-Identifier: MIT
#include "vboard/chips/Encoder.h"

#include <algorithm>
#include <cmath>

#include "vboard/board/Board.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

constexpr int64_t kPeriod = 4;      // edges per line
constexpr double kFastest = 1e8;    // edges per second
constexpr double kMostLines = 1e6;  // per turn
constexpr double kNeverComes = 1e18;

int64_t remainderOf(int64_t value, int64_t divisor) {
  const int64_t rest = value % divisor;
  return rest < 0 ? rest + divisor : rest;
}

}  // namespace

Encoder::Encoder(std::string name)
    : Part(std::string(kType), std::move(name)),
      a_(addOutput("A")),
      b_(addOutput("B")),
      z_(addOutput("Z")),
      notA_(addOutput("A_N")),
      notB_(addOutput("B_N")),
      notZ_(addOutput("Z_N")) {
  addProperties();
}

void Encoder::setLines(uint32_t lines) {
  const auto guard = lock();
  lines_ = std::max<int64_t>(lines, 1);
  moveTo(position_);
}

void Encoder::setIndexWidth(uint32_t edges) {
  const auto guard = lock();
  indexWidth_ = edges;
  moveTo(position_);
}

void Encoder::setSpeed(double edgesPerSecond) {
  const auto guard = lock();
  stop();
  speed_ = std::clamp(edgesPerSecond, -kFastest, kFastest);
  startedAt_ = now();
  edges_ = 0;
  schedule();
}

double Encoder::speed() const {
  const auto guard = lock();
  return speed_;
}

void Encoder::turn(int64_t edges, Time each) {
  const auto guard = lock();
  stop();
  const int64_t direction = edges < 0 ? -1 : 1;
  for (int64_t left = std::abs(edges); left > 0; --left) {
    clock().advance(each);
    moveTo(position_ + direction);
  }
}

void Encoder::jump(int64_t edges) {
  const auto guard = lock();
  moveTo(position_ + edges);
}

int64_t Encoder::position() const {
  const auto guard = lock();
  return position_;
}

double Encoder::angle() const {
  const auto guard = lock();
  return 360.0 * static_cast<double>(placeInTurn()) / static_cast<double>(kPeriod * lines_);
}

void Encoder::powerUp() {
  moveTo(position_);
}

int64_t Encoder::placeInTurn() const {
  return remainderOf(position_, kPeriod * lines_);
}

void Encoder::stop() {
  if (event_) {
    clock().cancel(*event_);
    event_.reset();
  }
  speed_ = 0;
}

// Counted from where the speed was set, so that roundings don't add up.
void Encoder::schedule() {
  const double nanoseconds = static_cast<double>(edges_ + 1) * 1e9 / std::abs(speed_);
  if (!(nanoseconds < kNeverComes)) {
    return;
  }
  // The clock's own event, since a shaft turns without power too.
  event_ = clock().at(startedAt_ + Time(std::llround(nanoseconds)), [this] {
    event_.reset();
    ++edges_;
    moveTo(position_ + (speed_ < 0 ? -1 : 1));
    schedule();
  });
}

void Encoder::moveTo(int64_t position) {
  position_ = position;
  const int64_t quarter = remainderOf(position_, kPeriod);
  const bool a = quarter == 1 || quarter == 2;
  const bool b = quarter >= 2;
  const bool z = placeInTurn() < indexWidth_;
  const Wires::Batch atOnce(board().wires());
  a_.drive(driveOf(levelOf(a)));
  notA_.drive(driveOf(levelOf(!a)));
  b_.drive(driveOf(levelOf(b)));
  notB_.drive(driveOf(levelOf(!b)));
  z_.drive(driveOf(levelOf(z)));
  notZ_.drive(driveOf(levelOf(!z)));
}

void Encoder::addProperties() {
  addProperty(numberProperty(
      "lines", "", "lines of one turn, 1 to 1000000, 1000 unless set", 1, kMostLines,
      [this] { return static_cast<double>(lines_); },
      [this](double lines) { setLines(static_cast<uint32_t>(lines)); }));
  addProperty(numberProperty(
      "index_width", "edges", "how many edges the index is high, 4 unless set", 0,
      kPeriod * kMostLines, [this] { return static_cast<double>(indexWidth_); },
      [this](double edges) { setIndexWidth(static_cast<uint32_t>(edges)); }));
  addProperty(numberProperty(
      "speed", "edges/s", "how fast it turns, backwards when negative, 0 unless set", -kFastest,
      kFastest, [this] { return speed(); }, [this](double speed) { setSpeed(speed); }));
  addProperty(meterProperty("position", "edges", "where the shaft is, four edges per line",
                            [this] { return position(); }));
  addProperty(
      meterProperty("angle", "deg", "where the shaft is in its turn", [this] { return angle(); }));
}

}  // namespace vboard
