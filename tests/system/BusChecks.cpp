// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <unistd.h>

#include "tests/system/Checks.h"
#include "tests/system/Transfer.h"

using Varnel::CLinuxSpiBus;
using Varnel::CLinuxSpiDevice;

namespace checks {
namespace {

/// Selects nothing, but keeps when it was asked to, and whether something was received before.
class Watcher : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit Watcher(const Transfer& transfer) : transfer_(transfer) {}

  TErrCode enable(bool select) override {
    seen_ += seen_.empty() ? "" : ", ";
    seen_ += !select ? "deselect" : transfer_.touched() ? "settle, select" : "select";
    return 0;
  }
  std::string seen() const { return seen_.empty() ? "no select" : seen_; }

 private:
  const Transfer& transfer_;
  std::string seen_;
};

/// "0; settle, select, deselect; received 00 00"
std::string managed(CLinuxSpiBus& bus, Transfer& transfer, Varnel::eCS_Handling handling) {
  Watcher watcher(transfer);
  CLinuxSpiDevice device(&bus, &watcher, nullptr);
  const std::string result =
      outcome([&] { return bus.executeManagedTransfer(&device, transfer.settings, handling); });
  return result + "; " + watcher.seen() + "; received " + hex(transfer.received());
}

/// A message of several transfers, all of one length, with or without room to receive.
class Message {
 public:
  Message(uint16_t count, uint32_t length, bool receives = true)
      : sent_(size_t{count} * length), received_(sent_.size(), kUntouched), transfers_(count) {
    for (size_t i = 0; i < count; ++i) {
      transfers_[i].tx_buf = reinterpret_cast<uintptr_t>(&sent_[i * length]);
      transfers_[i].rx_buf = receives ? reinterpret_cast<uintptr_t>(&received_[i * length]) : 0;
      transfers_[i].len = length;
      transfers_[i].bits_per_word = 8;
    }
    settings.ioc_transfer = transfers_.data();
    settings.transfer_count = count;
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  std::string run(CLinuxSpiBus& bus) {
    return outcome([&] { return bus.transferMultipleData(settings); });
  }
  const std::vector<uint8_t>& received() const { return received_; }

  Varnel::stSpiMultipleTransferSettings settings;

 private:
  std::vector<uint8_t> sent_;
  std::vector<uint8_t> received_;
  std::vector<spi_ioc_transfer> transfers_;
};

std::string one(CLinuxSpiBus& bus, Transfer& transfer) {
  return outcome([&] { return bus.transferData(transfer.settings); });
}

void checkSettings(Record& record, CLinuxSpiBus& bus) {
  record.run("open", [&] { return bus.open(); });
  record.note("after open", readBack(bus.fileDescriptor()));
  for (const uint8_t mode : std::initializer_list<uint8_t>{1, 2, 3, 0}) {
    const std::string name = "mode " + std::to_string(mode);
    record.run(name, [&] { return bus.setMode(mode); });
    record.note("after " + name, readBack(bus.fileDescriptor()));
  }
  for (const uint16_t speedKHz : std::initializer_list<uint16_t>{1, 65535, 1000}) {
    const std::string name = std::to_string(speedKHz) + " kHz";
    record.run(name, [&] { return bus.setSpiSpeedKHz(speedKHz); });
    record.note("after " + name, readBack(bus.fileDescriptor()));
  }
  record.run("0 kHz", [&] { return bus.setSpiSpeedKHz(0); });
  record.note("after 0 kHz", readBack(bus.fileDescriptor()));
  record.run("1000 kHz again", [&] { return bus.setSpiSpeedKHz(1000); });
  record.run("LSB first", [&] { return bus.setLSBFirst(1); });
  record.note("after LSB first", readBack(bus.fileDescriptor()) + ", bus says " +
                                     std::to_string(bus.busSettings().LSBFirst));
  // The bit of LSB first again, as part of a mode: refused, but kept by the bus.
  record.run("mode 8", [&] { return bus.setMode(8); });
  record.note("after mode 8", readBack(bus.fileDescriptor()) + ", bus says " +
                                  std::to_string(bus.busSettings().Mode));
  record.run("mode 0 again", [&] { return bus.setMode(0); });
  record.note("works after refused settings", threeBytes(bus));
}

void checkTransfers(Record& record, CLinuxSpiBus& bus) {
  Transfer single({1, 2, 3, 4, 5});
  record.note("single transfer", one(bus, single));
  record.note("received by it", hex(single.received()));
  record.note("speed of a transfer that asked for none",
              std::to_string(single.settings.ioc_transfer.speed_hz));
  Transfer slow({1, 2}, 8, 100000);
  record.note("transfer at 100 kHz", one(bus, slow));
  record.note("received at 100 kHz", hex(slow.received()));
  record.note("after 100 kHz", readBack(bus.fileDescriptor()));
  Transfer moded({1, 2});
  moded.settings.bus_settings.Mode = 3;
  record.note("transfer in mode 3", one(bus, moded));
  record.note("mode after it", readBack(bus.fileDescriptor()));
  Transfer none(std::vector<uint8_t>{});
  record.note("transfer of nothing", one(bus, none));
  Message message(3, 2);
  record.note("three transfers", message.run(bus));
  record.note("received by the three", hex(message.received()));
  // Each takes at least 64 of the 4096 bytes that a message may have on this processor.
  Message many(64, 4);
  record.note("64 transfers", many.run(bus));
  Message tooMany(65, 4);
  record.note("65 transfers", tooMany.run(bus));
  const uint32_t word = 0;
  record.run("write 4 bytes", [&] { return bus.writeData(&word); });
}

void checkRefusals(Record& record, CLinuxSpiBus& bus) {
  Transfer largest(std::vector<uint8_t>(4096));
  record.note("4096 bytes", one(bus, largest));
  Transfer tooLarge(std::vector<uint8_t>(4097));
  record.note("4097 bytes", one(bus, tooLarge));
  record.note("received of 4097 bytes", tooLarge.touched() ? "something" : "nothing");
  Message fits(2, 2048, false);
  record.note("two transfers of 2048 bytes", fits.run(bus));
  Message exceeds(2, 2049, false);
  record.note("two transfers of 2049 bytes", exceeds.run(bus));
  record.note("works after long messages", threeBytes(bus));

  struct Odd {
    uint8_t bits;
    size_t length;
  };
  for (const Odd& odd : {Odd{12, 3}, Odd{16, 3}, Odd{15, 1}, Odd{24, 6}, Odd{32, 6}, Odd{33, 8}}) {
    const std::string name =
        std::to_string(odd.length) + " bytes in words of " + std::to_string(odd.bits) + " bits";
    Transfer transfer(std::vector<uint8_t>(odd.length), odd.bits);
    record.note(name, one(bus, transfer));
  }
  record.note("works after odd lengths", threeBytes(bus));

  Transfer reversed({1, 2});
  reversed.settings.bus_settings.LSBFirst = 1;
  record.note("transfer LSB first", one(bus, reversed));
  Transfer nowhere({1, 2});
  nowhere.settings.ioc_transfer.tx_buf = 8;
  record.note("transfer from a bad address", one(bus, nowhere));
  record.note("works after both", threeBytes(bus));
}

void checkManaged(Record& record, CLinuxSpiBus& bus) {
  const auto run = [&](const std::string& name, Varnel::eCS_Handling handling, uint32_t mode = 0,
                       uint32_t speedHz = 0) {
    Transfer transfer({1, 2}, 8, speedHz);
    transfer.settings.bus_settings.Mode = mode;
    record.note(name, managed(bus, transfer, handling));
  };
  bus.setSpiSpeedKHz(2000);
  run("managed after a new speed", Varnel::CS_SELECT_DESELECT);
  run("managed again", Varnel::CS_SELECT_DESELECT);
  run("managed in another mode", Varnel::CS_SELECT_DESELECT, 3);
  record.note("after another mode", readBack(bus.fileDescriptor()));
  run("managed in mode 0 again", Varnel::CS_SELECT_DESELECT);
  run("managed, just select", Varnel::CS_JUST_SELECT);
  run("managed, nothing", Varnel::CS_NOTHING);
  run("managed, just deselect", Varnel::CS_JUST_DESELECT);
  run("managed, slower than the bus", Varnel::CS_SELECT_DESELECT, 0, 100000);
  record.note("after slower than the bus", readBack(bus.fileDescriptor()));
  run("managed, slower again", Varnel::CS_SELECT_DESELECT, 0, 100000);

  Transfer first({1, 2});
  Watcher watcher(first);
  CLinuxSpiDevice device(&bus, &watcher, nullptr);
  Message message(2, 2);
  record.run("managed message of two", [&] {
    return bus.executeManagedTransferMultipleData(&device, message.settings,
                                                  Varnel::CS_SELECT_DESELECT);
  });
  record.note("selects of the message", watcher.seen());
  record.note("received by the message", hex(message.received()));
}

/// What the guide says to do after a failure in the middle of a managed transfer.
void checkRecovery(Record& record, CLinuxSpiBus& bus) {
  bus.setSpiSpeedKHz(500);
  Transfer settling({1, 2});
  managed(bus, settling, Varnel::CS_SELECT_DESELECT);

  Transfer odd({1, 2, 3}, 16, 100000);
  record.note("refused while settling", managed(bus, odd, Varnel::CS_SELECT_DESELECT));
  record.note("after it, lowered", readBack(bus.fileDescriptor()));
  record.run("recovery: close", [&] { return bus.close(); });
  record.run("recovery: speed", [&] { return bus.setSpiSpeedKHz(500); });
  record.run("recovery: open", [&] { return bus.open(); });
  record.note("after recovery", readBack(bus.fileDescriptor()));
  Transfer good({1, 2});
  record.note("managed after recovery", managed(bus, good, Varnel::CS_SELECT_DESELECT));
  // A device logs what its bus returns.
  Watcher watcher(good);
  CLinuxSpiDevice device(&bus, &watcher, nullptr);
  Message tooLarge(1, 4097);
  record.run("device, managed with 4097 bytes", [&] {
    return device.executeManagedTransfer(tooLarge.settings, Varnel::CS_SELECT_DESELECT);
  });
  record.note("selects of 4097 bytes", watcher.seen());
  record.run("device, 4097 bytes", [&] { return device.executeTransfer(tooLarge.settings); });
  Varnel::CGpioPinChipSelector unconnected(kFlashSelect, Orv::PIN_MODE_INVERT);
  device.setChipSelector(&unconnected);
  Message message(1, 2);
  record.run("device with a select that is not connected", [&] {
    return device.executeManagedTransfer(message.settings, Varnel::CS_SELECT_DESELECT);
  });
  Transfer reversed({1, 2});
  reversed.settings.bus_settings.LSBFirst = 1;
  record.note("managed LSB first", managed(bus, reversed, Varnel::CS_SELECT_DESELECT));
  record.note("works after that", threeBytes(bus));
}

void checkReopening(Record& record, CLinuxSpiBus& bus) {
  bus.setMode(2);
  record.run("close", [&] { return bus.close(); });
  record.note("closed", std::string(bus.isOpen() ? "open" : "not open") + ", descriptor " +
                            std::to_string(bus.fileDescriptor()));
  // Mode and word size stay with the node, the speed goes with the last who had it open.
  const int descriptor = ::open(kFlashNode, O_RDWR);
  const std::string kept = readBack(descriptor);
  ::close(descriptor);
  record.note("kept by the node", kept.substr(0, kept.rfind(',')) +
                                      (kept.ends_with(" 500000 Hz") ? ", the speed" : ""));
  record.run("mode 1 while closed", [&] { return bus.setMode(1); });
  record.run("300 kHz while closed", [&] { return bus.setSpiSpeedKHz(300); });
  record.run("open again", [&] { return bus.open(); });
  record.note("after open again", readBack(bus.fileDescriptor()));

  CLinuxSpiBus other;
  other.setSPIDevice(kFlashNode);
  record.run("second bus on the node", [&] { return other.open(); });
  record.note("what the first finds then", readBack(bus.fileDescriptor()));
  record.run("second bus closed", [&] { return other.close(); });
  record.note("what stays of it", readBack(bus.fileDescriptor()));
  record.run("first bus closed", [&] { return bus.close(); });

  CLinuxSpiBus missing;
  missing.setSPIDevice("/dev/spidev9.9");
  record.run("missing node", [&] { return missing.open(); });
  record.note("after missing node", std::string(missing.isOpen() ? "open" : "not open") +
                                        ", descriptor " + std::to_string(missing.fileDescriptor()));
  missing.setSPIDevice("/dev/null");
  record.run("node that is no spidev", [&] { return missing.open(); });
  record.run("close it", [&] { return missing.close(); });
}

}  // namespace

void checkBus(Record& record) {
  CLinuxSpiBus bus;
  bus.setSPIDevice(kFlashNode);
  checkSettings(record, bus);
  checkTransfers(record, bus);
  checkRefusals(record, bus);
  checkManaged(record, bus);
  checkRecovery(record, bus);
  checkReopening(record, bus);
}

}  // namespace checks
