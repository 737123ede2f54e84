// The atomic count beneath shared byte storage.
#ifndef QUENOR_BASE_PLATFORM_BASE_REF_COUNTED_H_
#define QUENOR_BASE_PLATFORM_BASE_REF_COUNTED_H_

#include <atomic>
#include <cstdint>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base::subtle {

// Starts at 0: the first holder adds its own reference.
class RefCountedThreadSafeBase {
 public:
  RefCountedThreadSafeBase() = default;
  RefCountedThreadSafeBase(const RefCountedThreadSafeBase&) = delete;
  RefCountedThreadSafeBase& operator=(const RefCountedThreadSafeBase&) = delete;

  // Any thread that holds a reference (or is about to publish the object).
  void AddRef() const {
    // relaxed: a new reference is made from an existing one, which already orders the object.
    count_.fetch_add(1, std::memory_order_relaxed);
  }

  // Any thread that holds a reference. True when it was the last: the caller then frees the object.
  [[nodiscard]] bool Release() const {
    // acq_rel: release publishes this holder's writes, acquire lets the last holder see them all.
    return count_.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }

  // Any thread that holds a reference. True when no other holder exists.
  bool HasOneRef() const {
    // acquire: pairs with the release in Release(); what former holders read is done being read.
    return count_.load(std::memory_order_acquire) == 1;
  }

 protected:
  ~RefCountedThreadSafeBase() = default;

 private:
  mutable std::atomic<uint32_t> count_{0};
};

}  // namespace base::subtle
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_REF_COUNTED_H_
