// SPDX-License-Identifier: MIT
// Reads an encoder at an iC-MD counter ten times.
//
//   icmd_read [NODE [PIN]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   PIN   GPIO line of the chip select, counted through all GPIO chips (default 25)
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

namespace iC_MD = Varnel::iC_MD;
using Counter = iC_MD::CSpiQuadratureCounter48Bit;

// The driver's own speed. A faster bus puts bytes of its own into every exchange.
constexpr uint16_t kBusSpeedKHz = 1000;
constexpr uint8_t kStatus0 = 0x48;  // of counter 0; reading it clears it
constexpr uint8_t kInputError = 0x80;
constexpr uint8_t kPowerWasDown = 0x10;
constexpr int kReadings = 10;
constexpr unsigned int kIntervalMs = 100;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [start]
// One counter of 32 bits, at differential inputs. The first status tells of power-up: from then on
// that bit means that the chip has lost its configuration.
bool start(Counter& counter) {
  counter.setRegisterValue(iC_MD::REG_COUNTER_INPUT_CONFIG, iC_MD::BITMASK_REG0_CNTCFG,
                           iC_MD::REG0_CNT0_32BIT);
  uint8_t status = 0;
  return !failed("configuring", counter.connect()) &&
         !failed("clearing the counter", counter.clearCounter(0)) &&
         !failed("reading the status", counter.readRegister(kStatus0, status));
}
// [start]

// [watch]
// A position comes back with result 0 also when the read failed, and is then the one before. Only
// the select tells: a read that failed did not end with releasing the chip.
class WatchedSelect : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit WatchedSelect(Varnel::ILinuxSpiChipSelector& select) : select_(select) {}
  TErrCode enable(bool select) override {
    const TErrCode code = select_.enable(select);
    released_ = !select && code >= 0;
    return code;
  }
  bool released() const { return released_; }

 private:
  Varnel::ILinuxSpiChipSelector& select_;
  bool released_ = true;
};

bool readPosition(Counter& counter, const WatchedSelect& select, int32_t& position) {
  if (failed("reading the position", counter.readPosition32(0, position))) {
    return false;
  }
  if (select.released()) {
    return true;
  }
  std::fprintf(stderr, "reading the position: failed, the log says why\n");
  failed("releasing the chip", counter.enableChipSelect(false));
  return false;
}
// [watch]

// [healthy]
bool healthy(Counter& counter) {
  uint8_t status = 0;
  if (failed("reading the status", counter.readRegister(kStatus0, status))) {
    return false;
  }
  const char* trouble = (status & kPowerWasDown) != 0 ? "the chip lost its configuration"
                        : (status & kInputError) != 0 ? "A and B changed at the same time"
                                                      : nullptr;
  if (trouble != nullptr) {
    std::fprintf(stderr, "%s: status 0x%02x\n", trouble, status);
  }
  return trouble == nullptr;
}
// [healthy]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const auto pin = argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 25U;

  // [setup]
  Varnel::CGpioPinChipSelector line(pin, Orv::PIN_MODE_INVERT);
  if (failed("taking the select line", line.connect())) {
    return EXIT_FAILURE;
  }
  WatchedSelect select(line);
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return EXIT_FAILURE;
  }
  Counter counter;
  counter.setBus(&bus);
  counter.setChipSelector(&select);
  bool good = start(counter);
  // [setup]

  for (int i = 0; good && i < kReadings; ++i) {
    int32_t position = 0;
    good = readPosition(counter, select, position) && healthy(counter);
    if (good) {
      std::printf("position %6d\n", static_cast<int>(position));
      Orv::CThread::sleep(kIntervalMs);
    }
  }

  return !failed("closing the bus", bus.close()) && good ? EXIT_SUCCESS : EXIT_FAILURE;
}
