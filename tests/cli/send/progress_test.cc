#include "cli/send/progress.h"

#include <gtest/gtest.h>

#include <chrono>

namespace quenor::cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Progress::Time kStart{seconds(1000)};

Counts Delivered(uint64_t delivered) {
  Counts counts;
  counts.delivered = delivered;
  counts.left = 5;
  counts.in_flight = 2;
  counts.retries = 3;
  return counts;
}

TEST(ProgressTest, ShowsEveryNumber) {
  Progress progress;

  EXPECT_EQ("delivered 7, in flight 2, queued 3, retries 3, 0.0/s",
            progress.Update(kStart, Delivered(7)));
}

TEST(ProgressTest, IsDueFiveTimesASecondAtMost) {
  Progress progress;
  int lines = 0;

  for (int ms = 0; ms < 1000; ++ms) {
    if (progress.Update(kStart + milliseconds(ms), Delivered(static_cast<uint64_t>(ms)))) ++lines;
  }

  EXPECT_EQ(5, lines);
}

TEST(ProgressTest, SaysNothingWhenNothingHasChanged) {
  Progress progress;
  progress.Update(kStart, Delivered(1));

  EXPECT_FALSE(progress.Update(kStart + seconds(1), Delivered(1)));
  EXPECT_TRUE(progress.Update(kStart + seconds(2), Delivered(2)));
}

TEST(ProgressTest, GivesTheRateOfTheLastSeconds) {
  Progress progress;
  progress.Update(kStart, Delivered(0));
  progress.Update(kStart + seconds(1), Delivered(1000));
  const auto early = progress.Line(kStart + seconds(2), Delivered(2000));
  progress.Update(kStart + seconds(20), Delivered(2010));
  const auto late = progress.Line(kStart + seconds(30), Delivered(2030));

  EXPECT_NE(std::string::npos, early.find(" 1000.0/s")) << early;
  EXPECT_NE(std::string::npos, late.find(" 2.0/s")) << late;
}

}  // namespace
}  // namespace quenor::cli
