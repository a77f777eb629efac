// SPDX-License-Identifier: MIT
#include "tests/system/Checks.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"
#include "varnel/common/LinuxSpiBus.h"

namespace checks {

void checkEeprom(Record& record) {
  Varnel::CGpioPinChipSelector select(kFlashSelect, Orv::PIN_MODE_INVERT);
  record.run("connect the select", [&] { return select.connect(); });
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(kFlashNode);
  bus.setSpiSpeedKHz(1000);
  record.run("open", [&] { return bus.open(); });

  Varnel::EEPROM::C64kByte_At25640B eeprom;
  eeprom.setBus(&bus);
  eeprom.setChipSelector(&select);
  const auto noteStatus = [&](const std::string& name) {
    uint8_t status = 0xEE;
    const std::string result = outcome([&] { return eeprom.readStatus(status); });
    record.note(name, result + ", " + hex({status}));
  };
  noteStatus("status at first");
  record.run("write enable", [&] { return eeprom.setWriteEnable(true); });
  noteStatus("status after write enable");
  record.run("write disable", [&] { return eeprom.setWriteEnable(false); });
  noteStatus("status after write disable");

  // The control: with no select the chip hears nothing, and nobody answers.
  eeprom.setChipSelector(nullptr);
  record.run("write enable without a select", [&] { return eeprom.setWriteEnable(true); });
  eeprom.setChipSelector(&select);
  noteStatus("status after it");
  record.run("close", [&] { return bus.close(); });
}

}  // namespace checks
