// SPDX-License-Identifier: MIT
#include <gpiod.h>

#include "tests/vboard/gpio/GpioFixture.h"

namespace {

using testing::StrEq;
using vboard::Level;

template <auto release>
struct Release {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

using Chip = std::unique_ptr<gpiod_chip, Release<gpiod_chip_close>>;
using ChipInfo = std::unique_ptr<gpiod_chip_info, Release<gpiod_chip_info_free>>;
using LineInfo = std::unique_ptr<gpiod_line_info, Release<gpiod_line_info_free>>;
using Settings = std::unique_ptr<gpiod_line_settings, Release<gpiod_line_settings_free>>;
using Config = std::unique_ptr<gpiod_line_config, Release<gpiod_line_config_free>>;
using Lines = std::unique_ptr<gpiod_line_request, Release<gpiod_line_request_release>>;
using Events = std::unique_ptr<gpiod_edge_event_buffer, Release<gpiod_edge_event_buffer_free>>;
using InfoEvent = std::unique_ptr<gpiod_info_event, Release<gpiod_info_event_free>>;

/// The library's own calls, in this process.
class Libgpiod2 : public GpioTest {
 protected:
  void SetUp() override {
    GpioTest::SetUp();
    library_.reset(gpiod_chip_open(kPath));
    ASSERT_NE(library_, nullptr);
  }

  static Settings settings(gpiod_line_direction direction) {
    Settings settings(gpiod_line_settings_new());
    gpiod_line_settings_set_direction(settings.get(), direction);
    return settings;
  }

  Lines request(unsigned offset, const Settings& settings) {
    const Config config(gpiod_line_config_new());
    gpiod_line_config_add_line_settings(config.get(), &offset, 1, settings.get());
    return Lines(gpiod_chip_request_lines(library_.get(), nullptr, config.get()));
  }

  Chip library_;
};

TEST_F(Libgpiod2, TakesTheNodeForAChip) {
  EXPECT_TRUE(gpiod_is_gpiochip_device(kPath));
  EXPECT_FALSE(gpiod_is_gpiochip_device("/dev/null"));
  const ChipInfo info(gpiod_chip_get_info(library_.get()));
  EXPECT_THAT(gpiod_chip_info_get_name(info.get()), StrEq("gpiochip0"));
  EXPECT_THAT(gpiod_chip_info_get_label(info.get()), StrEq("bench"));
  EXPECT_EQ(gpiod_chip_info_get_num_lines(info.get()), 8U);
}

TEST_F(Libgpiod2, FindsALineByItsName) {
  EXPECT_EQ(gpiod_chip_get_line_offset_from_name(library_.get(), "LATCH"), 2);
  EXPECT_EQ(gpiod_chip_get_line_offset_from_name(library_.get(), "NONE"), -1);
}

TEST_F(Libgpiod2, DrivesAndReadsLines) {
  Settings high = settings(GPIOD_LINE_DIRECTION_OUTPUT);
  gpiod_line_settings_set_output_value(high.get(), GPIOD_LINE_VALUE_ACTIVE);
  const Lines out = request(0, high);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(lead(0).level(), Level::High);
  ASSERT_EQ(gpiod_line_request_set_value(out.get(), 0, GPIOD_LINE_VALUE_INACTIVE), 0);
  EXPECT_EQ(lead(0).level(), Level::Low);
  Settings activeLow = settings(GPIOD_LINE_DIRECTION_INPUT);
  gpiod_line_settings_set_active_low(activeLow.get(), true);
  const Lines in = request(1, activeLow);
  ASSERT_NE(in, nullptr);
  lead(1).low();
  EXPECT_EQ(gpiod_line_request_get_value(in.get(), 1), GPIOD_LINE_VALUE_ACTIVE);
  EXPECT_EQ(gpiod_line_request_set_value(in.get(), 1, GPIOD_LINE_VALUE_ACTIVE), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(Libgpiod2, SeesAReservedLineAsBusy) {
  const LineInfo info(gpiod_chip_get_line_info(library_.get(), 7));
  EXPECT_TRUE(gpiod_line_info_is_used(info.get()));
  EXPECT_THAT(gpiod_line_info_get_consumer(info.get()), StrEq("regulator"));
  EXPECT_EQ(request(7, settings(GPIOD_LINE_DIRECTION_OUTPUT)), nullptr);
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(Libgpiod2, WaitsForAnEdge) {
  Settings edges = settings(GPIOD_LINE_DIRECTION_INPUT);
  gpiod_line_settings_set_edge_detection(edges.get(), GPIOD_LINE_EDGE_RISING);
  const Lines lines = request(3, edges);
  ASSERT_NE(lines, nullptr);
  EXPECT_EQ(gpiod_line_request_wait_edge_events(lines.get(), 0), 0);
  lead(3).high();
  EXPECT_EQ(gpiod_line_request_wait_edge_events(lines.get(), 0), 1);
  const Events events(gpiod_edge_event_buffer_new(8));
  ASSERT_EQ(gpiod_line_request_read_edge_events(lines.get(), events.get(), 8), 1);
  gpiod_edge_event* event = gpiod_edge_event_buffer_get_event(events.get(), 0);
  EXPECT_EQ(gpiod_edge_event_get_event_type(event), GPIOD_EDGE_EVENT_RISING_EDGE);
  EXPECT_EQ(gpiod_edge_event_get_line_offset(event), 3U);
}

TEST_F(Libgpiod2, WatchesALine) {
  const LineInfo info(gpiod_chip_watch_line_info(library_.get(), 2));
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(gpiod_chip_wait_info_event(library_.get(), 0), 0);
  const Lines lines = request(2, settings(GPIOD_LINE_DIRECTION_INPUT));
  ASSERT_EQ(gpiod_chip_wait_info_event(library_.get(), 0), 1);
  const InfoEvent event(gpiod_chip_read_info_event(library_.get()));
  EXPECT_EQ(gpiod_info_event_get_event_type(event.get()), GPIOD_INFO_EVENT_LINE_REQUESTED);
}

}  // namespace
