// SPDX-License-Identifier: MIT
#include "vboard/board/SpiBus.h"

#include <algorithm>
#include <stdexcept>

#include "vboard/board/Board.h"

namespace vboard {

namespace {

constexpr uint32_t kAllSizes = 0xFFFFFFFF;
constexpr uint32_t kBytesOnly = 1U << 7U;
constexpr uint32_t kFourAndMore = 0xFFFFFFF8;

bool contains(uint32_t set, unsigned bit) {
  return ((set >> bit) & 1U) != 0;
}

Level idleOf(uint8_t mode) {
  return levelOf((mode & 2U) != 0);
}

std::string listOf(uint32_t set, unsigned first) {
  std::string list;
  for (unsigned bit = 0; bit < 32; ++bit) {
    if (contains(set, bit)) {
      list += (list.empty() ? "" : ", ") + std::to_string(bit + first);
    }
  }
  return list;
}

// Lets half bits pass, with the fractions of a nanosecond that their sum needs.
class HalfBits {
 public:
  HalfBits(Clock& clock, uint32_t speedHz)
      : clock_(clock),
        speedHz_(speedHz),
        whole_(kHalfSecond / speedHz),
        fraction_(kHalfSecond % speedHz) {}

  /// What a number of half bits takes.
  static Time duration(uint64_t halfBits, uint32_t speedHz) {
    const uint64_t seconds = halfBits / speedHz;
    return Time(seconds * kHalfSecond + (halfBits % speedHz) * kHalfSecond / speedHz);
  }

  void pass() {
    uint32_t step = whole_;
    sum_ += fraction_;
    if (sum_ >= speedHz_) {
      sum_ -= speedHz_;
      ++step;
    }
    clock_.advance(Time(step));
  }

 private:
  static constexpr uint32_t kHalfSecond = 500000000;
  Clock& clock_;
  uint64_t speedHz_;
  uint32_t whole_;
  uint32_t fraction_;
  uint64_t sum_ = 0;
};

void complain(const SpiChip& chip, const SpiBus& bus, const char* rule, std::string details) {
  bus.board().violate({bus.board().clock().now(), chip.name(), rule,
                       std::move(details) + " (on " + bus.name() + ")"});
}

void checkChip(const SpiChip& chip, const SpiBus& bus, const SpiFormat& format) {
  const SpiLimits& limits = chip.limits();
  if (!contains(limits.modes, format.mode)) [[unlikely]] {
    complain(chip, bus, "spi-mode",
             "mode " + std::to_string(format.mode) + ", accepts " + listOf(limits.modes, 0));
  }
  if (!(format.lsbFirst ? limits.lsbFirst : limits.msbFirst)) [[unlikely]] {
    complain(chip, bus, "bit-order",
             format.lsbFirst ? "LSB first, accepts MSB first" : "MSB first, accepts LSB first");
  }
  if (!contains(limits.wordSizes, format.bitsPerWord - 1U)) [[unlikely]] {
    complain(chip, bus, "word-size",
             "words of " + std::to_string(format.bitsPerWord) + " bits, accepts " +
                 listOf(limits.wordSizes, 1));
  }
  if (format.speedHz > limits.maxHz) [[unlikely]] {
    complain(
        chip, bus, "clock-too-fast",
        std::to_string(format.speedHz) + " Hz, at most " + std::to_string(limits.maxHz) + " Hz");
  }
  if (format.speedHz < limits.minHz) [[unlikely]] {
    complain(
        chip, bus, "clock-too-slow",
        std::to_string(format.speedHz) + " Hz, at least " + std::to_string(limits.minHz) + " Hz");
  }
}

}  // namespace

const std::vector<ControllerProfile>& ControllerProfile::all() {
  static const std::vector<ControllerProfile> kProfiles = {
      {.name = "full"},
      {.name = "imx-ecspi", .wordSizes = kAllSizes, .lsbFirst = false},
      {.name = "spi-gpio",
       .wordSizes = kAllSizes,
       .noCs = false,
       .loop = false,
       .gpioSelects = true},
      {.name = "bcm2835", .wordSizes = kBytesOnly, .lsbFirst = false, .loop = false},
      {.name = "bcm2835-aux",
       .wordSizes = kBytesOnly,
       .lsbFirst = false,
       .loop = false,
       .modes = 0b0101},
      {.name = "sun6i", .wordSizes = kBytesOnly, .noCs = false, .loop = false},
      {.name = "omap2-mcspi",
       .wordSizes = kFourAndMore,
       .lsbFirst = false,
       .noCs = false,
       .loop = false,
       .minSpeedHz = 1464,
       .maxSpeedHz = 48000000},
  };
  return kProfiles;
}

const ControllerProfile* ControllerProfile::find(std::string_view name) {
  for (const ControllerProfile& profile : all()) {
    if (profile.name == name) {
      return &profile;
    }
  }
  return nullptr;
}

SpiBus::SpiBus(std::string name, SpiBusOptions options)
    : Part("spi-bus", std::move(name)),
      options_(std::move(options)),
      profile_(ControllerProfile::find(options_.profile)),
      mosi_(&addOutput("MOSI")),
      miso_(&addQuietInput("MISO", Level::Low)),
      sclk_(&addOutput("SCLK")) {
  if (profile_ == nullptr) {
    throw std::invalid_argument("unknown controller profile \"" + options_.profile + "\"");
  }
  for (int i = 0; i < options_.selects; ++i) {
    // Idles high, as a select that nothing drives yet has its pull-up on every sane board.
    selects_.push_back(&addQuietInput("CS" + std::to_string(i), Level::High));
  }
}

void SpiBus::added() {
  for (Pin& pin : pins()) {
    board().netOf(pin);
  }
}

void SpiBus::powerUp() {
  mosi_->drive(Drive::Low);
  sclk_->drive(Drive::Low);
  for (Pin* select : selects_) {
    select->drive(Drive::High);
  }
}

Pin& SpiBus::select(int index) {
  return *selects_.at(static_cast<size_t>(index));
}

void SpiBus::setIdle(uint8_t mode) {
  const auto guard = lock();
  sclk_->drive(driveOf(idleOf(mode)));
}

void SpiBus::driveSelect(int index, Level level) {
  const auto guard = lock();
  select(index).drive(driveOf(level));
}

void SpiBus::findChips() {
  chips_.clear();
  for (Pin* pin : sclk_->net()->pins()) {
    auto* chip = dynamic_cast<SpiChip*>(&pin->part());
    if (chip != nullptr && &chip->clockPin() == pin) {
      chips_.push_back(chip);
    }
  }
  chipsVersion_ = board().wiringVersion();
}

void SpiBus::checkFormat(const SpiFormat& format) {
  if (chipsVersion_ != board().wiringVersion()) {
    findChips();
  }
  for (const SpiChip* chip : chips_) {
    if (chip->powered() && chip->listening()) {
      checkChip(*chip, *this, format);
    }
  }
}

void SpiBus::transfer(int select, const SpiFormat& format, std::span<const uint32_t> mosi,
                      std::span<uint32_t> miso) {
  const auto guard = lock();
  SpiFormat shape = format;
  shape.mode &= 3U;
  shape.bitsPerWord = std::clamp<uint8_t>(shape.bitsPerWord, 1, 32);
  shape.speedHz = std::max(shape.speedHz, 1U);
  sclk_->drive(driveOf(idleOf(shape.mode)));
  checkFormat(shape);

  const bool recorded = observed();
  if (recorded) {
    seenMiso_.assign(mosi.size(), 0);
  }
  const Time start = now();
  if (recorded || !passUnheard(shape, mosi, miso)) {
    const std::span<uint32_t> record = recorded ? std::span(seenMiso_) : std::span<uint32_t>();
    if ((shape.mode & 1U) != 0) {
      shiftWords<true>(shape, mosi, miso, record);
    } else {
      shiftWords<false>(shape, mosi, miso, record);
    }
  }
  const Time end = now();

  ++statistics_.transfers;
  statistics_.words += mosi.size();
  statistics_.clocks += mosi.size() * shape.bitsPerWord;
  statistics_.busy += end - start;
  if (recorded) {
    const SpiRecord record{start, end, this, select, shape, mosi, seenMiso_};
    for (Observer* observer : board().observers()) {
      observer->onTransfer(record);
    }
  }
}

// A transfer that no part hears and no event interrupts changes nothing but the time and the last
// level of MOSI: no need to go through its edges.
bool SpiBus::passUnheard(const SpiFormat& format, std::span<const uint32_t> mosi,
                         std::span<uint32_t> miso) {
  const uint64_t edges = uint64_t{2} * mosi.size() * format.bitsPerWord;
  const Time end = now() + HalfBits::duration(edges, format.speedHz);
  const Net& in = *miso_->net();
  if (edges == 0 || format.loop || &in == mosi_->net() || sclk_->net()->heard() ||
      mosi_->net()->heard() || end >= clock().nextEvent() || nextFlip_ - sampledBits_ < edges) {
    return false;
  }
  const uint32_t mask = 0xFFFFFFFFU >> (32U - format.bitsPerWord);
  for (size_t index = 0; index < mosi.size(); ++index) {
    uint32_t received = in.level() == Level::High ? mask : 0;
    if (!in.driven()) {
      received = floatingWord(format);
    }
    if (index < miso.size()) {
      miso[index] = received;
    }
  }
  sampledBits_ += edges / 2;
  clock().advanceTo(end);
  const unsigned last = format.lsbFirst ? format.bitsPerWord - 1U : 0U;
  mosi_->drive(((mosi.back() >> last) & 1U) != 0 ? Drive::High : Drive::Low);
  return true;
}

uint32_t SpiBus::floatingWord(const SpiFormat& format) {
  uint32_t word = 0;
  for (unsigned i = 0; i < format.bitsPerWord; ++i) {
    const unsigned position = format.lsbFirst ? i : format.bitsPerWord - 1U - i;
    word |= floatingLevel() << position;
  }
  return word;
}

// The order at each edge is that of silicon: the controller samples what stood on the wire before
// the edge, since every output needs a moment after its clock; then the chips see the edge; then
// the controller's own output moves.
template <bool ShiftsFirst>
void SpiBus::shiftWords(const SpiFormat& format, std::span<const uint32_t> mosi,
                        std::span<uint32_t> miso, std::span<uint32_t> record) {
  Wires& wires = board().wires();
  Pin& sclk = *sclk_;
  Pin& out = *mosi_;
  const Net& in = format.loop ? *mosi_->net() : *miso_->net();
  const Drive idle = driveOf(idleOf(format.mode));
  const Drive active = driveOf(!idleOf(format.mode));
  const unsigned bits = format.bitsPerWord;
  HalfBits halfBits(clock(), format.speedHz);
  const auto sample = [&] {
    const uint32_t bit = in.driven() ? uint32_t(in.level() == Level::High) : floatingLevel();
    return sampledBits_++ == nextFlip_ ? takeFlip(bit) : bit;
  };
  for (size_t index = 0; index < mosi.size(); ++index) {
    const uint32_t word = mosi[index];
    uint32_t received = 0;
    for (unsigned i = 0; i < bits; ++i) {
      const unsigned position = format.lsbFirst ? i : bits - 1 - i;
      const Drive level = ((word >> position) & 1U) != 0 ? Drive::High : Drive::Low;
      uint32_t bit = 0;
      if constexpr (ShiftsFirst) {
        halfBits.pass();
        wires.drive(sclk, active);
        wires.drive(out, level);
        halfBits.pass();
        bit = sample();
      } else {
        wires.drive(out, level);
        halfBits.pass();
        bit = sample();
        wires.drive(sclk, active);
        halfBits.pass();
      }
      wires.drive(sclk, idle);
      received |= bit << position;
    }
    if (index < miso.size()) {
      miso[index] = received;
    }
    if (index < record.size()) {
      record[index] = received;
    }
  }
}

uint32_t SpiBus::floatingLevel() {
  switch (options_.floatingMiso) {
    case FloatingMiso::Poison: return static_cast<uint32_t>(board().noise());
    case FloatingMiso::High: return 1;
    case FloatingMiso::Low: break;
  }
  return 0;
}

uint32_t SpiBus::takeFlip(uint32_t bit) {
  flips_.pop_back();
  nextFlip_ = flips_.empty() ? UINT64_MAX : flips_.back();
  return bit ^ 1U;
}

void SpiBus::flipMisoBit(uint64_t n) {
  const auto guard = lock();
  const uint64_t bit = sampledBits_ + n;
  const auto place = std::lower_bound(flips_.begin(), flips_.end(), bit, std::greater<>());
  if (place == flips_.end() || *place != bit) {
    flips_.insert(place, bit);
  }
  nextFlip_ = flips_.back();
}

}  // namespace vboard
