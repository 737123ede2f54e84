// Threads, a counted pool and views of the tiers for the pool tests.
#ifndef QUENOR_TESTS_UNIT_OBJECT_POOL_POOL_TEST_SUPPORT_H_
#define QUENOR_TESTS_UNIT_OBJECT_POOL_POOL_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/object_pool.h"
#include "quenor_base/platform/base/thread_create_flag.h"

namespace quenor {

// The one door into the private fields.
class ObjectPoolTestPeer {
 public:
  // The calling thread's tier, or null; makes none.
  template <typename... P>
  static TLSObjectPoolImpl<P...>* Tier(ObjectPool<P...>& pool) {
    return static_cast<TLSObjectPoolImpl<P...>*>(pool.tls_pool_->slot_.Get());
  }
  template <typename... P>
  static TLSObjectPool<P...>& TlsPool(ObjectPool<P...>& pool) {
    return *pool.tls_pool_;
  }
  template <typename... P>
  static bool SharedTierIsAlive(ObjectPool<P...>& pool) {
    base::AutoLock lock(pool.lock_);
    return !pool.global_pool_.expired();
  }
  template <typename... P>
  static uint32_t ObjectSize(ObjectPool<P...>& pool) {
    return pool.tls_pool_->object_size_;
  }
  template <typename... P>
  static uint32_t Capacity(ObjectPool<P...>& pool) {
    return pool.tls_pool_->capacity_;
  }
  template <typename... P>
  static uint32_t MaxBatches(ObjectPool<P...>& pool) {
    return pool.max_batches_;
  }

  // The arrays that a list holds, front to back; not what its spare nodes own, which must be null.
  // The calling thread must have a tier.
  template <typename Pool>
  static auto FreeList(Pool& pool) {
    auto* tier = Tier(pool);
    return Held(tier->free_list_, tier->holder().spare);
  }
  template <typename Pool>
  static auto PendingBatch(Pool& pool) {
    auto* tier = Tier(pool);
    return Held(tier->pending_batch_, tier->holder().gathered);
  }
  // The shared tier's batches, oldest first.
  template <typename Pool>
  static auto Batches(Pool& pool) {
    auto& global = *Tier(pool)->global_pool_;
    std::lock_guard<std::mutex> lock(global.mutex_);
    std::vector<std::vector<uint8_t*>> batches;
    for (const auto& batch : global.batches_) batches.push_back(Held(batch, batch.end()));
    return batches;
  }
  // The list nodes that the calling thread's tier has, holding and spare.
  template <typename Pool>
  static size_t Nodes(Pool& pool) {
    auto* tier = Tier(pool);
    size_t nodes = tier->free_list_.size() + tier->pending_batch_.size();
    for (const auto& envelope : tier->holder().envelope) nodes += envelope.size();
    return nodes;
  }
  // Of the longer of its two lists.
  template <typename Pool>
  static size_t MostNodesOfAList(Pool& pool) {
    auto* tier = Tier(pool);
    return std::max(tier->free_list_.size(), tier->pending_batch_.size());
  }
  // The nodes that lie ready in the shared tier for those who hand over.
  template <typename Pool>
  static std::vector<size_t> NodesInEmptyEnvelopes(Pool& pool) {
    auto& tier = Tier(pool)->shared();
    std::lock_guard<std::mutex> lock(tier.mutex_);
    std::vector<size_t> nodes;
    for (const auto& envelope : tier.empty_envelopes) {
      nodes.push_back(envelope.size());
      Held(envelope, envelope.begin());
    }
    return nodes;
  }
  template <typename Pool>
  static const void* SharedTierOf(Pool& pool) {
    return Tier(pool)->global_pool_.get();
  }
  // Takes the calling thread's tier off its shared tier.
  template <typename Pool>
  static void DropSharedTier(Pool& pool) {
    Tier(pool)->global_pool_.reset();
  }
  // Holds the mutex of the shared tier for as long as the result lives.
  template <typename Pool>
  static std::unique_lock<std::mutex> LockSharedTier(Pool& pool) {
    return std::unique_lock<std::mutex>(Tier(pool)->global_pool_->mutex_);
  }

  // True when a thread of its own could take the shared tier's mutex.
  template <typename Global>
  static bool TryLockFromAnotherThread(Global& global) {
    bool locked = false;
    std::thread([&] {
      locked = global.mutex_.try_lock();
      if (locked) global.mutex_.unlock();
    }).join();
    return locked;
  }

 private:
  template <typename Batch>
  static std::vector<uint8_t*> Held(const Batch& batch, typename Batch::const_iterator spare) {
    std::vector<uint8_t*> addresses;
    for (auto node = batch.begin(); node != spare; ++node) addresses.push_back(node->get());
    for (; spare != batch.end(); ++spare) EXPECT_EQ(spare->get(), nullptr) << "in a spare node";
    return addresses;
  }
};

// Runs `body` on a thread of its own, marked as one that the SDK created or not, and waits for the
// end of that thread: its tiers are gone afterwards.
template <typename Body>
void OnSdkThread(Body body) {
  std::thread([&body] {
    base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
    body();
  }).join();
}
template <typename Body>
void OnForeignThread(Body body) {
  std::thread([&body] { body(); }).join();
}

// Books of all arrays that the counted policies make and free.
class ArrayBooks {
 public:
  static void Clear() {
    made = 0;
    freed = 0;
    fail_from = UINT64_MAX;
    reset = 0;
    std::lock_guard<std::mutex> lock(mutex_);
    freed_arrays_.clear();
  }
  static uint64_t Live() { return made - freed; }
  static std::vector<uint8_t*> FreedArrays() {
    std::lock_guard<std::mutex> lock(mutex_);
    return freed_arrays_;
  }
  static void NoteFreed(uint8_t* array) {
    ++freed;
    std::lock_guard<std::mutex> lock(mutex_);
    freed_arrays_.push_back(array);
  }

  inline static std::atomic<uint64_t> made{0};
  inline static std::atomic<uint64_t> freed{0};
  inline static std::atomic<uint64_t> reset{0};
  inline static std::atomic<uint64_t> fail_from{UINT64_MAX};  // `made` from which on none is made

 private:
  inline static std::mutex mutex_;
  inline static std::vector<uint8_t*> freed_arrays_;
};

struct CountedAllocator {
  uint8_t* operator()(uint32_t size) const {
    if (ArrayBooks::made >= ArrayBooks::fail_from) return nullptr;
    ++ArrayBooks::made;
    return new (std::nothrow) uint8_t[size];
  }
};
struct CountedDestroyer {
  void operator()(uint8_t* array, uint32_t /*size*/) const {
    ArrayBooks::NoteFreed(array);
    delete[] array;
  }
};
struct CountedResetter {
  void operator()(uint8_t* /*array*/, uint32_t /*size*/) const { ++ArrayBooks::reset; }
};

using CountedPool = ObjectPool<uint8_t[], CountedResetter, CountedAllocator, CountedDestroyer>;

class CountedPoolTest : public ::testing::Test {
 protected:
  using Peer = ObjectPoolTestPeer;

  CountedPoolTest() { ArrayBooks::Clear(); }
  // Every test ends its threads and destroys its pool: no array may be left.
  void TearDown() override { EXPECT_EQ(ArrayBooks::Live(), 0u); }

  static std::vector<uint8_t*> Take(CountedPool& pool, size_t count) {
    std::vector<uint8_t*> arrays;
    for (size_t i = 0; i < count; ++i) arrays.push_back(pool.AllocRaw());
    return arrays;
  }
  static void Return(CountedPool& pool, const std::vector<uint8_t*>& arrays) {
    for (uint8_t* array : arrays) pool.Reuse(array);
  }
};

}  // namespace quenor

#endif  // QUENOR_TESTS_UNIT_OBJECT_POOL_POOL_TEST_SUPPORT_H_
