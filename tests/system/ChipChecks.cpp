// SPDX-License-Identifier: MIT
#include <fstream>

#include "tests/system/Checks.h"
#include "tests/system/Transfer.h"

using Varnel::CGpioPinChipSelector;
using Varnel::CLinuxSpiBus;
using Varnel::CLinuxSpiDevice;

namespace checks {
namespace {

constexpr uint8_t kReadIdentity = 0x9F;
constexpr uint8_t kReadData = 0x03;

/// One byte per managed transfer, the device selected as `handling` says; what came back.
std::string byteByByte(CLinuxSpiBus& bus, Varnel::ILinuxSpiChipSelector* select,
                       const std::vector<uint8_t>& bytes, bool keepSelected, uint32_t speedHz = 0) {
  CLinuxSpiDevice device(&bus, select, nullptr);
  std::vector<uint8_t> answers;
  for (size_t i = 0; i < bytes.size(); ++i) {
    Varnel::eCS_Handling handling = Varnel::CS_NOTHING;
    if (!keepSelected) {
      handling = Varnel::CS_SELECT_DESELECT;
    } else if (i == 0) {
      handling = Varnel::CS_JUST_SELECT;
    } else if (i + 1 == bytes.size()) {
      handling = Varnel::CS_JUST_DESELECT;
    }
    Transfer transfer({bytes[i]}, 8, speedHz);
    const TErrCode code = bus.executeManagedTransfer(&device, transfer.settings, handling);
    if (code < 0) {
      return "failed with " + std::to_string(code);
    }
    answers.push_back(transfer.received().front());
  }
  return hex(answers);
}

std::string inOneMessage(CLinuxSpiBus& bus, Varnel::ILinuxSpiChipSelector* select,
                         const std::vector<uint8_t>& bytes) {
  CLinuxSpiDevice device(&bus, select, nullptr);
  Transfer transfer(bytes);
  const TErrCode code =
      bus.executeManagedTransfer(&device, transfer.settings, Varnel::CS_SELECT_DESELECT);
  return std::to_string(code) + ", " + hex(transfer.received());
}

/// Messages that the kernel counted on the controller so far.
uint64_t messagesSoFar() {
  std::ifstream file("/sys/class/spi_master/spi0/statistics/messages");
  uint64_t count = 0;
  file >> count;
  return count;
}

void checkFlash(Record& record) {
  CGpioPinChipSelector select(kFlashSelect, Orv::PIN_MODE_INVERT);
  record.run("flash: connect the select", [&] { return select.connect(); });
  CLinuxSpiBus bus;
  bus.setSPIDevice(kFlashNode);
  bus.setSpiSpeedKHz(1000);
  record.run("flash: open", [&] { return bus.open(); });

  const std::vector<uint8_t> identity = {kReadIdentity, 0, 0, 0};
  record.note("flash: identity, selected over four messages",
              byteByByte(bus, &select, identity, true));
  record.note("flash: identity once more", byteByByte(bus, &select, identity, true));
  record.note("flash: identity in one message", inOneMessage(bus, &select, identity));
  record.note("flash: selected for each byte anew", byteByByte(bus, &select, identity, false));
  record.note("flash: never selected", byteByByte(bus, nullptr, identity, true));
  record.note("flash: what its image holds at 0x001234",
              inOneMessage(bus, &select, {kReadData, 0x00, 0x12, 0x34, 0, 0, 0, 0, 0, 0}));
  record.note("flash: a bus faster than the device settles between the bytes",
              byteByByte(bus, &select, identity, true, 500000));

  bus.close();
  bus.setSpiSpeedKHz(1000);
  bus.open();
  byteByByte(bus, &select, identity, true);
  const auto count = [&](uint32_t mode) {
    CLinuxSpiDevice device(&bus, &select, nullptr);
    Transfer transfer({0});
    transfer.settings.bus_settings.Mode = mode;
    const uint64_t before = messagesSoFar();
    bus.executeManagedTransfer(&device, transfer.settings, Varnel::CS_SELECT_DESELECT);
    return std::to_string(messagesSoFar() - before);
  };
  record.note("flash: messages of a managed transfer", count(0));
  record.note("flash: messages after a new mode", count(3));
  record.run("flash: close", [&] { return bus.close(); });
}

void checkConverter(Record& record) {
  CLinuxSpiBus bus;
  bus.setSPIDevice("/dev/spidev4.0");
  bus.setSpiSpeedKHz(1000);
  record.run("converter: open", [&] { return bus.open(); });
  // Start, then the eight bits of the result and zeros behind them.
  for (const uint8_t control : std::initializer_list<uint8_t>{0x8F, 0xCF}) {
    Transfer transfer({control, 0, 0});
    const std::string name = "converter: answer to " + hex({control});
    record.run(name + ", code", [&] { return bus.transferData(transfer.settings); });
    record.note(name, hex(transfer.received()));
  }
  uint8_t sent[3] = {0x8F, 0, 0};
  uint8_t received[3] = {kUntouched, kUntouched, kUntouched};
  spi_ioc_transfer transfers[3] = {};
  for (int i = 0; i < 3; ++i) {
    transfers[i].tx_buf = reinterpret_cast<uintptr_t>(&sent[i]);
    transfers[i].rx_buf = reinterpret_cast<uintptr_t>(&received[i]);
    transfers[i].len = 1;
  }
  Varnel::stSpiMultipleTransferSettings message;
  message.ioc_transfer = transfers;
  message.transfer_count = 3;
  record.run("converter: three transfers", [&] { return bus.transferMultipleData(message); });
  record.note("converter: received by them", hex({received[0], received[1], received[2]}));
  record.run("converter: close", [&] { return bus.close(); });
}

}  // namespace

void checkChips(Record& record) {
  checkFlash(record);
  checkConverter(record);
}

}  // namespace checks
