// SPDX-License-Identifier: MIT
#include "vboard/launcher/Trace.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vboard/launcher/Words.h"

namespace vboard::launcher {

namespace {

/// A 4096-byte transfer would bury everything else.
constexpr size_t kShownWords = 32;

std::string words(std::span<const uint32_t> data, int bits) {
  std::string text;
  for (size_t i = 0; i < std::min(data.size(), kShownWords); ++i) {
    std::array<char, 12> word{};
    std::snprintf(word.data(), word.size(), " %0*x", (bits + 3) / 4, data[i]);
    text += word.data();
  }
  if (data.size() > kShownWords) {
    text += " ... (" + std::to_string(data.size()) + " words)";
  }
  return data.empty() ? " -" : text;
}

std::string frequency(uint32_t hertz) {
  return hertz >= 1000000 ? shortNumber(hertz / 1e6) + " MHz"
         : hertz >= 1000  ? shortNumber(hertz / 1e3) + " kHz"
                          : std::to_string(hertz) + " Hz";
}

}  // namespace

std::string Tracer::describe(const SpiRecord& record) {
  const SpiFormat& format = record.format;
  return "spidev" + std::to_string(record.bus->options().number) + "." +
         std::to_string(record.select) + " mode " + std::to_string(format.mode) + ", " +
         std::to_string(format.bitsPerWord) + " bits" + (format.lsbFirst ? " LSB first" : "") +
         ", " + frequency(format.speedHz) + ": MOSI" + words(record.mosi, format.bitsPerWord) +
         ", MISO" + words(record.miso, format.bitsPerWord);
}

void Tracer::onTransfer(const SpiRecord& record) {
  line(record.end, describe(record));
}

void Tracer::onNet(const Net& net, Time time) {
  for (const Pin* pin : net.pins()) {
    const auto* chip = dynamic_cast<const GpioChip*>(&pin->part());
    if (chip == nullptr || pin->driven() == Drive::Floating) {
      continue;
    }
    const auto& names = chip->options().lineNames;
    const auto name = names.find(std::atoi(pin->name().c_str()));
    line(time, chip->name() + ":" + pin->name() + (name != names.end() ? " " + name->second : "") +
                   (net.level() == Level::High ? " high" : " low"));
  }
}

void Tracer::onViolation(const Violation& violation) {
  line(violation.time,
       "VIOLATION " + violation.part + ": " + violation.rule + ": " + violation.details);
}

void Tracer::onNote(const Part& part, Time time, std::string_view text) {
  line(time, part.name() + ": " + std::string(text));
}

void Tracer::onCall(std::string_view call, std::string_view node, long result, Time time) {
  if (result < 0) {
    line(time, std::string(node) + ": " + std::string(call) +
                   " failed: " + std::strerror(static_cast<int>(-result)));
  }
}

void Tracer::line(Time time, const std::string& text) {
  // Each process has a board of its own, and a forked one goes on with a copy.
  if (const pid_t process = getpid(); process != announced_) {
    const bool forked = announced_ != 0;
    announced_ = process;
    line(forked ? time : Time(0), std::string(forked ? "copy of the board" : "board powered up") +
                                      " for " + program_invocation_short_name + " (process " +
                                      std::to_string(process) + ")");
  }
  const long long nanoseconds = time.count();
  std::array<char, 40> stamp{};
  std::snprintf(stamp.data(), stamp.size(), "[%4lld.%09lld] ", nanoseconds / 1000000000,
                nanoseconds % 1000000000);
  write(stamp.data() + text + "\n");
}

void Tracer::write(const std::string& line) {
  const int saved = errno;
  // Past the interposed write: the program may have put a node where stderr was.
  [[maybe_unused]] const long written = syscall(SYS_write, STDERR_FILENO, line.data(), line.size());
  errno = saved;
}

}  // namespace vboard::launcher
