// The caps of bytes by the second and by the day, in virtual time.
#include "services/http_client_curl/rules/byte_budget.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

QUENOR_NAMESPACE_BEGIN
namespace {

using Cap = ByteBudget::Cap;

constexpr int64_t kSecondMs = 1000;
constexpr int64_t kHourMs = 3600 * kSecondMs;
constexpr uint64_t kKiB = 1024;

ByteBudget Make(uint64_t per_second, uint64_t per_day, int64_t now_ms = 0) {
  ByteBudget budget;
  budget.SetCaps({per_second, per_day}, now_ms);
  return budget;
}

TEST(ByteBudgetTest, WhatCannotBeMeantIsRefusedByItsName) {
  const std::vector<std::pair<HttpThrift, std::string>> rows = {
      {{0, 0}, ""},
      {{1, 0}, ""},
      {{0, 16384}, ""},
      {{uint64_t{1} << 30, uint64_t{1} << 50}, ""},
      {{(uint64_t{1} << 30) + 1, 0},
       "http thrift: bytes_per_second is 1073741825, which no network moves; give 1073741824 at "
       "most, or 0 for no cap"},
      {{0, (uint64_t{1} << 50) + 1},
       "http thrift: bytes_per_day is 1125899906842625, which no network moves; give "
       "1125899906842624 at most, or 0 for no cap"},
      {{0, 16383},
       "http thrift: bytes_per_day is 16383, too little for a connection and a few messages; give "
       "16384 at least, or 0 for no cap"},
      {{20001, 20000},
       "http thrift: bytes_per_day is 20000, less than bytes_per_second; give more, or 0 for no "
       "cap"},
  };
  for (const auto& [caps, problem] : rows) EXPECT_EQ(problem, ByteBudget::Problem(caps));
}

TEST(ByteBudgetTest, WithoutACapEverythingGoesAndCountsForTheDay) {
  ByteBudget budget;
  EXPECT_FALSE(budget.has_cap());
  EXPECT_EQ(Cap::kNone, budget.Take(uint64_t{1} << 40, 0));
  budget.Settle(0, 5, kSecondMs);
  EXPECT_EQ((uint64_t{1} << 40) + 5, budget.WithinDay(kSecondMs));
}

TEST(ByteBudgetTest, TheBucketHoldsTenSecondsAndAtLeast16KiB) {
  EXPECT_EQ(16 * kKiB, ByteBudget::BurstOf({1, 0}));
  EXPECT_EQ(100 * kKiB, ByteBudget::BurstOf({10 * kKiB, 0}));
  ByteBudget budget = Make(10 * kKiB, 0);
  EXPECT_EQ(Cap::kNone, budget.Take(100 * kKiB, 0));
  EXPECT_EQ(Cap::kSecond, budget.Take(1, 0));
  EXPECT_EQ(Cap::kNone, budget.Take(10 * kKiB, 1));  // Something is there, the rest is debt.
  EXPECT_EQ(Cap::kSecond, budget.Take(1, kSecondMs));
  EXPECT_EQ(Cap::kNone, budget.Take(1, kSecondMs + 1));
  // Rest does not save up more.
  EXPECT_EQ(Cap::kNone, budget.Take(100 * kKiB, kHourMs));
  EXPECT_EQ(Cap::kSecond, budget.Take(1, kHourMs));
}

TEST(ByteBudgetTest, WhatIsLargerThanTheBucketGoesAndIsPaidOff) {
  ByteBudget budget = Make(10 * kKiB, 0);
  EXPECT_EQ(Cap::kNone, budget.Take(300 * kKiB, 0));
  // 200 KiB of debt are twenty seconds.
  EXPECT_EQ(Cap::kSecond, budget.Take(1, 20 * kSecondMs));
  EXPECT_EQ(Cap::kNone, budget.Take(1, 20 * kSecondMs + 1));
}

TEST(ByteBudgetTest, SmallRequestsOfOthersKeepNoLargeOneBack) {
  ByteBudget budget = Make(1000, 0);
  int gone = 0;
  for (int64_t now_ms = 0; now_ms < kHourMs; now_ms += kSecondMs) {
    (void)budget.Take(700, now_ms);
    gone += budget.Take(20000, now_ms) == Cap::kNone ? 1 : 0;
  }
  EXPECT_GT(gone, 60);
}

TEST(ByteBudgetTest, TheDayIsAnyTwentyFourHoursInARow) {
  ByteBudget budget = Make(0, 100 * kKiB);
  const int64_t late_in_hour_0 = kHourMs - 1;
  EXPECT_EQ(Cap::kNone, budget.Take(60 * kKiB, late_in_hour_0));
  EXPECT_EQ(Cap::kNone, budget.Take(40 * kKiB, 5 * kHourMs));
  EXPECT_EQ(Cap::kDay, budget.Take(1, 5 * kHourMs));
  EXPECT_EQ(Cap::kDay, budget.Take(1, 25 * kHourMs - 1));
  EXPECT_EQ(Cap::kNone, budget.Take(60 * kKiB, 25 * kHourMs));
  EXPECT_EQ(Cap::kDay, budget.Take(1, 30 * kHourMs - 1));
  EXPECT_EQ(100 * kKiB, budget.WithinDay(30 * kHourMs - 1));
  EXPECT_EQ(60 * kKiB, budget.WithinDay(30 * kHourMs));
  EXPECT_EQ(0u, budget.WithinDay(int64_t{1} << 50));  // However long the sleep.
}

TEST(ByteBudgetTest, WhatIsLargerThanTheDayGoesWhenNothingElseCounts) {
  ByteBudget budget = Make(0, 100 * kKiB);
  EXPECT_EQ(Cap::kNone, budget.Take(1, 0));
  EXPECT_EQ(Cap::kDay, budget.Take(300 * kKiB, 25 * kHourMs - 1));
  EXPECT_EQ(Cap::kNone, budget.Take(300 * kKiB, 25 * kHourMs));
  EXPECT_EQ(Cap::kDay, budget.Take(1, 25 * kHourMs));
}

TEST(ByteBudgetTest, WhatAnExchangeReallyMovedComesInPlaceOfWhatWasTaken) {
  ByteBudget budget = Make(10 * kKiB, 1000 * kKiB);
  EXPECT_EQ(Cap::kNone, budget.Take(60 * kKiB, kHourMs - 1));
  EXPECT_EQ(Cap::kNone, budget.Take(40 * kKiB, kHourMs));
  budget.Settle(60 * kKiB, 0, kHourMs);  // It never went: out of both hours.
  EXPECT_EQ(40 * kKiB, budget.WithinDay(kHourMs));
  EXPECT_EQ(Cap::kNone, budget.Take(61 * kKiB, kHourMs));
  EXPECT_EQ(Cap::kSecond, budget.Take(kKiB, kHourMs));
  budget.Settle(61 * kKiB, 70 * kKiB, kHourMs);  // With its answer.
  EXPECT_EQ(110 * kKiB, budget.WithinDay(kHourMs));
  EXPECT_EQ(Cap::kSecond, budget.Take(kKiB, kHourMs + kSecondMs - 100));
  EXPECT_EQ(Cap::kNone, budget.Take(kKiB, kHourMs + kSecondMs));
  budget.Settle(uint64_t{1} << 40, 0, kHourMs + kSecondMs);  // Never more back than was taken.
  EXPECT_EQ(0u, budget.WithinDay(kHourMs + kSecondMs));
  EXPECT_EQ(Cap::kNone, budget.Take(100 * kKiB, kHourMs + kSecondMs));
  EXPECT_EQ(Cap::kSecond, budget.Take(1, kHourMs + kSecondMs));
}

TEST(ByteBudgetTest, OtherCapsLeaveWhatWasSpent) {
  ByteBudget budget = Make(10 * kKiB, 200 * kKiB);
  EXPECT_EQ(Cap::kNone, budget.Take(100 * kKiB, 0));
  budget.SetCaps({20 * kKiB, 200 * kKiB}, 0);
  EXPECT_EQ(Cap::kSecond, budget.Take(1, 0));  // No way to a full bucket.
  budget.SetCaps({0, 100 * kKiB}, 0);
  EXPECT_EQ(Cap::kDay, budget.Take(1, 0));
  budget.Refill();
  EXPECT_EQ(Cap::kNone, budget.Take(100 * kKiB, 0));
  budget.SetCaps({0, 0}, 0);
  EXPECT_EQ(Cap::kNone, budget.Take(1, 0));
}

// Requests of any size at any time, with answers of any size: what the caps promise holds in every
// stretch of time.
TEST(ByteBudgetTest, NoStretchOfTimeBringsMoreThanTheCapsPromise) {
  constexpr uint32_t kSeed = 20231;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  const HttpThrift caps{200, 4000 * kKiB};
  ByteBudget budget = Make(caps.bytes_per_second, caps.bytes_per_day);
  constexpr uint64_t kMostOfOne = 12 * kKiB;  // Within the burst.
  struct Sent {
    int64_t at_ms;
    uint64_t bytes;
  };
  std::vector<Sent> sent;
  int held_by_second = 0;
  int held_by_day = 0;
  for (int64_t now_ms = 0; now_ms < 80 * kHourMs; now_ms += 1 + random() % (20 * kSecondMs)) {
    const uint64_t bytes = 1 + random() % kMostOfOne;
    const Cap cap = budget.Take(bytes, now_ms);
    held_by_second += cap == Cap::kSecond ? 1 : 0;
    held_by_day += cap == Cap::kDay ? 1 : 0;
    if (cap == Cap::kNone) sent.push_back({now_ms, bytes});
  }
  EXPECT_GT(held_by_second, 100);
  EXPECT_GT(held_by_day, 100);
  for (size_t i = 0; i < sent.size(); ++i) {
    uint64_t sum = 0;
    for (size_t j = i; j < sent.size() && sent[j].at_ms - sent[i].at_ms <= 24 * kHourMs; ++j) {
      sum += sent[j].bytes;
      const uint64_t elapsed_ms = static_cast<uint64_t>(sent[j].at_ms - sent[i].at_ms);
      ASSERT_LE(sum,
                ByteBudget::BurstOf(caps) + caps.bytes_per_second * elapsed_ms / 1000 + kMostOfOne);
      ASSERT_LE(sum, caps.bytes_per_day);
    }
  }
}

}  // namespace
QUENOR_NAMESPACE_END
