// SPDX-License-Identifier: MIT
#ifndef TESTS_BOARD_CONVERTERBOARD_H
#define TESTS_BOARD_CONVERTERBOARD_H

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orv/Diag.h"
#include "varnel/common/LinuxSpiBus.h"
#include "varnel/common/LinuxSpiDevice.h"
#include "vboard/vboard.h"

namespace boardtest {

/// Keeps what the library writes to its diagnostics log: "doConversion Return code  -36 …".
class DiagLog {
 public:
  DiagLog() : lines_(new Lines), appender_(lines_) {
    Orv::Diag::diagLogger().addAppender(appender_);
  }
  ~DiagLog() { Orv::Diag::diagLogger().removeAppender(appender_); }
  DiagLog(const DiagLog&) = delete;
  DiagLog& operator=(const DiagLog&) = delete;

  const std::vector<std::string>& lines() const { return lines_->lines; }
  /// The lines of one function.
  std::vector<std::string> linesOf(std::string_view function) const {
    std::vector<std::string> found;
    for (const std::string& line : lines()) {
      if (line.substr(0, line.find(' ')) == function) {
        found.push_back(line);
      }
    }
    return found;
  }
  void clear() { lines_->lines.clear(); }

 private:
  class Lines : public log4cplus::Appender {
   public:
    ~Lines() override { destructorImpl(); }
    void close() override { closed = true; }
    std::vector<std::string> lines;

   protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
      lines.push_back(event.getFunction() + ' ' + event.getMessage());
    }
  };
  Lines* lines_;
  log4cplus::SharedAppenderPtr appender_;
};

/// A 24-bit converter on /dev/spidev1.0 at the speed of the bus: select on line 25, RESET on 22,
/// DRDY on 27. What a system call takes and the speed decide what the chip can follow.
template <typename Driver, typename Chip>
struct ConverterBoard {
  static constexpr int kSelect = 25;
  static constexpr int kReset = 22;
  static constexpr int kReady = 27;

  ConverterBoard(vboard::Time callCost, uint16_t speedKHz)
      : board({.callCost = callCost}), busKHz(speedKHz) {
    board.attach(chip, spi);
    board.connect(chip.pin("CS"), gpio.line(kSelect));
    board.connect(chip.pin("RESET"), gpio.line(kReset));
    board.connect(chip.pin("DRDY"), gpio.line(kReady));
    board.netOf(gpio.line(kSelect)).setPull(vboard::Pull::Up);
    board.netOf(gpio.line(kReset)).setPull(vboard::Pull::Up);
  }
  ~ConverterBoard() {
    if (bus.isOpen()) {
      bus.close();
    }
  }
  ConverterBoard(const ConverterBoard&) = delete;
  ConverterBoard& operator=(const ConverterBoard&) = delete;

  /// Power, and what a program does up to `open`. Unless the mode is set beforehand, the first
  /// transfer of `open` finds another one and settles the bus.
  void start(bool modeSet = false) {
    EXPECT_TRUE(vboard::interposed());
    kernel = std::make_unique<vboard::Kernel>(board);
    EXPECT_EQ(select.connect(), 0);
    EXPECT_EQ(bus.setSpiSpeedKHz(busKHz), 0);
    if (modeSet) {
      EXPECT_EQ(bus.setMode(1), 0);
    }
    EXPECT_EQ(bus.open(), 0);
    driver.setBus(&bus);
    driver.setChipSelector(&select);
  }

  bool selected() { return gpio.level(kSelect) == vboard::Level::Low; }
  uint64_t transfers() const { return spi.statistics().transfers; }
  std::vector<std::string> violations() const {
    std::vector<std::string> rules;
    for (const vboard::Violation& violation : board.violations()) {
      rules.push_back(violation.rule);
    }
    return rules;
  }

  vboard::Board board;
  vboard::SpiBus& spi = board.addSpiBus({.number = 1});
  vboard::GpioChip& gpio = board.addGpioChip({.lines = 32});
  Chip& chip = board.add<Chip>("adc");
  uint16_t busKHz;
  std::unique_ptr<vboard::Kernel> kernel;
  Varnel::CLinuxSpiBus bus;
  Varnel::CGpioPinChipSelector select{kSelect, Orv::PIN_MODE_INVERT};
  Driver driver;
  DiagLog diag;
};

/// The 24 bits of a share of full scale, negative ones in two's complement.
inline int32_t codeOf(double share) {
  return static_cast<int32_t>(std::lround(share * 0x7FFFFF)) & 0xFFFFFF;
}

}  // namespace boardtest

#endif
