// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxIoPinAddressDecoder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/wire/Wire.h"

namespace {

using Orv::PIN_MODE_HW;
using Orv::PIN_MODE_INVERT;
using wire::Lines;
using wire::lines;

constexpr char kConnectPins[] = "varnel/common/LinuxIoPinAddressDecoder.cpp connectPins";
constexpr char kWriteAddress[] = "varnel/common/LinuxIoPinAddressDecoder.cpp writeAddress";

struct OpenDecoder : Varnel::CLinuxIoPinAddressDecoder {
  using CLinuxIoPinAddressDecoder::m_IoPins;
};

/// A decoder with a number of connected pins, from pin 10 on.
struct DecoderRig {
  wire::Wire wire;
  OpenDecoder decoder;

  explicit DecoderRig(unsigned int pins, bool connected = true) {
    for (unsigned int i = 0; i < pins; ++i) {
      decoder.addPin(10 + i, PIN_MODE_HW);
    }
    if (connected) {
      decoder.connectPins();
    }
    wire.discard();
  }
};

TEST(AddressDecoder, StartsWithoutPins) {
  const OpenDecoder decoder;
  EXPECT_TRUE(decoder.m_IoPins.empty());
  EXPECT_EQ(static_cast<const void*>(&decoder.m_IoPins), static_cast<const void*>(&decoder));
  EXPECT_TRUE((std::is_same_v<decltype(decoder.m_IoPins), std::vector<Orv::CLinuxIoPin>>));
}

TEST(AddressDecoder, AddingAPinTouchesNoHardware) {
  DecoderRig rig(0);
  EXPECT_EQ(rig.decoder.addPin(4, PIN_MODE_INVERT), 0);
  EXPECT_EQ(rig.decoder.m_IoPins.size(), 1U);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(AddressDecoder, TheThirtyThirdPinIsRefused) {
  DecoderRig rig(32, false);
  EXPECT_EQ(rig.decoder.m_IoPins.size(), 32U);
  EXPECT_EQ(rig.decoder.addPin(99, PIN_MODE_HW), -28);
  EXPECT_EQ(rig.decoder.m_IoPins.size(), 32U);
  EXPECT_EQ(rig.wire.journal(), Lines{}) << "not logged";
}

TEST(AddressDecoder, ConnectsItsPinsAsOutputsInOrder) {
  DecoderRig rig(0);
  rig.decoder.addPin(4, PIN_MODE_HW);
  rig.decoder.addPin(3, PIN_MODE_INVERT);
  EXPECT_EQ(rig.decoder.connectPins(), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 4: connect OUTPUT_PIN PIN_MODE_HW = 0",
                                      "pin 3: connect OUTPUT_PIN PIN_MODE_INVERT = 0"));
}

TEST(AddressDecoder, WritesBitZeroToTheFirstPin) {
  DecoderRig rig(3);
  EXPECT_EQ(rig.decoder.writeAddress(5), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 10: write HIGH = 0", "pin 11: write LOW = 0", "pin 12: write HIGH = 0"));
  EXPECT_EQ(rig.decoder.writeAddress(3), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 10: write HIGH = 0", "pin 11: write HIGH = 0", "pin 12: write LOW = 0"));
}

TEST(AddressDecoder, IgnoresBitsBeyondItsPins) {
  DecoderRig rig(3);
  EXPECT_EQ(rig.decoder.writeAddress(8), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines("pin 10: write LOW = 0", "pin 11: write LOW = 0", "pin 12: write LOW = 0"));
}

TEST(AddressDecoder, WritesAllThirtyTwoBits) {
  DecoderRig rig(32);
  EXPECT_EQ(rig.decoder.writeAddress(0x80000001), 0);
  Lines expected;
  for (unsigned int i = 0; i < 32; ++i) {
    expected.push_back("pin " + std::to_string(10 + i) +
                       (i == 0 || i == 31 ? ": write HIGH = 0" : ": write LOW = 0"));
  }
  EXPECT_EQ(rig.wire.journal(), expected);
}

TEST(AddressDecoder, WithoutPinsDoesNothing) {
  DecoderRig rig(0);
  EXPECT_EQ(rig.decoder.connectPins(), 0);
  EXPECT_EQ(rig.decoder.writeAddress(0xFFFFFFFF), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{});
}

TEST(AddressDecoder, GivesItsPinsByPosition) {
  DecoderRig rig(3);
  EXPECT_EQ(&rig.decoder.pin(0), &rig.decoder.m_IoPins[0]);
  EXPECT_EQ(&rig.decoder.pin(2), &rig.decoder.m_IoPins[2]);
  EXPECT_EQ(rig.decoder.pin(1).write(Orv::HIGH), 0);
  EXPECT_EQ(rig.wire.journal(), lines("pin 11: write HIGH = 0"));
}

TEST(AddressDecoder, APositionWithoutPinThrows) {
  DecoderRig rig(3);
  EXPECT_THROW(rig.decoder.pin(3), std::out_of_range);
  EXPECT_THROW(rig.decoder.pin(0xFFFFFFFF), std::out_of_range);
  OpenDecoder empty;
  EXPECT_THROW(empty.pin(0), std::out_of_range);
}

TEST(AddressDecoderFaults, SweepOfConnectPinsLeavesTheRestUnconnected) {
  for (const int error : {EIO, EINVAL, ENODEV, EBUSY}) {
    for (unsigned int failing = 0; failing < 3; ++failing) {
      DecoderRig rig(3, false);
      rig.wire.failsCall(failing + 1, error);
      EXPECT_EQ(rig.decoder.connectPins(), -error);
      const Lines seen = rig.wire.journal();
      ASSERT_EQ(seen.size(), failing + 2);
      EXPECT_EQ(seen[failing], "pin " + std::to_string(10 + failing) +
                                   ": connect OUTPUT_PIN PIN_MODE_HW = -" + std::to_string(error));
      if (error != EBUSY) {
        EXPECT_EQ(seen.back(), wire::logged(error, kConnectPins));
      }
      EXPECT_EQ(rig.decoder.connectPins(), 0) << "works when the pins do";
      rig.wire.discard();
    }
  }
}

TEST(AddressDecoderFaults, SweepOfWriteAddressLeavesTheLaterPins) {
  for (const int error : {EIO, EINVAL, ENODEV}) {
    for (unsigned int failing = 0; failing < 3; ++failing) {
      DecoderRig rig(3);
      rig.decoder.writeAddress(0);
      rig.wire.discard();
      rig.wire.failsCall(failing + 1, error);
      EXPECT_EQ(rig.decoder.writeAddress(7), -error);
      Lines expected;
      for (unsigned int i = 0; i <= failing; ++i) {
        expected.push_back("pin " + std::to_string(10 + i) +
                           ": write HIGH = " + (i < failing ? "0" : std::to_string(-error)));
      }
      expected.push_back(wire::logged(error, kWriteAddress));
      EXPECT_EQ(rig.wire.journal(), expected);
      for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(rig.wire.pinLevel(10 + i), i < failing ? 1 : 0);
      }
    }
  }
}

}  // namespace
