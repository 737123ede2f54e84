// Pools used by several threads: arrays that cross, tiers that end, the shared tier that comes and
// goes. Written without sight of the implementation, from the promises alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/object_pool.h"
#include "tests/unit/second/pools/pool_peer.h"
#include "tests/unit/second/pools/worker.h"

namespace quenor::test {
namespace {

constexpr uint32_t kLength = 48;

// Heap policies that count. Atomic, as arrays are made and destroyed on any thread.
struct Counts {
  inline static std::atomic<int> live{0};
  inline static std::atomic<int> resets{0};
  inline static std::atomic<int> wrong_lengths{0};
};
struct CountingResetter {
  void operator()(uint8_t*, uint32_t length) const {
    ++Counts::resets;
    if (length != kLength) ++Counts::wrong_lengths;
  }
};
struct CountingAllocator {
  uint8_t* operator()(uint32_t length) const {
    ++Counts::live;
    if (length != kLength) ++Counts::wrong_lengths;
    return new (std::nothrow) uint8_t[length];
  }
};
struct CountingDestroyer {
  void operator()(uint8_t* array, uint32_t length) const {
    --Counts::live;
    if (length != kLength) ++Counts::wrong_lengths;
    delete[] array;
  }
};
using Pool = ObjectPool<uint8_t[], CountingResetter, CountingAllocator, CountingDestroyer>;
using Peer = ObjectPoolTestPeer;

class SecondPoolThreadsTest : public ::testing::Test {
 protected:
  SecondPoolThreadsTest() { Counts::live = Counts::resets = Counts::wrong_lengths = 0; }
  ~SecondPoolThreadsTest() override { EXPECT_EQ(Counts::wrong_lengths.load(), 0); }
};

TEST_F(SecondPoolThreadsTest, AnEndingThreadFreesBothItsLists) {
  Pool pool(kLength, 4, 8);
  Worker worker;
  uint8_t* outstanding = nullptr;
  worker.Do([&] {
    std::vector<uint8_t*> taken;
    for (int i = 0; i < 7; ++i) taken.push_back(pool.AllocRaw());
    outstanding = taken.back();
    taken.pop_back();
    for (uint8_t* array : taken) pool.Reuse(array);
    ASSERT_EQ(Peer::FreeList(pool).size(), 4u);
    ASSERT_EQ(Peer::Pending(pool).size(), 3u);
  });
  EXPECT_EQ(Counts::live.load(), 8) << "made by two refills of four";

  worker.End();

  EXPECT_EQ(Counts::live.load(), 1) << "the one that is in use";
  CountingDestroyer()(outstanding, kLength);
}

TEST_F(SecondPoolThreadsTest, ArraysOutstandingWhenTheirThreadEndsStayUsable) {
  Pool pool(kLength, 2, 8);
  uint8_t* array = nullptr;
  OnThread(Thread::kSdk, [&] { array = pool.AllocRaw(); });
  EXPECT_EQ(Counts::live.load(), 1);

  array[0] = 1;
  array[kLength - 1] = 2;
  OnThread(Thread::kSdk, [&] { pool.Reuse(array); });

  EXPECT_EQ(Counts::live.load(), 0);
}

TEST_F(SecondPoolThreadsTest, TheSharedTierLivesAsLongAsSomeThreadTierHoldsIt) {
  Pool pool(kLength, 2, 8);
  Worker giver;
  Worker holder;
  giver.Do([&] {
    std::vector<uint8_t*> taken;
    for (int i = 0; i < 4; ++i) taken.push_back(pool.AllocRaw());
    for (uint8_t* array : taken) pool.Reuse(array);
  });
  holder.Do([&] { pool.Reuse(nullptr); });
  ASSERT_EQ(Peer::Batches(pool).size(), 1u);

  giver.End();
  EXPECT_EQ(Peer::Batches(pool).size(), 1u) << "held by the other thread";
  EXPECT_EQ(Counts::live.load(), 2);
  holder.End();

  EXPECT_EQ(Peer::Shared(pool), nullptr);
  EXPECT_EQ(Counts::live.load(), 0) << "destroyed with all its batches";
}

TEST_F(SecondPoolThreadsTest, AfterTheSharedTierDiedTheNextThreadGetsAnEmptyOne) {
  Pool pool(kLength, 2, 8);
  OnThread(Thread::kSdk, [&] {
    std::vector<uint8_t*> taken;
    for (int i = 0; i < 4; ++i) taken.push_back(pool.AllocRaw());
    for (uint8_t* array : taken) pool.Reuse(array);
    ASSERT_EQ(Peer::Batches(pool).size(), 1u);
  });

  OnThread(Thread::kSdk, [&] {
    pool.Reuse(nullptr);
    ASSERT_NE(Peer::Shared(pool), nullptr);
    EXPECT_TRUE(Peer::Batches(pool).empty());
    EXPECT_EQ(Peer::MaxBatches(*Peer::Shared(pool)), 8u);
  });
}

TEST_F(SecondPoolThreadsTest, AnArrayReturnedElsewhereJoinsTheReturningThreadsTier) {
  Pool pool(kLength, 3, 8);
  Worker taker;
  Worker returner;
  uint8_t* array = nullptr;
  taker.Do([&] { array = pool.AllocRaw(); });

  returner.Do([&] {
    pool.Reuse(array);
    EXPECT_EQ(Peer::FreeList(pool), Peer::Addresses{array});
  });

  taker.Do([&] { EXPECT_EQ(Peer::FreeList(pool).size(), 2u); });
  EXPECT_EQ(Counts::live.load(), 3);
}

TEST_F(SecondPoolThreadsTest, AThreadThatOnlyReturnsFeedsAThreadThatOnlyTakes) {
  constexpr int kRounds = 200;
  Pool pool(kLength, 4, 8);
  Worker taker;
  Worker returner;

  for (int round = 0; round < kRounds; ++round) {
    uint8_t* array = nullptr;
    taker.Do([&] { array = pool.AllocRaw(); });
    returner.Do([&] { pool.Reuse(array); });
    // Both lists of the returner, one batch on its way and the taker's list.
    EXPECT_LE(Counts::live.load(), 4 + 3 + 4 + 4);
  }

  EXPECT_EQ(Counts::resets.load(), kRounds) << "once for each return";
  taker.End();
  returner.End();
  EXPECT_EQ(Counts::live.load(), 0);
}

TEST_F(SecondPoolThreadsTest, NoArrayIsEverHandedToTwoUsersAtOnce) {
  constexpr uint32_t kSeed = 20240;
  constexpr int kThreads = 4;
  constexpr int kSteps = 6000;
  Pool pool(kLength, 4, 3);
  std::mutex bin_mutex;
  std::vector<uint8_t*> bin;  // Arrays on their way to another thread.
  std::atomic<int> stolen{0};
  const auto work = [&](int id) {
    std::mt19937 random(kSeed + static_cast<uint32_t>(id));
    const auto mark = static_cast<uint8_t>(id + 1);
    std::vector<uint8_t*> mine;
    for (int step = 0; step < kSteps; ++step) {
      if (mine.size() < 20 && random() % 2 == 0) {
        mine.push_back(pool.AllocRaw());
        std::fill_n(mine.back(), kLength, mark);
      } else if (!mine.empty()) {
        uint8_t* const array = mine.back();
        mine.pop_back();
        for (uint32_t i = 0; i < kLength; ++i) stolen += array[i] == mark ? 0 : 1;
        uint8_t* other = array;
        if (random() % 3 == 0) {
          std::lock_guard<std::mutex> lock(bin_mutex);
          if (bin.size() < 8) bin.push_back(nullptr);
          std::swap(other, bin[random() % bin.size()]);
        }
        pool.Reuse(other);  // Null while the bin fills.
      }
    }
    for (uint8_t* array : mine) pool.Reuse(array);
  };

  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) threads.emplace_back(work, id);
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(stolen.load(), 0) << "seed " << kSeed;
  for (uint8_t* array : bin) {
    if (array != nullptr) CountingDestroyer()(array, kLength);
  }
  EXPECT_EQ(Counts::live.load(), 0);
  EXPECT_EQ(Peer::Shared(pool), nullptr);
}

TEST_F(SecondPoolThreadsTest, ThreadsThatComeAndGoRaceForTheSharedTierWithoutLosingAnArray) {
  constexpr int kStarters = 3;
  constexpr int kLives = 60;
  Pool pool(kLength, 2, 2);
  const auto live_again_and_again = [&] {
    for (int life = 0; life < kLives; ++life) {
      std::thread([&] {
        std::vector<uint8_t*> taken;
        for (int i = 0; i < 9; ++i) taken.push_back(pool.AllocRaw());
        for (uint8_t* array : taken) pool.Reuse(array);
      }).join();
    }
  };

  std::vector<std::thread> starters;
  for (int i = 0; i < kStarters; ++i) starters.emplace_back(live_again_and_again);
  for (std::thread& starter : starters) starter.join();

  EXPECT_EQ(Counts::live.load(), 0);
  EXPECT_EQ(Peer::Shared(pool), nullptr);
}

}  // namespace
}  // namespace quenor::test
