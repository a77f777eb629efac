// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_STEPPERCODES_H
#define VBOARD_CHIPS_STEPPERCODES_H

#include <cstdint>

/// Numbers of the stepper controllers that more than one source of their model needs.
namespace vboard::stepper {

// Register addresses that both chips share.
constexpr uint8_t kAbsPos = 0x01;
constexpr uint8_t kElPos = 0x02;
constexpr uint8_t kMark = 0x03;
constexpr uint8_t kSpeed = 0x04;
constexpr uint8_t kAcc = 0x05;
constexpr uint8_t kDec = 0x06;
constexpr uint8_t kMaxSpeed = 0x07;
constexpr uint8_t kMinSpeed = 0x08;
constexpr uint8_t kAdcOut = 0x12;
constexpr uint8_t kStepMode = 0x16;

// Ticks of 250 ns; the comments are what one unit is.
constexpr double kTick = 250e-9;
constexpr double kSpeedUnit = 1.0 / (1 << 28) / kTick;          // 0.01490 steps/s
constexpr double kAccUnit = 1.0 / (1LL << 40) / kTick / kTick;  // 14.55 steps/s²
constexpr double kMaxSpeedUnit = 1.0 / (1 << 18) / kTick;       // 15.26 steps/s
constexpr double kMinSpeedUnit = 1.0 / (1 << 24) / kTick;       // 0.2384 steps/s

constexpr int64_t kPositions = 1 << 22;
constexpr uint32_t kPositionMask = kPositions - 1;
constexpr double kElectricalPerStep = 128;
constexpr double kElectricalCycle = 4 * kElectricalPerStep;

}  // namespace vboard::stepper

#endif
