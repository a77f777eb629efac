// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>

#include <array>
#include <climits>

#include "tests/vboard/kernel/SpiBench.h"

using bench::answer;
using bench::get;
using bench::GuardedPage;
using bench::Journal;
using bench::Lines;
using bench::message;
using bench::set;
using bench::SpiBench;
using bench::transferOf;

namespace {

class Spidev : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(vboard::interposed());
    descriptor_ = open("/dev/spidev1.0", O_RDWR);
    ASSERT_GE(descriptor_, 0);
  }
  void TearDown() override { close(descriptor_); }

  SpiBench bench_;
  int descriptor_ = -1;
};

using Bytes = std::vector<uint8_t>;

// The node

TEST_F(Spidev, ANodeIsACharacterDeviceOfMajor153) {
  struct stat status;
  ASSERT_EQ(stat("/dev/spidev1.0", &status), 0);
  EXPECT_TRUE(S_ISCHR(status.st_mode));
  EXPECT_EQ(major(status.st_rdev), 153U);
}

TEST_F(Spidev, ANodeThatTheBoardLacksIsMissing) {
  EXPECT_EQ(answer(open("/dev/spidev1.2", O_RDWR)), -ENOENT);
  EXPECT_EQ(answer(open("/dev/spidev7.0", O_RDWR)), -ENOENT);
}

TEST_F(Spidev, ADirectoryOrANewFileCanNotBeOpenedInItsPlace) {
  EXPECT_EQ(answer(open("/dev/spidev1.0", O_RDWR | O_DIRECTORY)), -ENOTDIR);
  EXPECT_EQ(answer(open("/dev/spidev1.0", O_RDWR | O_CREAT | O_EXCL, 0600)), -EEXIST);
}

TEST_F(Spidev, ARemovedDeviceAnswersEshutdownToItsOwnCallsOnly) {
  bench_.kernel.removeNode("/dev/spidev1.0");
  uint8_t byte = 0;
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_RD_MODE, &byte)), -ESHUTDOWN);
  EXPECT_EQ(message(descriptor_, transferOf(&byte, nullptr, 1)), -ESHUTDOWN);
  EXPECT_EQ(answer(read(descriptor_, &byte, 1)), -ESHUTDOWN);
  EXPECT_EQ(answer(write(descriptor_, &byte, 1)), -ESHUTDOWN);
  EXPECT_EQ(answer(ioctl(descriptor_, _IO('x', 1), &byte)), -ENOTTY);
  EXPECT_EQ(answer(open("/dev/spidev1.0", O_RDWR)), -ENOENT);
}

TEST_F(Spidev, AReturnedDeviceAnswersNewDescriptorsOnly) {
  bench_.kernel.removeNode("/dev/spidev1.0");
  bench_.kernel.restoreNode("/dev/spidev1.0");
  const int fresh = open("/dev/spidev1.0", O_RDWR);
  uint8_t byte = 0;
  EXPECT_EQ(answer(ioctl(fresh, SPI_IOC_RD_MODE, &byte)), 0);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_RD_MODE, &byte)), -ESHUTDOWN);
  close(fresh);
}

TEST_F(Spidev, ClosingADescriptorOfBeforeARemovalIsNoLastCloseOfTheReturnedDevice) {
  bench_.kernel.removeNode("/dev/spidev1.0");
  bench_.kernel.restoreNode("/dev/spidev1.0");
  const int fresh = open("/dev/spidev1.0", O_RDWR);
  set<uint32_t>(fresh, SPI_IOC_WR_MAX_SPEED_HZ, 5000);
  close(descriptor_);
  EXPECT_EQ(get<uint32_t>(fresh, SPI_IOC_RD_MAX_SPEED_HZ), 5000U);
  descriptor_ = fresh;
}

TEST_F(Spidev, ADeniedNodeIsNotOpened) {
  bench_.kernel.denyNode("/dev/spidev1.0", true);
  EXPECT_EQ(answer(open("/dev/spidev1.0", O_RDWR)), -EACCES);
  bench_.kernel.denyNode("/dev/spidev1.0", false);
  const int again = open("/dev/spidev1.0", O_RDWR);
  EXPECT_GE(again, 0);
  close(again);
}

// Settings

TEST_F(Spidev, SettingsBelongToTheDeviceAndAreSharedByAllOpens) {
  const int second = open("/dev/spidev1.0", O_RDWR);
  ASSERT_GE(second, 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_3), 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 12), 0);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 123456), 0);
  EXPECT_EQ(get<uint8_t>(second, SPI_IOC_RD_MODE), SPI_MODE_3);
  EXPECT_EQ(get<uint8_t>(second, SPI_IOC_RD_BITS_PER_WORD), 12);
  EXPECT_EQ(get<uint32_t>(second, SPI_IOC_RD_MAX_SPEED_HZ), 123456U);
  close(second);
}

TEST_F(Spidev, SettingsOfTheOtherSelectAreItsOwn) {
  const int other = open("/dev/spidev1.1", O_RDWR);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_3), 0);
  EXPECT_EQ(get<uint8_t>(other, SPI_IOC_RD_MODE), SPI_MODE_0);
  close(other);
}

TEST_F(Spidev, TheLastCloseResetsTheSpeedOnly) {
  const uint32_t initial = get<uint32_t>(descriptor_, SPI_IOC_RD_MAX_SPEED_HZ);
  const int second = open("/dev/spidev1.0", O_RDWR);
  set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_2);
  set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 16);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 5000);
  close(descriptor_);
  EXPECT_EQ(get<uint32_t>(second, SPI_IOC_RD_MAX_SPEED_HZ), 5000U);
  close(second);
  descriptor_ = open("/dev/spidev1.0", O_RDWR);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MAX_SPEED_HZ), initial);
  EXPECT_NE(initial, 5000U);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_MODE), SPI_MODE_2);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_BITS_PER_WORD), 16);
}

TEST_F(Spidev, AStreamHasNoPosition) {
  uint8_t byte = 0;
  const iovec vector{&byte, 1};
  EXPECT_EQ(answer(lseek(descriptor_, 0, SEEK_SET)), -ESPIPE);
  EXPECT_EQ(answer(lseek64(descriptor_, 0, SEEK_CUR)), -ESPIPE);
  EXPECT_EQ(answer(pread(descriptor_, &byte, 1, 0)), -ESPIPE);
  EXPECT_EQ(answer(pwrite(descriptor_, &byte, 1, 0)), -ESPIPE);
  EXPECT_EQ(answer(pread64(descriptor_, &byte, 1, 0)), -ESPIPE);
  EXPECT_EQ(answer(pwrite64(descriptor_, &byte, 1, 0)), -ESPIPE);
  EXPECT_EQ(answer(preadv(descriptor_, &vector, 1, 0)), -ESPIPE);
  EXPECT_EQ(answer(pwritev(descriptor_, &vector, 1, 0)), -ESPIPE);
}

TEST_F(Spidev, IoctlWorksOnAReadOnlyDescriptorAndWriteDoesNot) {
  const int readOnly = open("/dev/spidev1.0", O_RDONLY);
  const int writeOnly = open("/dev/spidev1.0", O_WRONLY);
  uint8_t byte = 0x42;
  EXPECT_EQ(set<uint8_t>(readOnly, SPI_IOC_WR_MODE, SPI_MODE_1), 0);
  EXPECT_EQ(message(readOnly, transferOf(&byte, nullptr, 1)), 1);
  EXPECT_EQ(answer(write(readOnly, &byte, 1)), -EBADF);
  EXPECT_EQ(answer(read(readOnly, &byte, 1)), 1);
  EXPECT_EQ(answer(read(writeOnly, &byte, 1)), -EBADF);
  close(readOnly);
  close(writeOnly);
}

TEST_F(Spidev, ModeBitsOutsideTheMaskAreRefused) {
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, 0x80000000), -EINVAL);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, SPI_CS_WORD), -EINVAL);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MODE32), 0U);
}

TEST_F(Spidev, ThreeWireAndReadyAreRefusedAndTheOldModeStays) {
  set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, SPI_MODE_3);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, SPI_3WIRE), -EINVAL);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, SPI_READY), -EINVAL);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MODE32), uint32_t{SPI_MODE_3});
}

TEST_F(Spidev, MoreDataLinesThanThereAreAreDroppedSilently) {
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, SPI_MODE_1 | SPI_TX_DUAL), 0);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MODE32), uint32_t{SPI_MODE_1});
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32, SPI_TX_DUAL | SPI_TX_QUAD), -EINVAL);
}

TEST_F(Spidev, AnEightBitModeIsTheLowByteOfTheMode) {
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MODE32,
                          SPI_MODE_1 | SPI_CS_HIGH | SPI_NO_CS | SPI_LOOP),
            0);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_MODE),
            SPI_MODE_1 | SPI_CS_HIGH | SPI_NO_CS | SPI_LOOP);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_2), 0);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MODE32), uint32_t{SPI_MODE_2});
}

TEST_F(Spidev, AnyNonzeroLsbFirstReadsBackAsOne) {
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_LSB_FIRST), 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_LSB_FIRST, 0x80), 0);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_LSB_FIRST), 1);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_MODE), SPI_LSB_FIRST);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_LSB_FIRST, 0), 0);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_LSB_FIRST), 0);
}

TEST_F(Spidev, ZeroBitsPerWordReadBackAsEight) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 16), 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 0), 0);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_BITS_PER_WORD), 8);
}

TEST_F(Spidev, WordsAbove32BitsAreRefusedAndTheOldSizeStays) {
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 15), 0);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 33), -EINVAL);
  EXPECT_EQ(set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 255), -EINVAL);
  EXPECT_EQ(get<uint8_t>(descriptor_, SPI_IOC_RD_BITS_PER_WORD), 15);
}

TEST_F(Spidev, SpeedZeroIsRefusedAndTheOldSpeedStays) {
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 400000), 0);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 0), -EINVAL);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MAX_SPEED_HZ), 400000U);
}

TEST_F(Spidev, SpeedAboveTheControllersReadsBackAsAskedAndTransfersAreClamped) {
  Journal journal(bench_.bus);
  EXPECT_EQ(set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 200000000), 0);
  EXPECT_EQ(get<uint32_t>(descriptor_, SPI_IOC_RD_MAX_SPEED_HZ), 200000000U);
  const uint8_t byte = 0x81;
  EXPECT_EQ(message(descriptor_, transferOf(&byte, nullptr, 1)), 1);
  spi_ioc_transfer faster = transferOf(&byte, nullptr, 1);
  faster.speed_hz = 300000000;
  EXPECT_EQ(message(descriptor_, faster), 1);
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 8 bits, 125000000 Hz: 81", "CS0 high",  //
                                  "CS0 low", "mode 0, 8 bits, 125000000 Hz: 81", "CS0 high"}));
}

// Numbers

TEST_F(Spidev, UnknownNumbersSizesAndDirectionsAreNoRequests) {
  uint32_t word = 0;
  EXPECT_EQ(answer(ioctl(descriptor_, _IO(SPI_IOC_MAGIC, 9), &word)), -ENOTTY);
  EXPECT_EQ(answer(ioctl(descriptor_, _IOR(SPI_IOC_MAGIC, 1, uint16_t), &word)), -ENOTTY);
  EXPECT_EQ(answer(ioctl(descriptor_, _IOWR(SPI_IOC_MAGIC, 1, uint8_t), &word)), -ENOTTY);
  EXPECT_EQ(answer(ioctl(descriptor_, _IOR(SPI_IOC_MAGIC, 0, char[32]), &word)), -ENOTTY);
  EXPECT_EQ(answer(ioctl(descriptor_, 0x5401 /* TCGETS */, &word)), -ENOTTY);
}

TEST_F(Spidev, OnlyTheLow32BitsOfANumberCount) {
  uint8_t mode = 0xFF;
  const int number = static_cast<int>(SPI_IOC_RD_MODE);  // negative, so the upper half is ones
  EXPECT_EQ(answer(ioctl(descriptor_, static_cast<unsigned long>(number), &mode)), 0);
  EXPECT_EQ(mode, 0);
}

TEST_F(Spidev, AMessageThatIsNoWholeNumberOfTransfersIsRefused) {
  std::array<char, 64> bytes{};
  EXPECT_EQ(answer(ioctl(descriptor_, _IOW(SPI_IOC_MAGIC, 0, char[31]), bytes.data())), -EINVAL);
  EXPECT_EQ(answer(ioctl(descriptor_, _IOW(SPI_IOC_MAGIC, 0, char[33]), bytes.data())), -EINVAL);
}

TEST_F(Spidev, AMessageOfNoTransfersDoesNothing) {
  Journal journal(bench_.bus);
  EXPECT_EQ(answer(ioctl(descriptor_, _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, 0), nullptr)), 0);
  EXPECT_EQ(journal.lines, Lines{});
}

// Message checks

TEST_F(Spidev, AnUnreadableTransferArrayIsAFault) {
  const GuardedPage page;
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_MESSAGE(1), page.forbidden())), -EFAULT);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_MESSAGE(1), page.last(31))), -EFAULT);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_MESSAGE(1), nullptr)), -EFAULT);
}

TEST_F(Spidev, LengthsAboveTheBufferAreTooLong) {
  Bytes bytes(8192);
  EXPECT_EQ(message(descriptor_, transferOf(bytes.data(), nullptr, 4097)), -EMSGSIZE);
  EXPECT_EQ(message(descriptor_, transferOf(nullptr, bytes.data(), 4097)), -EMSGSIZE);
  EXPECT_EQ(message(descriptor_, transferOf(bytes.data(), nullptr, 4096)), 4096);
}

TEST_F(Spidev, SentAndReceivedBytesAreCountedSeparately) {
  Bytes bytes(4096);
  const auto sends = [&](uint32_t length) { return transferOf(bytes.data(), nullptr, length); };
  const auto receives = [&](uint32_t length) { return transferOf(nullptr, bytes.data(), length); };
  EXPECT_EQ(message(descriptor_, {sends(2049), sends(2049)}), -EMSGSIZE);
  EXPECT_EQ(message(descriptor_, {receives(2049), receives(2049)}), -EMSGSIZE);
  EXPECT_EQ(message(descriptor_, {sends(2048), sends(2048)}), 4096);
  EXPECT_EQ(message(descriptor_, {sends(4096), receives(4096)}), 8192);
}

TEST_F(Spidev, LengthsThatAddUpToANegativeResultAreTooLong) {
  EXPECT_EQ(message(descriptor_, transferOf(nullptr, nullptr, 0x80000000)), -EMSGSIZE);
  EXPECT_EQ(message(descriptor_,
                    {transferOf(nullptr, nullptr, 0), transferOf(nullptr, nullptr, UINT_MAX)}),
            -EMSGSIZE);
}

TEST_F(Spidev, TooLongComesBeforeAnUnreadableBufferOfTheSameTransfer) {
  const GuardedPage page;
  EXPECT_EQ(message(descriptor_, transferOf(page.forbidden(), nullptr, 4097)), -EMSGSIZE);
}

TEST_F(Spidev, AnUnreadableTransmitBufferIsAFaultWithNothingOnTheWires) {
  const GuardedPage page;
  Journal journal(bench_.bus);
  const uint8_t byte = 1;
  EXPECT_EQ(message(descriptor_, transferOf(page.forbidden(), nullptr, 1)), -EFAULT);
  EXPECT_EQ(message(descriptor_, transferOf(page.last(3), nullptr, 4)), -EFAULT);
  EXPECT_EQ(message(descriptor_,
                    {transferOf(&byte, nullptr, 1), transferOf(page.forbidden(), nullptr, 1)}),
            -EFAULT);
  EXPECT_EQ(journal.lines, Lines{});
  EXPECT_EQ(message(descriptor_, transferOf(page.last(4), nullptr, 4)), 4);
}

TEST_F(Spidev, AnUnwritableReceiveBufferIsAFaultAfterTheTransfer) {
  const GuardedPage readOnly(PROT_READ);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000000);
  Journal journal(bench_.bus);
  const uint8_t byte = 0x5A;
  EXPECT_EQ(message(descriptor_, transferOf(&byte, readOnly.begin(), 1)), -EFAULT);
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 8 bits, 1000000 Hz: 5a", "CS0 high"}));
}

TEST_F(Spidev, AReceiveBufferMayEndWhereMemoryEnds) {
  const GuardedPage page;
  const Bytes bytes = {1, 2, 3, 4};
  EXPECT_EQ(message(descriptor_, transferOf(bytes.data(), page.last(4), 4)), 4);
  EXPECT_EQ(Bytes(page.last(4), page.forbidden()), bytes);
  EXPECT_EQ(message(descriptor_, transferOf(bytes.data(), page.last(3), 4)), -EFAULT);
}

TEST_F(Spidev, SettingsAtBadAddressesAreFaults) {
  const GuardedPage page(PROT_READ);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_RD_MODE, page.begin())), -EFAULT);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_RD_MAX_SPEED_HZ, nullptr)), -EFAULT);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_WR_MODE, page.forbidden())), -EFAULT);
  EXPECT_EQ(answer(ioctl(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, page.forbidden() - 3)), -EFAULT);
}

// Transfer defaults and checks

TEST_F(Spidev, BitsAndSpeedOfZeroAreTheDevices) {
  set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 12);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 250000);
  Journal journal(bench_.bus);
  const uint16_t word = 0x0ABC;
  spi_ioc_transfer own = transferOf(&word, nullptr, 2);
  EXPECT_EQ(message(descriptor_, own), 2);
  own.bits_per_word = 16;
  own.speed_hz = 500000;
  EXPECT_EQ(message(descriptor_, own), 2);
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 12 bits, 250000 Hz: abc", "CS0 high",  //
                                  "CS0 low", "mode 0, 16 bits, 500000 Hz: abc", "CS0 high"}));
}

TEST_F(Spidev, ALengthThatIsNoWholeNumberOfWordsIsRefused) {
  const std::array<uint8_t, 8> bytes{};
  spi_ioc_transfer transfer = transferOf(bytes.data(), nullptr, 3);
  transfer.bits_per_word = 12;
  EXPECT_EQ(message(descriptor_, transfer), -EINVAL);
  transfer.bits_per_word = 16;
  EXPECT_EQ(message(descriptor_, transfer), -EINVAL);
  transfer.len = 6;
  transfer.bits_per_word = 24;
  EXPECT_EQ(message(descriptor_, transfer), -EINVAL);
  transfer.bits_per_word = 9;
  EXPECT_EQ(message(descriptor_, transfer), 6);
}

TEST_F(Spidev, ARefusedTransferKeepsTheWholeMessageOffTheWires) {
  const uint8_t byte = 1;
  Journal journal(bench_.bus);
  spi_ioc_transfer odd = transferOf(&byte, nullptr, 1);
  odd.bits_per_word = 16;
  EXPECT_EQ(message(descriptor_, {transferOf(&byte, nullptr, 1), odd}), -EINVAL);
  EXPECT_EQ(journal.lines, Lines{});
}

TEST_F(Spidev, SeveralDataLinesPerTransferAreRefused) {
  uint8_t byte = 1;
  spi_ioc_transfer transfer = transferOf(&byte, &byte, 1);
  transfer.tx_nbits = 2;
  EXPECT_EQ(message(descriptor_, transfer), -EINVAL);
  transfer.tx_nbits = 1;
  transfer.rx_nbits = 4;
  EXPECT_EQ(message(descriptor_, transfer), -EINVAL);
  transfer.rx_nbits = 1;
  EXPECT_EQ(message(descriptor_, transfer), 1);
}

TEST(SpidevOnSlowLimit, ASpeedBelowTheControllersIsRefused) {
  SpiBench bench({.number = 1, .profile = "omap2-mcspi"});
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  const uint8_t byte = 0;
  spi_ioc_transfer transfer = transferOf(&byte, nullptr, 1);
  transfer.speed_hz = bench.bus.profile().minSpeedHz - 1;
  EXPECT_EQ(message(descriptor, transfer), -EINVAL);
  transfer.speed_hz = bench.bus.profile().minSpeedHz;
  EXPECT_EQ(message(descriptor, transfer), 1);
  close(descriptor);
}

// Results

TEST_F(Spidev, AMessageReturnsTheBytesOfAllItsTransfers) {
  Bytes bytes(10);
  EXPECT_EQ(message(descriptor_,
                    {transferOf(bytes.data(), nullptr, 3), transferOf(nullptr, bytes.data(), 4),
                     transferOf(bytes.data(), bytes.data(), 5)}),
            12);
  EXPECT_EQ(message(descriptor_, transferOf(bytes.data(), nullptr, 0)), 0);
}

TEST_F(Spidev, WithoutATransmitBufferZerosAreSent) {
  Journal journal(bench_.bus);
  Bytes received(2, 0xFF);
  spi_ioc_transfer transfer = transferOf(nullptr, received.data(), 2);
  transfer.speed_hz = 1000000;
  EXPECT_EQ(message(descriptor_, transfer), 2);
  EXPECT_EQ(received, (Bytes{0, 0}));
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 8 bits, 1000000 Hz: 0 0", "CS0 high"}));
}

TEST_F(Spidev, WithoutAnyBufferTheLengthIsReturned) {
  EXPECT_EQ(message(descriptor_, transferOf(nullptr, nullptr, 7)), 7);
  EXPECT_EQ(message(descriptor_, transferOf(nullptr, nullptr, 5000)), 5000);
}

TEST_F(Spidev, OneBufferMaySendAndReceive) {
  Bytes bytes = {0x12, 0x34, 0x56};
  bench_.bus.flipMisoBit(0);
  EXPECT_EQ(message(descriptor_, transferOf(bytes.data(), bytes.data(), 3)), 3);
  EXPECT_EQ(bytes, (Bytes{0x92, 0x34, 0x56}));
}

TEST_F(Spidev, OneMessageTakesAsManyTransfersAsItsNumberHolds) {
  const std::vector<spi_ioc_transfer> transfers(511, transferOf(nullptr, nullptr, 1));
  EXPECT_EQ(message(descriptor_, transfers), 511);
}

TEST_F(Spidev, EveryTransferTakesAPlaceOf64BytesInTheBuffer) {
  uint8_t byte = 1;
  std::vector<spi_ioc_transfer> sends(64, transferOf(&byte, nullptr, 1));
  EXPECT_EQ(message(descriptor_, sends), 64);
  sends.push_back(sends.front());
  EXPECT_EQ(message(descriptor_, sends), -EMSGSIZE);
  std::vector<spi_ioc_transfer> receives(64, transferOf(nullptr, &byte, 1));
  EXPECT_EQ(message(descriptor_, receives), 64);
  receives.push_back(receives.front());
  EXPECT_EQ(message(descriptor_, receives), -EMSGSIZE);
  // A place of one byte more is one place more.
  Bytes bytes(4096);
  const auto sent = [&](uint32_t length) { return transferOf(bytes.data(), nullptr, length); };
  EXPECT_EQ(message(descriptor_, {sent(4032), sent(64)}), 4096);
  EXPECT_EQ(message(descriptor_, {sent(4033), sent(63)}), -EMSGSIZE);
}

// Words

TEST_F(Spidev, WordsAreRightJustifiedInHostOrder) {
  Journal journal(bench_.bus);
  const uint8_t small = 0x15;
  const uint16_t middle = 0x1ABC;
  const uint32_t large = 0x00ABCDEF;
  const auto sized = [](const void* word, uint32_t length, uint8_t bits) {
    spi_ioc_transfer transfer = transferOf(word, nullptr, length);
    transfer.bits_per_word = bits;
    transfer.speed_hz = 1000000;
    return transfer;
  };
  EXPECT_EQ(message(descriptor_, {sized(&small, 1, 5), sized(&middle, 2, 15), sized(&large, 4, 24),
                                  sized(&large, 4, 32)}),
            11);
  EXPECT_EQ(journal.lines,
            (Lines{"CS0 low", "mode 0, 5 bits, 1000000 Hz: 15", "mode 0, 15 bits, 1000000 Hz: 1abc",
                   "mode 0, 24 bits, 1000000 Hz: abcdef", "mode 0, 32 bits, 1000000 Hz: abcdef",
                   "CS0 high"}));
}

TEST_F(Spidev, SpareBitsAreNeitherSentNorReceived) {
  Journal journal(bench_.bus);
  const std::array<uint16_t, 2> sent = {0xFABC, 0x5123};
  std::array<uint16_t, 2> received = {0xFFFF, 0xFFFF};
  spi_ioc_transfer transfer = transferOf(sent.data(), received.data(), 4);
  transfer.bits_per_word = 12;
  transfer.speed_hz = 1000000;
  EXPECT_EQ(message(descriptor_, transfer), 4);
  EXPECT_EQ(received, (std::array<uint16_t, 2>{0x0ABC, 0x0123}));
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 12 bits, 1000000 Hz: abc 123", "CS0 high"}));
}

TEST_F(Spidev, ModeAndBitOrderReachTheWires) {
  set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_MODE_3 | SPI_LSB_FIRST);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000000);
  Journal journal(bench_.bus);
  const uint8_t byte = 0x01;
  EXPECT_EQ(message(descriptor_, transferOf(&byte, nullptr, 1)), 1);
  EXPECT_EQ(journal.lines,
            (Lines{"CS0 low", "mode 3 LSB first, 8 bits, 1000000 Hz: 1", "CS0 high"}));
  EXPECT_EQ(bench_.bus.sclk().level(), vboard::Level::High);
}

TEST(SpidevLoop, ReceivesWhatIsSentWhateverTheWireSays) {
  vboard::Board board;
  vboard::SpiBus& bus = board.addSpiBus({.number = 1});
  vboard::Kernel kernel(board);
  bus.miso().net()->stick(vboard::Level::High);
  const int descriptor = open("/dev/spidev1.0", O_RDWR);
  const uint8_t sent = 0x3C;
  uint8_t received = 0;
  EXPECT_EQ(message(descriptor, transferOf(&sent, &received, 1)), 1);
  EXPECT_EQ(received, 0xFF);
  set<uint8_t>(descriptor, SPI_IOC_WR_MODE, SPI_LOOP);
  EXPECT_EQ(message(descriptor, transferOf(&sent, &received, 1)), 1);
  EXPECT_EQ(received, 0x3C);
  close(descriptor);
}

// Native select

TEST_F(Spidev, TheSelectFrameIsTheWholeMessage) {
  Journal journal(bench_.bus);
  journal.withTime = true;
  const uint8_t byte = 0xA5;
  spi_ioc_transfer first = transferOf(&byte, nullptr, 1);
  first.speed_hz = 1000000;  // 8 us
  first.delay_usecs = 30;
  spi_ioc_transfer second = first;
  second.delay_usecs = 5;
  EXPECT_EQ(message(descriptor_, {first, second}), 2);
  EXPECT_EQ(journal.lines, (Lines{"0: CS0 low", "0: mode 0, 8 bits, 1000000 Hz: a5",
                                  "38: mode 0, 8 bits, 1000000 Hz: a5", "51: CS0 high"}));
}

TEST_F(Spidev, ChangingTheSelectReleasesItBetweenTransfersAfterTheDelay) {
  Journal journal(bench_.bus);
  journal.withTime = true;
  const uint8_t byte = 0xA5;
  spi_ioc_transfer first = transferOf(&byte, nullptr, 1);
  first.speed_hz = 1000000;
  first.delay_usecs = 4;
  first.cs_change = 1;
  spi_ioc_transfer second = first;
  second.cs_change = 0;
  second.delay_usecs = 0;
  EXPECT_EQ(message(descriptor_, {first, second}), 2);
  EXPECT_EQ(journal.lines,
            (Lines{"0: CS0 low", "0: mode 0, 8 bits, 1000000 Hz: a5", "12: CS0 high", "22: CS0 low",
                   "22: mode 0, 8 bits, 1000000 Hz: a5", "30: CS0 high"}));
}

TEST_F(Spidev, ChangingTheSelectOnTheLastTransferLeavesItAsserted) {
  const uint8_t byte = 0xA5;
  spi_ioc_transfer kept = transferOf(&byte, nullptr, 1);
  kept.speed_hz = 1000000;
  kept.cs_change = 1;
  Journal journal(bench_.bus);
  EXPECT_EQ(message(descriptor_, kept), 1);
  EXPECT_EQ(bench_.bus.select(0).level(), vboard::Level::Low);
  kept.cs_change = 0;
  EXPECT_EQ(message(descriptor_, kept), 1);
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 8 bits, 1000000 Hz: a5",
                                  "mode 0, 8 bits, 1000000 Hz: a5", "CS0 high"}));
}

TEST_F(Spidev, AMessageToAnotherDeviceReleasesTheOneLeftSelected) {
  const int other = open("/dev/spidev1.1", O_RDWR);
  const uint8_t byte = 0xA5;
  spi_ioc_transfer transfer = transferOf(&byte, nullptr, 1);
  transfer.speed_hz = 1000000;
  transfer.cs_change = 1;
  message(descriptor_, transfer);
  Journal journal(bench_.bus);
  transfer.cs_change = 0;
  EXPECT_EQ(message(other, transfer), 1);
  EXPECT_EQ(journal.lines,
            (Lines{"CS0 high", "CS1 low", "mode 0, 8 bits, 1000000 Hz: a5", "CS1 high"}));
  close(other);
}

TEST_F(Spidev, ASettingReleasesASelectLeftAsserted) {
  const uint8_t byte = 0xA5;
  spi_ioc_transfer transfer = transferOf(&byte, nullptr, 1);
  transfer.cs_change = 1;
  message(descriptor_, transfer);
  EXPECT_EQ(bench_.bus.select(0).level(), vboard::Level::Low);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000);
  EXPECT_EQ(bench_.bus.select(0).level(), vboard::Level::High);
}

TEST_F(Spidev, WithoutSelectTheLineStaysQuiet) {
  set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_NO_CS);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000000);
  Journal journal(bench_.bus);
  const uint8_t byte = 0xA5;
  EXPECT_EQ(message(descriptor_, transferOf(&byte, nullptr, 1)), 1);
  EXPECT_EQ(journal.lines, (Lines{"mode 0, 8 bits, 1000000 Hz: a5"}));
}

TEST_F(Spidev, AnActiveHighSelectIdlesLow) {
  Journal journal(bench_.bus);
  set<uint8_t>(descriptor_, SPI_IOC_WR_MODE, SPI_CS_HIGH);
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000000);
  const uint8_t byte = 0xA5;
  EXPECT_EQ(message(descriptor_, transferOf(&byte, nullptr, 1)), 1);
  EXPECT_EQ(journal.lines,
            (Lines{"CS0 low", "CS0 high", "mode 0, 8 bits, 1000000 Hz: a5", "CS0 low"}));
}

TEST_F(Spidev, APauseBetweenWordsStretchesTheTransfer) {
  Journal journal(bench_.bus);
  journal.withTime = true;
  const Bytes bytes = {1, 2, 3};
  Bytes received(3);
  spi_ioc_transfer transfer = transferOf(bytes.data(), received.data(), 3);
  transfer.speed_hz = 1000000;
  transfer.word_delay_usecs = 7;
  EXPECT_EQ(message(descriptor_, transfer), 3);
  EXPECT_EQ(received, bytes);
  EXPECT_EQ(journal.lines, (Lines{"0: CS0 low", "0: mode 0, 8 bits, 1000000 Hz: 1",
                                  "15: mode 0, 8 bits, 1000000 Hz: 2",
                                  "30: mode 0, 8 bits, 1000000 Hz: 3", "38: CS0 high"}));
}

// read and write

TEST_F(Spidev, ReadAndWriteAreOneTransferEach) {
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000000);
  Journal journal(bench_.bus);
  const Bytes sent = {0xDE, 0xAD};
  Bytes received(2, 0xFF);
  EXPECT_EQ(answer(write(descriptor_, sent.data(), 2)), 2);
  EXPECT_EQ(answer(read(descriptor_, received.data(), 2)), 2);
  EXPECT_EQ(received, (Bytes{0, 0}));
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 8 bits, 1000000 Hz: de ad", "CS0 high",  //
                                  "CS0 low", "mode 0, 8 bits, 1000000 Hz: 0 0", "CS0 high"}));
}

TEST_F(Spidev, ReadAndWriteTakeAsMuchAsTheBuffer) {
  Bytes bytes(4097);
  EXPECT_EQ(answer(write(descriptor_, bytes.data(), 4097)), -EMSGSIZE);
  EXPECT_EQ(answer(read(descriptor_, bytes.data(), 4097)), -EMSGSIZE);
  EXPECT_EQ(answer(write(descriptor_, bytes.data(), 4096)), 4096);
  EXPECT_EQ(answer(read(descriptor_, bytes.data(), 4096)), 4096);
}

TEST_F(Spidev, ReadAndWriteUseTheDevicesWords) {
  set<uint8_t>(descriptor_, SPI_IOC_WR_BITS_PER_WORD, 16);
  uint16_t word = 0x1234;
  EXPECT_EQ(answer(write(descriptor_, &word, 1)), -EINVAL);
  EXPECT_EQ(answer(write(descriptor_, &word, 2)), 2);
  EXPECT_EQ(answer(read(descriptor_, &word, 1)), -EINVAL);
}

TEST_F(Spidev, ReadAndWriteAtBadAddressesAreFaults) {
  const GuardedPage page;
  EXPECT_EQ(answer(write(descriptor_, page.forbidden(), 1)), -EFAULT);
  EXPECT_EQ(answer(read(descriptor_, page.forbidden(), 1)), -EFAULT);
  EXPECT_EQ(answer(write(descriptor_, page.last(2), 3)), -EFAULT);
}

TEST_F(Spidev, EverySegmentOfAVectorIsATransferOfItsOwn) {
  set<uint32_t>(descriptor_, SPI_IOC_WR_MAX_SPEED_HZ, 1000000);
  Journal journal(bench_.bus);
  Bytes first = {1, 2};
  Bytes second = {3};
  const std::array<iovec, 2> vector = {iovec{first.data(), 2}, iovec{second.data(), 1}};
  EXPECT_EQ(answer(writev(descriptor_, vector.data(), 2)), 3);
  EXPECT_EQ(journal.lines, (Lines{"CS0 low", "mode 0, 8 bits, 1000000 Hz: 1 2", "CS0 high",  //
                                  "CS0 low", "mode 0, 8 bits, 1000000 Hz: 3", "CS0 high"}));
  EXPECT_EQ(answer(readv(descriptor_, vector.data(), 2)), 3);
  EXPECT_EQ(first, (Bytes{0, 0}));
  volatile int negative = -1;  // out of sight of the compiler's own check
  EXPECT_EQ(answer(readv(descriptor_, vector.data(), negative)), -EINVAL);
}

// What the process sees besides

TEST_F(Spidev, ASuccessfulCallLeavesErrnoAlone) {
  const GuardedPage page;
  errno = 77;
  uint8_t mode = 0;
  ioctl(descriptor_, SPI_IOC_RD_MODE, &mode);
  EXPECT_EQ(errno, 77);
  message(descriptor_, transferOf(page.begin(), page.begin(), 4));
  EXPECT_EQ(errno, 77);
  const int second = open("/dev/spidev1.0", O_RDWR);
  EXPECT_EQ(errno, 77);
  close(second);
  EXPECT_EQ(errno, 77);
}

TEST(SpidevCalls, EveryCallTakesItsCostAndIsSeenByObservers) {
  vboard::Board board({.callCost = std::chrono::microseconds(20)});
  vboard::SpiBus& bus = board.addSpiBus({.number = 3});
  vboard::Kernel kernel(board);
  Journal journal(bus);
  const int descriptor = open("/dev/spidev3.0", O_RDWR);
  set<uint8_t>(descriptor, SPI_IOC_WR_MODE, SPI_MODE_1);
  set<uint8_t>(descriptor, SPI_IOC_WR_BITS_PER_WORD, 99);
  uint8_t byte = 0;
  message(descriptor, {transferOf(nullptr, nullptr, 0), transferOf(nullptr, nullptr, 0)});
  EXPECT_EQ(write(descriptor, &byte, 0), 0);
  EXPECT_EQ(read(descriptor, &byte, 0), 0);
  close(descriptor);
  EXPECT_EQ(
      journal.calls,
      (Lines{"open /dev/spidev3.0 = " + std::to_string(descriptor),
             "SPI_IOC_WR_MODE /dev/spidev3.0 = 0", "SPI_IOC_WR_BITS_PER_WORD /dev/spidev3.0 = -22",
             "SPI_IOC_MESSAGE(2) /dev/spidev3.0 = 0", "write /dev/spidev3.0 = 0",
             "read /dev/spidev3.0 = 0", "close /dev/spidev3.0 = 0"}));
  EXPECT_EQ(board.clock().now(), std::chrono::microseconds(7 * 20));
}

}  // namespace
