// What every throttle must do. An embedder runs it on his own by linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, ThrotterConformance, LinkedThrotter);
// in namespace quenor::conformance. The parameter names the throttle and lets its time pass.
#ifndef QUENOR_TESTS_CONFORMANCE_THROTTER_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_THROTTER_CONFORMANCE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

#include "quenor_base/platform/throtter.h"

namespace quenor::conformance {

// The throttle that is linked, on a real clock.
struct LinkedThrotter {
  using Type = Throtter;
  // Some time passes, however little.
  static void LetTimePass() { std::this_thread::yield(); }
};

// 49 days: no test lasts that long, and few machines have been up for it.
constexpr uint32_t kHugePeriodMs = std::numeric_limits<uint32_t>::max();

template <typename T>
class ThrotterConformance : public testing::Test {};  // T is like LinkedThrotter.
TYPED_TEST_SUITE_P(ThrotterConformance);

TYPED_TEST_P(ThrotterConformance, LetsTheFirstCallGoHoweverLongThePeriod) {
  typename TypeParam::Type throtter(kHugePeriodMs);

  EXPECT_TRUE(throtter.ShouldGo());
}

TYPED_TEST_P(ThrotterConformance, HoldsEveryFurtherCallWithinThePeriod) {
  // Reckoned as nanoseconds of 32 bits the second would be no period at all.
  for (const uint32_t period_ms : {kHugePeriodMs, uint32_t{1} << 26}) {
    typename TypeParam::Type throtter(period_ms);
    ASSERT_TRUE(throtter.ShouldGo());

    for (int i = 0; i < 1000; ++i) EXPECT_FALSE(throtter.ShouldGo());
  }
}

TYPED_TEST_P(ThrotterConformance, LetsEveryCallGoWithoutAPeriod) {
  typename TypeParam::Type throtter(0);

  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(throtter.ShouldGo());
}

TYPED_TEST_P(ThrotterConformance, LetsEveryCallOfManyThreadsGoWithoutAPeriod) {
  typename TypeParam::Type throtter(0);
  std::atomic<int> gone{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int call = 0; call < 5000; ++call) {
        if (throtter.ShouldGo()) gone.fetch_add(1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(20000, gone.load());
}

TYPED_TEST_P(ThrotterConformance, LetsACallGoAgainOnceAPeriodHasPassed) {
  typename TypeParam::Type throtter(1);
  ASSERT_TRUE(throtter.ShouldGo());

  int gone = 0;
  while (gone < 3) {  // However long that takes; a throttle that never opens again hangs here.
    TypeParam::LetTimePass();
    if (throtter.ShouldGo()) ++gone;
  }

  EXPECT_EQ(3, gone);
}

TYPED_TEST_P(ThrotterConformance, HoldsEachObjectByItself) {
  typename TypeParam::Type first(kHugePeriodMs);
  typename TypeParam::Type second(kHugePeriodMs);

  EXPECT_TRUE(first.ShouldGo());
  EXPECT_TRUE(second.ShouldGo());
  EXPECT_FALSE(first.ShouldGo());
  EXPECT_FALSE(second.ShouldGo());
}

TYPED_TEST_P(ThrotterConformance, LetsExactlyOneOfManyThreadsGo) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 50; ++round) {
    typename TypeParam::Type throtter(kHugePeriodMs);
    std::atomic<bool> start{false};
    std::atomic<int> gone{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        while (!start.load()) std::this_thread::yield();
        for (int call = 0; call < 20; ++call) {
          if (throtter.ShouldGo()) gone.fetch_add(1);
        }
      });
    }

    start.store(true);
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(1, gone.load());
  }
}

REGISTER_TYPED_TEST_SUITE_P(ThrotterConformance, LetsTheFirstCallGoHoweverLongThePeriod,
                            HoldsEveryFurtherCallWithinThePeriod, LetsEveryCallGoWithoutAPeriod,
                            LetsEveryCallOfManyThreadsGoWithoutAPeriod,
                            LetsACallGoAgainOnceAPeriodHasPassed, HoldsEachObjectByItself,
                            LetsExactlyOneOfManyThreadsGo);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_THROTTER_CONFORMANCE_H_
