// What the second pool suite looks at inside a pool. Written without sight of the implementation,
// from the promises alone.
// Threads: the lists of a tier on its own thread; the shared tier while no other thread works.
#ifndef QUENOR_TESTS_UNIT_SECOND_POOLS_POOL_PEER_H_
#define QUENOR_TESTS_UNIT_SECOND_POOLS_POOL_PEER_H_

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "quenor_base/object_pool/object_pool.h"
#include "quenor_base/platform/base/lock.h"

QUENOR_NAMESPACE_BEGIN

class ObjectPoolTestPeer {
 public:
  using Addresses = std::vector<const void*>;

  // The calling thread's tier; null when it has none.
  template <typename Pool>
  static typename Pool::TLSPool::Tier* Tier(Pool& pool) {
    return static_cast<typename Pool::TLSPool::Tier*>(pool.tls_pool_->slot_.Get());
  }
  template <typename T>
  static bool SlotIsEmpty(T& tls_pool) {
    return tls_pool.slot_.Get() == nullptr;
  }
  template <typename Pool>
  static Addresses FreeList(Pool& pool) {
    return Arrays(Tier(pool)->free_list_);
  }
  template <typename Pool>
  static Addresses Pending(Pool& pool) {
    return Arrays(Tier(pool)->pending_batch_);
  }
  // The owners themselves: they stay where they are when a list is relinked.
  template <typename Pool>
  static Addresses FreeNodes(Pool& pool) {
    return Nodes(Tier(pool)->free_list_);
  }
  template <typename Pool>
  static Addresses PendingNodes(Pool& pool) {
    return Nodes(Tier(pool)->pending_batch_);
  }
  // The length that is kept with each array of both lists.
  template <typename Pool>
  static std::vector<uint32_t> KeptLengths(Pool& pool) {
    std::vector<uint32_t> lengths;
    for (const auto& array : Tier(pool)->free_list_) lengths.push_back(array.size());
    for (const auto& array : Tier(pool)->pending_batch_) lengths.push_back(array.size());
    return lengths;
  }
  template <typename TierType>
  static uint32_t ObjectSize(const TierType& tier) {
    return tier.object_size_;
  }
  template <typename TierType>
  static uint32_t Capacity(const TierType& tier) {
    return tier.capacity_;
  }
  template <typename TierType>
  static auto& GlobalOf(TierType& tier) {
    return tier.global_pool_;
  }

  // The living shared tier; empty when there is none.
  template <typename Pool>
  static std::shared_ptr<typename Pool::Global> Shared(Pool& pool) {
    base::AutoLock lock(pool.lock_);
    return pool.global_pool_.lock();
  }
  template <typename Global>
  static uint32_t MaxBatches(const Global& global) {
    return global.max_batches_;
  }
  template <typename Global>
  static auto& BatchList(Global& global) {
    return global.batches_;
  }
  template <typename Global>
  static const void* Mutex(Global& global) {
    return global.mutex_.native_handle();
  }
  template <typename Pool>
  static const void* PoolLock(Pool& pool) {
    return pool.lock_.native_handle();
  }
  // The batches of the living shared tier, oldest first.
  template <typename Pool>
  static std::vector<Addresses> Batches(Pool& pool) {
    std::vector<Addresses> batches;
    const auto shared = Shared(pool);
    if (shared == nullptr) return batches;
    for (const auto& batch : shared->batches_) batches.push_back(Arrays(batch));
    return batches;
  }
  template <typename Pool>
  static Addresses NewestBatchNodes(Pool& pool) {
    return Nodes(Shared(pool)->batches_.back());
  }

 private:
  template <typename List>
  static Addresses Arrays(const List& list) {
    Addresses arrays;
    for (const auto& array : list) arrays.push_back(array.get());
    return arrays;
  }
  template <typename List>
  static Addresses Nodes(const List& list) {
    Addresses nodes;
    for (const auto& array : list) nodes.push_back(&array);
    return nodes;
  }
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_TESTS_UNIT_SECOND_POOLS_POOL_PEER_H_
