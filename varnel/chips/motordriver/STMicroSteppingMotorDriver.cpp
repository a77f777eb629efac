// SPDX-License-Identifier: MIT
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"
#include "varnel/chips/motordriver/STMicroSteppingMotorDriver_p.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

constexpr uint32_t SPI_MODE_NUMBER = 3;
constexpr uint32_t SPEED_HZ = 1000000;
constexpr uint8_t BITS_PER_WORD = 8;

constexpr uint32_t MAX_MOVE_STEPS = 0x1FFFFF;
constexpr uint32_t POSITION_MASK = 0x3FFFFF;
constexpr uint32_t POSITION_SIGN = 0x200000;
constexpr uint32_t POSITION_MAGNITUDE = 0x1FFFFF;

using tBusLock = std::lock_guard<std::recursive_mutex>;

// What the hardware instruction of the target does; the language leaves these cases undefined.
uint32_t saturated(float value) {
  constexpr float TWO_TO_32 = 4294967296.0F;
  if (!(value > 0)) {
    return 0;
  }
  return value < TWO_TO_32 ? static_cast<uint32_t>(value) : UINT32_MAX;
}

uint32_t registerValue(float physical, float factor, unsigned bits) {
  return std::min(saturated(physical * factor), (1U << bits) - 1);
}

unsigned bytesOf(uint8_t bitLength) {
  return (bitLength + 7U) / 8U;
}

uint8_t byteOf(uint32_t value, unsigned index) {
  return static_cast<uint8_t>(value >> (8 * index));
}

}  // namespace

ST::CStatus::CStatus(uint16_t data) : CHasFlags(data) {
}

ST::CStatus::~CStatus() = default;

CSTMicroSteppingMotorDriver::CSTMicroSteppingMotorDriver(
    CSTMicroSteppingMotorDriverPrivate* privatePart)
    : CLinuxSpiDevice(nullptr, nullptr, nullptr), d_ptr(privatePart) {
  setupSPITransferSettings();
}

CSTMicroSteppingMotorDriver::~CSTMicroSteppingMotorDriver() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdelete-non-virtual-dtor"
  // The private classes carry no virtual destructor, and that is intended: what a chip's private
  // part owns beyond the base stays allocated.
  delete d_ptr;
#pragma GCC diagnostic pop
}

void CSTMicroSteppingMotorDriver::setupSPITransferSettings() {
  spi_ioc_transfer& transfer = m_TransferSettings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(&d_ptr->SPI_TxBuffer);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(&d_ptr->SPI_RxBuffer);
  transfer.len = sizeof(d_ptr->SPI_TxBuffer);
  transfer.speed_hz = SPEED_HZ;
  transfer.bits_per_word = BITS_PER_WORD;
  transfer.tx_nbits = 0;
  transfer.rx_nbits = 0;
  m_TransferSettings.bus_settings.Mode = SPI_MODE_NUMBER;
  m_TransferSettings.bus_settings.LSBFirst = 0;
}

CSTMicroSteppingMotorDriver* CSTMicroSteppingMotorDriver::create(const std::string& typeName) {
  return motorDriverFactory(typeName)();
}

MotorDriverFactoryFunction CSTMicroSteppingMotorDriver::motorDriverFactory(
    std::string motorDriverTypeName) {
  const tMotorDriverFactoryMap& registry = motorDriverFactoryRegistry();
  const auto found = registry.find(motorDriverTypeName);
  if (found == registry.end()) {
    std::stringstream message;
    message << "Motor driver type " << motorDriverTypeName << " not supported";
    throw std::invalid_argument(message.str());
  }
  return found->second;
}

tMotorDriverFactoryMap& CSTMicroSteppingMotorDriver::motorDriverFactoryRegistry() {
  const auto fill = [](tMotorDriverFactoryMap& map) {
    map.emplace("Varnel::CMotorDriver1ChnPowerSTEP01", createMotorDriver1ChnPowerSTEP01);
    map.emplace("Varnel::CMotorDriver1ChnL6470", createMotorDriver1ChnL6470);
  };
  // Filled while it is created, so that threads may share the first call.
  static tMotorDriverFactoryMap registry = [&fill] {
    tMotorDriverFactoryMap map;
    fill(map);
    return map;
  }();
  // A derived class can empty it.
  if (registry.empty()) {
    fill(registry);
  }
  return registry;
}

TErrCode CSTMicroSteppingMotorDriver::softStop() {
  return sendCommand(ST::CMD_SOFT_STOP);
}

TErrCode CSTMicroSteppingMotorDriver::hardStop() {
  return sendCommand(ST::CMD_HARD_STOP);
}

TErrCode CSTMicroSteppingMotorDriver::resetDevice() {
  return sendCommand(ST::CMD_RESET_DEVICE);
}

TErrCode CSTMicroSteppingMotorDriver::goHome() {
  return sendCommand(ST::CMD_GO_HOME);
}

TErrCode CSTMicroSteppingMotorDriver::goMark() {
  return sendCommand(ST::CMD_GO_MARK);
}

TErrCode CSTMicroSteppingMotorDriver::resetPosition() {
  return sendCommand(ST::CMD_RESET_POS);
}

TErrCode CSTMicroSteppingMotorDriver::softHiZ() {
  return sendCommand(ST::CMD_SOFT_HIZ);
}

TErrCode CSTMicroSteppingMotorDriver::hardHiZ() {
  return sendCommand(ST::CMD_HARD_HIZ);
}

TErrCode CSTMicroSteppingMotorDriver::run(float stepsPerSecond, uint8_t direction) {
  const tBusLock lock(transferMutex());
  const TErrCode code = sendMotionCommand(static_cast<uint8_t>(ST::CMD_RUN | direction),
                                          d_ptr->toSPEED_Value(stepsPerSecond));
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CSTMicroSteppingMotorDriver::move(uint32_t steps, uint8_t direction) {
  const tBusLock lock(transferMutex());
  const TErrCode code = sendMotionCommand(static_cast<uint8_t>(ST::CMD_MOVE | direction),
                                          std::min(steps, MAX_MOVE_STEPS));
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CSTMicroSteppingMotorDriver::goTo(int32_t absolutePosition) {
  const tBusLock lock(transferMutex());
  const TErrCode code = sendMotionCommand(ST::CMD_GOTO, d_ptr->toABSPOSValue(absolutePosition));
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CSTMicroSteppingMotorDriver::goToDirection(int32_t absolutePosition, uint8_t direction) {
  const tBusLock lock(transferMutex());
  const TErrCode code = sendMotionCommand(static_cast<uint8_t>(ST::CMD_GOTO_DIR | direction),
                                          d_ptr->toABSPOSValue(absolutePosition));
  return code < 0 ? logReturnCode(code) : code;
}

TErrCode CSTMicroSteppingMotorDriver::setParameter(uint8_t parameter, uint32_t value) {
  const tBusLock lock(transferMutex());
  uint8_t received = 0;
  const TErrCode code = spiTransferByte(ST::CMD_SET_PARAM | parameter, received);
  if (code < 0) {
    return logReturnCode(code);
  }
  uint32_t scratch = 0;
  return spiTransferHandler(parameter, value, scratch);
}

TErrCode CSTMicroSteppingMotorDriver::getParameter(uint8_t parameter, uint32_t& value) {
  const tBusLock lock(transferMutex());
  uint8_t received = 0;
  const TErrCode code = spiTransferByte(ST::CMD_GET_PARAM | parameter, received);
  if (code < 0) {
    return logReturnCode(code);
  }
  return spiTransferHandler(parameter, ST::CMD_NOP, value);
}

TErrCode CSTMicroSteppingMotorDriver::setAcceleration(float stepsPerSecond2) {
  const tBusLock lock(transferMutex());
  return setParameter(ST::ACC, d_ptr->ACC_DEC_Value(stepsPerSecond2));
}

TErrCode CSTMicroSteppingMotorDriver::setDeceleration(float stepsPerSecond2) {
  const tBusLock lock(transferMutex());
  return setParameter(ST::DEC, d_ptr->ACC_DEC_Value(stepsPerSecond2));
}

TErrCode CSTMicroSteppingMotorDriver::setMaximumVelocity(float stepsPerSecond) {
  const tBusLock lock(transferMutex());
  return setParameter(ST::MAX_SPEED, d_ptr->toMAXSPEED_Value(stepsPerSecond));
}

TErrCode CSTMicroSteppingMotorDriver::setMinimumVelocity(float stepsPerSecond) {
  const tBusLock lock(transferMutex());
  return setParameter(ST::MIN_SPEED, d_ptr->MINSPEED_Value(stepsPerSecond));
}

TErrCode CSTMicroSteppingMotorDriver::writePosition(int32_t absolutePosition) {
  const tBusLock lock(transferMutex());
  return setParameter(ST::ABS_POS, d_ptr->toABSPOSValue(absolutePosition));
}

TErrCode CSTMicroSteppingMotorDriver::getMaximumVelocity(float& stepsPerSecond) {
  const tBusLock lock(transferMutex());
  uint32_t value = 0;
  const TErrCode code = getParameter(ST::MAX_SPEED, value);
  if (code < 0) {
    return logReturnCode(code);
  }
  stepsPerSecond = d_ptr->fromMAXSPEED_Value(value);
  return 0;
}

TErrCode CSTMicroSteppingMotorDriver::getPosition(int32_t& absolutePosition) {
  const tBusLock lock(transferMutex());
  uint32_t value = 0;
  const TErrCode code = getParameter(ST::ABS_POS, value);
  if (code < 0) {
    return logReturnCode(code);
  }
  absolutePosition = d_ptr->fromABSPOSValue(value);
  return 0;
}

TErrCode CSTMicroSteppingMotorDriver::getSpeed(float& stepsPerSecond) {
  const tBusLock lock(transferMutex());
  uint32_t value = 0;
  const TErrCode code = getParameter(ST::SPEED, value);
  if (code < 0) {
    return logReturnCode(code);
  }
  stepsPerSecond = d_ptr->fromSPEED_Value(value);
  return 0;
}

TErrCode CSTMicroSteppingMotorDriver::clearStatus() {
  const tBusLock lock(transferMutex());
  // The word arrives with the two bytes after the command. They carry what came in during the
  // command, and a command that did not go out shows in them, not here.
  uint8_t reply = 0;
  (void)spiTransferByte(ST::CMD_GET_STATUS, reply);
  uint16_t& word = d_ptr->status().m_Data;
  uint8_t received = 0;
  TErrCode code = spiTransferByte(reply, received);
  if (code < 0) {
    return logReturnCode(code);
  }
  word = static_cast<uint16_t>((unsigned{received} << 8U) | (word & 0x00FFU));
  code = spiTransferByte(reply, received);
  if (code < 0) {
    return logReturnCode(code);
  }
  word = static_cast<uint16_t>((word & 0xFF00U) | received);
  return 0;
}

int32_t CSTMicroSteppingMotorDriver::maximumPosition() const {
  return MAXIMUM_POSITION;
}

int32_t CSTMicroSteppingMotorDriver::minimumPosition() const {
  return MINIMUM_POSITION;
}

uint32_t CSTMicroSteppingMotorDriver::maximumSpeed() const {
  return MAXIMUM_SPEED;
}

uint32_t CSTMicroSteppingMotorDriver::minimumSpeed() const {
  return MINIMUM_SPEED;
}

float CSTMicroSteppingMotorDriver::maximumAcceleration() const {
  return MAXIMUM_ACCELERATION;
}

float CSTMicroSteppingMotorDriver::minimumAcceleration() const {
  return MINIMUM_ACCELERATION;
}

TErrCode CSTMicroSteppingMotorDriver::spiTransferByte(uint8_t txByte, uint8_t& rxByte) {
  d_ptr->SPI_TxBuffer = txByte;
  const TErrCode code = executeManagedTransfer(CS_SELECT_DESELECT);
  if (code < 0) {
    return code;
  }
  rxByte = d_ptr->SPI_RxBuffer;
  return 0;
}

TErrCode CSTMicroSteppingMotorDriver::spiTransferHandler(uint8_t parameter, uint32_t value,
                                                         uint32_t& result) {
  const std::vector<uint8_t>& bitLengths = registerBitLength();
  if (parameter == 0 || parameter > bitLengths.size()) {
    return -EINVAL;
  }
  const uint8_t bitLength = bitLengths[parameter - 1U];
  if (bitLength == ST::INDETERMINED_BITLENGTH) {
    return -EINVAL;
  }
  for (unsigned index = bytesOf(bitLength); index-- > 0;) {
    uint8_t received = 0;
    const TErrCode code = spiTransferByte(byteOf(value, index), received);
    if (code < 0) {
      return code;
    }
    const unsigned shift = 8 * index;
    result = (result & ~(0xFFU << shift)) | (static_cast<uint32_t>(received) << shift);
  }
  return 0;
}

TErrCode CSTMicroSteppingMotorDriver::sendCommand(uint8_t command) {
  const tBusLock lock(transferMutex());
  uint8_t received = 0;
  return spiTransferByte(command, received);
}

// The caller holds the bus, and logs.
TErrCode CSTMicroSteppingMotorDriver::sendMotionCommand(uint8_t command, uint32_t argument) {
  uint8_t received = 0;
  (void)spiTransferByte(command, received);  // the argument goes out whatever became of it
  for (unsigned index = 3; index-- > 0;) {
    const TErrCode code = spiTransferByte(byteOf(argument, index), received);
    if (code < 0) {
      return code;
    }
  }
  return 0;
}

uint32_t CSTMicroSteppingMotorDriverPrivate::toSPEED_Value(float stepsPerSecond) {
  return registerValue(stepsPerSecond, SPEED_StepTickConversion, 20);
}

float CSTMicroSteppingMotorDriverPrivate::fromSPEED_Value(uint32_t speedValue) {
  return static_cast<float>(speedValue) / SPEED_StepTickConversion;
}

uint32_t CSTMicroSteppingMotorDriverPrivate::ACC_DEC_Value(float stepsPerSecond2) {
  return registerValue(stepsPerSecond2, ACC_DEC_StepTickConversion, 12);
}

uint32_t CSTMicroSteppingMotorDriverPrivate::INTSPEED_Value(float stepsPerSecond) const {
  return registerValue(stepsPerSecond, INTSPEED_StepTickConversion, 14);
}

uint32_t CSTMicroSteppingMotorDriverPrivate::toMAXSPEED_Value(float stepsPerSecond) const {
  return registerValue(stepsPerSecond, MAX_SPEED_StepTickConversion, 10);
}

float CSTMicroSteppingMotorDriverPrivate::fromMAXSPEED_Value(uint32_t maxSpeedValue) const {
  return static_cast<float>(maxSpeedValue) / MAX_SPEED_StepTickConversion;
}

uint32_t CSTMicroSteppingMotorDriverPrivate::MINSPEED_Value(float stepsPerSecond) const {
  return registerValue(stepsPerSecond, MINSPEED_StepTickConversion, 12);
}

uint32_t CSTMicroSteppingMotorDriverPrivate::toABSPOSValue(int32_t position) const {
  const int32_t limited = std::clamp(position, CSTMicroSteppingMotorDriver::MINIMUM_POSITION,
                                     CSTMicroSteppingMotorDriver::MAXIMUM_POSITION);
  return static_cast<uint32_t>(limited) & POSITION_MASK;
}

int32_t CSTMicroSteppingMotorDriverPrivate::fromABSPOSValue(uint32_t absPos) const {
  if (absPos < POSITION_SIGN) {
    return static_cast<int32_t>(absPos);
  }
  return -static_cast<int32_t>(POSITION_MAGNITUDE & ~(absPos + POSITION_MAGNITUDE));
}

}  // namespace Varnel
