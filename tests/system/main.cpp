// SPDX-License-Identifier: MIT
// system_checks SECTION...: what the library does on this machine's nodes, one line per check. The
// nodes are those of docs/real-kernel.md, real ones or the virtual board's.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string_view>

#include "tests/system/Checks.h"

namespace {

struct Section {
  std::string_view name;
  void (*check)(checks::Record&);
};

constexpr Section kSections[] = {
    {"bus", checks::checkBus},       {"controllers", checks::checkControllers},
    {"pins", checks::checkPins},     {"chips", checks::checkChips},
    {"eeprom", checks::checkEeprom},
};

bool run(std::string_view name) {
  for (const Section& section : kSections) {
    if (section.name == name) {
      checks::Record record{std::string(name)};
      section.check(record);
      return true;
    }
  }
  std::cerr << "system_checks: there is no section " << name << '\n';
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    for (int i = 1; i < argc; ++i) {
      if (!run(argv[i])) {
        return EXIT_FAILURE;
      }
    }
  } catch (const std::exception& error) {
    std::cerr << "system_checks: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
