// SPDX-License-Identifier: MIT
#include "tool/chips/At25640bLink.h"

#include <fmt/format.h>

#include "orv/Thread.h"
#include "tool/ChipError.h"

namespace tool {
namespace {

constexpr uint8_t kAlwaysZero = 0x70;  // while no write cycle runs
constexpr unsigned int kProtectionShift = 2;
constexpr uint8_t kProtection = 0x0C;

constexpr unsigned int kPollMs = 1;
constexpr unsigned int kMostPolls = 100;  // a write cycle takes 5 ms at most

ChipError noAnswer(const std::string& what) {
  return {fmt::format("no answer from the AT25640B: {}", what),
          "whether it has power, HOLD is high, its SO is at MISO, and --cs is its select, with "
          "--cs-active-low; a lower --speed"};
}

}  // namespace

size_t firstProtected(uint8_t status) {
  // Nothing, the upper quarter, the upper half, everything.
  constexpr size_t kFirst[] = {kMemorySize, 0x1800, 0x1000, 0};
  return kFirst[(status & kProtection) >> kProtectionShift];
}

MemoryLink::MemoryLink(Session& session, std::optional<DoubtfulByte>& doubtful)
    : session_(session), doubtful_(doubtful), driver_(session.trouble()) {
  session.bind(driver_);
}

uint8_t MemoryLink::status() {
  uint8_t status = 0;
  session_.run(driver_, [&] { return driver_.readStatus(status); });
  return status;
}

uint8_t MemoryLink::waitReady() {
  uint8_t now = status();
  for (unsigned int polls = 1; (now & kMemoryBusy) != 0; ++polls) {
    if (polls == kMostPolls) {
      throw noAnswer(fmt::format("its status stays {:#04x}, which is busy, for {} ms", now,
                                 kMostPolls * kPollMs));
    }
    Orv::CThread::sleep(kPollMs);
    now = status();
  }
  return now;
}

uint8_t MemoryLink::start() {
  const uint8_t before = waitReady();
  if ((before & kAlwaysZero) != 0) {
    throw noAnswer(fmt::format("its status reads {:#04x}, which no AT25640B gives", before));
  }
  // A line that is stuck low would look like a chip at rest.
  for (const bool enabled : {true, false}) {
    session_.run(driver_, [&] { return driver_.setWriteEnable(enabled); });
    const uint8_t now = status();
    if (now != ((before & ~kMemoryEnabled) | (enabled ? kMemoryEnabled : 0))) {
      throw noAnswer(fmt::format("after the write-enable latch was {} its status reads {:#04x}",
                                 enabled ? "set" : "reset", now));
    }
  }
  return before;
}

uint8_t MemoryLink::read(size_t address) {
  uint8_t value = 0;
  session_.run(driver_, [&] { return driver_.readByte(static_cast<uint16_t>(address), value); });
  return value;
}

void MemoryLink::write(size_t address, uint8_t before, uint8_t value) {
  const auto place = static_cast<uint16_t>(address);
  session_.run(driver_, [&] { return driver_.setWriteEnable(true); });
  doubtful_ = {place, before, value};
  session_.run(driver_, [&] { return driver_.writeByte(place, value); });
  waitReady();
  const uint8_t after = read(address);
  doubtful_.reset();
  if (after != value) {
    throw ChipError(
        fmt::format("{:#06x} reads {:#04x} after {:#04x} was written{}", place, after, value,
                    after == before ? ": the chip ignored the write" : ""),
        "varnel at25640b status, which tells whether it is protected; a lower --speed; another "
        "chip: a page is good for a million writes");
  }
}

int runMemory(const Context& context, const ChipInfo& chip,
              const std::function<void(MemoryLink&)>& body) {
  std::optional<DoubtfulByte> doubtful;
  const int status = runSession(context.options, chip, context.err, [&](Session& session) {
    MemoryLink link(session, doubtful);
    body(link);
  });
  if (doubtful) {
    report(context.err,
           fmt::format("note: {0:#06x} was being written: it holds {1:#04x} as before, {2:#04x}, "
                       "or neither; varnel at25640b read {0:#06x} tells",
                       doubtful->address, doubtful->before, doubtful->wanted));
  }
  return status;
}

}  // namespace tool
