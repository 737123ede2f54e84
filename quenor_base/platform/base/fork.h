// What the library's own state goes through when the host forks: a child has a copy of everything
// and none of the threads, so what another thread was at stays half done there for ever.
#ifndef QUENOR_BASE_PLATFORM_BASE_FORK_H_
#define QUENOR_BASE_PLATFORM_BASE_FORK_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"

namespace quenor::base {

namespace internal {
inline std::atomic<uint32_t> fork_generation{0};
}  // namespace internal

// For as long as it lives: fork() waits until it has `lock`ed the object, and `unlock`s it in both
// processes, so that the child finds what the lock guards free and whole. For locks under which no
// code of the host's runs, and none that makes or ends one of these.
// Threads: any.
class HeldAtFork {
 public:
  using Operation = void (*)(void* object);

  // Borrows `object` until destruction.
  HeldAtFork(void* object, Operation lock, Operation unlock)
      : HeldAtFork(object, lock, unlock, unlock) {}
  // A plain lock.
  explicit HeldAtFork(Lock* lock) : HeldAtFork(lock, &AcquireLock, &ReleaseLock) {}
  // With another way to unlock it in the child.
  HeldAtFork(void* object, Operation lock, Operation unlock, Operation unlock_in_child)
      : object_(object), lock_(lock), unlock_(unlock), unlock_in_child_(unlock_in_child) {
    std::lock_guard<std::mutex> hold(mutex);
    next_ = first;
    if (next_ != nullptr) next_->previous_ = this;
    first = this;
  }
  ~HeldAtFork() {
    std::lock_guard<std::mutex> hold(mutex);
    (previous_ != nullptr ? previous_->next_ : first) = next_;
    if (next_ != nullptr) next_->previous_ = previous_;
  }
  HeldAtFork(const HeldAtFork&) = delete;
  HeldAtFork& operator=(const HeldAtFork&) = delete;

 private:
  static void AcquireLock(void* lock) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<Lock*>(lock)->Acquire();
  }
  static void ReleaseLock(void* lock) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<Lock*>(lock)->Release();
  }
  static void LockAll() {
    mutex.lock();
    for (const HeldAtFork* held = first; held != nullptr; held = held->next_) {
      held->lock_(held->object_);
    }
  }
  static void UnlockInParent() {
    for (const HeldAtFork* held = first; held != nullptr; held = held->next_) {
      held->unlock_(held->object_);
    }
    mutex.unlock();
  }
  static void UnlockInChild() {
    // relaxed: there is one thread.
    internal::fork_generation.fetch_add(1, std::memory_order_relaxed);
    for (const HeldAtFork* held = first; held != nullptr; held = held->next_) {
      held->unlock_in_child_(held->object_);
    }
    mutex.unlock();
  }

  inline static std::mutex mutex;
  inline static HeldAtFork* first = nullptr;
  // Before main(), and so before the handlers of whoever waits at a fork for threads that may still
  // need one of these locks: what is registered first is locked last.
  inline static const int registered = pthread_atfork(&LockAll, &UnlockInParent, &UnlockInChild);

  void* const object_;
  const Operation lock_;
  const Operation unlock_;
  const Operation unlock_in_child_;
  HeldAtFork* previous_ = nullptr;
  HeldAtFork* next_ = nullptr;
};

// Any thread. How many forks lie between this process and the one that loaded the library. What was
// made under another number belongs to threads that do not exist here.
inline uint32_t ForkGeneration() {
  // relaxed: changes only where there is one thread.
  return internal::fork_generation.load(std::memory_order_relaxed);
}

}  // namespace quenor::base

#endif  // QUENOR_BASE_PLATFORM_BASE_FORK_H_
