// SPDX-License-Identifier: MIT
#include "vboard/chips/Ads1256.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "vboard/board/Board.h"
#include "vboard/chips/Bytes.h"

namespace vboard {

namespace {

constexpr double kNominalClock = 7.68e6;
constexpr double kClockMin = 0.1e6;
constexpr double kClockMax = 10e6;
constexpr double kFullScale = 8388607;
constexpr double kReferenceMin = 0.5;
constexpr double kReferenceMax = 2.6;
constexpr double kBufferHeadroom = 2.0;
constexpr double kInputOverdrive = 0.1;

// In periods of CLKIN.
constexpr double kDataDelay = 50;  // t6: command to data
constexpr double kShortGap = 4;    // t11: command to command
constexpr double kLongGap = 24;
constexpr double kSelectHold = 8;  // t10
constexpr double kRelease = 8;
constexpr double kReadyPulse = 16;
constexpr double kResetPulse = 4;
constexpr double kStandbyWake = 256;
constexpr unsigned kPowerDownPeriods = 20;
constexpr double kSlowHighs[3][2] = {{300, 500}, {550, 750}, {1050, 1250}};

constexpr uint8_t kStatus = 0x00;
constexpr uint8_t kMux = 0x01;
constexpr uint8_t kAdcon = 0x02;
constexpr uint8_t kDrate = 0x03;
constexpr uint8_t kIo = 0x04;
constexpr uint8_t kOfc = 0x05;
constexpr uint8_t kFsc = 0x08;
constexpr uint8_t kRegisters = 0x0B;

constexpr uint8_t kWakeUp = 0x00;
constexpr uint8_t kRdata = 0x01;
constexpr uint8_t kRdatac = 0x03;
constexpr uint8_t kSdatac = 0x0F;
constexpr uint8_t kSelfCal = 0xF0;
constexpr uint8_t kSelfOffset = 0xF1;
constexpr uint8_t kSelfGain = 0xF2;
constexpr uint8_t kSysOffset = 0xF3;
constexpr uint8_t kSysGain = 0xF4;
constexpr uint8_t kSync = 0xFC;
constexpr uint8_t kStandby = 0xFD;
constexpr uint8_t kReset = 0xFE;
constexpr uint8_t kWakeUpToo = 0xFF;

constexpr uint32_t kDeafComplaint = 1;
constexpr uint32_t kGapComplaint = 2;
constexpr uint32_t kDataComplaint = 4;
constexpr uint32_t kCalibrationComplaint = 8;
constexpr uint32_t kModeComplaint = 16;
constexpr uint32_t kEarlyComplaint = 32;
constexpr uint32_t kStandbyComplaint = 64;
constexpr uint32_t kReferenceComplaint = 1;  // standing ones
constexpr uint32_t kRangeComplaint = 2;

bool dummy(uint8_t byte) {
  return byte == kWakeUp || byte == kWakeUpToo;
}

uint8_t mirrored(uint8_t byte) {
  unsigned result = 0;
  for (unsigned bit = 0; bit < 8; ++bit) {
    result |= ((byte >> bit) & 1U) << (7 - bit);
  }
  return static_cast<uint8_t>(result);
}

}  // namespace

/// Times at 7.68 MHz.
struct Ads1256::Rate {
  uint8_t code;
  double periodClocks;
  double settledMs;  // t18: from a restart to ready
  int settling;      // results that an input step touches without one
  double offsetCalMs;
  double selfCalMs;
  uint32_t idealFullScale;
};

namespace {

constexpr uint32_t kFullScaleFast = 0x44AC08;
constexpr uint32_t kFullScale1000 = 0x494008;
constexpr uint32_t kFullScale50 = 0x3A99A0;
constexpr uint32_t kFullScale60 = 0x4651F3;
constexpr uint32_t kFullScaleSlow = 0x2EE14C;
// Not in the table of times: what SELFCAL takes at the highest rate with a gain of 16 and more.
constexpr double kSelfCalHighGainMs = 0.892;

}  // namespace

const Ads1256::Rate& Ads1256::rate() const {
  static constexpr Rate kRates[] = {
      {0xF0, 256, 0.21, 5, 0.387, 0.596, kFullScaleFast},
      {0xE0, 512, 0.25, 3, 0.453, 0.696, kFullScaleFast},
      {0xD0, 1024, 0.31, 2, 0.587, 0.896, kFullScaleFast},
      {0xC0, 2048, 0.44, 1, 0.853, 1.3, kFullScaleFast},
      {0xB0, 3840, 0.68, 1, 1.3, 2.0, kFullScale1000},
      {0xA1, 7680, 1.18, 1, 2.3, 3.6, kFullScale1000},
      {0x92, 15360, 2.18, 1, 4.3, 6.6, kFullScale1000},
      {0x82, 76800, 10.18, 1, 20.3, 31.2, kFullScale50},
      {0x72, 128000, 16.84, 1, 33.7, 50.9, kFullScale60},
      {0x63, 153600, 20.18, 1, 40.3, 61.8, kFullScale50},
      {0x53, 256000, 33.51, 1, 67.0, 101.3, kFullScale60},
      {0x43, 307200, 40.18, 1, 80.3, 123.2, kFullScale50},
      {0x33, 512000, 66.84, 1, 133.7, 202.1, kFullScale60},
      {0x23, 768000, 100.18, 1, 200.3, 307.2, kFullScaleSlow},
      {0x13, 1536000, 200.18, 1, 400.3, 613.8, kFullScaleSlow},
      {0x03, 3072000, 400.18, 1, 800.3, 1227.2, kFullScaleSlow},
  };
  const uint8_t written = reg(kDrate);
  for (const uint8_t code : {written, rateCode_}) {
    for (const Rate& known : kRates) {
      if (known.code == code) {
        return known;
      }
    }
  }
  return kRates[0];
}

Ads1256::Ads1256(std::string name)
    : DeltaSigma(kType, std::move(name), kChannels + 1, kRegisters),
      sync_(addInput("SYNC", Level::High)),
      io_{},
      release_([this] { dout_.drive(Drive::Floating); }) {
  for (unsigned i = 0; i < 4; ++i) {
    io_[i] = &addQuietInput("D" + std::to_string(i), Level::High);
  }
  references_[0] = 2.5;
  setClock(kNominalClock);
  addProperties();
}

void Ads1256::setReference(Signal volts) {
  changeSignal(references_[0], std::move(volts));
}

void Ads1256::setSupply(double volts) {
  const auto guard = lock();
  integrate();
  avdd_ = volts;
}

void Ads1256::setClock(double hertz) {
  const auto guard = lock();
  clockHz_ = std::clamp(hertz, kClockMin, kClockMax);
  limits_.maxHz = static_cast<uint32_t>(clockHz_ / 4);
  selectHold_ = clocks(kSelectHold);
  readyPulse_ = clocks(kReadyPulse);
  slowHigh_ = clocks(kSlowHighs[0][0]);
}

void Ads1256::setId(uint8_t id) {
  const auto guard = lock();
  id_ = id & 0x0FU;
}

void Ads1256::setStartUpTime(Time time) {
  const auto guard = lock();
  startUpTime_ = std::max(time, Time{0});
}

void Ads1256::setEarlyCommandsLost(bool lost) {
  const auto guard = lock();
  earlyLost_ = lost;
}

void Ads1256::setRateRestarts(bool restarts) {
  const auto guard = lock();
  rateRestarts_ = restarts;
}

void Ads1256::powerUp() {
  result_ = 0;
  poweredDown_ = false;
  gapUntil_ = Time{0};
  resetState(true);
  inReset_ = !reset_.high();
  if (inReset_) {
    resetFell_ = now();
  } else if (now() > Time{0}) {
    begin(Activity::Waking, now() + startUpTime_);
  } else {
    // Programs start long after a board got its power.
    calibration_ = kSelfCal;
    calibrate();
    restart(now(), 0);
  }
  if (!sync_.high()) {
    syncFell();
  }
  if (!cs_.high()) {
    pinChanged(cs_, Level::Low);
  }
}

void Ads1256::powerLost() {
  DeltaSigma::powerLost();
  release_.clear();
}

void Ads1256::resetState(bool pin) {
  stop();
  const uint8_t clockOut = pin ? uint8_t{0x20} : static_cast<uint8_t>(reg(kAdcon) & 0x60U);
  for (uint8_t address = 0; address < kRegisters; ++address) {
    storeRegister(address, 0);
  }
  storeRegister(kMux, 0x01);
  storeRegister(kAdcon, clockOut);
  storeRegister(kDrate, 0xF0);
  storeRegister(kIo, 0xE0);
  rateCode_ = 0xF0;
  state_ = State::Command;
  halted_ = false;
  standby_ = false;
  continuous_ = false;
  outputLeft_ = 0;
  slowHighs_ = 0;
  firstOf_ = conversions_;
  setReady(false);
  showPins();
}

void Ads1256::controlChanged(Pin& pin, Level level) {
  const bool rose = level == Level::High;
  if (&pin == &sync_) {
    if (rose) {
      syncRose();
    } else {
      syncFell();
    }
  } else if (rose) {
    resetRose();
  } else {
    resetState(true);
    inReset_ = true;
    resetFell_ = now();
  }
}

void Ads1256::resetRose() {
  inReset_ = false;
  if (tooShort(now() - resetFell_, clocks(kResetPulse))) {
    violate("reset-too-short", "RESET low for " + timeText(now() - resetFell_) + ", at least " +
                                   timeText(clocks(kResetPulse)));
  }
  startCalibration(kSelfCal);
}

void Ads1256::syncFell() {
  if (inReset_) {
    return;
  }
  setReady(false);
  begin(Activity::PoweringDown, now() + clocks(kPowerDownPeriods * rate().periodClocks));
}

void Ads1256::syncRose() {
  halted_ = false;
  if (inReset_) {
    return;
  }
  if (poweredDown_) {
    poweredDown_ = false;
    begin(Activity::Waking, now() + startUpTime_);
  } else if (!standby_) {
    restart(now(), 0);
  }
}

void Ads1256::restart(Time moment, double extraClocks) {
  setReady(false);
  restartFilter();
  const double settled = rate().settledMs * kNominalClock / 1000;
  begin(Activity::Conversion, moment + clocks(settled + extraClocks));
}

void Ads1256::finished(Activity activity) {
  if (activity == Activity::PoweringDown) {
    poweredDown_ = true;
    return;
  }
  if (activity == Activity::Waking) {
    startCalibration(kSelfCal);
    return;
  }
  integrate();
  if (activity == Activity::Calibration) {
    calibrate();
  }
  checkAnalog();
  convert(rate().settling);
  setReady(true);
  const bool reading = selected_ && outputLeft_ != 0 && outputGiven_ != 0;
  if (continuous_ && !reading) {
    latchResult();
  }
  begin(Activity::Conversion, now() + clocks(rate().periodClocks));
}

void Ads1256::latchResult() {
  uint32_t word = wordOf(result_);
  if ((reg(kStatus) & 8U) != 0) {
    word = static_cast<uint32_t>(mirrored(static_cast<uint8_t>(word >> 16U))) << 16U |
           static_cast<uint32_t>(mirrored(static_cast<uint8_t>(word >> 8U))) << 8U |
           mirrored(static_cast<uint8_t>(word));
  }
  output_ = word << 8U;
  outputLeft_ = 24;
  outputGiven_ = 0;
  outputOf_ = conversions_;
  emptyBytes_ = 0;
}

void Ads1256::selectFell() {
  state_ = State::Command;
  emptyBytes_ = 0;
  if (continuous_ && ready()) {
    latchResult();
  }
}

void Ads1256::selectRose() {
  state_ = State::Command;
  outputLeft_ = 0;
  outputGiven_ = 0;
  slowHighs_ = 0;
  release_.clear();
}

const char* Ads1256::cutCommand() const {
  switch (state_) {
    case State::Command: break;
    case State::Count: return writing_ ? "WREG" : "RREG";
    case State::WriteData: return "WREG";
    case State::ReadRegisters: return "RREG";
    // A part of a result may be enough.
    case State::ReadResult: return outputGiven_ == 0 ? "RDATA" : nullptr;
  }
  return nullptr;
}

void Ads1256::clockRising() {
  if (bits_ == 0) {
    byteRose_ = now();
    byteReady_ = ready();
  }
  if (outputLeft_ == 0) {
    emptyBytes_ += bits_ == 0 ? 1U : 0U;
    dout_.drive(Drive::Floating);
    return;
  }
  release_.clear();
  bool high = (output_ >> 31U) != 0;
  if (now() < dataFrom_) {
    if (firstInFrame(kDataComplaint)) {
      const Time asked = dataFrom_ - clocks(kDataDelay);
      violate("data-too-soon", "data clocked " + timeText(now() - asked) +
                                   " after the command, at least " + timeText(clocks(kDataDelay)) +
                                   ": noise");
    }
    high = board().noise();
  }
  output_ <<= 1U;
  --outputLeft_;
  ++outputGiven_;
  dout_.drive(high ? Drive::High : Drive::Low);
}

void Ads1256::clockFalling() {
  checkSlowClock();
  if (outputLeft_ == 0 && outputGiven_ != 0) {
    outputDone();
  }
}

// A result has been read only with its last bit.
void Ads1256::outputDone() {
  const bool result = outputOf_ != 0;
  if (result) {
    readOf_ = outputOf_;
    if (outputOf_ == conversions_) {
      setReady(false);
    } else if (continuous_) {
      latchResult();
    }
  }
  if (outputLeft_ == 0) {
    outputGiven_ = 0;
    release_.set(clock(), now() + clocks(kRelease));
  }
}

// Three very long highs in a row reset the chip.
void Ads1256::checkSlowClock() {
  const Time high = now() - roseAt_;
  if (high < slowHigh_) {
    slowHighs_ = 0;
    return;
  }
  const auto within = [&](unsigned step) {
    return high >= clocks(kSlowHighs[step][0]) && high <= clocks(kSlowHighs[step][1]);
  };
  slowHighs_ = within(slowHighs_) ? slowHighs_ + 1 : unsigned{within(0)};
  if (slowHighs_ == std::size(kSlowHighs)) {
    slowHighs_ = 0;
    resetState(false);
    startCalibration(kSelfCal);
  }
}

bool Ads1256::deaf(uint8_t byte) {
  const bool waking = activity() == Activity::Waking;
  if (!inReset_ && !poweredDown_ && !waking) {
    return false;
  }
  if (firstInFrame(kDeafComplaint)) {
    if (inReset_) {
      violate("in-reset", "byte " + hexText(byte) + " while RESET is low: not heard");
    } else if (waking) {
      violate("power-up", "byte " + hexText(byte) + " " + timeText(end() - now()) +
                              " before the clock runs: lost");
    } else {
      violate("in-power-down", "byte " + hexText(byte) + " in power-down: not heard");
    }
  }
  return true;
}

// Dummy bytes do nothing, unless something waits for them.
bool Ads1256::tooEarly(uint8_t byte) {
  if (byteRose_ >= gapUntil_ || (dummy(byte) && !halted_ && !standby_)) {
    return false;
  }
  if (firstInFrame(kGapComplaint)) {
    violate("command-gap", "command " + hexText(byte) + " " + timeText(gapUntil_ - byteRose_) +
                               " too soon after " + gapAfter_ + (earlyLost_ ? ": lost" : ""));
  }
  return earlyLost_;
}

void Ads1256::byteReceived(uint8_t byte) {
  if (deaf(byte)) {
    return;
  }
  switch (state_) {
    case State::Command:
      if (continuous_) {
        continuousByte(byte);
      } else if (!tooEarly(byte)) {
        command(byte);
      }
      break;
    case State::Count: countReceived(byte); break;
    case State::WriteData: writeReceived(byte); break;
    case State::ReadRegisters:
      if (--left_ == 0) {
        state_ = State::Command;
        commandEnds("RREG", kShortGap);
      } else {
        address_ = static_cast<uint8_t>((address_ + 1U) % kRegisters);
        loadRegister();
      }
      break;
    case State::ReadResult:
      if (outputLeft_ == 0) {
        state_ = State::Command;
        commandEnds("RDATA", kShortGap);
      }
      break;
  }
}

void Ads1256::commandEnds(const char* name, double gapClocks) {
  gapAfter_ = name;
  gapUntil_ = now() + clocks(gapClocks);
}

void Ads1256::continuousByte(uint8_t byte) {
  if (byte == kReset) {
    command(byte);
    return;
  }
  if (byte == kSdatac) {
    if (byteReady_) {
      continuous_ = false;
      outputLeft_ = 0;
    } else {
      violate("stop-while-not-ready", "SDATAC with DRDY high: not taken");
    }
    return;
  }
  if (!dummy(byte)) {
    if (firstInFrame(kModeComplaint)) {
      violate("command-in-read-mode",
              "byte " + hexText(byte) + " while reading continuously: not taken");
    }
  } else if (emptyBytes_ >= 3 && firstInFrame(kEarlyComplaint)) {
    violate("read-too-early", "24 clocks with no result since the last readout: nothing driven");
  }
}

void Ads1256::command(uint8_t byte) {
  ignored_ = false;
  if (takenNow(byte)) {
    knownCommand(byte);
  }
}

bool Ads1256::takenInStandby(uint8_t byte) {
  if (firstInFrame(kStandbyComplaint)) {
    violate("command-in-standby", "command " + hexText(byte) + " in standby: not taken");
  }
  // The bytes of these still belong to them.
  const uint8_t family = byte & 0xF0U;
  ignored_ = family == 0x10 || family == 0x50;
  return ignored_;
}

// What calibration and standby let through.
bool Ads1256::takenNow(uint8_t byte) {
  if (dummy(byte) || byte == kReset) {
    return true;
  }
  if (standby_) {
    return takenInStandby(byte);
  }
  if (activity() != Activity::Calibration) {
    return true;
  }
  // The registers can be reached all the same.
  const uint8_t family = byte & 0xF0U;
  const bool taken = family == 0x10 || family == 0x50 || byte == kRdata;
  if (firstInFrame(kCalibrationComplaint)) {
    violate("command-while-calibrating",
            "command " + hexText(byte) + " " + timeText(end() - now()) +
                " before the calibration ends" + (taken ? "" : ": not taken"));
  }
  return taken;
}

void Ads1256::knownCommand(uint8_t byte) {
  const uint8_t family = byte & 0xF0U;
  if (family == 0x10 || family == 0x50) {
    state_ = State::Count;
    writing_ = family == 0x50;
    address_ = static_cast<uint8_t>((byte & 0x0FU) % kRegisters);
    return;
  }
  switch (byte) {
    case kWakeUp:
    case kWakeUpToo: wakeUp(); return;
    case kRdata: readResult(); return;
    case kRdatac:
      checkFresh("RDATAC");
      latchResult();
      continuous_ = true;
      dataFrom_ = now() + clocks(kDataDelay);
      return;
    case kSdatac: return;
    case kSelfCal:
    case kSelfOffset:
    case kSelfGain:
    case kSysOffset:
    case kSysGain: startCalibration(byte); return;
    case kSync:
      halted_ = true;
      setReady(false);
      stop();
      commandEnds("SYNC", kLongGap);
      return;
    case kStandby:
      standby_ = true;
      setReady(false);
      stop();
      return;
    case kReset:
      resetState(false);
      startCalibration(kSelfCal);
      commandEnds("RESET", kLongGap);
      return;
    default: violate("unknown-command", "command " + hexText(byte) + ": ignored");
  }
}

void Ads1256::wakeUp() {
  if (!halted_ && !standby_) {
    return;
  }
  const bool slept = standby_;
  halted_ = false;
  standby_ = false;
  if (sync_.high()) {
    restart(byteRose_, slept ? kStandbyWake : 0);
  }
}

void Ads1256::checkFresh(const char* command) {
  const bool none = conversions_ == firstOf_;
  if (!none && readOf_ != conversions_) {
    return;
  }
  if (firstInFrame(kEarlyComplaint)) {
    const std::string due = activity() == Activity::None
                                ? "no conversion under way"
                                : "the next one in " + timeText(end() - now());
    violate("read-too-early",
            std::string(command) +
                (none ? " with no result since the reset, " : " gives the last result again, ") +
                due);
  }
}

void Ads1256::readResult() {
  checkFresh("RDATA");
  latchResult();
  state_ = State::ReadResult;
  dataFrom_ = now() + clocks(kDataDelay);
}

void Ads1256::countReceived(uint8_t byte) {
  left_ = (byte & 0x0FU) + 1U;
  if (writing_) {
    state_ = State::WriteData;
    before_[0] = reg(kStatus);
    before_[1] = reg(kAdcon);
    before_[2] = reg(kDrate);
  } else {
    state_ = State::ReadRegisters;
    dataFrom_ = now() + clocks(kDataDelay);
    loadRegister();
  }
}

void Ads1256::loadRegister() {
  if (ignored_) {
    return;
  }
  uint8_t value = readRegister(address_);
  if ((reg(kStatus) & 8U) != 0) {
    value = mirrored(value);
  }
  output_ = static_cast<uint32_t>(value) << 24U;
  outputLeft_ = 8;
  outputGiven_ = 0;
  outputOf_ = 0;
}

void Ads1256::writeReceived(uint8_t byte) {
  if (!ignored_) {
    integrate();
    writeRegister(address_, byte);
  }
  address_ = static_cast<uint8_t>((address_ + 1U) % kRegisters);
  if (--left_ == 0) {
    state_ = State::Command;
    commandEnds("WREG", kShortGap);
    if (!ignored_) {
      writeEnded();
    }
  }
}

void Ads1256::writeRegister(uint8_t address, uint8_t value) {
  switch (address) {
    case kStatus: storeRegister(address, value & 0x0EU); return;
    case kAdcon:
      storeRegister(address, value & 0x7FU);
      showPins();
      return;
    case kDrate:
      storeRegister(address, value);
      if (rate().code == reg(kDrate)) {
        rateCode_ = reg(kDrate);
      } else {
        violate("invalid-rate", "DRATE " + hexText(value) + " is none of the 16 rates: stays at " +
                                    hexText(rateCode_));
      }
      return;
    case kIo: {
      // The new directions count; inputs and the clock output keep what was written before.
      const auto levels = static_cast<uint8_t>(reg(kIo) & 0x0FU);
      storeRegister(kIo, static_cast<uint8_t>((value & 0xF0U) | levels));
      const uint8_t outputs = outputPins();
      storeRegister(
          kIo, static_cast<uint8_t>((value & 0xF0U) | (value & outputs) | (levels & ~outputs)));
      showPins();
      return;
    }
    default: storeRegister(address, value); return;
  }
}

// What a changed rate, gain or buffer means shows at the end of the command.
void Ads1256::writeEnded() {
  const bool rateChanged = before_[2] != reg(kDrate);
  const bool changed = rateChanged || ((before_[0] ^ reg(kStatus)) & 2U) != 0 ||
                       ((before_[1] ^ reg(kAdcon)) & 7U) != 0;
  if (changed && (reg(kStatus) & 4U) != 0) {
    startCalibration(kSelfCal);
  } else if (rateChanged && rateRestarts_ && activity() == Activity::Conversion) {
    restart(now(), 0);
  }
}

void Ads1256::startCalibration(uint8_t kind) {
  calibration_ = kind;
  halted_ = false;
  setReady(false);
  restartFilter();
  begin(Activity::Calibration, now() + calibrationTime(kind));
  if (!sync_.high()) {
    syncFell();
  }
}

Time Ads1256::calibrationTime(uint8_t kind) const {
  const Rate& at = rate();
  double milliseconds = at.offsetCalMs;
  if (kind == kSelfCal) {
    milliseconds = at.settling == kMaxSettling && gain() >= 16 ? kSelfCalHighGainMs : at.selfCalMs;
  } else if (kind == kSelfGain || kind == kSysGain) {
    // Slightly more than for the offset: 417 us at the highest rate, 827 ms at the lowest.
    milliseconds = 0.017 + 1.0334 * at.offsetCalMs;
  }
  return clocks(milliseconds * kNominalClock / 1000);
}

void Ads1256::calibrate() {
  const double ideal = rate().idealFullScale;
  const bool system = calibration_ == kSysOffset || calibration_ == kSysGain;
  const bool offset = calibration_ != kSelfGain && calibration_ != kSysGain;
  const bool scale = calibration_ != kSelfOffset && calibration_ != kSysOffset;
  if (offset) {
    storeWord24(kOfc, wordOf(clip(rawOf(system ? mean() : 0.0, now()))));
  }
  if (!scale) {
    return;
  }
  double factor = 1 / (1 + gainError_);
  if (system) {
    const double span = rawOf(mean(), now()) - signedWord24(kOfc);
    factor = span > 0 ? kFullScale / span : factor;
  }
  storeWord24(kFsc, static_cast<uint32_t>(std::min(std::round(ideal * factor), 16777215.0)));
}

double Ads1256::inputAt(Time moment) const {
  const uint8_t mux = reg(kMux);
  const auto voltsAt = [&](unsigned channel) {
    const double volts = inputs_[std::min(channel, unsigned{kCommon})].evaluate(moment);
    return buffered() ? std::clamp(volts, 0.0, std::max(avdd_ - kBufferHeadroom, 0.0)) : volts;
  };
  return voltsAt(mux >> 4U) - voltsAt(mux & 15U);
}

double Ads1256::gain() const {
  return static_cast<double>(1U << std::min(reg(kAdcon) & 7U, 6U));
}

double Ads1256::rawOf(double volts, Time moment) const {
  const double full = 2 * references_[0].evaluate(moment);
  const double real = volts + offsetError_;
  if (!(full > 0)) {
    return real < 0 ? kCodeMin : kCodeMax;
  }
  return real * gain() * kFullScale / full * (1 + gainError_);
}

int32_t Ads1256::codeOf(double volts, Time moment) const {
  const double offset = signedWord24(kOfc);
  return clip((rawOf(volts, moment) - offset) * word24(kFsc) / rate().idealFullScale);
}

void Ads1256::checkAnalog() {
  const double reference = references_[0].evaluate(now());
  if (firstTime(kReferenceComplaint, !(reference >= kReferenceMin && reference <= kReferenceMax))) {
    violate("reference-range", "VREF at " + voltsText(reference) + ", from 0.5 V to 2.6 V");
  }
  const double low = buffered() ? 0 : -kInputOverdrive;
  const double high = buffered() ? avdd_ - kBufferHeadroom : avdd_ + kInputOverdrive;
  const uint8_t mux = reg(kMux);
  const double plus = inputs_[static_cast<size_t>(std::min(mux >> 4, kCommon))].evaluate(now());
  const double minus = inputs_[static_cast<size_t>(std::min(mux & 15, kCommon))].evaluate(now());
  if (firstTime(kRangeComplaint, std::min(plus, minus) < low || std::max(plus, minus) > high)) {
    char text[128];
    std::snprintf(text, sizeof text,
                  "inputs at %.3f V and %.3f V with buffer %s: from %.3f V to %.3f V", plus, minus,
                  buffered() ? "on" : "off", low, high);
    violate("input-range", text);
  }
}

uint8_t Ads1256::shownRegister(uint8_t address) const {
  const uint8_t value = reg(address);
  if (address == kStatus) {
    return static_cast<uint8_t>((unsigned{id_} << 4U) | (value & 0x0EU) | (ready() ? 0U : 1U));
  }
  if (address == kIo) {
    unsigned levels = 0;
    for (unsigned i = 0; i < 4; ++i) {
      levels |= (io_[i]->high() ? 1U : 0U) << i;
    }
    return static_cast<uint8_t>((value & 0xF0U) | levels);
  }
  return value;
}

uint8_t Ads1256::outputPins() const {
  const bool clockOut = (reg(kAdcon) & 0x60U) != 0;
  const unsigned outputs = ~(unsigned{reg(kIo)} >> 4U) & 0x0FU;
  return static_cast<uint8_t>(outputs & (clockOut ? 0x0EU : 0x0FU));
}

void Ads1256::showPins() {
  const uint8_t outputs = outputPins();
  for (unsigned i = 0; i < 4; ++i) {
    const Drive level = ((reg(kIo) >> i) & 1U) != 0 ? Drive::High : Drive::Low;
    io_[i]->drive(((outputs >> i) & 1U) != 0 ? level : Drive::Floating);
  }
}

void Ads1256::addProperties() {
  addSignal("aincom", "input AINCOM, 0 unless set", inputs_[kCommon],
            [this](Signal volts) { setInput(kCommon, std::move(volts)); });
  addSignal("vref", "reference, 0.5 to 2.6, 2.5 unless set; full scale is twice that",
            references_[0], [this](Signal volts) { setReference(std::move(volts)); });
  addKnob(
      "avdd", "V", "analog supply, 5 unless set", 0, 6, [this] { return avdd_; },
      [this](double volts) { setSupply(volts); });
  addKnob(
      "clock", "Hz", "at CLKIN, 0.1 to 10 MHz, 7.68 MHz unless set", kClockMin, kClockMax,
      [this] { return clockHz_; }, [this](double hertz) { setClock(hertz); });
  addKnob(
      "id", "", "read-only bits 7 to 4 of STATUS, 3 unless set", 0, 15, [this] { return id_; },
      [this](double id) { setId(static_cast<uint8_t>(id)); });
  addKnob(
      "start_up_time", "s", "from power to the first command heard, 0.03 (a crystal) unless set", 0,
      10, [this] { return static_cast<double>(startUpTime_.count()) * 1e-9; },
      [this](double seconds) { setStartUpTime(Time(std::llround(seconds * 1e9))); });
  addSwitch(
      "early_commands_lost", "whether commands without the gap they need are lost, true unless set",
      [this] { return earlyLost_; }, [this](bool lost) { setEarlyCommandsLost(lost); });
  addSwitch(
      "rate_restarts", "whether a change of the rate restarts the conversion, true unless set",
      [this] { return rateRestarts_; }, [this](bool restarts) { setRateRestarts(restarts); });
}

}  // namespace vboard
