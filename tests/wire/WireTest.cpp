// SPDX-License-Identifier: MIT
#include "tests/wire/Wire.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "orv/Diag.h"
#include "orv/LinuxIoPin.h"
#include "orv/Thread.h"
#include "tests/wire/Selector.h"
#include "varnel/common/LinuxSpiBus.h"

namespace {

using wire::Lines;
using wire::lines;
using wire::Wire;

spi_ioc_transfer transferOf(const void* tx, void* rx, unsigned int len) {
  spi_ioc_transfer transfer{};
  transfer.tx_buf = reinterpret_cast<uintptr_t>(tx);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(rx);
  transfer.len = len;
  return transfer;
}

TEST(Wire, TheDriverLibraryIsServedByTheScriptedNode) {
  Wire wire;
  Varnel::CLinuxSpiBus bus;
  bus.setSPIDevice("/dev/spidev3.1");
  EXPECT_EQ(bus.open(), 0);
  EXPECT_EQ(bus.writeData("\x01\x02\x03\x04"), 0);
  EXPECT_EQ(bus.close(), 0);
  EXPECT_EQ(wire.journal(),
            lines("open(\"/dev/spidev3.1\", O_RDWR) = 7", "ioctl(7, SPI_IOC_WR_MODE32, 0) = 0",
                  "ioctl(7, SPI_IOC_RD_MODE32) = 0 -> 0", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 0) = 0",
                  "ioctl(7, SPI_IOC_WR_BITS_PER_WORD, 8) = 0",
                  "ioctl(7, SPI_IOC_RD_BITS_PER_WORD) = 0 -> 8",
                  "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0",
                  "ioctl(7, SPI_IOC_RD_MAX_SPEED_HZ) = 0 -> 500000", "write(7, [01 02 03 04]) = 4",
                  "close(7) = 0"));
}

TEST(Wire, OtherFilesAndTimesWithoutAWireGoToTheKernel) {
  {
    Wire wire;
    const int descriptor = ::open("/dev/null", O_RDWR);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(::write(descriptor, "x", 1), 1);
    std::array<char, 256> answer{};
    EXPECT_EQ(::ioctl(descriptor, _IO('T', 1), answer.data()), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(::close(descriptor), 0);
    EXPECT_EQ(::close(descriptor), -1);
    EXPECT_EQ(wire.journal(), Lines{});
  }
  EXPECT_EQ(::open("/dev/spidev-that-is-not-there", O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Wire, ATransferShowsEveryField) {
  Wire wire;
  const int node = ::open("/dev/spidev0.0", O_RDWR);
  uint8_t tx[] = {0x01, 0xA0, 0xFF};
  uint8_t rx[3] = {};
  spi_ioc_transfer transfers[2] = {transferOf(tx, rx, 3), transferOf(nullptr, nullptr, 9)};
  transfers[0].speed_hz = 1000;
  transfers[0].bits_per_word = 8;
  transfers[1].delay_usecs = 1;
  transfers[1].cs_change = 2;
  transfers[1].tx_nbits = 3;
  transfers[1].rx_nbits = 4;
  transfers[1].word_delay_usecs = 5;
  transfers[1].pad = 6;
  wire.discard();
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(2), transfers), 12);
  wire.name(tx, sizeof(tx), "command");
  wire.name(rx, sizeof(rx), "answer");
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), transfers), 3);
  transfers[0] = transferOf(tx + 1, rx + 2, 1);
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), transfers), 1);
  std::string same(9, 'x');
  transfers[0] = transferOf(same.data(), same.data(), 9);
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), transfers), 9);
  EXPECT_EQ(
      wire.journal(),
      lines("ioctl(7, SPI_IOC_MESSAGE(2), "
            "{tx=[01 a0 ff] rx=unnamed len=3 speed_hz=1000 bits_per_word=8}, "
            "{tx=null rx=null len=9 speed_hz=0 delay_usecs=1 bits_per_word=0 cs_change=2 "
            "tx_nbits=3 rx_nbits=4 word_delay_usecs=5 pad=6}) = 12",
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=command[01 a0 ff] rx=answer len=3 speed_hz=1000 bits_per_word=8}) = 3",
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=command+1[a0] rx=answer+2 len=1 speed_hz=0 bits_per_word=0}) = 1",
            "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[78*9] rx=tx len=9 speed_hz=0 bits_per_word=0}) "
            "= 9"));
}

TEST(Wire, ReceivedBytesAreTheScriptedOnesAndNoMore) {
  Wire wire;
  const int node = ::open("/dev/spidev0.0", O_RDWR);
  uint8_t rx[4] = {1, 2, 3, 4};
  spi_ioc_transfer transfer = transferOf(nullptr, rx, 4);
  wire.receives({0xAA, 0xBB});
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), &transfer), 4);
  EXPECT_EQ(rx[0], 0xAA);
  EXPECT_EQ(rx[1], 0xBB);
  EXPECT_EQ(rx[2], 3);
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), &transfer), 4);
  EXPECT_EQ(rx[3], wire::kUnscriptedByte);
  wire.fails("MESSAGE", EIO);
  rx[0] = 9;
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), &transfer), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(rx[0], 9) << "a failed message receives nothing";
  wire.discard();
}

TEST(Wire, AChipDoubleAnswersWhatTheScriptDoesNot) {
  Wire wire;
  const int node = ::open("/dev/spidev0.0", O_RDWR);
  std::vector<int> seen;
  wire.answersAs([&seen](const uint8_t* sent, uint8_t* received, size_t size) {
    seen.push_back(sent == nullptr ? -1 : sent[0]);
    if (received != nullptr) {
      received[size - 1] = 0x77;
    }
  });
  uint8_t buffer[2] = {0x12, 0x34};
  uint8_t rx[2] = {};
  spi_ioc_transfer transfers[] = {transferOf(buffer, nullptr, 2), transferOf(nullptr, rx, 2),
                                  transferOf(buffer, buffer, 2)};
  wire.receives({0x01, 0x02});
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(3), transfers), 6);
  EXPECT_EQ(seen, (std::vector<int>{0x12, -1, 0x12}));
  EXPECT_EQ(rx[1], 0x02) << "the script goes first";
  EXPECT_EQ(buffer[0], wire::kUnscriptedByte);
  EXPECT_EQ(buffer[1], 0x77);
  wire.fails("MESSAGE", EIO);
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(3), transfers), -1);
  EXPECT_EQ(seen.size(), 3U) << "a failed message reaches no chip";
  wire.discard();
}

TEST(Wire, SettingsReadBackAsWrittenOrAsScripted) {
  Wire wire;
  const int node = ::open("/dev/spidev0.0", O_RDWR);
  uint32_t value = 123456;
  EXPECT_EQ(::ioctl(node, SPI_IOC_WR_MAX_SPEED_HZ, &value), 0);
  EXPECT_EQ(wire.nodeSpeedHz(), 123456U);
  wire.answers("RD_MAX_SPEED_HZ", 99);
  EXPECT_EQ(::ioctl(node, SPI_IOC_RD_MAX_SPEED_HZ, &value), 0);
  EXPECT_EQ(value, 99U);
  uint8_t order = 1;
  EXPECT_EQ(::ioctl(node, SPI_IOC_WR_LSB_FIRST, &order), 0);
  order = 7;
  EXPECT_EQ(::ioctl(node, SPI_IOC_RD_LSB_FIRST, &order), 0);
  EXPECT_EQ(order, 1);
  EXPECT_EQ(
      wire.journal(),
      lines("open(\"/dev/spidev0.0\", O_RDWR) = 7", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 123456) = 0",
            "ioctl(7, SPI_IOC_RD_MAX_SPEED_HZ) = 0 -> 99", "ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0",
            "ioctl(7, SPI_IOC_RD_LSB_FIRST) = 0 -> 1"));
}

TEST(Wire, UnknownRequestsAndClosedDescriptorsAreRefused) {
  Wire wire;
  uint8_t order = 1;
  EXPECT_EQ(::ioctl(0, SPI_IOC_WR_LSB_FIRST, &order), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(::ioctl(-1, SPI_IOC_WR_LSB_FIRST, &order), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(::close(-1), -1);
  const int node = ::open("/dev/spidev0.0", O_RDWR);
  EXPECT_EQ(::ioctl(node, _IO(SPI_IOC_MAGIC, 99), nullptr), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(::close(node), 0);
  EXPECT_EQ(::close(node), -1);
  EXPECT_EQ(::write(node, "x", 1), -1);
  EXPECT_EQ(wire.journal(), lines("ioctl(0, SPI_IOC_WR_LSB_FIRST, 1) = -1 ENOTTY",
                                  "ioctl(-1, SPI_IOC_WR_LSB_FIRST, 1) = -1 EBADF",
                                  "close(-1) = -1 EBADF", "open(\"/dev/spidev0.0\", O_RDWR) = 7",
                                  "ioctl(7, unknown request 27491) = -1 ENOTTY", "close(7) = 0",
                                  "close(7) = -1 EBADF", "write(7, [78]) = -1 EBADF"));
}

TEST(Wire, ClosingStandardInputInARecordingLeavesItOpen) {
  Wire wire;
  EXPECT_EQ(::close(0), 0);
  EXPECT_EQ(wire.journal(), Lines{"close(0) = 0"});
  EXPECT_NE(::fcntl(0, F_GETFD), -1);
}

TEST(Wire, FailuresHitTheNamedOrTheNumberedCall) {
  Wire wire;
  wire.fails("close", EIO, 2).failsCall(2, ENODEV);
  EXPECT_EQ(::open("/dev/spidev0.0", O_RDWR), 7);
  EXPECT_EQ(::open("/dev/spidev0.1", O_RDWR), -1);
  EXPECT_EQ(errno, ENODEV);
  EXPECT_EQ(::open("/dev/spidev0.1", O_WRONLY), 8);
  EXPECT_EQ(::close(7), 0);
  EXPECT_EQ(::close(8), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(::close(8), 0) << "a close that failed on script leaves the descriptor open";
  EXPECT_EQ(wire.journal(), lines("open(\"/dev/spidev0.0\", O_RDWR) = 7",
                                  "open(\"/dev/spidev0.1\", O_RDWR) = -1 ENODEV",
                                  "open(\"/dev/spidev0.1\", O_WRONLY) = 8", "close(7) = 0",
                                  "close(8) = -1 EIO", "close(8) = 0"));
}

TEST(Wire, PerrorShowsItsErrnoAndChangesIt) {
  Wire wire;
  errno = ENODEV;
  std::perror("can't open device");
  EXPECT_EQ(errno, wire::kErrnoAfterPerror);
  EXPECT_EQ(wire.journal(), Lines{"perror(\"can't open device\") ENODEV"});
}

TEST(Wire, PinsJournalTheirSettingsAndLevels) {
  Wire wire;
  Orv::CLinuxIoPin pin(17, Orv::OUTPUT_PIN, Orv::PIN_MODE_INVERT);
  EXPECT_EQ(pin.write(Orv::HIGH), -9);
  EXPECT_EQ(wire.pinLevel(17), -1);
  EXPECT_EQ(pin.connect(), 0);
  Orv::CLinuxIoPin copy(pin);
  EXPECT_EQ(copy.write(Orv::HIGH), 0);
  EXPECT_EQ(pin.read(), 1);
  EXPECT_EQ(wire.pinLevel(17), 1);
  pin.configure(4, Orv::INPUT_PIN, Orv::PIN_MODE_HW);
  EXPECT_EQ(pin.read(), -9);
  EXPECT_EQ(pin.connect(), 0);
  wire.pinReads(4, {1, 0});
  EXPECT_EQ(pin.read(), 1);
  EXPECT_EQ(pin.read(), 0);
  EXPECT_EQ(pin.write(Orv::LOW), -1);
  wire.fails("pin 17: write LOW", EIO);
  EXPECT_EQ(copy.write(Orv::LOW), -5);
  EXPECT_EQ(wire.pinLevel(17), 1);
  Orv::CLinuxIoPin moved(std::move(copy));
  EXPECT_EQ(moved.write(Orv::LOW), 0);
  EXPECT_EQ(
      wire.journal(),
      lines("pin 17: write HIGH = -9", "pin 17: connect OUTPUT_PIN PIN_MODE_INVERT = 0",
            "pin 17: write HIGH = 0", "pin 17: read = 1", "pin 4: configure INPUT_PIN PIN_MODE_HW",
            "pin 4: connect INPUT_PIN PIN_MODE_HW = 0", "pin 4: read = 1", "pin 4: read = 0",
            "pin 4: write LOW = -1", "pin 17: write LOW = -5", "pin 17: write LOW = 0"));
}

TEST(Wire, SleepsAreNotSlept) {
  Wire wire;
  Orv::CThread::sleep(3600000);
  EXPECT_EQ(wire.journal(), Lines{"sleep(3600000)"});
}

TEST(Wire, LogLinesShowLevelTextFileFunctionAndWhatIsOddAboutThem) {
  Wire wire;
  log4cplus::Logger& logger = Orv::Diag::diagLogger();
  logger.log(log4cplus::ERROR_LOG_LEVEL, "text", "varnel/a.cpp", 1, "work");
  logger.log(log4cplus::WARN_LOG_LEVEL, "text", "varnel/a.cpp", 0, "work");
  log4cplus::Logger::getInstance("other").log(log4cplus::ERROR_LOG_LEVEL, "", nullptr, 1, nullptr);
  EXPECT_EQ(wire.lastLogLine(), 1);
  wire.logThrows();
  EXPECT_THROW(logger.log(log4cplus::ERROR_LOG_LEVEL, "last", "b.cpp", 1, "f"), std::runtime_error);
  wire.diagLoggerThrows();
  EXPECT_THROW(Orv::Diag::diagLogger(), std::bad_alloc);
  EXPECT_EQ(
      wire.journal(),
      lines("log ERROR \"text\" varnel/a.cpp work", "log 30000 \"text\" varnel/a.cpp work line 0",
            "log ERROR \"\" no file no function logger other", "log ERROR \"last\" b.cpp f"));
}

TEST(Wire, ASelectorJournalsAndKeepsItsState) {
  Wire wire;
  wire::Selector selector("adc");
  wire.fails("select(adc, false)", EINVAL);
  EXPECT_EQ(selector.enable(true), 0);
  EXPECT_EQ(selector.enable(false), -22);
  EXPECT_TRUE(selector.selected());
  EXPECT_EQ(selector.enable(false), 0);
  EXPECT_FALSE(selector.selected());
  EXPECT_EQ(wire.journal(),
            lines("select(adc, true) = 0", "select(adc, false) = -22", "select(adc, false) = 0"));
}

TEST(Wire, APausedJournalAnswersWithoutWriting) {
  Wire wire;
  const int node = ::open("/dev/spidev0.0", O_RDWR);
  uint8_t rx[2] = {};
  spi_ioc_transfer transfer = transferOf(nullptr, rx, 2);
  wire.discard();
  wire.pause();
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), &transfer), 2);
  EXPECT_EQ(rx[1], wire::kUnscriptedByte);
  uint32_t speed = 77;
  EXPECT_EQ(::ioctl(node, SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
  EXPECT_EQ(::close(node), 0);
  EXPECT_EQ(::ioctl(node, SPI_IOC_MESSAGE(1), &transfer), -1);
  wire.resume();
  EXPECT_EQ(wire.pausedMessages(), 2U);
  EXPECT_EQ(wire.nodeSpeedHz(), 77U);
  EXPECT_EQ(wire.journal(), Lines{});
}

TEST(Wire, AtEachCallACheckCanRun) {
  Wire wire;
  wire::Selector selector("adc");
  int calls = 0;
  wire.atEachCall([&calls] { ++calls; });
  EXPECT_EQ(::open("/dev/spidev0.0", O_RDWR), 7);
  EXPECT_EQ(selector.enable(true), 0);
  EXPECT_EQ(calls, 2);
  wire.discard();
}

TEST(Wire, LogLinesOfTestsAreLiteral) {
  EXPECT_EQ(wire::logged(EIO, "a.cpp f"),
            "log ERROR \"Return code  -5 0x0005 - Input/output error\" a.cpp f");
  EXPECT_EQ(wire::logged(EINVAL, "a.cpp f"),
            "log ERROR \"Return code  -22 0x0016 - Invalid argument\" a.cpp f");
  EXPECT_EQ(wire::logged(ENODEV, "a.cpp f"),
            "log ERROR \"Return code  -19 0x0013 - No such device\" a.cpp f");
}

// What follows proves that a test fails when it should.

TEST(WireFails, ForACallTooMany) {
  EXPECT_NONFATAL_FAILURE(
      {
        Wire wire;
        Orv::CThread::sleep(1);
        Orv::CThread::sleep(1);
        EXPECT_EQ(wire.journal(), Lines{"sleep(1)"});
      },
      "wire.journal()");
}

TEST(WireFails, ForAMissingCall) {
  EXPECT_NONFATAL_FAILURE(
      {
        Wire wire;
        EXPECT_EQ(wire.journal(), Lines{"sleep(1)"});
      },
      "wire.journal()");
}

TEST(WireFails, ForAWrongField) {
  EXPECT_NONFATAL_FAILURE(
      {
        Wire wire;
        const int node = ::open("/dev/spidev0.0", O_RDWR);
        wire.discard();
        spi_ioc_transfer transfer = transferOf(nullptr, nullptr, 1);
        transfer.cs_change = 1;
        ::ioctl(node, SPI_IOC_MESSAGE(1), &transfer);
        EXPECT_EQ(wire.journal(), Lines{"ioctl(7, SPI_IOC_MESSAGE(1), "
                                        "{tx=null rx=null len=1 speed_hz=0 bits_per_word=0}) = 1"});
      },
      "cs_change=1");
}

TEST(WireFails, ForCallsInTheWrongOrder) {
  EXPECT_NONFATAL_FAILURE(
      {
        Wire wire;
        Orv::CThread::sleep(1);
        Orv::CThread::sleep(2);
        EXPECT_EQ(wire.journal(), lines("sleep(2)", "sleep(1)"));
      },
      "wire.journal()");
}

TEST(WireFails, ForEntriesNobodyLookedAt) {
  EXPECT_NONFATAL_FAILURE(
      {
        Wire wire;
        Orv::CThread::sleep(12);
      },
      "nobody looked at these journal entries:\n  sleep(12)");
}

TEST(WireFails, ForALeftOverFailure) {
  EXPECT_NONFATAL_FAILURE({ Wire().fails("close(7)", EIO); }, "failure of \"close(7)\"");
}

TEST(WireFails, ForALeftOverNumberedFailure) {
  EXPECT_NONFATAL_FAILURE({ Wire().failsCall(3, EIO); }, "failure of the 3. further call");
}

TEST(WireFails, ForALeftOverAnswer) {
  EXPECT_NONFATAL_FAILURE({ Wire().answers("RD_MODE32", 1); }, "answer of \"RD_MODE32\"");
}

TEST(WireFails, ForLeftOverReceivedBytes) {
  EXPECT_NONFATAL_FAILURE({ Wire().receives({0x0A, 0x0B}); }, "received bytes [0a 0b]");
}

TEST(WireFails, ForLeftOverPinReads) {
  EXPECT_NONFATAL_FAILURE({ Wire().pinReads(5, {1, 0}); }, "2 reads of pin 5");
}

TEST(WireFails, ForMoreScriptedBytesThanTheTransferTakes) {
  EXPECT_NONFATAL_FAILURE(
      {
        Wire wire;
        const int node = ::open("/dev/spidev0.0", O_RDWR);
        uint8_t rx = 0;
        spi_ioc_transfer transfer = transferOf(nullptr, &rx, 1);
        wire.receives({1, 2});
        ::ioctl(node, SPI_IOC_MESSAGE(1), &transfer);
        wire.discard();
      },
      "2 bytes for a transfer of 1");
}

}  // namespace
