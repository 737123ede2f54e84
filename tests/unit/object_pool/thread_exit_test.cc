// What a thread leaves behind: nothing, even when the destructor of another thread-local value
// gives an array back after the thread's tiers are gone.
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>

#include <string>
#include <tuple>
#include <vector>

#include "pool_test_support.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

QUENOR_NAMESPACE_BEGIN
namespace {

class ThreadExitTest : public CountedPoolTest {};

TEST_F(ThreadExitTest, ArraysOfBothListsAreFreed) {
  CountedPool pool(64, 4, 8);
  std::vector<uint8_t*> arrays;

  OnSdkThread([&] {
    arrays = Take(pool, 8);
    Return(pool, {arrays.begin(), arrays.begin() + 6});
    EXPECT_EQ(Peer::FreeList(pool).size(), 4u);
    EXPECT_EQ(Peer::PendingBatch(pool).size(), 2u);
  });

  EXPECT_EQ(ArrayBooks::Live(), 2u);  // those that were not given back
  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
  OnForeignThread([&] { Return(pool, {arrays[6], arrays[7]}); });
}

// The nodes themselves are for the leak checker.
TEST_F(ThreadExitTest, HeldArraysAreFreedOnceWhateverSpareNodesLieBehindThem) {
  for (size_t held = 0; held <= 7; ++held) {
    CountedPool pool(64, 4, 8);
    ArrayBooks::Clear();
    std::vector<uint8_t*> in_use;
    OnSdkThread([&] {
      in_use = Take(pool, 12);
      for (int i = 0; i < 8; ++i) {  // then both lists have had all their nodes
        pool.Reuse(in_use.back());
        in_use.pop_back();
      }
      for (uint8_t* array : Take(pool, 8)) in_use.push_back(array);
      for (size_t i = 0; i < held; ++i) {
        pool.Reuse(in_use.back());
        in_use.pop_back();
      }
      EXPECT_EQ(Peer::FreeList(pool).size() + Peer::PendingBatch(pool).size(), held);
      EXPECT_EQ(ArrayBooks::freed, 0u);
    });

    EXPECT_EQ(ArrayBooks::freed, held);
    EXPECT_EQ(ArrayBooks::Live(), 12 - held);
    OnSdkThread([&] { Return(pool, in_use); });
    EXPECT_EQ(ArrayBooks::Live(), 0u);
  }
}

TEST_F(ThreadExitTest, ForeignThreadThatOnlyReleasesIsBoundedAndLeavesNothing) {
  CountedPool pool(64, 4, 2);
  std::vector<uint8_t*> arrays;
  OnSdkThread([&] { arrays = Take(pool, 200); });

  OnForeignThread([&] {
    for (uint8_t* array : arrays) {
      pool.Reuse(array);
      EXPECT_LE(Peer::FreeList(pool).size(), 4u);
      EXPECT_LE(Peer::PendingBatch(pool).size(), 3u);
      EXPECT_LE(Peer::Batches(pool).size(), 2u);
    }
  });

  EXPECT_EQ(ArrayBooks::Live(), 0u);
}

TEST_F(ThreadExitTest, FiveHundredThreadsThatCameAndWentLeaveNothing) {
  CountedPool pool(64, 4, 8);

  for (int i = 0; i < 500; ++i) {
    OnSdkThread([&] { Return(pool, Take(pool, 13)); });
  }

  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
}

// A C++ thread_local releases before any slot destructor runs: an ordinary return.
TEST_F(ThreadExitTest, ReleaseByAThreadLocalObjectLeavesNothing) {
  struct Releaser {
    ~Releaser() {
      if (pool != nullptr) pool->Reuse(array);
    }
    CountedPool* pool = nullptr;
    uint8_t* array = nullptr;
  };
  CountedPool pool(64, 4, 8);

  OnSdkThread([&] {
    static thread_local Releaser releaser;
    releaser.pool = &pool;
    releaser.array = pool.AllocRaw();
  });

  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
}

// A destroyer that calls the pool it is called by.
struct ReenteringDestroyer {
  void operator()(uint8_t* array, uint32_t size) const;
};
using ReenteringPool =
    ObjectPool<uint8_t[], CountedResetter, CountedAllocator, ReenteringDestroyer>;
ReenteringPool* reentered_pool = nullptr;
uint8_t* held_back = nullptr;

void ReenteringDestroyer::operator()(uint8_t* array, uint32_t size) const {
  if (held_back != nullptr) reentered_pool->Reuse(std::exchange(held_back, nullptr));
  CountedDestroyer()(array, size);
}

TEST_F(ThreadExitTest, ReleaseByADestroyerOfTheDyingTierLeavesNothing) {
  ReenteringPool pool(64, 4, 8);
  reentered_pool = &pool;

  OnSdkThread([&] { held_back = pool.AllocRaw(); });

  EXPECT_EQ(held_back, nullptr);
  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(pool));
}

// Four rounds: what POSIX promises and what the C library runs. The thread sanitizer takes its own
// state down in the last one, so no instrumented code may run there.
static_assert(PTHREAD_DESTRUCTOR_ITERATIONS == 4);
#if defined(QUENOR_SANITIZED_THREAD)
constexpr int kLastRound = PTHREAD_DESTRUCTOR_ITERATIONS - 1;
#else
constexpr int kLastRound = PTHREAD_DESTRUCTOR_ITERATIONS;
#endif

// Another thread-local value of the thread that waits for round `act_in_round` of the slot
// destructors, then calls `act`. Lower keys run first within a round.
class LateActor {
 public:
  LateActor(int act_in_round, std::function<void()> act)
      : act_in_round_(act_in_round), act_(std::move(act)) {
    EXPECT_EQ(pthread_key_create(&key_, &OnThreadEnd), 0);
  }
  ~LateActor() { pthread_key_delete(key_); }

  // Arms the actor for the end of the calling thread.
  void Arm() { EXPECT_EQ(pthread_setspecific(key_, this), 0); }
  int rounds() const { return rounds_; }

 private:
  static void OnThreadEnd(void* value) {
    auto* self = static_cast<LateActor*>(value);
    ++self->rounds_;
    if (self->rounds_ < self->act_in_round_) {
      pthread_setspecific(self->key_, self);
    } else {
      self->act_();
    }
  }

  const int act_in_round_;
  const std::function<void()> act_;
  pthread_key_t key_{};
  int rounds_ = 0;
};

enum class KeyOrder { kBeforeThePools, kAfterThePools };

class LateReleaseTest : public CountedPoolTest,
                        public ::testing::WithParamInterface<std::tuple<KeyOrder, int>> {
 protected:
  LateReleaseTest() {
    if (order() == KeyOrder::kBeforeThePools) MakeActor();
    pool_ = std::make_unique<CountedPool>(64, 4, 8);
    other_pool_ = std::make_unique<CountedPool>(64, 4, 8);
    if (order() == KeyOrder::kAfterThePools) MakeActor();
  }
  void TearDown() override {
    pool_.reset();
    other_pool_.reset();
    CountedPoolTest::TearDown();
  }

  static KeyOrder order() { return std::get<0>(GetParam()); }
  static int round() { return std::get<1>(GetParam()); }
  // Whether the pools' slot destructors run before the actor acts.
  static bool TiersAreGoneByThen() { return round() > 1 || order() == KeyOrder::kAfterThePools; }

  void MakeActor() {
    actor_ = std::make_unique<LateActor>(round(), [this] { act_(); });
  }

  std::unique_ptr<LateActor> actor_;
  std::unique_ptr<CountedPool> pool_;
  std::unique_ptr<CountedPool> other_pool_;
  std::function<void()> act_;
};

TEST_P(LateReleaseTest, ArrayReleasedLateIsFreed) {
  uint8_t* array = nullptr;
  bool tier_was_gone = false;
  act_ = [&] {
    tier_was_gone = Peer::Tier(*pool_) == nullptr;
    pool_->Reuse(array);
  };

  OnSdkThread([&] {
    array = pool_->AllocRaw();
    actor_->Arm();
  });

  EXPECT_EQ(actor_->rounds(), round());
  EXPECT_EQ(tier_was_gone, TiersAreGoneByThen());
  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(*pool_));
}

TEST_P(LateReleaseTest, ManyArraysReleasedLateAreFreed) {
  std::vector<uint8_t*> arrays;
  act_ = [&] { Return(*pool_, arrays); };

  OnSdkThread([&] {
    arrays = Take(*pool_, 100);
    actor_->Arm();
  });

  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(*pool_));
}

TEST_P(LateReleaseTest, ArrayTakenAndReleasedLateIsFreed) {
  act_ = [&] {
    uint8_t* array = pool_->AllocRaw();
    EXPECT_NE(array, nullptr);
    pool_->Reuse(array);
  };

  OnSdkThread([&] {
    pool_->Reuse(pool_->AllocRaw());
    actor_->Arm();
  });

  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(*pool_));
}

// The thread has a tier of one pool only; the array belongs to the other.
TEST_P(LateReleaseTest, ArrayOfAPoolThatTheThreadNeverUsedIsFreed) {
  uint8_t* array = nullptr;
  OnSdkThread([&] { array = other_pool_->AllocRaw(); });
  act_ = [&] { other_pool_->Reuse(array); };

  OnForeignThread([&] {
    pool_->Reuse(pool_->AllocRaw());
    actor_->Arm();
  });

  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(*other_pool_));
}

INSTANTIATE_TEST_SUITE_P(EveryRound, LateReleaseTest,
                         ::testing::Combine(::testing::Values(KeyOrder::kBeforeThePools,
                                                              KeyOrder::kAfterThePools),
                                            ::testing::Range(1, kLastRound + 1)),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param) == KeyOrder::kBeforeThePools
                                                  ? "KeyBefore"
                                                  : "KeyAfter") +
                                  "Round" + std::to_string(std::get<1>(row.param));
                         });

// A thread that had no tier of any pool makes one for such a release, and a later round frees it.
// Only in the very last round, with a key behind the pools', no round is left.
class LateFirstUseTest : public LateReleaseTest {};

TEST_P(LateFirstUseTest, TierMadeByTheReleaseIsFreed) {
  uint8_t* array = nullptr;
  OnSdkThread([&] { array = pool_->AllocRaw(); });
  act_ = [&] {
    EXPECT_EQ(Peer::Tier(*pool_), nullptr);
    pool_->Reuse(array);
  };

  OnForeignThread([&] { actor_->Arm(); });

  EXPECT_EQ(ArrayBooks::Live(), 0u);
  EXPECT_FALSE(Peer::SharedTierIsAlive(*pool_));
}

INSTANTIATE_TEST_SUITE_P(KeyBefore, LateFirstUseTest,
                         ::testing::Combine(::testing::Values(KeyOrder::kBeforeThePools),
                                            ::testing::Range(1, kLastRound + 1)));
INSTANTIATE_TEST_SUITE_P(KeyAfter, LateFirstUseTest,
                         ::testing::Combine(::testing::Values(KeyOrder::kAfterThePools),
                                            ::testing::Range(1, kLastRound)));

// The real pools: nothing to count by, so this is for the leak checker and for crashes.
TEST(BufferLateReleaseTest, PooledResultDroppedInTheLastRoundIsFreed) {
  std::unique_ptr<uint8_t[], void (*)(void*)> buffer(nullptr, nullptr);
  LateActor actor(kLastRound, [&] {
    EXPECT_EQ(ObjectPoolTestPeer::Tier(*internal::GetBufferObjPool(1024)), nullptr);
    buffer.reset();
  });

  OnSdkThread([&] {
    buffer = internal::AllocBufferTFromPool<uint8_t[]>(700);
    actor.Arm();
  });

  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(actor.rounds(), kLastRound);
  EXPECT_FALSE(ObjectPoolTestPeer::SharedTierIsAlive(*internal::GetBufferObjPool(1024)));
}

}  // namespace
QUENOR_NAMESPACE_END
