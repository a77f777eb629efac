// SPDX-License-Identifier: MIT
#include "orv/HasFlags.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

namespace {

using Orv::CHasFlags;

static_assert(sizeof(CHasFlags<uint8_t>) == 1);
static_assert(sizeof(CHasFlags<uint16_t>) == 2);
static_assert(sizeof(CHasFlags<uint32_t>) == 4);
static_assert(sizeof(CHasFlags<uint64_t>) == 8);
static_assert(!std::is_polymorphic_v<CHasFlags<uint16_t>>);
static_assert(std::is_convertible_v<uint8_t, CHasFlags<uint8_t>>);

template <typename T>
class HasFlags : public testing::Test {};
using Types = testing::Types<uint8_t, uint16_t, uint32_t, uint64_t, int8_t, int>;
TYPED_TEST_SUITE(HasFlags, Types);

TYPED_TEST(HasFlags, StartsEmptyOrWithTheGivenBits) {
  EXPECT_EQ(CHasFlags<TypeParam>().m_Data, TypeParam{0});
  const CHasFlags<TypeParam> flags = TypeParam{0x55};
  EXPECT_EQ(flags.m_Data, TypeParam{0x55});
}

TYPED_TEST(HasFlags, SettingTouchesNoOtherBit) {
  CHasFlags<TypeParam> flags(TypeParam{0x41});
  flags.setFlag(TypeParam{0x12});
  EXPECT_EQ(flags.m_Data, TypeParam{0x53});
  flags.setFlag(TypeParam{0x12});
  EXPECT_EQ(flags.m_Data, TypeParam{0x53});
}

TYPED_TEST(HasFlags, ClearingTouchesNoOtherBit) {
  CHasFlags<TypeParam> flags(TypeParam{0x53});
  flags.clearFlag(TypeParam{0x12});
  EXPECT_EQ(flags.m_Data, TypeParam{0x41});
  flags.clearFlag(TypeParam{0x12});
  EXPECT_EQ(flags.m_Data, TypeParam{0x41});
}

TYPED_TEST(HasFlags, AFlagOfSeveralBitsIsSetWhenAllAre) {
  const CHasFlags<TypeParam> flags(TypeParam{0x53});
  EXPECT_TRUE(flags.hasFlag(TypeParam{0x01}));
  EXPECT_TRUE(flags.hasFlag(TypeParam{0x42}));
  EXPECT_FALSE(flags.hasFlag(TypeParam{0x04}));
  EXPECT_FALSE(flags.hasFlag(TypeParam{0x05}));
  EXPECT_TRUE(flags.hasFlag(TypeParam{0}));
}

TEST(HasFlagsHighBit, TheHighestBitIsABitLikeAnyOther) {
  CHasFlags<uint8_t> flags;
  flags.setFlag(0x80);
  EXPECT_TRUE(flags.hasFlag(0x80));
  EXPECT_EQ(flags.m_Data, 0x80);
  flags.clearFlag(0x80);
  EXPECT_EQ(flags.m_Data, 0);
}

}  // namespace
