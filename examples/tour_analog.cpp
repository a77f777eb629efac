// SPDX-License-Identifier: MIT
// The tour's converters and the potentiometer.
#include <cstdint>
#include <cstdlib>

#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "tour.h"

namespace tour {

namespace {

using Varnel::CHC595ChipSelectDevice;
using Varnel::CLinuxSpiDevice;

/// A select that waits for a chip that is deaf for 0.6 ms after its reset, once.
class WaitingSelect : public Varnel::ILinuxSpiChipSelector {
 public:
  explicit WaitingSelect(unsigned int line) : line_(line, Orv::PIN_MODE_INVERT) {}
  TErrCode connect() { return line_.connect(); }
  TErrCode enable(bool select) override {
    if (select && waits_) {
      Orv::CThread::sleep(1);
      waits_ = false;
    }
    return line_.enable(select);
  }

 private:
  Varnel::CGpioPinChipSelector line_;
  bool waits_ = true;
};

/// Codes of 24 bits are not sign-extended.
double volts(int32_t code, double fullScale) {
  return (code < 0x800000 ? code : code - 0x1000000) * fullScale / 8388607;
}

/// Whether a code is of an input within the range, and of one at all.
bool withinRange(int32_t code) {
  return expect(code != 0 && code != 0x7FFFFF && code != 0x800000 && code != 0xFFFFFF,
                "an input is out of range, or nobody answers");
}

bool read(Varnel::CSpiAnalogIn1x12Bit_MCP3201& converter, double& volts) {
  uint16_t code = 0;
  if (failed("reading", converter.readInput(&code, CLinuxSpiDevice::DO_TRANSFER))) {
    return false;
  }
  volts = code * 3.3 / 4096;
  return expect(code > 0 && code < 4095, "nobody answers, or the input is out of range");
}

/// The first converter's input climbs, the second one's stands still.
bool readClimbing(Varnel::CSpiAnalogIn1x12Bit_MCP3201 (&converters)[2]) {
  double previous[2] = {};
  for (int second = 0; second < 3; ++second) {
    double now[2] = {};
    if (!read(converters[0], now[0]) || !read(converters[1], now[1])) {
      return false;
    }
    say("MCP3201", "behind the expander: %.2f V, %.2f V", now[0], now[1]);
    if (second > 0 && !(expect(now[0] > previous[0] + 0.1, "the first input does not climb") &&
                        expect(std::abs(now[1] - previous[1]) < 0.01, "the second one moves"))) {
      return false;
    }
    previous[0] = now[0];
    previous[1] = now[1];
    Orv::CThread::sleep(1000);
  }
  return true;
}

/// The pause of the driver is enough for the wiper, but not for every chip to read its memory.
class Potentiometer : public Varnel::CSpiPotentiometer16Bit_AD529x {
 public:
  TErrCode transferData(bool doWrite) override {
    const TErrCode code = CSpiPotentiometer16Bit_AD529x::transferData(doWrite);
    if (doWrite) {
      Orv::CThread::sleep(1);
    }
    return code;
  }
};

bool setWiper(Potentiometer& potentiometer, uint16_t position) {
  if (failed("moving the wiper", potentiometer.writeRDAC(position))) {
    return false;
  }
  const TErrCode actual = potentiometer.readData(Potentiometer::CW_READ_RDAC);
  if (failed("reading the wiper", actual)) {
    return false;
  }
  say("AD529x", "wiper to %d of 1023, read back %d", position, static_cast<int>(actual));
  return expect(actual == position, "the wiper is elsewhere");
}

}  // namespace

bool visitSelectExpander() {
  constexpr uint8_t kNoAddress = 7;
  Orv::CLinuxIoPin latch(ExpanderLatch, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  Bus bus;
  if (failed("taking the latch", latch.connect()) || !bus.openAt("/dev/spidev1.0", 800)) {
    return false;
  }
  // The expander is destroyed last: it must outlive the devices attached to it.
  CHC595ChipSelectDevice expander;
  expander.setBus(&bus);
  expander.setLatchPin(&latch);
  if (failed("deselecting", expander.writeOutputs(kNoAddress, CLinuxSpiDevice::DO_TRANSFER))) {
    return false;
  }
  say("74HC595", "as select expander: nobody selected");
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 converters[2];
  for (uint8_t address = 0; address < 2; ++address) {
    converters[address].setBus(&bus);
    expander.attachSpiDevice(&converters[address], address,
                             CHC595ChipSelectDevice::ExplicitTransfer);
  }
  const bool good = readClimbing(converters);
  // A failed reading leaves its converter selected.
  return !failed("deselecting", expander.writeOutputs(kNoAddress, CLinuxSpiDevice::DO_TRANSFER)) &&
         good;
}

bool visitMcp4822() {
  using Converter = Varnel::CSpiAnalogOut2x12Bit_MCP4822;
  constexpr uint16_t kA = 2500;
  constexpr uint16_t kB = 4000;
  Varnel::CGpioPinChipSelector select(DacCs, Orv::PIN_MODE_INVERT);
  Bus bus;
  if (failed("taking the select", select.connect()) || !bus.openAt("/dev/spidev0.0", 1000)) {
    return false;
  }
  Converter converter;
  converter.setBus(&bus);
  converter.setChipSelector(&select);
  converter.configurePins(DacLdac);
  // One value waits in the driver until the other is written. Nothing can be read back.
  const bool good = !failed("taking LDAC", converter.open()) &&
                    !failed("storing A", converter.setValue(0, kA, Converter::NO_WRITE)) &&
                    !failed("writing", converter.setValue(1, kB, Converter::DO_WRITE));
  if (good) {
    say("MCP4822", "A %.3f V and B %.3f V, on LDAC", kA * 2.048 / 4096, kB * 2.048 / 4096);
  }
  return !failed("releasing the chip", converter.enableChipSelect(false)) && good;
}

bool visitAds1248() {
  using Converter = Varnel::CSpiAnalogIn2x24Bit_ADS1248;
  WaitingSelect select(ThermoCs);
  Bus bus;
  if (failed("taking the select", select.connect()) || !bus.openAt("/dev/spidev2.0", 75)) {
    return false;
  }
  Converter converter;
  converter.setBus(&bus);
  converter.setChipSelector(&select);
  converter.configurePins(ThermoStart, ThermoDrdy, ThermoReset);
  bool good = !failed("starting", converter.open());
  // It stops reading by itself only with its next result, 13 ms at the 80 samples/s of a start.
  Orv::CThread::sleep(13);
  good = good && !failed("setting the rate", converter.setDataRate(Converter::DRATE_640_SPS));
  Orv::CThread::sleep(2);
  good = good && !failed("converting", converter.doConversion());
  if (good) {
    const int32_t codes[] = {converter.readChannel(0), converter.readChannel(1)};
    const double fullScale = 2.5 / (1 << converter.pGAGain());
    say("ADS1248", "%.6f V and %.6f V", volts(codes[0], fullScale), volts(codes[1], fullScale));
    good = withinRange(codes[0]) && withinRange(codes[1]);
  }
  return !failed("releasing the chip", select.enable(false)) && good;
}

bool visitAds1256() {
  WaitingSelect select(AdcCs);
  Bus bus;
  if (failed("taking the select", select.connect()) || !bus.openAt("/dev/spidev2.0", 75)) {
    return false;
  }
  Varnel::CSpiAnalogIn4x24Bit_ADS1256 converter;
  converter.setBus(&bus);
  converter.setChipSelector(&select);
  converter.configurePins(AdcReset, AdcDrdy);
  bool good = !failed("starting", converter.open());
  // The self-calibration that was started takes 2 ms, and nobody waits for it.
  Orv::CThread::sleep(3);
  good = good && !failed("converting", converter.doConversion());
  if (good) {
    // Full scale is twice the reference, over the gain of 2.
    int32_t codes[4];
    for (uint16_t channel = 0; channel < 4; ++channel) {
      codes[channel] = converter.readChannel(channel);
      good = withinRange(codes[channel]) && good;
    }
    say("ADS1256", "%.4f, %.4f, %.4f and %.4f V", volts(codes[0], 2.5), volts(codes[1], 2.5),
        volts(codes[2], 2.5), volts(codes[3], 2.5));
  }
  return !failed("releasing the chip", select.enable(false)) && good;
}

bool visitAd529x() {
  constexpr TErrCode kNothingStored = 255;
  Orv::CLinuxIoPin sync(PotSync, Orv::OUTPUT_PIN, Orv::PIN_MODE_HW);
  Bus bus;
  if (failed("taking SYNC", sync.connect()) || !bus.openAt("/dev/spidev3.0", 1000)) {
    return false;
  }
  Potentiometer potentiometer;
  potentiometer.setBus(&bus);
  potentiometer.setLatchPin(&sync);
  const TErrCode address = potentiometer.readLastProgrammedMemoryAddress();
  if (failed("reading the memory", address)) {
    return false;
  }
  say("AD529x", "%d of 20 memory words used",
      address == kNothingStored ? 0 : static_cast<int>(address) + 1);
  // The wiper is locked until this, and a refused write shows nowhere.
  return !failed("unlocking", potentiometer.writeControlWord(Varnel::CW_BIT_RDAC_WRITE_ENABLE)) &&
         expect(potentiometer.readControlWord() == Varnel::CW_BIT_RDAC_WRITE_ENABLE,
                "the chip does not unlock") &&
         setWiper(potentiometer, 256) && setWiper(potentiometer, 768);
}

}  // namespace tour
