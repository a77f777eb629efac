// SPDX-License-Identifier: MIT
#ifndef TESTS_WIRE_WIRE_H
#define TESTS_WIRE_WIRE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "orv/ErrorCode.h"

/// A test program that links `varnel_wire` stands at the system-call edge: it defines `open`,
/// `close`, `ioctl`, `write` and `perror`, the operations of `Orv::CLinuxIoPin`, `Orv::CThread` and
/// `Orv::Diag`, and `log4cplus::Logger::log`, which replace those the driver library imports. While
/// a `Wire` exists, all of them go into its journal, in order, and take their answers from its
/// script. Without a `Wire` the system calls go on to the kernel.
///
///     wire::Wire wire;
///     wire.receives({0xbc, 0x0a});
///     EXPECT_EQ(adc.readInput(&value, true), 0);
///     EXPECT_EQ(wire.journal(), lines(
///         "select(adc, true) = 0",
///         "ioctl(7, SPI_IOC_MESSAGE(1), "
///         "{tx=null rx=buffer len=2 speed_hz=500000 bits_per_word=15}) = 2",
///         "select(adc, false) = 0"));
///
/// How entries read:
///
///     open("/dev/spidev1.0", O_RDWR) = 7          ioctl(7, SPI_IOC_RD_MODE32) = 0 -> 256
///     ioctl(7, SPI_IOC_WR_MODE, 3) = -1 EIO       close(7) = 0
///     write(7, [01 02 03 04]) = 4                 perror("can't open device") ENOENT
///     pin 17: connect OUTPUT_PIN PIN_MODE_HW = 0  pin 17: write HIGH = 0
///     pin 17: read = 1                            sleep(5)
///     pin 17: configure OUTPUT_PIN PIN_MODE_HW
///     log ERROR "text" varnel/common/LinuxSpiBus.cpp transferData
///
/// A transfer shows every field of the kernel's record: `delay_usecs`, `cs_change`, `tx_nbits`,
/// `rx_nbits`, `word_delay_usecs` and `pad` only when they aren't 0. `tx=[01 02]` are the bytes of
/// an unnamed buffer, `tx=name[01 02]` of one that the test named, `rx=tx` is the transmit buffer
/// itself, `rx=unnamed` another one. Eight and more equal bytes read `ff*8`.
namespace wire {

struct Lines : std::vector<std::string> {
  using vector::vector;
};

/// Entries and lists of entries, one after the other, as one list.
template <class... Parts>
Lines lines(const Parts&... parts) {
  Lines all;
  const auto add = [&all](const auto& part) {
    if constexpr (std::is_same_v<std::decay_t<decltype(part)>, Lines>) {
      all.insert(all.end(), part.begin(), part.end());
    } else {
      all.push_back(part);
    }
  };
  (add(parts), ...);
  return all;
}

/// Descriptor of the first node that a test opens.
constexpr int kFirstDescriptor = 7;
/// What an unscripted transfer leaves in every byte of its receive buffer.
constexpr uint8_t kUnscriptedByte = 0xEE;
/// What `perror` leaves in `errno`, as it may: returned codes must not come from there.
constexpr int kErrnoAfterPerror = 33;

enum class EntryKind {
  SystemCall,  ///< fails with -1 and an errno
  Step,        ///< fails with a negative code: pin operations, chip selectors
  Note         ///< can't fail: sleeps, pin reads, log and perror lines
};

struct Entry {
  EntryKind kind;
  std::string call;    ///< `ioctl(7, SPI_IOC_WR_MODE, 3)`
  std::string result;  ///< ` = 0`

  std::string text() const { return call + result; }
  /// The same entry had the call failed.
  std::string failedText(int error) const;
};

/// Journal and script of one test. Only one exists at a time. A left-over script entry and a
/// journal entry that nobody looked at fail the test when the `Wire` goes.
class Wire {
 public:
  Wire();
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  /// The entries since the last look, which are then gone.
  Lines journal();
  /// The same with call and result apart.
  std::vector<Entry> entries();
  /// Drops what a test's own preparation wrote.
  void discard() { entries(); }

  /// Fails the `nth` call from now on whose text contains `call`.
  Wire& fails(const std::string& call, int error, unsigned nth = 1);
  /// Fails the `number`-th fallible call from now on, whatever it is; 1 is the next one.
  Wire& failsCall(unsigned number, int error);
  /// Lets the next RD_ request whose text contains `request` answer `value`.
  Wire& answers(const std::string& request, uint32_t value);
  /// What the next transfer with a receive buffer receives: these bytes and no more.
  Wire& receives(std::vector<uint8_t> bytes);
  /// A chip double sees every journaled transfer that succeeds, and fills its receive buffer:
  /// `received` is null without one, and where the script has bytes.
  using Chip = std::function<void(const uint8_t* sent, uint8_t* received, size_t size)>;
  Wire& answersAs(Chip chip);
  /// What the next reads of a pin give, one each.
  Wire& pinReads(unsigned int pin, std::initializer_list<int> values);
  /// Lets every further log call throw.
  Wire& logThrows();
  /// Lets every further call of the diagnostics logger's getter throw.
  Wire& diagLoggerThrows();

  /// Runs `check` at every system call, pin operation and selector call from now on.
  Wire& atEachCall(std::function<void()> check);

  /// Names a buffer for the journal.
  void name(const void* buffer, size_t size, const std::string& bufferName);
  /// Source line that the last log call named.
  int lastLogLine() const;
  /// Last value written to a pin, or -1.
  int pinLevel(unsigned int pin) const;
  /// The clock that the node has now.
  unsigned int nodeSpeedHz(int descriptor = kFirstDescriptor) const;

  /// Until `resume`, calls get their default answers without journal, script, lock or allocation.
  void pause();
  void resume();
  /// Messages that were sent while paused.
  unsigned long pausedMessages() const;

  class State;

 private:
  std::unique_ptr<State> state_;
};

/// Journals a step of a test double and gives the code that the script has for it, else 0.
TErrCode step(const std::string& call);
/// Whether a `Wire` exists that isn't paused.
bool recording();

/// The log line about a failed call, for the errors that tests use (EIO, EINVAL, ENODEV). `place`
/// is source file and function: `varnel/common/LinuxSpiBus.cpp transferData`.
std::string logged(int error, const std::string& place);

}  // namespace wire

#endif
