// The order of the simulator's clock, against a list that is sorted.
#include "fleet/engine/clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

#include "fleet/model/random.h"

namespace quenor::fleet {
namespace {

struct Recorder final : Event {
  void OnDue() override { ran->push_back(index); }
  size_t index = 0;
  std::vector<size_t>* ran = nullptr;
};

int64_t DrawDelayUs(Random* random) {
  const int64_t widest_us = int64_t{1} << (1 + random->Below(45));
  return static_cast<int64_t>(random->Below(static_cast<uint64_t>(widest_us)));
}

TEST(FleetClockTest, EventsRunByTimeThenInTheOrderOfTheirPosts) {
  Random random(1);
  for (int round = 0; round < 200; ++round) {
    Clock clock;
    std::deque<Recorder> events(100);
    std::vector<size_t> ran;
    std::vector<std::pair<int64_t, size_t>> expected;
    for (size_t i = 0; i < events.size(); ++i) {
      if (random.Below(4) == 0) clock.RunFor(DrawDelayUs(&random));
      events[i].index = i;
      events[i].ran = &ran;
      const int64_t delay_us = random.Below(3) == 0 ? 1000 : DrawDelayUs(&random);
      clock.Post(&events[i], delay_us);
      expected.emplace_back(clock.now_us() + delay_us, i);
      const size_t victim = random.Below(i + 1);
      if (random.Below(5) == 0 && events[victim].waits()) {
        clock.Cancel(&events[victim]);
        expected.erase(std::find_if(expected.begin(), expected.end(),
                                    [&](const auto& each) { return each.second == victim; }));
      }
    }
    clock.RunFor(int64_t{1} << 50);
    std::stable_sort(expected.begin(), expected.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });

    ASSERT_EQ(ran.size(), expected.size());
    for (size_t i = 0; i < ran.size(); ++i) ASSERT_EQ(ran[i], expected[i].second) << round;
  }
}

TEST(FleetClockTest, StandsAtEachEventsTimeAndEndsWhereItWasTold) {
  struct Looker final : Event {
    void OnDue() override { seen_us = Clock::Current().now_us(); }
    int64_t seen_us = 0;
  };
  Clock clock;
  Looker early, late;
  clock.Post(&early, 1500000);
  clock.Post(&late, 3000001);

  clock.RunFor(3000000);

  EXPECT_EQ(early.seen_us, 1500000);
  EXPECT_EQ(clock.now_us(), 3000000);
  EXPECT_TRUE(late.waits());
  clock.RunFor(1);
  EXPECT_EQ(late.seen_us, 3000001);
}

TEST(FleetClockTest, WhatNeverComesIsToldWhenTheClockGoes) {
  struct Never final : Event {
    void OnDue() override {}
    void OnNever() override { told = true; }
    bool told = false;
  };
  Never event;
  {
    Clock clock;
    clock.Post(&event, INT64_MAX);
    clock.RunFor(int64_t{1} << 60);
    EXPECT_TRUE(event.waits());
  }

  EXPECT_TRUE(event.told);
}

}  // namespace
}  // namespace quenor::fleet
