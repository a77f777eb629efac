// SPDX-License-Identifier: MIT
#ifndef TESTS_WIRE_JOURNAL_H
#define TESTS_WIRE_JOURNAL_H

#include <linux/spi/spidev.h>

#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/wire/Wire.h"

namespace wire {

/// One scripted node as the kernel keeps it. Atomic, because a paused journal takes no lock.
struct Node {
  std::atomic<bool> open{false};
  std::atomic<bool> known{false};  ///< was open before
  std::atomic<uint32_t> mode{0};
  std::atomic<uint32_t> lsbFirst{0};
  std::atomic<uint32_t> bits{8};
  std::atomic<uint32_t> speedHz{500000};
};

class Wire::State {
 public:
  static constexpr int kNodes = 16;

  /// The state of the one `Wire`, or null.
  static State* active();
  static void activate(State* state);

  /// The node behind a descriptor, open or not; null for foreign descriptors.
  Node* node(int descriptor);
  int openNode();

  /// Adds a fallible entry: `result` is what a success shows. Gives 0 or the scripted error.
  int attempt(EntryKind kind, const std::string& call, const std::string& result);
  void note(const std::string& call, const std::string& result = {});

  /// Scripted value of an RD_ request, if there is one.
  bool scriptedAnswer(const std::string& request, uint32_t& value);
  int pinRead(unsigned int pin);
  void pinWritten(unsigned int pin, int level);
  /// Fills the receive buffers of a message.
  void receive(const spi_ioc_transfer* transfers, size_t count);
  /// Whether the script had bytes for the buffer.
  bool receiveScripted(uint8_t* buffer, size_t size);
  std::string transferText(const spi_ioc_transfer& transfer);

  struct Failure {
    std::string call;
    int error;
    unsigned countdown;
  };
  struct Answer {
    std::string request;
    uint32_t value;
  };
  struct Buffer {
    std::string name;
    uintptr_t begin;
    size_t size;
  };

  std::atomic<bool> paused{false};
  std::atomic<bool> logThrows{false};
  std::atomic<bool> diagLoggerThrows{false};
  std::atomic<int> lastLogLine{0};
  std::atomic<unsigned long> pausedMessages{0};
  std::array<Node, kNodes> nodes;

  mutable std::mutex mutex;  ///< guards everything below
  std::vector<Entry> entries;
  std::list<Failure> failures;
  std::list<Answer> answers;
  std::list<std::vector<uint8_t>> received;
  std::map<unsigned int, std::list<int>> pinScript;
  std::map<unsigned int, int> pinLevels;
  std::vector<Buffer> buffers;
  std::function<void()> atEachCall;
  Wire::Chip chip;
  unsigned failingCall = 0;  ///< counts down to the call that fails; 0: none
  int failingError = 0;

 private:
  std::string bufferText(uint64_t address) const;
};

/// `EIO` for 5.
std::string errorName(int error);
/// `[01 02 ff*8]`.
std::string bytesText(const uint8_t* bytes, size_t size);

}  // namespace wire

#endif
