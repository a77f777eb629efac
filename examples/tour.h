// SPDX-License-Identifier: MIT
#ifndef EXAMPLES_TOUR_H
#define EXAMPLES_TOUR_H

#include <cstdint>

#include "varnel/varnel.h"

namespace tour {

/// The lines of boards/tour.toml, all on the first GPIO chip: DacCs is DAC_CS there.
enum Line : uint8_t {
  ExpanderLatch = 2,
  OutLatch,
  InLoad,
  InEnable,
  DacCs,
  DacLdac,
  LedXlat,
  LedBlank,
  CounterCs,
  MemoryCs,
  PowerCs,
  PowerStby,
  PowerBusy,
  MotorCs = 16,
  MotorStby,
  MotorBusy,
  ThermoCs = 20,
  ThermoDrdy,
  ThermoReset,
  ThermoStart,
  AdcCs,
  AdcDrdy,
  AdcReset,
  PotSync,
};

/// Prints a negative code with what was being done, and says whether it is one.
bool failed(const char* what, TErrCode code);
/// Prints what was wrong when something was not as expected, and passes that on.
bool expect(bool asExpected, const char* what);
/// Prints a result behind the chip's name, at once: a trace of the board goes its own way.
[[gnu::format(printf, 2, 3)]] void say(const char* chip, const char* format, ...);

/// A bus that is closed when its visit ends.
class Bus : public Varnel::CLinuxSpiBus {
 public:
  /// Speed first: a device never runs faster than its bus.
  bool openAt(const char* node, uint16_t speedKHz);
  ~Bus() override;
};

/// Each visit lets one chip do its work, and is true if the chip answered as a real one does.
bool visitSelectExpander();
bool visitInputsAndOutputs();
bool visitMcp4822();
bool visitTlc5947();
bool visitIcmd();
bool visitAt25640b();
bool visitPowerStep01();
bool visitL6470();
bool visitAds1248();
bool visitAds1256();
bool visitAd529x();

}  // namespace tour

#endif
