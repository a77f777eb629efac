// SPDX-License-Identifier: MIT
#include "vboard/board/Board.h"

#include <algorithm>

namespace vboard {

namespace {

constexpr size_t kKeptViolations = 1000;

// Every seed, 0 included, starts somewhere useful (a step of splitmix64).
uint64_t scramble(uint64_t seed) {
  uint64_t z = seed + 0x9E3779B97F4A7C15U;
  z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
  z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
  z ^= z >> 31U;
  return z == 0 ? 1 : z;
}

}  // namespace

Board::Board(BoardOptions options) : options_(options), noiseState_(scramble(options.seed)) {
}

Board::~Board() = default;

SpiBus& Board::addSpiBus(SpiBusOptions options) {
  std::string name = "spi" + std::to_string(options.number);
  return add<SpiBus>(std::move(name), std::move(options));
}

GpioChip& Board::addGpioChip(GpioChipOptions options) {
  const int number = static_cast<int>(gpioChips_.size());
  return add<GpioChip>("gpiochip" + std::to_string(number), number, std::move(options));
}

Part& Board::adopt(std::unique_ptr<Part> part) {
  const std::lock_guard guard(mutex_);
  Part& added = *part;
  added.board_ = this;
  parts_.push_back(std::move(part));
  if (auto* bus = dynamic_cast<SpiBus*>(&added)) {
    spiBuses_.push_back(bus);
  }
  if (auto* chip = dynamic_cast<GpioChip*>(&added)) {
    gpioChips_.push_back(chip);
  }
  added.added();
  return added;
}

Net& Board::netOf(Pin& pin) {
  const std::lock_guard guard(mutex_);
  if (pin.net_ == nullptr) {
    nets_.push_back(std::make_unique<Net>(*this, pin.part().name() + "." + pin.name()));
    addToNet(*nets_.back(), pin);
  }
  return *pin.net_;
}

Net& Board::connect(Pin& first, Pin& second) {
  const std::lock_guard guard(mutex_);
  if (first.net_ == nullptr && second.net_ != nullptr) {
    addToNet(*second.net_, first);
  } else if (second.net_ == nullptr) {
    addToNet(netOf(first), second);
  } else if (first.net_ != second.net_) {
    const auto firstOfBoth =
        std::find_if(nets_.begin(), nets_.end(), [&](const std::unique_ptr<Net>& net) {
          return net.get() == first.net_ || net.get() == second.net_;
        });
    Net* other = firstOfBoth->get() == first.net_ ? second.net_ : first.net_;
    join(**firstOfBoth, *other);
  }
  return *first.net_;
}

void Board::addToNet(Net& net, Pin& pin) {
  placeOnNet(net, pin);
  if (pin.listens()) {
    net.listeners_.push_back(&pin);
  }
}

void Board::placeOnNet(Net& net, Pin& pin) {
  ++wiringVersion_;
  pin.net_ = &net;
  net.pins_.push_back(&pin);
  ++net.drivers(pin.drive_);
  if (!net.driven_) {
    net.level_ = net.idleLevel();
    net.announced_ = net.level_;
  }
  net.refresh();
}

void Board::join(Net& survivor, Net& other) {
  const std::vector<Pin*> moving = std::move(other.pins_);
  const std::vector<Pin*> listeners = std::move(other.listeners_);
  if (survivor.pull_ == Pull::None) {
    survivor.pull_ = other.pull_;
  }
  if (!survivor.stuck_.has_value()) {
    survivor.stuck_ = other.stuck_;
  }
  other.pins_.clear();
  other.listeners_.clear();
  std::fill(std::begin(other.outputs_), std::end(other.outputs_), 0);
  other.sole_ = nullptr;
  other.joinedTo_ = &survivor;
  for (Pin* pin : moving) {
    placeOnNet(survivor, *pin);
  }
  // Who moves hears of it only if the new wire stands at another level than the old one did.
  const Wires::Batch batch(wires_);
  for (Pin* pin : listeners) {
    survivor.listeners_.push_back(pin);
    if (pin->hears_ && survivor.level_ != other.announced_) {
      pin->part().pinChanged(*pin, survivor.level_);
    }
  }
}

void Board::attach(SpiChip& chip, SpiBus& bus) {
  connect(bus.sclk(), chip.clockPin());
  if (chip.dataInPin() != nullptr) {
    connect(bus.mosi(), *chip.dataInPin());
  }
  if (chip.dataOutPin() != nullptr) {
    connect(bus.miso(), *chip.dataOutPin());
  }
}

Part* Board::findPart(std::string_view name) const {
  const std::lock_guard guard(mutex_);
  for (const auto& part : parts_) {
    if (part->name() == name) {
      return part.get();
    }
  }
  return nullptr;
}

Pin* Board::findPin(std::string_view path) const {
  const size_t dot = path.find('.');
  Part* part = dot == std::string_view::npos ? nullptr : findPart(path.substr(0, dot));
  return part == nullptr ? nullptr : part->findPin(path.substr(dot + 1));
}

std::vector<Net*> Board::nets() const {
  const std::lock_guard guard(mutex_);
  std::vector<Net*> live;
  for (const auto& net : nets_) {
    if (!net->pins().empty()) {
      live.push_back(net.get());
    }
  }
  return live;
}

void Board::powerUp() {
  const std::lock_guard guard(mutex_);
  for (const auto& part : parts_) {
    part->losePower();
  }
  // Without power the wires keep nothing either.
  for (const auto& net : nets_) {
    if (!net->driven_) {
      net->level_ = net->idleLevel();
      net->announced_ = net->level_;
    }
  }
  for (const auto& part : parts_) {
    part->switchOn();
  }
  // All outputs come up together; parts see each other's first levels as edges.
  const Wires::Batch batch(wires_);
  for (const auto& part : parts_) {
    part->powerUp();
  }
}

Time Board::now() const {
  const std::lock_guard guard(mutex_);
  return clock_.now();
}

void Board::advance(Time duration) {
  const std::lock_guard guard(mutex_);
  clock_.advance(duration);
}

void Board::violate(Violation violation) {
  const std::lock_guard guard(mutex_);
  ++violationCount_;
  for (Observer* observer : observers_) {
    observer->onViolation(violation);
  }
  if (violations_.size() < kKeptViolations) {
    violations_.push_back(std::move(violation));
  }
}

std::vector<Violation> Board::violations() const {
  const std::lock_guard guard(mutex_);
  return violations_;
}

uint64_t Board::violationCount() const {
  const std::lock_guard guard(mutex_);
  return violationCount_;
}

void Board::clearViolations() {
  const std::lock_guard guard(mutex_);
  violations_.clear();
  violationCount_ = 0;
}

void Board::addObserver(Observer& observer) {
  const std::lock_guard guard(mutex_);
  observers_.push_back(&observer);
  wires_.setObserved(true);
}

void Board::removeObserver(Observer& observer) {
  const std::lock_guard guard(mutex_);
  observers_.erase(std::remove(observers_.begin(), observers_.end(), &observer), observers_.end());
  wires_.setObserved(!observers_.empty());
}

}  // namespace vboard
