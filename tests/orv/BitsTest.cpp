// SPDX-License-Identifier: MIT
#include "orv/Bits.h"

#include <gtest/gtest.h>

namespace {

TEST(Bits, CountsTheBitsThatAreSet) {
  EXPECT_EQ(Orv::bitCount(0x0), 0u);
  EXPECT_EQ(Orv::bitCount(0x1), 1u);
  EXPECT_EQ(Orv::bitCount(0x0f), 4u);
  EXPECT_EQ(Orv::bitCount(0x80000001), 2u);
  EXPECT_EQ(Orv::bitCount(0xa5a5a5a5), 16u);
  EXPECT_EQ(Orv::bitCount(0xffffffff), 32u);
}

TEST(Bits, EverySingleBitCountsOnce) {
  for (unsigned int bit = 0; bit < 32; ++bit) {
    EXPECT_EQ(Orv::bitCount(1u << bit), 1u) << bit;
  }
}

}  // namespace
