// SPDX-License-Identifier: MIT
#include "tool/chips/IcmdLink.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "tool/ChipError.h"

namespace tool {
namespace {

using Varnel::iC_MD::BIT_REG1_CBZ0;
using Varnel::iC_MD::BIT_REG1_TTL;
using Varnel::iC_MD::BITMASK_REG0_CNTCFG;
using Varnel::iC_MD::CONFIG_REGISTER_COUNT;
using Varnel::iC_MD::REG1_Z_TOUCH_PROBE_CONFIG;
using Varnel::iC_MD::REG_COUNTER_INPUT_CONFIG;

// By counter configuration, as the driver reads them.
constexpr CounterLayout kLayouts[] = {
    {"24", {24, 0, 0}}, {"24,24", {24, 24, 0}}, {"48", {48, 0, 0}},     {"16", {16, 0, 0}},
    {"32", {32, 0, 0}}, {"32,16", {32, 16, 0}}, {"16,16", {16, 16, 0}}, {"16,16,16", {16, 16, 16}},
};

constexpr uint8_t kIdentityAddress = 0x78;
constexpr std::array<uint8_t, 2> kIdentity = {0x4D, 0x44};  // "MD"
constexpr uint8_t kStatusAddress = 0x48;                    // of counter 0, then 1 and 2

constexpr unsigned int kReverseShift = 3;  // EXCH, in register 0
constexpr uint8_t kReverseMask = 0x38;
constexpr unsigned int kIndexClearsShift = BIT_REG1_CBZ0;
constexpr uint8_t kIndexClearsMask = 0x60;
constexpr uint8_t kTtl = 1U << BIT_REG1_TTL;
constexpr unsigned int kLvdsRegister = 3;
constexpr uint8_t kLvds = 0x80;

constexpr uint8_t kTransitionError = 0x80;

struct Flag {
  uint8_t bit;
  std::string_view word;
};

constexpr Flag kCounterFlags[] = {
    {kTransitionError, "illegal transition"},
    {0x40, "overflow"},
    {0x20, "passed zero"},
    {0x10, "supply dropped"},
};

constexpr Flag kByteFlags[kCounters][4] = {
    {{0x08, "reference found"},
     {0x04, "index distance measured"},
     {0x02, "index distance too long"},
     {0x01, "touch probe stored"}},
    {{0x08, "external error"},
     {0x04, "external warning"},
     {0x02, "interfaces collided"},
     {0x01, "touch probe input high"}},
    {{0x08, "external error"},
     {0x04, "external warning"},
     {0x02, "interfaces collided"},
     {0x01, "SSI on"}},
};

void putBits(uint8_t& target, uint8_t mask, unsigned int bits) {
  target = static_cast<uint8_t>((target & ~mask) | (bits & mask));
}

}  // namespace

unsigned int CounterLayout::counters() const {
  return static_cast<unsigned int>(
      std::count_if(bits.begin(), bits.end(), [](unsigned int width) { return width > 0; }));
}

const CounterLayout& counterLayout(uint8_t config) {
  return kLayouts[config & BITMASK_REG0_CNTCFG];
}

uint8_t counterConfigOf(std::string_view widths) {
  std::string all;
  for (size_t config = 0; config < std::size(kLayouts); ++config) {
    if (kLayouts[config].widths == widths) {
      return static_cast<uint8_t>(config);
    }
    all += fmt::format("{}{}", all.empty() ? "" : " ", kLayouts[config].widths);
  }
  throw std::invalid_argument(fmt::format("'{}' is none of {}", widths, all));
}

int64_t signedCount(int64_t content, unsigned int bits) {
  const int64_t half = int64_t{1} << (bits - 1);
  return ((content + half) & ((int64_t{1} << bits) - 1)) - half;
}

int64_t countsBetween(int64_t before, int64_t after, unsigned int bits) {
  return signedCount(after - before, bits);
}

std::string counterFlags(unsigned int counter, uint8_t status) {
  std::string words;
  const auto add = [&](const Flag& flag) {
    if ((status & flag.bit) != 0) {
      words += fmt::format("{}{}", words.empty() ? "" : ", ", flag.word);
    }
  };
  std::for_each(std::begin(kCounterFlags), std::end(kCounterFlags), add);
  std::for_each(std::begin(kByteFlags[counter]), std::end(kByteFlags[counter]), add);
  return words.empty() ? "none" : words;
}

bool countUnreliable(uint8_t status) {
  return (status & kTransitionError) != 0;
}

uint8_t CounterSetup::config() const {
  return registers[REG_COUNTER_INPUT_CONFIG] & BITMASK_REG0_CNTCFG;
}

void CounterSetup::setConfig(uint8_t config) {
  putBits(registers[REG_COUNTER_INPUT_CONFIG], BITMASK_REG0_CNTCFG, config);
}

std::string_view CounterSetup::levels() const {
  if ((registers[REG1_Z_TOUCH_PROBE_CONFIG] & kTtl) != 0) {
    return "TTL";
  }
  return (registers[kLvdsRegister] & kLvds) != 0 ? "LVDS" : "RS-422";
}

void CounterSetup::setLevels(std::string_view levels) {
  putBits(registers[REG1_Z_TOUCH_PROBE_CONFIG], kTtl, levels == "TTL" ? kTtl : 0U);
  putBits(registers[kLvdsRegister], kLvds, levels == "LVDS" ? kLvds : 0U);
}

unsigned int CounterSetup::reversed() const {
  return (registers[REG_COUNTER_INPUT_CONFIG] & unsigned{kReverseMask}) >> kReverseShift;
}

void CounterSetup::setReversed(unsigned int counters) {
  putBits(registers[REG_COUNTER_INPUT_CONFIG], kReverseMask, counters << kReverseShift);
}

unsigned int CounterSetup::indexClears() const {
  return (registers[REG1_Z_TOUCH_PROBE_CONFIG] & unsigned{kIndexClearsMask}) >> kIndexClearsShift;
}

void CounterSetup::setIndexClears(unsigned int counters) {
  putBits(registers[REG1_Z_TOUCH_PROBE_CONFIG], kIndexClearsMask, counters << kIndexClearsShift);
}

TErrCode IcmdLink::Driver::executeManagedTransfer(Varnel::eCS_Handling handling) {
  return noted_.note(Step::Transfer, Watched::executeManagedTransfer(handling));
}

IcmdLink::IcmdLink(Session& session) : session_(session), driver_(session.trouble()) {
  session.bind(driver_);
  checkIdentity();
  setup_ = readSetup();
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    driver_.setRegisterValue(reg, 0xFF, setup_.registers[reg]);
  }
}

void IcmdLink::run(const std::function<TErrCode()>& operation) {
  session_.run(driver_, [&] {
    const TErrCode code = operation();
    const auto noted = session_.trouble().take();
    return noted ? session_.trouble().note(noted->first, noted->second) : code;
  });
}

uint8_t IcmdLink::read(uint8_t reg) {
  uint8_t value = 0;
  run([&] { return driver_.readRegister(reg, value); });
  return value;
}

CounterSetup IcmdLink::readSetup() {
  CounterSetup setup;
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    setup.registers[reg] = read(reg);
  }
  return setup;
}

void IcmdLink::checkIdentity() {
  const std::array<uint8_t, 2> identity = {read(kIdentityAddress), read(kIdentityAddress + 1)};
  if (identity != kIdentity) {
    throw ChipError(fmt::format("no answer from the iC-MD: its identity reads {:#04x} {:#04x}, not "
                                "{:#04x} {:#04x}",
                                identity[0], identity[1], kIdentity[0], kIdentity[1]),
                    "whether it has power, its MISO is at the bus's, and --cs is its select (NCS), "
                    "with --cs-active-low; a lower --speed");
  }
}

void IcmdLink::write(const CounterSetup& setup) {
  for (uint8_t reg = 0; reg < CONFIG_REGISTER_COUNT; ++reg) {
    driver_.setRegisterValue(reg, 0xFF, setup.registers[reg]);
  }
  run([this] { return driver_.connect(); });
  const CounterSetup taken = readSetup();
  for (size_t reg = 0; reg < setup.registers.size(); ++reg) {
    if (taken.registers[reg] != setup.registers[reg]) {
      throw ChipError(
          fmt::format("the iC-MD did not take {:#04x} for register {}: it reads {:#04x}",
                      setup.registers[reg], reg, taken.registers[reg]),
          "a lower --speed; whether MOSI is at the chip's");
    }
  }
  setup_ = setup;
}

void IcmdLink::check() {
  checkIdentity();
  const uint8_t now = read(REG_COUNTER_INPUT_CONFIG);
  const uint8_t before = setup_.registers[REG_COUNTER_INPUT_CONFIG];
  if (now != before) {
    throw ChipError(
        fmt::format("the iC-MD's register 0 changed from {:#04x} to {:#04x}: its supply dropped, "
                    "or something else writes to it",
                    before, now),
        "varnel icmd config, and the configuration again");
  }
}

int64_t IcmdLink::position(unsigned int counter) {
  int64_t content = 0;
  run([&] { return driver_.readPosition64(static_cast<uint8_t>(counter), content); });
  return signedCount(content, setup_.layout().bits[counter]);
}

void IcmdLink::clear(unsigned int counter) {
  run([&] { return driver_.clearCounter(static_cast<uint8_t>(counter)); });
}

uint8_t IcmdLink::status(unsigned int counter) {
  return read(static_cast<uint8_t>(kStatusAddress + counter));
}

}  // namespace tool
