// ObjectPool: arrays of one fixed length, kept for reuse in two tiers: a thread's own, without a
// lock, and one that passes whole batches between threads.
// Life cycle: a pool must outlive every thread that used it.
// Threads: any. A fork waits until both of its locks are free.
// Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_OBJECT_POOL_H_
#define QUENOR_BASE_OBJECT_POOL_OBJECT_POOL_H_

#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "quenor_base/object_pool/shared_tier.h"
#include "quenor_base/object_pool/thread_tier.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"

QUENOR_NAMESPACE_BEGIN

namespace objpool {

// The policies are stateless function objects, called on any thread with the array and its length
// in elements.

// Prepares a returned array for its next user. An array of the default policy keeps what its last
// user left in it.
template <typename T>
struct DefaultResetter;
template <typename T>
struct DefaultResetter<T[]> {
  void operator()(T* /*array*/, uint32_t /*size*/) const {}
};

// Makes an array, not cleared; null when memory has run out, which the pool hands on untested.
template <typename T>
struct DefaultAllocator;
template <typename T>
struct DefaultAllocator<T[]> {
  T* operator()(uint32_t size) const { return new (std::nothrow) T[size]; }
};

// Frees an array that is not null.
template <typename T>
struct DefaultDestroyer;
template <typename T>
struct DefaultDestroyer<T[]> {
  void operator()(T* array, uint32_t /*size*/) const { delete[] array; }
};

}  // namespace objpool

// The pool: the door to both tiers.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class ObjectPool {
 public:
  using Element = std::remove_extent_t<T>;
  using TLSPool = TLSObjectPool<T, Resetter, Allocator, Destroyer>;
  using Global = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  // A pool of arrays of `object_size` elements. `capacity` bounds each of a thread's two lists and
  // is the size of a batch (0 is taken as 1); `max_batches` bounds the shared tier.
  ObjectPool(uint32_t object_size, uint32_t capacity, uint32_t max_batches)
      : tls_pool_(std::make_unique<TLSPool>(object_size, capacity)),
        max_batches_(max_batches),
        held_at_fork_(this, &LockForFork, &UnlockAfterFork) {}
  ObjectPool(const ObjectPool&) = delete;
  ObjectPool& operator=(const ObjectPool&) = delete;

  // Any thread. An array with whatever its last user left in it, or null when memory has run out.
  // The caller owns it and gives it back with Reuse, on any thread.
  [[nodiscard]] Element* AllocRaw() {
    auto* const tier = tls_pool_->GetTLSPool(&GetGlobalObjectPool, this);
    if (tier == nullptr) return Allocator()(tls_pool_->object_size());
    return tier->Alloc().Release();
  }

  // Any thread. Takes `p`, an array that AllocRaw of this pool handed out (not checked); null is
  // ignored.
  void Reuse(Element* p) {
    auto* const tier = tls_pool_->GetTLSPool(&GetGlobalObjectPool, this);
    if (p == nullptr) return;
    if (tier == nullptr) {
      Destroyer()(p, tls_pool_->object_size());
      return;
    }
    tier->Reuse(p);
  }

  // Any thread. The shared tier of the ObjectPool at `pool`, made when none is alive; empty when
  // `pool` is null.
  static std::shared_ptr<Global> GetGlobalObjectPool(void* pool) {
    if (pool == nullptr) return nullptr;
    auto* const self = static_cast<ObjectPool*>(pool);
    base::AutoLock lock(self->lock_);
    std::shared_ptr<Global> global = self->global_pool_.lock();
    if (global == nullptr) {
      // Not make_shared: the weak reference would keep the dead tier's memory.
      global = std::shared_ptr<Global>(new Global(self->max_batches_));
      self->global_pool_ = global;
    }
    return global;
  }

 private:
  friend class ObjectPoolTestPeer;

  static void LockForFork(void* pool) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    auto* const self = static_cast<ObjectPool*>(pool);
    self->lock_.Acquire();
    self->forking_ = self->global_pool_.lock();
    if (self->forking_ != nullptr) self->forking_->mutex_.lock();
  }
  static void UnlockAfterFork(void* pool) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    auto* const self = static_cast<ObjectPool*>(pool);
    const std::shared_ptr<Global> tier = std::move(self->forking_);  // Dropped after the lock.
    if (tier != nullptr) tier->mutex_.unlock();
    self->lock_.Release();
  }

  std::unique_ptr<TLSPool> tls_pool_;
  base::Lock lock_;
  std::weak_ptr<Global> global_pool_ QUENOR_GUARDED_BY(lock_);
  uint32_t max_batches_;
  std::shared_ptr<Global> forking_;  // The shared tier, held while the process forks.
  base::HeldAtFork held_at_fork_;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_OBJECT_POOL_OBJECT_POOL_H_
