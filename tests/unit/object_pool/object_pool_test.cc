// The pool's own door: null, and work without a tier.
#include <gtest/gtest.h>
#include <pthread.h>

#include <vector>

#include "pool_test_support.h"
#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Arrays = std::vector<uint8_t*>;

class ObjectPoolTest : public CountedPoolTest {};

TEST_F(ObjectPoolTest, ReuseOfNullChangesNoList) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    const Arrays taken = Take(pool, 3);
    Return(pool, taken);
    const Arrays free_before = Peer::FreeList(pool);
    const Arrays pending_before = Peer::PendingBatch(pool);

    pool.Reuse(nullptr);

    EXPECT_EQ(Peer::FreeList(pool), free_before);
    EXPECT_EQ(Peer::PendingBatch(pool), pending_before);
    EXPECT_EQ(ArrayBooks::reset, 3u);
    EXPECT_EQ(ArrayBooks::freed, 0u);
  });
}

TEST_F(ObjectPoolTest, FirstReuseOnAThreadMakesItsTier) {
  CountedPool pool(64, 2, 8);
  uint8_t* array = nullptr;
  OnSdkThread([&] { array = pool.AllocRaw(); });

  OnForeignThread([&] {
    EXPECT_EQ(Peer::Tier(pool), nullptr);
    pool.Reuse(array);
    ASSERT_NE(Peer::Tier(pool), nullptr);
    EXPECT_EQ(Peer::FreeList(pool), Arrays{array});
  });
}

TEST_F(ObjectPoolTest, TierIsTheSameForTheWholeLifeOfAThread) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    pool.Reuse(pool.AllocRaw());
    const auto* first = Peer::Tier(pool);

    pool.Reuse(pool.AllocRaw());

    EXPECT_EQ(Peer::Tier(pool), first);
  });
}

TEST_F(ObjectPoolTest, DestructionFreesTheTierOfTheCallingThread) {
  auto pool = std::make_unique<CountedPool>(64, 4, 8);
  pool->Reuse(pool->AllocRaw());
  EXPECT_EQ(ArrayBooks::Live(), 4u);

  pool.reset();

  EXPECT_EQ(ArrayBooks::Live(), 0u);
}

TEST_F(ObjectPoolTest, EachOfManyPoolsKeepsATierOfItsOwn) {
  std::vector<std::unique_ptr<CountedPool>> pools;
  for (int i = 0; i < 40; ++i) pools.push_back(std::make_unique<CountedPool>(64, 1, 8));

  OnSdkThread([&] {
    Arrays arrays;
    for (auto& pool : pools) arrays.push_back(pool->AllocRaw());
    for (size_t i = 0; i < pools.size(); ++i) pools[i]->Reuse(arrays[i]);

    for (size_t i = 0; i < pools.size(); ++i) {
      EXPECT_EQ(Peer::FreeList(*pools[i]), Arrays{arrays[i]}) << i;
      EXPECT_EQ(pools[i]->AllocRaw(), arrays[i]) << i;
      pools[i]->Reuse(arrays[i]);
    }
    EXPECT_EQ(ArrayBooks::made, pools.size());
  });
}

TEST_F(ObjectPoolTest, PoolAfterADestroyedOneStartsWithoutTier) {
  for (int i = 0; i < 40; ++i) {
    ArrayBooks::made = ArrayBooks::freed = 0;
    CountedPool pool(64, 2, 8);
    EXPECT_EQ(Peer::Tier(pool), nullptr);

    pool.Reuse(pool.AllocRaw());

    EXPECT_EQ(ArrayBooks::made, 2u);
    EXPECT_EQ(Peer::FreeList(pool).size(), 2u);
  }
}

std::shared_ptr<CountedPool::Global> AnswerNone(void* asked) {
  ++*static_cast<int*>(asked);
  return nullptr;
}

TEST_F(ObjectPoolTest, NoSharedTierMeansNoTierAndTheNextCallAsksAgain) {
  CountedPool pool(64, 2, 8);
  OnSdkThread([&] {
    int asked = 0;

    EXPECT_EQ(Peer::TlsPool(pool).GetTLSPool(&AnswerNone, &asked), nullptr);
    EXPECT_EQ(Peer::TlsPool(pool).GetTLSPool(&AnswerNone, &asked), nullptr);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(Peer::Tier(pool), nullptr);

    EXPECT_NE(Peer::TlsPool(pool).GetTLSPool(&CountedPool::GetGlobalObjectPool, &pool), nullptr);
    EXPECT_NE(Peer::TlsPool(pool).GetTLSPool(&AnswerNone, &asked), nullptr);  // kept by now
    EXPECT_EQ(asked, 2);
  });
}

// A process that has used up its thread-local keys.
class ObjectPoolWithoutSlotTest : public ObjectPoolTest {
 protected:
  ObjectPoolWithoutSlotTest() {
    pthread_key_t key;
    while (pthread_key_create(&key, nullptr) == 0) keys_.push_back(key);
    pool_ = std::make_unique<CountedPool>(64, 4, 8);
  }
  void TearDown() override {
    pool_.reset();
    for (pthread_key_t key : keys_) pthread_key_delete(key);
    ObjectPoolTest::TearDown();
  }
  std::vector<pthread_key_t> keys_;
  std::unique_ptr<CountedPool> pool_;
};

TEST_F(ObjectPoolWithoutSlotTest, AllocMakesOneArrayThatNoTierTracks) {
  uint8_t* array = pool_->AllocRaw();

  EXPECT_NE(array, nullptr);
  EXPECT_EQ(ArrayBooks::made, 1u);
  EXPECT_EQ(Peer::Tier(*pool_), nullptr);
  EXPECT_FALSE(Peer::SharedTierIsAlive(*pool_));
  pool_->Reuse(array);
}

TEST_F(ObjectPoolWithoutSlotTest, ReuseFreesTheArrayAtOnce) {
  const Arrays taken = Take(*pool_, 1);

  Return(*pool_, taken);

  EXPECT_EQ(ArrayBooks::FreedArrays(), taken);
}

TEST_F(ObjectPoolWithoutSlotTest, ReuseOfNullFreesNothing) {
  pool_->Reuse(nullptr);

  EXPECT_EQ(ArrayBooks::freed, 0u);
}

TEST_F(ObjectPoolWithoutSlotTest, ExhaustionAnswersNull) {
  ArrayBooks::fail_from = 0;

  EXPECT_EQ(pool_->AllocRaw(), nullptr);
}

}  // namespace
QUENOR_NAMESPACE_END
