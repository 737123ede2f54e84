// A shared pointer that any thread may read and replace, behind one mutex.
#ifndef QUENOR_BASE_DATA_REPORT_HTTPS_ATOMIC_SHARED_PTR_MUTEX_H_
#define QUENOR_BASE_DATA_REPORT_HTTPS_ATOMIC_SHARED_PTR_MUTEX_H_

#include <memory>
#include <mutex>
#include <utility>

#include "quenor_base/platform/base/abi.h"
#include "quenor_base/platform/base/lock.h"

QUENOR_NAMESPACE_BEGIN
namespace internal {

template <typename T>
class AtomicSharedPtrMutex {
 public:
  // Any thread. A copy of the held pointer, taken under the lock.
  std::shared_ptr<T> load() const {
    base::LockSoon(&mutex_);
    std::lock_guard<std::mutex> hold(mutex_, std::adopt_lock);
    return pointer_;
  }

  // Any thread. Replaces the held pointer. The old one is released under the lock: when it was the
  // last reference, T's destructor runs there, so it must not come back to this holder.
  void store(std::shared_ptr<T> value) {
    std::lock_guard<std::mutex> hold(mutex_);
    pointer_ = std::move(value);
  }

 private:
  // A plain std::mutex, held only for one pointer copy or swap and that release.
  mutable std::mutex mutex_;
  std::shared_ptr<T> pointer_;
};

}  // namespace internal
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_DATA_REPORT_HTTPS_ATOMIC_SHARED_PTR_MUTEX_H_
