// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "tests/wire/Wire.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822_p.h"

namespace {

using Private = Varnel::CSpiAnalogOut2x12Bit_MCP4822Private;

struct OpenDac : Varnel::CSpiAnalogOut2x12Bit_MCP4822 {
  using CSpiAnalogOut2x12Bit_MCP4822::d_ptr;
  using CSpiAnalogOut2x12Bit_MCP4822::m_TransferSettings;
};

TEST(Mcp4822Private, StartsWithItsDefaults) {
  const OpenDac dac;
  EXPECT_EQ(dac.d_ptr->SPIMode, 3);
  EXPECT_EQ(dac.d_ptr->SPILSBFirst, 0);
  EXPECT_EQ(dac.d_ptr->SPIDataBits, 16);
  EXPECT_EQ(dac.d_ptr->OutputBuffer[0], 0);
  EXPECT_EQ(dac.d_ptr->OutputBuffer[1], 0);
  EXPECT_EQ(dac.m_TransferSettings.ioc_transfer.tx_buf,
            reinterpret_cast<uintptr_t>(&dac.d_ptr->WriteChannelCommand));
}

TEST(Mcp4822Private, StartsWithPinZeroAsAnInput) {
  wire::Wire wire;
  const OpenDac dac;
  EXPECT_EQ(dac.d_ptr->LDACPin.connect(), 0);
  EXPECT_EQ(wire.journal(), wire::lines("pin 0: connect INPUT_PIN PIN_MODE_HW = 0"));
}

TEST(Mcp4822Private, KeepsItsFieldsInOrderWithTheirTypes) {
  const size_t pin = sizeof(Orv::CLinuxIoPin);
  EXPECT_EQ(offsetof(Private, LDACPin), 0U);
  EXPECT_EQ(offsetof(Private, SPIMode), pin);
  EXPECT_EQ(offsetof(Private, SPILSBFirst), pin + 1);
  EXPECT_EQ(offsetof(Private, SPIWReadLSBFirst), pin + 2);
  EXPECT_EQ(offsetof(Private, SPIDataBits), pin + 3);
  EXPECT_EQ(offsetof(Private, WriteChannelCommand), pin + 4);
  EXPECT_EQ(offsetof(Private, OutputBuffer), pin + 6);
  EXPECT_TRUE((std::is_same_v<decltype(Private::SPIWReadLSBFirst), uint8_t>));
  EXPECT_TRUE((std::is_same_v<decltype(Private::WriteChannelCommand), uint16_t>));
  EXPECT_TRUE((std::is_same_v<decltype(Private::OutputBuffer), uint16_t[2]>));
}

TEST(Mcp4822Private, StoresLimitedValues) {
  wire::Wire wire;
  Varnel::CLinuxSpiBus bus;
  OpenDac dac;
  dac.setBus(&bus);
  EXPECT_EQ(dac.setValue(0, 5000, OpenDac::NO_WRITE), 0);
  EXPECT_EQ(dac.setValue(1, 4095, OpenDac::NO_WRITE), 0);
  EXPECT_EQ(dac.setValue(2, 1, OpenDac::NO_WRITE), -22);
  EXPECT_EQ(dac.d_ptr->OutputBuffer[0], 4095);
  EXPECT_EQ(dac.d_ptr->OutputBuffer[1], 4095);
}

}  // namespace
