// SPDX-License-Identifier: MIT
#include "tool/chips/Hc595.h"

#include <fmt/format.h>

#include <deque>
#include <memory>
#include <vector>

#include "tool/App.h"
#include "tool/Records.h"
#include "tool/Session.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"

namespace tool {
namespace hc595 {
namespace {

using Varnel::CLinuxSpiDevice;

constexpr unsigned int kMostChips = 8;  // as many as a 64-bit value has bytes
constexpr std::string_view kLatchOption = "--latch";

constexpr ChipInfo kChip = {.name = "hc595",
                            .title = "74HC595",
                            .about = "8 digital outputs, one chip or a chain",
                            .selectActiveLow = true,
                            .behindExpander = {.reason = "it has no select line"}};

constexpr Column kColumns[] = {
    {.name = "wrote", .inData = false},
    {.name = "value", .inText = false},
    {.name = "chain", .inText = false},
    {.name = "latch", .inText = false},
};

struct WriteOptions {
  uint64_t value = 0;
  std::optional<PinSpec> latch;
  unsigned int chain = 1;
};

uint8_t byteOf(uint64_t value, unsigned int chip) {
  return static_cast<uint8_t>(value >> (8 * chip));
}

/// Chips whose latch is the select: all bytes in one transfer, at whose end the select latches.
class SelectLatchedChips : public CLinuxSpiDevice {
 public:
  SelectLatchedChips(uint64_t value, unsigned int chain)
      : CLinuxSpiDevice(nullptr, nullptr, nullptr) {
    // The farthest chip's byte comes first: it still has to pass through all the others.
    for (unsigned int chip = chain; chip-- > 0;) {
      bytes_.push_back(byteOf(value, chip));
    }
    m_TransferSettings.ioc_transfer.tx_buf = reinterpret_cast<uintptr_t>(bytes_.data());
    m_TransferSettings.ioc_transfer.len = chain;
  }

  TErrCode write() {
    // A managed transfer may be preceded by one that settles the clock line, which the node's own
    // select would latch as well.
    return chipSelector() == nullptr ? executeTransfer()
                                     : executeManagedTransfer(Varnel::CS_SELECT_DESELECT);
  }

 private:
  std::vector<uint8_t> bytes_;
};

void writeLatched(const WriteOptions& options, Session& session) {
  Orv::CLinuxIoPin latch = session.connectLatch(*options.latch, kLatchOption, Orv::PIN_MODE_HW);
  std::deque<Watched<Varnel::CSpiDigOut8Bit_HC595>> chips;
  const auto chain = std::make_shared<std::vector<CLinuxSpiDevice*>>();
  for (unsigned int chip = 0; chip < options.chain; ++chip) {
    auto& driver = chips.emplace_back(session.trouble());
    session.bind(driver);
    driver.setLatchPin(&latch);
    driver.setDeviceChain(chain);
    chain->push_back(&driver);
    // A fresh driver takes 0xff for what is on the outputs already and wouldn't even store it.
    driver.writeOutputs(0, CLinuxSpiDevice::NO_TRANSFER);
    driver.writeOutputs(byteOf(options.value, chip), CLinuxSpiDevice::NO_TRANSFER);
  }
  session.run(chips.front(),
              [&] { return chips.front().transferData(CLinuxSpiDevice::DO_TRANSFER); });
}

void writeSelectLatched(const WriteOptions& options, Session& session) {
  SelectLatchedChips chips(options.value, options.chain);
  session.bind(chips);
  session.run(chips, [&] { return chips.write(); });
}

void write(const Context& context, const WriteOptions& options, Session& session) {
  if (options.latch) {
    writeLatched(options, session);
  } else {
    writeSelectLatched(options, session);
  }
  RecordWriter writer(context.out, context.options.format, kChip.name, kColumns);
  writer.write({fmt::format("{:#0{}x} to {} {}", options.value, 2 + 2 * options.chain,
                            options.chain, options.chain == 1 ? "chip" : "chips"),
                options.value, int64_t{options.chain},
                options.latch ? options.latch->text : std::string("select")});
}

void checkOptions(const Context& context, const WriteOptions& options) {
  const uint64_t highest = highestOf(8 * options.chain);
  if (options.value > highest) {
    throw CLI::ValidationError(
        "VALUE", fmt::format("{:#x} is above {:#x}, the highest value of {} {}", options.value,
                             highest, options.chain, options.chain == 1 ? "chip" : "chips"));
  }
  if (options.latch && context.options.selectPin) {
    throw CLI::ValidationError(
        "--cs",
        "a 74HC595 has no select line: --cs is for chips whose RCLK is wired to it, "
        "--latch for chips whose RCLK has a pin of its own");
  }
}

void addOperations(App& app, CLI::App& chip) {
  const auto options = std::make_shared<WriteOptions>();
  CLI::App& write = app.addOperation(
      chip, "write",
      "Set the outputs: bit 0 is QA of the chip nearest MOSI. Without --latch RCLK must be wired\n"
      "to the select, the node's own or --cs, at whose end the outputs change.",
      "  varnel hc595 write 0xa5 --latch 22\n"
      "  varnel hc595 write 0x123456 --chain 3 --latch gpiochip1:15\n"
      "  varnel hc595 write 0b00001111 --spi /dev/spidev0.1\n"
      "  varnel hc595 write 255 --cs GPIO25 --cs-active-low",
      [options](const Context& context) {
        checkOptions(context, *options);
        return runSession(context.options, kChip, context.err,
                          [&](Session& session) { hc595::write(context, *options, session); });
      });
  addValue(write, "VALUE", options->value,
           "0 to 255, or as many bytes as the chain has chips, the lowest for the chip\n"
           "nearest MOSI: decimal, 0x.. or 0b..");
  addPinOption(write, std::string(kLatchOption), options->latch,
               "GPIO line at RCLK, in any form of --cs (default: none, RCLK is at the\n"
               "select)");
  addWhole(write, "--chain", options->chain, 1, kMostChips, "a number of chips",
           "how many chips are in a row, 1 to 8")
      ->type_name("N");
}

}  // namespace
}  // namespace hc595

void registerHc595(App& app) {
  app.addChip(hc595::kChip, hc595::addOperations);
}

}  // namespace tool
