// SPDX-License-Identifier: MIT
#include "tool/chips/Ad529x.h"

#include <fmt/format.h>

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "orv/Bits.h"
#include "orv/Thread.h"
#include "tool/App.h"
#include "tool/ChipError.h"
#include "tool/Confirm.h"
#include "tool/Interrupt.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"

namespace tool {
namespace ad529x {
namespace {

using Driver = Varnel::CSpiPotentiometer16Bit_AD529x;

constexpr std::string_view kSyncOption = "--sync";
constexpr const char* kYesOption = "--yes";
constexpr unsigned int kSlots = 20;
constexpr unsigned int kSlotsPerStatus = 10;
constexpr uint8_t kFirstStatus = 0x14;  // one bit per programmed slot, 0 to 9
constexpr uint8_t kSecondStatus = 0x15;
constexpr unsigned int kWritableControl = 7;
constexpr unsigned int kCommandShift = 10;
// The chip takes up to 1.3 ms to read its memory and about 8 ms to program a slot, and takes no
// word in the meantime.
constexpr unsigned int kMemoryReadMs = 2;
constexpr unsigned int kProgramMs = 25;

constexpr ChipInfo kChip = {.name = "ad529x",
                            .title = "AD529x",
                            .about = "digital potentiometers AD5291 and AD5292 with a memory",
                            .wordBits = 16,
                            .behindExpander = {.reason = "it has no select line but SYNC (--sync)"},
                            // A change of mode in a frame would be a clock too many.
                            .openMode = 1,
                            // What it answers rises through a pull-up.
                            .highestKHz = 1000,
                            .hasSelect = false};

constexpr Column kGetColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "position", .textWidth = 4},
    {.name = "of", .inData = false},
    {.name = "positions", .inText = false},
    {.name = "share", .unit = "%", .textWidth = 6, .textDecimals = 2, .dataDecimals = 4},
};

constexpr std::span<const Column> kSetColumns = std::span(kGetColumns).subspan(1);

constexpr Column kMemoryColumns[] = {
    {.name = "slot", .textWidth = 2},
    {.name = "position", .textWidth = 4},
    {.name = "share", .unit = "%", .textWidth = 6, .textDecimals = 2, .dataDecimals = 4},
};

constexpr Column kStoreColumns[] = {
    {.name = "slot", .textWidth = 2},
    {.name = "position", .textWidth = 4},
    {.name = "left"},
};

constexpr Column kControlColumns[] = {
    {.name = "control", .inData = false},
    {.name = "control", .inText = false},
    {.name = "wiper"},
    {.name = "memory"},
    {.name = "calibration"},
    {.name = "stored"},
};

struct Part {
  std::string_view name;
  unsigned int positions;
  unsigned int shift;  ///< the position's place in the ten bits of a word
};

constexpr Part kParts[] = {{"ad5292", 1024, 0}, {"ad5291", 256, 2}};

struct Options {
  std::optional<PinSpec> sync;
  const Part* part = &kParts[0];
  uint64_t value = 0;
  CLI::Option* given = nullptr;  // of the value
  bool yes = false;
  Repetition repetition;
};

/// The driver, with its frames one by one.
class Frames : public Watched<Driver> {
 public:
  using Watched::Watched;

  /// Sends a word; afterwards `received` is what the one before was answered.
  TErrCode send(unsigned int word) {
    return privateSetRegister(static_cast<uint16_t>(word), DO_TRANSFER);
  }
  unsigned int received() const { return m_RegisterRx.m_Data; }
  unsigned int receivedData() const { return m_RegisterRx.dataBits(); }
  /// Sends a no-operation word and lets SYNC rest high after it.
  TErrCode park() {
    m_RegisterTx.m_Data = Driver::CW_NOOP;
    const TErrCode sent = executeTransfer();
    const TErrCode raised = latchPin().write(Orv::HIGH);
    return sent < 0 ? sent : raised;
  }
};

/// A chip in an open session. What fails on the way to it throws DeviceError, an answer that can't
/// be throws ChipError.
class Link {
 public:
  Link(Session& session, const Options& options)
      : session_(session),
        part_(*options.part),
        sync_(session.connectLatch(*options.sync, kSyncOption, Orv::PIN_MODE_HW)),
        driver_(session.trouble()) {
    session.bind(driver_);
    driver_.setLatchPin(&sync_);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() {
    if (!parked_) {
      // Whatever failed is reported already. A word whose frame did not end is pushed out.
      driver_.park();
      session_.trouble().take();
    }
  }

  /// Finds out whether the chip is there and understands.
  void begin();
  /// Leaves the chip deaf: the driver alone rests SYNC low, and other chips' clocks would count.
  void end() {
    parked_ = true;
    run([this] { return driver_.park(); });
  }

  unsigned int control() {
    return run([this] { return driver_.readControlWord(); });
  }
  /// Sets the bits of the control word that can be, and reads it back.
  void setControl(unsigned int bits);
  unsigned int position() {
    return run([this] { return driver_.readData(Driver::CW_READ_RDAC); }) >> part_.shift;
  }
  /// Moves the wiper, which needs the control word's consent, and reads its position back.
  void move(unsigned int position);
  /// The position in a programmed slot.
  unsigned int slot(unsigned int address) { return memory(address) >> part_.shift; }
  unsigned int slotsUsed();
  /// Stores the wiper's position, which needs the control word's consent; returns the slot.
  unsigned int store();

 private:
  unsigned int run(const std::function<int32_t()>& operation) {
    return static_cast<unsigned int>(session_.run(driver_, operation));
  }
  unsigned int memory(unsigned int address);
  void checkEcho(unsigned int sent);

  Session& session_;
  const Part& part_;
  Orv::CLinuxIoPin sync_;
  Frames driver_;
  bool parked_ = false;
};

void Link::checkEcho(unsigned int sent) {
  if (driver_.received() != sent) {
    throw ChipError(
        fmt::format("no answer from the {}: it gives {:#06x} back for {:#06x}", kChip.title,
                    driver_.received(), sent),
        fmt::format("whether it has power, {} is the line at its SYNC, and its SDO is at MISO with "
                    "a pull-up of about 2.2 kohm; a lower --speed",
                    kSyncOption));
  }
}

void Link::begin() {
  // The first ends a frame that others' clocks may have begun, the second switches an output on
  // that was switched off. Then two words without effect, which come back in the frame after them.
  constexpr unsigned int kEcho = 0x0155;
  constexpr unsigned int kOtherEcho = 0x02AA;
  for (const unsigned int word :
       {unsigned{Driver::CW_NOOP}, Driver::CW_READ_CTRL_REG << kCommandShift, kEcho, kOtherEcho}) {
    run([&] { return driver_.send(word); });
  }
  checkEcho(kEcho);
  run([this] { return driver_.send(Driver::CW_NOOP); });
  checkEcho(kOtherEcho);
}

void Link::setControl(unsigned int bits) {
  run([&] { return driver_.writeControlWord(static_cast<uint8_t>(bits)); });
  const unsigned int actual = control() & kWritableControl;
  if (actual != bits) {
    throw ChipError(fmt::format("the {} did not take {:#x} for its control word: it reads {:#x}",
                                kChip.title, bits, actual),
                    "a lower --speed; whether something resets the chip");
  }
}

void Link::move(unsigned int position) {
  run([&] { return driver_.writeRDAC(static_cast<uint16_t>(position << part_.shift)); });
  const unsigned int actual = this->position();
  if (actual != position) {
    throw ChipError(fmt::format("the wiper of the {} did not move to {}: it stands at {}",
                                kChip.title, position, actual),
                    fmt::format("the --part that is fitted: {} has {} positions; a lower --speed",
                                part_.name, part_.positions));
  }
}

unsigned int Link::memory(unsigned int address) {
  // Not the driver's own reading: its pause is shorter than what the chip may take.
  run([&] { return driver_.send(Driver::CW_READ_TPMEM << kCommandShift | address); });
  Orv::CThread::sleep(kMemoryReadMs);
  run([this] { return driver_.send(Driver::CW_NOOP); });
  return driver_.receivedData();
}

unsigned int Link::slotsUsed() {
  const unsigned int first = memory(kFirstStatus);
  const unsigned int second = memory(kSecondStatus);
  const auto used = static_cast<unsigned int>(Orv::bitCount(first) + Orv::bitCount(second));
  // Slots are programmed in order.
  if ((first | second << kSlotsPerStatus) != highestOf(kSlots) >> (kSlots - used)) {
    throw ChipError(fmt::format("the memory of the {} reads {:#05x} and {:#05x} for its programmed "
                                "slots, which can't be",
                                kChip.title, first, second),
                    "a lower --speed");
  }
  return used;
}

unsigned int Link::store() {
  const unsigned int used = slotsUsed();
  const unsigned int position = this->position();
  run([this] { return driver_.storeRDAC(); });
  Orv::CThread::sleep(kProgramMs);
  const bool success = (control() & Varnel::CW_BIT_TPMEM_SUCCESS) != 0;
  const unsigned int usedNow = slotsUsed();
  if (!success || usedNow != used + 1 || slot(used) != position) {
    throw ChipError(
        fmt::format("the {} did not store position {}: {} of {} slots are programmed, {} before",
                    kChip.title, position, usedNow, kSlots, used),
        "whether the capacitor of 1 uF at EXT_CAP is there, and the supply holds 25 mA");
  }
  return used;
}

/// Gives the control word bits that `body` needs, and takes back those that were not set.
void withConsent(Link& link, unsigned int bits, const std::function<void()>& body) {
  const unsigned int before = link.control() & kWritableControl;
  const unsigned int needed = before | bits;
  const auto control = [&](unsigned int word) {
    if (needed != before) {
      link.setControl(word);
    }
  };
  control(needed);
  try {
    body();
  } catch (const ChipError&) {
    control(before);
    throw;
  }
  control(before);
}

double shareOf(unsigned int position, const Part& part) {
  return position * 100.0 / part.positions;
}

void get(const Context& context, const Options& options, Session& session, Link& link) {
  RecordWriter writer(context.out, context.options.format, kChip.name, kGetColumns);
  repeat(options.repetition, session.interrupt(), [&](uint64_t round) {
    const unsigned int position = link.position();
    writer.write({static_cast<int64_t>(round), int64_t{position}, int64_t{options.part->positions},
                  int64_t{options.part->positions}, shareOf(position, *options.part)});
  });
}

void set(const Context& context, const Options& options, Session& /*session*/, Link& link) {
  const auto position = static_cast<unsigned int>(options.value);
  withConsent(link, Varnel::CW_BIT_RDAC_WRITE_ENABLE, [&] { link.move(position); });
  RecordWriter writer(context.out, context.options.format, kChip.name, kSetColumns);
  writer.write({int64_t{position}, int64_t{options.part->positions},
                int64_t{options.part->positions}, shareOf(position, *options.part)});
}

void memory(const Context& context, const Options& options, Session& session, Link& link) {
  const unsigned int used = link.slotsUsed();
  if (used == 0) {
    report(context.err,
           "note: no slot is programmed; after power-up the wiper stands in the middle");
  }
  RecordWriter writer(context.out, context.options.format, kChip.name, kMemoryColumns);
  for (unsigned int slot = 0; slot < used && !session.interrupt().requested(); ++slot) {
    const unsigned int position = link.slot(slot);
    writer.write({int64_t{slot}, int64_t{position}, shareOf(position, *options.part)});
  }
}

void store(const Context& context, const Options& options, Session& session, Link& link) {
  const unsigned int used = link.slotsUsed();
  if (used == kSlots) {
    throw ChipError(fmt::format("the memory of the {} is full: all {} slots are programmed, and "
                                "none can be programmed again",
                                kChip.title, kSlots),
                    "another chip; set still moves the wiper until power-down");
  }
  const unsigned int position = link.position();
  const std::string question =
      fmt::format("store position {} of {} in slot {}, for good? {} of {} slots are left.",
                  position, options.part->positions, used, kSlots - used, kSlots);
  if (!options.yes && !confirm(context.err, question, session.interrupt())) {
    throw ChipError("nothing was stored", fmt::format("y at the question, or {}", kYesOption));
  }
  unsigned int slot = 0;
  withConsent(link, Varnel::CW_BIT_TPMEM_ENABLE, [&] { slot = link.store(); });
  RecordWriter writer(context.out, context.options.format, kChip.name, kStoreColumns);
  writer.write({int64_t{slot}, int64_t{position}, int64_t{kSlots - slot - 1}});
}

void control(const Context& context, const Options& options, Session& /*session*/, Link& link) {
  if (options.given->count() > 0) {
    link.setControl(static_cast<unsigned int>(options.value));
  }
  const unsigned int word = link.control();
  const auto text = [word](unsigned int bit, const char* set, const char* clear) {
    return std::string((word & bit) != 0 ? set : clear);
  };
  RecordWriter writer(context.out, context.options.format, kChip.name, kControlColumns);
  writer.write({fmt::format("{:#x}", word), int64_t{word},
                text(Varnel::CW_BIT_RDAC_WRITE_ENABLE, "unlocked", "locked"),
                text(Varnel::CW_BIT_TPMEM_ENABLE, "unlocked", "locked"),
                text(Varnel::CW_BIT_CALIBRATION_ENABLE, "off", "on"),
                text(Varnel::CW_BIT_TPMEM_SUCCESS, "yes", "no")});
}

using Operation = void (*)(const Context&, const Options&, Session&, Link&);

int runLink(const Context& context, const Options& options, Operation operation) {
  return runSession(context.options, kChip, context.err, [&](Session& session) {
    Link link(session, options);
    link.begin();
    operation(context, options, session, link);
    link.end();
  });
}

void checkHighest(const std::string& name, uint64_t value, uint64_t highest,
                  const std::string& what) {
  if (value > highest) {
    throw CLI::ValidationError(name, fmt::format("{} is above {}, {}", value, highest, what));
  }
}

void addSync(CLI::App& command, Options& options) {
  addPinOption(command, std::string(kSyncOption), options.sync,
               "GPIO line at SYNC, in any form of --cs")
      ->required();
}

void addPart(CLI::App& command, Options& options) {
  const auto parse = [&options](const std::string& text) {
    for (const Part& part : kParts) {
      if (CLI::detail::to_lower(text) == part.name) {
        options.part = &part;
        return;
      }
    }
    throw CLI::ValidationError("--part", fmt::format("'{}' is none of ad5292, ad5291", text));
  };
  command
      .add_option_function<std::string>("--part", parse,
                                        "which chip it is: ad5292, with 1024 positions, or ad5291, "
                                        "with\n256")
      ->type_name("PART")
      ->default_str("ad5292");
}

void addGetAndSet(App& app, CLI::App& chip) {
  const auto getOptions = std::make_shared<Options>();
  CLI::App& getCommand = app.addOperation(
      chip, "get", "Print the wiper's position, from 0 at terminal B.",
      "  varnel ad529x get --sync 25\n"
      "  varnel ad529x get --sync GPIO25 --part ad5291 --count 0 --interval 500 --output csv",
      [getOptions](const Context& context) { return runLink(context, *getOptions, get); });
  addSync(getCommand, *getOptions);
  addPart(getCommand, *getOptions);
  addRepetition(getCommand, getOptions->repetition);

  const auto setOptions = std::make_shared<Options>();
  CLI::App& setCommand = app.addOperation(
      chip, "set",
      "Move the wiper and read it back. Nothing is stored: after a reset or power-up it stands\n"
      "where the last stored position is. The wiper is unlocked for it, if need be, and locked\n"
      "again.",
      "  varnel ad529x set 512 --sync 25\n"
      "  varnel ad529x set 0x80 --sync gpiochip1:15 --part ad5291 --output json",
      [setOptions](const Context& context) {
        checkHighest("POSITION", setOptions->value, setOptions->part->positions - 1,
                     fmt::format("the last position of an {}", setOptions->part->name));
        return runLink(context, *setOptions, set);
      });
  addValue(setCommand, "POSITION", setOptions->value,
           "0, at terminal B, to 1023 or, of an AD5291, 255: decimal, 0x.. or 0b..");
  addSync(setCommand, *setOptions);
  addPart(setCommand, *setOptions);
}

void addStoreAndMemory(App& app, CLI::App& chip) {
  const auto storeOptions = std::make_shared<Options>();
  CLI::App& storeCommand = app.addOperation(
      chip, "store",
      "Store the wiper's position for good, where it stands after each reset and power-up. This "
      "is\n"
      "permanent: there are 20 slots, each can be programmed once, and the last one counts. It "
      "asks\n"
      "before; without a terminal to ask on it needs --yes.",
      "  varnel ad529x store --sync 25\n"
      "  varnel ad529x store --sync 25 --yes --output json",
      [storeOptions](const Context& context) {
        if (!storeOptions->yes && !canAsk()) {
          throw CLI::ValidationError(kYesOption,
                                     "is required here: storing is permanent, and standard input "
                                     "is no terminal to ask on");
        }
        return runLink(context, *storeOptions, store);
      });
  addSync(storeCommand, *storeOptions);
  addPart(storeCommand, *storeOptions);
  storeCommand.add_flag(kYesOption, storeOptions->yes, "store without asking");

  const auto memoryOptions = std::make_shared<Options>();
  CLI::App& memoryCommand = app.addOperation(
      chip, "memory", "Print the programmed slots of the memory, 0 to 19; the last one counts.",
      "  varnel ad529x memory --sync 25\n"
      "  varnel ad529x memory --sync 25 --output csv",
      [memoryOptions](const Context& context) { return runLink(context, *memoryOptions, memory); });
  addSync(memoryCommand, *memoryOptions);
  addPart(memoryCommand, *memoryOptions);
}

void addControl(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& command = app.addOperation(
      chip, "control",
      "Print the control word and what its bits mean, with VALUE after setting them: 1 unlocks "
      "the\n"
      "memory, 2 unlocks the wiper, 4 switches the calibration off. A reset clears all.",
      "  varnel ad529x control --sync 25\n"
      "  varnel ad529x control 0b010 --sync 25",
      [options](const Context& context) {
        checkHighest("VALUE", options->value, kWritableControl,
                     "the highest value of the bits that can be set");
        return runLink(context, *options, control);
      });
  options->given = addValue(command, "VALUE", options->value,
                            "0 to 7, the sum of the bits: decimal, 0x.. or 0b.. (default: leave\n"
                            "them)")
                       ->required(false);
  addSync(command, *options);
}

void addOperations(App& app, CLI::App& chip) {
  addGetAndSet(app, chip);
  addStoreAndMemory(app, chip);
  addControl(app, chip);
}

}  // namespace
}  // namespace ad529x

void registerAd529x(App& app) {
  app.addChip(ad529x::kChip, ad529x::addOperations);
}

}  // namespace tool
