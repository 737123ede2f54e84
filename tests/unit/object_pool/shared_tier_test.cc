// What passes between threads: whole batches, their bound, and the life of the shared tier.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <future>
#include <iostream>
#include <random>
#include <vector>

#include "pool_test_support.h"
#include "quenor_base/platform/base/abi.h"
#include "tests/support/memory_faults.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using test::HeapCounts;
using test::MemoryFaults;

using Arrays = std::vector<uint8_t*>;
using Batches = std::vector<Arrays>;

// A second thread that runs one step after another for a test and keeps its tiers meanwhile.
class Partner {
 public:
  ~Partner() { End(); }

  void Run(std::function<void()> step) {
    std::promise<void> done;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      step_ = [&] {
        step();
        done.set_value();
      };
    }
    changed_.notify_one();
    done.get_future().wait();
  }
  // Ends the thread, and with it its tiers.
  void End() {
    if (!thread_.joinable()) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

 private:
  void Loop() {
    for (;;) {
      std::function<void()> step;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return step_ || ending_; });
        if (!step_) return;
        step.swap(step_);
      }
      step();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> step_;
  bool ending_ = false;
  std::thread thread_{[this] { Loop(); }};
};

class SharedTierTest : public CountedPoolTest {
 protected:
  // Takes and returns as many arrays as hand `count` batches over; answers those batches.
  static Batches HandOver(CountedPool& pool, size_t count) {
    const uint32_t capacity = Peer::Capacity(pool);
    const Arrays arrays = Take(pool, (count + 1) * capacity);
    Return(pool, arrays);
    Batches handed_over;
    for (size_t i = 1; i <= count; ++i) {
      handed_over.emplace_back(arrays.begin() + i * capacity, arrays.begin() + (i + 1) * capacity);
    }
    return handed_over;
  }
  static Arrays Sorted(Arrays arrays) {
    std::sort(arrays.begin(), arrays.end());
    return arrays;
  }
};

TEST_F(SharedTierTest, AsManyBatchesAsTheBoundStay) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    const Batches handed_over = HandOver(pool, 8);

    EXPECT_EQ(Peer::Batches(pool), handed_over);
    EXPECT_EQ(ArrayBooks::freed, 0u);
  });
}

TEST_F(SharedTierTest, NinthBatchOfEightTrimsToTheSixNewestAndFreesTheThreeOldest) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    const Batches handed_over = HandOver(pool, 9);

    EXPECT_EQ(Peer::Batches(pool), Batches(handed_over.begin() + 3, handed_over.end()));
    Arrays oldest;
    for (size_t i = 0; i < 3; ++i) {
      oldest.insert(oldest.end(), handed_over[i].begin(), handed_over[i].end());
    }
    EXPECT_EQ(ArrayBooks::FreedArrays(), oldest);
  });
}

TEST_F(SharedTierTest, SecondBatchOfOneFreesBoth) {
  CountedPool pool(64, 2, 1);
  OnSdkThread([&] {
    const Batches handed_over = HandOver(pool, 2);

    EXPECT_TRUE(Peer::Batches(pool).empty());
    EXPECT_EQ(ArrayBooks::FreedArrays(),
              (Arrays{handed_over[0][0], handed_over[0][1], handed_over[1][0], handed_over[1][1]}));
  });
}

TEST_F(SharedTierTest, FirstBatchOfOneStays) {
  CountedPool pool(64, 2, 1);
  OnSdkThread([&] {
    const Batches handed_over = HandOver(pool, 1);

    EXPECT_EQ(Peer::Batches(pool), handed_over);
    EXPECT_EQ(ArrayBooks::freed, 0u);
  });
}

TEST_F(SharedTierTest, BoundOfZeroFreesEachBatchAtOnce) {
  CountedPool pool(64, 2, 0);
  OnSdkThread([&] {
    const Arrays arrays = Take(pool, 6);
    Return(pool, {arrays[0], arrays[1], arrays[2]});
    EXPECT_EQ(ArrayBooks::freed, 0u);

    pool.Reuse(arrays[3]);
    EXPECT_EQ(ArrayBooks::FreedArrays(), (Arrays{arrays[2], arrays[3]}));

    Return(pool, {arrays[4], arrays[5]});
    EXPECT_EQ(ArrayBooks::freed, 4u);
    EXPECT_TRUE(Peer::Batches(pool).empty());
  });
}

TEST(SharedTierTrimTest, LeavesThreeQuartersRoundedDown) {
  using Global = CountedPool::Global;
  EXPECT_EQ(Global::BatchesLeftByTrim(0), 0u);
  EXPECT_EQ(Global::BatchesLeftByTrim(1), 0u);
  EXPECT_EQ(Global::BatchesLeftByTrim(2), 1u);
  EXPECT_EQ(Global::BatchesLeftByTrim(3), 2u);
  EXPECT_EQ(Global::BatchesLeftByTrim(4), 3u);
  EXPECT_EQ(Global::BatchesLeftByTrim(5), 3u);
  EXPECT_EQ(Global::BatchesLeftByTrim(8), 6u);
  EXPECT_EQ(Global::BatchesLeftByTrim(100), 75u);
}

TEST(SharedTierTrimTest, MultipliesIn32BitsAndWrapsAround) {
  using Global = CountedPool::Global;
  EXPECT_EQ(Global::BatchesLeftByTrim(0x55555555u), 0x3FFFFFFFu);  // the last without wrapping
  EXPECT_EQ(Global::BatchesLeftByTrim(0x55555556u), 0u);           // 3 * it is 2^32 + 2
  EXPECT_EQ(Global::BatchesLeftByTrim(0x60000000u), 0x08000000u);
  EXPECT_EQ(Global::BatchesLeftByTrim(0xFFFFFFFFu), 0x3FFFFFFFu);
}

TEST_F(SharedTierTest, DryThreadTakesTheNewestBatchWhole) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    const Batches handed_over = HandOver(pool, 3);
    const Arrays own = Take(pool, 2);  // the free list
    const uint64_t made_before = ArrayBooks::made;

    uint8_t* array = pool.AllocRaw();

    EXPECT_EQ(array, handed_over[2].back());
    EXPECT_EQ(Peer::FreeList(pool), Arrays{handed_over[2].front()});
    EXPECT_EQ(Peer::Batches(pool), Batches(handed_over.begin(), handed_over.begin() + 2));
    EXPECT_EQ(ArrayBooks::made, made_before);
    pool.Reuse(array);
    Return(pool, own);
  });
}

TEST_F(SharedTierTest, AnotherThreadTakesTheNewestBatch) {
  CountedPool pool(64, 2, 8);
  Partner partner;
  OnSdkThread([&] {
    const Batches handed_over = HandOver(pool, 3);

    Arrays taken;
    Arrays left_in_free_list;
    partner.Run([&] {
      taken = Take(pool, 1);
      left_in_free_list = Peer::FreeList(pool);
    });

    EXPECT_EQ(taken, Arrays{handed_over[2].back()});
    EXPECT_EQ(left_in_free_list, Arrays{handed_over[2].front()});
    EXPECT_EQ(Peer::Batches(pool), Batches(handed_over.begin(), handed_over.begin() + 2));
    partner.Run([&] { Return(pool, taken); });
    partner.End();
  });
}

// Batches are short only when the capacities differ; a tier that took one alone shows the topping
// up: two pools of one shared tier.
TEST_F(SharedTierTest, ShortBatchIsToppedUpToCapacity) {
  CountedPool small(64, 2, 8);
  CountedPool::TLSPool large(64, 5);
  OnSdkThread([&] {
    const Batches handed_over = HandOver(small, 1);
    const uint64_t made_before = ArrayBooks::made;

    auto* tier = large.GetTLSPool(&CountedPool::GetGlobalObjectPool, &small);
    auto array = tier->Alloc();

    EXPECT_EQ(ArrayBooks::made, made_before + 3);
    EXPECT_TRUE(Peer::Batches(small).empty());
    EXPECT_NE(array.get(), handed_over[0][0]);  // the fresh ones lie behind the taken ones
    Arrays rest;
    for (int i = 0; i < 4; ++i) {
      rest.push_back(tier->Alloc().Release());
    }
    EXPECT_EQ(rest[2], handed_over[0][1]);
    EXPECT_EQ(rest[3], handed_over[0][0]);
    for (uint8_t* one : rest) tier->Reuse(one);
  });
}

// Asks from a thread of its own whether the shared tier's mutex is free while an array is made.
struct MutexProbingAllocator {
  uint8_t* operator()(uint32_t size) const;
};
using ProbingPool = ObjectPool<uint8_t[], CountedResetter, MutexProbingAllocator, CountedDestroyer>;
ProbingPool* probing_pool = nullptr;
bool mutex_was_free = false;

uint8_t* MutexProbingAllocator::operator()(uint32_t size) const {
  auto global = ProbingPool::GetGlobalObjectPool(probing_pool);
  mutex_was_free = ObjectPoolTestPeer::TryLockFromAnotherThread(*global);
  return CountedAllocator()(size);
}

TEST_F(SharedTierTest, FreshArraysAreMadeOutsideTheLock) {
  ProbingPool pool(64, 1, 8);
  probing_pool = &pool;
  mutex_was_free = false;
  OnSdkThread([&] {
    uint8_t* array = pool.AllocRaw();

    EXPECT_TRUE(mutex_was_free);
    pool.Reuse(array);
  });
}

TEST_F(SharedTierTest, ThreadThatOnlyTakesAndThreadThatOnlyReturnsAllocateNothing) {
  CountedPool pool(64, 4, 8);
  Partner taker;
  Partner returner;
  Arrays passing(4);
  const auto round = [&](HeapCounts* taker_counts, HeapCounts* returner_counts) {
    taker.Run([&] {
      for (uint8_t*& array : passing) array = pool.AllocRaw();
      *taker_counts = MemoryFaults::Counts();
    });
    returner.Run([&] {
      for (uint8_t* array : passing) pool.Reuse(array);
      *returner_counts = MemoryFaults::Counts();
    });
  };
  HeapCounts taker_before, returner_before;
  for (int i = 0; i < 20; ++i) round(&taker_before, &returner_before);

  HeapCounts taker_after, returner_after;
  for (int i = 0; i < 100; ++i) round(&taker_after, &returner_after);

  EXPECT_EQ(taker_after.News(), taker_before.News());
  EXPECT_EQ(returner_after.News(), returner_before.News());
  taker.End();
  returner.End();
}

TEST_F(SharedTierTest, ListNodesOfAThreadNeverExceedTwiceTheCapacity) {
  const uint32_t seed = std::random_device{}();
  std::cout << "seed " << seed << std::endl;
  std::mt19937 random(seed);
  constexpr uint32_t kCapacity = 4;
  CountedPool pool(64, kCapacity, 3);
  Partner partners[3];
  Arrays passing;
  size_t most_nodes = 0;

  for (int i = 0; i < 3000; ++i) {
    partners[random() % 3].Run([&] {
      const bool take = random() % 2 == 0;
      for (uint32_t n = random() % 20; n > 0; --n) {
        if (take) {
          passing.push_back(pool.AllocRaw());
        } else if (!passing.empty()) {
          pool.Reuse(passing.back());
          passing.pop_back();
        }
        if (Peer::Tier(pool) == nullptr) continue;
        most_nodes = std::max(most_nodes, Peer::Nodes(pool));
        ASSERT_LE(Peer::Batches(pool).size() + Peer::NodesInSpareBatches(pool).size(), 3u);
      }
    });
  }

  EXPECT_EQ(most_nodes, 2 * kCapacity);
  partners[0].Run([&] { Return(pool, passing); });
  for (Partner& partner : partners) partner.End();
}

TEST_F(SharedTierTest, TakerOfABatchPaysForItWithTheNodesOfItsEmptyFreeList) {
  CountedPool pool(64, 3, 8);
  Partner giver;
  OnSdkThread([&] {
    Arrays own = Take(pool, 3);  // three spare nodes
    Batches handed_over;
    giver.Run([&] { handed_over = HandOver(pool, 2); });
    ASSERT_EQ(Peer::NodesInSpareBatches(pool), std::vector<size_t>{});
    const HeapCounts before = MemoryFaults::Counts();

    uint8_t* const array = pool.AllocRaw();
    const HeapCounts after = MemoryFaults::Counts();

    EXPECT_EQ(array, handed_over[1][2]);
    EXPECT_EQ(Peer::FreeList(pool), (Arrays{handed_over[1][0], handed_over[1][1]}));
    EXPECT_EQ(Peer::NodesInSpareBatches(pool), std::vector<size_t>{3});
    EXPECT_EQ(after.News(), before.News());
    EXPECT_EQ(after.Deletes(), before.Deletes());
    own.push_back(array);
    Return(pool, own);
  });
  giver.End();
}

TEST_F(SharedTierTest, GiverOfABatchGathersTheNextOneInTheNodesThatATakerLeft) {
  CountedPool pool(64, 3, 8);
  Partner taker;
  OnSdkThread([&] {
    const Arrays arrays = Take(pool, 12);
    Return(pool, {arrays.begin(), arrays.begin() + 6});  // one batch is shared
    Arrays taken;
    taker.Run([&] { taken = Take(pool, 3); });  // no node was left: the taker had none
    ASSERT_EQ(Peer::NodesInSpareBatches(pool), std::vector<size_t>{0});
    Return(pool, {arrays.begin() + 6, arrays.begin() + 9});
    taker.Run([&] {
      for (uint8_t* array : Take(pool, 3)) taken.push_back(array);  // three nodes were left
    });
    ASSERT_EQ(Peer::NodesInSpareBatches(pool), std::vector<size_t>{3});
    Return(pool, {arrays.begin() + 9, arrays.begin() + 12});
    EXPECT_EQ(Peer::NodesInSpareBatches(pool), std::vector<size_t>{});
    const HeapCounts before = MemoryFaults::Counts();

    pool.Reuse(taken[0]);
    pool.Reuse(taken[1]);

    EXPECT_EQ(MemoryFaults::Counts().News(), before.News());
    EXPECT_EQ(Peer::PendingBatch(pool), (Arrays{taken[0], taken[1]}));
    EXPECT_EQ(Peer::Batches(pool), (Batches{{arrays[9], arrays[10], arrays[11]}}));
    Return(pool, {taken.begin() + 2, taken.end()});
  });
  taker.End();
}

TEST_F(SharedTierTest, GetGlobalOfNoPoolIsEmpty) {
  EXPECT_EQ(CountedPool::GetGlobalObjectPool(nullptr), nullptr);
}

TEST_F(SharedTierTest, GetGlobalAnswersTheLiveSharedTier) {
  CountedPool pool(64, 2, 8);
  auto first = CountedPool::GetGlobalObjectPool(&pool);

  auto second = CountedPool::GetGlobalObjectPool(&pool);

  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, second);
}

TEST_F(SharedTierTest, PoolItselfDoesNotKeepTheSharedTierAlive) {
  CountedPool pool(64, 2, 8);

  CountedPool::GetGlobalObjectPool(&pool).reset();

  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
}

TEST_F(SharedTierTest, EndOfTheLastThreadFreesTheSharedTierWithItsBatches) {
  CountedPool pool(64, 2, 8);

  OnSdkThread([&] {
    HandOver(pool, 3);
    EXPECT_EQ(ArrayBooks::freed, 0u);
  });

  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
  EXPECT_EQ(ArrayBooks::Live(), 0u);
}

TEST_F(SharedTierTest, SharedTierLivesOnWhileAnotherThreadHoldsIt) {
  CountedPool pool(64, 2, 8);
  Partner partner;
  partner.Run([&] { pool.Reuse(pool.AllocRaw()); });
  Batches handed_over;

  OnSdkThread([&] { handed_over = HandOver(pool, 1); });

  partner.Run([&] { EXPECT_EQ(Peer::Batches(pool), handed_over); });
  partner.End();
  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
}

TEST_F(SharedTierTest, ThreadAfterTheLastGetsAFreshEmptySharedTier) {
  CountedPool pool(64, 2, 3);
  OnSdkThread([&] { HandOver(pool, 2); });

  OnSdkThread([&] {
    pool.Reuse(pool.AllocRaw());
    EXPECT_TRUE(Peer::Batches(pool).empty());
    HandOver(pool, 3);  // the bound is the pool's again
    EXPECT_EQ(Peer::Batches(pool).size(), 3u);
  });
}

TEST_F(SharedTierTest, TiersOfTwoThreadsShareOneSharedTier) {
  CountedPool pool(64, 2, 8);
  Partner partner;
  const void* partners = nullptr;
  partner.Run([&] {
    pool.Reuse(pool.AllocRaw());
    partners = Peer::SharedTierOf(pool);
  });

  OnSdkThread([&] {
    pool.Reuse(pool.AllocRaw());
    EXPECT_EQ(Peer::SharedTierOf(pool), partners);
  });
  partner.End();
}

}  // namespace
QUENOR_NAMESPACE_END
