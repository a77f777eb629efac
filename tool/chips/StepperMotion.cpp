// SPDX-License-Identifier: MIT
#include "tool/chips/StepperMotion.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>

#include "tool/LiveWriter.h"
#include "tool/Records.h"
#include "tool/chips/StepperRegisters.h"

namespace tool {
namespace {

constexpr Alarms kBridgeAlarms = kAlarmThermalShutdown | kAlarmDeviceShutdown | kAlarmOverCurrent;
// Not the unknown ones: those are none of the tool's.
constexpr Alarms kRefusal = kAlarmCommandError;

constexpr Column kSentColumns[] = {
    {.name = "sent", .inData = false},
    {.name = "command", .inText = false},
};

constexpr Column kTracedColumns[] = {
    {.name = "time", .unit = "s", .textWidth = 8, .textDecimals = 3, .dataDecimals = 6},
    {.name = "position", .unit = "microsteps", .textWidth = 8},
    {.name = "speed", .unit = "steps/s", .textWidth = 7, .textDecimals = 1, .dataDecimals = 3},
    {.name = "state"},
};

// For chips whose position and speed can't be read.
constexpr Column kWatchedColumns[] = {
    {.name = "time", .unit = "s", .textWidth = 8, .textDecimals = 3, .dataDecimals = 6},
    {.name = "busy"},
    {.name = "state"},
};

void writeSent(const Context& context, const StepperLink& link, const std::string& words) {
  RecordWriter writer(context.out, context.options.format, link.chip().info.name, kSentColumns);
  writer.write({words, words});
}

std::string clearHint(const StepperLink& link) {
  return link.commandLine(link.chip().registers ? "status --clear" : "status");
}

/// Why the bridges are off, and what helps.
ChipError bridgesOffError(const StepperLink& link, const std::string& what, Alarms alarms) {
  if ((alarms & kBridgeAlarms) != 0) {
    return {fmt::format("{}: {}", what, alarmWords(alarms & kBridgeAlarms)),
            fmt::format("{}, once the cause is gone; it clears the alarm", clearHint(link))};
  }
  return {
      fmt::format("{}: the bridges are off", what),
      fmt::format("whether the motor supply is high enough; {}, which tells what the chip noticed",
                  link.commandLine("status"))};
}

void setRamp(StepperLink& link, const std::optional<double>& wanted, uint8_t address, double unit,
             const char* option, int32_t (*set)(StepperDriver&, float)) {
  if (!wanted) {
    return;
  }
  link.send([&](StepperDriver& driver) { return set(driver, static_cast<float>(*wanted)); });
  // What the chip refuses it drops without a word.
  const double taken = link.get(address) * unit;
  if (std::abs(taken - *wanted) > unit) {
    throw ChipError(fmt::format("the {} did not take {} {}: {} is {:.1f}", link.chip().info.title,
                                option, *wanted, registerAt(address).name, taken),
                    fmt::format("{}; then again, or a lower bus clock: --speed before {}",
                                link.commandLine("stop --wait"), link.chip().info.name));
  }
}

void setRamps(StepperLink& link, const Ramps& ramps, const StepperStatus& before) {
  if (ramps.needsStandstill() && !before.standsStill()) {
    throw ChipError(
        "the motor is turning: --acceleration, --deceleration and --min-speed need a standstill; "
        "nothing was sent",
        link.commandLine("stop --wait"));
  }
  setRamp(link, ramps.acceleration, Varnel::ST::ACC, kAccelerationUnit, "--acceleration",
          [](StepperDriver& driver, float value) { return driver.setAcceleration(value); });
  setRamp(link, ramps.deceleration, Varnel::ST::DEC, kAccelerationUnit, "--deceleration",
          [](StepperDriver& driver, float value) { return driver.setDeceleration(value); });
  setRamp(link, ramps.maxSpeed, Varnel::ST::MAX_SPEED, kMaxSpeedUnit, "--max-speed",
          [](StepperDriver& driver, float value) { return driver.setMaximumVelocity(value); });
  setRamp(link, ramps.minSpeed, Varnel::ST::MIN_SPEED, kMinSpeedUnit, "--min-speed",
          [](StepperDriver& driver, float value) { return driver.setMinimumVelocity(value); });
}

/// One motion, from its command to its end.
class Motion {
 public:
  Motion(const Context& context, StepperLink& link, const MotionCommand& command,
         const Follow& follow)
      : context_(context),
        link_(link),
        command_(command),
        follow_(follow),
        columns_(link.chip().registers ? std::span<const Column>(kTracedColumns)
                                       : std::span<const Column>(kWatchedColumns)),
        writer_(context.out, context.options.format, link.chip().info.name, columns_,
                follow.watch && isTerminal(context.out)) {}

  void carryOut(const Ramps& ramps);

 private:
  using Clock = std::chrono::steady_clock;

  struct Sample {
    double time = 0;
    StepperStatus status;
    int32_t position = 0;
    double speed = 0;
  };

  void prepare(const Ramps& ramps);
  void noteLimits();
  void checkAccepted(const StepperStatus& after);
  Sample look();
  void write(const Sample& sample);
  bool over(const StepperStatus& status) const;
  void followToEnd();
  void follow(bool quiet);
  void signalCame();
  void checkEnd(const Sample& last);
  void say(const std::string& text);

  const Context& context_;
  StepperLink& link_;
  const MotionCommand& command_;
  const Follow& follow_;
  std::span<const Column> columns_;
  LiveWriter writer_;
  StepperStatus before_;
  std::optional<int32_t> target_;
  Clock::time_point begin_;
  Alarms alarms_ = 0;         // since the command
  unsigned int signals_ = 0;  // dealt with
  bool stopped_ = false;      // by a signal or for an output that failed
};

void Motion::say(const std::string& text) {
  writer_.finish();
  report(context_.err, text);
}

void Motion::prepare(const Ramps& ramps) {
  if (!link_.chip().registers) {
    return;
  }
  before_ = link_.status();
  if (!command_.stops && (before_.alarms & kAlarmUndervoltage) != 0) {
    say(powerUpAdvice(link_));
  }
  if (command_.needsStandstill && before_.state != MotorState::Standstill) {
    throw ChipError("the motor is turning, and this command needs a standstill: nothing was sent",
                    link_.commandLine("stop --wait"));
  }
  if (command_.needsIdle && before_.busy) {
    throw ChipError("the command before is still being carried out: nothing was sent",
                    fmt::format("{}; or again when it is done", link_.commandLine("stop --wait")));
  }
  if (command_.stops && !command_.switchesOff && before_.bridgesOff) {
    say(fmt::format("note: the bridges were off; a stop switches them on, '{}' off again",
                    link_.commandLine("hiz")));
  }
  setRamps(link_, ramps, before_);
  noteLimits();
  if (command_.target) {
    target_ = command_.target(link_);
  }
}

void Motion::noteLimits() {
  if (command_.speed <= 0) {
    return;
  }
  const double highest = link_.get(Varnel::ST::MAX_SPEED) * kMaxSpeedUnit;
  if (command_.speed > highest + kMaxSpeedUnit) {
    say(
        fmt::format("note: the chip's maximum limits the speed to {:.1f} steps/s: --max-speed "
                    "changes it",
                    highest));
  }
}

void Motion::checkAccepted(const StepperStatus& after) {
  const Alarms alarms = after.alarms & ~before_.alarms;
  if (link_.chip().registers) {
    alarms_ = alarms;
  } else if ((alarms & ~kRefusal) != 0) {
    // What was noticed before the motion is among it.
    say(fmt::format("note: noticed since the status was last cleared: {}; it is cleared now",
                    alarmWords(alarms & ~kRefusal)));
  }
  if (!command_.switchesOff && after.bridgesOff) {
    link_.mayTurn = false;
    throw bridgesOffError(
        link_,
        fmt::format("the {} did not carry out '{}'", link_.chip().info.title, command_.words),
        after.alarms);
  }
  if ((alarms & kRefusal) == 0) {
    return;
  }
  link_.mayTurn = false;
  if (link_.chip().registers) {
    throw ChipError(fmt::format("the {} refused '{}'", link_.chip().info.title, command_.words),
                    fmt::format("{}; then again", link_.commandLine("stop --wait")));
  }
  throw ChipError(
      fmt::format("the {} refused '{}', or a command before it: {}", link_.chip().info.title,
                  command_.words, alarmWords(alarms & kRefusal)),
      fmt::format("again, the status is cleared now; if it is refused again, {} first: move needs "
                  "a standstill, goto, goto-dir, home and mark need the command before to be done",
                  link_.commandLine("stop --wait")));
}

Motion::Sample Motion::look() {
  Sample sample;
  sample.time = std::chrono::duration<double>(Clock::now() - begin_).count();
  sample.status = link_.status();
  alarms_ |= sample.status.alarms & ~before_.alarms;
  if (link_.chip().registers) {
    sample.position = link_.position();
    sample.speed = link_.speed();
  }
  return sample;
}

void Motion::write(const Sample& sample) {
  const std::string state(stateWords(sample.status));
  if (link_.chip().registers) {
    writer_.write({sample.time, int64_t{sample.position}, sample.speed, state});
  } else {
    writer_.write({sample.time, int64_t{sample.status.busy ? 1 : 0}, state});
  }
}

bool Motion::over(const StepperStatus& status) const {
  if (command_.endless && !follow_.watch && !stopped_) {
    return !status.busy;
  }
  return status.standsStill();
}

void Motion::signalCame() {
  signals_ = link_.interrupt().count();
  if (signals_ > 2) {
    throw ChipError("left before the motor was seen to stand still", link_.commandLine("status"));
  }
  stopped_ = true;
  if (signals_ == 1) {
    say("interrupted: the motor is being stopped softly; once more stops it at once");
    link_.send(command_.softEnd);
  } else {
    say("interrupted again: the motor is being stopped at once");
    link_.send(command_.hardEnd);
  }
}

void Motion::follow(bool quiet) {
  while (true) {
    if (link_.interrupt().count() > signals_) {
      signalCame();
    }
    const Sample sample = look();
    const bool done = over(sample.status);
    if (!quiet && (follow_.watch || (done && follow_.wait))) {
      write(sample);
    }
    if (done) {
      writer_.finish();
      link_.mayTurn = false;
      checkEnd(sample);
      return;
    }
    link_.interrupt().sleep(follow_.intervalMs, signals_);
  }
}

void Motion::followToEnd() {
  try {
    follow(false);
  } catch (const OutputError&) {
    // Nobody watches any more. What fails now is told, but the output failed first.
    if (link_.mayTurn) {
      stopped_ = true;
      report(context_.err, "the output can't be written: the motor is being stopped softly");
      link_.send(command_.softEnd);
      follow(true);
    }
    throw;
  }
}

void Motion::checkEnd(const Sample& last) {
  const char* const because =
      (alarms_ & kAlarmSwitch) != 0 || last.status.switchClosed ? ": the switch was closed" : "";
  if (!command_.switchesOff && last.status.bridgesOff) {
    throw bridgesOffError(link_, "the motion ended early", last.status.alarms);
  }
  if (stopped_) {
    say(link_.chip().registers ? fmt::format("the motor stands still at position {}", last.position)
                               : "the motor stands still");
  } else if (target_ && *target_ != last.position) {
    throw ChipError(
        fmt::format("the motion ended at position {} instead of {}{}", last.position, *target_,
                    because),
        fmt::format("{}, which tells what the chip noticed", link_.commandLine("status")));
  } else if (command_.endless && last.status.standsStill()) {
    say(fmt::format("note: the motor stands still{}", because));
  }
  if (alarms_ != 0) {
    say(fmt::format("note: noticed during the motion: {}", alarmWords(alarms_)));
  }
}

void Motion::carryOut(const Ramps& ramps) {
  prepare(ramps);
  if (link_.interrupt().requested()) {
    say(fmt::format("interrupted before '{}' was sent", command_.words));
    return;
  }
  begin_ = Clock::now();
  link_.mayTurn = true;
  link_.send(command_.send, command_.bytes);
  checkAccepted(link_.status());
  if (follow_.wait || follow_.watch) {
    followToEnd();
    return;
  }
  writeSent(context_, link_, command_.words);
  if (link_.interrupt().requested()) {
    followToEnd();
  }
  link_.mayTurn = false;
}

}  // namespace

void carryOut(const Context& context, StepperLink& link, const Ramps& ramps,
              const MotionCommand& command, const Follow& follow) {
  Motion(context, link, command, follow).carryOut(ramps);
}

void carryOutStill(const Context& context, StepperLink& link, const std::string& words,
                   MotionCommand::Operation operation) {
  const bool registers = link.chip().registers;
  StepperStatus before;
  if (registers) {
    before = link.status();
  }
  link.send(operation);
  if (registers) {
    const StepperStatus after = link.status();
    // An error that was there before tells nothing, except after a reset, which clears it.
    const bool reset = words == "reset";
    if ((after.alarms & kRefusal & (reset ? ~0U : ~before.alarms)) != 0) {
      throw reset
          ? ChipError(
                fmt::format("the {} refused the reset: its bridges are on", link.chip().info.title),
                fmt::format("{}, then the reset again", link.commandLine("hiz --wait")))
          : ChipError(fmt::format("the {} refused '{}'", link.chip().info.title, words),
                      link.commandLine("status"));
    }
  }
  writeSent(context, link, words);
}

std::string powerUpAdvice(const StepperLink& link) {
  return link.chip().registers
             ? fmt::format(
                   "note: undervoltage or a reset since the flags were last cleared: after "
                   "power-up set GATECFG1 and GATECFG2 to your board's values, then {}",
                   link.commandLine("status --clear"))
             : "note: undervoltage or a reset since the flags were last cleared, as after power-up";
}

}  // namespace tool
