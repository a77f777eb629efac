// SPDX-License-Identifier: MIT
#include "varnel/common/LinuxSpiBus.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "varnel/common/LinuxSpiBus_p.h"
#include "varnel/common/LinuxSpiDevice.h"
#include "varnel/common/Logging_p.h"

namespace Varnel {

namespace {

static_assert(sizeof(stBusSettings) == 8 && sizeof(stSpiTransferSettings) == 40);
static_assert(sizeof(CLinuxSpiBus) == 2 * sizeof(void*));

constexpr size_t WRITE_DATA_LENGTH = 4;

/// The kernel's default limit for one message.
constexpr size_t SETTLING_BLOCK_LENGTH = 4096;
constexpr uint8_t SETTLING_BYTE = 0xFF;

constexpr std::array<uint8_t, SETTLING_BLOCK_LENGTH> makeSettlingBlock() {
  std::array<uint8_t, SETTLING_BLOCK_LENGTH> block{};
  for (uint8_t& byte : block) {
    byte = SETTLING_BYTE;
  }
  return block;
}

constexpr std::array<uint8_t, SETTLING_BLOCK_LENGTH> SETTLING_BLOCK = makeSettlingBlock();

/// Reports the system call that just failed. `perror` may change errno, so it is read first.
TErrCode systemCallFailed(const char* text) {
  const int error = errno;
  std::perror(text);
  return -errnoToErrCode(error);
}

bool selectsBefore(eCS_Handling handling) {
  return handling == CS_SELECT_DESELECT || handling == CS_JUST_SELECT;
}

bool deselectsAfter(eCS_Handling handling) {
  return handling == CS_SELECT_DESELECT || handling == CS_JUST_DESELECT;
}

}  // namespace

std::map<std::string, CLinuxSpiBus*> CLinuxSpiBusPrivate::Registry;

TErrCode CLinuxSpiBusPrivate::setSpiSpeedHz(uint32_t speedHz) {
  if (speedHz == SpeedHz) {
    return 0;
  }
  SpeedHz = speedHz;
  if (!q_ptr->isOpen()) {
    return 0;
  }
  if (::ioctl(FileDescriptor, SPI_IOC_WR_MAX_SPEED_HZ, &SpeedHz) < 0) {
    return systemCallFailed("can't set max speed hz");
  }
  TransferSettingsChanged = true;
  return 0;
}

TErrCode CLinuxSpiBusPrivate::temporarilySetSPISpeed(uint32_t speedHz) {
  SpeedHz_TemporaryBuffer = SpeedHz;
  return setSpiSpeedHz(speedHz);
}

TErrCode CLinuxSpiBusPrivate::restoreSPISpeed() {
  return setSpiSpeedHz(SpeedHz_TemporaryBuffer);
}

TErrCode CLinuxSpiBusPrivate::applySettings(const stBusSettings& settings,
                                            spi_ioc_transfer* transfers, uint16_t count) {
  assert(transfers != nullptr && count > 0 && "a bus operation needs a transfer array");
  TErrCode code = q_ptr->setMode(static_cast<uint8_t>(settings.Mode));
  if (code < 0) {
    return code;
  }
  code = q_ptr->setLSBFirst(settings.LSBFirst);
  if (code < 0) {
    return code;
  }
  for (uint16_t i = 0; i < count; ++i) {
    if (transfers[i].speed_hz == 0 || transfers[i].speed_hz > SpeedHz) {
      transfers[i].speed_hz = SpeedHz;
    }
  }
  return temporarilySetSPISpeed(transfers[0].speed_hz);
}

TErrCode CLinuxSpiBusPrivate::sendMessage(spi_ioc_transfer* transfers, uint16_t count) {
  // SPI_IOC_MESSAGE() itself wants a constant count.
  const unsigned long request = _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, SPI_MSGSIZE(count));
  if (::ioctl(FileDescriptor, request, transfers) < 0) {
    return systemCallFailed("can't transfer data via CLinuxSpiBus");
  }
  return 0;
}

TErrCode CLinuxSpiBusPrivate::sendSettlingTransfer(const spi_ioc_transfer& first) {
  spi_ioc_transfer settling = first;
  std::unique_ptr<uint8_t[]> longBlock;
  const uint8_t* bytes = SETTLING_BLOCK.data();
  if (settling.len > SETTLING_BLOCK.size()) {
    longBlock.reset(new (std::nothrow) uint8_t[settling.len]());
    if (!longBlock) {
      errno = ENOMEM;
      return systemCallFailed("can't transfer data via CLinuxSpiBus");
    }
    longBlock[0] = SETTLING_BYTE;
    bytes = longBlock.get();
  }
  settling.tx_buf = reinterpret_cast<uintptr_t>(bytes);
  return sendMessage(&settling, 1);
}

TErrCode CLinuxSpiBusPrivate::transfer(const stBusSettings& settings, spi_ioc_transfer* transfers,
                                       uint16_t count, const char* function) {
  TErrCode code = applySettings(settings, transfers, count);
  if (code < 0) {
    return logReturnCode(code, __FILE__, __LINE__, function);
  }
  code = sendMessage(transfers, count);
  if (code < 0) {
    return code;
  }
  return restoreSPISpeed();
}

TErrCode CLinuxSpiBusPrivate::managedTransfer(CLinuxSpiDevice* device,
                                              const stBusSettings& settings,
                                              spi_ioc_transfer* transfers, uint16_t count,
                                              eCS_Handling handling, const char* function) {
  assert((device != nullptr || handling == CS_NOTHING) && "a managed transfer needs its device");
  TErrCode code = applySettings(settings, transfers, count);
  if (code < 0) {
    return logReturnCode(code, __FILE__, __LINE__, function);
  }
  if (TransferSettingsChanged) {
    code = q_ptr->close();
    if (code < 0) {
      return logReturnCode(code, __FILE__, __LINE__, function);
    }
    code = q_ptr->open();
    if (code < 0) {
      return logReturnCode(code, __FILE__, __LINE__, function);
    }
    code = sendSettlingTransfer(transfers[0]);
    if (code < 0) {
      return code;
    }
    TransferSettingsChanged = false;
  }
  if (selectsBefore(handling)) {
    code = device->enableChipSelect(true);
    if (code < 0) {
      return logReturnCode(code, __FILE__, __LINE__, function);
    }
  }
  code = sendMessage(transfers, count);
  if (code < 0) {
    return code;
  }
  if (deselectsAfter(handling)) {
    code = device->enableChipSelect(false);
    if (code < 0) {
      return logReturnCode(code, __FILE__, __LINE__, function);
    }
  }
  return restoreSPISpeed();
}

CLinuxSpiBus::CLinuxSpiBus() : d_ptr(new CLinuxSpiBusPrivate(this)) {
}

CLinuxSpiBus::~CLinuxSpiBus() {
  delete d_ptr;
}

void CLinuxSpiBus::addBus(std::string name, CLinuxSpiBus* bus) {
  CLinuxSpiBusPrivate::Registry.emplace(std::move(name), bus);
}

CLinuxSpiBus* CLinuxSpiBus::getBus(std::string name) {
  const auto entry = CLinuxSpiBusPrivate::Registry.find(name);
  return entry == CLinuxSpiBusPrivate::Registry.end() ? nullptr : entry->second;
}

void CLinuxSpiBus::setSPIDevice(const std::string& deviceName) {
  d_ptr->DeviceName = deviceName;
}

TErrCode CLinuxSpiBus::open() {
  d_ptr->FileDescriptor = ::open(d_ptr->DeviceName.c_str(), O_RDWR);
  const int fd = d_ptr->FileDescriptor;
  if (fd < 0) {
    return systemCallFailed("can't open device");
  }
  stBusSettings& settings = d_ptr->TransferSettings;
  if (::ioctl(fd, SPI_IOC_WR_MODE32, &settings.Mode) < 0) {
    return systemCallFailed("can't set spi mode");
  }
  if (::ioctl(fd, SPI_IOC_RD_MODE32, &settings.Mode) < 0) {
    return systemCallFailed("can't get spi mode");
  }
  // The mode's text is meant: it stands for both halves of the bus settings.
  if (::ioctl(fd, SPI_IOC_WR_LSB_FIRST, &settings.LSBFirst) < 0) {
    return systemCallFailed("can't set spi mode");
  }
  if (::ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &d_ptr->DataBits) < 0) {
    return systemCallFailed("can't set bits per word");
  }
  if (::ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &d_ptr->DataBits) < 0) {
    return systemCallFailed("can't get bits per word");
  }
  if (::ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &d_ptr->SpeedHz) < 0) {
    return systemCallFailed("can't set max speed hz");
  }
  if (::ioctl(fd, SPI_IOC_RD_MAX_SPEED_HZ, &d_ptr->SpeedHz) < 0) {
    return systemCallFailed("can't get max speed hz");
  }
  return 0;
}

TErrCode CLinuxSpiBus::close() {
  if (::close(d_ptr->FileDescriptor) < 0) {
    return systemCallFailed("can't close device");
  }
  d_ptr->FileDescriptor = 0;
  return 0;
}

bool CLinuxSpiBus::isOpen() const {
  return d_ptr->FileDescriptor > 0;
}

int CLinuxSpiBus::fileDescriptor() const {
  return d_ptr->FileDescriptor;
}

const stBusSettings& CLinuxSpiBus::busSettings() const {
  return d_ptr->TransferSettings;
}

TErrCode CLinuxSpiBus::setSpiSpeedKHz(uint16_t speedKHz) {
  constexpr uint32_t HZ_PER_KHZ = 1000;
  return d_ptr->setSpiSpeedHz(speedKHz * HZ_PER_KHZ);
}

TErrCode CLinuxSpiBus::setLSBFirst(uint8_t lsbFirst) {
  if (lsbFirst == d_ptr->TransferSettings.LSBFirst) {
    return 0;
  }
  // Unlike the mode, the bit order is never kept for a later `open`: a closed bus reports it.
  if (::ioctl(d_ptr->FileDescriptor, SPI_IOC_WR_LSB_FIRST, &lsbFirst) < 0) {
    return systemCallFailed("can't set SPI_IOC_WR_LSB_FIRST");
  }
  d_ptr->TransferSettingsChanged = true;
  d_ptr->TransferSettings.LSBFirst = lsbFirst;
  return 0;
}

TErrCode CLinuxSpiBus::setMode(uint8_t mode) {
  // The stored mode is what the kernel read back and may have bits above the low byte: then the
  // two differ, and the request is made.
  if (mode == d_ptr->TransferSettings.Mode) {
    return 0;
  }
  d_ptr->TransferSettings.Mode = mode;
  if (!isOpen()) {
    return 0;
  }
  if (::ioctl(d_ptr->FileDescriptor, SPI_IOC_WR_MODE, &mode) < 0) {
    return systemCallFailed("can't set spi mode");
  }
  d_ptr->TransferSettingsChanged = true;
  return 0;
}

TErrCode CLinuxSpiBus::transferData(stSpiTransferSettings& settings) {
  return d_ptr->transfer(settings.bus_settings, &settings.ioc_transfer, 1, __func__);
}

TErrCode CLinuxSpiBus::transferMultipleData(stSpiMultipleTransferSettings& settings) {
  return d_ptr->transfer(settings.bus_settings, settings.ioc_transfer, settings.transfer_count,
                         __func__);
}

TErrCode CLinuxSpiBus::executeManagedTransfer(CLinuxSpiDevice* device,
                                              stSpiTransferSettings& settings,
                                              eCS_Handling handling) {
  return d_ptr->managedTransfer(device, settings.bus_settings, &settings.ioc_transfer, 1, handling,
                                __func__);
}

TErrCode CLinuxSpiBus::executeManagedTransferMultipleData(CLinuxSpiDevice* device,
                                                          stSpiMultipleTransferSettings& settings,
                                                          eCS_Handling handling) {
  return d_ptr->managedTransfer(device, settings.bus_settings, settings.ioc_transfer,
                                settings.transfer_count, handling, __func__);
}

TErrCode CLinuxSpiBus::writeData(const void* data) {
  if (::write(d_ptr->FileDescriptor, data, WRITE_DATA_LENGTH) < 0) {
    return systemCallFailed("Writing data to CLinuxSpiBus");
  }
  return 0;
}

std::recursive_mutex& CLinuxSpiBus::transferMutex() {
  return d_ptr->Mutex;
}

}  // namespace Varnel
