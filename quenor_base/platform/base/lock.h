// A pthread mutex and its scoped holder. Not recursive; safe to create and destroy on any thread.
#ifndef QUENOR_BASE_PLATFORM_BASE_LOCK_H_
#define QUENOR_BASE_PLATFORM_BASE_LOCK_H_

#include <pthread.h>

#include "quenor_base/platform/base/thread_annotations.h"

namespace quenor::base {

class QUENOR_CAPABILITY("mutex") Lock {
 public:
  Lock() = default;
  ~Lock() { pthread_mutex_destroy(&mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Any thread. Blocks until the calling thread holds the lock; it must not hold it already.
  void Acquire() QUENOR_ACQUIRE() { pthread_mutex_lock(&mutex_); }
  // The holding thread only.
  void Release() QUENOR_RELEASE() { pthread_mutex_unlock(&mutex_); }
  // Any thread. True when the lock was free and is now held by the caller.
  [[nodiscard]] bool Try() QUENOR_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&mutex_) == 0; }

  // For pthread_cond_wait; borrows the mutex for as long as the lock lives.
  pthread_mutex_t* native_handle() { return &mutex_; }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class QUENOR_SCOPED_CAPABILITY AutoLock {
 public:
  explicit AutoLock(Lock& lock) QUENOR_ACQUIRE(lock) : lock_(lock) { lock_.Acquire(); }
  ~AutoLock() QUENOR_RELEASE() { lock_.Release(); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  Lock& lock_;
};

}  // namespace quenor::base

#endif  // QUENOR_BASE_PLATFORM_BASE_LOCK_H_
