// The lists of one thread: what it hands out, what it keeps, when it hands a batch over.
#include <gtest/gtest.h>

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

class ThreadTierTest : public CountedPoolTest {};

TEST_F(ThreadTierTest, FirstAllocMakesCapacityArraysAndKeepsAllButOne) {
  CountedPool pool(/*object_size=*/64, /*capacity=*/5, /*max_batches=*/8);
  OnSdkThread([&] {
    uint8_t* array = pool.AllocRaw();

    EXPECT_NE(array, nullptr);
    EXPECT_EQ(ArrayBooks::made, 5u);
    EXPECT_EQ(Peer::FreeList(pool).size(), 4u);
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());
    pool.Reuse(array);
  });
}

TEST_F(ThreadTierTest, CapacityOneMakesOneArray) {
  CountedPool pool(64, 1, 8);
  OnSdkThread([&] {
    uint8_t* array = pool.AllocRaw();

    EXPECT_EQ(ArrayBooks::made, 1u);
    EXPECT_TRUE(Peer::FreeList(pool).empty());
    pool.Reuse(array);
  });
}

TEST_F(ThreadTierTest, CapacityZeroIsTakenAsOne) {
  CountedPool pool(64, 0, 8);
  OnSdkThread([&] {
    uint8_t* array = pool.AllocRaw();

    EXPECT_NE(array, nullptr);
    EXPECT_EQ(ArrayBooks::made, 1u);
    pool.Reuse(array);
  });
}

TEST_F(ThreadTierTest, DryAgainWithoutASharedBatchUsesTheNodesOfThoseTaken) {
  CountedPool pool(64, 3, 8);
  OnSdkThread([&] {
    Arrays taken = Take(pool, 3);
    const HeapCounts before = MemoryFaults::Counts();

    uint8_t* fourth = pool.AllocRaw();

    EXPECT_EQ(MemoryFaults::Counts().object_news, before.object_news);
    taken.push_back(fourth);
    Return(pool, taken);
  });
}

TEST_F(ThreadTierTest, DryAgainMakesCapacityArraysAgain) {
  CountedPool pool(64, 3, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 4);

    EXPECT_EQ(ArrayBooks::made, 6u);
    EXPECT_EQ(Peer::FreeList(pool).size(), 2u);
    Return(pool, taken);
  });
}

TEST_F(ThreadTierTest, HandsOutTheLatestReturnFirst) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 4);
    Return(pool, taken);

    const Arrays again = Take(pool, 4);

    EXPECT_EQ(again, Arrays(taken.rbegin(), taken.rend()));
    Return(pool, again);
  });
}

TEST_F(ThreadTierTest, ReturnsFillTheFreeListThenThePendingBatchThenGoInOneBatch) {
  CountedPool pool(64, 3, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 6);

    Return(pool, {taken[0], taken[1], taken[2]});
    EXPECT_EQ(Peer::FreeList(pool), (Arrays{taken[0], taken[1], taken[2]}));
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());

    Return(pool, {taken[3], taken[4]});
    EXPECT_EQ(Peer::FreeList(pool).size(), 3u);
    EXPECT_EQ(Peer::PendingBatch(pool), (Arrays{taken[3], taken[4]}));
    EXPECT_TRUE(Peer::Batches(pool).empty());

    pool.Reuse(taken[5]);
    EXPECT_EQ(Peer::FreeList(pool).size(), 3u);
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());
    EXPECT_EQ(Peer::Batches(pool), (std::vector<Arrays>{{taken[3], taken[4], taken[5]}}));
  });
}

TEST_F(ThreadTierTest, CapacityOneHandsOverEachReturnBeyondTheFirst) {
  CountedPool pool(64, 1, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 3);

    Return(pool, taken);

    EXPECT_EQ(Peer::FreeList(pool), Arrays{taken[0]});
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());
    EXPECT_EQ(Peer::Batches(pool), (std::vector<Arrays>{{taken[1]}, {taken[2]}}));
  });
}

TEST_F(ThreadTierTest, EmptyFreeListServesFromThePendingBatchAndLeavesTheSharedTierAlone) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 6);
    Return(pool, {taken.begin(), taken.begin() + 5});  // 2 free, one batch of 2 shared, 1 pending
    const auto shared_before = Peer::Batches(pool);
    const Arrays from_free_list = Take(pool, 2);
    const uint64_t made_before = ArrayBooks::made;

    uint8_t* from_pending = pool.AllocRaw();

    EXPECT_EQ(from_pending, taken[4]);
    EXPECT_TRUE(Peer::FreeList(pool).empty());
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());
    EXPECT_EQ(Peer::Batches(pool), shared_before);
    EXPECT_EQ(ArrayBooks::made, made_before);
    Return(pool, from_free_list);
    Return(pool, {from_pending, taken[5]});
  });
}

TEST_F(ThreadTierTest, HitsAndReturnsWithinCapacityTakeNoLock) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    Arrays taken = Take(pool, 4);
    auto held_by_the_test = Peer::LockSharedTier(pool);

    Return(pool, taken);    // fills the free list
    taken = Take(pool, 4);  // empties it
    Return(pool, taken);    // a lock taken anywhere above would never be granted
    EXPECT_EQ(Peer::FreeList(pool).size(), 4u);
  });
}

TEST_F(ThreadTierTest, ReturnedArrayKeepsItsBytes) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    uint8_t* array = pool.AllocRaw();
    for (uint8_t i = 0; i < 64; ++i) array[i] = i;
    pool.Reuse(array);

    uint8_t* again = pool.AllocRaw();

    ASSERT_EQ(again, array);
    for (uint8_t i = 0; i < 64; ++i) EXPECT_EQ(again[i], i);
    pool.Reuse(again);
  });
}

TEST_F(ThreadTierTest, EachReturnIsResetOnce) {
  CountedPool pool(64, 1, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 3);
    EXPECT_EQ(ArrayBooks::reset, 0u);

    Return(pool, taken);

    EXPECT_EQ(ArrayBooks::reset, 3u);
  });
}

TEST_F(ThreadTierTest, WithoutSharedTierAFullPendingBatchIsFreed) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 4);
    Peer::DropSharedTier(pool);

    Return(pool, taken);

    EXPECT_EQ(Peer::FreeList(pool), (Arrays{taken[0], taken[1]}));
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());
    EXPECT_EQ(ArrayBooks::FreedArrays(), (Arrays{taken[2], taken[3]}));
  });
}

TEST_F(ThreadTierTest, WithoutSharedTierADryThreadMakesItsArraysItself) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    Arrays taken = Take(pool, 2);
    Peer::DropSharedTier(pool);

    taken.push_back(pool.AllocRaw());

    EXPECT_NE(taken[2], nullptr);
    EXPECT_EQ(ArrayBooks::made, 4u);
    Return(pool, taken);
  });
}

TEST_F(ThreadTierTest, ExhaustionHandsOutTheNullsAndThenFreshArraysAgain) {
  CountedPool pool(64, 3, 8);
  OnSdkThread([&] {
    ArrayBooks::fail_from = 1;  // one array can be made, two cannot

    // The list is filled in order and emptied from its back.
    EXPECT_EQ(pool.AllocRaw(), nullptr);
    EXPECT_EQ(Peer::FreeList(pool).size(), 2u);
    EXPECT_EQ(pool.AllocRaw(), nullptr);
    uint8_t* array = pool.AllocRaw();
    EXPECT_NE(array, nullptr);

    ArrayBooks::fail_from = UINT64_MAX;
    uint8_t* fresh = pool.AllocRaw();
    EXPECT_NE(fresh, nullptr);
    Return(pool, {array, fresh});
  });
}

TEST_F(ThreadTierTest, NullsLeftInAListAreDroppedWithTheThread) {
  CountedPool pool(64, 3, 8);

  OnSdkThread([&] {
    ArrayBooks::fail_from = 0;
    EXPECT_EQ(pool.AllocRaw(), nullptr);
    EXPECT_EQ(Peer::FreeList(pool), (Arrays{nullptr, nullptr}));
  });

  EXPECT_EQ(ArrayBooks::freed, 0u);
}

// A spare node owns null as well.
TEST_F(ThreadTierTest, NullsBesideSpareNodesAreHandedOutInTheirTurn) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 4);  // leaves four spare nodes
    ArrayBooks::fail_from = ArrayBooks::made + 1;
    uint8_t* const null = pool.AllocRaw();  // one array and three nulls were stored
    EXPECT_EQ(null, nullptr);
    EXPECT_EQ(Peer::FreeList(pool).size(), 3u);

    pool.Reuse(taken[0]);
    EXPECT_EQ(pool.AllocRaw(), taken[0]);
    EXPECT_EQ(pool.AllocRaw(), nullptr);
    pool.Reuse(taken[1]);
    pool.Reuse(taken[2]);
    EXPECT_EQ(pool.AllocRaw(), taken[2]);
    EXPECT_EQ(pool.AllocRaw(), taken[1]);
    EXPECT_EQ(pool.AllocRaw(), nullptr);
    uint8_t* const made = pool.AllocRaw();
    EXPECT_NE(made, nullptr);
    EXPECT_TRUE(Peer::FreeList(pool).empty());

    EXPECT_EQ(pool.AllocRaw(), nullptr);  // dry again: four nulls
    EXPECT_EQ(Peer::FreeList(pool), (Arrays{nullptr, nullptr, nullptr}));
    Return(pool, taken);
    Return(pool, {made});
  });
}

TEST_F(ThreadTierTest, NullsCountAsHeldSoThatTheNextReturnsGather) {
  CountedPool pool(64, 3, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 3);
    ArrayBooks::fail_from = 0;
    EXPECT_EQ(pool.AllocRaw(), nullptr);

    Return(pool, taken);

    EXPECT_EQ(Peer::FreeList(pool), (Arrays{nullptr, nullptr, taken[0]}));
    EXPECT_EQ(Peer::PendingBatch(pool), (Arrays{taken[1], taken[2]}));
  });
}

TEST_F(ThreadTierTest, PendingBatchThatBecomesTheFreeListIsFollowedByAWholeOne) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    Arrays taken = Take(pool, 8);
    Return(pool, taken);                 // four free, one batch of four shared
    const Arrays first = Take(pool, 8);  // the batch came back, four nodes went for it
    Return(pool, {first[0], first[1], first[2], first[3], first[4]});
    ASSERT_EQ(Peer::PendingBatch(pool), Arrays{first[4]});
    Take(pool, 4);

    EXPECT_EQ(pool.AllocRaw(), first[4]);
    EXPECT_TRUE(Peer::FreeList(pool).empty());
    EXPECT_TRUE(Peer::PendingBatch(pool).empty());

    Return(pool, first);
    EXPECT_EQ(Peer::FreeList(pool), (Arrays{first[0], first[1], first[2], first[3]}));
    EXPECT_EQ(Peer::Batches(pool), (std::vector<Arrays>{{first[4], first[5], first[6], first[7]}}));
    EXPECT_LE(Peer::Nodes(pool), 8u);
  });
}

// One thread against two stacks, with an allocator that fails now and then.
TEST_F(ThreadTierTest, RandomTakesAndReturnsAmongNullsAgreeWithTwoStacks) {
  const uint32_t seed = std::random_device{}();
  std::cout << "seed " << seed << std::endl;
  std::mt19937 random(seed);
  constexpr uint32_t kCapacity = 5;
  CountedPool pool(64, kCapacity, /*max_batches=*/0);
  OnSdkThread([&] {
    Arrays free_list, pending, in_use;
    uint32_t takes_of_ten = 5;
    for (int step = 0; step < 20000 && !HasFailure(); ++step) {
      SCOPED_TRACE(::testing::Message() << "seed " << seed << " step " << step);
      if (step % 40 == 0) takes_of_ten = 2 + random() % 7;
      if (in_use.empty() || random() % 10 < takes_of_ten) {
        ArrayBooks::fail_from = random() % 3 == 0 ? ArrayBooks::made + random() % 4 : UINT64_MAX;
        uint8_t* const array = pool.AllocRaw();
        if (free_list.empty()) free_list.swap(pending);
        if (free_list.empty()) {  // what was made then is known only from here
          free_list = Peer::FreeList(pool);
          ASSERT_EQ(free_list.size(), kCapacity - 1);
          free_list.push_back(array);
        }
        ASSERT_EQ(array, free_list.back());
        free_list.pop_back();
        if (array != nullptr) in_use.push_back(array);
      } else {
        std::swap(in_use[random() % in_use.size()], in_use.back());
        pool.Reuse(in_use.back());
        (free_list.size() < kCapacity ? free_list : pending).push_back(in_use.back());
        in_use.pop_back();
        if (pending.size() == kCapacity) pending.clear();  // handed over and freed at once
      }
      ASSERT_EQ(Peer::FreeList(pool), free_list);
      ASSERT_EQ(Peer::PendingBatch(pool), pending);
      ASSERT_LE(Peer::Nodes(pool), 2 * kCapacity);
    }
    Return(pool, in_use);
  });
}

TEST_F(ThreadTierTest, PairInTheSteadyStateAllocatesAndFreesNothing) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    pool.Reuse(pool.AllocRaw());
    const HeapCounts before = MemoryFaults::Counts();

    for (int i = 0; i < 1000; ++i) pool.Reuse(pool.AllocRaw());

    EXPECT_EQ(MemoryFaults::Counts().News(), before.News());
    EXPECT_EQ(MemoryFaults::Counts().Deletes(), before.Deletes());
  });
}

// Eleven arrays of a capacity of four: every round moves batches to the shared tier and back.
TEST_F(ThreadTierTest, BurstsBeyondTheThreadTierInTheSteadyStateAllocateAndFreeNothing) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    uint8_t* arrays[11];
    const auto burst = [&] {
      for (uint8_t*& array : arrays) array = pool.AllocRaw();
      for (uint8_t* array : arrays) pool.Reuse(array);
    };
    for (int i = 0; i < 10; ++i) burst();
    const HeapCounts before = MemoryFaults::Counts();

    for (int i = 0; i < 100; ++i) burst();

    EXPECT_EQ(MemoryFaults::Counts().News(), before.News());
    EXPECT_EQ(MemoryFaults::Counts().Deletes(), before.Deletes());
  });
}

}  // namespace
QUENOR_NAMESPACE_END
