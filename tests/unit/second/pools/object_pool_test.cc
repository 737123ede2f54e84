// The two tiers of a pool of byte arrays, step by step. Written without sight of the
// implementation, from the promises alone.
#include "quenor_base/object_pool/object_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "tests/unit/second/pools/pool_peer.h"
#include "tests/unit/second/pools/probe.h"
#include "tests/unit/second/pools/worker.h"

namespace quenor::test {
namespace {

using Pool = ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                        objpool::DefaultAllocator<uint8_t[]>, objpool::DefaultDestroyer<uint8_t[]>>;
using Peer = ObjectPoolTestPeer;
using Addresses = Peer::Addresses;

constexpr uint32_t kLength = 72;

// Takes `count` fresh arrays that belong to no list of `pool`.
std::vector<uint8_t*> Fresh(size_t count) {
  std::vector<uint8_t*> arrays;
  for (size_t i = 0; i < count; ++i) arrays.push_back(new uint8_t[kLength]);
  return arrays;
}

void ReuseAll(Pool& pool, const std::vector<uint8_t*>& arrays) {
  for (uint8_t* array : arrays) pool.Reuse(array);
}

Addresses Untyped(const std::vector<uint8_t*>& arrays, size_t from, size_t to) {
  return {arrays.begin() + static_cast<std::ptrdiff_t>(from),
          arrays.begin() + static_cast<std::ptrdiff_t>(to)};
}

// Puts `count` known batches into the shared tier, oldest first, from an empty thread tier, and
// leaves this thread's free list full. Answers all arrays of the batches in order.
std::vector<uint8_t*> HandOverBatches(Pool& pool, size_t capacity, size_t count) {
  ReuseAll(pool, Fresh(capacity));
  std::vector<uint8_t*> arrays = Fresh(capacity * count);
  ReuseAll(pool, arrays);
  return arrays;
}

// --- Taking -----------------------------------------------------------------------------------

TEST(SecondObjectPoolTest, FirstAllocOfAThreadMakesCapacityArraysAndKeepsAllButOne) {
  Pool pool(kLength, 5, 8);
  Probe probe;

  uint8_t* const array = pool.AllocRaw();

  const Addresses made = probe.Whats(Act::kNewNothrowArray);
  EXPECT_EQ(probe.Sizes(Act::kNewNothrowArray), std::vector<size_t>(5, kLength));
  EXPECT_EQ(probe.Count(Act::kNewArray), 0u);
  ASSERT_EQ(made.size(), 5u);
  EXPECT_EQ(array, made.back());
  EXPECT_EQ(Peer::FreeList(pool), Addresses(made.begin(), made.end() - 1));
  EXPECT_TRUE(Peer::Pending(pool).empty());
  EXPECT_TRUE(Peer::Batches(pool).empty());
  pool.Reuse(array);
}

TEST(SecondObjectPoolTest, FreshArraysAreNotCleared) {
  Pool pool(kLength, 2, 8);
  Probe probe;

  volatile uint8_t* const array = pool.AllocRaw();

  for (uint32_t i = 0; i < kLength; ++i) ASSERT_EQ(array[i], Probe::kFill) << i;
  pool.Reuse(const_cast<uint8_t*>(array));
}

TEST(SecondObjectPoolTest, ReturnedArraysKeepTheirBytesAndComeBackLastInFirstOut) {
  Pool pool(kLength, 4, 8);
  uint8_t* const first = pool.AllocRaw();
  uint8_t* const second = pool.AllocRaw();
  std::fill_n(first, kLength, uint8_t{1});
  std::fill_n(second, kLength, uint8_t{2});
  pool.Reuse(first);
  pool.Reuse(second);

  uint8_t* const again_second = pool.AllocRaw();
  uint8_t* const again_first = pool.AllocRaw();

  EXPECT_EQ(again_second, second);
  EXPECT_EQ(again_first, first);
  EXPECT_TRUE(std::all_of(first, first + kLength, [](uint8_t byte) { return byte == 1; }));
  EXPECT_TRUE(std::all_of(second, second + kLength, [](uint8_t byte) { return byte == 2; }));
  pool.Reuse(again_first);
  pool.Reuse(again_second);
}

TEST(SecondObjectPoolTest, HitsAndReturnsWithinCapacityTakeNoLockAndNoArrayFromTheHeap) {
  Pool pool(kLength, 4, 8);
  pool.Reuse(pool.AllocRaw());
  Probe probe;

  for (int round = 0; round < 50; ++round) {
    uint8_t* const one = pool.AllocRaw();
    uint8_t* const two = pool.AllocRaw();
    pool.Reuse(one);
    pool.Reuse(two);
  }

  EXPECT_EQ(probe.Count(Act::kLock), 0u);
  EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u);
  EXPECT_EQ(probe.Count(Act::kNewArray), 0u);
  EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
}

TEST(SecondObjectPoolTest, AnEmptyFreeListIsServedFromThePendingBatchWithoutTheSharedTier) {
  Pool pool(kLength, 4, 8);
  std::vector<uint8_t*> arrays = Fresh(7);
  ReuseAll(pool, arrays);
  for (int i = 3; i >= 0; --i) ASSERT_EQ(pool.AllocRaw(), arrays[static_cast<size_t>(i)]);
  ASSERT_TRUE(Peer::FreeList(pool).empty());
  ASSERT_EQ(Peer::Pending(pool), Untyped(arrays, 4, 7));
  const Addresses nodes = Peer::PendingNodes(pool);
  Probe probe;

  uint8_t* const next = pool.AllocRaw();

  EXPECT_EQ(probe.All().size(), 0u) << "relinked: no lock, nothing allocated, nothing freed";
  EXPECT_EQ(next, arrays[6]);
  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 4, 6));
  EXPECT_EQ(Peer::FreeNodes(pool), Addresses(nodes.begin(), nodes.end() - 1));
  EXPECT_TRUE(Peer::Pending(pool).empty());
  pool.Reuse(next);
  for (size_t i = 0; i < 4; ++i) pool.Reuse(arrays[i]);
}

TEST(SecondObjectPoolTest, ThePendingBatchIsLeftAloneWhileTheFreeListHasArrays) {
  Pool pool(kLength, 3, 8);
  std::vector<uint8_t*> arrays = Fresh(5);
  ReuseAll(pool, arrays);

  uint8_t* const taken = pool.AllocRaw();

  EXPECT_EQ(taken, arrays[2]) << "the last of the free list, not the last returned";
  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 2));
  EXPECT_EQ(Peer::Pending(pool), Untyped(arrays, 3, 5));
  pool.Reuse(taken);
}

TEST(SecondObjectPoolTest, AFreeListWithRoomTakesTheReturnEvenWhileABatchGathers) {
  Pool pool(kLength, 3, 8);
  std::vector<uint8_t*> arrays = Fresh(5);
  ReuseAll(pool, arrays);
  uint8_t* const taken = pool.AllocRaw();

  pool.Reuse(taken);

  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 3));
  EXPECT_EQ(Peer::Pending(pool), Untyped(arrays, 3, 5));
}

TEST(SecondObjectPoolTest, ADryThreadTakesTheNewestBatchWholeUnderOneLock) {
  Pool pool(kLength, 3, 8);
  Worker giver;
  std::vector<uint8_t*> arrays;
  giver.Do([&] { arrays = HandOverBatches(pool, 3, 2); });
  const Addresses nodes = Peer::NewestBatchNodes(pool);

  uint8_t* taken = nullptr;
  OnThread(Thread::kSdk, [&] {
    // The tier first, so that its making is not counted.
    pool.Reuse(nullptr);
    Probe probe;

    taken = pool.AllocRaw();

    EXPECT_EQ(probe.Count(Act::kLock), 1u);
    EXPECT_EQ(probe.Count(Act::kUnlock), 1u);
    EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u);
    EXPECT_EQ(taken, arrays[5]) << "the newest batch, from its back";
    EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 3, 5));
    EXPECT_EQ(Peer::FreeNodes(pool), Addresses(nodes.begin(), nodes.end() - 1));
    EXPECT_EQ(Peer::Batches(pool), std::vector<Addresses>{Untyped(arrays, 0, 3)});
    pool.Reuse(taken);
  });
  giver.End();
}

TEST(SecondObjectPoolTest, BatchesAreTakenNewestFirst) {
  Pool pool(kLength, 2, 8);
  Worker giver;
  std::vector<uint8_t*> arrays;
  giver.Do([&] { arrays = HandOverBatches(pool, 2, 3); });

  OnThread(Thread::kSdk, [&] {
    std::vector<uint8_t*> taken;
    for (int i = 0; i < 6; ++i) taken.push_back(pool.AllocRaw());

    EXPECT_EQ(taken, std::vector<uint8_t*>(arrays.rbegin(), arrays.rend()));
    EXPECT_TRUE(Peer::Batches(pool).empty());
    for (uint8_t* array : taken) delete[] array;
  });
  giver.End();
}

TEST(SecondObjectPoolTest, AShortBatchIsToppedUpAndTheFreshestArrayGoesFirst) {
  Pool pool(kLength, 4, 8);
  Worker giver;
  std::vector<uint8_t*> arrays;
  giver.Do([&] { arrays = HandOverBatches(pool, 4, 1); });
  Peer::BatchList(*Peer::Shared(pool)).back().pop_back();
  Peer::BatchList(*Peer::Shared(pool)).back().pop_back();

  OnThread(Thread::kSdk, [&] {
    Probe probe;
    uint8_t* const taken = pool.AllocRaw();

    const Addresses made = probe.Whats(Act::kNewNothrowArray);
    EXPECT_EQ(probe.Sizes(Act::kNewNothrowArray), std::vector<size_t>(2, kLength));
    ASSERT_EQ(made.size(), 2u);
    EXPECT_EQ(taken, made[1]);
    EXPECT_EQ(Peer::FreeList(pool), (Addresses{arrays[0], arrays[1], made[0]}));
    pool.Reuse(taken);
  });
  giver.End();
}

TEST(SecondObjectPoolTest, FreshArraysAreMadeOutsideTheLock) {
  Pool pool(kLength, 3, 8);
  pool.Reuse(nullptr);
  Probe probe;

  uint8_t* const array = pool.AllocRaw();

  int held = 0;
  size_t made = 0;
  for (const Seen& seen : probe.All()) {
    if (seen.act == Act::kLock) ++held;
    if (seen.act == Act::kUnlock) --held;
    if (seen.act == Act::kNewNothrowArray) {
      ++made;
      EXPECT_EQ(held, 0);
    }
  }
  EXPECT_EQ(made, 3u);
  pool.Reuse(array);
}

TEST(SecondObjectPoolTest, ADryThreadLooksIntoTheSharedTierUnderItsOwnMutex) {
  Pool pool(kLength, 3, 8);
  pool.Reuse(nullptr);
  const void* const mutex = Peer::Mutex(*Peer::Shared(pool));
  Probe probe;

  uint8_t* const array = pool.AllocRaw();

  EXPECT_EQ(probe.Whats(Act::kLock), Addresses{mutex});
  pool.Reuse(array);
}

TEST(SecondObjectPoolTest, CapacityOneMakesOneArrayAtATime) {
  Pool pool(kLength, 1, 4);
  Probe probe;

  uint8_t* const one = pool.AllocRaw();
  uint8_t* const two = pool.AllocRaw();

  EXPECT_EQ(probe.Whats(Act::kNewNothrowArray), (Addresses{one, two}));
  EXPECT_TRUE(Peer::FreeList(pool).empty());
  pool.Reuse(one);
  pool.Reuse(two);
  EXPECT_EQ(Peer::FreeList(pool), Addresses{one});
  EXPECT_TRUE(Peer::Pending(pool).empty());
  EXPECT_EQ(Peer::Batches(pool), std::vector<Addresses>{Addresses{two}});
}

// --- Exhausted heap ---------------------------------------------------------------------------

TEST(SecondObjectPoolTest, NullsOfAnExhaustedHeapAreStoredAndHandedOutLikeArrays) {
  Pool pool(kLength, 3, 8);
  Probe probe;
  probe.FailNothrowArrays(1, 3);
  EXPECT_EQ(pool.AllocRaw(), nullptr);
  EXPECT_EQ(Peer::FreeList(pool), Addresses(2, nullptr));
  probe.Clear();

  EXPECT_EQ(pool.AllocRaw(), nullptr);
  EXPECT_EQ(pool.AllocRaw(), nullptr);
  EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u) << "the stored nulls come first";
  uint8_t* const array = pool.AllocRaw();

  EXPECT_NE(array, nullptr) << "the heap has recovered";
  EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 3u);
  pool.Reuse(array);
}

TEST(SecondObjectPoolTest, ANullAmongGoodArraysKeepsItsPlace) {
  Pool pool(kLength, 3, 8);
  Probe probe;
  probe.FailNothrowArrays(2, 2);

  uint8_t* const first = pool.AllocRaw();
  uint8_t* const second = pool.AllocRaw();
  uint8_t* const third = pool.AllocRaw();

  const Addresses made = probe.Whats(Act::kNewNothrowArray);
  EXPECT_EQ((Addresses{third, second, first}), made);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(first, nullptr);
  EXPECT_NE(third, nullptr);
  pool.Reuse(first);
  pool.Reuse(third);
}

TEST(SecondObjectPoolTest, StoredNullsAreFreedWithoutHarmWhenTheThreadEnds) {
  Pool pool(kLength, 4, 8);
  OnThread(Thread::kSdk, [&] {
    Probe probe;
    probe.FailNothrowArrays(1, 4);
    EXPECT_EQ(pool.AllocRaw(), nullptr);
  });

  EXPECT_EQ(Peer::Shared(pool), nullptr);
}

// --- Returning --------------------------------------------------------------------------------

TEST(SecondObjectPoolTest, ReturnsFillTheFreeListThenTheBatchWhichMovesWholeWhenFull) {
  Pool pool(kLength, 3, 8);
  const std::vector<uint8_t*> arrays = Fresh(6);

  for (size_t i = 0; i < 3; ++i) {
    pool.Reuse(arrays[i]);
    EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, i + 1));
    EXPECT_TRUE(Peer::Pending(pool).empty());
  }
  for (size_t i = 3; i < 5; ++i) {
    pool.Reuse(arrays[i]);
    EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 3));
    EXPECT_EQ(Peer::Pending(pool), Untyped(arrays, 3, i + 1));
    EXPECT_TRUE(Peer::Batches(pool).empty());
  }
  const Addresses nodes = Peer::PendingNodes(pool);
  Probe probe;
  pool.Reuse(arrays[5]);

  EXPECT_EQ(probe.Count(Act::kLock), 1u);
  EXPECT_EQ(probe.Count(Act::kUnlock), 1u);
  EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 3));
  EXPECT_TRUE(Peer::Pending(pool).empty());
  EXPECT_EQ(Peer::Batches(pool), std::vector<Addresses>{Untyped(arrays, 3, 6)});
  const Addresses moved = Peer::NewestBatchNodes(pool);
  ASSERT_EQ(moved.size(), 3u);
  EXPECT_EQ(Addresses(moved.begin(), moved.begin() + 2), nodes) << "relinked, not copied";
}

TEST(SecondObjectPoolTest, OnlyTheReturnThatCompletesABatchTakesALock) {
  Pool pool(kLength, 4, 8);
  pool.Reuse(nullptr);
  const void* const mutex = Peer::Mutex(*Peer::Shared(pool));
  const std::vector<uint8_t*> arrays = Fresh(8);
  Probe probe;

  for (size_t i = 0; i < 7; ++i) pool.Reuse(arrays[i]);
  EXPECT_EQ(probe.Count(Act::kLock), 0u);
  pool.Reuse(arrays[7]);

  EXPECT_EQ(probe.Whats(Act::kLock), Addresses{mutex});
}

TEST(SecondObjectPoolTest, BatchesAreAppendedAtTheBack) {
  Pool pool(kLength, 2, 8);

  const std::vector<uint8_t*> arrays = HandOverBatches(pool, 2, 3);

  EXPECT_EQ(Peer::Batches(pool),
            (std::vector<Addresses>{Untyped(arrays, 0, 2), Untyped(arrays, 2, 4),
                                    Untyped(arrays, 4, 6)}));
}

TEST(SecondObjectPoolTest, EachReturnIsKeptWithTheLengthOfThePool) {
  Pool pool(kLength, 2, 8);
  ReuseAll(pool, Fresh(3));

  EXPECT_EQ(Peer::KeptLengths(pool), std::vector<uint32_t>(3, kLength));
}

TEST(SecondObjectPoolTest, AStrayArrayOfAnotherLengthIsStoredAndHandedOutAlike) {
  Pool pool(kLength, 2, 8);
  auto* const stray = new uint8_t[3];

  pool.Reuse(stray);

  EXPECT_EQ(Peer::KeptLengths(pool), std::vector<uint32_t>{kLength});
  EXPECT_EQ(pool.AllocRaw(), stray);
  delete[] stray;
}

TEST(SecondObjectPoolTest, ReuseOfNullStoresNothingAndFreesNothing) {
  Pool pool(kLength, 2, 8);
  std::vector<uint8_t*> arrays = Fresh(3);
  ReuseAll(pool, arrays);
  Probe probe;

  pool.Reuse(nullptr);

  EXPECT_TRUE(probe.All().empty());
  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 2));
  EXPECT_EQ(Peer::Pending(pool), Untyped(arrays, 2, 3));
}

TEST(SecondObjectPoolTest, AFirstReturnMakesTheTierAndNoArray) {
  Pool pool(kLength, 4, 8);
  ASSERT_EQ(Peer::Tier(pool), nullptr);
  const std::vector<uint8_t*> arrays = Fresh(1);
  Probe probe;

  pool.Reuse(arrays[0]);

  EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u);
  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 1));
}

// --- Trimming ---------------------------------------------------------------------------------

struct TrimCase {
  uint32_t max_batches;
  size_t left;
};

class SecondObjectPoolTrimTest : public ::testing::TestWithParam<TrimCase> {};

TEST_P(SecondObjectPoolTrimTest, OneBatchTooManyTrimsTheOldestToThreeQuarters) {
  constexpr size_t kCapacity = 2;
  const TrimCase param = GetParam();
  Pool pool(kLength, kCapacity, param.max_batches);
  std::vector<uint8_t*> arrays = HandOverBatches(pool, kCapacity, param.max_batches);
  ASSERT_EQ(Peer::Batches(pool).size(), param.max_batches) << "full is not too many";
  const std::vector<uint8_t*> last = Fresh(kCapacity);
  arrays.insert(arrays.end(), last.begin(), last.end());
  const void* const mutex = Peer::Mutex(*Peer::Shared(pool));
  Probe probe;

  ReuseAll(pool, last);

  std::vector<Addresses> left;
  for (size_t i = param.max_batches + 1 - param.left; i <= param.max_batches; ++i) {
    left.push_back(Untyped(arrays, i * kCapacity, (i + 1) * kCapacity));
  }
  EXPECT_EQ(Peer::Batches(pool), left);
  const size_t freed = (param.max_batches + 1 - param.left) * kCapacity;
  EXPECT_EQ(probe.Whats(Act::kDeleteArray), Untyped(arrays, 0, freed)) << "the oldest first";
  bool held = false;
  for (const Seen& seen : probe.All()) {
    if (seen.what == mutex) held = seen.act == Act::kLock;
    if (seen.act == Act::kDeleteArray) {
      EXPECT_TRUE(held) << "freed under the lock";
    }
  }
  EXPECT_FALSE(held);
  EXPECT_TRUE(Peer::Pending(pool).empty());
}

INSTANTIATE_TEST_SUITE_P(Bounds, SecondObjectPoolTrimTest,
                         ::testing::Values(TrimCase{0, 0}, TrimCase{1, 0}, TrimCase{2, 1},
                                           TrimCase{3, 2}, TrimCase{4, 3}, TrimCase{5, 3},
                                           TrimCase{6, 4}, TrimCase{7, 5}, TrimCase{8, 6},
                                           TrimCase{9, 6}, TrimCase{16, 12}),
                         [](const auto& trim) { return std::to_string(trim.param.max_batches); });

TEST(SecondObjectPoolTrimEdgesTest, AfterATrimTheSharedTierFillsUpToItsBoundAgain) {
  Pool pool(kLength, 1, 4);
  HandOverBatches(pool, 1, 5);
  ASSERT_EQ(Peer::Batches(pool).size(), 3u);

  ReuseAll(pool, Fresh(1));
  EXPECT_EQ(Peer::Batches(pool).size(), 4u);
  ReuseAll(pool, Fresh(1));

  EXPECT_EQ(Peer::Batches(pool).size(), 3u);
}

TEST(SecondObjectPoolTrimEdgesTest, AZeroBoundFreesEveryBatchThatIsHandedOver) {
  Pool pool(kLength, 2, 0);
  ReuseAll(pool, Fresh(2));

  for (int batch = 0; batch < 3; ++batch) {
    const std::vector<uint8_t*> arrays = Fresh(2);
    Probe probe;
    ReuseAll(pool, arrays);

    EXPECT_EQ(probe.Whats(Act::kDeleteArray), Untyped(arrays, 0, 2));
    EXPECT_TRUE(Peer::Batches(pool).empty());
  }
}

TEST(SecondObjectPoolTrimEdgesTest, TheRestOfATrimIsReckonedInThirtyTwoBits) {
  EXPECT_EQ(Pool::Global::BatchesLeftByTrim(0x55555555u), 0xFFFFFFFFu / 4);
  EXPECT_EQ(Pool::Global::BatchesLeftByTrim(0x55555556u), 0u) << "3 times that is 2^32 + 2";
  EXPECT_EQ(Pool::Global::BatchesLeftByTrim(0xFFFFFFFFu), 0xFFFFFFFDu / 4);
}

// --- Making the tiers -------------------------------------------------------------------------

TEST(SecondObjectPoolTest, NothingIsMadeBeforeTheFirstUse) {
  Pool pool(kLength, 4, 8);

  EXPECT_EQ(Peer::Tier(pool), nullptr);
  EXPECT_EQ(Peer::Shared(pool), nullptr);
}

TEST(SecondObjectPoolTest, ATierCopiesLengthAndCapacityAndSharesTheSharedTier) {
  Pool pool(kLength, 5, 7);
  pool.Reuse(pool.AllocRaw());

  auto* const tier = Peer::Tier(pool);

  ASSERT_NE(tier, nullptr);
  EXPECT_EQ(Peer::ObjectSize(*tier), kLength);
  EXPECT_EQ(Peer::Capacity(*tier), 5u);
  EXPECT_EQ(Peer::GlobalOf(*tier), Peer::Shared(pool));
  EXPECT_EQ(Peer::MaxBatches(*Peer::Shared(pool)), 7u);
}

TEST(SecondObjectPoolTest, ATierStaysTheThreadsOwn) {
  Pool pool(kLength, 2, 8);
  pool.Reuse(pool.AllocRaw());
  const void* const tier = Peer::Tier(pool);

  for (int i = 0; i < 20; ++i) pool.Reuse(pool.AllocRaw());
  const void* other = nullptr;
  OnThread(Thread::kSdk, [&] {
    pool.Reuse(pool.AllocRaw());
    other = Peer::Tier(pool);
    EXPECT_EQ(Peer::FreeList(pool).size(), 2u);
  });

  EXPECT_EQ(Peer::Tier(pool), tier);
  EXPECT_NE(other, tier);
  EXPECT_EQ(Peer::FreeList(pool).size(), 2u);
}

TEST(SecondObjectPoolTest, GetGlobalObjectPoolOfNoPoolIsEmpty) {
  EXPECT_EQ(Pool::GetGlobalObjectPool(nullptr), nullptr);
}

TEST(SecondObjectPoolTest, GetGlobalObjectPoolMakesOneAndOnlyObservesIt) {
  Pool pool(kLength, 2, 9);

  auto made = Pool::GetGlobalObjectPool(&pool);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made.use_count(), 1) << "the pool's own reference is weak";
  EXPECT_EQ(Peer::MaxBatches(*made), 9u);
  EXPECT_TRUE(Peer::BatchList(*made).empty());
  EXPECT_EQ(Pool::GetGlobalObjectPool(&pool), made);
  made.reset();

  EXPECT_EQ(Peer::Shared(pool), nullptr);
}

TEST(SecondObjectPoolTest, GetGlobalObjectPoolHoldsThePoolsLockAndNoOther) {
  Pool pool(kLength, 2, 9);
  Probe probe;

  const auto made = Pool::GetGlobalObjectPool(&pool);
  EXPECT_EQ(probe.Whats(Act::kLock), Addresses{Peer::PoolLock(pool)});
  EXPECT_EQ(probe.Whats(Act::kUnlock), Addresses{Peer::PoolLock(pool)});
  probe.Clear();
  const auto again = Pool::GetGlobalObjectPool(&pool);

  EXPECT_EQ(probe.Whats(Act::kLock), Addresses{Peer::PoolLock(pool)});
  EXPECT_EQ(probe.Whats(Act::kUnlock), Addresses{Peer::PoolLock(pool)});
}

TEST(SecondObjectPoolTest, ThePoolsLockIsTakenOnlyToMakeATier) {
  Pool pool(kLength, 2, 2);
  pool.Reuse(pool.AllocRaw());
  const void* const pool_lock = Peer::PoolLock(pool);
  Probe probe;

  ReuseAll(pool, Fresh(20));
  for (int i = 0; i < 20; ++i) delete[] pool.AllocRaw();

  const Addresses locks = probe.Whats(Act::kLock);
  EXPECT_FALSE(locks.empty());
  EXPECT_EQ(std::count(locks.begin(), locks.end(), pool_lock), 0);
}

TEST(SecondObjectPoolTest, NoLockIsHeldWhileAnotherIsTaken) {
  Pool pool(kLength, 2, 2);
  Probe probe;

  uint8_t* const first = pool.AllocRaw();
  ReuseAll(pool, Fresh(20));
  for (int i = 0; i < 20; ++i) delete[] pool.AllocRaw();
  pool.Reuse(first);

  int held = 0;
  int locks = 0;
  for (const Seen& seen : probe.All()) {
    if (seen.act == Act::kLock) {
      EXPECT_EQ(held, 0);
      ++held;
      ++locks;
    }
    if (seen.act == Act::kUnlock) --held;
  }
  EXPECT_EQ(held, 0);
  EXPECT_GT(locks, 5);
}

// --- TLSObjectPool ----------------------------------------------------------------------------

struct Source {
  std::shared_ptr<Pool::Global> answer;
  int calls = 0;
};

std::shared_ptr<Pool::Global> Answer(void* arg) {
  auto* const source = static_cast<Source*>(arg);
  ++source->calls;
  return source->answer;
}

TEST(SecondTlsObjectPoolTest, WithoutASharedTierThereIsNoTierAndTheNextCallAsksAgain) {
  Pool pool(kLength, 3, 4);
  Pool::TLSPool tls_pool(kLength, 3);
  Source source;

  EXPECT_EQ(tls_pool.GetTLSPool(&Answer, &source), nullptr);
  EXPECT_TRUE(Peer::SlotIsEmpty(tls_pool));
  EXPECT_EQ(tls_pool.GetTLSPool(&Answer, &source), nullptr);
  EXPECT_EQ(source.calls, 2);
  source.answer = Pool::GetGlobalObjectPool(&pool);
  auto* const tier = tls_pool.GetTLSPool(&Answer, &source);

  ASSERT_NE(tier, nullptr);
  EXPECT_EQ(source.calls, 3);
  EXPECT_FALSE(Peer::SlotIsEmpty(tls_pool));
}

TEST(SecondTlsObjectPoolTest, ATierThatExistsIsAnsweredWithoutAsking) {
  Pool pool(kLength, 3, 4);
  Pool::TLSPool tls_pool(kLength, 3);
  Source source{Pool::GetGlobalObjectPool(&pool)};
  auto* const tier = tls_pool.GetTLSPool(&Answer, &source);

  EXPECT_EQ(tls_pool.GetTLSPool(&Answer, &source), tier);
  EXPECT_EQ(tls_pool.GetTLSPool(&Answer, nullptr), tier);
  EXPECT_EQ(source.calls, 1);
}

TEST(SecondTlsObjectPoolTest, ATierHoldsTheSharedTierStrongly) {
  Pool pool(kLength, 3, 4);
  Pool::TLSPool tls_pool(kLength, 3);
  Source source{Pool::GetGlobalObjectPool(&pool)};
  ASSERT_NE(tls_pool.GetTLSPool(&Answer, &source), nullptr);

  source.answer.reset();

  EXPECT_NE(Peer::Shared(pool), nullptr);
}

TEST(SecondTlsObjectPoolTest, AllocGivesOneArrayWithItsLength) {
  Pool pool(kLength, 3, 4);
  Pool::TLSPool tls_pool(kLength, 3);
  Source source{Pool::GetGlobalObjectPool(&pool)};
  auto* const tier = tls_pool.GetTLSPool(&Answer, &source);
  ASSERT_NE(tier, nullptr);
  Probe probe;

  const auto array = tier->Alloc();

  EXPECT_NE(array.get(), nullptr);
  EXPECT_EQ(array.size(), kLength);
  EXPECT_EQ(probe.Sizes(Act::kNewNothrowArray), std::vector<size_t>(3, kLength));
}

TEST(SecondTlsObjectPoolTest, ATierWithoutSharedTierMakesArraysWithoutALock) {
  Pool pool(kLength, 3, 4);
  pool.Reuse(nullptr);
  Peer::GlobalOf(*Peer::Tier(pool)).reset();
  Probe probe;

  uint8_t* const array = pool.AllocRaw();

  EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 3u);
  EXPECT_EQ(probe.Count(Act::kLock), 0u);
  EXPECT_EQ(Peer::FreeList(pool).size(), 2u);
  pool.Reuse(array);
}

TEST(SecondTlsObjectPoolTest, ATierWithoutSharedTierFreesAFullBatch) {
  Pool pool(kLength, 3, 4);
  pool.Reuse(nullptr);
  Peer::GlobalOf(*Peer::Tier(pool)).reset();
  const std::vector<uint8_t*> arrays = Fresh(6);
  Probe probe;

  for (size_t i = 0; i < 5; ++i) pool.Reuse(arrays[i]);
  EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
  pool.Reuse(arrays[5]);

  EXPECT_EQ(probe.Whats(Act::kDeleteArray), Untyped(arrays, 3, 6));
  EXPECT_EQ(probe.Count(Act::kLock), 0u);
  EXPECT_TRUE(Peer::Pending(pool).empty());
  EXPECT_EQ(Peer::FreeList(pool), Untyped(arrays, 0, 3));
}

}  // namespace
}  // namespace quenor::test
