// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/vboard/kernel/SpiBench.h"

using bench::get;
using bench::set;
using bench::SpiBench;

namespace {

/// What one controller answers to settings.
struct Answers {
  const char* profile;
  bool modes1And3;
  bool lsbFirst;
  uint8_t smallestWord;
  uint8_t largestWord;
  bool noSelect;
  bool loop;
};

/// The test framework's own name for it.
void PrintTo(const Answers& answers, std::ostream* out) {  // NOLINT(readability-identifier-naming)
  *out << answers.profile;
}

class ControllerProfiles : public ::testing::TestWithParam<Answers> {
 protected:
  void SetUp() override {
    descriptor_ = open("/dev/spidev1.0", O_RDWR);
    ASSERT_GE(descriptor_, 0);
  }
  void TearDown() override { close(descriptor_); }

  SpiBench bench_{{.number = 1, .profile = GetParam().profile}};
  int descriptor_ = -1;
};

long okWhen(bool accepted) {
  return accepted ? 0 : -EINVAL;
}

TEST_P(ControllerProfiles, ClockModes) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_0), 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_2), 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_1), okWhen(GetParam().modes1And3));
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_3), okWhen(GetParam().modes1And3));
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_MODE),
            GetParam().modes1And3 ? SPI_MODE_3 : SPI_MODE_2);
}

TEST_P(ControllerProfiles, BitOrder) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_LSB_FIRST, 1), okWhen(GetParam().lsbFirst));
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_LSB_FIRST), GetParam().lsbFirst ? 1 : 0);
}

TEST_P(ControllerProfiles, WordSizes) {
  for (uint8_t bits = 1; bits <= 33; ++bits) {
    const bool accepted = bits >= GetParam().smallestWord && bits <= GetParam().largestWord;
    EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, bits), okWhen(accepted)) << +bits;
    const uint32_t word = 0;
    spi_ioc_transfer transfer = bench::transferOf(&word, nullptr, 4);
    transfer.bits_per_word = bits;
    EXPECT_EQ(bench::message(descriptor_, transfer), accepted ? 4 : -EINVAL) << +bits;
  }
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_BITS_PER_WORD), GetParam().largestWord);
}

TEST_P(ControllerProfiles, NoSelect) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_NO_CS), okWhen(GetParam().noSelect));
}

TEST_P(ControllerProfiles, Loop) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_LOOP), okWhen(GetParam().loop));
}

TEST_P(ControllerProfiles, ActiveHighSelect) {
  const bool gpio = std::string(GetParam().profile) == "spi-gpio";
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_CS_HIGH | SPI_MODE_1),
            okWhen(GetParam().modes1And3));
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_CS_HIGH), 0);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_MODE), gpio ? 0 : SPI_CS_HIGH);
}

TEST_P(ControllerProfiles, WhatAllOfThemDo) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 0), 0);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_BITS_PER_WORD), 8);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 0), -EINVAL);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 200000000), 0);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MAX_SPEED_HZ), 200000000U);
  const uint8_t byte = 0;
  EXPECT_EQ(bench::message(descriptor_, bench::transferOf(&byte, nullptr, 1)), 1);
}

INSTANTIATE_TEST_SUITE_P(All, ControllerProfiles,
                         ::testing::Values(Answers{"full", true, true, 1, 32, true, true},
                                           Answers{"imx-ecspi", true, false, 1, 32, true, true},
                                           Answers{"spi-gpio", true, true, 1, 32, false, false},
                                           Answers{"bcm2835", true, false, 8, 8, true, false},
                                           Answers{"bcm2835-aux", false, false, 8, 8, true, false},
                                           Answers{"sun6i", true, true, 8, 8, false, false},
                                           Answers{"omap2-mcspi", true, false, 4, 32, false,
                                                   false}),
                         [](const auto& instance) {
                           std::string name = instance.param.profile;
                           std::erase(name, '-');
                           return name;
                         });

}  // namespace
