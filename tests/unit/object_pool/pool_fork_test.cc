// A host forks while threads use a pool: the fork waits for both locks of the pool, and both
// processes find them free afterwards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "pool_test_support.h"
#include "quenor_base/platform/base/fork.h"
#include "tests/support/forked.h"

QUENOR_NAMESPACE_BEGIN
namespace {

class PoolForkTest : public CountedPoolTest {
 protected:
  // What a fork finds when it has taken everything: looked at from a thread of its own, since the
  // forking one is the holder. What is made first is locked last.
  struct Look {
    CountedPool* pool = nullptr;
    bool pool_lock_was_free = true;
    bool shared_mutex_was_free = true;
    base::HeldAtFork held{this, &Take, [](void*) {}};

    static void Take(void* look) {
      auto* const self = static_cast<Look*>(look);
      if (self->pool == nullptr) return;
      self->pool_lock_was_free = Peer::TryPoolLockFromAnotherThread(*self->pool);
      self->shared_mutex_was_free = Peer::TrySharedMutexFromAnotherThread(*self->pool);
    }
  };

  Look look_;
  CountedPool pool_{64, 2, 8};
};

TEST_F(PoolForkTest, ForkHoldsThePoolsLockAndTheSharedTiersMutex) {
  OnSdkThread([this] {
    pool_.Reuse(pool_.AllocRaw());
    look_.pool = &pool_;

    EXPECT_EQ(test::ResultOfChild([] { return 0; }), 0);

    look_.pool = nullptr;
    EXPECT_FALSE(look_.pool_lock_was_free);
    EXPECT_FALSE(look_.shared_mutex_was_free);
  });
}

TEST_F(PoolForkTest, BothProcessesGoOnWithTheBatchesThatWereShared) {
  OnSdkThread([this] {
    std::vector<uint8_t*> arrays = Take(pool_, 6);
    Return(pool_, arrays);  // Two free, two batches shared.
    const auto take_all = [this, &arrays] {
      const uint64_t made = ArrayBooks::made;
      const std::vector<uint8_t*> again = Take(pool_, 6);
      const bool same = std::set<uint8_t*>(again.begin(), again.end()) ==
                        std::set<uint8_t*>(arrays.begin(), arrays.end());
      Return(pool_, again);
      return same && ArrayBooks::made == made ? 0 : 1;
    };

    EXPECT_EQ(test::ResultOfChild(take_all), 0);
    EXPECT_EQ(take_all(), 0);
  });
}

TEST_F(PoolForkTest, ChildMakesTheFirstTierOfAPoolThatNobodyHasUsed) {
  EXPECT_EQ(test::ResultOfChild([this] {
              uint8_t* const array = pool_.AllocRaw();
              pool_.Reuse(array);
              return Peer::FreeList(pool_).size() == 2 ? 0 : 1;
            }),
            0);
}

TEST_F(PoolForkTest, ForkKeepsNoSharedTierAlive) {
  OnSdkThread([this] {
    pool_.Reuse(pool_.AllocRaw());
    EXPECT_EQ(test::ResultOfChild([] { return 0; }), 0);
    EXPECT_TRUE(Peer::SharedTierIsAlive(pool_));
  });

  EXPECT_FALSE(Peer::SharedTierIsAlive(pool_));
}

// One letter for each step that a fork took, in a child with what its parent took before.
char g_steps[16];
size_t g_count = 0;

template <char kStep>
void Take() {
  if (g_count < sizeof(g_steps) - 1) g_steps[g_count++] = kStep;
}
template <char kStep>
void TakeWith(void*) {
  Take<kStep>();
}

const base::ForkHandlers g_first(&Take<'a'>, &Take<'b'>, &Take<'c'>);
const base::ForkHandlers g_second(&Take<'A'>, &Take<'B'>, &Take<'C'>);

TEST(ForkHandlersTest, PrepareBeforeAnyLockIsTakenAndEndWhenAllAreFree) {
  base::HeldAtFork made_first(nullptr, &TakeWith<'l'>, &TakeWith<'u'>, &TakeWith<'v'>);
  base::HeldAtFork made_second(nullptr, &TakeWith<'L'>, &TakeWith<'U'>, &TakeWith<'V'>);
  g_count = 0;

  EXPECT_EQ(test::ResultOfChild([] { return std::string(g_steps, g_count) == "AaLlVvcC" ? 0 : 1; }),
            0);
  EXPECT_EQ(std::string(g_steps, g_count), "AaLlUubB");
}

}  // namespace
QUENOR_NAMESPACE_END
