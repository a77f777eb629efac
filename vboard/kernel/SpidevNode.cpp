// SPDX-License-Identifier: MIT
#include "vboard/kernel/SpidevNode.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

#include "vboard/kernel/UserMemory.h"

namespace vboard::kernel {
namespace {

/// Mode bits that spidev takes from user space at all.
constexpr uint32_t kModeMask = SPI_CPHA | SPI_CPOL | SPI_CS_HIGH | SPI_LSB_FIRST | SPI_3WIRE |
                               SPI_LOOP | SPI_NO_CS | SPI_READY | SPI_TX_DUAL | SPI_TX_QUAD |
                               SPI_TX_OCTAL | SPI_RX_DUAL | SPI_RX_QUAD | SPI_RX_OCTAL;
constexpr uint32_t kTransmitLanes = SPI_TX_DUAL | SPI_TX_QUAD | SPI_TX_OCTAL;
constexpr uint32_t kReceiveLanes = SPI_RX_DUAL | SPI_RX_QUAD | SPI_RX_OCTAL;

constexpr uint8_t kMaxBitsPerWord = 32;
/// spidev gives every transfer of a message a place of its own, which begins where DMA of an ARMv7
/// processor can: however short, it takes this much of `bufsiz`.
constexpr uint32_t kTransferAlignment = 64;
/// The largest message that an ioctl number can ask for.
constexpr size_t kMaxTransfers = ((1U << _IOC_SIZEBITS) - 1) / sizeof(spi_ioc_transfer);
/// A transfer without buffers gets zeros from one allocation, which can't be larger.
constexpr uint32_t kMaxBufferless = 4U << 20;
/// How long a select rests between two transfers.
constexpr Time kSelectChange = std::chrono::microseconds(10);

/// Bytes in memory of one word.
constexpr uint32_t storageOf(uint8_t bitsPerWord) {
  if (bitsPerWord <= 8) {
    return 1;
  }
  return bitsPerWord <= 16 ? 2 : 4;
}

/// Modes a controller can be set to: wires, selects and lanes are what the board's wires can do.
uint32_t modesOf(const ControllerProfile& profile) {
  uint32_t modes = SPI_CS_HIGH;
  modes |= profile.lsbFirst ? SPI_LSB_FIRST : 0;
  modes |= profile.noCs ? SPI_NO_CS : 0;
  modes |= profile.loop ? SPI_LOOP : 0;
  return modes;
}

constexpr uint32_t placeOf(uint32_t length) {
  return (length + kTransferAlignment - 1) / kTransferAlignment * kTransferAlignment;
}

bool takesBits(const ControllerProfile& profile, uint8_t bitsPerWord) {
  return bitsPerWord >= 1 && bitsPerWord <= kMaxBitsPerWord &&
         (profile.wordSizes >> (bitsPerWord - 1) & 1) != 0;
}

bool severalOf(uint32_t mode, uint32_t lanes) {
  const uint32_t set = mode & lanes;
  return (set & (set - 1)) != 0;
}

/// Words lie in memory in host order, right-justified; the bits above are nobody's.
void unpackWords(const uint8_t* bytes, uint32_t storage, uint32_t mask, uint32_t* words,
                 uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    if (storage == 1) {
      words[i] = bytes[i] & mask;
    } else if (storage == 2) {
      uint16_t word = 0;
      std::memcpy(&word, bytes + size_t{i} * 2, sizeof(word));
      words[i] = word & mask;
    } else {
      uint32_t word = 0;
      std::memcpy(&word, bytes + size_t{i} * 4, sizeof(word));
      words[i] = word & mask;
    }
  }
}

void packWords(const uint32_t* words, uint32_t storage, uint32_t mask, uint8_t* bytes,
               uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    if (storage == 1) {
      bytes[i] = static_cast<uint8_t>(words[i] & mask);
    } else if (storage == 2) {
      const auto word = static_cast<uint16_t>(words[i] & mask);
      std::memcpy(bytes + size_t{i} * 2, &word, sizeof(word));
    } else {
      const uint32_t word = words[i] & mask;
      std::memcpy(bytes + size_t{i} * 4, &word, sizeof(word));
    }
  }
}

template <typename Value>
Result putUser(void* argument, Value value) {
  return copyToUser(argument, &value, sizeof(value)) ? 0 : -EFAULT;
}

/// An address as spidev's records hold it.
void* userPointer(uint64_t address) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return reinterpret_cast<void*>(static_cast<uintptr_t>(address));
}

/// Which fault an ioctl is for; nothing for those that only spidev's own checks answer.
std::optional<Call> callOf(uint32_t request) {
  switch (request) {
    case SPI_IOC_WR_MODE:
    case SPI_IOC_WR_MODE32: return Call::WriteMode;
    case SPI_IOC_RD_MODE:
    case SPI_IOC_RD_MODE32: return Call::ReadMode;
    case SPI_IOC_WR_LSB_FIRST: return Call::WriteLsbFirst;
    case SPI_IOC_RD_LSB_FIRST: return Call::ReadLsbFirst;
    case SPI_IOC_WR_BITS_PER_WORD: return Call::WriteBits;
    case SPI_IOC_RD_BITS_PER_WORD: return Call::ReadBits;
    case SPI_IOC_WR_MAX_SPEED_HZ: return Call::WriteSpeed;
    case SPI_IOC_RD_MAX_SPEED_HZ: return Call::ReadSpeed;
    default: break;
  }
  if (_IOC_NR(request) == _IOC_NR(SPI_IOC_MESSAGE(1)) && _IOC_DIR(request) == _IOC_WRITE) {
    return Call::Message;
  }
  return std::nullopt;
}

const char* nameOf(uint32_t request) {
  switch (request) {
    case SPI_IOC_WR_MODE: return "SPI_IOC_WR_MODE";
    case SPI_IOC_WR_MODE32: return "SPI_IOC_WR_MODE32";
    case SPI_IOC_RD_MODE: return "SPI_IOC_RD_MODE";
    case SPI_IOC_RD_MODE32: return "SPI_IOC_RD_MODE32";
    case SPI_IOC_WR_LSB_FIRST: return "SPI_IOC_WR_LSB_FIRST";
    case SPI_IOC_RD_LSB_FIRST: return "SPI_IOC_RD_LSB_FIRST";
    case SPI_IOC_WR_BITS_PER_WORD: return "SPI_IOC_WR_BITS_PER_WORD";
    case SPI_IOC_RD_BITS_PER_WORD: return "SPI_IOC_RD_BITS_PER_WORD";
    case SPI_IOC_WR_MAX_SPEED_HZ: return "SPI_IOC_WR_MAX_SPEED_HZ";
    case SPI_IOC_RD_MAX_SPEED_HZ: return "SPI_IOC_RD_MAX_SPEED_HZ";
    default: return nullptr;
  }
}

/// One open(2) of a node.
class SpidevFile : public OpenFile {
 public:
  explicit SpidevFile(std::shared_ptr<SpiDevice> device)
      : device_(std::move(device)), generation_(device_->generation) {
    ++device_->users;
  }
  SpidevFile(const SpidevFile&) = delete;
  SpidevFile& operator=(const SpidevFile&) = delete;

  ~SpidevFile() override {
    if (present() && --device_->users == 0) {
      device_->resetSpeed();
    }
  }

  Result ioctl(unsigned long request, void* argument) override {
    const auto number = static_cast<uint32_t>(request);
    if (_IOC_TYPE(number) != SPI_IOC_MAGIC) {
      return -ENOTTY;
    }
    if (!present()) {
      return -ESHUTDOWN;
    }
    if (const auto call = callOf(number)) {
      if (const int error = faultFor(*call, nodePath()); error != 0) {
        return -error;
      }
    }
    return device_->ioctl(number, argument);
  }

  Result read(const iovec* buffers, int count) override {
    return eachSegment(buffers, count, [this](const iovec& segment) {
      return device_->read(segment.iov_base, segment.iov_len);
    });
  }

  Result write(const iovec* buffers, int count) override {
    return eachSegment(buffers, count, [this](const iovec& segment) {
      return device_->write(segment.iov_base, segment.iov_len);
    });
  }

  const std::string& nodePath() const override { return device_->path(); }

  std::string requestName(unsigned long request) const override {
    const auto number = static_cast<uint32_t>(request);
    if (const char* name = nameOf(number)) {
      return name;
    }
    if (_IOC_TYPE(number) == SPI_IOC_MAGIC && callOf(number) == Call::Message) {
      return "SPI_IOC_MESSAGE(" + std::to_string(_IOC_SIZE(number) / sizeof(spi_ioc_transfer)) +
             ")";
    }
    return "ioctl";
  }

 private:
  bool present() const { return generation_ == device_->generation; }

  /// The driver knows plain reads and writes only: every segment is a transfer of its own.
  template <typename Transfer>
  Result eachSegment(const iovec* buffers, int count, Transfer transfer) {
    Result total = 0;
    for (int i = 0; i < count; ++i) {
      const Result done = present() ? transfer(buffers[i]) : -ESHUTDOWN;
      if (done < 0) {
        return total != 0 ? total : done;
      }
      total += done;
      if (static_cast<size_t>(done) != buffers[i].iov_len) {
        break;
      }
    }
    return total;
  }

  std::shared_ptr<SpiDevice> device_;
  unsigned generation_;
};

}  // namespace

SpiController::SpiController(SpiBus& bus)
    : requests(kMaxTransfers),
      transmitBytes(bus.options().bufsiz),
      receiveBytes(bus.options().bufsiz),
      bus_(bus),
      mosiWords_(std::max(bus.options().bufsiz, 1U)),
      misoWords_(std::max(bus.options().bufsiz, 1U)) {
  jobs.reserve(kMaxTransfers);
}

// The board's lock is held already: straight to the pins, which have nothing to do when nothing
// changes.
void SpiController::driveSelect(int select, uint32_t mode, bool selected) {
  if ((mode & SPI_NO_CS) == 0) {
    bus_.select(select).drive(driveOf(levelOf(selected == ((mode & SPI_CS_HIGH) != 0))));
  }
}

void SpiController::deselect(int select, uint32_t mode) {
  driveSelect(select, mode, false);
  if (selected_ == select) {
    selected_.reset();
  }
}

void SpiController::setSelected(int select, uint32_t mode, bool selected) {
  if (!selected) {
    deselect(select, mode);
    return;
  }
  if (selected_ == select && selectedMode_ == mode) {
    return;
  }
  if (selected_ && selected_ != select) {
    deselect(*selected_, selectedMode_);
  }
  driveSelect(select, mode, true);
  selected_ = select;
  selectedMode_ = mode;
}

void SpiController::runMessage(int select, uint32_t mode, const std::vector<SpiJob>& message) {
  Clock& clock = bus_.board().clock();
  bus_.sclk().drive(driveOf(levelOf((mode & SPI_CPOL) != 0)));
  setSelected(select, mode, true);
  bool keepSelected = false;
  for (size_t i = 0; i < message.size(); ++i) {
    const SpiJob& job = message[i];
    if (job.length > 0) {
      runJob(select, job);
    }
    if (job.delayMicroseconds > 0) {
      clock.advance(std::chrono::microseconds(job.delayMicroseconds));
    }
    if (job.changeSelect && i + 1 == message.size()) {
      keepSelected = true;
    } else if (job.changeSelect) {
      setSelected(select, mode, false);
      clock.advance(kSelectChange);
      setSelected(select, mode, true);
    }
  }
  if (!keepSelected) {
    setSelected(select, mode, false);
  }
}

void SpiController::runJob(int select, const SpiJob& job) {
  const uint32_t total = job.length / storageOf(job.format.bitsPerWord);
  // A pause between words is something the wires' transfer doesn't know: word by word then.
  const uint32_t step =
      job.wordDelayMicroseconds > 0 ? 1 : static_cast<uint32_t>(mosiWords_.size());
  for (uint32_t done = 0; done < total;) {
    const uint32_t words = std::min(step, total - done);
    runWords(select, job, done, words);
    done += words;
    if (job.wordDelayMicroseconds > 0 && done < total) {
      bus_.board().clock().advance(std::chrono::microseconds(job.wordDelayMicroseconds));
    }
  }
}

void SpiController::runWords(int select, const SpiJob& job, uint32_t offset, uint32_t words) {
  const uint32_t storage = storageOf(job.format.bitsPerWord);
  const uint32_t mask = UINT32_MAX >> (kMaxBitsPerWord - job.format.bitsPerWord);
  if (job.transmit != nullptr) {
    unpackWords(job.transmit + size_t{offset} * storage, storage, mask, mosiWords_.data(), words);
  } else {
    std::fill_n(mosiWords_.begin(), words, 0U);
  }
  const size_t received = job.receive != nullptr ? words : 0;
  bus_.transfer(select, job.format, std::span<const uint32_t>(mosiWords_.data(), words),
                std::span<uint32_t>(misoWords_.data(), received));
  if (job.receive != nullptr) {
    packWords(misoWords_.data(), storage, mask, job.receive + size_t{offset} * storage, words);
  }
}

SpiDevice::SpiDevice(std::shared_ptr<SpiController> controller, int select, std::string path)
    : controller_(std::move(controller)), select_(select), path_(std::move(path)) {
  resetSpeed();
  controller_->deselect(select_, mode_);
}

void SpiDevice::resetSpeed() {
  speedHz_ = controller_->profile().maxSpeedHz;
}

Result SpiDevice::setUp(uint32_t mode, uint8_t bitsPerWord) {
  const ControllerProfile& profile = controller_->profile();
  if (severalOf(mode, kTransmitLanes) || severalOf(mode, kReceiveLanes)) {
    return -EINVAL;
  }
  // Asking for more data lines than there are is no error: the kernel goes on with one.
  mode &= ~(kTransmitLanes | kReceiveLanes);
  const uint32_t clockMode = mode & SPI_MODE_X_MASK;
  if ((mode & ~SPI_MODE_X_MASK & ~modesOf(profile)) != 0 ||
      (profile.modes >> clockMode & 1U) == 0) {
    return -EINVAL;
  }
  bitsPerWord = bitsPerWord == 0 ? 8 : bitsPerWord;
  if (!takesBits(profile, bitsPerWord)) {
    return -EINVAL;
  }
  // The polarity of a GPIO select is fixed by whoever describes the board; the kernel takes the
  // flag and forgets it.
  mode_ = profile.gpioSelects ? mode & ~uint32_t{SPI_CS_HIGH} : mode;
  bitsPerWord_ = bitsPerWord;
  controller_->deselect(select_, mode_);
  return 0;
}

Result SpiDevice::writeMode(uint32_t mode) {
  return (mode & ~kModeMask) != 0 ? -EINVAL : setUp(mode, bitsPerWord_);
}

Result SpiDevice::writeLsbFirst(bool lsbFirst) {
  return setUp(lsbFirst ? mode_ | SPI_LSB_FIRST : mode_ & ~uint32_t{SPI_LSB_FIRST}, bitsPerWord_);
}

Result SpiDevice::writeBitsPerWord(uint8_t bits) {
  return setUp(mode_, bits);
}

Result SpiDevice::writeSpeed(uint32_t speedHz) {
  if (speedHz == 0) {
    return -EINVAL;
  }
  const Result result = setUp(mode_, bitsPerWord_);
  if (result == 0) {
    speedHz_ = speedHz;
  }
  return result;
}

Result SpiDevice::readSetting(uint32_t request, void* argument) const {
  switch (request) {
    case SPI_IOC_RD_MODE: return putUser(argument, static_cast<uint8_t>(mode_));
    case SPI_IOC_RD_MODE32: return putUser(argument, mode_);
    case SPI_IOC_RD_LSB_FIRST:
      return putUser(argument, static_cast<uint8_t>((mode_ & SPI_LSB_FIRST) != 0 ? 1 : 0));
    case SPI_IOC_RD_BITS_PER_WORD: return putUser(argument, bitsPerWord_);
    default: return putUser(argument, speedHz_);
  }
}

Result SpiDevice::ioctl(uint32_t request, void* argument) {
  uint8_t byte = 0;
  uint32_t word = 0;
  switch (request) {
    case SPI_IOC_RD_MODE:
    case SPI_IOC_RD_MODE32:
    case SPI_IOC_RD_LSB_FIRST:
    case SPI_IOC_RD_BITS_PER_WORD:
    case SPI_IOC_RD_MAX_SPEED_HZ: return readSetting(request, argument);
    case SPI_IOC_WR_MODE:
      return copyFromUser(&byte, argument, sizeof(byte)) ? writeMode(byte) : -EFAULT;
    case SPI_IOC_WR_MODE32:
      return copyFromUser(&word, argument, sizeof(word)) ? writeMode(word) : -EFAULT;
    case SPI_IOC_WR_LSB_FIRST:
      return copyFromUser(&byte, argument, sizeof(byte)) ? writeLsbFirst(byte != 0) : -EFAULT;
    case SPI_IOC_WR_BITS_PER_WORD:
      return copyFromUser(&byte, argument, sizeof(byte)) ? writeBitsPerWord(byte) : -EFAULT;
    case SPI_IOC_WR_MAX_SPEED_HZ:
      return copyFromUser(&word, argument, sizeof(word)) ? writeSpeed(word) : -EFAULT;
    default: break;
  }
  if (_IOC_NR(request) != _IOC_NR(SPI_IOC_MESSAGE(1)) || _IOC_DIR(request) != _IOC_WRITE) {
    return -ENOTTY;
  }
  return message(_IOC_SIZE(request), argument);
}

Result SpiDevice::message(uint32_t size, const void* argument) {
  if (size % sizeof(spi_ioc_transfer) != 0) {
    return -EINVAL;
  }
  const size_t count = size / sizeof(spi_ioc_transfer);
  if (count == 0) {
    return 0;
  }
  if (!copyFromUser(controller_->requests.data(), argument, size)) {
    return -EFAULT;
  }
  const Result total = stageMessage(count);
  if (total < 0) {
    return total;
  }
  controller_->runMessage(select_, mode_, controller_->jobs);
  for (size_t i = 0; i < count; ++i) {
    const SpiJob& job = controller_->jobs[i];
    if (job.receive != nullptr &&
        !copyToUser(userPointer(controller_->requests[i].rx_buf), job.receive, job.length)) {
      return -EFAULT;
    }
  }
  return total;
}

Result SpiDevice::stageMessage(size_t count) {
  std::vector<SpiJob>& jobs = controller_->jobs;
  jobs.resize(count);
  uint64_t total = 0;
  uint32_t transmitted = 0;
  uint32_t received = 0;
  for (size_t i = 0; i < count; ++i) {
    const spi_ioc_transfer& request = controller_->requests[i];
    total += request.len;
    // The sum must not look like an error to who gets it as an int.
    if (total > INT_MAX) {
      return -EMSGSIZE;
    }
    if (const Result result = stageJob(request, jobs[i], transmitted, received); result < 0) {
      return result;
    }
  }
  for (size_t i = 0; i < count; ++i) {
    if (const Result result = completeJob(controller_->requests[i], jobs[i]); result < 0) {
      return result;
    }
  }
  return static_cast<Result>(total);
}

Result SpiDevice::stageJob(const spi_ioc_transfer& request, SpiJob& job, uint32_t& transmitted,
                           uint32_t& received) {
  const uint32_t bufsiz = controller_->bus().options().bufsiz;
  const uint32_t place = placeOf(request.len);
  job = SpiJob{};
  job.length = request.len;
  if (request.rx_buf != 0) {
    if (place > bufsiz - received) {
      return -EMSGSIZE;
    }
    job.receive = controller_->receiveBytes.data() + received;
    received += place;
  }
  if (request.tx_buf != 0) {
    if (place > bufsiz - transmitted) {
      return -EMSGSIZE;
    }
    uint8_t* const bytes = controller_->transmitBytes.data() + transmitted;
    if (!copyFromUser(bytes, userPointer(request.tx_buf), request.len)) {
      return -EFAULT;
    }
    job.transmit = bytes;
    transmitted += place;
  }
  return 0;
}

Result SpiDevice::completeJob(const spi_ioc_transfer& request, SpiJob& job) const {
  const ControllerProfile& profile = controller_->profile();
  job.format.mode = static_cast<uint8_t>(mode_ & SPI_MODE_X_MASK);
  job.format.lsbFirst = (mode_ & SPI_LSB_FIRST) != 0;
  job.format.loop = (mode_ & SPI_LOOP) != 0;
  job.format.bitsPerWord = request.bits_per_word != 0 ? request.bits_per_word : bitsPerWord_;
  const uint32_t speedHz = request.speed_hz != 0 ? request.speed_hz : speedHz_;
  job.format.speedHz = std::min(speedHz, profile.maxSpeedHz);
  job.delayMicroseconds = request.delay_usecs;
  job.wordDelayMicroseconds = request.word_delay_usecs;
  job.changeSelect = request.cs_change != 0;
  if (!takesBits(profile, job.format.bitsPerWord) ||
      request.len % storageOf(job.format.bitsPerWord) != 0 ||
      job.format.speedHz < profile.minSpeedHz) {
    return -EINVAL;
  }
  // More than one data line per direction needs a mode that no controller here has.
  if ((request.tx_buf != 0 && request.tx_nbits > 1) ||
      (request.rx_buf != 0 && request.rx_nbits > 1)) {
    return -EINVAL;
  }
  const bool bufferless = job.transmit == nullptr && job.receive == nullptr;
  return bufferless && job.length > kMaxBufferless ? -ENOMEM : 0;
}

Result SpiDevice::runSingle(const uint8_t* transmit, uint8_t* receive, size_t count) {
  std::vector<SpiJob>& jobs = controller_->jobs;
  jobs.resize(1);
  jobs[0] = SpiJob{};
  jobs[0].transmit = transmit;
  jobs[0].receive = receive;
  jobs[0].length = static_cast<uint32_t>(count);
  spi_ioc_transfer request{};
  request.len = jobs[0].length;
  if (const Result result = completeJob(request, jobs[0]); result < 0) {
    return result;
  }
  controller_->runMessage(select_, mode_, jobs);
  return static_cast<Result>(count);
}

Result SpiDevice::read(void* buffer, size_t count) {
  if (count > controller_->bus().options().bufsiz) {
    return -EMSGSIZE;
  }
  uint8_t* const bytes = controller_->receiveBytes.data();
  const Result result = runSingle(nullptr, bytes, count);
  if (result <= 0) {
    return result;
  }
  const size_t copied = copyToUserPartly(buffer, bytes, count);
  return copied == 0 ? -EFAULT : static_cast<Result>(copied);
}

Result SpiDevice::write(const void* buffer, size_t count) {
  if (count > controller_->bus().options().bufsiz) {
    return -EMSGSIZE;
  }
  uint8_t* const bytes = controller_->transmitBytes.data();
  if (!copyFromUser(bytes, buffer, count)) {
    return -EFAULT;
  }
  return runSingle(bytes, nullptr, count);
}

SpidevNode::SpidevNode(const std::shared_ptr<SpiController>& controller, int select, dev_t device)
    : Node("/dev/spidev" + std::to_string(controller->bus().options().number) + "." +
               std::to_string(select),
           device),
      device_(std::make_shared<SpiDevice>(controller, select, path())) {
}

OpenResult SpidevNode::open(int /*flags*/) {
  return {std::make_shared<SpidevFile>(device_)};
}

void SpidevNode::setRemoved(bool removed) {
  if (removed && !this->removed()) {
    // Whoever has it open is cut off; the next one finds speed and users as after binding.
    ++device_->generation;
    device_->users = 0;
    device_->resetSpeed();
  }
  Node::setRemoved(removed);
}

}  // namespace vboard::kernel
