// SPDX-License-Identifier: MIT
#include "vboard/board/WireLog.h"

#include <span>

namespace vboard {

namespace {

void appendWords(std::string& line, std::span<const uint32_t> words, unsigned bitsPerWord) {
  constexpr char kDigits[] = "0123456789abcdef";
  const unsigned digits = (bitsPerWord + 3) / 4;
  for (const uint32_t word : words) {
    line += ' ';
    for (unsigned digit = digits; digit > 0; --digit) {
      line += kDigits[(word >> ((digit - 1) * 4)) & 0xFU];
    }
  }
}

}  // namespace

WireLog::WireLog(Board& board) : board_(board) {
  board_.addObserver(*this);
}

WireLog::~WireLog() {
  board_.removeObserver(*this);
}

void WireLog::watch(const Net& net, std::string_view name) {
  const std::lock_guard guard(board_.mutex());
  watched_.push_back({&net, name.empty() ? net.name() : std::string(name), net.level()});
}

std::vector<WireLog::Transfer> WireLog::transfers() const {
  const std::lock_guard guard(board_.mutex());
  return transfers_;
}

std::vector<std::string> WireLog::lines() const {
  const std::lock_guard guard(board_.mutex());
  return lines_;
}

std::string WireLog::text() const {
  std::string all;
  for (const std::string& line : lines()) {
    all += line + '\n';
  }
  return all;
}

void WireLog::clear() {
  const std::lock_guard guard(board_.mutex());
  transfers_.clear();
  lines_.clear();
}

std::string WireLog::format(const SpiRecord& record) {
  std::string line = record.bus->name();
  if (record.select >= 0) {
    line += " cs" + std::to_string(record.select);
  }
  line += " mode " + std::to_string(record.format.mode);
  if (record.format.lsbFirst) {
    line += " lsb first";
  }
  line += ' ' + std::to_string(record.format.bitsPerWord) + " bit";
  line += ' ' + std::to_string(record.format.speedHz) + " Hz:";
  appendWords(line, record.mosi, record.format.bitsPerWord);
  line += " ->";
  appendWords(line, record.miso, record.format.bitsPerWord);
  return line;
}

void WireLog::onTransfer(const SpiRecord& record) {
  transfers_.push_back({record.start,
                        record.end,
                        record.bus->name(),
                        record.select,
                        record.format,
                        {record.mosi.begin(), record.mosi.end()},
                        {record.miso.begin(), record.miso.end()}});
  lines_.push_back(format(record));
}

void WireLog::onNet(const Net& net, Time /*time*/) {
  for (Watched& watched : watched_) {
    // A wire that is let go and keeps its level is no change to whoever reads it.
    if (watched.net == &net && watched.level != net.level()) {
      watched.level = net.level();
      lines_.push_back(watched.name + (net.level() == Level::High ? " high" : " low"));
    }
  }
}

void WireLog::onViolation(const Violation& violation) {
  lines_.push_back("violation: " + violation.part + ' ' + violation.rule + ": " +
                   violation.details);
}

void WireLog::onNote(const Part& part, Time /*time*/, std::string_view text) {
  lines_.push_back(part.name() + ": " + std::string(text));
}

}  // namespace vboard
