// The lists of one thread: what it hands out, what it keeps, when it hands a batch over.
#include <gtest/gtest.h>

#include <vector>

#include "heap_probe.h"
#include "pool_test_support.h"

namespace quenor {
namespace {

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

TEST_F(ThreadTierTest, PairInTheSteadyStateAllocatesAndFreesNothing) {
  CountedPool pool(64, 4, 8);
  OnSdkThread([&] {
    pool.Reuse(pool.AllocRaw());
    const HeapCounts before = HeapProbe::Counts();

    for (int i = 0; i < 1000; ++i) pool.Reuse(pool.AllocRaw());

    EXPECT_EQ(HeapProbe::Counts().News(), before.News());
    EXPECT_EQ(HeapProbe::Counts().Deletes(), before.Deletes());
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
    const HeapCounts before = HeapProbe::Counts();

    for (int i = 0; i < 100; ++i) burst();

    EXPECT_EQ(HeapProbe::Counts().News(), before.News());
    EXPECT_EQ(HeapProbe::Counts().Deletes(), before.Deletes());
  });
}

}  // namespace
}  // namespace quenor
