// SPDX-License-Identifier: MIT
// Reads the four channels of an ADS1256 analog-to-digital converter.
//
//   ads1256_read [NODE [VREF]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   VREF  voltage between the chip's reference pins (default 2.5)
//
// GPIO lines, counted through all GPIO chips: 25 selects the chip, 24 is DRDY, 23 RESET.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

using Converter = Varnel::CSpiAnalogIn4x24Bit_ADS1256;

constexpr unsigned int kSelectLine = 25;
constexpr uint32_t kDataReadyLine = 24;
constexpr uint32_t kResetLine = 23;
// The chip wants 6.5 us between a command and its data, and gets half a clock.
constexpr uint16_t kBusSpeedKHz = 75;
// The self-calibration that the driver starts takes 2.0 ms.
constexpr unsigned int kCalibrationMs = 3;
constexpr double kGain = 2;
constexpr unsigned int kIntervalMs = 100;
constexpr int kReadings = 3;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [select]
// The driver writes the first register right after the reset, but the chip calibrates for 0.6 ms
// then. So this select can wait once.
class Select : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit Select(unsigned int line) : line_(line, Orv::PIN_MODE_INVERT) {}
  TErrCode connect() { return line_.connect(); }
  void waitOnce() { waits_ = true; }
  TErrCode enable(bool select) override {
    if (select && waits_) {
      Orv::CThread::sleep(1);
      waits_ = false;
    }
    return line_.enable(select);
  }

 private:
  Varnel::CGpioPinChipSelector line_;
  bool waits_ = false;
};
// [select]

// [start]
// The speed comes before everything else: a device never runs faster than its bus. And nothing may
// be sent before the self-calibration is over.
bool start(Varnel::CLinuxSpiBus& bus, Select& select, Converter& converter) {
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return false;
  }
  select.waitOnce();
  if (failed("starting the converter", converter.open())) {
    return false;
  }
  Orv::CThread::sleep(kCalibrationMs);
  return true;
}
// [start]

// [recover]
// After a failure the chip may still be selected, and the bus may have kept a setting. A bus must
// be closed before it is opened anew. What the chip made of a cut command only a reset undoes. The
// driver then goes on with the channel it had come to while the inputs are those of the first one:
// the first value is of another channel, and the conversion is for nobody.
bool recover(Varnel::CLinuxSpiBus& bus, Select& select, Converter& converter) {
  if (failed("releasing the chip", select.enable(false))) {
    return false;
  }
  if (bus.isOpen() && failed("closing the bus", bus.close())) {
    return false;
  }
  return start(bus, select, converter) && !failed("converting", converter.doConversion());
}
// [recover]

// [volts]
// Codes are not sign-extended: 0x800000 and above are negative inputs. Full scale is twice the
// reference, over the gain.
double volts(int32_t code, double vref) {
  const int32_t value = code < 0x800000 ? code : code - 0x1000000;
  return value * 2 * vref / (kGain * 8388607.0);
}
// [volts]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const double vref = argc > 2 ? std::strtod(argv[2], nullptr) : 2.5;

  // [setup]
  // Connecting the select drives it high, not selected, before anything moves on the bus.
  Select select(kSelectLine);
  if (failed("taking the select line", select.connect())) {
    return EXIT_FAILURE;
  }
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice(node);
  Converter converter;
  converter.setBus(&bus);
  converter.setChipSelector(&select);
  converter.configurePins(kResetLine, kDataReadyLine);
  bool good = start(bus, select, converter) || recover(bus, select, converter);
  // [setup]

  // [read]
  for (int i = 0; good && i < kReadings; ++i) {
    // One failure may be a glitch: start afresh and convert again. Two in a row are not.
    good = !failed("converting", converter.doConversion()) ||
           (recover(bus, select, converter) && !failed("converting", converter.doConversion()));
    for (uint16_t index = 0; good && index < converter.numberOfChannels(); ++index) {
      const int32_t code = converter.readChannel(index);
      std::printf("channel %d  code 0x%06x  %9.6f V\n", index, static_cast<unsigned int>(code),
                  volts(code, vref));
    }
    Orv::CThread::sleep(kIntervalMs);
  }
  // [read]

  // [close]
  // The bus object does not close the node by itself, and a failure leaves the chip selected.
  good = !failed("releasing the chip", select.enable(false)) && good;
  if (bus.isOpen()) {
    good = !failed("closing the bus", bus.close()) && good;
  }
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
  // [close]
}
