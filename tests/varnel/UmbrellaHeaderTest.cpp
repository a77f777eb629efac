// SPDX-License-Identifier: MIT
// All public headers in one source, twice, and before any other.
#include "varnel/varnel.h"
#include "varnel/varnel.h"  // NOLINT(readability-duplicate-include): guarded

#include <gtest/gtest.h>

namespace {

TEST(UmbrellaHeader, LetsOneSourceUseEveryChip) {
  const Varnel::CLinuxSpiBus bus;
  Varnel::CSpiAnalogIn1x12Bit_MCP3201 analog;
  Varnel::CSpiDigIn8Bit_LV165A inputs;
  Varnel::CSpiDigOut8Bit_HC595 outputs;
  const Varnel::CMotorDriver1ChnL6470 l6470;
  const Varnel::CMotorDriver1ChnPowerSTEP01 powerstep01;
  EXPECT_FALSE(bus.isOpen());
  uint16_t code = 1;
  Varnel::CLinuxSpiBus sharedBus;
  analog.setBus(&sharedBus);
  EXPECT_EQ(analog.readInput(&code, Varnel::CLinuxSpiDevice::NO_TRANSFER), 0);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(inputs.chipSelector(), nullptr);
  EXPECT_EQ(outputs.chipSelector(), nullptr);
  EXPECT_EQ(l6470.status().m_Data, powerstep01.status().m_Data);
}

TEST(UmbrellaHeader, KeepsTheVocabulariesOfTheMotorDriversApart) {
  EXPECT_EQ(int{Varnel::ST::L6470::OCD}, 0x1000);
  EXPECT_EQ(int{Varnel::ST::powerSTEP01::OCD}, 0x2000);
  EXPECT_EQ(int{Varnel::ST::L6470::STATUS}, 25);
  EXPECT_EQ(int{Varnel::ST::powerSTEP01::STATUS}, 27);
}

}  // namespace
