// SPDX-License-Identifier: MIT
#include "tool/chips/At25640b.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tool/App.h"
#include "tool/ChipError.h"
#include "tool/LiveWriter.h"
#include "tool/Records.h"
#include "tool/chips/At25640bImage.h"
#include "tool/chips/At25640bLink.h"

namespace tool {
namespace at25640b {
namespace {

constexpr size_t kRowSize = 16;

constexpr ChipInfo kChip = {
    .name = "at25640b",
    .title = "AT25640B",
    .about = "EEPROM of 8192 bytes",
    .selectActiveLow = true,
    .behindExpander = {.reason = "what is sent to the expander to deselect it would make its "
                                 "instructions too long, and be written"},
    .highestKHz = 1000,
    .needsSelectPin = true};

constexpr Column kStatusColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "status", .inData = false},
    {.name = "status", .inText = false},
    {.name = "enabled"},
    {.name = "protected"},
    {.name = "wp"},
};

constexpr Column kReadColumns[] = {
    {.name = "address", .inData = false},
    {.name = "address", .inText = false},
    {.name = "data"},
    {.name = "text", .inData = false},
};

constexpr Column kWriteColumns[] = {
    {.name = "wrote", .inData = false},
    {.name = "address", .inText = false},
    {.name = "written", .inText = false},
    {.name = "unchanged", .inText = false},
};

constexpr Column kLoadColumns[] = {
    {.name = "loaded", .inData = false},
    {.name = "file", .inText = false},
    {.name = "written", .inText = false},
    {.name = "unchanged", .inText = false},
};

constexpr Column kDumpColumns[] = {
    {.name = "dumped", .inData = false},
    {.name = "file", .inText = false},
    {.name = "size", .inText = false},
};

constexpr Column kVerifyColumns[] = {
    {.name = "verified", .inData = false},
    {.name = "file", .inText = false},
    {.name = "different", .inText = false},
};

struct Options {
  uint64_t address = 0;
  unsigned int bytes = 1;
  std::vector<uint8_t> values;
  std::string file;
  bool resume = false;
  bool replace = false;
};

std::string protectedWords(uint8_t status) {
  const size_t first = firstProtected(status);
  return first == kMemorySize ? "nothing"
                              : fmt::format("{:#06x} to {:#06x}", first, kMemorySize - 1);
}

void showStatus(const Context& context, MemoryLink& link) {
  const uint8_t status = link.start();
  RecordWriter writer(context.out, context.options.format, kChip.name, kStatusColumns);
  writer.write(
      {int64_t{1}, fmt::format("{:#04x}", status), int64_t{status},
       std::string((status & kMemoryEnabled) != 0 ? "yes" : "no"), protectedWords(status),
       std::string((status & kMemoryStatusProtect) != 0 ? "protects the status" : "ignored")});
}

void readRows(const Context& context, const Options& options, MemoryLink& link) {
  link.start();
  RecordWriter writer(context.out, context.options.format, kChip.name, kReadColumns);
  const auto begin = static_cast<size_t>(options.address);
  const size_t end = begin + options.bytes;
  for (size_t row = begin; row < end && !link.interrupted(); row += kRowSize) {
    std::string data;
    std::string text;
    for (size_t address = row; address < std::min(row + kRowSize, end); ++address) {
      const uint8_t value = link.read(address);
      data += fmt::format("{}{:02x}", data.empty() ? "" : " ", value);
      text += value >= 0x20 && value < 0x7F ? static_cast<char>(value) : '.';
    }
    writer.write({fmt::format("{:#06x}", row), uint64_t{row}, data, text});
  }
}

void writeValues(const Context& context, const Options& options, MemoryLink& link) {
  ProgressBar progress(context.err, isTerminal(context.err));
  const Written done = writeBytes(link, link.start(), static_cast<size_t>(options.address),
                                  options.values, progress);
  progress.clear();
  RecordWriter writer(context.out, context.options.format, kChip.name, kWriteColumns);
  writer.write({fmt::format("{} {} at {:#06x}: {} written, {} unchanged", options.values.size(),
                            options.values.size() == 1 ? "byte" : "bytes", options.address,
                            done.written, done.unchanged),
                options.address, uint64_t{done.written}, uint64_t{done.unchanged}});
}

ChipError differ(const std::string& file, const std::vector<Difference>& differences,
                 const std::string& tryThis) {
  const Difference& first = differences.front();
  return {fmt::format("{} of {} bytes differ from {}, the first at {:#06x}: {:#04x} in the memory, "
                      "{:#04x} in the file",
                      differences.size(), kMemorySize, file, first.address, first.inMemory,
                      first.inFile),
          tryThis};
}

void loadImage(const Context& context, const Options& options, const std::vector<uint8_t>& image,
               MemoryLink& link) {
  ProgressBar progress(context.err, isTerminal(context.err));
  const Written done = writeBytes(link, link.start(), 0, image, progress);
  // Once more from the beginning: writing one byte may have changed another.
  const auto differences =
      done.written == 0 ? std::vector<Difference>() : compareBytes(link, 0, image, progress);
  progress.clear();
  if (!differences.empty()) {
    throw differ(options.file, differences,
                 "whether the chip is an AT25640B: a smaller one has several addresses for a byte; "
                 "whether something else writes to it");
  }
  RecordWriter writer(context.out, context.options.format, kChip.name, kLoadColumns);
  writer.write({fmt::format("{}: {} bytes written, {} unchanged, all compared", options.file,
                            done.written, done.unchanged),
                options.file, uint64_t{done.written}, uint64_t{done.unchanged}});
}

void verifyImage(const Context& context, const Options& options, const std::vector<uint8_t>& image,
                 MemoryLink& link) {
  link.start();
  ProgressBar progress(context.err, isTerminal(context.err));
  const auto differences = compareBytes(link, 0, image, progress);
  progress.clear();
  RecordWriter writer(context.out, context.options.format, kChip.name, kVerifyColumns);
  writer.write({differences.empty() ? fmt::format("{}: the memory holds the same", options.file)
                                    : fmt::format("{}: {} of {} bytes differ", options.file,
                                                  differences.size(), kMemorySize),
                options.file, uint64_t{differences.size()}});
  if (!differences.empty()) {
    throw differ(options.file, differences,
                 fmt::format("varnel at25640b load {}, which writes what differs", options.file));
  }
}

void dumpImage(const Context& context, const Options& options, DumpFile& file, MemoryLink& link) {
  link.start();
  ProgressBar progress(context.err, isTerminal(context.err));
  dumpMemory(link, file, progress);
  progress.clear();
  RecordWriter writer(context.out, context.options.format, kChip.name, kDumpColumns);
  writer.write({fmt::format("{} bytes to {}, read twice", kMemorySize, options.file), options.file,
                uint64_t{kMemorySize}});
}

void checkRange(uint64_t address, size_t bytes) {
  if (address >= kMemorySize) {
    throw CLI::ValidationError("ADDRESS", fmt::format("{:#x} is above {:#x}, the highest address",
                                                      address, kMemorySize - 1));
  }
  if (bytes > kMemorySize - address) {
    throw CLI::ValidationError(
        "ADDRESS", fmt::format("from {:#06x} on the memory has {} bytes, not {}", address,
                               kMemorySize - address, bytes));
  }
}

uint8_t parseByte(const std::string& text) {
  const auto value = parseWhole(text);
  if (!value || *value > 0xFF) {
    throw CLI::ValidationError(
        "BYTE", fmt::format("'{}' is not a byte from 0 to 255: decimal, 0x.. or 0b..", text));
  }
  return static_cast<uint8_t>(*value);
}

void addFile(CLI::App& command, const std::shared_ptr<Options>& options, const std::string& about) {
  command.add_option("FILE", options->file, about)->required()->type_name("");
}

void addStatus(App& app, CLI::App& chip) {
  app.addOperation(chip, "status",
                   "Print the status register, and find out whether the chip answers: its "
                   "write-enable latch is\n"
                   "set for that, and reset.",
                   "  varnel at25640b status --cs 25 --cs-active-low\n"
                   "  varnel at25640b status --cs GPIO25 --cs-active-low --output json",
                   [](const Context& context) {
                     return runMemory(context, kChip,
                                      [&](MemoryLink& link) { showStatus(context, link); });
                   });
}

void addRead(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& read = app.addOperation(
      chip, "read", "Print bytes, 16 in a row.",
      "  varnel at25640b read 0x100 --cs 25 --cs-active-low\n"
      "  varnel at25640b read 0 --bytes 256 --cs GPIO25 --cs-active-low",
      [options](const Context& context) {
        checkRange(options->address, options->bytes);
        return runMemory(context, kChip,
                         [&](MemoryLink& link) { readRows(context, *options, link); });
      });
  addValue(read, "ADDRESS", options->address, "0 to 8191: decimal, 0x.. or 0b..");
  addWhole(read, "--bytes", options->bytes, 1, kMemorySize, "a number of bytes",
           "how many bytes, 1 to 8192")
      ->type_name("N");
}

void addWrite(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& write = app.addOperation(
      chip, "write",
      "Write bytes, each on its own, and read it back. Bytes that are there already are not\n"
      "written again.",
      "  varnel at25640b write 0x100 0x41 0x42 0x43 --cs 25 --cs-active-low\n"
      "  varnel at25640b write 0 255 --cs GPIO25 --cs-active-low",
      [options](const Context& context) {
        checkRange(options->address, options->values.size());
        return runMemory(context, kChip,
                         [&](MemoryLink& link) { writeValues(context, *options, link); });
      });
  addValue(write, "ADDRESS", options->address,
           "of the first byte, 0 to 8191: decimal, 0x.. or 0b..");
  write
      .add_option_function<std::vector<std::string>>(
          "BYTE",
          [options](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              options->values.push_back(parseByte(text));
            }
          },
          "one or more, 0 to 255: decimal, 0x.. or 0b..")
      ->required()
      ->type_name("");
}

void addLoad(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& load = app.addOperation(
      chip, "load",
      "Write a file of 8192 bytes to the memory, then compare all of it. Bytes that are there\n"
      "already are not written again: after Ctrl-C, which waits for the byte being written, the\n"
      "same command goes on.",
      "  varnel at25640b load image.bin --cs 25 --cs-active-low",
      [options](const Context& context) {
        const std::vector<uint8_t> image = readImage(options->file);
        return runMemory(context, kChip,
                         [&](MemoryLink& link) { loadImage(context, *options, image, link); });
      });
  addFile(load, options, "holds the 8192 bytes, and no others");
}

void addVerify(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& verify = app.addOperation(
      chip, "verify", "Compare the memory with a file of 8192 bytes; a difference is a failure.",
      "  varnel at25640b verify image.bin --cs 25 --cs-active-low",
      [options](const Context& context) {
        const std::vector<uint8_t> image = readImage(options->file);
        return runMemory(context, kChip,
                         [&](MemoryLink& link) { verifyImage(context, *options, image, link); });
      });
  addFile(verify, options, "holds the 8192 bytes, and no others");
}

void addDump(App& app, CLI::App& chip) {
  const auto options = std::make_shared<Options>();
  CLI::App& dump = app.addOperation(
      chip, "dump",
      "Read the memory into a file, twice to compare. Until all is there the file's name ends in\n"
      ".part.",
      "  varnel at25640b dump image.bin --cs 25 --cs-active-low\n"
      "  varnel at25640b dump image.bin --resume --cs 25 --cs-active-low",
      [options](const Context& context) {
        DumpFile file(options->file, options->resume, options->replace);
        const int status = runMemory(
            context, kChip, [&](MemoryLink& link) { dumpImage(context, *options, file, link); });
        file.noteLeft(context.err);
        return status;
      });
  addFile(dump, options, "where the 8192 bytes go");
  dump.add_flag("--resume", options->resume, "go on after Ctrl-C or a failure, with FILE.part");
  dump.add_flag("--replace", options->replace, "replace FILE, if there is one");
}

void addOperations(App& app, CLI::App& chip) {
  addStatus(app, chip);
  addRead(app, chip);
  addWrite(app, chip);
  addDump(app, chip);
  addLoad(app, chip);
  addVerify(app, chip);
}

}  // namespace
}  // namespace at25640b

void registerAt25640b(App& app) {
  app.addChip(at25640b::kChip, at25640b::addOperations);
}

}  // namespace tool
