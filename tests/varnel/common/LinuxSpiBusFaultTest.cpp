// SPDX-License-Identifier: MIT
// Every call of every operation of the bus failing once.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/varnel/common/BusRig.h"
#include "tests/wire/FaultSweep.h"

namespace {

using Varnel::stSpiMultipleTransferSettings;
using Varnel::stSpiTransferSettings;
using wire::FaultSweep;
using wire::Lines;
using wire::lines;
using wire::Step;

constexpr char kMessageText[] = "can't transfer data via CLinuxSpiBus";

/// A bus that was never opened.
struct ClosedRig {
  wire::Wire wire;
  Varnel::CLinuxSpiBus bus;

  std::recursive_mutex& mutex() { return bus.transferMutex(); }
};

/// A record for a slow device of another mode and bit order: every step of a transfer is needed.
struct SlowRig : BusRig {
  spi_ioc_transfer transfers[2] = {};
  stSpiTransferSettings settings;
  stSpiMultipleTransferSettings several;

  SlowRig() {
    settings.bus_settings.Mode = 3;
    settings.bus_settings.LSBFirst = 1;
    settings.ioc_transfer.speed_hz = 100000;
    transfers[0].speed_hz = 100000;
    transfers[1].speed_hz = 100000;
    several.bus_settings = settings.bus_settings;
    several.ioc_transfer = transfers;
    several.transfer_count = 2;
  }
};

std::vector<Step> operator+(std::vector<Step> first, const std::vector<Step>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

/// The steps of opening; `places` also log each of their failures.
std::vector<Step> openSteps(const Lines& places, const std::string& mode = "0",
                            const std::string& order = "0", const std::string& speedHz = "500000") {
  return {
      {"open(\"/dev/spidev1.0\", O_RDWR) = 7", "can't open device", places},
      {"ioctl(7, SPI_IOC_WR_MODE32, " + mode + ") = 0", "can't set spi mode", places},
      {"ioctl(7, SPI_IOC_RD_MODE32) = 0 -> " + mode, "can't get spi mode", places},
      {"ioctl(7, SPI_IOC_WR_LSB_FIRST, " + order + ") = 0", "can't set spi mode", places},
      {"ioctl(7, SPI_IOC_WR_BITS_PER_WORD, 8) = 0", "can't set bits per word", places},
      {"ioctl(7, SPI_IOC_RD_BITS_PER_WORD) = 0 -> 8", "can't get bits per word", places},
      {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, " + speedHz + ") = 0", "can't set max speed hz", places},
      {"ioctl(7, SPI_IOC_RD_MAX_SPEED_HZ) = 0 -> " + speedHz, "can't get max speed hz", places}};
}

std::vector<Step> settingSteps(const Lines& places) {
  return {{"ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "can't set spi mode", places},
          {"ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0", "can't set SPI_IOC_WR_LSB_FIRST", places},
          {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0", "can't set max speed hz", places}};
}

const std::string kTwoMessages =
    "ioctl(7, SPI_IOC_MESSAGE(2), {tx=null rx=null len=0 speed_hz=100000 bits_per_word=0}, "
    "{tx=null rx=null len=0 speed_hz=100000 bits_per_word=0}) = 0";

const Step kRestore = {"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 500000) = 0", "can't set max speed hz"};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// What a failed exchange of a SlowRig leaves: a selected chip only if the failing step came
/// between selecting and deselecting, the low speed as soon as it was set.
void expectLeft(SlowRig& rig, const std::string& line, bool selects) {
  const bool isMessage = contains(line, "tx=null");
  const bool isDeselect = contains(line, "select(chip, false)");
  EXPECT_EQ(rig.selector.selected(), selects && (isMessage || isDeselect)) << line;
  if (isMessage || isDeselect || contains(line, "tx=[]")) {
    EXPECT_EQ(rig.wire.nodeSpeedHz(), 100000U) << line;
  }
}

void recoverSlow(SlowRig& rig) {
  rig.recover();
}

TEST(BusFaults, Open) {
  FaultSweep<ClosedRig>([](ClosedRig& rig) { return rig.bus.open(); })
      .leaves([](ClosedRig& rig, const std::string& line) {
        EXPECT_EQ(rig.bus.fileDescriptor(), contains(line, "open(") ? -1 : 7);
      })
      .recoversBy([](ClosedRig& rig) {
        if (rig.bus.isOpen()) {
          rig.bus.close();
        }
      })
      .run(openSteps({}));
}

TEST(BusFaults, Close) {
  FaultSweep<BusRig>([](BusRig& rig) {
    return rig.bus.close();
  }).leaves([](BusRig& rig, const std::string&) {
      EXPECT_TRUE(rig.bus.isOpen());
    }).run({{"close(7) = 0", "can't close device"}});
}

TEST(BusFaults, SetMode) {
  FaultSweep<BusRig>([](BusRig& rig) {
    return rig.bus.setMode(3);
  }).leaves([](BusRig& rig, const std::string&) {
      EXPECT_EQ(rig.bus.busSettings().Mode, 3U);
    }).run({{"ioctl(7, SPI_IOC_WR_MODE, 3) = 0", "can't set spi mode"}});
}

TEST(BusFaults, SetLsbFirst) {
  FaultSweep<BusRig>([](BusRig& rig) {
    return rig.bus.setLSBFirst(1);
  }).leaves([](BusRig& rig, const std::string&) {
      EXPECT_EQ(rig.bus.busSettings().LSBFirst, 0);
    }).run({{"ioctl(7, SPI_IOC_WR_LSB_FIRST, 1) = 0", "can't set SPI_IOC_WR_LSB_FIRST"}});
}

TEST(BusFaults, SetSpeed) {
  FaultSweep<BusRig>([](BusRig& rig) { return rig.bus.setSpiSpeedKHz(100); })
      .leaves([](BusRig& rig, const std::string&) {
        rig.wire.discard();
        rig.bus.close();
        rig.bus.open();
        EXPECT_EQ(rig.wire.journal(), lines("close(7) = 0", opening("0", "0", "100000")));
      })
      .run({{"ioctl(7, SPI_IOC_WR_MAX_SPEED_HZ, 100000) = 0", "can't set max speed hz"}});
}

TEST(BusFaults, WriteData) {
  FaultSweep<BusRig>([](BusRig& rig) {
    return rig.bus.writeData("abcd");
  }).run({{"write(7, [61 62 63 64]) = 4", "Writing data to CLinuxSpiBus"}});
}

TEST(BusFaults, TransferData) {
  FaultSweep<SlowRig>([](SlowRig& rig) { return rig.bus.transferData(rig.settings); })
      .leaves([](SlowRig& rig, const std::string& line) {
        expectLeft(rig, line, false);
        EXPECT_EQ(rig.bus.busSettings().Mode, 3U);
        EXPECT_EQ(rig.bus.busSettings().LSBFirst,
                  contains(line, "MODE") || contains(line, "LSB_FIRST") ? 0 : 1);
      })
      .recoversBy(recoverSlow)
      .run(settingSteps({"varnel/common/LinuxSpiBus.cpp transferData"}) +
           std::vector<Step>{{emptyMessage("100000"), kMessageText}, kRestore});
}

TEST(BusFaults, TransferMultipleData) {
  FaultSweep<SlowRig>([](SlowRig& rig) { return rig.bus.transferMultipleData(rig.several); })
      .leaves([](SlowRig& rig, const std::string& line) { expectLeft(rig, line, false); })
      .recoversBy(recoverSlow)
      .run(settingSteps({"varnel/common/LinuxSpiBus.cpp transferMultipleData"}) +
           std::vector<Step>{{kTwoMessages, kMessageText}, kRestore});
}

/// The steps of a managed exchange of a SlowRig.
std::vector<Step> managedSteps(const std::string& place, const std::string& message,
                               Varnel::eCS_Handling handling) {
  std::vector<Step> steps = settingSteps({place}) +
                            std::vector<Step>{{"close(7) = 0", "can't close device", {place}}} +
                            openSteps({place}, "3", "1", "100000") +
                            std::vector<Step>{{emptySettling("100000"), kMessageText}};
  if (handling == Varnel::CS_SELECT_DESELECT || handling == Varnel::CS_JUST_SELECT) {
    steps.push_back({"select(chip, true) = 0", "", {place}});
  }
  steps.push_back({message, kMessageText});
  if (handling == Varnel::CS_SELECT_DESELECT || handling == Varnel::CS_JUST_DESELECT) {
    steps.push_back({"select(chip, false) = 0", "", {place}});
  }
  steps.push_back(kRestore);
  return steps;
}

class ManagedFaults : public testing::TestWithParam<Varnel::eCS_Handling> {
 protected:
  bool selects() const {
    return GetParam() == Varnel::CS_SELECT_DESELECT || GetParam() == Varnel::CS_JUST_SELECT;
  }

  void sweep(FaultSweep<SlowRig>::Operation operation, const std::vector<Step>& steps) {
    FaultSweep<SlowRig>(operation)
        .leaves([this](SlowRig& rig, const std::string& line) {
          if (line == kRestore.line) {
            EXPECT_EQ(rig.selector.selected(), GetParam() == Varnel::CS_JUST_SELECT);
          } else {
            expectLeft(rig, line, selects());
          }
          EXPECT_EQ(rig.bus.isOpen(), !contains(line, "open("));
        })
        .recoversBy([](SlowRig& rig) {
          rig.selector.enable(false);
          if (rig.bus.isOpen()) {
            rig.bus.close();
          }
          rig.bus.setSpiSpeedKHz(500);
          rig.bus.open();
        })
        .run(steps);
  }
};

TEST_P(ManagedFaults, OfOneTransfer) {
  const Varnel::eCS_Handling handling = GetParam();
  sweep(
      [handling](SlowRig& rig) {
        return rig.bus.executeManagedTransfer(&rig.device, rig.settings, handling);
      },
      managedSteps("varnel/common/LinuxSpiBus.cpp executeManagedTransfer", emptyMessage("100000"),
                   handling));
}

TEST_P(ManagedFaults, OfSeveralTransfers) {
  const Varnel::eCS_Handling handling = GetParam();
  sweep(
      [handling](SlowRig& rig) {
        return rig.bus.executeManagedTransferMultipleData(&rig.device, rig.several, handling);
      },
      managedSteps("varnel/common/LinuxSpiBus.cpp executeManagedTransferMultipleData", kTwoMessages,
                   handling));
}

INSTANTIATE_TEST_SUITE_P(Handling, ManagedFaults,
                         testing::Values(Varnel::CS_SELECT_DESELECT, Varnel::CS_JUST_SELECT,
                                         Varnel::CS_JUST_DESELECT, Varnel::CS_NOTHING));

}  // namespace
