// Locks: a pthread mutex with its scoped holder, and ways to wait for a moment without the kernel.
#ifndef QUENOR_BASE_PLATFORM_BASE_LOCK_H_
#define QUENOR_BASE_PLATFORM_BASE_LOCK_H_

#include <pthread.h>

#include "quenor_base/platform/base/abi.h"
#include "quenor_base/platform/base/thread_annotations.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

// Not recursive; safe to create and destroy on any thread.
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

// Tells the processor that the thread spins.
inline void PauseProcessor() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield");
#endif
}

// For a moment, on some processors half a microsecond: so that a thread which has the lock's cache
// line gets a few turns done before it has to give the line away.
inline void StandBack() {
  for (int i = 0; i < 8; ++i) PauseProcessor();
}

// Any thread. Locks `mutex` (a std::mutex or the like), which its holders keep for some
// instructions only: looks a few times before it goes to sleep, which costs a hundred times that.
template <typename Mutex>
void LockSoon(Mutex* mutex) {
  constexpr int kLooks = 8;
  for (int i = 0; i < kLooks; ++i) {
    if (mutex->try_lock()) return;
    StandBack();
  }
  mutex->lock();
}

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_LOCK_H_
