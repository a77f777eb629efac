// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/Wire.h"
#include "varnel/common/LinuxSpiBus.h"

namespace {

using Varnel::stSpiMultipleTransferSettings;
using Varnel::stSpiTransferSettings;
using wire::Lines;
using wire::lines;

constexpr char kManaged[] = "varnel/common/LinuxSpiBus.cpp executeManagedTransfer";

const Lines kSettlingAt1MHz =
    lines("close(7) = 0", opening("0", "0", "1000000"), emptySettling("1000000"));

TEST(ManagedTransfer, DrivesTheChipSelectAsAsked) {
  BusRig rig;
  stSpiTransferSettings settings;
  const auto journalOf = [&](Varnel::eCS_Handling handling) {
    EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, handling), 0);
    return rig.wire.journal();
  };
  EXPECT_EQ(journalOf(Varnel::CS_SELECT_DESELECT),
            lines("select(chip, true) = 0", emptyMessage(), "select(chip, false) = 0"));
  EXPECT_EQ(journalOf(Varnel::CS_JUST_SELECT), lines("select(chip, true) = 0", emptyMessage()));
  EXPECT_EQ(journalOf(Varnel::CS_NOTHING), Lines{emptyMessage()});
  EXPECT_EQ(journalOf(Varnel::CS_JUST_DESELECT), lines(emptyMessage(), "select(chip, false) = 0"));
}

TEST(ManagedTransfer, OfADeviceWithoutSelectorJustTransfers) {
  BusRig rig;
  rig.device.setChipSelector(nullptr);
  stSpiTransferSettings settings;
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{emptyMessage()});
}

TEST(ManagedTransfer, SettlesOnceAfterTheSpeedChanged) {
  BusRig rig;
  rig.bus.setSpiSpeedKHz(1000);
  rig.wire.discard();
  stSpiTransferSettings settings;
  const Lines exchange =
      lines("select(chip, true) = 0", emptyMessage("1000000"), "select(chip, false) = 0");
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kSettlingAt1MHz, exchange));
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_SELECT_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(), exchange);
}

TEST(ManagedTransfer, SettlesOnceAfterModeAndBitOrderChanged) {
  BusRig rig;
  stSpiTransferSettings settings;
  settings.bus_settings.Mode = 0x103;
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), lines("ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "close(7) = 0",
                                      opening("3"), emptySettling(), emptyMessage()));
  settings.bus_settings.LSBFirst = 1;
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), lines("ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0", "close(7) = 0",
                                      opening("3", "1"), emptySettling(), emptyMessage()));
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{emptyMessage()});
}

TEST(ManagedTransfer, DoesNotSettleAfterChangesOnAClosedBus) {
  wire::Wire wire;
  Varnel::CLinuxSpiBus bus;
  bus.setMode(1);
  bus.setSpiSpeedKHz(1000);
  bus.open();
  wire.discard();
  stSpiTransferSettings settings;
  settings.bus_settings.Mode = 1;
  EXPECT_EQ(bus.executeManagedTransfer(nullptr, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(wire.journal(), Lines{emptyMessage("1000000")});
}

TEST(ManagedTransfer, DoesNotSettleAfterRefusedChanges) {
  BusRig rig;
  rig.wire.fails("WR_MODE", EIO).fails("WR_LSB_FIRST", EIO).fails("WR_MAX_SPEED", EIO);
  EXPECT_EQ(rig.bus.setMode(1), -5);
  EXPECT_EQ(rig.bus.setLSBFirst(1), -5);
  EXPECT_EQ(rig.bus.setSpiSpeedKHz(1000), -5);
  rig.wire.discard();
  stSpiTransferSettings settings;
  settings.bus_settings.Mode = 1;
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), Lines{emptyMessage("1000000")});
}

TEST(ManagedTransfer, SettlesAlsoWhenTheUserReopenedTheBus) {
  BusRig rig;
  rig.bus.setSpiSpeedKHz(1000);
  rig.bus.close();
  rig.bus.open();
  rig.wire.discard();
  stSpiTransferSettings settings;
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), lines(kSettlingAt1MHz, emptyMessage("1000000")))
      << "open leaves the mark alone";
}

TEST(ManagedTransfer, OfASlowDeviceSettlesEveryTimeAlsoInTheMiddleOfAnExchange) {
  BusRig rig;
  stSpiTransferSettings settings;
  settings.ioc_transfer.speed_hz = 100000;
  const Lines before = lines("ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0", "close(7) = 0",
                             opening("0", "0", "100000"), emptySettling("100000"));
  const std::string restore = "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0";
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_JUST_SELECT), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(before, "select(chip, true) = 0", emptyMessage("100000"), restore));
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
  EXPECT_EQ(rig.wire.journal(), lines(before, emptyMessage("100000"), restore));
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_JUST_DESELECT), 0);
  EXPECT_EQ(rig.wire.journal(),
            lines(before, emptyMessage("100000"), "select(chip, false) = 0", restore));
  EXPECT_EQ(settings.ioc_transfer.speed_hz, 100000U);
}

TEST(ManagedTransfer, SettlesWithTheCallersTransferBehindOneByteFF) {
  BusRig rig;
  uint8_t tx[] = {0x12, 0x34};
  uint8_t rx[2] = {};
  rig.wire.name(tx, sizeof(tx), "tx");
  rig.wire.name(rx, sizeof(rx), "rx");
  stSpiTransferSettings settings;
  spi_ioc_transfer& transfer = settings.ioc_transfer;
  transfer.tx_buf = reinterpret_cast<uintptr_t>(tx);
  transfer.rx_buf = reinterpret_cast<uintptr_t>(rx);
  transfer.len = 2;
  transfer.speed_hz = 1000000;
  transfer.delay_usecs = 1;
  transfer.bits_per_word = 16;
  transfer.cs_change = 1;
  transfer.tx_nbits = 2;
  transfer.rx_nbits = 4;
  rig.bus.setSpiSpeedKHz(1000);
  rig.wire.discard();
  rig.wire.receives({0xAA, 0xBB}).fails("{tx=tx[12 34]", EIO);
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), -5);
  EXPECT_EQ(rx[0], 0xAA) << "what settling received is in the caller's buffer";
  EXPECT_EQ(rx[1], 0xBB);
  EXPECT_EQ(transfer.tx_buf, reinterpret_cast<uintptr_t>(tx)) << "the record is the caller's";
  const std::string fields =
      " rx=rx len=2 speed_hz=1000000 delay_usecs=1 bits_per_word=16 cs_change=1 tx_nbits=2 "
      "rx_nbits=4}) = ";
  EXPECT_EQ(rig.wire.journal(),
            lines("close(7) = 0", opening("0", "0", "1000000"),
                  "ioctl(7, SPI_IOC_MESSAGE(1), {tx=[ff ff]" + fields + "2",
                  "ioctl(7, SPI_IOC_MESSAGE(1), {tx=tx[12 34]" + fields + "-1 EIO",
                  "perror(\"can't transfer data via CLinuxSpiBus\") EIO"));
}

TEST(ManagedTransfer, TheSettlingByteLeadsWhateverTheLength) {
  BusRig rig;
  std::vector<uint8_t> tx(70000, 0x55);
  stSpiTransferSettings settings;
  settings.ioc_transfer.tx_buf = reinterpret_cast<uintptr_t>(tx.data());
  uint16_t speedKHz = 500;
  const auto settlingOf = [&](uint32_t length) {
    settings.ioc_transfer.len = length;
    settings.ioc_transfer.speed_hz = 0;
    rig.bus.setSpiSpeedKHz(++speedKHz);
    rig.wire.discard();
    EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
    return rig.wire.journal().at(9);
  };
  // The journal reads every byte that the kernel would read: the address sanitizer sees whether
  // all of them are the bus's own.
  EXPECT_EQ(settlingOf(1),
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=[ff] rx=null len=1 speed_hz=501000 bits_per_word=0}) = 1");
  EXPECT_EQ(settlingOf(4096),
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=[ff*4096] rx=null len=4096 speed_hz=502000 bits_per_word=0}) = 4096");
  EXPECT_EQ(settlingOf(4097),
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=[ff 00*4096] rx=null len=4097 speed_hz=503000 bits_per_word=0}) = 4097");
  EXPECT_EQ(settlingOf(70000),
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=[ff 00*69999] rx=null len=70000 speed_hz=504000 bits_per_word=0}) = 70000");
}

TEST(ManagedTransfer, AFailedSettlingIsTriedAgainNextTime) {
  for (const char* call : {"close", "open", "tx=[]"}) {
    SCOPED_TRACE(call);
    BusRig rig;
    rig.bus.setSpiSpeedKHz(1000);
    rig.wire.fails(call, EIO);
    stSpiTransferSettings settings;
    EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_JUST_SELECT), -5);
    EXPECT_FALSE(rig.selector.selected());
    if (!rig.bus.isOpen()) {
      rig.bus.open();
    }
    rig.wire.discard();
    EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_NOTHING), 0);
    EXPECT_EQ(rig.wire.journal(), lines(kSettlingAt1MHz, emptyMessage("1000000")));
  }
}

TEST(ManagedTransfer, AFailureLeavesTheLoweredSpeedAndTheSelect) {
  struct Case {
    const char* call;
    bool selected;
  };
  for (const Case& failing : {Case{"tx=[]", false}, Case{"select(chip, true)", false},
                              Case{"tx=null", true}, Case{"select(chip, false)", true}}) {
    SCOPED_TRACE(failing.call);
    BusRig rig;
    stSpiTransferSettings settings;
    settings.ioc_transfer.speed_hz = 100000;
    rig.wire.fails(failing.call, EIO);
    EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_SELECT_DESELECT),
              -5);
    EXPECT_EQ(rig.selector.selected(), failing.selected);
    EXPECT_EQ(rig.wire.nodeSpeedHz(), 100000U);
    rig.wire.discard();
    stSpiTransferSettings next;
    EXPECT_EQ(rig.bus.transferData(next), 0);
    EXPECT_EQ(rig.wire.journal(), Lines{emptyMessage("100000")}) << "it is the bus speed now";
  }
}

TEST(ManagedTransfer, LogsAFailedStepUnderItsOwnName) {
  BusRig rig;
  stSpiTransferSettings settings;
  rig.wire.fails("select", EINVAL);
  EXPECT_EQ(rig.bus.executeManagedTransfer(&rig.device, settings, Varnel::CS_SELECT_DESELECT), -22);
  EXPECT_EQ(rig.wire.journal(), lines("select(chip, true) = -22", wire::logged(EINVAL, kManaged)));
}

struct SeveralTransfers {
  uint8_t tx[1] = {0x77};
  uint8_t rx[2] = {};
  spi_ioc_transfer transfers[2] = {};
  stSpiMultipleTransferSettings settings;

  explicit SeveralTransfers(wire::Wire& wire) {
    wire.name(tx, sizeof(tx), "tx");
    wire.name(rx, sizeof(rx), "rx");
    transfers[0].tx_buf = reinterpret_cast<uintptr_t>(tx);
    transfers[0].len = 1;
    transfers[0].bits_per_word = 8;
    transfers[1].rx_buf = reinterpret_cast<uintptr_t>(rx);
    transfers[1].len = 2;
    settings.ioc_transfer = transfers;
    settings.transfer_count = 2;
  }
};

TEST(ManagedTransferOfSeveral, SettlesWithTheFirstOnly) {
  BusRig rig;
  SeveralTransfers several(rig.wire);
  several.transfers[0].speed_hz = 100000;
  several.transfers[1].speed_hz = 600000;
  several.settings.bus_settings.Mode = 0x202;
  EXPECT_EQ(rig.bus.executeManagedTransferMultipleData(&rig.device, several.settings,
                                                       Varnel::CS_SELECT_DESELECT),
            0);
  EXPECT_EQ(several.transfers[1].speed_hz, 500000U);
  EXPECT_EQ(
      rig.wire.journal(),
      lines("ioctl(7, SPI_IOC_WR_MODE, 2) = 0", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0",
            "close(7) = 0", opening("2", "0", "100000"),
            "ioctl(7, SPI_IOC_MESSAGE(1), "
            "{tx=[ff] rx=null len=1 speed_hz=100000 bits_per_word=8}) = 1",
            "select(chip, true) = 0",
            "ioctl(7, SPI_IOC_MESSAGE(2), "
            "{tx=tx[77] rx=null len=1 speed_hz=100000 bits_per_word=8}, "
            "{tx=null rx=rx len=2 speed_hz=500000 bits_per_word=0}) = 3",
            "select(chip, false) = 0", "ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0"));
}

TEST(ManagedTransferOfSeveral, DrivesTheChipSelectAsAsked) {
  BusRig rig;
  SeveralTransfers several(rig.wire);
  const std::string message =
      "ioctl(7, SPI_IOC_MESSAGE(2), {tx=tx[77] rx=null len=1 speed_hz=500000 bits_per_word=8}, "
      "{tx=null rx=rx len=2 speed_hz=500000 bits_per_word=0}) = 3";
  const auto journalOf = [&](Varnel::eCS_Handling handling) {
    EXPECT_EQ(rig.bus.executeManagedTransferMultipleData(&rig.device, several.settings, handling),
              0);
    return rig.wire.journal();
  };
  EXPECT_EQ(journalOf(Varnel::CS_SELECT_DESELECT),
            lines("select(chip, true) = 0", message, "select(chip, false) = 0"));
  EXPECT_EQ(journalOf(Varnel::CS_JUST_SELECT), lines("select(chip, true) = 0", message));
  EXPECT_EQ(journalOf(Varnel::CS_NOTHING), Lines{message});
  EXPECT_EQ(journalOf(Varnel::CS_JUST_DESELECT), lines(message, "select(chip, false) = 0"));
}

}  // namespace
