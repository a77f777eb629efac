// SPDX-License-Identifier: MIT
#include "vboard/chips/Icmd.h"

#include <algorithm>
#include <cmath>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"

namespace vboard {

namespace {

// Addresses.
constexpr uint8_t kConfiguration = 0x00;
constexpr uint8_t kInputs = 0x01;
constexpr uint8_t kChannels = 0x04;
constexpr uint8_t kConfigurationEnd = 0x07;
constexpr uint8_t kCounterWord = 0x08;
constexpr uint8_t kUpdate = 0x0A;
constexpr uint8_t kProbe1 = 0x0C;
constexpr uint8_t kProbe2 = 0x0E;
constexpr uint8_t kReference = 0x10;
constexpr uint8_t kReferenceEnd = 0x12;
constexpr uint8_t kSpiChannel = 0x20;
constexpr uint8_t kSpiChannelEnd = 0x25;
constexpr uint8_t kInstruction = 0x30;
constexpr uint8_t kProfile = 0x42;
constexpr uint8_t kProfileEnd = 0x43;
constexpr uint8_t kStatus = 0x48;
constexpr uint8_t kStatusEnd = 0x4A;
constexpr uint8_t kIdentity = 0x78;
constexpr uint8_t kIdentityEnd = 0x7F;

constexpr uint8_t kReadBit = 0x80;
constexpr uint8_t kAddressMask = 0x7F;

// Bits of the configuration.
constexpr unsigned kExchange = 3;     // of counter 0, then 1 and 2; address 0
constexpr unsigned kInvertIndex = 6;  // of counter 0, then 1; address 0
constexpr unsigned kIndexGate = 3;    // two bits; address 1
constexpr unsigned kIndexClears = 5;  // of counter 0, then 1; address 1
constexpr uint8_t kChannel0FromSpi = 0x08;

// Bits of the status bytes; the upper four are alike in all of them.
constexpr uint8_t kTransitionError = 0x80;
constexpr uint8_t kOverflow = 0x40;
constexpr uint8_t kZero = 0x20;
constexpr uint8_t kPowerDown = 0x10;
constexpr uint8_t kReferenceValid = 0x08;  // 0x48
constexpr uint8_t kUpdateValid = 0x04;
constexpr uint8_t kReferenceOverflow = 0x02;
constexpr uint8_t kProbeValid = 0x01;
constexpr uint8_t kExternalError = 0x08;  // 0x49, 0x4A
constexpr uint8_t kExternalWarning = 0x04;
constexpr uint8_t kProbeLevel = 0x01;  // 0x49
constexpr uint8_t kSsi = 0x01;         // 0x4A

// Instructions.
constexpr uint8_t kRestartReference = 0x08;
constexpr uint8_t kTouchProbe = 0x10;
constexpr uint8_t kActuator0 = 0x20;
constexpr uint8_t kActuator1 = 0x40;
constexpr uint8_t kReserved = 0x80;

constexpr unsigned kBlockBits = 48;
constexpr unsigned kReferenceBits = 24;
constexpr uint8_t kFlagBits = 0xC0;  // NERR, NWARN: both inactive
constexpr unsigned kProbeLength = 24;
constexpr Time kLongAgo = std::chrono::hours(-1);

constexpr bool within(uint8_t address, uint8_t first, uint8_t last) {
  return address >= first && address <= last;
}

/// Whether a byte of its own can be read there.
constexpr bool isByte(uint8_t address) {
  return address <= kConfigurationEnd || within(address, kReference, kReferenceEnd) ||
         within(address, kSpiChannel, kSpiChannelEnd) || within(address, kProfile, kProfileEnd) ||
         within(address, kStatus, kStatusEnd) || within(address, kIdentity, kIdentityEnd);
}

constexpr bool isWord(uint8_t address) {
  return address == kCounterWord || address == kUpdate || address == kProbe1 || address == kProbe2;
}

constexpr bool bitOf(unsigned value, unsigned bit) {
  return ((value >> bit) & 1U) != 0;
}

constexpr uint64_t maskOf(unsigned bits) {
  return (uint64_t{1} << bits) - 1;
}

// Widths of counters 0 to 2 by CNTCFG.
constexpr std::array<uint8_t, 3> kWidths[] = {{24, 0, 0}, {24, 24, 0}, {48, 0, 0},  {16, 0, 0},
                                              {32, 0, 0}, {16, 32, 0}, {16, 16, 0}, {16, 16, 16}};
constexpr unsigned kMixed = 5;
constexpr unsigned kThree = 7;

}  // namespace

Icmd::Icmd(std::string name)
    : ByteChip(kType, std::move(name), {"NCS", "SCK", "MOSI", "MISO"}),
      in_{&addInput("AP", Level::Low), &addInput("AN", Level::Low), &addInput("BP", Level::Low),
          &addInput("BN", Level::Low), &addInput("CP", Level::Low), &addInput("CN", Level::Low)},
      tpi_(addQuietInput("TPI", Level::Low)),
      act0_(addOutput("ACT0")),
      act1_(addOutput("ACT1")),
      nerr_(addInput("NERR", Level::High)),
      nwarn_(addInput("NWARN", Level::High)) {
  limits_.modes = 0b0001;
  limits_.maxHz = 10000000;
  nerr_.setBias(Pull::Up);
  nwarn_.setBias(Pull::Up);
  chooseLayout();
  addProperties();
  addOptions();
}

int Icmd::counters() const {
  const auto guard = lock();
  return static_cast<int>(std::count_if(fields_.begin(), fields_.end(),
                                        [](const Field& field) { return field.bits > 0; }));
}

int Icmd::bits(int counter) const {
  const auto guard = lock();
  return exists(counter) ? static_cast<int>(fields_[static_cast<size_t>(counter)].bits) : 0;
}

int64_t Icmd::count(int counter) const {
  const auto guard = lock();
  return exists(counter) ? value(counter) : 0;
}

void Icmd::setCount(int counter, int64_t value) {
  const auto guard = lock();
  if (exists(counter)) {
    store(counter, value);
  }
}

void Icmd::setSinceIndex(int32_t edges) {
  const auto guard = lock();
  sinceIndex_ = edges;
}

uint8_t Icmd::status(int byte) const {
  const auto guard = lock();
  return byte >= 0 && byte < kCounters ? readByte(static_cast<uint8_t>(kStatus + byte)) : 0;
}

uint8_t Icmd::registerValue(uint8_t address) const {
  const auto guard = lock();
  return address < registers_.size() ? registers_[address] : 0;
}

bool Icmd::act(int output) const {
  const auto guard = lock();
  return (actuators_ & (output == 0 ? kActuator0 : kActuator1)) != 0;
}

void Icmd::setSsi(bool enabled) {
  const auto guard = lock();
  ssi_ = enabled;
}

void Icmd::setConfig5(Config5 layout) {
  const auto guard = lock();
  config5_ = layout;
  chooseLayout();
}

void Icmd::setPowerDownBits(PowerDownBits bits) {
  const auto guard = lock();
  powerDownBits_ = bits;
}

void Icmd::setZeroAtPowerUp(bool zero) {
  const auto guard = lock();
  zeroAtPowerUp_ = zero;
}

void Icmd::setProbeFlag(ProbeFlag flag) {
  const auto guard = lock();
  probeFlag_ = flag;
}

void Icmd::setReferenceOrder(ReferenceOrder order) {
  const auto guard = lock();
  referenceOrder_ = order;
}

void Icmd::setRegrouped(Regrouped contents) {
  const auto guard = lock();
  regrouped_ = contents;
}

void Icmd::setRevision(Revision revision) {
  const auto guard = lock();
  revision_ = revision;
}

void Icmd::setMode3Allowed(bool allowed) {
  const auto guard = lock();
  limits_.modes = allowed ? 0b1001 : 0b0001;
}

void Icmd::setMaxClock(uint32_t hertz) {
  const auto guard = lock();
  limits_.maxHz = hertz;
}

void Icmd::setMaxCountRate(double hertz) {
  const auto guard = lock();
  maxCountRate_ = hertz;
}

void Icmd::setInstructionReadsAs(uint8_t value) {
  const auto guard = lock();
  instructionReadsAs_ = value;
}

void Icmd::powerUp() {
  resetSerial();
  registers_ = {};
  latched_.fill(static_cast<uint8_t>(kPowerDown | (zeroAtPowerUp_ ? kZero : 0)));
  actuators_ = 0;
  block_ = 0;
  chooseLayout();
  update_ = 0;
  reference_ = 0;
  referenceValid_ = false;
  probe1_ = 0;
  probe2_ = 0;
  poweredAt_ = now();
  edgeAt_.fill(now() + kLongAgo);
  notReset_ = {};
  indexPulses_ = {};
  sinceIndex_ = 0;
  takeInputs();
  updatePins();
}

void Icmd::otherPinChanged(Pin& pin, Level level) {
  if (&pin == &nerr_ || &pin == &nwarn_) {
    // What the chip itself pulls low is no message from outside.
    if (level == Level::Low && pin.driven() == Drive::Floating) {
      const uint8_t bit = &pin == &nerr_ ? kExternalError : kExternalWarning;
      raise(1, bit);
      raise(2, bit);
    }
    return;
  }
  inputsChanged();
}

// Counter 0 stands in the lowest bits.
void Icmd::chooseLayout() {
  auto widths = kWidths[config()];
  if (config() == kMixed && config5_ == Config5::Counter0Has32) {
    std::swap(widths[0], widths[1]);
  }
  unsigned shift = 0;
  for (size_t counter = 0; counter < fields_.size(); ++counter) {
    fields_[counter] = {shift, widths[counter]};
    shift += widths[counter];
  }
}

void Icmd::reset(int counter) {
  store(counter, 0);
  notReset_[static_cast<size_t>(counter)] = false;
}

bool Icmd::exists(int counter) const {
  return counter >= 0 && counter < kCounters && fields_[static_cast<size_t>(counter)].bits > 0;
}

int64_t Icmd::value(int counter) const {
  const Field& field = fields_[static_cast<size_t>(counter)];
  const unsigned spare = 64 - field.bits;
  const uint64_t bits = (block_ >> field.shift) & maskOf(field.bits);
  return static_cast<int64_t>(bits << spare) >> spare;
}

void Icmd::store(int counter, int64_t value) {
  const Field& field = fields_[static_cast<size_t>(counter)];
  const uint64_t mask = maskOf(field.bits);
  block_ &= ~(mask << field.shift);
  block_ |= (static_cast<uint64_t>(value) & mask) << field.shift;
}

// Both lines at one level is no signal: the receiver stays where it was. No index is none.
bool Icmd::differential(const Pin& positive, const Pin& negative, bool before) const {
  return positive.high() == negative.high() ? before : positive.high();
}

Icmd::Inputs Icmd::inputsOf(int counter) const {
  const auto index = static_cast<size_t>(counter);
  const auto line = [this](size_t pin) { return in_[pin]->high(); };
  Inputs raw;
  if (config() == kThree) {
    raw = {line(2 * index), line(2 * index + 1), false};
  } else if (ttl() || counter > 0) {
    raw = {line(3 * index), line(3 * index + 1), line(3 * index + 2)};
  } else {
    const bool swapped = bitOf(registers_[kConfiguration], kExchange);
    const Inputs& before = inputs_[0];
    raw.a = differential(*in_[0], *in_[1], swapped ? before.b : before.a);
    raw.b = differential(*in_[2], *in_[3], swapped ? before.a : before.b);
    raw.z = differential(*in_[4], *in_[5], false);
  }
  if (bitOf(registers_[kConfiguration], kExchange + static_cast<unsigned>(counter))) {
    std::swap(raw.a, raw.b);
  }
  if (config() == kThree || counter > 1) {
    raw.z = false;
    return raw;
  }
  const unsigned gate = (registers_[kInputs] >> kIndexGate) & 3U;
  const bool inverted =
      bitOf(registers_[kConfiguration], kInvertIndex + static_cast<unsigned>(counter));
  raw.z = raw.z != inverted && raw.a == (gate < 2) && raw.b == (gate % 2 == 0);
  return raw;
}

void Icmd::takeInputs() {
  for (int counter = 0; counter < kCounters; ++counter) {
    if (exists(counter)) {
      inputs_[static_cast<size_t>(counter)] = inputsOf(counter);
    }
  }
}

void Icmd::inputsChanged() {
  const bool counting = (registers_[kChannels] & kChannel0FromSpi) == 0;
  // What comes up together with the chip is no movement.
  if (!counting || now() == poweredAt_) {
    takeInputs();
    return;
  }
  for (int counter = 0; counter < kCounters && exists(counter); ++counter) {
    Inputs& current = inputs_[static_cast<size_t>(counter)];
    const Inputs before = current;
    const Inputs after = inputsOf(counter);
    if (after == before) {
      continue;
    }
    current = after;
    countEdge(counter, before, after);
    if (after.z && !before.z) {
      indexPulse(counter);
    }
  }
}

void Icmd::countEdge(int counter, const Inputs& before, const Inputs& after) {
  const bool aChanged = before.a != after.a;
  const bool bChanged = before.b != after.b;
  if (!aChanged && !bChanged) {
    return;
  }
  Time& edgeAt = edgeAt_[static_cast<size_t>(counter)];
  const Time distance = now() - edgeAt;
  edgeAt = now();
  if (aChanged && bChanged) {
    illegalTransition(counter);
  } else if (static_cast<double>(distance.count()) * maxCountRate_ < 1e9) {
    violate("count-too-fast", "edges of counter " + std::to_string(counter) + " came " +
                                  std::to_string(distance.count()) + " ns apart, at least " +
                                  std::to_string(std::llround(1e9 / maxCountRate_)) + " ns");
    illegalTransition(counter);
  } else {
    step(counter, after.a != before.b);
  }
}

void Icmd::illegalTransition(int counter) {
  raise(counter, kTransitionError);
  if (observed()) {
    note("illegal transition at counter " + std::to_string(counter));
  }
}

void Icmd::step(int counter, bool forward) {
  const int delta = forward ? 1 : -1;
  const int64_t wanted = value(counter) + delta;
  store(counter, wanted);
  const int64_t reached = value(counter);
  if (reached != wanted) {
    raise(counter, kOverflow);
  }
  if (reached == 0) {
    raise(counter, kZero);
  }
  if (counter == 0) {
    constexpr int32_t kHalf = 1 << (kReferenceBits - 1);
    sinceIndex_ += delta;
    if (sinceIndex_ == kHalf || sinceIndex_ < -kHalf) {
      sinceIndex_ = forward ? -kHalf : kHalf - 1;
      raise(0, kReferenceOverflow);
    }
  }
}

void Icmd::indexPulse(int counter) {
  const auto index = static_cast<size_t>(counter);
  const bool clears = bitOf(registers_[kInputs], kIndexClears + static_cast<unsigned>(counter));
  if (indexPulses_[index] < 2 || clears) {
    reset(counter);
  }
  if (counter == 0) {
    referencePulse();
  } else {
    indexPulses_[index] = static_cast<uint8_t>(std::min(indexPulses_[index] + 1, 2));
  }
}

void Icmd::referencePulse() {
  uint8_t& pulses = indexPulses_[0];
  const auto distance = static_cast<uint32_t>(sinceIndex_) & maskOf(kReferenceBits);
  if (pulses > 0) {
    update_ = static_cast<uint32_t>(distance);
    raise(0, kUpdateValid);
  }
  // The same pulse again, back and forth, does not end the search.
  if (pulses == 0) {
    pulses = 1;
  } else if (pulses == 1 && sinceIndex_ != 0) {
    pulses = 2;
    reference_ = static_cast<uint32_t>(distance);
    referenceValid_ = true;
  }
  sinceIndex_ = 0;
}

void Icmd::frameBegan() {
  bytes_ = 0;
  wide_ = false;
}

void Icmd::byteCame(uint8_t byte) {
  ++bytes_;
  if (bytes_ == 1) {
    command_ = byte;
    address_ = byte & kAddressMask;
    if ((command_ & kReadBit) != 0) {
      beginRead();
      startSending();
    }
  } else if ((command_ & kReadBit) != 0) {
    byteRead();
  } else {
    writeByte(byte);
    address_ = (address_ + 1) & kAddressMask;
  }
}

void Icmd::beginRead() {
  const bool probeValid = probeFlag_ == ProbeFlag::ProbeValid;
  const bool updateValid = (latched_[0] & kUpdateValid) != 0;
  const bool warning = probeValid ? (latched_[0] & kProbeValid) != 0 : updateValid;
  switch (address_) {
    case kCounterWord: readCounters(); break;
    case kUpdate: loadWord(update_, kReferenceBits, updateValid); break;
    case kProbe1: loadWord(probe1_, kProbeLength, warning); break;
    case kProbe2: loadWord(probe2_, kProbeLength, warning); break;
    default: break;
  }
}

void Icmd::loadWord(uint64_t value, unsigned bits, bool warning) {
  const bool error = std::any_of(latched_.begin(), latched_.end(),
                                 [](uint8_t byte) { return (byte & kTransitionError) != 0; });
  wide_ = true;
  word_ = {};
  wordLength_ = bits / 8 + 1;
  for (unsigned byte = 0; byte < bits / 8; ++byte) {
    word_[byte] = static_cast<uint8_t>(value >> (bits - 8 * (byte + 1)));
  }
  word_[bits / 8] =
      static_cast<uint8_t>(kFlagBits & ~((error ? 0x80U : 0) | (warning ? 0x40U : 0)));
}

void Icmd::readCounters() {
  unsigned total = 0;
  std::string stale;
  for (int counter = 0; counter < kCounters && exists(counter); ++counter) {
    total += fields_[static_cast<size_t>(counter)].bits;
    if (notReset_[static_cast<size_t>(counter)]) {
      stale += (stale.empty() ? "" : ", ") + std::to_string(counter);
    }
  }
  loadWord(block_ & maskOf(total), total, (latched_[0] & kUpdateValid) != 0);
  if (!stale.empty()) {
    violate("not-reset", "CNTCFG changed to " + std::to_string(config()) + " and counter " + stale +
                             " was not reset since: its content is undefined");
  }
  if (exists(1) && !ttl()) {
    violate("needs-ttl", "CNTCFG " + std::to_string(config()) +
                             " has more than one counter, which needs TTL inputs");
  }
  if (observed()) {
    std::string text = "counters read:";
    for (int counter = kCounters - 1; counter >= 0; --counter) {
      if (exists(counter)) {
        text += " CNT" + std::to_string(counter) + " = " + std::to_string(value(counter));
      }
    }
    note(std::move(text));
  }
}

uint8_t Icmd::nextByte() {
  if (wide_) {
    const uint32_t index = bytes_ - 1;
    return index < wordLength_ ? word_[index] : 0;
  }
  loaded_ = readByte(address_);
  return loaded_;
}

uint8_t Icmd::readByte(uint8_t address) const {
  static constexpr uint8_t kProfileBytes[] = {0x33, 0x18};
  static constexpr uint8_t kIdentityBytes[] = {0x4D, 0x44, 0x58, 0x00, 0x00, 0x00, 0x69, 0x43};
  if (address <= kConfigurationEnd) {
    return registers_[address];
  }
  if (within(address, kReference, kReferenceEnd)) {
    const unsigned place = static_cast<unsigned>(address - kReference);
    const unsigned byte = referenceOrder_ == ReferenceOrder::MsbFirst ? 2 - place : place;
    return static_cast<uint8_t>(reference_ >> (8 * byte));
  }
  if (within(address, kSpiChannel, kSpiChannelEnd)) {
    return static_cast<uint8_t>(block_ >> (8 * (kSpiChannelEnd - address)));
  }
  if (within(address, kProfile, kProfileEnd)) {
    return kProfileBytes[address - kProfile];
  }
  switch (address) {
    case kInstruction: return instructionReadsAs_;
    case kStatus:
      return static_cast<uint8_t>(latched_[0] | (referenceValid_ ? kReferenceValid : 0));
    case kStatus + 1: return static_cast<uint8_t>(latched_[1] | (tpi_.high() ? kProbeLevel : 0));
    case kStatusEnd: return static_cast<uint8_t>(latched_[2] | (ssi_ ? kSsi : 0));
    default: break;
  }
  if (address < kIdentity) {
    return 0;
  }
  if (address == kIdentity + 2) {
    return static_cast<uint8_t>(0x58 + std::min<int>(static_cast<int>(revision_), 2));
  }
  if (address == kIdentity + 3 && revision_ == Revision::Z1) {
    return 0x31;
  }
  return kIdentityBytes[address - kIdentity];
}

// A byte has gone out: what reading clears, only the bits that the host has seen.
void Icmd::byteRead() {
  if (wide_) {
    if (bytes_ == 2 && (address_ == kUpdate || address_ == kProbe1)) {
      clear(0, address_ == kUpdate ? kUpdateValid : kProbeValid);
    }
    return;
  }
  if (address_ == kInstruction) {
    violate("read-of-write-only", "the instruction byte at 0x30 can't be read");
  } else if (!isByte(address_)) {
    violate("unknown-address", "no byte to read at " + hexText(address_));
  }
  if (within(address_, kStatus, kStatusEnd)) {
    clear(address_ - kStatus, loaded_);
    if ((loaded_ & kPowerDown) != 0 && powerDownBits_ == PowerDownBits::Shared) {
      for (int byte = 0; byte < kCounters; ++byte) {
        clear(byte, kPowerDown);
      }
    }
  }
  address_ = (address_ + 1) & kAddressMask;
}

void Icmd::writeByte(uint8_t value) {
  if (address_ <= kConfigurationEnd) {
    writeConfiguration(value);
  } else if (address_ == kInstruction) {
    instruction(value);
  } else if (within(address_, kSpiChannel, kSpiChannelEnd)) {
    if ((registers_[kChannels] & kChannel0FromSpi) == 0) {
      violate("spi-channel-over-counter",
              "SPICH written without CH0SEL: it overwrites the counters, which share its bits");
    }
    const unsigned shift = 8U * static_cast<unsigned>(kSpiChannelEnd - address_);
    block_ = (block_ & ~(uint64_t{0xFF} << shift)) | uint64_t{value} << shift;
  } else if (isByte(address_) || isWord(address_)) {
    violate("write-to-read-only", hexText(value) + " written to " + hexText(address_));
  } else {
    violate("unknown-address", hexText(value) + " written to " + hexText(address_));
  }
}

void Icmd::writeConfiguration(uint8_t value) {
  const unsigned before = config();
  registers_[address_] = value;
  if (config() != before) {
    chooseLayout();
    notReset_.fill(true);
    for (unsigned bit = 0; regrouped_ == Regrouped::Noise && bit < kBlockBits; ++bit) {
      block_ = (block_ << 1U | (board().noise() ? 1U : 0U)) & maskOf(kBlockBits);
    }
  }
  takeInputs();
}

void Icmd::instruction(uint8_t value) {
  if ((value & kReserved) != 0) {
    violate("reserved-bit", "instruction " + hexText(value) + " has bit 7 set");
  }
  if (observed()) {
    note("instruction " + hexText(value));
  }
  if ((value & kTouchProbe) != 0) {
    touchProbe();
  }
  for (int counter = 0; counter < kCounters; ++counter) {
    if (bitOf(value, static_cast<unsigned>(counter)) && exists(counter)) {
      reset(counter);
    }
  }
  if ((value & kRestartReference) != 0) {
    indexPulses_ = {};
    referenceValid_ = false;
  }
  actuators_ = value & (kActuator0 | kActuator1);
  updatePins();
}

void Icmd::touchProbe() {
  if (fields_[0].bits != kProbeLength) {
    violate("touch-probe-length", "touch probe with a counter of " +
                                      std::to_string(fields_[0].bits) + " bits: it needs 24");
    return;
  }
  probe2_ = probe1_;
  probe1_ = static_cast<uint32_t>(block_ & maskOf(kProbeLength));
  raise(0, kProbeValid);
}

void Icmd::frameEnded() {
  if (!wholeBytes()) {
    violate("partial-byte", "NCS rose after " + std::to_string(clocks()) + " clocks: the last " +
                                std::to_string(clocks() % 8) + " bits are dropped");
  } else if (bytes_ == 1) {
    violate("short-frame", "nothing followed the command " + hexText(command_));
  } else if (wide_) {
    checkWordLength();
  }
}

void Icmd::checkWordLength() {
  const uint32_t got = bytes_ - 1;
  const std::string word = "the word at " + hexText(address_) + " has " +
                           std::to_string(wordLength_ - 1) + " bytes and one of flags, " +
                           std::to_string(got) + " read";
  if (got + 1 < wordLength_) {
    violate("short-read", word + ": cut off");
  } else if (got > wordLength_) {
    violate("long-read", word + ": the rest is zeros");
  }
}

void Icmd::raise(int byte, uint8_t bits) {
  latched_[static_cast<size_t>(byte)] |= bits;
  updatePins();
}

void Icmd::clear(int byte, uint8_t bits) {
  uint8_t& latched = latched_[static_cast<size_t>(byte)];
  latched = static_cast<uint8_t>(latched & ~bits);
  updatePins();
}

void Icmd::updatePins() {
  const uint8_t all = latched_[0] | latched_[1] | latched_[2];
  nerr_.drive((all & kTransitionError) != 0 ? Drive::Low : Drive::Floating);
  nwarn_.drive((latched_[0] & kUpdateValid) != 0 ? Drive::Low : Drive::Floating);
  act0_.drive(driveOf(levelOf((actuators_ & kActuator0) != 0)));
  act1_.drive(driveOf(levelOf((actuators_ & kActuator1) != 0)));
}

void Icmd::addProperties() {
  for (int counter = 0; counter < kCounters; ++counter) {
    const std::string number = std::to_string(counter);
    addProperty(numberProperty(
        "count_" + number, "edges", "content of counter " + number + ", 0 where there is none",
        -0x1p47, 0x1p47 - 1, [this, counter] { return static_cast<double>(count(counter)); },
        [this, counter](double value) { setCount(counter, static_cast<int64_t>(value)); }));
  }
  addProperty(meterProperty("counters", "edges", "contents of the counters, 0 first", [this] {
    const auto guard = lock();
    std::string text;
    for (int counter = 0; counter < counters(); ++counter) {
      text += (counter == 0 ? "" : " ") + std::to_string(value(counter));
    }
    return text;
  }));
  addProperty(meterProperty("status", "", "the three status bytes", [this] {
    return hexText(status(0)) + " " + hexText(status(1)) + " " + hexText(status(2));
  }));
  addProperty(meterProperty("act_0", "", "level of ACT0", [this] { return act(0); }));
  addProperty(meterProperty("act_1", "", "level of ACT1", [this] { return act(1); }));
}

template <typename Choice>
void Icmd::addChoice(const char* name, const char* help, std::vector<std::string_view> words,
                     const Choice& value, void (Icmd::*set)(Choice)) {
  addProperty(choiceProperty(
      name, help, std::move(words),
      [this, &value] {
        const auto guard = lock();
        return static_cast<size_t>(value);
      },
      [this, set](size_t choice) { (this->*set)(static_cast<Choice>(choice)); }));
}

void Icmd::addOptions() {
  addChoice("config_5", "which counter of configuration 5 has 32 bits, cnt1 unless set",
            {"cnt1", "cnt0"}, config5_, &Icmd::setConfig5);
  addChoice("power_down_bits", "whether the three PDWN bits are one latch, per-byte unless set",
            {"per-byte", "shared"}, powerDownBits_, &Icmd::setPowerDownBits);
  addChoice("probe_flag", "the last flag of TP1 and TP2, nwarn unless set", {"nwarn", "ntpval"},
            probeFlag_, &Icmd::setProbeFlag);
  addChoice("reference_order", "what REF has at its first address, msb-first unless set",
            {"msb-first", "lsb-first"}, referenceOrder_, &Icmd::setReferenceOrder);
  addChoice("regrouped", "what counters hold after CNTCFG changed, kept unless set",
            {"kept", "noise"}, regrouped_, &Icmd::setRegrouped);
  addChoice("revision", "of the chip, X unless set", {"X", "Y", "Z", "Z1"}, revision_,
            &Icmd::setRevision);
  addProperty(boolProperty(
      "zero_at_power_up", "whether the ZERO bits are set after power-up, false unless set",
      [this] { return zeroAtPowerUp_; }, [this](bool zero) { setZeroAtPowerUp(zero); }));
  addProperty(boolProperty(
      "ssi", "level of the pin that chooses SSI, false unless set", [this] { return ssi_; },
      [this](bool enabled) { setSsi(enabled); }));
  addProperty(boolProperty(
      "mode_3", "whether mode 3, in no data sheet, is accepted, false unless set",
      [this] { return limits_.modes != 0b0001; },
      [this](bool allowed) { setMode3Allowed(allowed); }));
  addProperty(numberProperty(
      "max_clock", "Hz", "highest SPI clock, 10000000 unless set", 1, UINT32_MAX,
      [this] { return static_cast<double>(limits_.maxHz); },
      [this](double hertz) { setMaxClock(static_cast<uint32_t>(hertz)); }));
  addProperty(numberProperty(
      "max_count_rate", "Hz", "highest rate of edges at the inputs, 40000000 unless set", 1, 1e9,
      [this] { return maxCountRate_; }, [this](double hertz) { setMaxCountRate(hertz); }));
  addProperty(numberProperty(
      "instruction_reads_as", "", "what a read of address 0x30 gives, 0 unless set", 0, 255,
      [this] { return static_cast<double>(instructionReadsAs_); },
      [this](double value) { setInstructionReadsAs(static_cast<uint8_t>(value)); }));
}

}  // namespace vboard
