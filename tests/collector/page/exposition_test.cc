// What a collector's metrics are read as, and quantiles between two looks at them.
#include "collector/page/look/exposition.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>

#include "collector/tier/meter.h"

namespace quenor::collector {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();
constexpr char kHistogram[] = "quenor_collector_answer_seconds";

TEST(ExpositionTest, SamplesAreFoundByNameAndLabel) {
  const Samples samples(
      "# HELP held x\n# TYPE held gauge\nheld 7\nheld_bytes 1.5e3 1714564800\n"
      "answers{status=\"200\"} 10\nanswers{zone=\"a\",status=\"503\"} "
      "2\nstate{state=\"a\\\"b\\\\c\\nd\"} 1");

  EXPECT_EQ(samples.Value("held"), 7);
  EXPECT_EQ(samples.Value("held_bytes"), 1500);
  EXPECT_EQ(samples.Value("answers"), std::nullopt) << "each of them has a label";
  EXPECT_EQ(samples.By("answers", "status"),
            (std::map<std::string, double>{{"200", 10}, {"503", 2}}));
  EXPECT_EQ(samples.By("state", "state"), (std::map<std::string, double>{{"a\"b\\c\nd", 1}}));
}

TEST(ExpositionTest, LinesThatAreNoSamplesAreLeftOut) {
  for (const char* line :
       {"", "held", "held ", "held x", "held{", "held{a", "held{a=", "held{a=\"b", "held{a=\"b\\",
        "held{a=\"b\"}", "held{a=b} 1", "{a=\"b\"} 1", "held NaN", " 1", "# held 1"}) {
    EXPECT_EQ(Samples(std::string(line) + "\nlast 1\n").Value("last"), 1) << line;
    EXPECT_TRUE(Samples(line).is_empty()) << line;
  }
}

TEST(ExpositionTest, CounterThatFellBeganAnew) {
  EXPECT_EQ(Rise(10, 25), 15);
  EXPECT_EQ(Rise(10, 4), 4);
}

TEST(ExpositionTest, QuantilesLieEvenlyBetweenTwoBounds) {
  const Buckets buckets = {{0.01, 50}, {0.02, 90}, {1, 90}, {kInfinite, 100}};

  EXPECT_DOUBLE_EQ(QuantileOf(buckets, 0.25)->seconds, 0.005);
  EXPECT_DOUBLE_EQ(QuantileOf(buckets, 0.5)->seconds, 0.01);
  EXPECT_DOUBLE_EQ(QuantileOf(buckets, 0.7)->seconds, 0.015);
  EXPECT_FALSE(QuantileOf(buckets, 0.9)->is_beyond);
  EXPECT_TRUE(QuantileOf(buckets, 0.99)->is_beyond);
  EXPECT_EQ(QuantileOf(buckets, 0.99)->seconds, 1);
  EXPECT_FALSE(QuantileOf({}, 0.5));
  EXPECT_FALSE(QuantileOf({{1, 0}, {kInfinite, 0}}, 0.5));
}

TEST(ExpositionTest, RiseOfBucketsIsWhatCameBetween) {
  const Buckets before = {{1, 5}, {kInfinite, 6}};

  EXPECT_EQ(RiseOf(before, {{1, 9}, {kInfinite, 12}}), (Buckets{{1, 4}, {kInfinite, 6}}));
  EXPECT_EQ(RiseOf(before, {{1, 2}, {kInfinite, 2}}), (Buckets{{1, 2}, {kInfinite, 2}}));
  EXPECT_EQ(RiseOf({}, before), before);
  EXPECT_EQ(RiseOf(before, {}), Buckets());
}

TEST(ExpositionTest, WhatACollectorCountsIsReadBack) {
  Meter meter{Time{}};
  for (int i = 0; i < 98; ++i) meter.CountAnswer(200, std::chrono::microseconds(1500));
  meter.CountAnswer(503, std::chrono::seconds(30));
  meter.CountAnswer(503, std::chrono::seconds(30));
  Meter::Present present;
  present.state = TierState::kStalled;
  present.held_reports = 3;

  const Samples samples(meter.Text(present, Time{}));
  const Buckets buckets = BucketsOf(samples, kHistogram);

  EXPECT_EQ(samples.Value("quenor_collector_reports_held"), 3);
  EXPECT_EQ(samples.By("quenor_collector_requests_total", "status").at("503"), 2);
  EXPECT_EQ(samples.By("quenor_collector_state", "state").at("stalled"), 1);
  EXPECT_EQ(buckets.at(0.001), 0);
  EXPECT_EQ(buckets.at(0.002), 98);
  EXPECT_EQ(buckets.at(kInfinite), 100);
  EXPECT_TRUE(QuantileOf(buckets, 0.99)->is_beyond);
}

TEST(SamplesTest, WhatNoCollectorHasIsLeftOut) {
  const Samples samples("a -1\nb +Inf\nc 1e300\nd 9e15\ne -Inf\nf nan\n");

  for (const char* name : {"a", "b", "c", "e", "f"}) EXPECT_FALSE(samples.Value(name)) << name;
  EXPECT_EQ(samples.Value("d"), 9e15);
}

}  // namespace
}  // namespace quenor::collector
