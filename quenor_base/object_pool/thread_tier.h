// The thread tier of an object pool: one thread's arrays, handed out and taken back without a lock.
// Life cycle: made on a thread's first use of the pool and freed when the thread ends.
// Threads: TLSObjectPool, any; a TLSObjectPoolImpl, its own thread.
// Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_THREAD_TIER_H_
#define QUENOR_BASE_OBJECT_POOL_THREAD_TIER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <memory>
#include <type_traits>
#include <utility>

#include "quenor_base/object_pool/shared_tier.h"
#include "quenor_base/platform/base/thread_local_storage.h"

QUENOR_NAMESPACE_BEGIN

namespace objpool {

// Tells whether the calling thread has begun to free its tiers. A tier made after that might find
// no round of slot destructors left to free it (a system runs only a few,
// PTHREAD_DESTRUCTOR_ITERATIONS), so none is made any more. A plain bool: it stays readable in
// every destructor that the thread still runs.
class ThreadEnd {
 public:
  static bool HasBegun() { return begun_; }
  static void SetBegun() { begun_ = true; }

 private:
  inline static thread_local bool begun_ = false;
};

}  // namespace objpool

// One thread's tier of one pool.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class TLSObjectPoolImpl {
 public:
  using Element = std::remove_extent_t<T>;
  using Array = objpool::ObjUniquePtr<T, Destroyer>;
  using Batch = std::list<Array>;
  using Global = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  // Shares `global_pool` (may be empty: the tier then works alone).
  TLSObjectPoolImpl(std::shared_ptr<Global> global_pool, uint32_t object_size, uint32_t capacity)
      : global_pool_(std::move(global_pool)), object_size_(object_size), capacity_(capacity) {}
  TLSObjectPoolImpl(const TLSObjectPoolImpl&) = delete;
  TLSObjectPoolImpl& operator=(const TLSObjectPoolImpl&) = delete;

  // Owning thread. Takes out the array that came back last; a dry tier first takes the newest batch
  // of the shared tier and fills it up to `capacity_` with fresh arrays. The result holds null when
  // that array could not be made. Locks only when dry.
  [[nodiscard]] Array Alloc() {
    if (free_list_.empty()) Refill();
    Array taken = std::move(free_list_.back());
    spare_nodes_.splice(spare_nodes_.end(), free_list_, std::prev(free_list_.end()));
    return taken;
  }

  // Owning thread. Takes `p`, not null, an array of this pool. Hands a whole batch of `capacity_`
  // arrays to the shared tier when that many have gathered beyond the free list; locks only then.
  void Reuse(Element* p) {
    Resetter()(p, object_size_);
    if (free_list_.size() < capacity_) return Store(p, &free_list_);
    Store(p, &pending_batch_);
    if (pending_batch_.size() >= capacity_) HandOver();
  }

 private:
  friend class ObjectPoolTestPeer;

  // Appends `p` (may be null) to a list, in a spare node if there is one.
  void Store(Element* p, Batch* list) {
    if (spare_nodes_.empty()) spare_nodes_.emplace_back();
    spare_nodes_.back() = Array(p, object_size_);
    list->splice(list->end(), spare_nodes_, std::prev(spare_nodes_.end()));
  }
  // Fills the free list, which is empty.
  void Refill();
  // Gives the pending batch away.
  void HandOver();

  std::shared_ptr<Global> global_pool_;
  Batch free_list_;      // ready to hand out, the latest return at the back
  Batch pending_batch_;  // returns beyond a full free list, fewer than a batch
  uint32_t object_size_;
  uint32_t capacity_;  // bound of both lists and the size of a batch
  // Nodes that own null, for the next returns: the nodes of arrays that were taken out. A node is
  // made only when there is no spare one, so a thread has at most 2 * capacity_ in its three lists.
  Batch spare_nodes_;
  std::list<Batch> spare_place_;  // none or one, empty inside: for the next hand-over
};

// One per pool, shared by all threads: finds or makes the calling thread's tier.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class TLSObjectPool {
 public:
  using Tier = TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>;
  using Global = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  // `capacity` 0 is taken as 1: a tier of no arrays would have none to hand out.
  TLSObjectPool(uint32_t object_size, uint32_t capacity)
      : slot_(&OnThreadEnd), object_size_(object_size), capacity_(capacity == 0 ? 1 : capacity) {}
  // Frees the calling thread's tier; every other thread that used the pool must have ended.
  ~TLSObjectPool() {
    auto* const tier = static_cast<Tier*>(slot_.Get());
    slot_.Set(nullptr);
    delete tier;
  }
  TLSObjectPool(const TLSObjectPool&) = delete;
  TLSObjectPool& operator=(const TLSObjectPool&) = delete;

  // Any thread. The calling thread's tier, made with what `get_global(arg)` answers when there is
  // none yet. Null, with nothing kept, when that answer is empty, when the thread is ending and has
  // freed a tier already, or when the thread has no room for the slot's value. Lends the tier until
  // the thread ends.
  Tier* GetTLSPool(std::shared_ptr<Global> (*get_global)(void*), void* arg) {
    void* const tier = slot_.Get();
    return tier != nullptr ? static_cast<Tier*>(tier) : MakeTier(get_global, arg);
  }

  // Any thread. The length of every array, in elements.
  uint32_t object_size() const { return object_size_; }

 private:
  friend class ObjectPoolTestPeer;

  Tier* MakeTier(std::shared_ptr<Global> (*get_global)(void*), void* arg);
  // The slot's destructor: runs on the thread that ends, with its tier and the slot back at null.
  static void OnThreadEnd(void* tier) {
    objpool::ThreadEnd::SetBegun();  // before the arrays go: a destroyer may call the pool again
    delete static_cast<Tier*>(tier);
  }

  base::ThreadLocalStorage::Slot slot_;  // this thread's TLSObjectPoolImpl*, or null
  uint32_t object_size_;
  uint32_t capacity_;
};

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::Refill() {
  if (!pending_batch_.empty()) return free_list_.swap(pending_batch_);
  if (global_pool_ != nullptr) {
    // A batch is paid for with as many spare nodes: so a thread that only takes and one that only
    // returns need no new ones either.
    Batch spare;
    const size_t count = std::min<size_t>(spare_nodes_.size(), capacity_);
    spare.splice(spare.end(), spare_nodes_, spare_nodes_.begin(),
                 std::next(spare_nodes_.begin(), static_cast<std::ptrdiff_t>(count)));
    global_pool_->TakeNewest(&free_list_, &spare);
    spare_nodes_.splice(spare_nodes_.end(), spare);
  }
  while (free_list_.size() < capacity_) Store(Allocator()(object_size_), &free_list_);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::HandOver() {
  if (global_pool_ == nullptr) {
    Batch freed;  // A destroyer may call the pool again.
    return freed.swap(pending_batch_);
  }
  if (spare_place_.empty()) spare_place_.emplace_back();  // Not under the mutex: it may throw.
  global_pool_->HandOver(&pending_batch_, &spare_nodes_, &spare_place_);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
auto TLSObjectPool<T, Resetter, Allocator, Destroyer>::MakeTier(
    std::shared_ptr<Global> (*get_global)(void*), void* arg) -> Tier* {
  if (objpool::ThreadEnd::HasBegun()) return nullptr;
  std::shared_ptr<Global> global = get_global(arg);
  if (global == nullptr) return nullptr;
  auto made = std::make_unique<Tier>(std::move(global), object_size_, capacity_);
  // Owned by the slot, if it can keep it.
  return slot_.Set(made.get()) ? made.release() : nullptr;
}

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_OBJECT_POOL_THREAD_TIER_H_
