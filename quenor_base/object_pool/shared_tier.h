// The shared tier of an object pool: whole batches of arrays on their way from thread to thread.
// Threads: any; one mutex, held for a constant number of relinkings and while trimming.
// Life cycle: made by the first thread tier, owned by all of them together, freed with the last.
// Design: docs/design/pooled-buffers.md.
#ifndef QUENOR_BASE_OBJECT_POOL_SHARED_TIER_H_
#define QUENOR_BASE_OBJECT_POOL_SHARED_TIER_H_

#include <cstdint>
#include <iterator>
#include <list>
#include <mutex>
#include <type_traits>
#include <utility>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

class ObjectPoolTestPeer;

namespace objpool {

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

 private:
  Element* ptr_ = nullptr;
  uint32_t size_ = 0;
};

}  // namespace objpool

template <typename T, typename Resetter, typename Allocator, typename Destroyer>
class GlobalObjectPool {
 public:
  using Batch = std::list<objpool::ObjUniquePtr<T, Destroyer>>;

  explicit GlobalObjectPool(uint32_t max_batches) : max_batches_(max_batches) {}
  GlobalObjectPool(const GlobalObjectPool&) = delete;
  GlobalObjectPool& operator=(const GlobalObjectPool&) = delete;

  // Any thread. Moves the newest batch into `batch`, which must be empty, and keeps the nodes of
  // `spare`, which own null, for whoever hands over the next. With no batch both stay as they are.
  void TakeNewest(Batch* batch, Batch* spare) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (batches_.empty()) return;
    const auto newest = std::prev(batches_.end());
    newest->swap(*batch);
    newest->swap(*spare);
    spare_batches_.splice(spare_batches_.end(), batches_, newest);
  }

  // Any thread. Takes the arrays of `batch` as a new batch and leaves it empty; appends spare nodes
  // to `spare` if a taker has left some. `*place`, one empty batch, becomes the place of the new
  // one when there is no other.
  void HandOver(Batch* batch, Batch* spare, std::list<Batch>* place) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::list<Batch>& places = spare_batches_.empty() ? *place : spare_batches_;
    const auto newest = std::prev(places.end());
    spare->splice(spare->end(), *newest);
    newest->swap(*batch);
    batches_.splice(batches_.end(), places, newest);
    TrimLocked();
  }

  // How many batches a trim leaves of a tier bounded by `max_batches`. In 32 bits, so a bound above
  // 2^32 / 3 wraps around.
  static constexpr uint32_t BatchesLeftByTrim(uint32_t max_batches) {
    return max_batches * 3u / 4u;
  }

 private:
  friend class ObjectPoolTestPeer;
  template <typename, typename, typename, typename>
  friend class ObjectPool;

  // The caller holds `mutex_`. Frees the oldest batches when there are more than `max_batches_`,
  // down to three quarters of the bound: the next hand-overs then find room instead of each freeing
  // a batch under the mutex.
  void TrimLocked() {
    if (batches_.size() <= max_batches_) return;
    const uint32_t left = BatchesLeftByTrim(max_batches_);
    while (batches_.size() > left) batches_.pop_front();
  }

  std::mutex mutex_;          // guards all that follows
  std::list<Batch> batches_;  // whole batches, oldest at the front
  uint32_t max_batches_;      // in batches, not in arrays
  // The places of batches that were taken, with the spare nodes that their takers left; together
  // with `batches_` never more than `max_batches_`, since another one comes only when there is
  // none.
  std::list<Batch> spare_batches_;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_OBJECT_POOL_SHARED_TIER_H_
