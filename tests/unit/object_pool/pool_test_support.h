// Threads, a counted pool and views of the tiers for the pool tests.
#ifndef QUENOR_TESTS_UNIT_OBJECT_POOL_POOL_TEST_SUPPORT_H_
#define QUENOR_TESTS_UNIT_OBJECT_POOL_POOL_TEST_SUPPORT_H_

#include <gtest/gtest.h>

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

QUENOR_NAMESPACE_BEGIN

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

  // The arrays of a list, front to back. The calling thread must have a tier.
  template <typename Pool>
  static auto FreeList(Pool& pool) {
    return Held(Tier(pool)->free_list_);
  }
  template <typename Pool>
  static auto PendingBatch(Pool& pool) {
    return Held(Tier(pool)->pending_batch_);
  }
  // The shared tier's batches, oldest first.
  template <typename Pool>
  static auto Batches(Pool& pool) {
    auto& global = *Tier(pool)->global_pool_;
    std::lock_guard<std::mutex> lock(global.mutex_);
    std::vector<std::vector<uint8_t*>> batches;
    for (const auto& batch : global.batches_) batches.push_back(Held(batch));
    return batches;
  }
  // The list nodes that the calling thread's tier has, holding and spare.
  template <typename Pool>
  static size_t Nodes(Pool& pool) {
    auto* tier = Tier(pool);
    ExpectSpare(tier->spare_nodes_);
    for (const auto& place : tier->spare_place_) EXPECT_TRUE(place.empty());
    return tier->free_list_.size() + tier->pending_batch_.size() + tier->spare_nodes_.size();
  }
  // The nodes that lie ready in the shared tier for those who hand over.
  template <typename Pool>
  static std::vector<size_t> NodesInSpareBatches(Pool& pool) {
    auto& tier = *Tier(pool)->global_pool_;
    std::lock_guard<std::mutex> lock(tier.mutex_);
    std::vector<size_t> nodes;
    for (const auto& batch : tier.spare_batches_) {
      nodes.push_back(batch.size());
      ExpectSpare(batch);
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

  // True when a thread of its own could take the mutex of a shared tier, or of that of the calling
  // thread's tier, or a pool's own lock.
  template <typename Global>
  static bool TryLockFromAnotherThread(Global& global) {
    return TryFromAnotherThread([&] { return global.mutex_.try_lock(); },
                                [&] { global.mutex_.unlock(); });
  }
  template <typename Pool>
  static bool TrySharedMutexFromAnotherThread(Pool& pool) {
    return TryLockFromAnotherThread(*Tier(pool)->global_pool_);
  }
  template <typename Pool>
  static bool TryPoolLockFromAnotherThread(Pool& pool) {
    return TryFromAnotherThread([&] { return pool.lock_.Try(); }, [&] { pool.lock_.Release(); });
  }

 private:
  template <typename Batch>
  static std::vector<uint8_t*> Held(const Batch& batch) {
    std::vector<uint8_t*> addresses;
    for (const auto& array : batch) addresses.push_back(array.get());
    return addresses;
  }
  template <typename TryLock, typename Unlock>
  static bool TryFromAnotherThread(TryLock try_lock, Unlock unlock) {
    bool locked = false;
    std::thread([&] {
      locked = try_lock();
      if (locked) unlock();
    }).join();
    return locked;
  }
  template <typename Batch>
  static void ExpectSpare(const Batch& batch) {
    for (const auto& array : batch) EXPECT_EQ(array.get(), nullptr) << "in a spare node";
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
    elements = 0;
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
  inline static std::atomic<uint64_t> elements{0};  // Of those made, less those freed.
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
    ArrayBooks::elements += size;
    return new (std::nothrow) uint8_t[size];
  }
};
struct CountedDestroyer {
  void operator()(uint8_t* array, uint32_t size) const {
    ArrayBooks::NoteFreed(array);
    ArrayBooks::elements -= size;
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
  void TearDown() override {
    EXPECT_EQ(ArrayBooks::Live(), 0u);
    EXPECT_EQ(ArrayBooks::elements, 0u);
  }

  static std::vector<uint8_t*> Take(CountedPool& pool, size_t count) {
    std::vector<uint8_t*> arrays;
    for (size_t i = 0; i < count; ++i) arrays.push_back(pool.AllocRaw());
    return arrays;
  }
  static void Return(CountedPool& pool, const std::vector<uint8_t*>& arrays) {
    for (uint8_t* array : arrays) pool.Reuse(array);
  }
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_TESTS_UNIT_OBJECT_POOL_POOL_TEST_SUPPORT_H_
