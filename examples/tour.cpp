// SPDX-License-Identifier: MIT
// Tours the board of boards/tour.toml, which has every chip of the library: each one does its work,
// and what can be read back is. Ends with status 0 if every chip answered as a real one does.
//
//   tour
#include "tour.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"

namespace tour {

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

bool expect(bool asExpected, const char* what) {
  if (!asExpected) {
    std::fprintf(stderr, "%s\n", what);
  }
  return asExpected;
}

void say(const char* chip, const char* format, ...) {
  std::printf("%-11s ", chip);
  std::va_list values;
  va_start(values, format);
  std::vprintf(format, values);
  va_end(values);
  std::printf("\n");
  std::fflush(stdout);
}

bool Bus::openAt(const char* node, uint16_t speedKHz) {
  setSPIDevice(node);
  return !failed("setting the speed", setSpiSpeedKHz(speedKHz)) && !failed("opening", open());
}

Bus::~Bus() {
  if (isOpen()) {
    failed("closing", close());
  }
}

}  // namespace tour

int main() {
  struct Stop {
    const char* chip;
    bool (*visit)();
  };
  constexpr Stop kStops[] = {
      {"the expander's chips", tour::visitSelectExpander},
      {"74HC595 and 74LV165A", tour::visitInputsAndOutputs},
      {"MCP4822", tour::visitMcp4822},
      {"TLC5947", tour::visitTlc5947},
      {"iC-MD", tour::visitIcmd},
      {"AT25640B", tour::visitAt25640b},
      {"powerSTEP01", tour::visitPowerStep01},
      {"L6470", tour::visitL6470},
      {"ADS1248", tour::visitAds1248},
      {"ADS1256", tour::visitAds1256},
      {"AD529x", tour::visitAd529x},
  };
  int status = EXIT_SUCCESS;
  for (const Stop& stop : kStops) {
    if (!stop.visit()) {
      std::fprintf(stderr, "%s: not as expected\n", stop.chip);
      status = EXIT_FAILURE;
    }
  }
  return status;
}
