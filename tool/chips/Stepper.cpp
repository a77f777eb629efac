// SPDX-License-Identifier: MIT
#include "tool/chips/Stepper.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "tool/App.h"
#include "tool/Records.h"
#include "tool/chips/StepperMotion.h"
#include "tool/chips/StepperOptions.h"
#include "tool/chips/StepperRegisters.h"
#include "tool/chips/StepperStatus.h"

namespace tool {
namespace {

using Operation = MotionCommand::Operation;

constexpr Range kStepsRange = {0, StepperDriver::MAXIMUM_POSITION, "a number of microsteps",
                               "; --direction reverse moves back"};
constexpr Range kPositionRange = {StepperDriver::MINIMUM_POSITION, StepperDriver::MAXIMUM_POSITION,
                                  "a position", " microsteps"};

constexpr unsigned int kMotionBytes = 4;  // of a command with an argument

constexpr Column kStatusColumns[] = {
    {.name = "reading", .inText = false},   {.name = "status", .inData = false},
    {.name = "status", .inText = false},    {.name = "bridges", .inText = false},
    {.name = "busy", .inText = false},      {.name = "state", .inText = false},
    {.name = "direction", .inText = false}, {.name = "switch", .inText = false},
    {.name = "alarms", .inText = false},
};

constexpr Column kPositionColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "position", .unit = "microsteps", .textWidth = 8},
};

constexpr Column kSpeedColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "speed", .unit = "steps/s", .textWidth = 7, .textDecimals = 1, .dataDecimals = 3},
};

constexpr Column kRegisterColumns[] = {
    {.name = "register", .inData = false}, {.name = "register", .inText = false},
    {.name = "address", .inText = false},  {.name = "value", .inText = false},
    {.name = "meaning", .inText = false},
};

/// What the options of every operation are read into.
struct Options {
  Ramps ramps;
  Follow follow;
  Repetition repetition;
  std::optional<double> speed;
  std::optional<int32_t> steps;
  std::optional<int32_t> position;
  bool forward = true;
  bool soft = false;  ///< said so; without `hard` it is, too
  bool hard = false;
  bool clear = false;
  std::vector<const StepperRegister*> registers;
  int64_t value = 0;
};

uint8_t directionOf(const Options& options) {
  return options.forward ? Varnel::ST::DIRECTION_FORWARD : Varnel::ST::DIRECTION_REVERSE;
}

const char* directionWord(bool forward) {
  return forward ? "forward" : "reverse";
}

/// Refuses, before anything is sent, what a driver without register lengths can't do.
void needRegisters(const StepperChip& chip, const std::string& what, const std::string& instead) {
  if (chip.registers) {
    return;
  }
  throw CLI::ValidationError(
      what, fmt::format("needs a register of the {}, whose length its driver does not know: after "
                        "the command byte the chip would take the next bytes for arguments. "
                        "Nothing was sent; {}",
                        chip.info.title, instead));
}

void needRampRegisters(const StepperChip& chip, const Ramps& ramps) {
  const std::pair<bool, const char*> given[] = {
      {ramps.acceleration.has_value(), "--acceleration"},
      {ramps.deceleration.has_value(), "--deceleration"},
      {ramps.maxSpeed.has_value(), "--max-speed"},
      {ramps.minSpeed.has_value(), "--min-speed"},
  };
  for (const auto& [isGiven, option] : given) {
    if (isGiven) {
      needRegisters(chip, option, "the motion itself works, with the values the chip has");
    }
  }
}

/// Registers the operations of one chip.
class Registration {
 public:
  Registration(App& app, CLI::App& command, const StepperChip& chip)
      : app_(app), chip_(chip), command_(command) {}

  void addAll();

 private:
  using Body = std::function<void(const Context& context, StepperLink& link)>;
  using MakeCommand = std::function<MotionCommand()>;

  std::string line(std::string_view words) const {
    return fmt::format("  varnel {} {}", chip_.info.name, words);
  }
  std::string lines(std::initializer_list<std::string_view> all) const;
  CLI::App& add(const std::string& name, const std::string& about, const std::string& examples,
                const std::function<void()>& check, Body body);
  CLI::App& addMotion(const std::string& name, const std::string& about,
                      const std::string& examples, const std::shared_ptr<Options>& options,
                      MakeCommand make);
  void addStop(const std::string& name, const std::string& about, Operation soft, Operation hard,
               bool switchesOff);
  void addStill(const std::string& name, const std::string& about, Operation operation);
  std::string unlessRegisters(const std::string& about) const;

  void addRun();
  void addMove();
  void addGoTo();
  void addGoToDirection();
  void addHomeAndMark();
  void addStatus();
  void addPosition();
  void addSpeed();
  void addGet();
  void addSet();
  void addReset();

  App& app_;
  const StepperChip& chip_;
  CLI::App& command_;
};

std::string Registration::lines(std::initializer_list<std::string_view> all) const {
  std::string text;
  for (const std::string_view words : all) {
    text += (text.empty() ? "" : "\n") + line(words);
  }
  return text;
}

CLI::App& Registration::add(const std::string& name, const std::string& about,
                            const std::string& examples, const std::function<void()>& check,
                            Body body) {
  return app_.addOperation(
      command_, name, about, examples, [&chip = chip_, check, body](const Context& context) {
        check();
        return runStepper(context, chip, [&](StepperLink& link) { body(context, link); });
      });
}

CLI::App& Registration::addMotion(const std::string& name, const std::string& about,
                                  const std::string& examples,
                                  const std::shared_ptr<Options>& options, MakeCommand make) {
  CLI::App& operation = add(
      name, about, examples, [options, &chip = chip_] { needRampRegisters(chip, options->ramps); },
      [options, make = std::move(make)](const Context& context, StepperLink& link) {
        carryOut(context, link, options->ramps, make(), options->follow);
      });
  addFollow(operation, options->follow);
  return operation;
}

void Registration::addRun() {
  const auto options = std::make_shared<Options>();
  CLI::App& run = addMotion(
      "run",
      "Turn at a constant speed until something stops it. With --wait the tool ends when the "
      "speed\n"
      "is reached and the motor goes on; with --watch it stays, and Ctrl-C stops the motor.",
      lines({"run --speed 400 --cs 25 --cs-active-low",
             "run --speed 62.5 --direction reverse --watch --cs 25 --cs-active-low"}),
      options, [options] {
        return MotionCommand{
            .words =
                fmt::format("run {} steps/s {}", *options->speed, directionWord(options->forward)),
            .send =
                [options](StepperDriver& driver) {
                  return driver.run(static_cast<float>(*options->speed), directionOf(*options));
                },
            .bytes = kMotionBytes,
            .endless = true,
            .speed = *options->speed};
      });
  addReal(run, "--speed", options->speed, kSpeedRange,
          "the motor's speed, 0 to 15625 full steps/s; required. The bus clock's\n"
          "--speed stands before 'run'")
      ->type_name("STEPS/S")
      ->required();
  addDirection(run, options->forward, "forward or reverse")->default_str("forward");
  addRamps(run, options->ramps, chip_.registers);
}

void Registration::addMove() {
  const auto options = std::make_shared<Options>();
  CLI::App& move = addMotion(
      "move", "Move by a number of microsteps. The motor must stand still.",
      lines({"move 3200 --wait --cs 25 --cs-active-low",
             "move 25600 --direction reverse --watch --interval 10 --output csv"}),
      options, [options] {
        return MotionCommand{
            .words = fmt::format("move {} {}", *options->steps, directionWord(options->forward)),
            .send =
                [options](StepperDriver& driver) {
                  return driver.move(static_cast<uint32_t>(*options->steps), directionOf(*options));
                },
            .bytes = kMotionBytes,
            .needsStandstill = true,
            .target = [options](StepperLink& link) -> std::optional<int32_t> {
              const int32_t steps = options->forward ? *options->steps : -*options->steps;
              return positionOf(positionBits(int64_t{link.position()} + steps));
            }};
      });
  addInteger(move, "MICROSTEPS", options->steps, kStepsRange,
             "how many microsteps of the chip's STEP_MODE, 0 to 2097151; after\n"
             "power-up 128 are one full step")
      ->required()
      ->type_name("");
  addDirection(move, options->forward, "forward or reverse")->default_str("forward");
  addRamps(move, options->ramps, chip_.registers);
  refuseSpeed(move);
}

void Registration::addGoTo() {
  const auto options = std::make_shared<Options>();
  CLI::App& goTo = addMotion(
      "goto", "Move to a position by the shortest path. The command before must be done.",
      lines({"goto 12800 --watch --cs 25 --cs-active-low", "goto -3200"}), options, [options] {
        return MotionCommand{
            .words = fmt::format("goto {}", *options->position),
            .send = [options](StepperDriver& driver) { return driver.goTo(*options->position); },
            .bytes = kMotionBytes,
            .needsIdle = true,
            .target = [options](StepperLink&) { return options->position; }};
      });
  addInteger(goTo, "POSITION", options->position, kPositionRange,
             "in microsteps, -2097152 to 2097151")
      ->required()
      ->type_name("");
  addRamps(goTo, options->ramps, chip_.registers);
  refuseSpeed(goTo);
}

void Registration::addGoToDirection() {
  const auto options = std::make_shared<Options>();
  CLI::App& goTo =
      addMotion("goto-dir", "Move to a position in one direction. The command before must be done.",
                lines({"goto-dir 12800 --direction reverse --wait --cs 25 --cs-active-low"}),
                options, [options] {
                  return MotionCommand{
                      .words = fmt::format("goto-dir {} {}", *options->position,
                                           directionWord(options->forward)),
                      .send =
                          [options](StepperDriver& driver) {
                            return driver.goToDirection(*options->position, directionOf(*options));
                          },
                      .bytes = kMotionBytes,
                      .needsIdle = true,
                      .target = [options](StepperLink&) { return options->position; }};
                });
  addInteger(goTo, "POSITION", options->position, kPositionRange,
             "in microsteps, -2097152 to 2097151")
      ->required()
      ->type_name("");
  addDirection(goTo, options->forward, "forward or reverse; required")->required();
  addRamps(goTo, options->ramps, chip_.registers);
  refuseSpeed(goTo);
}

void Registration::addHomeAndMark() {
  const auto home = std::make_shared<Options>();
  CLI::App& homeCommand = addMotion(
      "home", "Move to position 0 by the shortest path. The command before must be done.",
      lines({"home --wait --cs 25 --cs-active-low"}), home, [] {
        return MotionCommand{.words = "home",
                             .send = [](StepperDriver& driver) { return driver.goHome(); },
                             .needsIdle = true,
                             .target = [](StepperLink&) -> std::optional<int32_t> { return 0; }};
      });
  addRamps(homeCommand, home->ramps, chip_.registers);
  refuseSpeed(homeCommand);

  const auto mark = std::make_shared<Options>();
  CLI::App& markCommand = addMotion(
      "mark",
      "Move to the position in register MARK by the shortest path. The command before must be "
      "done.",
      lines({"mark --watch --cs 25 --cs-active-low"}), mark, [] {
        return MotionCommand{.words = "mark",
                             .send = [](StepperDriver& driver) { return driver.goMark(); },
                             .needsIdle = true,
                             .target = [](StepperLink& link) -> std::optional<int32_t> {
                               return positionOf(link.get(Varnel::ST::MARK));
                             }};
      });
  addRamps(markCommand, mark->ramps, chip_.registers);
  refuseSpeed(markCommand);
}

void Registration::addStop(const std::string& name, const std::string& about, Operation soft,
                           Operation hard, bool switchesOff) {
  const auto options = std::make_shared<Options>();
  CLI::App& stop = addMotion(
      name, about, lines({name + " --wait --cs 25 --cs-active-low", name + " --hard"}), options,
      [options, name, soft, hard, switchesOff] {
        MotionCommand command{.words = fmt::format("{} {}", name, options->hard ? "hard" : "soft"),
                              .send = options->hard ? hard : soft};
        command.softEnd = soft;
        command.hardEnd = hard;
        command.switchesOff = switchesOff;
        command.stops = true;
        return command;
      });
  addSoftHard(stop, options->soft, options->hard);
}

void Registration::addStill(const std::string& name, const std::string& about,
                            Operation operation) {
  add(
      name, about, lines({name + " --cs 25 --cs-active-low"}), [] {},
      [name, operation](const Context& context, StepperLink& link) {
        carryOutStill(context, link, name, operation);
      });
}

void Registration::addReset() {
  add(
      "reset",
      chip_.registers
          ? "Put the chip into its power-up state. It refuses while its bridges are on: hiz "
            "first.\n"
            "Afterwards set GATECFG1 and GATECFG2 to your board's values, and status --clear."
          : "Put the chip into its power-up state, at once, whatever the motor does.",
      lines({"reset --cs 25 --cs-active-low"}), [] {},
      [](const Context& context, StepperLink& link) {
        carryOutStill(context, link, "reset",
                      [](StepperDriver& driver) -> int32_t { return driver.resetDevice(); });
        if (link.chip().registers) {
          report(context.err, powerUpAdvice(link));
        }
      });
}

void Registration::addStatus() {
  const auto options = std::make_shared<Options>();
  CLI::App& status = add(
      "status",
      chip_.registers
          ? "Print every flag of the status word in words. The latched ones stay, unless --clear."
          : "Print every flag of the status word in words. Reading it clears the latched ones: "
            "this\n"
            "driver knows no other way.",
      lines({"status --cs 25 --cs-active-low", "status --count 0 --interval 500 --output json"}),
      [] {},
      [options](const Context& context, StepperLink& link) {
        RecordWriter writer(context.out, context.options.format, link.chip().info.name,
                            kStatusColumns);
        repeat(options->repetition, link.interrupt(), [&](uint64_t round) {
          const bool clears = options->clear || !link.chip().registers;
          const StepperStatus now = clears ? link.clearStatus() : link.status();
          writer.write({static_cast<int64_t>(round),
                        fmt::format("{:#06x}  {}", now.word, statusWords(now)), int64_t{now.word},
                        std::string(now.bridgesOff ? "off" : "on"), int64_t{now.busy ? 1 : 0},
                        std::string(stateWords(now)), std::string(directionWord(now.forward)),
                        std::string(now.switchClosed ? "closed" : "open"), alarmWords(now.alarms)});
          if (clears && now.alarms != 0) {
            report(context.err,
                   "note: the alarms shown are cleared now, where their cause is gone");
          }
          if (!clears && (now.alarms & kAlarmUndervoltage) != 0 && round == 1) {
            report(context.err, powerUpAdvice(link));
          }
        });
      });
  if (chip_.registers) {
    status.add_flag("--clear", options->clear, "clear the latched flags after reading them");
  }
  addRepetition(status, options->repetition);
}

std::string Registration::unlessRegisters(const std::string& about) const {
  return chip_.registers
             ? about
             : "Not with this driver, which does not know the lengths of the chip's registers: it\n"
               "says so and sends nothing. On a powerSTEP01: " +
                   about;
}

void Registration::addPosition() {
  const auto options = std::make_shared<Options>();
  CLI::App& position = add(
      "position", unlessRegisters("Print the position in microsteps."),
      lines({"position --cs 25 --cs-active-low"}),
      [&chip = chip_] {
        needRegisters(chip, "position", "home and reset-pos work, and status tells of a motion");
      },
      [options](const Context& context, StepperLink& link) {
        RecordWriter writer(context.out, context.options.format, link.chip().info.name,
                            kPositionColumns);
        link.status();
        repeat(options->repetition, link.interrupt(), [&](uint64_t round) {
          writer.write({static_cast<int64_t>(round), int64_t{link.position()}});
        });
      });
  addRepetition(position, options->repetition);
}

void Registration::addSpeed() {
  const auto options = std::make_shared<Options>();
  CLI::App& speed = add(
      "speed", unlessRegisters("Print the motor's present speed in full steps/s, without sign."),
      lines({"speed --cs 25 --cs-active-low"}),
      [&chip = chip_] {
        needRegisters(chip, "speed", "status tells whether the motor turns steadily");
      },
      [options](const Context& context, StepperLink& link) {
        RecordWriter writer(context.out, context.options.format, link.chip().info.name,
                            kSpeedColumns);
        link.status();
        repeat(options->repetition, link.interrupt(), [&](uint64_t round) {
          writer.write({static_cast<int64_t>(round), link.speed()});
        });
      });
  addRepetition(speed, options->repetition);
}

void writeRegister(RecordWriter& writer, const StepperRegister& reg, uint32_t value,
                   bool currentMode) {
  const std::string name(nameOf(reg, currentMode));
  const std::string meaning = meaningOf(reg, value, currentMode);
  const unsigned int digits = (reg.bits + 3) / 4;
  writer.write({fmt::format("{:<10} {:#0{}x}  {}", name, value, digits + 2, meaning), name,
                int64_t{reg.address}, int64_t{value}, meaning});
}

const StepperRegister* registerNamed(const std::string& name) {
  const StepperRegister* const reg = findRegister(name);
  if (reg == nullptr) {
    throw CLI::ValidationError(
        "REGISTER", fmt::format("'{}' is no register: a name such as ACC, or an address from 1 to "
                                "{}; get without a name prints all",
                                name, powerstep01Registers().size()));
  }
  return reg;
}

void Registration::addGet() {
  const auto options = std::make_shared<Options>();
  CLI::App& get = add(
      "get", unlessRegisters("Print registers: the value, and what it means."),
      lines({"get acc dec max_speed --cs 25 --cs-active-low", "get 0x16", "get --output csv"}),
      [&chip = chip_] {
        needRegisters(chip, "get", "the motions work with the values the chip has");
      },
      [options](const Context& context, StepperLink& link) {
        std::vector<const StepperRegister*> registers = options->registers;
        if (registers.empty()) {
          for (const StepperRegister& reg : powerstep01Registers()) {
            registers.push_back(&reg);
          }
        }
        RecordWriter writer(context.out, context.options.format, link.chip().info.name,
                            kRegisterColumns);
        link.status();
        const bool currentMode = inCurrentMode(link.get(Varnel::ST::STEP_MODE));
        for (const StepperRegister* reg : registers) {
          writeRegister(writer, *reg, link.get(reg->address), currentMode);
        }
      });
  const auto parse = [options](const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      options->registers.push_back(registerNamed(name));
    }
  };
  get.add_option_function<std::vector<std::string>>(
         "REGISTER", parse,
         "names such as ACC, whatever their case, or addresses: decimal or 0x..\n"
         "(default: all)")
      ->type_name("");
}

/// Refuses values that do not fit, and registers that can't be written.
void checkSet(const Options& options) {
  const StepperRegister& reg = *options.registers.front();
  if (reg.access == RegisterAccess::Never) {
    throw CLI::ValidationError("REGISTER", fmt::format("{} can only be read", reg.name));
  }
  const int64_t highest = (int64_t{1} << reg.bits) - 1;
  if (options.value > highest) {
    throw CLI::ValidationError(
        "VALUE", fmt::format("{:#x} is above {:#x}, the highest value of {} with its {} bits",
                             options.value, highest, reg.name, reg.bits));
  }
  if (options.value < (reg.isPosition ? StepperDriver::MINIMUM_POSITION : 0)) {
    throw CLI::ValidationError(
        "VALUE", reg.isPosition
                     ? fmt::format("{} is below {}, the lowest value of {}", options.value,
                                   int32_t{StepperDriver::MINIMUM_POSITION}, reg.name)
                     : fmt::format("{} is below 0, and {} has no sign", options.value, reg.name));
  }
}

std::string writeHint(const StepperLink& link, const StepperRegister& reg) {
  switch (reg.access) {
    case RegisterAccess::AtStandstill:
      return fmt::format("{} first: {} can be written at standstill only",
                         link.commandLine("stop --wait"), reg.name);
    case RegisterAccess::BridgesOff:
      return fmt::format("{} first: {} can be written with the bridges off only",
                         link.commandLine("hiz --wait"), reg.name);
    default:
      return fmt::format("{} tells whether the command was refused; a lower bus clock",
                         link.commandLine("status"));
  }
}

void Registration::addSet() {
  const auto options = std::make_shared<Options>();
  CLI::App& set = add(
      "set", unlessRegisters("Write a register, read it back and print it."),
      lines({"set gatecfg1 0x1f --cs 25 --cs-active-low", "set step_mode 0x04", "set mark -3200"}),
      [options, &chip = chip_] {
        needRegisters(chip, "set", "the motions work with the values the chip has");
        checkSet(*options);
      },
      [options](const Context& context, StepperLink& link) {
        const StepperRegister& reg = *options->registers.front();
        const uint32_t value =
            static_cast<uint32_t>(options->value) & static_cast<uint32_t>(highestOf(reg.bits));
        link.status();
        link.set(reg.address, value);
        const uint32_t taken = link.get(reg.address);
        if (taken != value) {
          throw ChipError(fmt::format("the {} did not take {:#x} for {}: it reads {:#x}",
                                      link.chip().info.title, value, reg.name, taken),
                          writeHint(link, reg));
        }
        RecordWriter writer(context.out, context.options.format, link.chip().info.name,
                            kRegisterColumns);
        writeRegister(writer, reg, taken, inCurrentMode(link.get(Varnel::ST::STEP_MODE)));
      });
  const auto parseName = [options](const std::string& name) {
    options->registers = {registerNamed(name)};
  };
  set.add_option_function<std::string>(
         "REGISTER", parseName,
         "a name such as ACC, whatever its case, or an address: decimal or 0x..")
      ->required()
      ->type_name("");
  const auto parse = [options](const std::string& text) {
    const std::optional<int64_t> number = parseNumber(text);
    if (!number) {
      throw CLI::ValidationError(
          "VALUE", fmt::format("'{}' is not a whole number: decimal, 0x.. or 0b..", text));
    }
    options->value = *number;
  };
  set.add_option_function<std::string>("VALUE", parse,
                                       "what to write, as wide as the register: decimal, 0x.. or "
                                       "0b..;\nnegative for ABS_POS and MARK")
      ->required()
      ->type_name("");
}

void Registration::addAll() {
  addRun();
  addMove();
  addGoTo();
  addGoToDirection();
  addHomeAndMark();
  addStop(
      "stop", "Stop the motor; the bridges stay on and hold it.",
      [](StepperDriver& driver) -> int32_t { return driver.softStop(); },
      [](StepperDriver& driver) -> int32_t { return driver.hardStop(); }, false);
  addStop(
      "hiz", "Stop the motor and switch the bridges off; nothing holds it then.",
      [](StepperDriver& driver) -> int32_t { return driver.softHiZ(); },
      [](StepperDriver& driver) -> int32_t { return driver.hardHiZ(); }, true);
  addStill("reset-pos", "Make the present position 0.",
           [](StepperDriver& driver) -> int32_t { return driver.resetPosition(); });
  addStatus();
  addPosition();
  addSpeed();
  addGet();
  addSet();
  addReset();
}

}  // namespace

void registerStepper(App& app, const StepperChip& chip) {
  app.addChip(chip.info, [&chip](App& owner, CLI::App& command) {
    Registration(owner, command, chip).addAll();
  });
}

}  // namespace tool
