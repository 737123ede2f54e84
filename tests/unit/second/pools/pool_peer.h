// What the second pool suite looks at inside a pool. Written without sight of the implementation,
// from the promises alone, but for one thing: a list keeps spare nodes behind those that hold
// arrays, and a cursor tells where they begin. Only what is held is looked at.
// Threads: the lists of a tier on its own thread; the shared tier while no other thread works.
#ifndef QUENOR_TESTS_UNIT_SECOND_POOLS_POOL_PEER_H_
#define QUENOR_TESTS_UNIT_SECOND_POOLS_POOL_PEER_H_

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "quenor_base/object_pool/object_pool.h"
#include "quenor_base/platform/base/lock.h"

namespace quenor {

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
    return Arrays(Tier(pool)->free_list_, FreeEnd(pool));
  }
  template <typename Pool>
  static Addresses Pending(Pool& pool) {
    return Arrays(Tier(pool)->pending_batch_, PendingEnd(pool));
  }
  // The owners themselves: they stay where they are when a list is relinked.
  template <typename Pool>
  static Addresses FreeNodes(Pool& pool) {
    return Nodes(Tier(pool)->free_list_, FreeEnd(pool));
  }
  template <typename Pool>
  static Addresses PendingNodes(Pool& pool) {
    return Nodes(Tier(pool)->pending_batch_, PendingEnd(pool));
  }
  // The length that is kept with each array of both lists.
  template <typename Pool>
  static std::vector<uint32_t> KeptLengths(Pool& pool) {
    std::vector<uint32_t> lengths;
    const auto add = [&lengths](auto node, auto end) {
      for (; node != end; ++node) lengths.push_back(node->size());
    };
    add(Tier(pool)->free_list_.begin(), FreeEnd(pool));
    add(Tier(pool)->pending_batch_.begin(), PendingEnd(pool));
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
    for (const auto& batch : shared->batches_) batches.push_back(Arrays(batch, batch.end()));
    return batches;
  }
  template <typename Pool>
  static Addresses NewestBatchNodes(Pool& pool) {
    const auto& newest = Shared(pool)->batches_.back();
    return Nodes(newest, newest.end());
  }

 private:
  template <typename Pool>
  static auto FreeEnd(Pool& pool) {
    return Tier(pool)->holder().spare;
  }
  template <typename Pool>
  static auto PendingEnd(Pool& pool) {
    return Tier(pool)->holder().gathered;
  }
  // Of the nodes from the front up to `end`.
  template <typename List>
  static Addresses Arrays(const List& list, typename List::const_iterator end) {
    Addresses arrays;
    for (auto node = list.begin(); node != end; ++node) arrays.push_back(node->get());
    return arrays;
  }
  template <typename List>
  static Addresses Nodes(const List& list, typename List::const_iterator end) {
    Addresses nodes;
    for (auto node = list.begin(); node != end; ++node) nodes.push_back(&*node);
    return nodes;
  }
};

}  // namespace quenor

#endif  // QUENOR_TESTS_UNIT_SECOND_POOLS_POOL_PEER_H_
