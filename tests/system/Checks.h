// SPDX-License-Identifier: MIT
#ifndef TESTS_SYSTEM_CHECKS_H
#define TESTS_SYSTEM_CHECKS_H

#include "tests/system/Record.h"

namespace checks {

/// The bus on an i.MX controller with nothing selected: settings, transfers, refusals.
void checkBus(Record& record);
/// What three kinds of controllers take: an i.MX one, GPIO lines, the Raspberry Pi's.
void checkControllers(Record& record);
/// GPIO pins.
void checkPins(Record& record);
/// The flash behind a GPIO select, and a converter: chips that answer.
void checkChips(Record& record);
/// The EEPROM driver on the flash, which knows the same instructions for its status.
void checkEeprom(Record& record);

/// The pin at the flash's select: line 19 of the third GPIO controller, counted over all.
constexpr unsigned int kFlashSelect = 83;
constexpr const char* kFlashNode = "/dev/spidev0.0";

}  // namespace checks

#endif
