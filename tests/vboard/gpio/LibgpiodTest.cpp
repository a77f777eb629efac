// SPDX-License-Identifier: MIT
#include <gpiod.h>

#include "tests/vboard/gpio/GpioFixture.h"

namespace {

using testing::StrEq;
using vboard::Level;

/// The library's own calls, in this process.
class Libgpiod : public GpioTest {
 protected:
  void SetUp() override {
    GpioTest::SetUp();
    library_.reset(gpiod_chip_open_by_name("gpiochip0"));
    ASSERT_NE(library_, nullptr);
  }

  struct CloseChip {
    void operator()(gpiod_chip* chip) const { gpiod_chip_close(chip); }
  };
  std::unique_ptr<gpiod_chip, CloseChip> library_;
};

TEST_F(Libgpiod, TakesTheNodeForAChip) {
  EXPECT_THAT(gpiod_chip_label(library_.get()), StrEq("bench"));
  EXPECT_EQ(gpiod_chip_num_lines(library_.get()), 8U);
}

TEST_F(Libgpiod, FindsEveryChip) {
  std::vector<std::string> names;
  gpiod_chip_iter* chips = gpiod_chip_iter_new();
  ASSERT_NE(chips, nullptr);
  while (gpiod_chip* chip = gpiod_chip_iter_next(chips)) {
    names.emplace_back(gpiod_chip_name(chip));
  }
  gpiod_chip_iter_free(chips);
  EXPECT_THAT(names, testing::ElementsAre("gpiochip0", "gpiochip1"));
}

TEST_F(Libgpiod, FindsALineByItsName) {
  gpiod_line* line = gpiod_chip_find_line(library_.get(), "LATCH");
  ASSERT_NE(line, nullptr);
  EXPECT_EQ(gpiod_line_offset(line), 2U);
  EXPECT_EQ(gpiod_chip_find_line(library_.get(), "NONE"), nullptr);
}

TEST_F(Libgpiod, DrivesAndReadsLines) {
  gpiod_line* out = gpiod_chip_get_line(library_.get(), 0);
  gpiod_line* in = gpiod_chip_get_line(library_.get(), 1);
  ASSERT_EQ(gpiod_line_request_output(out, "drv", 1), 0);
  ASSERT_EQ(gpiod_line_request_input_flags(in, "drv", GPIOD_LINE_REQUEST_FLAG_ACTIVE_LOW), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  ASSERT_EQ(gpiod_line_set_value(out, 0), 0);
  EXPECT_EQ(lead(0).level(), Level::Low);
  lead(1).low();
  EXPECT_EQ(gpiod_line_get_value(in), 1);
  EXPECT_THAT(info(0).consumer, StrEq("drv"));
  EXPECT_EQ(gpiod_line_set_value(in, 1), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(Libgpiod, SeesAReservedLineAsBusy) {
  gpiod_line* line = gpiod_chip_get_line(library_.get(), 7);
  EXPECT_TRUE(gpiod_line_is_used(line));
  EXPECT_THAT(gpiod_line_consumer(line), StrEq("regulator"));
  EXPECT_EQ(gpiod_line_request_output(line, "drv", 0), -1);
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(Libgpiod, WaitsForAnEdge) {
  gpiod_line* line = gpiod_chip_get_line(library_.get(), 3);
  ASSERT_EQ(gpiod_line_request_rising_edge_events(line, "drv"), 0);
  const timespec none = {0, 0};
  EXPECT_EQ(gpiod_line_event_wait(line, &none), 0);
  lead(3).high();
  EXPECT_EQ(gpiod_line_event_wait(line, &none), 1);
  gpiod_line_event event = {};
  ASSERT_EQ(gpiod_line_event_read(line, &event), 0);
  EXPECT_EQ(event.event_type, GPIOD_LINE_EVENT_RISING_EDGE);
  EXPECT_EQ(gpiod_line_event_wait(line, &none), 0);
}

TEST_F(Libgpiod, ReconfiguresALine) {
  gpiod_line* line = gpiod_chip_get_line(library_.get(), 0);
  ASSERT_EQ(gpiod_line_request_input(line, "drv"), 0);
  ASSERT_EQ(gpiod_line_set_direction_output(line, 1), 0);
  EXPECT_EQ(lead(0).level(), Level::High);
  gpiod_line_release(line);
  EXPECT_EQ(info(0).flags, GPIO_V2_LINE_FLAG_OUTPUT);
}

}  // namespace
