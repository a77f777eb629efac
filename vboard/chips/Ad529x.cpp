// SPDX-License-Identifier: MIT
#include "vboard/chips/Ad529x.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "vboard/chips/Bytes.h"
#include "vboard/chips/Knobs.h"
#include "vboard/chips/Wiring.h"

namespace vboard {

namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

constexpr uint32_t kClockMax = 50000000;
constexpr uint32_t kWordBits = 16;

// Commands.
constexpr uint16_t kNop = 0;
constexpr uint16_t kWriteWiper = 1;
constexpr uint16_t kReadWiper = 2;
constexpr uint16_t kStore = 3;
constexpr uint16_t kReset = 4;
constexpr uint16_t kReadMemory = 5;
constexpr uint16_t kWriteControl = 6;
constexpr uint16_t kReadControl = 7;
constexpr uint16_t kShutdown = 8;
constexpr unsigned kCommandShift = 10;
constexpr uint16_t kUnusedBits = 0xC000;
constexpr uint16_t kOutputOffWord = 0x8001;  // followed by a NOP

constexpr uint16_t kProgramEnable = 0x1;
constexpr uint16_t kWiperEnable = 0x2;
constexpr uint16_t kCalibrationOff = 0x4;
constexpr uint16_t kProgramSuccess = 0x8;

constexpr uint16_t kWritableControl = kProgramEnable | kWiperEnable | kCalibrationOff;

constexpr uint16_t kTopBit = 0x8000;
constexpr uint16_t kMiddle = 0x200;
constexpr uint16_t kValueMask = 0x3FF;
constexpr uint16_t kAddressMask = 0x1F;
constexpr uint16_t kFirstStatus = 0x14;  // thermometer of the first ten slots
constexpr uint16_t kSecondStatus = 0x15;
constexpr size_t kSlotsPerStatus = 10;

constexpr nanoseconds kSelectHigh(400);
constexpr nanoseconds kResetPulse(20);
constexpr nanoseconds kOutputRise(450);  // SCLK rise to SDO valid, through its pull-up
constexpr nanoseconds kCalibratedWrite(2400);
constexpr nanoseconds kPlainWrite(410);
constexpr nanoseconds kWiperRead(450);
constexpr microseconds kResetTime(1500);
constexpr microseconds kCallTime(10);  // no system call of a real board is shorter

constexpr double kResistanceMin = 1000;
constexpr double kResistanceMax = 1e6;
constexpr double kWiperResistanceMax = 1000;
constexpr double kTerminalMax = 33;
constexpr double kWorkTimeMax = 1000;  // ms, of the knobs

constexpr const char* kMemoryMistake =
    "must be up to 20 numbers from 0 to 1023, separated by blanks";

uint16_t thermometer(size_t programmed) {
  return static_cast<uint16_t>((1U << std::min(programmed, kSlotsPerStatus)) - 1U);
}

/// The slots of a text, or nothing when it has a mistake.
std::optional<std::vector<uint16_t>> slotsOf(std::string_view text) {
  std::vector<uint16_t> slots;
  for (text.remove_prefix(std::min(text.find_first_not_of(' '), text.size())); !text.empty();
       text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()))) {
    uint16_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    if (error != std::errc() || value > kValueMask || slots.size() == Ad529x::kSlots ||
        (!text.empty() && text.front() != ' ')) {
      return std::nullopt;
    }
    slots.push_back(value);
  }
  return slots;
}

}  // namespace

Ad529x::Ad529x(std::string_view type, std::string name, int positions)
    : SpiChip(std::string(type), std::move(name)),
      positions_(positions),
      mask_(positions == 256 ? 0x3FC : kValueMask),
      sync_(addInput("SYNC", Level::High)),
      sclk_(addInput("SCLK", Level::Low)),
      din_(addQuietInput("DIN", Level::Low)),
      sdo_(addOutput("SDO")),
      rdy_(addOutput("RDY")),
      reset_(addInput("RESET", Level::High)),
      wiper_(kMiddle) {
  limits_.modes = 0b0110;
  limits_.maxHz = kClockMax;
  sclk_.setAttentive(false);
  addKnobs();
  addMeters();
}

int Ad529x::position() const {
  const auto guard = lock();
  return positionOf(wiper_);
}

int Ad529x::positionOf(uint16_t wiper) const {
  return positions_ == 256 ? wiper >> 2U : wiper;
}

int Ad529x::control() const {
  const auto guard = lock();
  return control_;
}

bool Ad529x::shutDown() const {
  const auto guard = lock();
  return shutDown_;
}

bool Ad529x::busy() const {
  const auto guard = lock();
  return work_ != Work::None;
}

bool Ad529x::outputOff() const {
  const auto guard = lock();
  return outputOff_;
}

int Ad529x::slotsUsed() const {
  const auto guard = lock();
  return static_cast<int>(used_);
}

std::optional<int> Ad529x::slot(int index) const {
  const auto guard = lock();
  const auto place = static_cast<size_t>(index);
  return index >= 0 && place < used_ ? std::optional<int>(memory_[place]) : std::nullopt;
}

uint64_t Ad529x::commands() const {
  const auto guard = lock();
  return commands_;
}

double Ad529x::resistanceToB() const {
  const auto guard = lock();
  return wiperResistance_ + (shutDown_ ? 0 : share() * resistance_);
}

double Ad529x::resistanceToA() const {
  const auto guard = lock();
  return shutDown_ ? std::numeric_limits<double>::infinity()
                   : wiperResistance_ + (1 - share()) * resistance_;
}

double Ad529x::wiperVoltage() const {
  const auto guard = lock();
  return shutDown_ ? terminalB_ : share() * terminalA_ + (1 - share()) * terminalB_;
}

void Ad529x::setMemory(std::span<const uint16_t> slots) {
  const auto guard = lock();
  used_ = std::min(slots.size(), kSlots);
  for (size_t index = 0; index < used_; ++index) {
    memory_[index] = slots[index] & mask_;
  }
}

void Ad529x::setResistance(double ohms) {
  const auto guard = lock();
  resistance_ = std::clamp(ohms, kResistanceMin, kResistanceMax);
}

void Ad529x::setWiperResistance(double ohms) {
  const auto guard = lock();
  wiperResistance_ = std::clamp(ohms, 0.0, kWiperResistanceMax);
}

void Ad529x::setTerminals(double a, double b) {
  const auto guard = lock();
  terminalA_ = a;
  terminalB_ = b;
}

void Ad529x::setCapacitor(bool fitted) {
  const auto guard = lock();
  capacitor_ = fitted;
}

void Ad529x::setProgramTime(Time time) {
  const auto guard = lock();
  programTime_ = std::max(time, Time{0});
}

void Ad529x::setMemoryReadTime(Time time) {
  const auto guard = lock();
  memoryReadTime_ = std::max(time, Time{0});
}

void Ad529x::setEmptySlot(uint16_t value) {
  const auto guard = lock();
  emptySlot_ = value & kValueMask;
}

void Ad529x::setSuccessSurvivesReset(bool survives) {
  const auto guard = lock();
  successSurvivesReset_ = survives;
}

void Ad529x::setFullClearsSuccess(bool clears) {
  const auto guard = lock();
  fullClearsSuccess_ = clears;
}

void Ad529x::setNoiseBits(bool noise) {
  const auto guard = lock();
  noiseBits_ = noise;
}

void Ad529x::powerUp() {
  seenHigh_ = sync_.high();
  selected_ = false;
  falls_ = 0;
  for (uint32_t bit = 0; bit < kWordBits; ++bit) {
    shift_ = static_cast<uint16_t>((unsigned{shift_} << 1U) | (board().noise() ? 1U : 0U));
  }
  output_ = true;
  outputOff_ = false;
  offAsked_ = false;
  answering_ = false;
  deselectedAt_ = kNever;
  resetFellAt_ = kNever;
  work_ = Work::None;
  event_.reset();
  result_.reset();
  control_ = 0;
  shutDown_ = false;
  loadWiper();
  // Clocks of a select that nobody saw begin are only heard to be reported.
  sclk_.setAttentive(!seenHigh_);
}

void Ad529x::powerLost() {
  if (work_ == Work::Program) {
    violate("power-lost-while-programming", "slot " + std::to_string(used_) + " stays empty");
  }
  work_ = Work::None;
}

void Ad529x::pinChanged(Pin& pin, Level level) {
  const bool rose = level == Level::High;
  if (&pin == &sclk_) {
    rose ? clockRose() : clockFell();
  } else if (&pin == &sync_) {
    rose ? deselect() : select();
  } else if (&pin == &reset_ && !rose) {
    resetFellAt_ = now();
  } else if (&pin == &reset_) {
    const Time low = resetFellAt_ == kNever ? kResetPulse : now() - resetFellAt_;
    if (tooShort(board(), low, kResetPulse)) {
      violate("reset-too-short", "RESET low for " + nanosecondsText(low) + ", at least " +
                                     nanosecondsText(kResetPulse));
    }
    if (work_ == Work::Program) {
      violate("busy", "RESET rose while slot " + std::to_string(used_) +
                          " is being programmed: nothing is reset");
      return;
    }
    reset();
    locked_ = selected_ && falls_ > 0;
  }
}

void Ad529x::select() {
  selected_ = true;
  falls_ = 0;
  rose_ = false;
  firstFell_ = false;
  notHeld_ = false;
  shortestHigh_ = Time::max();
  sclk_.setAttentive(true);
  locked_ = false;
  beganBusy_ = stillBusy();
  if (beganBusy_ || deselectedAt_ == kNever) {
    return;
  }
  const Time high = now() - deselectedAt_;
  if (tooShort(board(), high, kSelectHigh)) {
    violate("select-high-too-short", "SYNC high for " + nanosecondsText(high) +
                                         " between words, at least " +
                                         nanosecondsText(kSelectHigh));
  }
}

// Without call costs the board can't tell whether what is over within a call is over already.
bool Ad529x::stillBusy() {
  if (work_ == Work::None) {
    return false;
  }
  const Time needed = busyUntil_ - busySince_;
  if (needed < kCallTime && !tooShort(board(), now() - busySince_, needed)) {
    finish();
    return false;
  }
  return true;
}

// SYNC may be low long before the first clock: the clocks decide whether a word came too early.
bool Ad529x::hears() {
  locked_ = locked_ || work_ != Work::None;
  return selected_ && !locked_;
}

void Ad529x::clockRose() {
  if (!hears()) {
    return;
  }
  // SDO rises through its pull-up: a 1 after a 0 is too late for a clock that falls again soon. How
  // soon, the half clock before tells.
  const Time half = rose_ && falls_ > 0 ? now() - fellAt_ : kOutputRise;
  const bool bit = (shift_ & kTopBit) != 0;
  const bool late = bit && !output_ && tooShort(board(), half, kOutputRise);
  output_ = bit;
  rose_ = true;
  roseAt_ = now();
  showOutput(late);
}

void Ad529x::clockFell() {
  if (!hears()) {
    complainOfClock();
    return;
  }
  if (rose_) {
    shortestHigh_ = std::min(shortestHigh_, now() - roseAt_);
  } else {
    firstFell_ = true;
  }
  notHeld_ = notHeld_ || (output_ && !outputOff_ && sdo_.net() != nullptr && !sdo_.net()->driven());
  shift_ = static_cast<uint16_t>((unsigned{shift_} << 1U) | (din_.high() ? 1U : 0U));
  ++falls_;
  fellAt_ = now();
}

// Once in a select that doesn't count.
void Ad529x::complainOfClock() {
  sclk_.setAttentive(false);
  if (!selected_) {
    violate("select-low-at-power-up",
            "clocked with SYNC low since power came: nothing is taken until SYNC has been high");
    return;
  }
  violate("busy", std::string("a word came while the chip ") + nameOf(work_) + ", which takes " +
                      std::to_string((busyUntil_ - busySince_).count() / 1000) +
                      " us: it is ignored");
}

const char* Ad529x::nameOf(Work work) {
  switch (work) {
    case Work::WriteWiper: return "moves the wiper";
    case Work::ReadWiper: return "reads the wiper";
    case Work::ReadMemory: return "reads its memory";
    case Work::Program: return "programs a slot";
    case Work::Reset: return "resets";
    case Work::None: break;
  }
  return "works";
}

void Ad529x::showOutput(bool late) {
  const bool low = !output_ || late;
  sdo_.drive(low && !outputOff_ ? Drive::Low : Drive::Floating);
}

void Ad529x::deselect() {
  const bool framed = selected_ && !locked_;
  seenHigh_ = true;
  selected_ = false;
  deselectedAt_ = now();
  sclk_.setAttentive(false);
  if (!framed) {
    return;
  }
  if (falls_ == 0) {
    if (!beganBusy_) {
      violate("empty-frame", "SYNC rose without a clock: nothing is decoded");
    }
    return;
  }
  checkOutput();
  answering_ = false;
  if (falls_ % kWordBits != 0) {
    violate("frame-length", std::to_string(falls_) +
                                " clocks in one select, a multiple of 16 expected: nothing is "
                                "decoded");
    return;
  }
  decode(shift_);
}

// What SDO shows matters to a host that fetches an answer and to the next chip of a chain.
void Ad529x::checkOutput() {
  const bool late = tooShort(board(), shortestHigh_, kOutputRise);
  if (!late && !notHeld_ && !firstFell_) {
    return;
  }
  if (!answering_ && chipBehind<Ad529x>(sdo_, "DIN") == nullptr) {
    return;
  }
  if (late) {
    violate("read-too-fast", "SCLK high for " + nanosecondsText(shortestHigh_) +
                                 " while SDO needs up to " + nanosecondsText(kOutputRise) +
                                 " to rise");
  }
  if (notHeld_) {
    violate("no-pull-up", "SDO let go of its wire and nothing pulled it up");
  }
  if (firstFell_ && answering_) {
    violate("first-bit", "SCLK fell first, as in mode 2: the first bit of the answer is not out");
  }
}

void Ad529x::decode(uint16_t word) {
  ++commands_;
  if (word == kOutputOffWord) {
    offAsked_ = true;
    return;
  }
  const auto command = static_cast<unsigned>((word & ~unsigned{kUnusedBits}) >> kCommandShift);
  if ((word & kUnusedBits) != 0) {
    violate("reserved-bits", hexText(word, 4) + " has a bit set above its command");
  }
  if (command > kShutdown) {
    violate("unknown-command",
            hexText(word, 4) + " has command " + std::to_string(command) + ", which does nothing");
    return;
  }
  if (command != kNop) {
    outputOff_ = false;
  } else if (offAsked_) {
    outputOff_ = true;
  }
  offAsked_ = false;
  showOutput(false);
  execute(command, word);
}

void Ad529x::execute(unsigned command, uint16_t word) {
  switch (command) {
    case kWriteWiper: writeWiper(word & mask_); return;
    case kReadWiper: {
      const bool noise = noiseBits_ && mask_ != kValueMask;
      const unsigned low =
          noise ? 2U * (board().noise() ? 1U : 0U) + (board().noise() ? 1U : 0U) : 0;
      result_ = static_cast<uint16_t>(wiper_ | low);
      begin(Work::ReadWiper, kWiperRead);
      return;
    }
    case kStore: store(); return;
    case kReset: reset(); return;
    case kReadMemory: readMemory(word & kAddressMask); return;
    case kWriteControl:
      control_ = static_cast<uint16_t>((control_ & kProgramSuccess) | (word & kWritableControl));
      return;
    case kReadControl: answer(control_); return;
    case kShutdown: shutDown_ = (word & 1U) != 0; return;
    default: return;
  }
}

void Ad529x::writeWiper(uint16_t value) {
  if ((control_ & kWiperEnable) == 0) {
    violate("wiper-locked", "control bit C1 is 0: the wiper stays at " +
                                std::to_string(positionOf(wiper_)) + " instead of " +
                                std::to_string(positionOf(value)));
    return;
  }
  wiper_ = value;
  if (observed()) {
    note("wiper at " + std::to_string(positionOf(wiper_)) + " of " + std::to_string(positions_));
  }
  begin(Work::WriteWiper, (control_ & kCalibrationOff) != 0 ? kPlainWrite : kCalibratedWrite);
}

void Ad529x::readMemory(uint16_t address) {
  uint16_t value = emptySlot_;
  if (address == kFirstStatus) {
    value = thermometer(used_);
  } else if (address == kSecondStatus) {
    value = thermometer(used_ - std::min(used_, kSlotsPerStatus));
  } else if (address > kSecondStatus) {
    violate("memory-address", "there is nothing at " + hexText(address, 2) + ", the last is 0x15");
    value = 0;
  } else if (address < used_) {
    value = memory_[address];
  }
  result_ = value;
  begin(Work::ReadMemory, memoryReadTime_);
}

void Ad529x::store() {
  if ((control_ & kProgramEnable) == 0) {
    violate("memory-locked", "control bit C0 is 0: slot " + std::to_string(used_) + " stays empty");
    return;
  }
  if (used_ == kSlots) {
    violate("memory-full", "all 20 slots are programmed: nothing is stored");
    if (fullClearsSuccess_) {
      control_ &= kWritableControl;
    }
    return;
  }
  control_ &= kWritableControl;
  programming_ = wiper_;
  begin(Work::Program, programTime_);
}

void Ad529x::reset() {
  loadWiper();
  control_ = successSurvivesReset_ ? control_ & kProgramSuccess : 0;
  result_.reset();
  begin(Work::Reset, kResetTime);
}

void Ad529x::loadWiper() {
  wiper_ = used_ == 0 ? kMiddle : memory_[used_ - 1];
}

void Ad529x::answer(uint16_t value) {
  shift_ = value;
  answering_ = true;
}

void Ad529x::begin(Work work, Time duration) {
  if (event_) {
    clock().cancel(*event_);
  }
  work_ = work;
  busySince_ = now();
  busyUntil_ = now() + duration;
  rdy_.drive(Drive::Low);
  event_ = at(busyUntil_, [this] { finish(); });
}

void Ad529x::finish() {
  if (event_) {
    clock().cancel(*event_);
    event_.reset();
  }
  rdy_.drive(Drive::Floating);
  if (std::exchange(work_, Work::None) == Work::Program) {
    finishProgram();
  }
  if (result_) {
    answer(*std::exchange(result_, std::nullopt));
  }
}

void Ad529x::finishProgram() {
  if (!capacitor_) {
    violate("program-failed",
            "no capacitor at EXT_CAP: slot " + std::to_string(used_) + " stays empty");
    return;
  }
  if (observed()) {
    note("slot " + std::to_string(used_) + " programmed with " + hexText(programming_, 3));
  }
  memory_[used_++] = programming_;
  control_ |= kProgramSuccess;
}

void Ad529x::addKnobs() {
  const auto knob = [this](const char* name, const char* unit, const char* help, double lowest,
                           double highest, auto get, auto set) {
    addProperty(numberProperty(
        name, unit, help, lowest, highest,
        [this, get] {
          const auto guard = lock();
          return static_cast<double>(get());
        },
        [this, set](double value) {
          const auto guard = lock();
          set(value);
        }));
  };
  const auto choice = [this](const char* name, const char* help, const bool& value, auto set) {
    addProperty(boolProperty(
        name, help,
        [this, &value] {
          const auto guard = lock();
          return value;
        },
        set));
  };
  knob(
      "resistance", "ohm", "end to end, 20000 unless set", kResistanceMin, kResistanceMax,
      [this] { return resistance_; }, [this](double ohms) { setResistance(ohms); });
  knob(
      "wiper_resistance", "ohm", "of the wiper itself, 60 unless set", 0, kWiperResistanceMax,
      [this] { return wiperResistance_; }, [this](double ohms) { setWiperResistance(ohms); });
  knob(
      "a", "V", "voltage at terminal A, 5 unless set", -kTerminalMax, kTerminalMax,
      [this] { return terminalA_; }, [this](double volts) { setTerminals(volts, terminalB_); });
  knob(
      "b", "V", "voltage at terminal B, 0 unless set", -kTerminalMax, kTerminalMax,
      [this] { return terminalB_; }, [this](double volts) { setTerminals(terminalA_, volts); });
  const auto workTime = [knob](const char* name, const char* help, const Time& time, auto set) {
    knob(
        name, "ms", help, 0, kWorkTimeMax,
        [&time] { return static_cast<double>(time.count()) / 1e6; },
        [set](double value) { set(Time(std::llround(value * 1e6))); });
  };
  workTime("program_time", "how long programming a slot takes, 8 unless set", programTime_,
           [this](Time time) { setProgramTime(time); });
  workTime("memory_read_time", "how long reading the memory takes, 1.3 (the longest) unless set",
           memoryReadTime_, [this](Time time) { setMemoryReadTime(time); });
  knob(
      "empty_slot", "", "what an empty slot reads as, 0 to 1023, 0 unless set", 0, kValueMask,
      [this] { return emptySlot_; },
      [this](double value) { setEmptySlot(static_cast<uint16_t>(value)); });
  choice("capacitor", "whether the capacitor at EXT_CAP is fitted, true unless set", capacitor_,
         [this](bool value) { setCapacitor(value); });
  choice("success_survives_reset", "whether control bit C3 outlives a reset, false unless set",
         successSurvivesReset_, [this](bool value) { setSuccessSurvivesReset(value); });
  choice("full_clears_success", "whether storing to a full memory clears C3, true unless set",
         fullClearsSuccess_, [this](bool value) { setFullClearsSuccess(value); });
  choice("noise_bits", "noise below the AD5291's eight bits when it is read, false unless set",
         noiseBits_, [this](bool value) { setNoiseBits(value); });
}

void Ad529x::addMeters() {
  addProperty(
      {"memory", "",
       "the programmed slots, oldest first, each 0 to 1023, as in \"512 256\"; none unless set",
       [this]() -> PropertyValue {
         const auto guard = lock();
         std::string text;
         for (size_t index = 0; index < used_; ++index) {
           text += (index == 0 ? "" : " ") + std::to_string(memory_[index]);
         }
         return text;
       },
       [this](const PropertyValue& value) -> std::optional<std::string> {
         const auto* text = std::get_if<std::string>(&value);
         const auto slots = text == nullptr ? std::nullopt : slotsOf(*text);
         if (!slots) {
           return kMemoryMistake;
         }
         setMemory(*slots);
         return std::nullopt;
       },
       true});
  const auto meter = [this](const char* name, const char* unit, const char* help, auto get) {
    addProperty(meterProperty(name, unit, help, [get]() -> PropertyValue { return get(); }));
  };
  meter("position", "", "where the wiper stands, from 0 at B",
        [this] { return static_cast<int64_t>(position()); });
  meter("wiper_voltage", "V", "at the unloaded wiper", [this] { return wiperVoltage(); });
  meter("resistance_to_b", "ohm", "between wiper and terminal B",
        [this] { return resistanceToB(); });
  meter("shutdown", "", "whether A is open and the wiper at B", [this] { return shutDown(); });
  meter("control", "", "the control bits, 0 to 15",
        [this] { return static_cast<int64_t>(control()); });
  meter("slots_used", "", "programmed slots, of 20",
        [this] { return static_cast<int64_t>(slotsUsed()); });
  meter("commands", "", "words that were decoded",
        [this] { return static_cast<int64_t>(commands()); });
}

}  // namespace vboard
