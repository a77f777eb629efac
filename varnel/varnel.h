// SPDX-License-Identifier: MIT
#ifndef VARNEL_VARNEL_H
#define VARNEL_VARNEL_H

/// @file
/// The whole library. A program that uses one chip includes that chip's header instead.

#include "varnel/chips/analogin/SpiAnalogIn1x12Bit_MCP3201.h"
#include "varnel/chips/analogin/SpiAnalogIn2x24BitADS1248.h"
#include "varnel/chips/analogin/SpiAnalogIn4x24BitADS1256.h"
#include "varnel/chips/analogin/SpiAnalogInDevice.h"
#include "varnel/chips/analogout/SpiAnalogOut2x12Bit_MCP4822.h"
#include "varnel/chips/analogout/SpiLedDriver12Bit_TLC5947.h"
#include "varnel/chips/digin/SpiDigIn8Bit_LV165A.h"
#include "varnel/chips/digout/SpiDigOut8Bit_HC595.h"
#include "varnel/chips/encoder/SpiQuadratureCounter48BitIC_MD.h"
#include "varnel/chips/memory/EEPROM_64kByte_At25640B.h"
#include "varnel/chips/misc/SpiPotentiometer16Bit_AD529x.h"
#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"
#include "varnel/common/Export.h"
#include "varnel/common/LinuxIoPinAddressDecoder.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"
#include "varnel/common/TransferInfo.h"

#endif
