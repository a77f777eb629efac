// SPDX-License-Identifier: MIT
#ifndef VBOARD_KERNEL_SPIDEVNODE_H
#define VBOARD_KERNEL_SPIDEVNODE_H

#include <linux/spi/spidev.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vboard/kernel/Kernel.h"
#include "vboard/kernel/Node.h"

namespace vboard::kernel {

/// What one transfer of a message asks for after the kernel filled in its defaults.
struct SpiJob {
  const uint8_t* transmit = nullptr;  ///< null: zeros
  uint8_t* receive = nullptr;         ///< null: dropped
  uint32_t length = 0;                ///< bytes
  SpiFormat format;
  uint32_t delayMicroseconds = 0;
  uint32_t wordDelayMicroseconds = 0;
  bool changeSelect = false;
};

/// One SPI controller as its devices share it: who is selected, and the bounce buffers.
class SpiController {
 public:
  explicit SpiController(SpiBus& bus);

  SpiBus& bus() const { return bus_; }
  const ControllerProfile& profile() const { return bus_.profile(); }

  /// Releases a device's select, whatever happened before: what changing its settings does.
  void deselect(int select, uint32_t mode);

  /// Runs the transfers of one message of a device.
  void runMessage(int select, uint32_t mode, const std::vector<SpiJob>& message);

  // Bounce buffers of the message at hand; they never grow.
  std::vector<spi_ioc_transfer> requests;
  std::vector<SpiJob> jobs;
  std::vector<uint8_t> transmitBytes;
  std::vector<uint8_t> receiveBytes;

 private:
  void driveSelect(int select, uint32_t mode, bool selected);
  void setSelected(int select, uint32_t mode, bool selected);
  void runJob(int select, const SpiJob& job);
  void runWords(int select, const SpiJob& job, uint32_t offset, uint32_t words);

  SpiBus& bus_;
  std::vector<uint32_t> mosiWords_;
  std::vector<uint32_t> misoWords_;
  /// The device left selected by its last message, as `cs_change` asks.
  std::optional<int> selected_;
  uint32_t selectedMode_ = 0;
};

/// One SPI device with spidev bound to it. Settings belong to the device: every descriptor of the
/// node shares them.
class SpiDevice {
 public:
  SpiDevice(std::shared_ptr<SpiController> controller, int select, std::string path);

  const std::string& path() const { return path_; }
  Kernel::SpiSettings settings() const { return {mode_, bitsPerWord_, speedHz_}; }

  /// The driver's `ioctl`, `read` and `write`, the device being there.
  Result ioctl(uint32_t request, void* argument);
  Result read(void* buffer, size_t count);
  Result write(const void* buffer, size_t count);

  /// Opens so far, without those of before a removal.
  int users = 0;
  /// How often the device was removed: descriptors of before answer ESHUTDOWN for ever.
  unsigned generation = 0;
  void resetSpeed();

 private:
  Result readSetting(uint32_t request, void* argument) const;
  Result writeMode(uint32_t mode);
  Result writeLsbFirst(bool lsbFirst);
  Result writeBitsPerWord(uint8_t bits);
  Result writeSpeed(uint32_t speedHz);
  Result message(uint32_t size, const void* argument);
  Result stageMessage(size_t count);
  Result stageJob(const spi_ioc_transfer& request, SpiJob& job, uint32_t& transmitted,
                  uint32_t& received);
  Result completeJob(const spi_ioc_transfer& request, SpiJob& job) const;
  /// What the SPI core checks when settings change; on success the select is released.
  Result setUp(uint32_t mode, uint8_t bitsPerWord);
  Result runSingle(const uint8_t* transmit, uint8_t* receive, size_t count);

  std::shared_ptr<SpiController> controller_;
  int select_;
  std::string path_;
  uint32_t mode_ = 0;
  uint8_t bitsPerWord_ = 8;
  uint32_t speedHz_ = 0;
};

/// `/dev/spidevB.C`, one per bus and native select.
class SpidevNode : public Node {
 public:
  SpidevNode(const std::shared_ptr<SpiController>& controller, int select, dev_t device);

  OpenResult open(int flags) override;
  void setRemoved(bool removed) override;
  Kernel::SpiSettings settings() const { return device_->settings(); }

 private:
  std::shared_ptr<SpiDevice> device_;
};

}  // namespace vboard::kernel

#endif
