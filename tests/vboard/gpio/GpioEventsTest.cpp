// SPDX-License-Identifier: MIT
#include <sys/epoll.h>
#include <sys/uio.h>
#include <time.h>

#include <thread>

#include "tests/vboard/gpio/GpioFixture.h"

namespace {

using testing::StrEq;

using GpioEvents = GpioTest;

constexpr uint64_t kRising = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING;
constexpr uint64_t kFalling = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_FALLING;
constexpr uint64_t kBoth = kRising | kFalling;

TEST_F(GpioEvents, BothEdgesOfALineAreRead) {
  const Descriptor event = this->event(0, GPIOEVENT_REQUEST_BOTH_EDGES);
  ASSERT_GE(event, 0);
  EXPECT_FALSE(readable(event));
  lead(0).high();
  EXPECT_TRUE(readable(event));
  advance(3ms);
  lead(0).low();
  const auto events = eventsOf<gpioevent_data>(event);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].id, static_cast<uint32_t>(GPIOEVENT_EVENT_RISING_EDGE));
  EXPECT_EQ(events[1].id, static_cast<uint32_t>(GPIOEVENT_EVENT_FALLING_EDGE));
  EXPECT_EQ(events[1].timestamp - events[0].timestamp, 3000000U);
  EXPECT_FALSE(readable(event));
}

TEST_F(GpioEvents, OnlyTheEdgesAskedForCount) {
  const Descriptor rising = event(0, GPIOEVENT_REQUEST_RISING_EDGE);
  const Descriptor falling = lines({1}, kFalling);
  for (const int line : {0, 1}) {
    lead(line).high();
    lead(line).low();
    lead(line).high();
  }
  EXPECT_EQ(eventsOf<gpioevent_data>(rising).size(), 2U);
  const auto events = eventsOf<gpio_v2_line_event>(falling);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].id, static_cast<uint32_t>(GPIO_V2_LINE_EVENT_FALLING_EDGE));
}

TEST_F(GpioEvents, ActiveLowTurnsEdgesRound) {
  const Descriptor first = event(0, GPIOEVENT_REQUEST_RISING_EDGE,
                                 GPIOHANDLE_REQUEST_INPUT | GPIOHANDLE_REQUEST_ACTIVE_LOW);
  const Descriptor second = lines({1}, kFalling | GPIO_V2_LINE_FLAG_ACTIVE_LOW);
  lead(0).high();
  EXPECT_FALSE(readable(first));
  lead(0).low();
  EXPECT_TRUE(readable(first));
  lead(1).high();
  EXPECT_TRUE(readable(second));
}

TEST_F(GpioEvents, AnOutputOfTheProgramRaisesEventsAtTheOtherEndOfItsWire) {
  const Descriptor otherChip(open("/dev/gpiochip1", O_RDONLY));
  gpio_v2_line_request request = requestOf({0}, kRising);
  ASSERT_EQ(ioctl(otherChip, GPIO_V2_GET_LINE_IOCTL, &request), 0);
  const Descriptor edge(request.fd);
  const Descriptor out = handle({6}, GPIOHANDLE_REQUEST_OUTPUT, {0});
  EXPECT_FALSE(readable(edge));
  setValues(out, {1});
  EXPECT_TRUE(readable(edge));
}

TEST_F(GpioEvents, EventsOfOneRequestAreCountedTogetherAndPerLine) {
  const Descriptor lines = this->lines({2, 4}, kBoth);
  lead(2).high();
  lead(4).high();
  lead(2).low();
  const auto events = eventsOf<gpio_v2_line_event>(lines);
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[1].offset, 4U);
  EXPECT_EQ(events[1].seqno, 2U);
  EXPECT_EQ(events[1].line_seqno, 1U);
  EXPECT_EQ(events[2].offset, 2U);
  EXPECT_EQ(events[2].seqno, 3U);
  EXPECT_EQ(events[2].line_seqno, 2U);
}

TEST_F(GpioEvents, SeveralEventsFitIntoOneRead) {
  const Descriptor lines = this->lines({0}, kBoth);
  for (int i = 0; i < 3; ++i) {
    lead(0).high();
    lead(0).low();
  }
  gpio_v2_line_event events[4];
  EXPECT_EQ(read(lines, events, sizeof(events)), static_cast<ssize_t>(sizeof(events)));
  EXPECT_EQ(events[3].seqno, 4U);
  const size_t size = sizeof(events[0]);
  const iovec buffers[2] = {{&events[0], size}, {&events[1], size}};
  EXPECT_EQ(readv(lines, buffers, 2), static_cast<ssize_t>(2 * size));
  EXPECT_EQ(events[1].seqno, 6U);
}

TEST_F(GpioEvents, TheFirstInterfaceKeepsSixteenAndLosesTheLatest) {
  const Descriptor event = this->event(0, GPIOEVENT_REQUEST_BOTH_EDGES);
  for (int i = 0; i < 20; ++i) {
    lead(0).high();
    advance(1us);
    lead(0).low();
    advance(1us);
  }
  const auto events = eventsOf<gpioevent_data>(event);
  ASSERT_EQ(events.size(), 16U);
  EXPECT_EQ(events[15].timestamp - events[0].timestamp, 15000U);
}

TEST_F(GpioEvents, TheSecondInterfaceKeepsSixteenPerLineAndLosesTheOldest) {
  const Descriptor lines = this->lines({0}, kBoth);
  for (int i = 0; i < 20; ++i) {
    lead(0).high();
    lead(0).low();
  }
  const auto events = eventsOf<gpio_v2_line_event>(lines);
  ASSERT_EQ(events.size(), 16U);
  EXPECT_EQ(events.front().seqno, 25U);
  EXPECT_EQ(events.back().seqno, 40U);
}

TEST_F(GpioEvents, TheBufferSizeAskedForIsRoundedUpToAPowerOfTwo) {
  gpio_v2_line_request request = requestOf({0}, kBoth);
  request.event_buffer_size = 5;
  const Descriptor lines = this->lines(request);
  for (int i = 0; i < 10; ++i) {
    lead(0).high();
    lead(0).low();
  }
  const auto events = eventsOf<gpio_v2_line_event>(lines);
  ASSERT_EQ(events.size(), 8U);
  EXPECT_EQ(events.front().seqno, 13U);
}

TEST_F(GpioEvents, AThousandEventsFitWhenAskedFor) {
  gpio_v2_line_request request = requestOf({0}, kBoth);
  request.event_buffer_size = 5000;  // 1024 is the most
  const Descriptor lines = this->lines(request);
  for (int i = 0; i < 600; ++i) {
    lead(0).high();
    lead(0).low();
  }
  const auto events = eventsOf<gpio_v2_line_event>(lines);
  ASSERT_EQ(events.size(), 1024U);
  for (size_t i = 0; i < events.size(); ++i) {
    ASSERT_EQ(events[i].seqno, 177 + i);
  }
}

TEST_F(GpioEvents, ANonBlockingReadOfNothingIsEagain) {
  const Descriptor lines = this->lines({0}, kRising);
  fcntl(lines, F_SETFL, O_NONBLOCK);
  gpio_v2_line_event event;
  EXPECT_EQ(read(lines, &event, sizeof(event)), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(GpioEvents, ABlockedReadWaitsForAnEdgeFromAnotherThread) {
  const Descriptor lines = this->lines({0}, kRising);
  std::thread bench([this] {
    std::this_thread::sleep_for(1ms);
    lead(0).high();
  });
  gpio_v2_line_event event = {};
  EXPECT_EQ(read(lines, &event, sizeof(event)), static_cast<ssize_t>(sizeof(event)));
  EXPECT_EQ(event.seqno, 1U);
  bench.join();
}

TEST_F(GpioEvents, ABlockedReadLetsVirtualTimePass) {
  const Descriptor lines = this->lines({0}, kRising);
  board_.clock().after(5s, [this] { lead(0).high(); });
  const vboard::Time before = board_.clock().now();
  gpio_v2_line_event event = {};
  EXPECT_EQ(read(lines, &event, sizeof(event)), static_cast<ssize_t>(sizeof(event)));
  EXPECT_EQ(board_.clock().now() - before, 5s);
}

TEST_F(GpioEvents, TimestampsAgreeWithTheClocksOfTheProcess) {
  const Descriptor monotonic = lines({0}, kRising);
  const Descriptor realtime = lines({1}, kRising | GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME);
  const auto now = [](clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
  };
  lead(0).high();
  lead(1).high();
  EXPECT_EQ(eventsOf<gpio_v2_line_event>(monotonic).at(0).timestamp_ns, now(CLOCK_MONOTONIC));
  EXPECT_EQ(eventsOf<gpio_v2_line_event>(realtime).at(0).timestamp_ns, now(CLOCK_REALTIME));
}

TEST_F(GpioEvents, EpollTellsOfEvents) {
  const Descriptor lines = this->lines({0}, kRising);
  const Descriptor poller(epoll_create1(0));
  epoll_event interest = {};
  interest.events = EPOLLIN;
  ASSERT_EQ(epoll_ctl(poller, EPOLL_CTL_ADD, lines, &interest), 0);
  epoll_event ready = {};
  EXPECT_EQ(epoll_wait(poller, &ready, 1, 0), 0);
  lead(0).high();
  EXPECT_EQ(epoll_wait(poller, &ready, 1, 0), 1);
}

TEST_F(GpioEvents, ReconfiguringStartsAndStopsEdges) {
  const Descriptor lines = this->lines({0}, GPIO_V2_LINE_FLAG_INPUT);
  lead(0).high();
  EXPECT_FALSE(readable(lines));
  gpio_v2_line_config config = {};
  config.flags = kFalling;
  ASSERT_EQ(ioctl(lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config), 0);
  lead(0).low();
  EXPECT_EQ(eventsOf<gpio_v2_line_event>(lines).size(), 1U);
  config.flags = GPIO_V2_LINE_FLAG_INPUT;
  ASSERT_EQ(ioctl(lines, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config), 0);
  lead(0).high();
  lead(0).low();
  EXPECT_FALSE(readable(lines));
}

TEST_F(GpioEvents, DebounceReportsWhatLastsLongerThanItsPeriod) {
  gpio_v2_line_request request = requestOf({0}, kBoth);
  request.config.num_attrs = 1;
  request.config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_DEBOUNCE;
  request.config.attrs[0].attr.debounce_period_us = 1000;
  request.config.attrs[0].mask = 1;
  Descriptor lines = this->lines(request);
  ASSERT_GE(lines, 0);
  for (int bounce = 0; bounce < 5; ++bounce) {
    lead(0).high();
    advance(100us);
    lead(0).low();
    advance(100us);
  }
  advance(5ms);
  EXPECT_FALSE(readable(lines));
  lead(0).high();
  advance(999us);
  EXPECT_EQ(bits(lines, 1), 0U);
  EXPECT_FALSE(readable(lines));
  advance(1us);
  EXPECT_EQ(bits(lines, 1), 1U);
  EXPECT_EQ(eventsOf<gpio_v2_line_event>(lines).size(), 1U);
  lead(0).low();
  lines.reset();
  advance(5ms);
  EXPECT_EQ(info(0).num_attrs, 0U);
}

TEST_F(GpioEvents, AWatchTellsWhoUsesALine) {
  gpio_v2_line_info watched = {};
  watched.offset = 0;
  ASSERT_EQ(ioctl(chip_, GPIO_V2_GET_LINEINFO_WATCH_IOCTL, &watched), 0);
  {
    const Descriptor user = lines({0, 1}, GPIO_V2_LINE_FLAG_INPUT);
    gpio_v2_line_config config = {};
    config.flags = GPIO_V2_LINE_FLAG_OUTPUT;
    ASSERT_EQ(ioctl(user, GPIO_V2_LINE_SET_CONFIG_IOCTL, &config), 0);
  }
  const auto changes = eventsOf<gpio_v2_line_info_changed>(chip_);
  ASSERT_EQ(changes.size(), 3U);
  EXPECT_EQ(changes[0].event_type, static_cast<uint32_t>(GPIO_V2_LINE_CHANGED_REQUESTED));
  EXPECT_THAT(changes[0].info.consumer, StrEq("test"));
  EXPECT_EQ(changes[1].event_type, static_cast<uint32_t>(GPIO_V2_LINE_CHANGED_CONFIG));
  EXPECT_NE(changes[1].info.flags & GPIO_V2_LINE_FLAG_OUTPUT, 0U);
  EXPECT_EQ(changes[2].event_type, static_cast<uint32_t>(GPIO_V2_LINE_CHANGED_RELEASED));
  uint32_t offset = 0;
  ASSERT_EQ(ioctl(chip_, GPIO_GET_LINEINFO_UNWATCH_IOCTL, &offset), 0);
  const Descriptor user = lines({0}, GPIO_V2_LINE_FLAG_INPUT);
  EXPECT_FALSE(readable(chip_));
}

}  // namespace
