// SPDX-License-Identifier: MIT
// Units and positions, with the registers' widths as limits. The expected numbers are exact: the
// factors are 0x8637BD (that of the acceleration 0x8CBCCC) times a power of two, and the products
// rounded to single precision stand beside them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/varnel/chips/MotorDriverRig.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470_p.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01_p.h"

namespace {

using Varnel::CMotorDriver1ChnL6470;
using Varnel::CMotorDriver1ChnL6470Private;
using Varnel::CMotorDriver1ChnPowerSTEP01;
using Varnel::CMotorDriver1ChnPowerSTEP01Private;
using Private = Varnel::CSTMicroSteppingMotorDriverPrivate;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kTiny = std::numeric_limits<float>::denorm_min();
constexpr float kSmallestNormal = std::numeric_limits<float>::min();
constexpr float kLargest = std::numeric_limits<float>::max();

CMotorDriver1ChnPowerSTEP01Private& units() {
  static CMotorDriver1ChnPowerSTEP01Private d(nullptr);
  return d;
}

TEST(MotorUnits, FactorsAreThoseOfSinglePrecision) {
  EXPECT_EQ(Private::SPEED_StepTickConversion, 0x1.0c6f7ap+6F);
  EXPECT_EQ(Private::ACC_DEC_StepTickConversion, 0x1.197998p-4F);
  EXPECT_EQ(Private::MAX_SPEED_StepTickConversion, 0x1.0c6f7ap-4F);
  EXPECT_EQ(Private::MINSPEED_StepTickConversion, 0x1.0c6f7ap+2F);
  EXPECT_EQ(Private::INTSPEED_StepTickConversion, 0x1.0c6f7ap+4F);
  EXPECT_TRUE((std::is_same_v<decltype(Private::SPEED_StepTickConversion), const float>));
}

/// One of the conversions into a register, with its factor as whole number and exponent.
struct Conversion {
  const char* name;
  uint32_t (*convert)(float);
  uint32_t significand;
  int exponent;
  uint32_t limit;
};

const std::vector<Conversion> kConversions = {
    {"SPEED", [](float s) { return units().toSPEED_Value(s); }, 0x8637BD, -17, 0xFFFFF},
    {"ACC", [](float a) { return units().ACC_DEC_Value(a); }, 0x8CBCCC, -27, 0xFFF},
    {"INT_SPEED", [](float s) { return units().INTSPEED_Value(s); }, 0x8637BD, -19, 0x3FFF},
    {"MAX_SPEED", [](float s) { return units().toMAXSPEED_Value(s); }, 0x8637BD, -27, 0x3FF},
    {"MIN_SPEED", [](float s) { return units().MINSPEED_Value(s); }, 0x8637BD, -21, 0xFFF}};

TEST(MotorUnits, NothingBelowOneUnitIsNothing) {
  for (const Conversion& conversion : kConversions) {
    SCOPED_TRACE(conversion.name);
    for (const float value : {0.0F, -0.0F, -1.0F, -kTiny, -kLargest, -kInfinity, kNaN, -kNaN, kTiny,
                              kSmallestNormal, -1e9F, 1e-30F}) {
      EXPECT_EQ(conversion.convert(value), 0U) << value;
    }
  }
}

TEST(MotorUnits, EverythingAboveTheLimitIsTheLimit) {
  for (const Conversion& conversion : kConversions) {
    SCOPED_TRACE(conversion.name);
    for (const float value : {kInfinity, kLargest, 1e9F, 1e20F, 70000.0F}) {
      EXPECT_EQ(conversion.convert(value), conversion.limit) << value;
    }
  }
}

struct Border {
  float value;
  uint32_t code;
};

void expectBorders(const Conversion& conversion, const std::vector<Border>& borders) {
  for (const Border& border : borders) {
    EXPECT_EQ(conversion.convert(border.value), border.code)
        << conversion.name << " of " << std::hexfloat << border.value;
  }
}

TEST(MotorUnits, SpeedChangesItsCodeWhereItMust) {
  expectBorders(kConversions[0], {{0x1.e847fep-7F, 0},           // 1 - 2^-24
                                  {0x1.e848p-7F, 1},             // 1
                                  {0x1.e847fep-6F, 1},           // 2 - 2^-23
                                  {0x1.e848p-6F, 2},             // 2
                                  {100.0F, 6710},                // 6710.88623
                                  {0x1.e847ep+13F, 0xFFFFE},     // 1048574.9375
                                  {0x1.e847e2p+13F, 0xFFFFF},    // 1048575
                                  {0x1.e847fep+13F, 0xFFFFF},    // 1048575.9375
                                  {15625.0F, 0xFFFFF},           // 1048576
                                  {0x1.e84802p+13F, 0xFFFFF},    // above
                                  {0x1.e847fep+25F, 0xFFFFF},    // 2^32 - 256
                                  {0x1.e848p+25F, 0xFFFFF},      // 2^32
                                  {0x1.e84802p+25F, 0xFFFFF}});  // above
}

TEST(MotorUnits, AccelerationChangesItsCodeWhereItMust) {
  expectBorders(kConversions[1], {{0x1.d1a948p+3F, 0},         // 1 - 2^-24
                                  {0x1.d1a94ap+3F, 1},         // 1
                                  {14.55F, 0},                 // 0.99987: the documented minimum
                                  {0x1.d1a948p+4F, 1},         // 2 - 2^-23
                                  {0x1.d1a94ap+4F, 2},         // 2
                                  {1000.0F, 68},               // 68.71947
                                  {59590.0F, 0xFFE},           // 4094.99365: the documented maximum
                                  {0x1.d18c2ep+15F, 0xFFE},    // 4094.99976
                                  {0x1.d18c3p+15F, 0xFFF},     // 4095
                                  {0x1.d1a948p+15F, 0xFFF},    // 4095.99976
                                  {0x1.d1a94ap+15F, 0xFFF},    // 4096
                                  {0x1.d1a948p+35F, 0xFFF},    // 2^32 - 256
                                  {0x1.d1a94ap+35F, 0xFFF},    // 2^32
                                  {0x1.d1a94cp+35F, 0xFFF}});  // above
}

TEST(MotorUnits, CompensationSpeedChangesItsCodeWhereItMust) {
  expectBorders(kConversions[2], {{0x1.e847fep-5F, 0},          // 1 - 2^-24
                                  {0x1.e848p-5F, 1},            // 1
                                  {0x1.e8405ep+9F, 0x3FFE},     // 16382.999
                                  {0x1.e8406p+9F, 0x3FFF},      // 16383.001
                                  {0x1.e847fep+9F, 0x3FFF},     // 16383.999
                                  {0x1.e848p+9F, 0x3FFF},       // 16384
                                  {0x1.e847fep+27F, 0x3FFF},    // 2^32 - 256
                                  {0x1.e848p+27F, 0x3FFF},      // 2^32
                                  {0x1.e84802p+27F, 0x3FFF}});  // above
}

TEST(MotorUnits, MaximumSpeedChangesItsCodeWhereItMust) {
  expectBorders(kConversions[3], {{0x1.e847fep+3F, 0},         // 1 - 2^-24
                                  {0x1.e848p+3F, 1},           // 1
                                  {991.0F, 64},                // 64.94617
                                  {0x1.e7cdecp+13F, 0x3FE},    // 1022.99994
                                  {0x1.e7cdeep+13F, 0x3FF},    // 1023
                                  {0x1.e847fep+13F, 0x3FF},    // 1023.99994
                                  {15625.0F, 0x3FF},           // 1024
                                  {0x1.e847fep+35F, 0x3FF},    // 2^32 - 256
                                  {0x1.e848p+35F, 0x3FF},      // 2^32
                                  {0x1.e84802p+35F, 0x3FF}});  // above
}

TEST(MotorUnits, MinimumSpeedChangesItsCodeWhereItMust) {
  expectBorders(kConversions[4], {{0x1.e847fep-3F, 0},         // 1 - 2^-24
                                  {0x1.e848p-3F, 1},           // 1
                                  {16.0F, 67},                 // 67.10886
                                  {0x1.e8297ap+9F, 0xFFE},     // 4094.99976
                                  {0x1.e8297cp+9F, 0xFFF},     // 4095
                                  {0x1.e847fep+9F, 0xFFF},     // 4095.99976
                                  {0x1.e848p+9F, 0xFFF},       // 4096
                                  {0x1.e847fep+29F, 0xFFF},    // 2^32 - 256
                                  {0x1.e848p+29F, 0xFFF},      // 2^32
                                  {0x1.e84802p+29F, 0xFFF}});  // above
}

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

float floatOf(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

/// A number as whole * 2^exponent.
struct Exact {
  uint64_t whole;
  int exponent;
};

/// Rounded to 24 bits as single precision does: to the nearest, in the middle to the even one.
/// `rest` says that there is more behind the last bit.
Exact rounded(Exact number, bool rest = false) {
  unsigned dropped = 0;
  while (number.whole >> dropped >= 1U << 24U) {
    ++dropped;
  }
  if (dropped == 0) {
    return number;
  }
  const uint64_t half = uint64_t{1} << (dropped - 1);
  const uint64_t remainder = number.whole & (2 * half - 1);
  uint64_t kept = number.whole >> dropped;
  if (remainder > half || (remainder == half && (rest || (kept & 1U) != 0))) {
    ++kept;
  }
  return {kept, number.exponent + static_cast<int>(dropped)};
}

/// A conversion in whole numbers only.
uint32_t reference(const Conversion& conversion, float value) {
  const uint32_t bits = bitsOf(value);
  const uint32_t fraction = bits & 0x7FFFFFU;
  const int exponent = static_cast<int>((bits >> 23U) & 0xFFU);
  const bool negative = bits >> 31U != 0;
  if (negative || (exponent == 0xFF && fraction != 0)) {
    return 0;
  }
  if (exponent == 0xFF) {
    return conversion.limit;
  }
  const Exact factor = {conversion.significand, conversion.exponent};
  const Exact number =
      exponent == 0 ? Exact{fraction, -149} : Exact{fraction | 0x800000U, exponent - 150};
  const Exact product = rounded({number.whole * factor.whole, number.exponent + factor.exponent});
  if (product.whole == 0 || product.exponent < -24) {
    return 0;  // 2^24 at most
  }
  if (product.exponent > 8) {
    return product.whole >> 23U != 0 ? conversion.limit : 0;
  }
  const uint64_t whole = product.exponent < 0
                             ? product.whole >> static_cast<unsigned>(-product.exponent)
                             : product.whole << static_cast<unsigned>(product.exponent);
  return whole > conversion.limit ? conversion.limit : static_cast<uint32_t>(whole);
}

/// How many of some floats convert to something else than the reference says.
class Comparison {
 public:
  explicit Comparison(const Conversion& conversion) : conversion_(conversion) {}
  ~Comparison() {
    EXPECT_EQ(wrong_, 0U) << conversion_.name << ", first at " << std::hexfloat << first_;
    EXPECT_GT(seen_, 1000U);
  }
  Comparison(const Comparison&) = delete;
  Comparison& operator=(const Comparison&) = delete;

  void add(float value) {
    ++seen_;
    if (conversion_.convert(value) != reference(conversion_, value)) {
      first_ = wrong_ == 0 ? value : first_;
      ++wrong_;
    }
  }

 private:
  const Conversion& conversion_;
  unsigned seen_ = 0;
  unsigned wrong_ = 0;
  float first_ = 0;
};

TEST(MotorUnits, TheReferenceRoundsAsSinglePrecisionDoes) {
  EXPECT_EQ(rounded({0xFFFFFF, 0}).whole, 0xFFFFFFU);
  EXPECT_EQ(rounded({0x1000001, 0}).whole, 0x800000U) << "the middle goes to the even one";
  EXPECT_EQ(rounded({0x1000003, 0}).whole, 0x800002U);
  EXPECT_EQ(rounded({0x1000001, 0}, true).whole, 0x800001U) << "just above the middle";
  EXPECT_EQ(rounded({0x2000003, 0}).whole, 0x800001U);
  EXPECT_EQ(rounded({0x2000003, 0}).exponent, 2);
}

TEST(MotorUnits, EveryCodeBeginsWhereTheReferenceSays) {
  for (const Conversion& conversion : kConversions) {
    Comparison comparison(conversion);
    const uint32_t stride = conversion.limit > 0xFFFF ? 61 : 1;
    for (uint32_t code = 0; code <= conversion.limit + stride; code += stride) {
      // Near the float where the code begins, a few on both sides.
      const double start =
          std::ldexp(static_cast<double>(code) / conversion.significand, -conversion.exponent);
      const uint32_t bits = bitsOf(static_cast<float>(start));
      for (uint32_t near = bits < 3 ? 0 : bits - 3; near <= bits + 3; ++near) {
        comparison.add(floatOf(near));
      }
    }
  }
}

TEST(MotorUnits, AnyFloatConvertsAsTheReferenceSays) {
  for (const Conversion& conversion : kConversions) {
    Comparison comparison(conversion);
    std::mt19937 random(20260101);  // NOLINT(cert-msc51-cpp): the same floats in every run
    for (int i = 0; i < 100000; ++i) {
      comparison.add(floatOf(static_cast<uint32_t>(random())));
    }
    // Every exponent, with the fractions at both ends.
    for (uint32_t top = 0; top < 0x200; ++top) {
      for (const uint32_t fraction : {0x0U, 0x1U, 0x742400U, 0x7FFFFFU}) {
        comparison.add(floatOf((top << 23U) | fraction));
      }
    }
  }
}

TEST(MotorUnits, CodesReadBackAsSpeeds) {
  EXPECT_EQ(units().fromSPEED_Value(0), 0.0F);
  EXPECT_EQ(units().fromSPEED_Value(1), 0x1.e848p-7F);
  EXPECT_EQ(units().fromSPEED_Value(6710), 0x1.8ff27ap+6F);
  EXPECT_EQ(units().fromSPEED_Value(0x80000), 7812.5F);
  EXPECT_EQ(units().fromSPEED_Value(0xFFFFF), 0x1.e847e2p+13F);
  EXPECT_EQ(units().fromSPEED_Value(0x1000001), 250000.0F) << "25 bits, rounded before";
  EXPECT_EQ(units().fromSPEED_Value(0xFFFFFFFF), 64000000.0F);
  EXPECT_EQ(units().fromMAXSPEED_Value(0), 0.0F);
  EXPECT_EQ(units().fromMAXSPEED_Value(1), 15.2587890625F);
  EXPECT_EQ(units().fromMAXSPEED_Value(0x20), 488.28125F);
  EXPECT_EQ(units().fromMAXSPEED_Value(0x41), 0x1.efe92p+9F);
  EXPECT_EQ(units().fromMAXSPEED_Value(0x3FF), 0x1.e7cdeep+13F);
  EXPECT_EQ(units().fromMAXSPEED_Value(0xFFFF), 999984.75F);
}

/// A code divided by a factor, in whole numbers only.
float divided(uint32_t code, uint32_t significand, int exponent) {
  Exact dividend = rounded({code, 0});
  while (dividend.whole != 0 && dividend.whole < 1U << 23U) {
    dividend = {dividend.whole << 1U, dividend.exponent - 1};
  }
  const uint64_t numerator = dividend.whole << 36U;
  const Exact quotient = rounded({numerator / significand, dividend.exponent - 36 - exponent},
                                 numerator % significand != 0);
  return std::ldexp(static_cast<float>(quotient.whole), quotient.exponent);
}

TEST(MotorUnits, EveryCodeReadsBackAsTheReferenceSays) {
  unsigned wrong = 0;
  for (uint32_t code = 0; code <= 0xFFFFF; ++code) {
    wrong += units().fromSPEED_Value(code) == divided(code, 0x8637BD, -17) ? 0U : 1U;
  }
  for (uint32_t code = 0; code <= 0xFFFF; ++code) {
    wrong += units().fromMAXSPEED_Value(code) == divided(code, 0x8637BD, -27) ? 0U : 1U;
  }
  std::mt19937 random(20260102);  // NOLINT(cert-msc51-cpp): the same codes in every run
  for (int i = 0; i < 100000; ++i) {
    const auto code = static_cast<uint32_t>(random());
    wrong += units().fromSPEED_Value(code) == divided(code, 0x8637BD, -17) ? 0U : 1U;
    wrong += units().fromMAXSPEED_Value(code) == divided(code, 0x8637BD, -27) ? 0U : 1U;
  }
  EXPECT_EQ(wrong, 0U);
}

TEST(MotorPosition, EveryCodeMakesTheRoundTripButTheSmallest) {
  unsigned wrong = 0;
  for (int32_t code = 0; code < 0x400000; ++code) {
    const int32_t position = code < 0x200000 ? code : code - 0x400000;
    const int32_t read = units().fromABSPOSValue(static_cast<uint32_t>(code));
    wrong += read == position ? 0U : 1U;
    wrong += units().toABSPOSValue(position) == static_cast<uint32_t>(code) ? 0U : 1U;
    wrong += units().toABSPOSValue(read) == static_cast<uint32_t>(code) ? 0U : 1U;
  }
  EXPECT_EQ(wrong, 2U) << "0x200000 reads as 0, which is not its code";
  EXPECT_EQ(units().fromABSPOSValue(0x200000), 0);
  EXPECT_EQ(units().toABSPOSValue(-2097152), 0x200000U);
}

TEST(MotorPosition, IsCodedInTwosComplement) {
  EXPECT_EQ(units().toABSPOSValue(0), 0x000000U);
  EXPECT_EQ(units().toABSPOSValue(1), 0x000001U);
  EXPECT_EQ(units().toABSPOSValue(-1), 0x3FFFFFU);
  EXPECT_EQ(units().toABSPOSValue(-2), 0x3FFFFEU);
  EXPECT_EQ(units().toABSPOSValue(-2097151), 0x200001U);
  EXPECT_EQ(units().fromABSPOSValue(0x1FFFFF), 2097151);
  EXPECT_EQ(units().fromABSPOSValue(0x3FFFFF), -1);
  EXPECT_EQ(units().fromABSPOSValue(0x3FFFFE), -2);
  EXPECT_EQ(units().fromABSPOSValue(0x200001), -2097151);
}

TEST(MotorPosition, IsLimited) {
  for (const int32_t position : {2097151, 2097152, 3000000, INT32_MAX}) {
    EXPECT_EQ(units().toABSPOSValue(position), 0x1FFFFFU);
  }
  for (const int32_t position : {-2097152, -2097153, -3000000, INT32_MIN}) {
    EXPECT_EQ(units().toABSPOSValue(position), 0x200000U);
  }
}

TEST(MotorPosition, BitsAboveThe22ndCountModulo21Bits) {
  EXPECT_EQ(units().fromABSPOSValue(0x400000), 0);
  EXPECT_EQ(units().fromABSPOSValue(0x400001), -2097151);
  EXPECT_EQ(units().fromABSPOSValue(0x5FFFFF), -1);
  EXPECT_EQ(units().fromABSPOSValue(0x600000), 0);
  EXPECT_EQ(units().fromABSPOSValue(0x800005), -2097147);
  EXPECT_EQ(units().fromABSPOSValue(0x80000000), 0);
  EXPECT_EQ(units().fromABSPOSValue(0xFFFFFFFF), -1);
  EXPECT_EQ(units().fromABSPOSValue(0xFFE00001), -2097151);
}

template <class Chip>
void expectFreshPrivate(size_t registers) {
  Chip d(nullptr);
  EXPECT_EQ(d.q_ptr, nullptr);
  EXPECT_EQ(d.SPI_TxBuffer, 0);
  EXPECT_EQ(d.SPI_RxBuffer, 0);
  EXPECT_EQ(d.RegisterBitLength, std::vector<uint8_t>(registers, 255));
  EXPECT_EQ(d.Status.m_Data, 0);
  EXPECT_EQ(&d.status(), &d.Status);
  const auto offset = [&d](const void* field) {
    return reinterpret_cast<uintptr_t>(field) - reinterpret_cast<uintptr_t>(&d);
  };
  EXPECT_EQ(offset(&d.q_ptr), sizeof(void*)) << "behind the table of virtual operations";
  EXPECT_EQ(offset(&d.SPI_TxBuffer), 2 * sizeof(void*));
  EXPECT_EQ(offset(&d.SPI_RxBuffer), 2 * sizeof(void*) + 1);
  EXPECT_EQ(offset(&d.RegisterBitLength), 3 * sizeof(void*));
  EXPECT_EQ(offset(&d.Status), 6 * sizeof(void*));
  EXPECT_TRUE(std::is_polymorphic_v<Chip>);
  EXPECT_FALSE(std::has_virtual_destructor_v<Chip>);
}

TEST(MotorPrivate, StartsWithoutAnyLengthAndHasNoVirtualDestructor) {
  expectFreshPrivate<CMotorDriver1ChnL6470Private>(25);
  expectFreshPrivate<CMotorDriver1ChnPowerSTEP01Private>(27);
  EXPECT_FALSE(std::has_virtual_destructor_v<Private>);
}

TEST(MotorPrivate, FillsTheTableOfThePowerSTEP01Only) {
  CMotorDriver1ChnL6470Private unknown(nullptr);
  unknown.initRegisterBitLengthArray();
  EXPECT_EQ(unknown.RegisterBitLength, std::vector<uint8_t>(25, 255));
  CMotorDriver1ChnPowerSTEP01Private known(nullptr);
  known.initRegisterBitLengthArray();
  EXPECT_EQ(known.RegisterBitLength,
            (std::vector<uint8_t>{22, 9, 22, 20, 12, 12, 10, 12, 8, 8,  8, 8,  14, 8,
                                  8,  8, 8,  5,  5,  5,  11, 8,  8, 11, 8, 16, 16}));
}

template <class Driver, class Chip>
void expectBound() {
  OpenMotorDriver<Driver> driver;
  ASSERT_NE(driver.d_ptr, nullptr);
  auto& d = static_cast<Chip&>(*driver.d_ptr);
  EXPECT_EQ(d.q_ptr, &driver);
  EXPECT_EQ(driver.txBuffer(), &d.SPI_TxBuffer);
  EXPECT_EQ(driver.rxBuffer(), &d.SPI_RxBuffer);
  EXPECT_EQ(&driver.registerBitLength(), &d.RegisterBitLength);
  EXPECT_EQ(&driver.status(), &d.Status);
}

TEST(MotorPrivate, BelongsToItsDriver) {
  expectBound<CMotorDriver1ChnL6470, CMotorDriver1ChnL6470Private>();
  expectBound<CMotorDriver1ChnPowerSTEP01, CMotorDriver1ChnPowerSTEP01Private>();
}

}  // namespace
