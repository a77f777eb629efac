// SPDX-License-Identifier: MIT
#ifndef VARNEL_COMMON_LINUXSPIBUS_H
#define VARNEL_COMMON_LINUXSPIBUS_H

#include <linux/spi/spidev.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "orv/ErrorCode.h"
#include "varnel/common/Export.h"

namespace Varnel {

class CLinuxSpiBusPrivate;
class CLinuxSpiDevice;

/// Clock behaviour by name.
///
/// These are not the kernel's mode bits: the kernel's clock polarity (`SPI_CPOL`) is 2 and its
/// clock phase (`SPI_CPHA`) is 1, while the values here are the other way round. For modes 1 and 2
/// write the mode *number* of the chip's data sheet into `stBusSettings::Mode`, as the drivers of
/// this library do; an OR of these names gives the right number for modes 0 and 3 only.
enum eSpiModeFlags {
  SPI_CLOCK_IDLE_LOW = 0,             ///< the clock line rests low
  SPI_CLOCK_IDLE_HIGH = 1,            ///< the clock line rests high
  SPI_CAPTURE_FIRST_TRANSITION = 0,   ///< data are sampled on the first clock edge of a bit
  SPI_CAPTURE_SECOND_TRANSITION = 2,  ///< data are sampled on the second clock edge of a bit
};

/// What a managed transfer does with the device's chip select.
typedef enum {
  CS_SELECT_DESELECT = 0,  ///< select before, deselect after a successful transfer
  CS_JUST_SELECT = 1,      ///< select before, leave selected
  CS_JUST_DESELECT = 2,    ///< leave as it is before, deselect after a successful transfer
  CS_NOTHING = 3           ///< leave the chip select alone
} eCS_Handling;

/// Clock mode and bit order that a chip needs.
struct stBusSettings {
  uint32_t Mode = 0;     ///< SPI mode bits as the kernel counts them: the mode number 0 to 3
  uint8_t LSBFirst = 0;  ///< 0: most significant bit first; otherwise least significant bit first
};

/// One transfer together with the bus settings it needs.
struct stSpiTransferSettings {
  /// The kernel's transfer record. A `speed_hz` of 0 means the speed of the bus.
  spi_ioc_transfer ioc_transfer{};
  stBusSettings bus_settings;  ///< mode and bit order of the transfer
};

/// Several transfers that travel in one kernel message, with one set of bus settings.
struct stSpiMultipleTransferSettings {
  spi_ioc_transfer* ioc_transfer = nullptr;  ///< array of the caller
  /// Entries in the array: 1 to 511 (the kernel's request number can't carry more). Each takes at
  /// least 64 bytes of the kernel's 4096 for a message on ARMv7, sent and received counted apart.
  uint16_t transfer_count = 0;
  stBusSettings bus_settings;  ///< mode and bit order of the whole message
};

/// One `spidev` node with its current mode, bit order, word size and clock.
///
/// A device hands its prepared record to the bus; the bus switches mode and bit order where they
/// differ, lowers the clock for one transfer where the device asks for it, and, in a managed
/// transfer, drives the device's chip select around it. A device never runs faster than its bus.
///
/// Set the speed of the bus first: a record whose `speed_hz` is 0 or above the speed of the bus is
/// rewritten to the speed of the bus, for good.
///
/// All operations return 0 or a negative code, block until the kernel is done, and throw nothing.
/// A failed system call is reported by `perror` and returned as its negated error number; a failed
/// step inside a transfer is logged as well. None of them locks: whoever shares a bus between
/// threads holds `transferMutex()` for the whole of an exchange, as the drivers do.
///
/// Precondition of every transfer: the bus is open. On a closed bus a transfer works on descriptor
/// 0, and a managed one may close it.
class VARNEL_EXPORT CLinuxSpiBus {
 public:
  /// A closed bus on "/dev/spidev1.0": mode 0, most significant bit first, 8 bits, 500 kHz.
  CLinuxSpiBus();
  /// Frees the object. It neither closes the node nor takes the bus out of the registry.
  virtual ~CLinuxSpiBus();
  CLinuxSpiBus(const CLinuxSpiBus&) = delete;
  CLinuxSpiBus& operator=(const CLinuxSpiBus&) = delete;

  /// Enters a bus into the process-wide registry, which does not own it and does not lock: fill it
  /// during start-up. An existing entry of that name stays.
  static void addBus(std::string name, CLinuxSpiBus* bus);
  /// The registered bus, or null.
  static CLinuxSpiBus* getBus(std::string name);

  /// Names the node; takes effect at the next `open`.
  void setSPIDevice(const std::string& deviceName);
  /// Opens the node and applies mode, bit order, word size and speed, reading mode, word size and
  /// speed back. A failure after the node was opened leaves it open; opening an open bus loses the
  /// first descriptor.
  TErrCode open();
  /// Closes the node. On failure the descriptor stays.
  TErrCode close();
  /// Whether there is an open descriptor.
  bool isOpen() const;
  /// The descriptor: 0 when closed, negative after a failed `open`.
  int fileDescriptor() const;
  /// Current mode and bit order.
  const stBusSettings& busSettings() const;

  /// Sets the clock in kHz, 1 to 65535: now on an open bus, otherwise at the next `open`. A refused
  /// value stays stored.
  TErrCode setSpiSpeedKHz(uint16_t speedKHz);
  /// Sets the bit order (0: most significant bit first). Unlike `setMode` it talks to the node even
  /// when the bus is closed, where it fails, and a refused value is not stored.
  TErrCode setLSBFirst(uint8_t lsbFirst);
  /// Sets the SPI mode, 0 to 3: now on an open bus, otherwise at the next `open`. A refused value
  /// stays stored.
  TErrCode setMode(uint8_t mode);

  /// Runs one transfer without touching any chip select. May rewrite the record's `speed_hz`.
  /// After a failure a lowered speed stays.
  TErrCode transferData(stSpiTransferSettings& settings);
  /// Runs several transfers in one message, without touching any chip select, at the speed of the
  /// first entry or slower. May rewrite each entry's `speed_hz`.
  TErrCode transferMultipleData(stSpiMultipleTransferSettings& settings);
  /// Runs one transfer with the device's chip select handled as asked. When mode, bit order or
  /// speed changed since the last managed transfer, the node is first closed and reopened and one
  /// settling transfer (first byte 0xFF, same length and receive buffer) is sent, so that the clock
  /// line rests at its new idle level before the chip is selected. A device slower than its bus
  /// therefore settles on every managed transfer, also in the middle of an exchange.
  /// After a failure the chip select and a lowered speed stay as they are.
  TErrCode executeManagedTransfer(CLinuxSpiDevice* device, stSpiTransferSettings& settings,
                                  eCS_Handling handling);
  /// The same for several transfers in one message; the settling transfer has the length of the
  /// first entry.
  TErrCode executeManagedTransferMultipleData(CLinuxSpiDevice* device,
                                              stSpiMultipleTransferSettings& settings,
                                              eCS_Handling handling);
  /// Writes exactly 4 bytes to the node, whatever the data.
  TErrCode writeData(const void* data);

  /// The recursive mutex that serialises exchanges on this bus.
  std::recursive_mutex& transferMutex();

 private:
  CLinuxSpiBusPrivate* d_ptr;
};

}  // namespace Varnel

#endif
