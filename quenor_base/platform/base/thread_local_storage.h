// A per-thread pointer with a destructor, over a pthread key.
// Life cycle: a slot that has a destructor must outlive every thread that set it; ours live for the
// process.
#ifndef QUENOR_BASE_PLATFORM_BASE_THREAD_LOCAL_STORAGE_H_
#define QUENOR_BASE_PLATFORM_BASE_THREAD_LOCAL_STORAGE_H_

#include <pthread.h>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class ThreadLocalStorage {
 public:
  class Slot {
   public:
    using Destructor = void (*)(void*);

    // Any thread. `destructor` (may be null) runs with the thread's value on each thread that ends
    // with a value that is not null. When the process has no key left the slot stays unusable:
    // Get() answers null and Set() does nothing.
    explicit Slot(Destructor destructor = nullptr)
        : usable_(pthread_key_create(&key_, destructor) == 0) {}
    ~Slot() {
      if (usable_) pthread_key_delete(key_);
    }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    // Any thread. The value that this thread has set, or null.
    void* Get() const { return usable_ ? pthread_getspecific(key_) : nullptr; }

    // Any thread. Sets this thread's value and runs no destructor; false when the value could not
    // be kept, in which case the old one stays.
    bool Set(void* value) { return usable_ && pthread_setspecific(key_, value) == 0; }

   private:
    pthread_key_t key_{};
    bool usable_;
  };
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_THREAD_LOCAL_STORAGE_H_
