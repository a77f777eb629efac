// SPDX-License-Identifier: MIT
// Reads both channels of an ADS1248 analog-to-digital converter.
//
//   ads1248_read [NODE [VREF [RATE]]]
//
//   NODE  spidev node of the bus (default /dev/spidev1.0); leave its own chip select unconnected
//   VREF  voltage between the chip's reference pins (default 2.5)
//   RATE  0 to 9 for 5, 10, 20, 40, 80, 160, 320, 640, 1000 and 2000 samples/s (default 7)
//
// GPIO lines, counted through all GPIO chips: 25 selects the chip, 24 is DRDY, 23 RESET, 22 START.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orv/ErrorCode.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"

namespace {

using Converter = Varnel::CSpiAnalogIn2x24Bit_ADS1248;

constexpr unsigned int kSelectLine = 25;
constexpr uint32_t kDataReadyLine = 24;
constexpr uint32_t kResetLine = 23;
constexpr uint32_t kStartLine = 22;
// The chip's limit. A faster bus settles before every transfer.
constexpr uint16_t kBusSpeedKHz = 2000;
constexpr TErrCode kNotReady = -36;
constexpr int kReadings = 5;

bool failed(const char* what, TErrCode code) {
  if (code < 0) {
    std::fprintf(stderr, "%s: %s (%d)\n", what, ErrorToString(code), static_cast<int>(code));
  }
  return code < 0;
}

// [select]
// The driver writes the first register right after the reset, but the chip hears nothing for 0.6 ms
// then. So this select can wait once. It also knows whether the chip is selected.
class Select : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit Select(unsigned int line) : line_(line, Orv::PIN_MODE_INVERT) {}
  TErrCode connect() { return line_.connect(); }
  void waitOnce() { waits_ = true; }
  bool selected() const { return selected_; }
  TErrCode enable(bool select) override {
    if (select && waits_) {
      Orv::CThread::sleep(1);
      waits_ = false;
    }
    const TErrCode code = line_.enable(select);
    selected_ = code < 0 ? selected_ : select;
    return code;
  }

 private:
  Varnel::CGpioPinChipSelector line_;
  bool waits_ = false;
  bool selected_ = false;
};
// [select]

// How long a conversion takes at each rate, in ms and rounded up.
constexpr unsigned int kConversionMs[] = {201, 101, 51, 26, 13, 7, 4, 2, 2, 1};

// [start]
// The speed comes before everything else: a device never runs faster than its bus. The chip stops
// reading by itself only with its next result, and until then may spoil a register that is read.
bool start(Varnel::CLinuxSpiBus& bus, Select& select, Converter& converter, uint8_t rate) {
  if (failed("setting the speed", bus.setSpiSpeedKHz(kBusSpeedKHz)) ||
      failed("opening the bus", bus.open())) {
    return false;
  }
  select.waitOnce();
  if (failed("starting the converter", converter.open())) {
    return false;
  }
  Orv::CThread::sleep(kConversionMs[converter.dataRate()]);
  return !failed("setting the rate", converter.setDataRate(rate));
}
// [start]

// [read]
// From 640 samples/s on a call refreshes both channels. Below, its second half can't be in time:
// the call has refreshed one channel and left the chip selected, and the next one has the other.
bool readBoth(Converter& converter, Select& select) {
  for (int fresh = 0; fresh < 2;) {
    Orv::CThread::sleep(kConversionMs[converter.dataRate()]);
    const TErrCode code = converter.doConversion();
    if (code == kNotReady && select.selected()) {
      fresh += 1;
      if (failed("releasing the chip", select.enable(false))) {
        return false;
      }
    } else if (failed("converting", code)) {
      return false;
    } else {
      fresh += 2;
    }
  }
  return true;
}
// [read]

// [recover]
// After a failure the chip may still be selected, and the bus may have kept a setting. A bus must
// be closed before it is opened anew. What the chip made of a cut command only a reset undoes. The
// driver then goes on with the channel it had come to while the inputs are those of channel 0: the
// first values may be of the other channel, and are read for nobody.
bool recover(Varnel::CLinuxSpiBus& bus, Select& select, Converter& converter, uint8_t rate) {
  if (failed("releasing the chip", select.enable(false))) {
    return false;
  }
  if (bus.isOpen() && failed("closing the bus", bus.close())) {
    return false;
  }
  return start(bus, select, converter, rate) && readBoth(converter, select);
}
// [recover]

// [volts]
// Codes are not sign-extended: 0x800000 and above are negative inputs.
double volts(int32_t code, double vref, uint8_t gain) {
  const int32_t value = code < 0x800000 ? code : code - 0x1000000;
  return value * vref / ((1 << gain) * 8388607.0);
}
// [volts]

}  // namespace

int main(int argc, char** argv) {
  const char* node = argc > 1 ? argv[1] : "/dev/spidev1.0";
  const double vref = argc > 2 ? std::strtod(argv[2], nullptr) : 2.5;
  const auto rate = static_cast<uint8_t>(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 7);

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
  converter.configurePins(kStartLine, kDataReadyLine, kResetLine);
  bool good = start(bus, select, converter, rate) || recover(bus, select, converter, rate);
  // [setup]

  for (int i = 0; good && i < kReadings; ++i) {
    // One failure may be a glitch: start afresh and read again. Two in a row are not.
    good = readBoth(converter, select) ||
           (recover(bus, select, converter, rate) && readBoth(converter, select));
    for (uint16_t channel = 0; good && channel < converter.numberOfChannels(); ++channel) {
      const int32_t code = converter.readChannel(channel);
      std::printf("channel %d  code 0x%06x  %9.6f V\n", channel, static_cast<unsigned int>(code),
                  volts(code, vref, converter.pGAGain()));
    }
  }

  // [close]
  // The bus object does not close the node by itself, and a failure leaves the chip selected.
  good = !failed("releasing the chip", select.enable(false)) && good;
  if (bus.isOpen()) {
    good = !failed("closing the bus", bus.close()) && good;
  }
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
  // [close]
}
