// ObjectPool: arrays of one fixed length, kept for reuse in two tiers.
// The thread tier (TLSObjectPoolImpl) belongs to one thread and takes no lock. The shared tier
// (GlobalObjectPool) passes whole batches between threads under one mutex.
// Life cycle: a thread's tier is made on first use and freed when the thread ends; the shared tier
// lives as long as some thread tier holds it. A pool must outlive every thread that used it.
// Thread safety: ObjectPool and TLSObjectPool, any thread; a TLSObjectPoolImpl, its own thread.
// Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_OBJECT_POOL_H_
#define QUENOR_BASE_OBJECT_POOL_OBJECT_POOL_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/base/thread_local_storage.h"

namespace quenor {

class ObjectPoolTestPeer;

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class TLSObjectPool;
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class TLSObjectPoolImpl;
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class GlobalObjectPool;
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class ObjectPool;

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

// Move-only owner of one pooled array. May hold null together with a length: an array that could
// not be made.
template <typename T, typename Destroyer>
class ObjUniquePtr {
 public:
  using Element = std::remove_extent_t<T>;

  ObjUniquePtr() = default;
  // Takes `ptr` (may be null), an array of `size` elements.
  ObjUniquePtr(Element* ptr, uint32_t size) : ptr_(ptr), size_(size) {}
  ObjUniquePtr(ObjUniquePtr&& other) noexcept
      : ptr_(std::exchange(other.ptr_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  ObjUniquePtr& operator=(ObjUniquePtr&& other) noexcept {
    ObjUniquePtr taken(std::move(other));
    std::swap(ptr_, taken.ptr_);
    std::swap(size_, taken.size_);
    return *this;
  }
  ~ObjUniquePtr() {
    if (ptr_ != nullptr) Destroyer()(ptr_, size_);
  }

  // Borrowed; may be null.
  Element* get() const { return ptr_; }
  uint32_t size() const { return size_; }
  // Hands the array (may be null) to the caller and leaves null and 0.
  [[nodiscard]] Element* Release() {
    size_ = 0;
    return std::exchange(ptr_, nullptr);
  }
  // The two halves of an owner's reuse for arrays of one length: hands the array (may be null) to
  // the caller and leaves null with the length; then takes `ptr` (may be null), of that length.
  [[nodiscard]] Element* GiveOut() { return std::exchange(ptr_, nullptr); }
  void TakeIn(Element* ptr) { ptr_ = ptr; }

 private:
  Element* ptr_ = nullptr;
  uint32_t size_ = 0;
};

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
struct ThreadTier;
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
struct SharedTier;

// The calling thread's tiers of the process's first pools, for a look-up that is one load: a slot
// asks the thread library. Filled and emptied with the slot; plain pointers, so they stay readable
// in every destructor that the thread still runs.
class NearTiers {
 public:
  // The first places belong to the nine pools of byte arrays, by the number of their class: who
  // knows the class when he is compiled has the place, too.
  static constexpr uint32_t kByteArrayPools = 9;

  // Any thread. The place of another pool; the last one, which stays null, when all are given away.
  // Never given twice: a place outlives its pool.
  static uint32_t NextPlace() {
    // relaxed: only the number counts.
    const uint32_t place = places_.fetch_add(1, std::memory_order_relaxed);
    return place < kPlaces ? place : kPlaces;
  }
  static void* Get(uint32_t place) { return tiers_[place]; }
  static void Set(uint32_t place, void* tier) {
    if (place < kPlaces) tiers_[place] = tier;
  }

 private:
  static constexpr uint32_t kPlaces = 15;

  inline static std::atomic<uint32_t> places_{kByteArrayPools};
  inline static thread_local void* tiers_[kPlaces + 1] = {};
};

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

// One per pool, shared by all threads: finds or makes the calling thread's tier.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class TLSObjectPool {
 public:
  using Tier = TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>;
  using Global = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  // `capacity` 0 is taken as 1: a tier of no arrays would have none to hand out.
  // `near_place`: of this pool, in NearTiers.
  TLSObjectPool(uint32_t object_size, uint32_t capacity,
                uint32_t near_place = objpool::NearTiers::NextPlace())
      : slot_(&OnThreadEnd),
        object_size_(object_size),
        capacity_(capacity == 0 ? 1 : capacity),
        near_place_(near_place) {}
  // Frees the calling thread's tier; every other thread that used the pool must have ended.
  ~TLSObjectPool();
  TLSObjectPool(const TLSObjectPool&) = delete;
  TLSObjectPool& operator=(const TLSObjectPool&) = delete;

  // Any thread. The calling thread's tier, made with what `get_global(arg)` answers when there is
  // none yet. Null, with nothing kept, when that answer is empty, when the thread is ending and has
  // freed a tier already, or when the thread has no room for the slot's value. Lends the tier until
  // the thread ends.
  Tier* GetTLSPool(std::shared_ptr<Global> (*get_global)(void*), void* arg) {
    Tier* tier = TierAtHand(near_place_);
    return tier != nullptr ? tier : FindTier(get_global, arg);
  }

  // Any thread. The calling thread's tier of the pool at `near_place` when one load finds it; null
  // says nothing. Lends it.
  static Tier* TierAtHand(uint32_t near_place) {
    return static_cast<Tier*>(objpool::NearTiers::Get(near_place));
  }

  // Any thread. The length of every array, in elements.
  uint32_t object_size() const { return object_size_; }

 private:
  friend class ObjectPoolTestPeer;

  Tier* FindTier(std::shared_ptr<Global> (*get_global)(void*), void* arg) {
    void* tier = slot_.Get();
    return tier != nullptr ? static_cast<Tier*>(tier) : MakeTier(get_global, arg);
  }
  Tier* MakeTier(std::shared_ptr<Global> (*get_global)(void*), void* arg);
  // The slot's destructor: runs on the thread that ends, with its tier and the slot back at null.
  static void OnThreadEnd(void* tier);

  base::ThreadLocalStorage::Slot slot_;  // this thread's TLSObjectPoolImpl*, or null
  uint32_t object_size_;
  uint32_t capacity_;
  const uint32_t near_place_;
};

// One thread's tier of one pool. Always the base of an objpool::ThreadTier.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class TLSObjectPoolImpl {
 public:
  using Element = std::remove_extent_t<T>;
  using Array = objpool::ObjUniquePtr<T, Destroyer>;
  using Batch = std::list<Array>;
  using Global = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  TLSObjectPoolImpl(const TLSObjectPoolImpl&) = delete;
  TLSObjectPoolImpl& operator=(const TLSObjectPoolImpl&) = delete;

  // Owning thread. Whether the next Alloc() will have to look further than the free list.
  bool IsDry() { return holder().spare == free_list_.begin(); }

  // Owning thread. Takes out the array that came back last; a dry tier first takes the newest batch
  // of the shared tier and fills it up to `capacity_` with fresh arrays. The result holds null when
  // that array could not be made. Locks only when dry.
  [[nodiscard]] Array Alloc();

  // Owning thread. Takes `p`, not null, an array of this pool. Hands a whole batch of `capacity_`
  // arrays to the shared tier when that many have gathered beyond the free list; locks only then.
  void Reuse(Element* p);

 private:
  friend class ObjectPoolTestPeer;
  using Holder = objpool::ThreadTier<T, Resetter, Allocator, Destroyer>;
  using SharedHolder = objpool::SharedTier<T, Resetter, Allocator, Destroyer>;
  friend Holder;

  // Shares `global_pool` (may be empty: the tier then works alone).
  TLSObjectPoolImpl(std::shared_ptr<Global> global_pool, uint32_t object_size, uint32_t capacity)
      : global_pool_(std::move(global_pool)), object_size_(object_size), capacity_(capacity) {}
  ~TLSObjectPoolImpl() = default;

  Holder& holder() { return static_cast<Holder&>(*this); }
  SharedHolder& shared() { return static_cast<SharedHolder&>(*global_pool_); }

  // Takes the last array out of the free list; null when that one could not be made.
  Element* TakeLast();
  // The rare steps are kept out of line: the common path then saves no registers.
  [[gnu::noinline]] Element* TakeLastWhenDry();
  // Stores `p` (may be null) in the free list's first spare node; there must be one.
  void StoreInSpare(Element* p);
  // Stores `p` (may be null) in a new node of the free list, which has no spare one.
  [[gnu::noinline]] void StoreInNewNode(Element* p);
  // Stores `p` when the free list has no spare node.
  [[gnu::noinline]] void StoreWithoutSpare(Element* p);
  // Stores `p`, which the free list has no room for, in the pending batch.
  void Gather(Element* p);
  // Fills the free list, which holds no array.
  void Refill();
  // Makes the newest batch of the shared tier the free list, in exchange for its spare nodes.
  // False, with nothing changed, when there is none.
  bool TakeBatch();
  // Makes a spare node for the pending batch, which has none.
  [[gnu::noinline]] void MakeGatheringNode();
  // Gives the pending batch away, in exchange for spare nodes.
  [[gnu::noinline]] void HandOver();

  std::shared_ptr<Global> global_pool_;
  // Of both lists the first nodes hold arrays and the others are spare; the holder knows where the
  // spare ones begin.
  Batch free_list_;      // ready to hand out, the latest return in the last node that holds one
  Batch pending_batch_;  // returns beyond a full free list, fewer than a batch
  uint32_t object_size_;
  uint32_t capacity_;  // bound of both lists, in nodes, and the size of a batch
};

// The shared tier of one pool. Always the base of an objpool::SharedTier.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class GlobalObjectPool {
 public:
  using Batch = std::list<objpool::ObjUniquePtr<T, Destroyer>>;

  GlobalObjectPool(const GlobalObjectPool&) = delete;
  GlobalObjectPool& operator=(const GlobalObjectPool&) = delete;

  // How many batches a trim leaves of a tier bounded by `max_batches`. In 32 bits, so a bound above
  // 2^32 / 3 wraps around.
  static constexpr uint32_t BatchesLeftByTrim(uint32_t max_batches) {
    return max_batches * 3u / 4u;
  }

 private:
  friend class ObjectPool<T, Resetter, Allocator, Destroyer>;
  friend class ObjectPoolTestPeer;
  friend class TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>;
  friend struct objpool::SharedTier<T, Resetter, Allocator, Destroyer>;

  explicit GlobalObjectPool(uint32_t max_batches) : max_batches_(max_batches) {}
  ~GlobalObjectPool() = default;

  // The caller holds `mutex_`. Frees the oldest batches when there are more than `max_batches_`,
  // down to three quarters of the bound: the next hand-overs then find room instead of each freeing
  // a batch under the mutex.
  void TrimLocked();

  std::mutex mutex_;          // guards batches_ and the holder's empty_envelopes
  std::list<Batch> batches_;  // whole batches, oldest at the front
  uint32_t max_batches_;      // in batches, not in arrays
};

// The pool: the door to both tiers.
template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class ObjectPool {
 public:
  using Element = std::remove_extent_t<T>;
  using TLSPool = TLSObjectPool<T, Resetter, Allocator, Destroyer>;
  using Global = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  // A pool of arrays of `object_size` elements. `capacity` bounds each of a thread's two lists and
  // is the size of a batch (0 is taken as 1); `max_batches` bounds the shared tier. `near_place`:
  // of this pool, in NearTiers.
  ObjectPool(uint32_t object_size, uint32_t capacity, uint32_t max_batches,
             uint32_t near_place = objpool::NearTiers::NextPlace())
      : tls_pool_(std::make_unique<TLSPool>(object_size, capacity, near_place)),
        max_batches_(max_batches),
        held_at_fork_(this, &LockForFork, &UnlockAfterFork) {}
  ObjectPool(const ObjectPool&) = delete;
  ObjectPool& operator=(const ObjectPool&) = delete;

  // Any thread. An array with whatever its last user left in it, or null when memory has run out.
  // The caller owns it and gives it back with Reuse, on any thread.
  [[nodiscard]] Element* AllocRaw() {
    auto* tier = tls_pool_->GetTLSPool(&GetGlobalObjectPool, this);
    if (tier == nullptr) return Allocator()(tls_pool_->object_size());
    return tier->Alloc().Release();
  }

  // Any thread. Takes `p`, an array that AllocRaw of this pool handed out (not checked); null is
  // ignored.
  void Reuse(Element* p) {
    auto* tier = tls_pool_->GetTLSPool(&GetGlobalObjectPool, this);
    if (p == nullptr) return;
    if (tier == nullptr) {
      Destroyer()(p, tls_pool_->object_size());
      return;
    }
    tier->Reuse(p);
  }

  // Any thread. The shared tier of the ObjectPool at `pool`, made when none is alive; empty when
  // `pool` is null.
  static std::shared_ptr<Global> GetGlobalObjectPool(void* pool);

 private:
  friend class ObjectPoolTestPeer;

  static void LockForFork(void* pool);
  static void UnlockAfterFork(void* pool);

  std::unique_ptr<TLSPool> tls_pool_;
  base::Lock lock_;
  std::weak_ptr<Global> global_pool_ QUENOR_GUARDED_BY(lock_);
  std::shared_ptr<Global> forking_;  // The shared tier, held while the process forks.
  uint32_t max_batches_;
  base::HeldAtFork held_at_fork_;
};

namespace objpool {

// A list keeps its nodes: a cursor divides those that hold an array, in front, from the spare ones
// behind, each of which owns null and keeps the length of the pool's arrays. Taking an array out
// and storing one moves the cursor by a node and links nothing. Only the cursor tells a spare node
// from one that holds a null: an array that could not be made is held like any other.
// A whole batch travels in an envelope, the node of `batches_` that it is in, and pays for its
// passage in spare nodes: who takes a batch leaves the nodes of his empty free list in the
// envelope, who hands one over finds such nodes in the next envelope. So a thread that only takes
// and a thread that only returns need no new nodes either, and nothing is allocated while the mutex
// is held.
// Bounds: a thread's nodes, holding and spare, are at most 2 * capacity_, since each of its two
// lists has at most capacity_: a list makes a node only while it has fewer, and otherwise gets all
// its nodes at once, from the other list or from an envelope, in exchange for its own. (The tiers
// of one pool have one capacity_.)

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
struct ThreadTier final : TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer> {
  using Base = TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>;
  using Batch = typename Base::Batch;

  ThreadTier(std::shared_ptr<typename Base::Global> global_pool, uint32_t object_size,
             uint32_t capacity, uint32_t place)
      : Base(std::move(global_pool), object_size, capacity), near_place(place) {}

  using Node = typename Batch::iterator;

  // Of free_list_: the node whose array goes next, anything when none holds one; and the first
  // spare node, or the end. Two neighbours, so that a take after a return and a return after a take
  // find their node without reading a link. Not side by side in memory: the compiler would write
  // both in one store, and a processor reads half of a store later than all of it.
  Node last{};
  Node gathered = Base::pending_batch_.end();  // the first spare node of pending_batch_, or its end
  Node spare = Base::free_list_.end();
  const uint32_t near_place;  // of the pool, in NearTiers
  std::list<Batch> envelope;  // none or one, empty inside: for the next hand-over
};

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
struct SharedTier final : GlobalObjectPool<T, Resetter, Allocator, Destroyer> {
  using Base = GlobalObjectPool<T, Resetter, Allocator, Destroyer>;

  explicit SharedTier(uint32_t max_batches) : Base(max_batches) {}

  // Guarded by `mutex_`; with nothing but spare nodes inside. With `batches_` together never more
  // than max_batches_ + 1: another envelope comes in only when a hand-over finds none here.
  std::list<typename Base::Batch> empty_envelopes;
};

}  // namespace objpool

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
TLSObjectPool<T, Resetter, Allocator, Destroyer>::~TLSObjectPool() {
  auto* tier = static_cast<Tier*>(slot_.Get());
  slot_.Set(nullptr);
  objpool::NearTiers::Set(near_place_, nullptr);
  delete static_cast<objpool::ThreadTier<T, Resetter, Allocator, Destroyer>*>(tier);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
auto TLSObjectPool<T, Resetter, Allocator, Destroyer>::MakeTier(
    std::shared_ptr<Global> (*get_global)(void*), void* arg) -> Tier* {
  if (objpool::ThreadEnd::HasBegun()) return nullptr;
  std::shared_ptr<Global> global = get_global(arg);
  if (global == nullptr) return nullptr;
  auto made = std::make_unique<objpool::ThreadTier<T, Resetter, Allocator, Destroyer>>(
      std::move(global), object_size_, capacity_, near_place_);
  Tier* tier = made.get();
  if (!slot_.Set(tier)) return nullptr;
  made.release();  // owned by the slot from here on
  objpool::NearTiers::Set(near_place_, tier);
  return tier;
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPool<T, Resetter, Allocator, Destroyer>::OnThreadEnd(void* tier) {
  objpool::ThreadEnd::SetBegun();  // before the arrays go: a destroyer may call the pool again
  auto* ending = static_cast<objpool::ThreadTier<T, Resetter, Allocator, Destroyer>*>(
      static_cast<Tier*>(tier));
  objpool::NearTiers::Set(ending->near_place, nullptr);
  delete ending;
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
inline auto TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::Alloc() -> Array {
  return Array(TakeLast(), object_size_);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
inline auto TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::TakeLast() -> Element* {
  Holder& self = holder();
  if (IsDry()) return TakeLastWhenDry();
  const auto node = self.last;
  self.spare = node;
  if (node != free_list_.begin()) self.last = std::prev(node);
  return node->GiveOut();
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
auto TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::TakeLastWhenDry() -> Element* {
  Refill();
  return TakeLast();
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
inline void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::Reuse(Element* p) {
  Resetter()(p, object_size_);
  if (holder().spare == free_list_.end()) return StoreWithoutSpare(p);
  StoreInSpare(p);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
inline void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::StoreInSpare(Element* p) {
  Holder& self = holder();
  const auto node = self.spare;
  self.last = node;
  self.spare = std::next(node);
  node->TakeIn(p);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::StoreInNewNode(Element* p) {
  free_list_.emplace_back(p, object_size_);
  holder().last = std::prev(free_list_.end());
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::StoreWithoutSpare(Element* p) {
  if (free_list_.size() < capacity_) {
    StoreInNewNode(p);
    return;
  }
  Gather(p);
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
inline void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::Gather(Element* p) {
  Holder& self = holder();
  if (self.gathered == pending_batch_.end()) MakeGatheringNode();
  self.gathered->TakeIn(p);
  ++self.gathered;
  // No iterator of this function may outlive the hand-over: a debug library ends it there.
  if (self.gathered == pending_batch_.end() && pending_batch_.size() >= capacity_) HandOver();
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::MakeGatheringNode() {
  pending_batch_.emplace_back(nullptr, object_size_);
  holder().gathered = std::prev(pending_batch_.end());
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::Refill() {
  Holder& self = holder();
  if (self.gathered != pending_batch_.begin()) {
    const bool all = self.gathered == pending_batch_.end();
    free_list_.swap(pending_batch_);
    self.spare = all ? free_list_.end() : self.gathered;
    self.last = std::prev(self.spare);
    self.gathered = pending_batch_.begin();
    return;
  }
  for (size_t held = TakeBatch() ? free_list_.size() : 0; held < capacity_; ++held) {
    Element* const p = Allocator()(object_size_);
    if (self.spare != free_list_.end()) {
      StoreInSpare(p);
    } else {
      StoreInNewNode(p);
    }
  }
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
bool TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::TakeBatch() {
  if (global_pool_ == nullptr) return false;
  SharedHolder& tier = shared();
  std::lock_guard<std::mutex> lock(tier.mutex_);
  if (tier.batches_.empty()) return false;
  const auto newest = std::prev(tier.batches_.end());
  newest->swap(free_list_);
  // Still under the mutex: no cursor may point at a node that another thread has already.
  holder().spare = free_list_.end();
  holder().last = free_list_.empty() ? free_list_.end() : std::prev(free_list_.end());
  tier.empty_envelopes.splice(tier.empty_envelopes.end(), tier.batches_, newest);
  return true;
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void TLSObjectPoolImpl<T, Resetter, Allocator, Destroyer>::HandOver() {
  if (global_pool_ == nullptr) {
    Batch freed;
    freed.swap(pending_batch_);
    holder().gathered = pending_batch_.end();
    return;
  }
  std::list<Batch>& own = holder().envelope;
  if (own.empty()) own.emplace_back();
  SharedHolder& tier = shared();
  std::lock_guard<std::mutex> lock(tier.mutex_);
  std::list<Batch>& envelopes = tier.empty_envelopes.empty() ? own : tier.empty_envelopes;
  const auto envelope = std::prev(envelopes.end());
  envelope->swap(pending_batch_);
  holder().gathered = pending_batch_.begin();
  tier.batches_.splice(tier.batches_.end(), envelopes, envelope);
  tier.TrimLocked();
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void GlobalObjectPool<T, Resetter, Allocator, Destroyer>::TrimLocked() {
  if (batches_.size() <= max_batches_) return;
  const uint32_t left = BatchesLeftByTrim(max_batches_);
  while (batches_.size() > left) batches_.pop_front();
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
auto ObjectPool<T, Resetter, Allocator, Destroyer>::GetGlobalObjectPool(void* pool)
    -> std::shared_ptr<Global> {
  if (pool == nullptr) return nullptr;
  auto* self = static_cast<ObjectPool*>(pool);
  base::AutoLock lock(self->lock_);
  std::shared_ptr<Global> global = self->global_pool_.lock();
  if (global == nullptr) {
    // Not make_shared: the weak reference would keep the dead tier's memory.
    global = std::shared_ptr<Global>(
        new objpool::SharedTier<T, Resetter, Allocator, Destroyer>(self->max_batches_));
    self->global_pool_ = global;
  }
  return global;
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void ObjectPool<T, Resetter, Allocator, Destroyer>::LockForFork(void* pool)
    QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  auto* self = static_cast<ObjectPool*>(pool);
  self->lock_.Acquire();
  self->forking_ = self->global_pool_.lock();
  if (self->forking_ != nullptr) self->forking_->mutex_.lock();
}

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
void ObjectPool<T, Resetter, Allocator, Destroyer>::UnlockAfterFork(void* pool)
    QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  auto* self = static_cast<ObjectPool*>(pool);
  const std::shared_ptr<Global> tier = std::move(self->forking_);  // Dropped after the lock.
  if (tier != nullptr) tier->mutex_.unlock();
  self->lock_.Release();
}

}  // namespace quenor

#endif  // QUENOR_BASE_OBJECT_POOL_OBJECT_POOL_H_
