// SPDX-License-Identifier: MIT
// AD529x: what a frame and a read cost. Every frame ends with a pause of 1 ms, beside which nothing
// else can be timed.
#include "bench/Rig.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"

void bench::addAd529x(Suite& suite) {
  Rig rig;
  rig.start();
  Varnel::CSpiPotentiometer16Bit_AD529x device;
  device.setBus(&rig.bus);
  device.setLatchPin(&rig.latch);
  uint16_t position = 0;
  suite.operations.push_back(count("AD529x writeRDAC", rig.board,
                                   [&] { check(device.writeRDAC(++position) == 0, "writeRDAC"); }));
  suite.operations.push_back(count("AD529x writeRDAC, same position", rig.board,
                                   [&] { check(device.writeRDAC(position) == 0, "writeRDAC"); }));
  suite.operations.push_back(count("AD529x readControlWord", rig.board, [&] {
    check(device.readControlWord() >= 0, "readControlWord");
  }));
}
