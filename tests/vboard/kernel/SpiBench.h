// SPDX-License-Identifier: MIT
#ifndef TESTS_VBOARD_KERNEL_SPIBENCH_H
#define TESTS_VBOARD_KERNEL_SPIBENCH_H

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "vboard/kernel/Kernel.h"

namespace bench {

using Lines = std::vector<std::string>;

/// What a call answers in the kernel's own terms: a value of 0 or more, or a negated errno.
template <typename Value>
long answer(Value value) {
  return value < 0 ? -static_cast<long>(errno) : static_cast<long>(value);
}

/// An ioctl with a pointer to a value.
template <typename Value>
long control(int descriptor, unsigned long request, Value* argument) {
  return answer(ioctl(descriptor, request, argument));
}

template <typename Value>
long set(int descriptor, unsigned long request, Value value) {
  return answer(ioctl(descriptor, request, &value));
}

template <typename Value>
Value get(int descriptor, unsigned long request) {
  Value value{};
  return answer(ioctl(descriptor, request, &value)) == 0 ? value : static_cast<Value>(~Value{0});
}

/// Whether a spidev request met a real file or no file at all. Emulators of another processor
/// answer ENOSYS to numbers they don't know.
inline bool isForeign(long result) {
  return result == -ENOTTY || result == -EBADF || result == -ENOSYS;
}

inline uint64_t address(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

inline spi_ioc_transfer transferOf(const void* transmit, void* receive, uint32_t length) {
  spi_ioc_transfer transfer{};
  transfer.tx_buf = address(transmit);
  transfer.rx_buf = address(receive);
  transfer.len = length;
  return transfer;
}

inline long message(int descriptor, spi_ioc_transfer transfer) {
  return answer(ioctl(descriptor, SPI_IOC_MESSAGE(1), &transfer));
}

inline long message(int descriptor, std::vector<spi_ioc_transfer> transfers) {
  const unsigned long size = transfers.size() * sizeof(spi_ioc_transfer);
  return answer(ioctl(descriptor, _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, size), transfers.data()));
}

/// Writes down what happens on a bus: select edges and transfers, with the microsecond.
class Journal : public vboard::Observer {
 public:
  explicit Journal(vboard::SpiBus& bus) : bus_(bus) { bus_.board().addObserver(*this); }
  ~Journal() override { bus_.board().removeObserver(*this); }

  void onNet(const vboard::Net& net, vboard::Time time) override {
    for (int i = 0; i < bus_.options().selects; ++i) {
      if (bus_.select(i).net() == &net) {
        add("CS" + std::to_string(i) + (net.level() == vboard::Level::High ? " high" : " low"),
            time);
      }
    }
  }

  void onTransfer(const vboard::SpiRecord& record) override {
    std::string line = "mode " + std::to_string(record.format.mode) +
                       (record.format.lsbFirst ? " LSB first" : "") + ", " +
                       std::to_string(record.format.bitsPerWord) + " bits, " +
                       std::to_string(record.format.speedHz) + " Hz:";
    for (const uint32_t word : record.mosi) {
      char text[16];
      snprintf(text, sizeof(text), " %x", word);
      line += text;
    }
    add(line, record.start);
  }

  void onCall(std::string_view call, std::string_view node, long result, vboard::Time) override {
    calls.push_back(std::string(call) + " " + std::string(node) + " = " + std::to_string(result));
  }

  Lines lines;
  Lines calls;
  bool withTime = false;

 private:
  void add(const std::string& text, vboard::Time time) {
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    lines.push_back(withTime ? std::to_string(microseconds) + ": " + text : text);
  }

  vboard::SpiBus& bus_;
};

/// One bus whose MOSI is wired to its MISO, two nodes, calls that take no time.
struct SpiBench {
  explicit SpiBench(vboard::SpiBusOptions options = {.number = 1, .selects = 2})
      : board({.callCost = vboard::Time(0)}), bus(board.addSpiBus(std::move(options))) {
    board.connect(bus.mosi(), bus.miso());
  }

  vboard::Board board;
  vboard::SpiBus& bus;
  vboard::Kernel kernel{board};
};

/// Two pages, the second of which can't be touched.
class GuardedPage {
 public:
  explicit GuardedPage(int protection = PROT_READ | PROT_WRITE)
      : pages_(static_cast<uint8_t*>(
            mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    mprotect(pages_, kSize, protection);
    mprotect(pages_ + kSize, kSize, PROT_NONE);
  }
  ~GuardedPage() { munmap(pages_, 2 * kSize); }
  GuardedPage(const GuardedPage&) = delete;
  GuardedPage& operator=(const GuardedPage&) = delete;

  uint8_t* begin() const { return pages_; }
  /// The last bytes before the forbidden ones.
  uint8_t* last(size_t bytes) const { return pages_ + kSize - bytes; }
  uint8_t* forbidden() const { return pages_ + kSize; }

 private:
  // Any page size of the machines at hand divides it.
  static constexpr size_t kSize = 65536;
  uint8_t* pages_;
};

}  // namespace bench

#endif
